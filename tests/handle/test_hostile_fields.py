"""Handle fields and arguments that a host set to values the handle never makes
itself: hand-written cases, then properties over hostile fields. Each call
returns or raises an ordinary exception (never SystemError), starts no thread
that outlives it, and on sane fields still gives the right answer."""

import collections
import logging
import sys
import tempfile
import threading

import pytest
from hypothesis import given, strategies as hs

import tarnwicket.callbacks as callbacks
import tarnwicket.search_templates as st
from fakes.handle_fields import (CountdownEvent, FakeThread, IntSub, raiser, bare_handle, hostile, join_new_threads,
                                 numbers, settle, texts)
from fakes.runtime import wait_until

SEED_DIR = tempfile.mkdtemp(prefix="tw-seed-")
with open(SEED_DIR + "/shuffle_seed.enc", "wb") as fh:
    fh.write(b"s" * 60)


@pytest.fixture
def started():
    """Worker ids seen by `_worker_loop`; every thread the test starts is joined afterwards."""
    before = set(threading.enumerate())
    ids = []
    yield ids
    assert not join_new_threads(before), "threads left running"


class HugeList(list):
    def __len__(self):
        return sys.maxsize


class TestWorkerLists:
    def test_restart_ids_past_the_largest_c_size(self, started):
        h = bare_handle(_worker_threads=HugeList(), _worker_loop=started.append)
        st._restart_worker(h, 2)
        assert wait_until(lambda: sorted(started) == [sys.maxsize, sys.maxsize + 1])

    @pytest.mark.parametrize("call", [
        lambda h: st._spawn_worker(h, 3),
        lambda h: st._restart_worker(h, 1),
    ])
    def test_worker_list_of_another_type_is_appended_to(self, started, call):
        h = bare_handle(_worker_threads=collections.deque(), _n_jobs=1, _worker_loop=started.append)
        call(h)
        assert len(h._worker_threads) == 1 and wait_until(lambda: len(started) == 1)

    def test_worker_name_keeps_any_text_of_its_id(self, started):
        h = bare_handle(_worker_loop=started.append)
        st._spawn_worker(h, WeirdId(4))
        assert h._worker_threads[0].name == "worker_id\udc80"

    def test_event_type_that_cannot_be_encoded_is_no_event(self):
        h = bare_handle(_worker_threads=[FakeThread()])
        h._on_era_change("kill\udc80", None)
        h._on_era_change(b"kill", None)
        assert len(h._worker_threads) == 1
        h._on_era_change(Texty("kill"), None)
        assert h._worker_threads == []


class WeirdId(int):
    def __format__(self, spec):
        return "id\udc80"


class Texty(str):
    pass


class TestFailureAccounting:
    def test_errors_of_another_type_are_appended_to(self):
        h = bare_handle(_errors=collections.deque())
        h._append_error("x")
        h._record_background_failure("polling", "loop", RuntimeError("y"))
        assert list(h._errors) == ["x", "polling loop failed (RuntimeError): y"]

    def test_message_keeps_text_that_cannot_be_encoded(self):
        h = bare_handle()
        h._record_background_failure("submission", "op\udc80", ValueError("bad \udcff"))
        assert h._errors == ["submission op\udc80 failed (ValueError): bad \udcff"]
        assert h._submission_failures == 1

    @pytest.mark.parametrize("n_jobs, expected", [
        (2**70, [("restart", 2**70 - 1)]),
        (-(2**63), [("probe", -1)]),
        (2.0, [("restart", 1.0)]),
    ])
    def test_dead_count_is_the_hosts_arithmetic(self, monkeypatch, n_jobs, expected):
        calls = []
        monkeypatch.setattr(st, "_restart_worker", lambda hd, count: calls.append(("restart", count)))
        monkeypatch.setattr(st, "_spawn_worker", lambda hd, wid: calls.append(("probe", wid)))
        h = bare_handle(_n_jobs=n_jobs, _stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                        _worker_threads=[FakeThread(alive=True)])
        h._supervisor_loop_inner()
        assert calls == expected

    @pytest.mark.parametrize("field", ["_era_failures", "_sync_failures"])
    def test_restart_counts_beyond_c_integers_reach_the_threshold(self, monkeypatch, field):
        monkeypatch.setattr(st, "_spawn_worker", lambda hd, wid: None)
        monkeypatch.setattr("tarnwicket.callbacks.emit_event", lambda **kw: None)
        failing = FakeThread(alive=False)
        sync = type("Sync", (), {"is_alive": lambda self: 1 / 0})()

        def broken():
            raise RuntimeError("no thread")

        h = bare_handle(_stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                        _era_thread=failing, _build_era_thread=broken, _sync_mgr=sync, **{field: 2**64})
        h._supervisor_loop_inner()
        assert h._fatal_error.message == "Background infrastructure failed permanently"
        assert h.__dict__[field] == 2**64 + 1


