"""Leased claims of queue and retry rows on a real SQLite store."""
import json
import logging
import time

import pytest

import tarnwicket.search_templates as st
from fakes.collaborators import interrupt_on, payload as make_payload

LEASE = st.SUBMISSION_QUEUE_LEASE_SECONDS


def payload(eval_id, **extra):
    return make_payload(eval_id, era_id=3, **extra)[0]


def rows(store, table, columns="*"):
    return store._conn.execute(f"SELECT {columns} FROM {table} ORDER BY 1").fetchall()


def set_claim(store, table, id_name, row_id, owner, at):
    store._conn.execute(f"UPDATE {table} SET in_flight_owner=?, in_flight_at=? WHERE {id_name}=?", (owner, at, row_id))


def test_queue_rows_are_claimed_by_priority_then_insertion(h, store):
    first = store.enqueue_submission(payload("e1"))
    second = store.enqueue_submission(payload("e2"))
    urgent = store.requeue_submission("e3", "signal", json.dumps(payload("e3")), 3)
    order = []
    for _ in range(3):
        got = h._peek_submission_payload()
        order.append(got["_queue_id"])
        assert got["eval_id"] == {first: "e1", second: "e2", urgent: "e3"}[got["_queue_id"]]
        (row,) = [r for r in rows(store, "submission_queue", "queue_id, payload_json, created_at, in_flight_owner")
                  if r[0] == got["_queue_id"]]
        assert (got["_source_payload_json"], got["_source_created_at"], row[3]) == (row[1], row[2], h._submission_owner)
        store._conn.execute("DELETE FROM submission_queue WHERE queue_id=?", (got["_queue_id"],))
    assert order == [urgent, first, second]


def test_a_row_of_another_owner_comes_free_when_its_lease_runs_out(h, store):
    queue_id = store.enqueue_submission(payload("e1"))
    assert h._ensure_submission_claim_columns()
    set_claim(store, "submission_queue", "queue_id", queue_id, "other", time.time() - LEASE + 5)
    assert h._peek_submission_payload() is None
    set_claim(store, "submission_queue", "queue_id", queue_id, "other", time.time() - LEASE - 5)
    assert h._peek_submission_payload()["_queue_id"] == queue_id
    # ours again at once, whatever its age; an owner without a time is free
    assert h._peek_submission_payload()["_queue_id"] == queue_id
    set_claim(store, "submission_queue", "queue_id", queue_id, "other", None)
    assert h._peek_submission_payload()["_queue_id"] == queue_id
    assert h.failures == []


def test_an_interrupted_claim_ends_its_transaction(h, store):
    store.enqueue_submission(payload("e1"))
    assert h._ensure_submission_claim_columns()
    interrupt_on(store._conn, "UPDATE")
    with pytest.raises(KeyboardInterrupt):
        h._peek_submission_payload()
    del store._conn.execute
    assert not store._conn.in_transaction
    assert rows(store, "submission_queue", "in_flight_owner") == [(None,)]


def test_an_empty_table_commits_and_resets_the_failure_count(h, store):
    resets = []
    h._reset_background_failures = resets.append
    assert h._peek_submission_payload() is None
    assert h._peek_retry_payload() is None
    assert resets == ["submission", "submission"]
    assert not store._conn.in_transaction


def test_a_claim_lost_between_select_and_update_rolls_back(h, store):
    store.enqueue_submission(payload("e1"))
    assert h._ensure_submission_claim_columns()
    conn = store._conn

    class Racing:
        """The store's connection, with another owner's claim landing just before our update."""

        def __getattr__(self, name):
            return getattr(conn, name)

        def execute(self, sql, params=()):
            if sql.startswith("UPDATE submission_queue SET in_flight_owner"):
                conn.execute("UPDATE submission_queue SET in_flight_owner='other', in_flight_at=?", (time.time(),))
            return conn.execute(sql, params)

    store._conn = Racing()
    try:
        assert h._peek_submission_payload() is None
    finally:
        store._conn = conn
    assert h.failures == [("submission", "claim_submission_queue", "submission_queue claim lost", True)]
    assert rows(store, "submission_queue", "in_flight_owner") == [(None,)]
    assert not conn.in_transaction
    # whatever fails inside the claim's transaction is rolled back and recorded, the owner's read included
    owner = h.__dict__.pop("_submission_owner")
    assert h._peek_submission_payload() is None and not conn.in_transaction
    assert h.failures[-1][:2] == ("submission", "dequeue_submission") and "_submission_owner" in h.failures[-1][2]
    h._submission_owner = owner


def test_rows_that_cannot_be_sent_are_deleted_or_stay_claimed(h, store):
    bad = store.enqueue_submission(payload("e1"))
    store._conn.execute("UPDATE submission_queue SET payload_json='not json' WHERE queue_id=?", (bad,))
    assert h._peek_submission_payload() == {}
    assert h.failures[0][:2] == ("submission", "payload_json decode") and h.failures[0][3] is False
    assert rows(store, "submission_queue") == []

    finished = store.enqueue_submission(payload("e2"))
    h._finished_queue_ids.add(finished)
    assert h._peek_submission_payload() == {}
    assert rows(store, "submission_queue") == [] and finished not in h._finished_queue_ids

    keyless = store.enqueue_submission(payload("e3"))
    store._conn.execute("UPDATE submission_queue SET payload_json=? WHERE queue_id=?",
                        (json.dumps({"graph": {}}), keyless))
    with pytest.raises(st.RowSchemaError):
        h._peek_submission_payload()
    assert rows(store, "submission_queue", "queue_id, in_flight_owner") == [(keyless, h._submission_owner)]


