"""The invariant checker: a sound directory passes, and each kind of breakage is named."""
import json
import os

import pytest

from tarnwicket.local import cli
from tarnwicket.local.invariants import check
from tarnwicket.local_signal_service import LocalSignalService
from tarnwicket.search_tracking import SearchTracker
from tarnwicket.submit import SignalServiceClient


@pytest.fixture
def world(tmp_path):
    """A store with one pass per place (queue, status) and the service that holds the sent one."""
    store = SearchTracker(str(tmp_path))
    service = LocalSignalService(token="t", db_path=str(tmp_path / "signal_service.db")).start()

    def passed(node):
        return store.record_signal_evaluation({"type": "feature", "node": node}, None, 1, True, "u", {},
                                              pool_id="p")

    def send(eval_id, key):
        store.record_submission_attempt_started(eval_id, "signal", key, 1, "{}", pool_id="p")
        with SignalServiceClient(service.url, "t") as client:
            return client.submit_signal(signal_pool_id="p", is_stats={}, graph=eval_id, idempotency_key=key)

    queued = passed("open")
    store.enqueue_submission({"eval_id": queued, "submission_type": "signal", "era_id": 1})
    sent = passed("close")
    sid = send(sent, "k-sent").submission_id
    store.record_submission(sent, "signal", sid, 1, pool_id="p")
    world = type("World", (), {})()
    world.__dict__.update(dir=str(tmp_path), store=store, service=service, passed=passed, send=send,
                          queued=queued, sent=sent, sid=sid)
    yield world
    service.close()
    store.close()


def problems(world):
    return check(world.dir).problems


def test_a_sound_directory_passes_and_counts_its_places(world, capsys):
    r = check(world.dir)
    assert r.ok and (r.passed, r.queued, r.recorded, r.service_held, r.in_transit) == (2, 1, 1, 1, 0)
    world.passed("high")  # a pass whose queue row a kill prevented
    assert [e for e, _ in check(world.dir).unplaced] != [] and check(world.dir).ok
    # A pass whose record failed is queued under an identifier the store never saw.
    world.store.enqueue_submission({"eval_id": "never-recorded", "submission_type": "signal", "era_id": 1})
    r = check(world.dir)
    assert r.ok and r.unrecorded == ["never-recorded"] and r.queued == 2
    assert cli.main(["check", "--data-dir", world.dir]) == 0
    assert "every invariant holds" in capsys.readouterr().out


def test_a_receipt_on_its_way_is_in_transit_not_lost(world):
    sid = world.send(world.queued, "k-queued").submission_id  # answered; the row still waits
    assert check(world.dir).in_transit == 1 and check(world.dir).ok
    world.store._conn.execute("DELETE FROM submission_queue")  # ... and now nothing will send it again
    assert problems(world) == [f"submission {sid} held by the service is lost: not recorded, not in the journal, "
                               "no row waits to send it again"]
    journal = os.path.join(world.dir, "submission_receipts_pending")
    os.makedirs(journal)
    with open(os.path.join(journal, "queue__1__x.json"), "w") as fh:
        json.dump({"source_kind": "queue", "source_id": 1, "submission_id": sid}, fh)
    assert problems(world) == [f"receipt {sid} in the journal is neither recorded nor has its row (('queue', 1))"]


def test_each_breakage_is_named(world, capsys):
    conn = world.store._conn
    failed = world.store.record_signal_evaluation({"type": "feature", "node": "low"}, None, 1, False, "u", {},
                                                  pool_id="p")
    conn.execute("INSERT INTO submission_retry (eval_id, eval_type, payload_json, era_id, created_at) "
                 "VALUES (?, 'signal', '{}', 1, 0)", (world.queued,))
    conn.execute("INSERT INTO submission_status (eval_id, submission_id, status) VALUES (?, ?, 'pending')",
                 (failed, world.sid))
    conn.execute("ALTER TABLE submission_queue ADD COLUMN in_flight_owner TEXT")  # as a search's migration does
    conn.execute("ALTER TABLE submission_queue ADD COLUMN in_flight_at REAL")
    conn.execute("UPDATE submission_queue SET in_flight_owner='gone', in_flight_at=1")
    conn.execute("INSERT INTO submission_status (eval_id, submission_id, status) VALUES (?, 'sub_invented', "
                 "'pending')", (world.sent,))
    with SignalServiceClient(world.service.url, "t") as client:  # same key, another body
        assert client.submit_signal(signal_pool_id="p", is_stats={}, graph="other", idempotency_key="k-sent").status_code == 409
    world.store._conn.commit()
    found = problems(world)
    assert f"evaluation {world.queued} is in 2 places" in found
    assert f"evaluation {world.sent} is in 2 places" in found
    assert f"evaluation {failed} has a submission row but did not pass" in found
    assert f"submission {world.sid} is recorded 2 times" in found
    assert "1 rows are claimed by an owner whose lease ran out" in found
    assert "1 requests reused an idempotency key with another body" in found
    assert "1 recorded submissions are unknown to the service, e.g. sub_invented" in found
    assert cli.main(["check", "--data-dir", world.dir]) == 1
    assert "BROKEN: " in capsys.readouterr().out


def test_a_signal_under_two_keys_and_missing_places(world, tmp_path, capsys):
    world.send(world.sent, "k-other")
    assert "1 signals are held by the service under more than one key" in problems(world)
    # a place that is not there is refused, not checked as empty (which would pass)
    nowhere = str(tmp_path / "nowhere")
    for argv, says in ((["--data-dir", nowhere], "no store in"),
                       (["--data-dir", world.dir, "--service-db", nowhere], "no signal service store at"),
                       (["--data-dir", world.dir, "--with-data-dir", nowhere], "is not a data directory")):
        assert cli.main(["check", *argv]) == 2
        err = capsys.readouterr().err
        assert "cannot check" in err and says in err


def test_passes_that_sent_one_body_share_its_submission(world):
    graph = {"type": "feature", "node": "vwap"}
    evals = [world.passed("vwap") for _ in range(3)]

    def sent_again():  # the body's key: the service answers with the first receipt
        with SignalServiceClient(world.service.url, "t") as client:
            return client.submit_signal(signal_pool_id="p", is_stats={}, graph=graph, idempotency_key="k-vwap")

    sid = sent_again().submission_id
    assert sent_again().submission_id == sid
    for eval_id in evals:
        world.store._conn.execute("INSERT INTO submission_status (eval_id, submission_id, status) "
                                  "VALUES (?, ?, 'pending')", (eval_id, sid))
        world.store._conn.commit()
        if eval_id == evals[1]:
            r = check(world.dir)
            assert r.ok and (r.shared, r.duplicates) == (1, 0)
    # a third pass credited without a request of its own
    assert problems(world) == [f"submission {sid} is recorded 3 times"]
    sent_again()
    assert check(world.dir).ok
    world.store._conn.execute("UPDATE signal_evaluations SET graph_json='{}' WHERE eval_id=?", (evals[2],))
    world.store._conn.commit()
    assert problems(world) == [f"submission {sid} is recorded 3 times"]  # another graph never sent this body
