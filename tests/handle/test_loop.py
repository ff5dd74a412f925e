"""The submission thread end to end on a real SQLite store, the success path's
crash-safe ordering, and the dequeues of a tracker without a store."""
import os
import types

import pytest

import tarnwicket.search_templates as st
from fakes.collaborators import payload as make_payload
from fakes.context_fakes import MemoryTracker
from fakes.runtime import wait_until


def table(store, name, columns):
    return store._conn.execute(f"SELECT {columns} FROM {name} ORDER BY 1").fetchall()


@pytest.fixture
def accept(monkeypatch):
    """The service accepts every body: receipts "sub-<eval_id>"."""
    sent = []

    def send(p):
        sent.append(p["eval_id"])
        return types.SimpleNamespace(submission_id="sub-" + p["eval_id"])

    monkeypatch.setattr(st, "_submit_signal_payload", send)
    return sent


def record_evaluation(store):
    return store.record_signal_evaluation({"type": "feature", "node": "close"}, None, 3, True, "u", {},
                                          pool_id="pool_a")


def test_the_submission_thread_sends_each_row_once_and_records_its_receipt(make_handle, store, accept):
    h = make_handle(tracker=store)
    ids = [record_evaluation(store) for _ in range(3)]
    for eval_id in ids:
        store.enqueue_submission(make_payload(eval_id, era_id=3)[0])
    h._submission_wakeup.set()
    assert wait_until(lambda: len(h._pending_submissions) == 3)
    assert sorted(accept) == sorted(ids)
    assert sorted(r[0] for r in table(store, "submission_status", "submission_id")) == sorted("sub-" + i for i in ids)
    assert table(store, "submission_queue", "queue_id") == [] and h._total_found == 3
    assert not os.path.exists(h._receipt_journal_path())


def test_a_receipt_whose_recording_fails_is_kept_on_disk_and_recorded_later(h, store, claimed):
    store._conn.execute("UPDATE signal_evaluations SET eval_id='elsewhere'")
    receipt = types.SimpleNamespace(submission_id="sub-1")
    h._handle_submission_success(claimed, receipt)
    assert h.failures[-1][1] == "record_submission"
    assert list(h._pending_receipts_by_queue_id) == [("queue", claimed["_queue_id"])]
    assert os.listdir(h._receipt_journal_path()) == ["queue__%d__sub-1.json" % claimed["_queue_id"]]
    assert h._flush_pending_receipt_finalizations() is False  # still failing: no new work is taken
    assert h._dequeue_submission_payload() is None

    store._conn.execute("UPDATE signal_evaluations SET eval_id=?", (claimed["eval_id"],))
    assert h._flush_pending_receipt_finalizations() is True
    assert table(store, "submission_status", "submission_id") == [("sub-1",)]
    assert h._pending_receipts_by_queue_id == {} and not os.path.exists(h._receipt_journal_path())
    assert list(h._pending_submissions) == ["sub-1"]


def test_a_receipt_that_arrives_with_a_replacement_abort_is_dropped(h, store, claimed):
    h._replacement_abort_event_handle().set()
    h._handle_submission_success(claimed, types.SimpleNamespace(submission_id="sub-1"))
    assert table(store, "submission_status", "status_id") == [] and table(store, "submission_queue", "queue_id") == []
    assert h._total_found == 0


def test_with_a_store_the_memory_queue_is_only_a_wake_up(h, store, claimed):
    store._conn.execute("UPDATE submission_queue SET in_flight_owner=NULL")
    h._submission_queue.put({"eval_id": "ghost", "submission_type": "signal", "era_id": 3})
    got = h._dequeue_submission_payload()
    assert got["_queue_id"] == claimed["_queue_id"] and h._submission_queue.empty()
    assert h._dequeue_submission_payload()["_queue_id"] == claimed["_queue_id"]  # ours: claimable again at once


def test_without_a_store_tracker_items_then_memory_then_due_retries(make_handle):
    tracker = MemoryTracker()
    items = [{"eval_id": "t1", "submission_type": "signal", "era_id": 3}]
    tracker.dequeue_submission = lambda: items.pop() if items else None
    tracker.dequeue_retryable = lambda: None
    h = make_handle(tracker=tracker)
    h.stop(join_timeout=1.0)  # the test drives the dequeues itself
    got = h._dequeue_submission_payload()
    assert got == {"eval_id": "t1", "submission_type": "signal", "era_id": 3}
    h._submission_queue.put({"eval_id": "m1"})
    assert h._dequeue_submission_payload() == {"eval_id": "m1"}
    assert h._dequeue_submission_payload() is None
    h._retry_queue.extend([{"eval_id": "later", "retry_after": 4e9}, {"eval_id": "due", "retry_after": None}])
    assert h._dequeue_retry_payload()["eval_id"] == "due"
    assert [r["eval_id"] for r in h._retry_queue] == ["later"] and h._dequeue_retry_payload() is None