def test_template_crash_text_keeps_the_worker_id(make_handle, caplog):
    h = make_handle(bt=None)

    def template(ctx):
        h._stop_event.set()
        raise RuntimeError("boom \udc80")

    h._template = template
    with caplog.at_level(logging.WARNING, logger="tarnwicket.search_templates"):
        h._worker_loop_inner("w\udc80")
    assert "Template sandbox violation in worker w\udc80: boom \udc80" in [r.getMessage() for r in caplog.records]
    assert h._crash_count == 1


def test_permanent_failure_text_that_cannot_be_encoded(make_handle, monkeypatch):
    class EraData:
        def initialize(self, *args):
            raise RuntimeError("era mismatch \udc80")

    monkeypatch.setattr(st, "era_data", EraData(), raising=False)
    monkeypatch.setattr("tarnwicket.callbacks.emit_event", lambda **kw: None)
    h = make_handle()
    assert h._fatal_error.message == "Background infrastructure failed permanently: era mismatch \udc80"
    assert h._worker_threads == []


def test_replacement_pattern_keeps_the_owner_text():
    conn = FakeConn([], "sqlite")
    h = bare_handle(_tracker=type("T", (), {"_conn": conn})(), _tracker_uses_persistent_store=True,
                    _submission_owner="o\udc80", _submission_claim_columns_ready=True, _retry_claim_columns_ready=True)
    h._abort_for_replacement()
    assert [params for _, params in conn.statements] == [('%"_submission_owner": "o\udc80"%', "o\udc80")] * 2


def test_row_schema_error_text_that_cannot_be_encoded():
    err = st.RowSchemaError("queue\udc80", ["b", "a"], row_id="r\udc80")
    assert str(err) == "queue\udc80 row 'r\\udc80' payload_json schema violation; missing keys: a, b"


# ---------------------------------------------------------------- properties


@pytest.fixture(autouse=True, scope="module")
def no_event_files():
    """A fatal error emits an event into `_data_dir`; hostile directories must not get files."""
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(callbacks, "emit_event", lambda **kw: None)
        yield


STATUS_FIELDS = ["_fatal_error", "_start_time", "_total_evaluated", "_errors", "_n_jobs", "_running",
                 "_crash_count", "_lock", "_tracker_uses_persistent_store", "_submission_queued"]
ACCOUNTING_FIELDS = ["_submission_failures", "_polling_failures", "_submission_backoff_seconds",
                     "_polling_backoff_seconds", "_errors", "_crash_count", "_submission_degraded",
                     "_polling_degraded", "_lock"]
SHUTDOWN_FIELDS = ["_stopped", "_stop_event", "_worker_threads", "_supervisor_thread", "_era_thread",
                   "_sync_mgr", "_submission_queue", "_queue_empty", "_retry_queue", "_pending_submissions",
                   "_tracker", "_tracker_uses_persistent_store", "_submission_owner", "_submission_wakeup",
                   "_replacement_abort_event", "_submission_start_lock"]


def fields_from(names):
    return hs.dictionaries(hs.sampled_from(names), hostile(), max_size=4)


@given(fields=fields_from(STATUS_FIELDS))
def test_status_and_counts(fields):
    h = bare_handle(**fields)
    settle(h.status)
    settle(h._update_submission_counts)


@given(fields=fields_from(["_submission_queue", "_pending_submissions", "_retry_queue", "_lock"]))
def test_update_submission_counts(fields):
    settle(bare_handle(**fields)._update_submission_counts)


@given(fields=fields_from(ACCOUNTING_FIELDS), component=texts(), operation=hostile(), exc=hostile(),
       backoff=hostile())
def test_failure_accounting(fields, component, operation, exc, backoff):
    h = bare_handle(**fields)
    settle(lambda: h._record_background_failure(component, operation, exc, backoff))
    settle(lambda: h._reset_background_failures(component))
    settle(lambda: h._append_error(operation))


@given(fields=fields_from(["_lock", "_data_dir"]), code=hostile(), advice=hostile(), message=hostile())
def test_set_fatal_error(fields, code, advice, message):
    settle(lambda: bare_handle(**fields)._set_fatal_error(code, advice, message))


