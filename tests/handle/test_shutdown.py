import json
import sqlite3
import threading

import pytest

import tarnwicket.search_templates as st
from fakes.runtime import FakeSyncManager, MemoryTracker, raising, wait_until


def make_active(h):
    with st._search_active_lock:
        st._search_active, st._active_search_handle = True, h


class SqliteTracker(MemoryTracker):
    """A tracker with a real store connection and the two queue tables."""

    def __init__(self, path):
        super().__init__()
        self._conn = sqlite3.connect(path, check_same_thread=False, isolation_level=None)
        self._conn.execute("CREATE TABLE submission_queue (queue_id INTEGER PRIMARY KEY, eval_id TEXT, "
                           "eval_type TEXT, payload_json TEXT, era_id INTEGER, priority INTEGER, created_at REAL)")
        self._conn.execute("CREATE TABLE submission_retry (retry_id INTEGER PRIMARY KEY, eval_id TEXT, "
                           "eval_type TEXT, pool_id TEXT, payload_json TEXT, era_id INTEGER, retry_count INTEGER, "
                           "last_rejection_reason TEXT, retry_after REAL, created_at REAL)")

    def add(self, table, owner, claimed_by=None):
        payload = json.dumps({"eval_id": "e", "_submission_owner": owner}, sort_keys=True)
        self._conn.execute(f"INSERT INTO {table} (eval_id, payload_json) VALUES ('e', ?)", (payload,))
        if claimed_by:
            self._conn.execute(f"UPDATE {table} SET in_flight_owner=? WHERE rowid=last_insert_rowid()",
                               (claimed_by,))

    def rows_in(self, table):
        return self._conn.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0]


class TestStop:
    def test_stop_is_clean_and_idempotent(self, make_handle):
        mgr = FakeSyncManager()
        tracker = MemoryTracker()
        h = make_handle(template=lambda ctx: iter(lambda: {"type": "feature", "node": "f"}, None), n_jobs=2,
                        tracker=tracker, sync_mgr=mgr)
        h._submission_queue.put({"a": 1})
        make_active(h)
        h.stop()
        threads = [*h._worker_threads, h._supervisor_thread, h._era_thread]
        assert not any(t.is_alive() for t in threads)
        assert h._stopped is True and h._running is False and h._submission_queue.qsize() == 0
        assert tracker.active == [False] and mgr.released == 1
        assert st._search_active is False and st._active_search_handle is None
        h.stop()
        assert tracker.active == [False] and mgr.released == 1
        assert h.status().running is False

    def test_stop_of_another_handle_keeps_the_active_reference(self, make_handle):
        first, second = make_handle(bt=None), make_handle(bt=None)
        make_active(second)
        first.stop()
        assert st._search_active is False and st._active_search_handle is second

    def test_stop_survives_collaborator_failures(self, make_handle, caplog):
        tracker, mgr = MemoryTracker(), FakeSyncManager()
        tracker.set_search_active, mgr.release = raising(RuntimeError("store gone")), raising(RuntimeError("manager gone"))
        h = make_handle(tracker=tracker, sync_mgr=mgr, bt=None)
        h.stop(join_timeout=0)
        assert h._stopped is True
        assert "Failed to set search inactive: store gone" in caplog.text
        assert "Failed to release sync manager during stop: manager gone" in caplog.text

    @pytest.mark.parametrize("flush", [raising(OSError("disk gone")), None])
    def test_a_failing_receipt_flush_leaves_stop_which_can_be_called_again(self, make_handle, flush):
        h = make_handle(bt=None)
        h._flush_pending_receipt_finalizations = flush
        with pytest.raises(OSError if flush else TypeError):
            h.stop(join_timeout=0)
        assert h._stopped is False and not h._stop_event.is_set()
        del h._flush_pending_receipt_finalizations
        h.stop(join_timeout=0)
        assert h._stopped is True

    def test_fatal_handle_is_unblocked_by_stop(self, make_handle):
        h = make_handle(bt=None)
        make_active(h)
        h._set_fatal_error("INFRASTRUCTURE_FAILURE", "register()", "Background infrastructure failed permanently")
        h.stop()
        assert st._search_active is False
        with pytest.raises(st.SearchError):
            h.status()


class TestReplacementAbort:
    def test_abort_deletes_only_this_owners_rows(self, make_handle, tmp_path):
        tracker = SqliteTracker(str(tmp_path / "t.db"))
        h = make_handle(tracker=tracker, template=lambda ctx: iter(lambda: {"type": "feature", "node": "f"}, None))
        assert h._tracker_uses_persistent_store is True
        me, other = h._submission_owner, "someone-else"
        assert h._ensure_submission_claim_columns() and h._ensure_retry_claim_columns()
        tracker.add("submission_queue", me)
        tracker.add("submission_queue", other)
        tracker.add("submission_queue", other, claimed_by=me)
        tracker.add("submission_retry", me)
        tracker.add("submission_retry", other)
        h._retry_queue.append({"x": 1})
        h._pending_submissions["s"] = {}
        h._abort_for_replacement()
        assert tracker.rows_in("submission_queue") == 1 and tracker.rows_in("submission_retry") == 1
        assert h._replacement_abort_requested() and h._stop_event.is_set()
        assert h._submission_degraded and h._polling_degraded and h._stopped
        assert h._retry_queue == [] and h._pending_submissions == {}
        assert tracker.active == [False]
        assert wait_until(lambda: not any(t.is_alive() for t in h._worker_threads))

    def test_claim_columns_are_added_once(self, make_handle, tmp_path):
        tracker = SqliteTracker(str(tmp_path / "t.db"))
        h = make_handle(tracker=tracker, bt=None)
        assert h._persistent_table_columns("submission_queue") >= {"queue_id", "payload_json"}
        assert h._ensure_submission_claim_columns() is True
        assert {"in_flight_owner", "in_flight_at"} <= h._persistent_table_columns("submission_queue")
        h._submission_claim_columns_ready = False
        assert h._ensure_submission_claim_columns() is True

    def test_failed_migration_is_a_background_failure(self, make_handle, tmp_path):
        tracker = SqliteTracker(str(tmp_path / "t.db"))
        tracker._conn.execute("DROP TABLE submission_retry")
        h = make_handle(tracker=tracker, bt=None)
        assert h._ensure_retry_claim_columns() is False
        assert h._errors[-1].startswith("submission submission_retry_claim_schema failed (OperationalError)")

    def test_memory_tracker_runs_no_statement_and_stopped_handle_is_left_alone(self, make_handle):
        h, stopped = make_handle(bt=None), make_handle(bt=None)
        h._submission_queue.put({"p": 1})
        h._abort_for_replacement()
        assert h._submission_queue.qsize() == 0 and h._stopped
        h._abort_for_replacement()
        stopped.stop()
        stopped._abort_for_replacement()
        assert not stopped._replacement_abort_requested()


def test_finaliser_tolerates_a_bare_handle():
    h = st._SearchHandleImpl.__new__(st._SearchHandleImpl)
    h.__del__()
    h._stop_event = threading.Event()
    h.__del__()
    assert h._stop_event.is_set() and h._running is False
