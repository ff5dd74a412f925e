"""notify_submission_status: the one writer of status changes."""

import json

import pytest

from tarnwicket.search_tracking import SearchTracker
from tarnwicket.submission_status_notify import notify_submission_status

TERMINAL = ["found", "useful", "is_rejected", "not_useful", "os_failed", "useful_transition_failed"]


@pytest.fixture
def tracker(tmp_path):
    t = SearchTracker(str(tmp_path))
    eval_id = t.record_signal_evaluation({"type": "rotation", "node": "f", "children": []}, None, 1, True, "u", {})
    t.record_submission(eval_id, "signal", "sub-1", 1, pool_id="p")
    yield t
    t.close()


def finalized_at(tracker):
    return tracker.get_submission_status("sub-1")["finalized_at"]


@pytest.mark.parametrize("status", TERMINAL)
def test_terminal_status_finalises(tracker, status):
    assert notify_submission_status("sub-1", status, tracker=tracker, rejection_reason="why") is None
    row = tracker.get_submission_status("sub-1")
    assert (row["status"], row["rejection_reason"]) == (status, "why") and row["finalized_at"] is not None
    assert tracker.get_pending_submissions() == []


@pytest.mark.parametrize("status", ["is_validating", "pending", "something_new"])
def test_live_status_stays_open(tracker, status):
    notify_submission_status("sub-1", status, tracker=tracker)
    assert tracker.get_submission_status("sub-1")["status"] == status
    assert finalized_at(tracker) is None
    assert [p.submission_id for p in tracker.get_pending_submissions()] == ["sub-1"]


def test_polled_fields_are_stored_and_kept(tracker):
    notify_submission_status("sub-1", "is_validating", tracker=tracker, is_stats_json=json.dumps({"sharpe": 1}),
                             payment_json="2.5", payment=2.5, signal_pool_id="p9", is_correlation={"max": 0.3},
                             is_pnl_mi=0.2, agent_is_pnl_mi=0.1, is_weights_mi=0.05, failure_reason=None,
                             failure_detail=None)
    first = finalized_at(tracker)
    notify_submission_status("sub-1", "found", tracker=tracker)  # fields left as None
    notify_submission_status("sub-1", "found", tracker=tracker)  # seen again: no new stamp
    row = tracker.get_submission_status("sub-1")
    assert first is None and row["finalized_at"] is not None
    assert json.loads(row["is_stats_json"]) == {"sharpe": 1}
    assert (row["payment"], row["signal_pool_id"], row["is_pnl_mi"]) == (2.5, "p9", 0.2)
    assert json.loads(row["is_correlation"]) == {"max": 0.3}
    stamp = row["finalized_at"]
    notify_submission_status("sub-1", "useful", tracker=tracker)
    assert finalized_at(tracker) == stamp


def test_own_tracker_from_data_dir_and_raises_when_it_cannot_write(tracker, tmp_path):
    with pytest.raises(RuntimeError):
        notify_submission_status("sub-1", "found")
    with pytest.raises(RuntimeError):
        notify_submission_status("sub-1", "found", tracker=object())
    with pytest.raises(LookupError):
        notify_submission_status("sub-unknown", "found", tracker=tracker)
    with pytest.raises(LookupError):
        notify_submission_status("sub-1", "found", data_dir=str(tmp_path / "elsewhere"))
    assert finalized_at(tracker) is None
    notify_submission_status("sub-1", "not_useful", data_dir=tracker._data_dir)
    assert tracker.get_submission_status("sub-1")["status"] == "not_useful"


def test_skips_quietly_when_not_required(tracker):
    assert notify_submission_status("sub-1", "found", require_tracker=False) is None
    assert notify_submission_status("sub-x", "found", tracker=tracker, require_tracker=False) is None
    assert finalized_at(tracker) is None


@pytest.mark.parametrize("sid, status", [(None, "found"), ("", "found"), ("sub-1", ""), ("sub-1", None)])
def test_bad_arguments(tracker, sid, status):
    with pytest.raises(ValueError):
        notify_submission_status(sid, status, tracker=tracker)