def bounded_counts():
    """Counts a spawning call may get: small, beyond any C integer, or not integers at all."""
    return hs.one_of(hs.integers(-3, 3), hs.sampled_from([2**64, -(2**70), 10**100, 1.5, float("nan"), None, "2"]),
                     hs.builds(IntSub, hs.integers(-2, 3)), raiser())


@given(fields=fields_from(["_stopped", "_worker_threads", "_worker_start_event", "_worker_start_count"]),
       n_jobs=bounded_counts(), event_type=hs.one_of(texts(), hostile()), data=hs.data())
def test_on_era_change(fields, n_jobs, event_type, data):
    h = bare_handle(_n_jobs=n_jobs, **fields)
    if data.draw(hs.booleans()):
        # Threads that empty or replace the handle's list while it is walked.
        def shrink():
            h._worker_threads = data.draw(hostile()) if isinstance(h._worker_threads, list) else []
        h._worker_threads = [FakeThread(hook=shrink) for _ in range(3)]
    settle(lambda: h._on_era_change(event_type, None))


@given(worker_id=hs.one_of(numbers(), texts(), hostile()), threads=hostile())
def test_spawn_worker(worker_id, threads):
    h = bare_handle(_worker_threads=threads)
    settle(lambda: st._spawn_worker(h, worker_id))


@given(count=bounded_counts(), threads=hostile())
def test_restart_worker(count, threads):
    h = bare_handle(_worker_threads=threads)
    settle(lambda: st._restart_worker(h, count))


@given(fields=fields_from(["_n_jobs", "_worker_threads", "_era_failures", "_sync_failures", "_era_thread",
                           "_sync_mgr", "_submission_thread", "_submission_degraded", "_running"]),
       threshold=hostile())
def test_supervisor_pass(fields, threshold):
    calls = []
    h = bare_handle(_stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                    _build_era_thread=lambda: FakeThread(alive=False), _submission_loop=lambda: None, **fields)
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "_restart_worker", lambda hd, count: calls.append(("restart", count)))
        mp.setattr(st, "_spawn_worker", lambda hd, wid: calls.append(("probe", wid)))
        mp.setattr(st, "_INFRASTRUCTURE_FAILURE_THRESHOLD", threshold)
        settle(h._supervisor_loop_inner)


@given(fields=fields_from(SHUTDOWN_FIELDS), join_timeout=hs.one_of(hs.sampled_from([0, 0.01]), hostile()))
def test_stop_abort_and_finaliser(fields, join_timeout):
    h = bare_handle(**fields)
    settle(h._abort_for_replacement)
    h = bare_handle(**fields)
    settle(lambda: h.stop(join_timeout=join_timeout))
    settle(bare_handle(**fields).__del__)


class FakeConn:
    """A store connection whose answers (rows, rowcount) are whatever was drawn."""

    def __init__(self, rows, dialect, rowcount=1):
        self.rows, self.dialect, self.statements, self.rowcount = rows, dialect, [], rowcount

    def execute(self, sql, params=()):
        self.statements.append((sql, params))
        return self

    def fetchall(self):
        return self.rows

    def fetchone(self):
        return self.rows[0] if isinstance(self.rows, list) and self.rows else self.rows

    def commit(self):
        pass


ROW = hs.one_of(hostile(), hs.tuples(*[hs.one_of(numbers(), texts(), hostile())] * 9))


@given(rows=hs.one_of(hostile(), hs.lists(hs.one_of(hostile(), hs.tuples(hostile(), hostile()), ROW), max_size=3)),
       dialect=hs.one_of(hs.just("postgres"), hostile()), table=hs.one_of(texts(), hostile()),
       rowcount=hs.one_of(hs.just(1), hostile()), payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_owner",
                           "_submission_claim_columns_ready", "_retry_claim_columns_ready", "_errors", "_lock",
                           "_finished_queue_ids", "_retry_queue", "_pending_receipts_by_queue_id",
                           "_submission_queue", "_submission_wakeup", "_submission_discarded"]))
