"""SearchTracker: calling forms, tables, and the store connection the pipeline uses,
on each store (the data directory's SQLite file and a shared PostgreSQL database)."""

import json
import sqlite3
import threading
import time

import pytest

from fakes.collaborators import graph, payload
from tarnwicket import search_tracking as st
from tarnwicket.search_tracking import BacktestStats, SearchTracker

CONTRACT_COLUMNS = {
    "submission_queue": "queue_id eval_id eval_type payload_json era_id priority created_at",
    "submission_retry": "retry_id eval_id eval_type payload_json era_id pool_id retry_count last_rejection_reason "
                        "retry_after created_at",
    "submission_status": "status_id eval_id eval_type era_id pool_id signal_pool_id submission_id sim_id status "
                         "submitted_at finalized_at",
    "signal_evaluations": "eval_id pool_id submitted",
    "strategy_evaluations": "eval_id strategy_pool_id signal_pool_id submitted",
}


@pytest.fixture
def tracker(tmp_path, store_url):
    t = SearchTracker(str(tmp_path / "data"), store=store_url)
    yield t
    t.close()


def record(tracker, passed=True, pool_id="pool_a", g=None, **kw):
    return tracker.record_signal_evaluation(
        g or graph(), BacktestStats(sharpe=1.5, turnover=0.2), 1, passed, "universe_top50",
        {"alpha": "1"}, pool_id=pool_id, **kw)


def columns(tracker, table):
    return tracker._store.table_columns(tracker._conn, table)


def add_claim_columns(conn, table):
    conn.execute(f"ALTER TABLE {table} ADD COLUMN in_flight_owner TEXT")
    conn.execute(f"ALTER TABLE {table} ADD COLUMN in_flight_at REAL")
    conn.commit()


def test_tracker_lives_in_expanded_data_dir(tmp_path, monkeypatch):
    monkeypatch.setenv("HOME", str(tmp_path))
    t = SearchTracker("~/tw")
    try:
        assert t._data_dir == str(tmp_path / "tw")
        assert t._db_path == str(tmp_path / "tw" / "search_tracking.db")
        assert t._conn.execute("PRAGMA journal_mode").fetchone()[0] == "wal"
    finally:
        t.close()
    assert t._conn is None
    t.close()  # idempotent
    with pytest.raises(RuntimeError, match="closed"):
        t.get_db_info()


@pytest.mark.parametrize("table", sorted(CONTRACT_COLUMNS))
def test_contract_columns_exist_and_claim_columns_do_not(tracker, table):
    cols = columns(tracker, table)
    assert set(CONTRACT_COLUMNS[table].split()) <= cols
    assert not {"in_flight_owner", "in_flight_at"} & cols


def test_caller_transactions_and_migration_on_conn(tracker):
    conn = tracker._conn
    add_claim_columns(conn, "submission_queue")
    assert {"in_flight_owner", "in_flight_at"} <= columns(tracker, "submission_queue")
    if tracker._store.dialect == "postgres":
        add_claim_columns(conn, "submission_queue")   # several owners may migrate at once on a shared store

    eval_id = record(tracker)
    _, text = payload(eval_id)
    conn.execute("BEGIN IMMEDIATE")
    tracker.enqueue_submission(eval_id, "signal", text, 1)  # joins the open transaction
    conn.execute("ROLLBACK")
    assert conn.execute("SELECT COUNT(*) FROM submission_queue").fetchone()[0] == 0

    tracker.enqueue_submission(eval_id, "signal", text, 1)
    row = conn.execute("SELECT priority, in_flight_owner, in_flight_at FROM submission_queue"
                       ).fetchone()
    assert row == (0, None, None)