def test_retry_rows_due_oldest_first_and_never_past_five_tries(h, store):
    later = store.enqueue_retry("e1", "signal", json.dumps(payload("e1", _queue_id=99)), 3, "busy")
    exhausted = store.enqueue_retry("e2", "signal", json.dumps(payload("e2")), 3, "busy")
    waiting = store.enqueue_retry("e3", "signal", json.dumps(payload("e3")), 3, "busy", retry_after=time.time() + 60)
    store._conn.execute("UPDATE submission_retry SET retry_count=5 WHERE retry_id=?", (exhausted,))
    got = h._peek_retry_payload()
    assert (got["retry_id"], got["retry_count"], got["retry_after"]) == (later, 1, None)
    assert "_queue_id" not in got and got["_source_payload_json"] == rows(store, "submission_retry", "payload_json")[0][0]
    store._conn.execute("DELETE FROM submission_retry WHERE retry_id=?", (later,))
    assert h._peek_retry_payload() is None
    assert [r[0] for r in rows(store, "submission_retry", "retry_id")] == [exhausted, waiting]

    store._conn.execute("UPDATE submission_retry SET payload_json='[' WHERE retry_id=?", (waiting,))
    store._conn.execute("UPDATE submission_retry SET retry_after=NULL WHERE retry_id=?", (waiting,))
    assert h._peek_retry_payload() == {}
    assert [r[0] for r in rows(store, "submission_retry", "retry_id")] == [exhausted]


def test_a_row_is_deleted_only_while_it_is_the_row_that_was_claimed(h, store):
    queue_id = store.enqueue_submission(payload("e1"))
    got = h._peek_submission_payload()
    where, params = h._source_sql_predicates(got, "queue_id", queue_id, require_owner=True)
    assert where == ("queue_id=? AND eval_id=? AND eval_type=? AND era_id=? AND created_at=? AND payload_json=? "
                     "AND in_flight_owner=?")
    assert params == [queue_id, "e1", "signal", 3, got["_source_created_at"], got["_source_payload_json"],
                      h._submission_owner]
    assert h._source_sql_predicates(payload("e1"), "retry_id", 4) == (
        "retry_id=? AND eval_id=? AND eval_type=? AND era_id=?", [4, "e1", "signal", 3])

    changed = dict(got, _source_payload_json="{}")
    assert h._delete_claimed_submission_source(changed) is False
    set_claim(store, "submission_queue", "queue_id", queue_id, "other", time.time())
    assert h._delete_submission_queue_item(queue_id) is False
    set_claim(store, "submission_queue", "queue_id", queue_id, h._submission_owner, time.time())
    assert h._delete_claimed_submission_source(got) is True
    assert rows(store, "submission_queue") == [] and h.failures == []
    assert h._delete_submission_queue_item(queue_id) is False  # gone: no row was deleted

    retry_id = store.enqueue_retry("e2", "signal", json.dumps(payload("e2")), 3, "busy")
    retry = h._peek_retry_payload()
    assert h._delete_claimed_submission_source(retry) is True
    assert rows(store, "submission_retry") == []
    assert h._delete_submission_retry_item(None) is True and h._delete_submission_queue_payload({}) is True
    assert h._delete_submission_queue_payload({"_queue_id": 5}) is False  # no keys to prove the row by
    assert [f[1] for f in h.failures] == ["delete_submission_queue"]
    assert retry_id == retry["retry_id"]


def test_tracker_items_are_decoded_with_their_queue_id(h):
    class Item:
        queue_id = 7
        payload_json = json.dumps(payload("e1"))

    assert h._payload_from_tracker_item(Item())["_queue_id"] == 7
    Item.payload_json = json.dumps(payload("e1", _queue_id=3))
    assert h._payload_from_tracker_item(Item())["_queue_id"] == 3
    assert h._payload_from_tracker_item(object()) is None
    assert h.failures[-1][1] == "payload_json decode" and h.failures[-1][3] is False


def test_work_in_memory(h, caplog):
    assert h._has_in_memory_submission_work() is False
    h._retry_queue.append(payload("e1"))
    assert h._has_in_memory_submission_work() is True
    h._retry_queue.clear()

    class Unsized:
        def qsize(self):
            raise NotImplementedError

    h._submission_queue = Unsized()
    with caplog.at_level(logging.DEBUG, logger=st.logger.name):
        assert h._has_in_memory_submission_work() is False
    assert "Submission queue size unavailable: NotImplementedError" in caplog.text
    h._pending_receipts_by_queue_id[1] = object()
    assert h._has_in_memory_submission_work() is True
    h._pending_receipts_by_queue_id.clear()  # else the submission thread would keep trying after stop