def test_claim_helpers(rows, dialect, table, rowcount, payload, fields):
    tracker = type("T", (), {})()
    tracker._conn = FakeConn(rows, dialect, rowcount)
    h = bare_handle(**{"_tracker_uses_persistent_store": True, **fields, "_tracker": tracker})
    settle(lambda: h._persistent_table_columns(table))
    settle(h._ensure_submission_claim_columns)
    settle(h._ensure_retry_claim_columns)
    settle(h._peek_submission_payload)
    settle(h._peek_retry_payload)
    settle(lambda: h._payload_from_tracker_item(payload))
    settle(lambda: h._source_sql_predicates(payload, table, rowcount, require_owner=payload))
    settle(lambda: h._delete_claimed_submission_source(payload))
    settle(lambda: h._delete_submission_queue_item(rowcount))
    settle(h._has_in_memory_submission_work)
    settle(lambda: h._enqueue_retry_payload(payload, table, retry_after=rowcount))
    settle(lambda: h._move_claimed_queue_to_retry(payload, table, table, rowcount))
    settle(lambda: h._update_claimed_retry_payload(payload, table, table, rowcount, rowcount))
    settle(lambda: h._defer_claimed_retry_payload(payload, rowcount, table))
    settle(lambda: h._defer_claimed_queue_payload(payload))
    settle(lambda: h._finalize_retry_exhausted_payload(payload, table))


@given(message=texts(), data_dir=hs.one_of(texts(), hostile()))
def test_per_era_init_failure_texts(message, data_dir):
    class EraData:
        def initialize(self, *args):
            raise RuntimeError(message)

    era = type("Era", (), {"era_id": 3})()
    auth = type("Auth", (), {"wallet_secret": b"w" * 32})()
    h = bare_handle(_era_config=era, _auth=auth, _data_dir=SEED_DIR, _era_data_mod=EraData())
    settle(h._do_per_era_init)
    text = str(RuntimeError(message))
    fatal = "vault already initialized" not in text and ("era mismatch" in text or "invalid credentials" in text)
    assert (h._fatal_error is not None) == fatal
    if fatal:
        assert h._fatal_error.message == "Background infrastructure failed permanently: " + text
    settle(bare_handle(_era_config=era, _auth=auth, _data_dir=data_dir)._do_per_era_init)


@given(timeout=hs.one_of(hs.sampled_from([0, -1.0, float("nan"), 2**2000, "x", None]), hostile()))
def test_interruptible_wait(timeout):
    ev = threading.Event()
    ev.set()
    settle(lambda: st._SearchHandleImpl._interruptible_wait(ev, timeout))


@given(n_jobs=hostile(),
       count=hostile(), worker_id=hostile())
def test_worker_loop_with_stop_set(n_jobs, count, worker_id):
    ev = threading.Event()
    ev.set()
    h = bare_handle(_n_jobs=n_jobs, _worker_start_count=count, _stop_event=ev)
    del h._worker_loop  # the real loop, which returns at once on the set event
    settle(lambda: h._worker_loop(worker_id))
    settle(lambda: h._worker_loop_inner(worker_id))


@given(outcome=hs.sampled_from([ConnectionError("down"), ValueError("bad"), None]), status=hostile(),
       details=hostile(), payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_backoff_seconds",
                           "_submission_queue", "_submission_wakeup", "_finished_queue_ids", "_lock", "_errors",
                           "_submission_start_lock", "_tracker"]))
def test_submit_payload(outcome, status, details, payload, fields):
    from tarnwicket.submit import SubmissionRejectedError

    def send(p):
        raise outcome if outcome is not None else SubmissionRejectedError(status, details, details)

    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "_submit_signal_payload", send)
        mp.setattr(st, "_submission_backoff_sleep", lambda seconds: None)
        h = bare_handle(**fields)
        settle(lambda: h._submit_payload(payload))
        settle(lambda: h._ensure_submission_idempotency_key(payload))
        settle(lambda: h._drop_replacement_aborted_payload(payload, details))


@given(payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())), receipt=hostile(), rows=hostile(),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_owner", "_lock",
                           "_pending_submissions", "_total_found", "_submission_backoff_seconds"]))
def test_receipt_recording(payload, receipt, rows, fields):
    tracker = type("T", (), {})()
    tracker._conn = FakeConn(rows, "sqlite", rows)
    h = bare_handle(**{"_tracker_uses_persistent_store": True, **fields, "_tracker": tracker})
    settle(lambda: h._record_submission_and_delete_queue(payload, receipt))
    settle(lambda: h._finalize_persisted_receipt(payload, receipt))
    with tempfile.TemporaryDirectory() as data_dir:
        h._data_dir = data_dir
        settle(lambda: h._append_receipt_journal(payload, receipt))
        settle(lambda: h._receipt_journal_file_path(payload))
        settle(h._replay_receipt_journal)
        settle(lambda: h._journal_source_still_matches(payload))
        settle(lambda: h._rewrite_receipt_journal_without(h._receipt_journal_key_for_payload(payload, receipt)))
