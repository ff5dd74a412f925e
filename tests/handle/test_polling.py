"""The polling thread: the open set, what a poll writes, how a pass ends, and a
real thread following receipts of an earlier process to their verdict."""
import json
import threading
import types

import pytest

import tarnwicket.search_templates as st
from tarnwicket.submit import SubmissionRejectedError
from fakes.runtime import wait_until


def result(status=None, **attrs):
    if status is not None:
        attrs["status"] = status
    return types.SimpleNamespace(**attrs)


def open_row(store, eval_id="e1", submission_id="sub-1"):
    store.record_submission(eval_id, "signal", submission_id, 3, sim_id="sim-" + eval_id, pool_id="pool_a",
                            signal_pool_id="pool_a")


def statuses(store):
    return store._conn.execute("SELECT submission_id, status, rejection_reason, finalized_at IS NOT NULL "
                               "FROM submission_status ORDER BY 1").fetchall()


@pytest.fixture
def notified(monkeypatch):
    """The status writer, recording each call; it writes nothing."""
    calls = []
    monkeypatch.setattr(st, "notify_submission_status", lambda sid, status, **kw: calls.append((sid, status, kw)))
    return calls


def test_a_real_thread_follows_an_earlier_processes_receipt_to_its_verdict(make_handle, store, monkeypatch):
    open_row(store)  # recorded by a process that is gone
    answers = iter([result("is_validating"), result("found", payment=2.5, is_stats={"sharpe": 1.4})])
    polled = []
    monkeypatch.setattr(st, "POLLING_INTERVAL", 0.01)
    monkeypatch.setattr(st, "_poll_status_internal", lambda sid: polled.append(sid) or next(answers))
    h = make_handle(tracker=store)
    assert h._polling_thread.name == "polling_thread"
    assert wait_until(lambda: h.status().submission_accepted == 1)
    assert polled == ["sub-1", "sub-1"] and statuses(store) == [("sub-1", "found", None, 1)]
    row = store._conn.execute("SELECT payment_json, is_stats_json FROM submission_status").fetchone()
    assert json.loads(row[0]) == 2.5 and json.loads(row[1]) == {"sharpe": 1.4}
    assert h._last_poll_time > 0
    h.stop(join_timeout=2.0)
    assert not h._polling_thread.is_alive()


def test_the_open_set_is_the_stores_rows_and_this_handles_receipts(h, store):
    open_row(store, "e1", "sub-1")
    open_row(store, "e2", "sub-2")
    h._pending_submissions["sub-2"] = {"submission_id": "sub-2", "submission_type": "signal", "eval_id": "mem"}
    h._pending_submissions["sub-3"] = {"submission_id": "sub-3", "eval_id": "e3"}
    got = {p["submission_id"]: p for p in h._pending_payloads()}
    assert got["sub-1"] == {"submission_id": "sub-1", "submission_type": "signal", "eval_id": "e1", "era_id": 3,
                            "sim_id": "sim-e1"}
    assert got["sub-2"]["eval_id"] == "mem" and got["sub-3"] == {"submission_id": "sub-3", "eval_id": "e3"}
    assert got["sub-3"] is not h._pending_submissions["sub-3"]  # a copy

    bare = types.SimpleNamespace(submission_id="sub-9")  # a tracker item without the optional attributes
    h._tracker = types.SimpleNamespace(get_pending_submissions=lambda: [bare])
    assert {"submission_id": "sub-9", "submission_type": "signal", "eval_id": None, "era_id": 1,
            "sim_id": None} in h._pending_payloads()

    def broken():
        raise OSError("disk gone")

    h._tracker = types.SimpleNamespace(get_pending_submissions=broken)
    assert sorted(p["submission_id"] for p in h._pending_payloads()) == ["sub-2", "sub-3"]
    assert h.failures[-1] == ("polling", "get_pending_submissions", "disk gone", True)


