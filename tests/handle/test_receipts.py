"""Recording a receipt on a real SQLite store: one transaction or nothing."""
import json
import types

import pytest

import tarnwicket.search_templates as st
from fakes.collaborators import interrupt_on, payload as make_payload
from fakes.context_fakes import MemoryTracker

RECEIPT = types.SimpleNamespace(submission_id="sub-1")


def table(store, name, columns):
    return store._conn.execute(f"SELECT {columns} FROM {name} ORDER BY 1").fetchall()


def test_the_receipt_the_evaluation_and_the_row_in_one_transaction(h, store, claimed):
    h._record_submission_and_delete_queue(claimed, RECEIPT)
    assert table(store, "submission_status", "eval_id, pool_id, signal_pool_id, submission_id, status, era_id") == [
        (claimed["eval_id"], "pool_a", None, "sub-1", "pending", 3)]
    assert table(store, "signal_evaluations", "submitted") == [(1,)]
    assert table(store, "submission_queue", "queue_id") == [] and h.nudges == [1]


@pytest.mark.parametrize("spoil, error", [
    ("lost claim", "claimed submission row was not deleted"),
    ("no evaluation", "not found in signal_evaluations"),
    ("interrupt", "interrupted"),      # not an ordinary exception: the transaction is ended all the same
])
def test_a_failed_recording_writes_nothing(h, store, claimed, spoil, error):
    if spoil == "lost claim":
        store._conn.execute("UPDATE submission_queue SET in_flight_owner='other'")
    elif spoil == "no evaluation":
        store._conn.execute("DELETE FROM signal_evaluations")
    else:
        interrupt_on(store._conn, "DELETE")
    with pytest.raises((RuntimeError, ValueError, KeyboardInterrupt), match=error):
        h._record_submission_and_delete_queue(claimed, RECEIPT)
    assert table(store, "submission_status", "status_id") == []
    assert len(table(store, "submission_queue", "queue_id")) == 1 and not store._conn.in_transaction
    assert h.nudges == []


def test_a_replayed_receipt_proves_its_row_by_identity(h, store, claimed):
    store._conn.execute("UPDATE submission_queue SET in_flight_owner='dead owner'")
    replay = dict(claimed, _journal_replay=True, _source_payload_json="{}")
    with pytest.raises(RuntimeError, match="claimed submission row was not deleted"):
        h._record_submission_and_delete_queue(replay, RECEIPT)
    replay["_source_payload_json"] = claimed["_source_payload_json"]
    h._record_submission_and_delete_queue(replay, RECEIPT)
    assert table(store, "submission_queue", "queue_id") == []


def test_a_retry_row_is_deleted_and_a_stale_queue_id_ignored(h, store, claimed):
    retry_id = store.enqueue_retry(claimed["eval_id"], "signal", json.dumps(make_payload(claimed["eval_id"], era_id=3)[0]),
                                   3, "busy")
    retry = h._peek_retry_payload()
    retry["_queue_id"] = claimed["_queue_id"]
    h._record_submission_and_delete_queue(retry, RECEIPT)
    assert table(store, "submission_retry", "retry_id") == [] and retry["retry_id"] == retry_id
    assert len(table(store, "submission_queue", "queue_id")) == 1


def test_without_a_source_row_the_tracker_records_it(make_handle):
    calls = []
    tracker = MemoryTracker()
    tracker.record_submission = lambda *a, **kw: calls.append((a, kw))
    h = make_handle(tracker=tracker)
    h._maybe_fire_discovery_rate_declining_nudge = lambda: None
    p = {"eval_id": "e1", "submission_type": "signal", "era_id": 3, "pool_id": "p1"}
    h._record_submission_and_delete_queue(p, RECEIPT)
    ((args, kw),) = calls
    assert args == ("e1", "signal", "sub-1", 3)
    assert kw == {"sim_id": st._synthetic_submission_sim_id("e1", "signal"), "pool_id": "p1", "signal_pool_id": "p1"}


def test_finalising_counts_resets_the_backoff_and_fires_each_milestone_once(make_handle, monkeypatch):
    fired = []
    monkeypatch.setattr(st, "_safe_update_nudge", lambda trigger, **kw: fired.append(trigger))
    h = make_handle(tracker=MemoryTracker())
    h._submission_backoff, h._submission_backoff_seconds = True, 80.0
    for i in range(100):
        h._finalize_persisted_receipt({"eval_id": "e%d" % i, "submission_type": "signal", "era_id": 3}, "s%d" % i)
    assert fired == ["first_signal", "10_signals", "strategy_unlock"]
    assert h._total_found == 100 and (h._submission_backoff, h._submission_backoff_seconds) == (False, 5.0)
    assert h._pending_submissions["s7"] == {"submission_id": "s7", "submission_type": "signal", "eval_id": "e7",
                                            "era_id": 3, "sim_id": st._synthetic_submission_sim_id("e7", "signal")}


def test_the_discovery_rate_nudge_fires_once_per_crossing(h, store, monkeypatch, caplog):
    import time

    fired = []
    monkeypatch.setattr(st, "_safe_update_nudge", lambda trigger, **kw: fired.append((trigger, kw)))

    def rows(prior, current):
        store._conn.execute("DELETE FROM submission_status")
        now = time.time()
        for i in range(prior):
            store._conn.execute("INSERT INTO submission_status (submission_id, status, submitted_at) "
                                "VALUES (?, 'pending', ?)", ("p%d" % i, now - 30000))
        for i in range(current):
            store._conn.execute("INSERT INTO submission_status (submission_id, status, submitted_at) "
                                "VALUES (?, 'pending', ?)", ("c%d" % i, now - 60))
        h._maybe_fire_discovery_rate_declining_nudge()

    rows(10, 7)  # 10/6 * 0.7 is not above 7/6 in double precision
    assert fired == []
    rows(10, 6)
    rows(10, 6)
    assert fired == [("discovery_rate_declining", {"current_window": 1.0, "prior_window": 10 / 6})]
    rows(0, 0)  # an empty prior window is no decline, and it ends the crossing
    assert h._discovery_rate_declining_nudge_active is False
    rows(10, 6)
    assert len(fired) == 2

    h._tracker = types.SimpleNamespace()  # no connection: one warning, nothing raised
    h._maybe_fire_discovery_rate_declining_nudge()
    assert "discovery_rate_declining nudge evaluation failed" in caplog.text
