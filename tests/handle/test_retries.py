"""Where a payload goes after a failed attempt, on a real SQLite store and on a
tracker without one."""
import json
import time

import tarnwicket.search_templates as st
from fakes.collaborators import payload as make_payload
from fakes.context_fakes import MemoryTracker


def payload(eval_id, **extra):
    return make_payload(eval_id, era_id=3, **extra)[0]


def table(store, name, columns):
    return store._conn.execute(f"SELECT {columns} FROM {name} ORDER BY 1").fetchall()


def test_a_queue_row_gets_six_attempts_before_it_is_discarded(h, store):
    store.enqueue_submission(payload("e1"))
    got = h._peek_submission_payload()
    h._enqueue_retry_payload(got, "busy")
    assert table(store, "submission_queue", "queue_id") == []
    (row,) = table(store, "submission_retry", "retry_count, last_rejection_reason, pool_id")
    assert row == (0, "busy", "pool_a")

    counts = []
    while True:
        got = h._peek_retry_payload()
        if got is None:
            break
        counts.append(got["retry_count"])
        h._enqueue_retry_payload(got, "busy %d" % len(counts))
    assert counts == [0, 1, 2, 3, 4]
    assert table(store, "submission_retry", "retry_id") == []
    assert (h._submission_discarded, h._submission_rejected) == (1, 1)
    assert h._errors[-1].endswith("submission retry exhausted: busy 5")
    assert h.failures == [] and h._retry_queue == []


def test_a_rejected_retry_goes_behind_the_others_and_waits_for_its_time(h, store):
    first = store.enqueue_retry("e1", "signal", json.dumps(payload("e1")), 3, "busy")
    second = store.enqueue_retry("e2", "signal", json.dumps(payload("e2")), 3, "busy")
    got = h._peek_retry_payload()
    assert got["retry_id"] == first
    h._enqueue_retry_payload(got, "again")
    assert h._peek_retry_payload()["retry_id"] == second
    store._conn.execute("UPDATE submission_retry SET in_flight_owner=NULL WHERE retry_id=?", (second,))
    got = h._peek_retry_payload()
    h._enqueue_retry_payload(got, "later", retry_after=time.time() + 60)
    assert h._peek_retry_payload()["retry_id"] == first
    assert table(store, "submission_retry", "retry_id, retry_count, last_rejection_reason") == [
        (first, 2, "again"), (second, 2, "later")]


def test_a_row_claimed_by_another_owner_is_left_as_it_is(h, store):
    queue_id = store.enqueue_submission(payload("e1"))
    got = h._peek_submission_payload()
    store._conn.execute("UPDATE submission_queue SET in_flight_owner='other' WHERE queue_id=?", (queue_id,))
    h._enqueue_retry_payload(got, "busy")
    assert h.failures == [("submission", "enqueue_retry", "claimed submission_queue row was not moved to retry", True)]
    assert table(store, "submission_queue", "queue_id, in_flight_owner") == [(queue_id, "other")]
    assert table(store, "submission_retry", "retry_id") == [] and h._retry_queue == []

    h.failures.clear()
    store._conn.execute("UPDATE submission_queue SET in_flight_owner=? WHERE queue_id=?", (h._submission_owner, queue_id))
    del got["signal_pool_id"]
    h._enqueue_retry_payload(got, "busy")
    assert h.failures == [("submission", "enqueue_retry", "pool_id must be a non-empty string", True)]
    assert table(store, "submission_queue", "queue_id") == [(queue_id,)]