@pytest.mark.parametrize("answer, open_after, accepted, rejected", [
    (result(), True, 0, 0),                      # no status: "is_validating"
    (result("queued_for_review"), True, 0, 0),   # outside every set: written, stays open
    (result("useful"), False, 1, 0),
    (result("os_failed", rejection_reason="timeout"), False, 0, 1),
])
def test_what_a_poll_writes_and_whether_it_closes(h, notified, answer, open_after, accepted, rejected):
    h._pending_submissions["sub-1"] = {"submission_id": "sub-1"}
    h._apply_polled_status({"submission_id": "sub-1"}, answer)
    sid, status, kw = notified[0]
    assert (sid, status) == ("sub-1", getattr(answer, "status", "is_validating"))
    assert kw["is_stats_json"] == "{}" and kw["payment_json"] is None and kw["require_tracker"] is True
    assert kw["tracker"] is h._tracker and kw["rejection_reason"] == getattr(answer, "rejection_reason", None)
    assert ("sub-1" in h._pending_submissions) == open_after
    assert (h._submission_accepted, h._submission_rejected) == (accepted, rejected)


def test_a_failed_status_write_keeps_the_submission_open(h, monkeypatch):
    def failing(*a, **kw):
        raise LookupError("no row")

    monkeypatch.setattr(st, "notify_submission_status", failing)
    h._pending_submissions["sub-1"] = {"submission_id": "sub-1"}
    h._apply_polled_status({"submission_id": "sub-1"}, result("found"))
    h._finalize_pending_error({"submission_id": "sub-1"}, 404, "gone")
    assert "sub-1" in h._pending_submissions and h._submission_accepted == h._submission_rejected == 0
    assert [f[1] for f in h.failures] == ["update_submission_status"] * 2


def test_one_pass_connection_refusal_and_other_failures(h, store, monkeypatch):
    """A refusal closes its submission and the pass goes on; another failure is
    reported and the pass goes on; a network failure ends the pass and backs off."""
    for i in range(1, 5):
        open_row(store, f"e{i}", f"sub-{i}")
    answers = {"sub-1": SubmissionRejectedError(404, "unknown submission", {}), "sub-2": ValueError("bad body"),
               "sub-3": ConnectionError("down"), "sub-4": result("found")}
    polled = []

    def poll(sid):
        polled.append(sid)
        if len(polled) == 3:
            h._stop_event.set()  # one pass only
        answer = answers[sid]
        if isinstance(answer, Exception):
            raise answer
        return answer

    monkeypatch.setattr(st, "POLLING_INTERVAL", 0.01)
    monkeypatch.setattr(st, "_poll_status_internal", poll)
    h._polling_loop_inner()
    assert polled == ["sub-1", "sub-2", "sub-3"]  # sub-4 waits with the failed one
    assert statuses(store)[0] == ("sub-1", "is_rejected", "unknown submission", 1)
    assert h._errors[-2:] == ["poll 404: sub-1 unknown submission", "poll failed: bad body"]
    assert h._submission_rejected == 1 and h._polling_backoff_seconds == 10.0 and h._polling_backoff_until > 0

    h._stop_event.clear()
    h._polling_backoff_until = 0.0
    answers["sub-3"] = result("is_validating")
    polled.clear()
    threading.Timer(0.5, h._stop_event.set).start()
    h._polling_loop_inner()
    assert polled[:3] == ["sub-2", "sub-3", "sub-4"]  # sub-1 is closed
    assert h._polling_backoff_seconds == 5.0 and h._polling_backoff_until == 0.0 and h._submission_accepted == 1


def test_a_replacement_abort_writes_nothing(h, store, notified):
    open_row(store)
    h._replacement_abort_event_handle().set()
    assert h._pending_payloads() == []
    h._apply_polled_status({"submission_id": "sub-1"}, result("found"))
    h._finalize_pending_error({"submission_id": "sub-1"}, 401, "no")
    assert notified == [] and h._submission_rejected == 0