def test_store_road_transaction_of_a_receipt(tracker):
    """The statements the pipeline runs to record a receipt, on the tracker's connection."""
    conn = tracker._conn
    add_claim_columns(conn, "submission_queue")
    eval_id = record(tracker)
    _, text = payload(eval_id)
    queue_id = tracker.enqueue_submission(eval_id, "signal", text, 1)
    conn.execute("UPDATE submission_queue SET in_flight_owner='me', in_flight_at=? "
                 "WHERE queue_id=?", (time.time(), queue_id))
    sim_id = st._synthetic_submission_sim_id(eval_id, "signal")

    conn.execute("BEGIN IMMEDIATE")
    st._ensure_submission_sim_parent(conn, sim_id, 1)
    st._ensure_submission_sim_parent(conn, sim_id, 1)  # already there: no error
    conn.execute(
        "INSERT INTO submission_status (eval_id, eval_type, pool_id, signal_pool_id, submission_id,"
        " sim_id, era_id, status, submitted_at) VALUES (?, ?, ?, ?, ?, ?, ?, 'pending', ?)",
        (eval_id, "signal", "pool_a", None, "sub-1", sim_id, 1, time.time()))
    assert conn.execute("UPDATE signal_evaluations SET submitted=1 WHERE eval_id=?",
                        (eval_id,)).rowcount == 1
    assert conn.execute("DELETE FROM submission_queue WHERE queue_id=? AND in_flight_owner=?",
                        (queue_id, "me")).rowcount == 1
    conn.execute("COMMIT")

    [pending] = tracker.get_pending_submissions()
    assert (pending.submission_id, pending.eval_id, pending.eval_type, pending.era_id,
            pending.sim_id) == ("sub-1", eval_id, "signal", 1, sim_id)


def test_status_row_needs_its_sim_parent_and_sim_ids_are_deterministic(tracker):
    with pytest.raises(sqlite3.IntegrityError):
        tracker._conn.execute("INSERT INTO submission_status (submission_id, sim_id, status) VALUES ('s', 'no', 'x')")
    sim = st._synthetic_submission_sim_id
    assert sim("e1", "signal") == sim("e1", "signal") not in (sim("e1", "strategy"), sim("e2", "signal"))
    with pytest.raises(TypeError):
        sim(None, "signal")


def test_record_signal_evaluation_stores_what_it_was_given(tracker):
    g = graph("rank", "close", "volume", config=[{"type": "int", "node": 5}])
    stats = BacktestStats(sharpe=2.0, turnover=float("nan"), factor_pnl=list(range(1000)),
                          per_column_stats={"close": {"mean": 0.1}})
    ids = {tracker.record_signal_evaluation(g, stats, 3, False, "universe_top50", {"a": "none"},
                                            pool_id="p", rejection_reason="turnover_exceeded")
           for _ in range(2)}
    assert len(ids) == 2 and all(isinstance(i, str) for i in ids)
    row = tracker._conn.execute(
        "SELECT graph_json, era_id, passed, rejection_reason, sharpe, turnover, pool_id,"
        " per_column_stats_json, stats_json, metaparams_json, created_at, submitted"
        " FROM signal_evaluations WHERE eval_id=?", (ids.pop(),)).fetchone()
    assert json.loads(row[0]) == g
    assert row[1:7] == (3, 0, "turnover_exceeded", 2.0, None, "p")
    assert json.loads(row[7]) == {"close": {"mean": 0.1}}
    assert "factor_pnl" not in json.loads(row[8])  # the series is not copied into the store
    assert json.loads(row[9]) == {"a": "none"}
    assert row[10] > 0 and row[11] == 0
    assert tracker.get_evaluation_count() == 2


@pytest.mark.parametrize("args, exc", [
    (([1], None, 1, True, "u", {}), TypeError), (({}, None, "one", True, "u", {}), TypeError),
    (({}, None, True, True, "u", {}), TypeError), (({}, None, 1, "yes", "u", {}), TypeError),
    (({}, None, 1, True, None, {}), TypeError), (({}, None, 1, True, "", {}), ValueError),
    (({}, None, 1, True, "u", ["a"]), TypeError),
])
def test_record_signal_evaluation_rejects_bad_input(tracker, args, exc):
    with pytest.raises(exc):
        tracker.record_signal_evaluation(*args)
    assert tracker.get_evaluation_count() == 0


def test_record_signal_evaluation_retries_once_then_raises_oserror(tracker, monkeypatch):
    real, failures = tracker._transaction, [1]

    def flaky():
        if failures:
            failures.pop()
            raise sqlite3.OperationalError("database is locked")
        return real()

    monkeypatch.setattr(tracker, "_transaction", flaky)
    assert isinstance(record(tracker), str)
    failures[:] = [1, 1]
    with pytest.raises(OSError, match="database is locked"):
        record(tracker)
    assert tracker.get_evaluation_count() == 1