def test_a_network_failure_defers_the_row_without_counting(h, store):
    older = store.enqueue_submission(payload("e1"))
    newer = store.enqueue_submission(payload("e2"))
    store._conn.execute("UPDATE submission_queue SET queue_id=? WHERE queue_id=?", (newer + 10, newer))
    got = h._peek_submission_payload()
    assert got["_queue_id"] == older
    store.enqueue_submission(payload("e3"))
    h._defer_claimed_queue_payload(got)
    assert table(store, "submission_queue", "queue_id, priority, in_flight_owner")[0] == (older, 1, None)
    assert h._peek_submission_payload()["_queue_id"] == older

    retry_id = store.enqueue_retry("e4", "signal", json.dumps(payload("e4")), 3, "busy")
    got = h._peek_retry_payload()
    got["idempotency_key"] = "key-1"
    h._defer_claimed_retry_payload(got, None, "network_error")
    (row,) = table(store, "submission_retry", "retry_id, retry_count, last_rejection_reason, in_flight_owner, payload_json")
    assert row[:4] == (retry_id, 1, "network_error", None)
    assert json.loads(row[4])["idempotency_key"] == "key-1"

    got = h._peek_retry_payload()
    store._conn.execute("UPDATE submission_retry SET payload_json='{}'")
    try:
        h._defer_claimed_retry_payload(got, None, "network_error")
    except RuntimeError as exc:
        assert str(exc) == "claimed submission_retry row stale or missing"
    else:
        raise AssertionError("a stale row was deferred")
    assert not store._conn.in_transaction


def test_an_exhausted_payload_with_an_open_submission_is_finalised_first(h, store, monkeypatch):
    now = time.time()
    for sub_id, at in (("s-old", now - 10), ("s-new", now)):
        store._conn.execute("INSERT INTO submission_status (eval_id, eval_type, era_id, submission_id, submitted_at)"
                            " VALUES ('e1', 'signal', 3, ?, ?)", (sub_id, at))
    notified = []
    monkeypatch.setattr(st, "notify_submission_status", lambda *a, **kw: notified.append((a, kw)))
    store.enqueue_retry("e1", "signal", json.dumps(payload("e1")), 3, "busy")
    store._conn.execute("UPDATE submission_retry SET retry_count=4")
    h._enqueue_retry_payload(h._peek_retry_payload(), "")
    ((args, kw),) = notified
    assert args == ("s-new", "not_useful")
    assert kw["rejection_reason"] == "retry_exhausted" and kw["require_tracker"] is True and kw["tracker"] is store
    assert table(store, "submission_retry", "retry_id") == []

    def refuse(*a, **kw):
        raise OSError("disk full")

    monkeypatch.setattr(st, "notify_submission_status", refuse)
    retry_id = store.enqueue_retry("e1", "signal", json.dumps(payload("e1")), 3, "busy")
    store._conn.execute("UPDATE submission_retry SET retry_count=4")
    h._enqueue_retry_payload(h._peek_retry_payload(), "busy")
    assert h.failures == [("submission", "finalize_retry_exhausted", "disk full", True)]
    assert table(store, "submission_retry", "retry_id, in_flight_owner") == [(retry_id, h._submission_owner)]


def test_without_a_store_the_tracker_is_told_and_the_handle_keeps_the_retry(make_handle):
    tracker = MemoryTracker()
    h = make_handle(tracker=tracker)
    first = payload("e1")
    h._enqueue_retry_payload(first, "busy", retry_after=5.0)
    ((name, args, kw),) = tracker.retries
    assert (name, args[0], args[4], kw) == ("enqueue_retry", "e1", "busy", {"retry_after": 5.0})
    (kept,) = h._retry_queue
    assert (kept["retry_count"], kept["retry_after"]) == (1, 5.0) and "retry_count" not in first
    assert h._submission_wakeup.is_set()

    h._enqueue_retry_payload(dict(kept, retry_count="3"), "busy")
    name, args, kw = tracker.retries[-1]
    assert (name, args[0], args[-1]) == ("increment_retry", None, 3)
    assert h._retry_queue[-1]["retry_count"] == 4
    h._enqueue_retry_payload(dict(kept, retry_count=4), "done")
    assert len(h._retry_queue) == 2 and h._submission_discarded == 1