def test_after_stop_the_loop_finishes_the_work_held_in_memory(make_handle, accept, monkeypatch):
    tracker = MemoryTracker()
    tracker.dequeue_submission = tracker.dequeue_retryable = lambda: None
    tracker.record_submission = lambda *a, **kw: None
    tracker.mark_submitted = lambda *a, **kw: None
    h = make_handle(tracker=tracker)
    for i in range(3):
        h._submission_queue.put(make_payload("m%d" % i, era_id=3)[0])
    h.stop(join_timeout=5.0)
    assert not h._submission_thread.is_alive()
    assert sorted(accept) == ["m0", "m1", "m2"] and h._submission_queue.empty()


def test_a_backoff_with_rows_waiting_is_waited_out_not_spun(h, store, claimed):
    """Rows keep arriving during an outage; the thread must leave the evaluators the CPU."""
    import threading
    import time

    passes = []
    h._flush_pending_receipt_finalizations = lambda: passes.append(1) or True
    h._submission_queue.put({"eval_id": "wake-up"})  # in-memory work: no idle wait
    h._submission_backoff = True
    h._submission_backoff_until = time.monotonic() + 60.0

    def stop():
        h._stop_event.set()
        h._submission_queue.get_nowait()

    threading.Timer(1.2, stop).start()
    started = time.monotonic()
    h._submission_loop_inner()
    assert len(passes) <= 5  # a poll interval per pass, not thousands of passes
    assert time.monotonic() - started < 3.0  # the stop ends the wait
    assert table(store, "submission_queue", "in_flight_owner") == [(h._submission_owner,)]  # nothing taken


def test_an_unwritable_journal_loses_no_receipt(h, store, claimed, monkeypatch):
    """The journal is only the fallback: the store takes the receipt without it; when
    the store fails too, the submission thread waits until the journal holds it."""
    import threading

    monkeypatch.setattr(st, "_submission_backoff_sleep", lambda seconds: None)
    journal = h._receipt_journal_path()
    with open(journal, "w") as blocker:  # a file where the directory must go
        blocker.write("x")
    h._handle_submission_success(claimed, types.SimpleNamespace(submission_id="sub-1"))
    assert table(store, "submission_status", "submission_id") == [("sub-1",)]
    assert h.failures[0][:2] == ("submission", "receipt_journal_write") and h.failures[0][3] is False

    eval_id = record_evaluation(store)
    store.enqueue_submission(make_payload(eval_id, era_id=3)[0])
    second = h._peek_submission_payload()
    store._conn.execute("UPDATE signal_evaluations SET eval_id='elsewhere' WHERE eval_id=?", (eval_id,))
    h.failures.clear()
    waiting = threading.Thread(target=h._handle_submission_success,
                               args=(second, types.SimpleNamespace(submission_id="sub-2")))
    waiting.start()
    assert wait_until(lambda: len(h.failures) >= 3)
    assert waiting.is_alive() and {f[1] for f in h.failures} == {"receipt_journal_write"}
    os.unlink(journal)
    waiting.join(5.0)
    assert os.listdir(journal) == ["queue__%d__sub-2.json" % second["_queue_id"]]
    store._conn.execute("UPDATE signal_evaluations SET eval_id=? WHERE eval_id='elsewhere'", (eval_id,))
    assert h._flush_pending_receipt_finalizations() is True
    assert sorted(table(store, "submission_status", "submission_id")) == [("sub-1",), ("sub-2",)]
    assert table(store, "submission_queue", "queue_id") == [] and not os.path.exists(journal)


def test_a_store_that_fails_its_commit_loses_no_receipt(h, store, claimed):
    import sqlite3

    class FailingCommits:
        def __init__(self, conn, failures):
            self.conn, self.failures = conn, failures

        def execute(self, sql, *args):
            if sql == "COMMIT" and self.failures:
                self.failures -= 1
                raise sqlite3.OperationalError("disk I/O error")
            return self.conn.execute(sql, *args)

        def __getattr__(self, name):
            return getattr(self.conn, name)

    real = store._conn
    store._conn = FailingCommits(real, 2)
    h._handle_submission_success(claimed, types.SimpleNamespace(submission_id="sub-1"))
    assert h.failures[-1][1:3] == ("record_submission", "disk I/O error")
    assert h._flush_pending_receipt_finalizations() is False  # the second commit fails too
    assert real.execute("SELECT COUNT(*) FROM submission_status").fetchone() == (0,)
    assert len(os.listdir(h._receipt_journal_path())) == 1 and not real.in_transaction
    assert h._flush_pending_receipt_finalizations() is True
    store._conn = real
    assert table(store, "submission_status", "submission_id") == [("sub-1",)]
    assert table(store, "submission_queue", "queue_id") == [] and not os.path.exists(h._receipt_journal_path())