def test_enqueue_forms_and_errors(tracker):
    record_, text = payload("e1")
    q1 = tracker.enqueue_submission("e1", "signal", text, 1)
    q2 = tracker.enqueue_submission(record_)
    rows = tracker._conn.execute(
        "SELECT queue_id, eval_id, eval_type, era_id, priority, payload_json FROM submission_queue"
        " ORDER BY queue_id").fetchall()
    assert [r[0] for r in rows] == [q1, q2]
    assert all(r[1:5] == ("e1", "signal", 1, 0) for r in rows)
    assert json.loads(rows[1][5]) == record_

    for bad, exc in [(("e1", "signal", text), TypeError), (("e1", "bogus", text, 1), ValueError),
                     (("e1", "signal", "[1]", 1), ValueError), (("e1", "signal", "{", 1), ValueError),
                     (({"eval_id": "e1"},), ValueError), (("e1",), TypeError)]:
        with pytest.raises(exc):
            tracker.enqueue_submission(*bad)
    assert tracker._conn.execute("SELECT COUNT(*) FROM submission_queue").fetchone()[0] == 2


def test_dequeue_order_requeue_and_claims(tracker):
    conn = tracker._conn
    ids = [tracker.enqueue_submission(f"e{i}", "signal", payload(f"e{i}")[1], 1) for i in range(3)]
    deferred = tracker.requeue_submission("e2", "signal", payload("e2", note="again")[1], 1)
    assert deferred == ids[2]  # a free row of the same evaluation is reused
    fresh = tracker.requeue_submission("e9", "signal", payload("e9")[1], 1)
    add_claim_columns(conn, "submission_queue")
    conn.execute("UPDATE submission_queue SET in_flight_owner='other', in_flight_at=? "
                 "WHERE queue_id=?", (time.time(), ids[0]))

    got = [tracker.dequeue_submission() for _ in range(4)]
    assert [g.queue_id for g in got[:3]] == [ids[2], fresh, ids[1]]
    assert json.loads(got[0].payload_json)["note"] == "again"
    assert got[3] is None  # the claimed row stays with its owner
    assert conn.execute("SELECT queue_id FROM submission_queue").fetchall() == [(ids[0],)]


def test_retry_rows(tracker):
    eval_id = record(tracker, pool_id="pool_eval")
    text = json.dumps({"eval_id": eval_id, "submission_type": "signal", "era_id": 1})
    rid = tracker.enqueue_retry(eval_id, "signal", text, 1, "401 unauthorised")
    row = tracker._conn.execute("SELECT retry_count, pool_id, last_rejection_reason, retry_after"
                                " FROM submission_retry WHERE retry_id=?", (rid,)).fetchone()
    assert row == (1, "pool_eval", "401 unauthorised", None)  # pool from the evaluation row

    add_claim_columns(tracker._conn, "submission_retry")
    tracker._conn.execute("UPDATE submission_retry SET in_flight_owner='me', in_flight_at=1.0")
    assert tracker.increment_retry(rid, eval_id, "signal", text, 1, "banned", 1,
                                   retry_after=time.time() + 3600) == rid
    row = tracker._conn.execute("SELECT retry_count, last_rejection_reason, in_flight_owner"
                                " FROM submission_retry WHERE retry_id=?", (rid,)).fetchone()
    assert row == (2, "banned", None)
    assert tracker.dequeue_retryable() is None  # not due yet

    other = tracker.increment_retry(None, "e2", "signal", payload("e2")[1], 1, "x", 4)
    exhausted = tracker._conn.execute("SELECT retry_count FROM submission_retry WHERE retry_id=?",
                                      (other,)).fetchone()[0]
    assert exhausted == 5
    assert tracker.dequeue_retryable() is None  # at the limit: never handed out

    tracker.increment_retry(None, "e3", "signal", payload("e3")[1], 1, "x", 0, retry_after=0.0)
    item = tracker.dequeue_retryable()
    assert (item.eval_id, item.retry_count) == ("e3", 1)
    with pytest.raises(TypeError):
        tracker.increment_retry("1", "e3", "signal", payload("e3")[1], 1, "x", 0)
    with pytest.raises(ValueError):
        tracker.increment_retry(None, "e3", "signal", payload("e3")[1], 1, "x", -1)


