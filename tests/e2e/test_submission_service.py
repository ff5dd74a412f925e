"""Searches in child processes sending to the loopback signal service over HTTP:
under injected faults, across a kill and a restart, and two processes on one
store; on each store (SQLite, and PostgreSQL shared by the processes). The
service's own store is the witness of what it was sent."""

import signal
import time

import pytest

from fakes.runtime import wait_until
from fakes.searches import SLOW, ServiceProcess, finish, journal_files, reconcile, search, token_of
from tarnwicket.search_tracking import DB_FILENAME
from tarnwicket.stores import open_store, remember_store_url


@pytest.fixture
def data_dir(data_dir, store_url):
    """The prepared data directory, set up to use each store in turn."""
    remember_store_url(str(data_dir), store_url)
    return data_dir


def store_reader(data_dir):
    return open_store(str(data_dir), db_filename=DB_FILENAME).read_only()


@pytest.mark.faults
def test_faults_of_every_kind_lose_nothing_and_send_nothing_twice(data_dir, tmp_path):
    # One service for the store, as a shared store needs; it runs in a process of its own.
    service = ServiceProcess(tmp_path / "service.db", token_of(data_dir),
                             faults="drop=0.06,5xx=0.06,401=0.12,403=0.12,ban_seconds=1,seed=11")
    try:
        first = finish(search(data_dir, 12, "--server-url", service.url, jobs=2))
        assert "retrying" in first
        # The same service and store without faults: what waited is sent.
        service.restart_without_faults()
        finish(search(data_dir, 10, "--server-url", service.url))
    finally:
        service.stop()
    r = reconcile(data_dir, service.db)
    store = store_reader(data_dir)
    try:
        attempts, sends = store.execute("SELECT COUNT(*), SUM(attempt_count) FROM submission_attempts").fetchone()
    finally:
        store.close()
    assert sends > attempts  # faults made some attempts go again
    assert r.service_repeats == 0 and r.service_held >= 10
    assert len(r.unplaced) <= 2  # a pass recorded as each run stopped may have missed its row


@pytest.mark.faults
def test_a_search_killed_and_restarted_sends_nothing_the_service_holds(data_dir, service):
    url, db = service.url, service.db
    from tarnwicket.local_signal_service import read_store

    child = search(data_dir, 60, "--server-url", url, lease=3.0)
    try:
        assert wait_until(lambda: read_store(db)["submissions"] >= 5, timeout=60 * SLOW, interval=0.05)
    finally:
        child.kill()
        child.communicate()
    killed_at = time.time()
    out = finish(search(data_dir, 8, "--server-url", url, lease=3.0))
    assert "Sent " in out
    r = reconcile(data_dir, db)
    assert len(r.unplaced) <= 2  # one pass at the kill, one at the stop may have missed their rows
    assert r.service_repeats <= 1  # only an answer the kill cut off before its journal entry goes again
    store = store_reader(data_dir)
    try:  # the dead owner's claims ran out and its rows were sent by the next process
        left = store.execute("SELECT COUNT(*) FROM submission_queue WHERE created_at < ?", (killed_at,)).fetchone()[0]
    finally:
        store.close()
    assert left == 0


@pytest.mark.faults
def test_two_processes_on_one_store_never_both_send_a_row(data_dir, service):
    url, db = service.url, service.db
    children = [search(data_dir, 12, "--server-url", url, lease=5.0) for _ in range(2)]
    for child in children:
        finish(child)
    r = reconcile(data_dir, db)
    assert r.service_held >= 10
    assert r.service_repeats == 0  # a row sent by both would have reached the service twice under its key
    assert len(r.unplaced) <= 2


@pytest.mark.parametrize("boundary, service_holds, journaled, recorded, repeats", [
    ("before_request", 0, 0, 0, 0),
    ("after_answer", 1, 0, 0, 1),   # only the idempotency key recognises the second request
    ("after_journal", 1, 1, 0, 0),  # the journal's replay records it
    ("after_commit", 1, 1, 1, 0),   # the replay finds it recorded and drops the entry
])
def test_a_kill_at_each_boundary_of_a_success_loses_no_receipt_and_sends_nothing_twice(
        data_dir, service, boundary, service_holds, journaled, recorded, repeats):
    from tarnwicket.local_signal_service import read_store

    url, db = service.url, service.db
    killed = search(data_dir, 60, "--server-url", url, lease=2.0, kill_at=boundary)
    killed.communicate(timeout=90 * SLOW)
    assert killed.returncode == -signal.SIGKILL
    store = store_reader(data_dir)
    try:
        assert store.execute("SELECT COUNT(*) FROM submission_status").fetchone()[0] == recorded
    finally:
        store.close()
    assert read_store(db)["submissions"] == service_holds
    assert len(journal_files(data_dir)) == journaled

    restarted_at = time.time()
    finish(search(data_dir, 6, "--server-url", url, lease=2.0))  # a fresh process on the same directory
    r = reconcile(data_dir, db)
    store = store_reader(data_dir)
    try:  # what the killed process recorded was polled to its verdict by the next one
        assert store.execute("SELECT COUNT(*) FROM submission_status WHERE submitted_at < ? "
                             "AND finalized_at IS NULL", (restarted_at,)).fetchone()[0] == 0
    finally:
        store.close()
    assert r.service_repeats == repeats and r.service_held >= service_holds + 1
    assert len(r.unplaced) <= 2 and journal_files(data_dir) == []
