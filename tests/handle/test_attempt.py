"""One submission attempt against a replaced send, on a real SQLite store: the
outcome decides where the payload goes and what the handle counts."""
import json

import pytest

import tarnwicket.search_templates as st
from fakes.collaborators import payload as make_payload
from fakes.context_fakes import MemoryTracker
from tarnwicket.submit import SignalServiceClient, SubmissionRejectedError


def payload(eval_id, **extra):
    return make_payload(eval_id, era_id=3, **extra)[0]


def table(store, name, columns):
    return store._conn.execute(f"SELECT {columns} FROM {name} ORDER BY 1").fetchall()


@pytest.fixture
def send(monkeypatch):
    """The module's send replaced: `send.outcome` is raised (or returned); sleeps are recorded."""

    class Send:
        outcome = ConnectionError("down")
        sent = []
        slept = []

    def fake(p):
        Send.sent.append(dict(p))
        if isinstance(Send.outcome, BaseException):
            raise Send.outcome
        return Send.outcome

    monkeypatch.setattr(st, "_submit_signal_payload", fake)
    monkeypatch.setattr(st, "_submission_backoff_sleep", Send.slept.append)
    return Send


def claimed(h, store, eval_id="e1"):
    store.enqueue_submission(payload(eval_id))
    return h._peek_submission_payload()


def test_network_failures_defer_the_row_and_double_the_window_up_to_its_cap(h, store, send):
    windows = []
    for _ in range(8):
        got = claimed(h, store) if not table(store, "submission_queue", "queue_id") else h._peek_submission_payload()
        h._submit_payload(got)
        windows.append(send.slept[-1])
        assert h._submission_backoff is True
        assert table(store, "submission_queue", "priority, in_flight_owner") == [(1, None)]
    assert windows == [5.0, 10.0, 20.0, 40.0, 80.0, 160.0, 300.0, 300.0]
    assert h._submission_backoff_seconds == 300.0
    # every attempt was recorded under the one key of the body
    keys = {p["idempotency_key"] for p in send.sent}
    assert len(keys) == 1 and table(store, "submission_attempts", "attempt_count, idempotency_key") == [(8, keys.pop())]
    assert h._errors == [] and h._submission_discarded == 0


def test_a_network_failure_of_a_retry_row_keeps_its_count_and_key(h, store, send):
    store.enqueue_retry("e1", "signal", json.dumps(payload("e1")), 3, "busy")
    got = h._peek_retry_payload()
    h._submit_payload(got)
    (row,) = table(store, "submission_retry", "retry_count, last_rejection_reason, retry_after, payload_json")
    assert row[:2] == (1, "network_error") and row[2] > 0
    assert json.loads(row[3])["idempotency_key"] == send.sent[0]["idempotency_key"]


@pytest.mark.parametrize("status, details, where", [
    (401, {}, "retry"),
    (403, {"ban_expiry": 0}, "retry"),
    (403, {}, "discarded"),
    (400, "not a map", "discarded"),
])
def test_refusals_go_to_retry_or_are_final(h, store, send, status, details, where):
    h._submission_backoff_seconds = 40.0
    send.outcome = SubmissionRejectedError(status, "", details)
    h._submit_payload(claimed(h, store))
    assert table(store, "submission_queue", "queue_id") == []
    retries = table(store, "submission_retry", "retry_count, retry_after")
    if where == "retry":
        assert retries == [(0, details.get("ban_expiry"))]
        assert (h._submission_discarded, h._submission_backoff_seconds) == (0, 40.0)
    else:
        assert retries == []
        assert (h._submission_discarded, h._submission_rejected, h._submission_backoff_seconds) == (1, 1, 5.0)
        assert h._errors[-1].endswith(f"submission {status}: unknown")


def test_the_reason_of_a_refusal_falls_back_to_the_error_of_its_details(h, store, send):
    send.outcome = SubmissionRejectedError(422, None, {"error": "bad graph"})
    h._submit_payload(claimed(h, store))
    assert h._errors[-1].endswith("submission 422: bad graph")


def test_any_other_failure_discards_and_leaves_the_backoff_alone(h, store, send):
    h._submission_backoff_seconds = 40.0
    send.outcome = ValueError("no graph")
    h._submit_payload(claimed(h, store))
    assert h._errors[-1].endswith("submission failed: no graph")
    assert (h._submission_discarded, h._submission_backoff_seconds) == (1, 40.0)
    assert table(store, "submission_queue", "queue_id") == []


def test_a_final_row_that_cannot_be_deleted_is_never_sent_again(h, store, send):
    send.outcome = SubmissionRejectedError(400, "bad", {})
    got = claimed(h, store)
    store._conn.execute("UPDATE submission_queue SET in_flight_owner='other'")
    h._submit_payload(got)
    assert h._finished_queue_ids == {got["_queue_id"]}
    store._conn.execute("UPDATE submission_queue SET in_flight_owner=NULL")
    assert h._peek_submission_payload() == {}
    assert table(store, "submission_queue", "queue_id") == [] and len(send.sent) == 1


def test_a_replacement_abort_drops_the_payload_without_counting(h, store, send):
    got = claimed(h, store)
    h._replacement_abort_event_handle().set()
    h._submit_payload(got)
    assert send.sent == [] and table(store, "submission_queue", "queue_id") == []
    assert (h._submission_discarded, h._errors) == (0, [])


def test_without_a_store_a_failed_send_is_queued_again_in_memory(make_handle, send):
    h = make_handle(tracker=MemoryTracker())
    h.failures = []
    h._record_background_failure = lambda c, o, e, backoff=True: h.failures.append((o, type(e).__name__))
    first = payload("e1")
    h._submit_payload(first)
    assert h.failures == [("requeue_submission", "AttributeError")]  # this tracker cannot requeue
    again = h._submission_queue.get_nowait()
    assert again == first and again is not first and h._submission_wakeup.is_set()


def test_the_idempotency_key_is_the_clients_key_of_the_body_and_is_kept():
    p = payload("e1", graph={"type": "feature"}, universe_id="u", extra="not sent")
    h = object.__new__(st._SearchHandleImpl)
    key = h._ensure_submission_idempotency_key(p)
    body = {k: p[k] for k in st._SIGNAL_SUBMIT_KWARGS if k in p and k != "idempotency_key"}
    assert key == SignalServiceClient._idempotency_key_for_body(body) == p["idempotency_key"]
    p["graph"] = {"type": "rotation"}
    assert h._ensure_submission_idempotency_key(p) == key