def test_record_submission_is_atomic_and_idempotent(tracker, monkeypatch):
    eval_id = record(tracker)
    assert tracker.record_submission(eval_id, "signal", "sub-1", 1, pool_id="pool_a")
    assert not tracker.record_submission(eval_id, "signal", "sub-1", 1)  # same receipt again
    assert [p.submission_id for p in tracker.get_pending_submissions()] == ["sub-1"]
    assert tracker._conn.execute("SELECT submitted FROM signal_evaluations").fetchone() == (1,)

    other = record(tracker)
    monkeypatch.setattr(st, "_ensure_submission_sim_parent",
                        lambda *a: (_ for _ in ()).throw(sqlite3.OperationalError("disk I/O")))
    with pytest.raises(sqlite3.OperationalError):
        tracker.record_submission(other, "signal", "sub-2", 1)
    assert [p.submission_id for p in tracker.get_pending_submissions()] == ["sub-1"]
    assert tracker._conn.execute("SELECT submitted FROM signal_evaluations WHERE eval_id=?",
                                 (other,)).fetchone() == (0,)


def test_mark_submitted_and_attempts(tracker):
    eval_id = record(tracker)
    assert tracker.mark_submitted(eval_id, eval_type="signal") is True
    assert tracker.mark_submitted("missing", "signal") is False
    with pytest.raises(ValueError):
        tracker.mark_submitted(eval_id, "other")

    _, text = payload(eval_id)
    for _ in range(2):
        tracker.record_submission_attempt_started(eval_id, "signal", "key-1", 1, text,
                                                  pool_id="pool_a")
    [attempt] = tracker.get_submission_attempts(eval_id)
    assert (attempt["idempotency_key"], attempt["attempt_count"]) == ("key-1", 2)


def test_search_active_flag_persists(tmp_path, store_url):
    with SearchTracker(str(tmp_path), store=store_url) as t:
        t.set_search_active(True)
        with pytest.raises(TypeError):
            t.set_search_active("yes")
    with SearchTracker(str(tmp_path), store=store_url) as t:
        assert t.is_search_active()
        t.set_search_active(False)
        assert not t.is_search_active()


def test_threads_sharing_one_tracker_under_a_lock(tracker):
    lock, errors = threading.RLock(), []

    def worker():
        try:
            for i in range(20):
                with lock:
                    eval_id = record(tracker, passed=i % 2 == 0)
                    if i % 2 == 0:
                        tracker.enqueue_submission(eval_id, "signal", payload(eval_id)[1], 1)
                with lock:
                    tracker._conn.execute("BEGIN IMMEDIATE")
                    tracker._conn.execute("UPDATE submission_queue SET priority=priority WHERE 1=0")
                    tracker._conn.execute("COMMIT")
                tracker.get_search_stats()  # unlocked read on its own connection
        except Exception as exc:  # pragma: no cover - reported below
            errors.append(exc)

    threads = [threading.Thread(target=worker) for _ in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert errors == []
    assert tracker.get_evaluation_count() == 80
    assert tracker.get_db_info()["row_counts"]["submission_queue"] == 40


def test_second_connection_waits_for_begin_immediate(tmp_path, store_url):
    a = SearchTracker(str(tmp_path / "a"), store=store_url)
    b = SearchTracker(str(tmp_path / "a"), store=store_url, busy_timeout=0.05)
    try:
        a._conn.execute("BEGIN IMMEDIATE")
        with pytest.raises(sqlite3.OperationalError, match="lock"):
            b.enqueue_submission("e1", "signal", payload("e1")[1], 1)
        a._conn.execute("ROLLBACK")
        b.enqueue_submission("e1", "signal", payload("e1")[1], 1)
        assert a.dequeue_submission().eval_id == "e1"
    finally:
        a.close()
        b.close()


def test_a_close_under_statements_of_another_thread_fails_them_cleanly(tmp_path, store_url):
    """A running search works on `_conn` under its own lock, not the tracker's; a host
    that closes the tracker without stopping the search first closes the connection
    under those statements. They must fail with the store's error, never bring the
    interpreter down."""
    for attempt in range(40):
        tracker = SearchTracker(str(tmp_path / str(attempt)), store=store_url)
        conn, errors, running = tracker._conn, [], threading.Event()

        def search_thread():
            try:
                while True:
                    conn.execute("BEGIN IMMEDIATE")
                    conn.execute("INSERT INTO tracker_meta (key, value, updated_at) VALUES ('k', '1', 0) "
                                 "ON CONFLICT(key) DO UPDATE SET value=excluded.value")
                    conn.execute("SELECT value FROM tracker_meta WHERE key='k'").fetchone()
                    conn.commit() if attempt % 2 else conn.execute("COMMIT")
                    running.set()
            except sqlite3.Error as exc:
                errors.append(exc)
            finally:
                running.set()

        worker = threading.Thread(target=search_thread)
        worker.start()
        running.wait(10)
        time.sleep(0.0003 * (attempt % 7))
        tracker.close()
        worker.join(10)
        assert not worker.is_alive() and len(errors) == 1
        assert isinstance(errors[0], (sqlite3.ProgrammingError, sqlite3.OperationalError)), errors


def test_a_transaction_on_the_shared_connection_is_its_own_threads(tracker):
    """Two searches of one process share the tracker's connection. A record made by
    one must wait for the other's open transaction, not become a savepoint inside it
    and vanish with its rollback."""
    conn, seen = tracker._conn, {}
    conn.execute("BEGIN IMMEDIATE")
    conn.execute("INSERT INTO tracker_meta (key, value, updated_at) VALUES ('rolled_back', '1', 0)")

    def other_search():
        seen["in_transaction"] = conn.in_transaction
        seen["eval_id"] = record(tracker)

    other = threading.Thread(target=other_search)
    other.start()
    other.join(0.5)
    assert other.is_alive() and conn.in_transaction     # it waits for this thread's transaction
    conn.execute("ROLLBACK")
    other.join(10)
    assert seen["in_transaction"] is False and seen["eval_id"]
    assert conn.execute("SELECT eval_id FROM signal_evaluations").fetchall() == [(seen["eval_id"],)]
    assert conn.execute("SELECT COUNT(*) FROM tracker_meta WHERE key='rolled_back'").fetchone() == (0,)


def test_a_statement_that_waits_past_the_busy_timeout_fails_as_a_locked_store(tmp_path, store_url):
    tracker = SearchTracker(str(tmp_path / "data"), store=store_url, busy_timeout=0.3)
    try:
        tracker._conn.execute("BEGIN IMMEDIATE")
        failed = []
        waiter = threading.Thread(target=lambda: failed.append(pytest.raises(
            sqlite3.OperationalError, tracker._conn.execute, "SELECT 1").value))
        waiter.start()
        waiter.join(10)
        assert "database is locked" in str(failed[0])
        tracker._conn.execute("COMMIT")
        assert tracker._conn.execute("SELECT 1").fetchone() == (1,)   # the turn was handed back
    finally:
        tracker.close()


def test_adding_a_claim_column_that_is_there_does_nothing(tracker):
    """Several owners may migrate one store at once: the second sees the column it lacked added."""
    for _ in range(2):
        tracker._conn.execute("ALTER TABLE submission_queue ADD COLUMN in_flight_owner TEXT")
    tracker._conn.commit()
    assert "in_flight_owner" in columns(tracker, "submission_queue")


def test_an_interrupt_just_after_begin_ends_the_trackers_transaction(tmp_path, store_url):
    """A KeyboardInterrupt from a signal handler may land as BEGIN returns: the
    transaction is rolled back, and another thread's record goes through at once."""
    tracker = SearchTracker(str(tmp_path / "data"), store=store_url, busy_timeout=2)
    conn = tracker._conn
    execute = conn.execute

    def interrupted_after_begin(sql, *params):
        cursor = execute(sql, *params)
        if sql == "BEGIN IMMEDIATE":
            raise KeyboardInterrupt
        return cursor

    try:
        conn.execute = interrupted_after_begin
        with pytest.raises(KeyboardInterrupt):
            record(tracker)
        del conn.execute
        assert not conn.in_transaction
        recorded = []
        other = threading.Thread(target=lambda: recorded.append(record(tracker)))
        other.start()
        other.join(10)
        assert recorded and tracker.get_evaluation_count() == 1
    finally:
        tracker.close()
