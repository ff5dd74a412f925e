import threading

import pytest

import tarnwicket.search_templates as st
from fakes.runtime import FakeSyncManager, raising, wait_until


@pytest.fixture
def idle(make_handle):
    """A handle with no threads, for driving the accounting by hand."""
    return make_handle(bt=None)


class TestBackgroundFailures:
    def test_submission_backoff_doubles_to_the_ceiling(self, idle):
        waits = []
        for _ in range(8):
            before = idle._submission_backoff_seconds
            idle._record_background_failure("submission", "loop", RuntimeError("x"))
            waits.append(before)
        assert waits == [5.0, 10.0, 20.0, 40.0, 80.0, 160.0, 300.0, 300.0]
        assert idle._submission_backoff is True and idle._submission_backoff_seconds == 300.0

    def test_message_counts_and_degradation_at_ten(self, idle):
        for i in range(10):
            idle._record_background_failure("submission", "thread restart", RuntimeError("submission_thread exited"))
        assert idle._errors[0] == "submission thread restart failed (RuntimeError): submission_thread exited"
        assert idle._crash_count == 10 and idle._submission_degraded is True
        assert idle._errors[-1] == (
            "submission capability degraded after 10 consecutive failures; search continues without submissions")
        idle._record_background_failure("submission", "loop", ValueError("again"), backoff=False)
        assert idle._errors.count(idle._errors[-2]) == 1  # the degraded text is appended once

    def test_polling_has_no_backoff_flag_and_its_own_text(self, idle, monkeypatch):
        monkeypatch.setattr(st, "_INFRASTRUCTURE_FAILURE_THRESHOLD", 2)
        idle._record_background_failure("polling", "loop", KeyError("k"))
        idle._record_background_failure("polling", "loop", KeyError("k"), backoff=False)
        assert idle._submission_backoff is False and idle._polling_backoff_seconds == 10.0
        assert idle._polling_degraded is True
        assert idle._errors[-1].startswith("polling capability degraded after 10 consecutive failures")

    def test_reset_clears_only_the_count_and_other_components_only_count(self, idle):
        for _ in range(3):
            idle._record_background_failure("submission", "loop", RuntimeError("x"))
        idle._reset_background_failures("submission")
        assert idle._submission_failures == 0 and idle._submission_backoff_seconds == 40.0
        idle._reset_background_failures("other")
        idle._record_background_failure("journal", "write", OSError("disk"))
        assert idle._crash_count == 4 and idle._submission_failures == 0 and idle._polling_failures == 0


class TestFatalError:
    def test_fatal_error_is_stored_and_emitted(self, idle, monkeypatch):
        import tarnwicket.callbacks as callbacks

        events = []
        monkeypatch.setattr(callbacks, "emit_event", lambda **kw: events.append(kw))
        idle._set_fatal_error("DATABASE_ERROR", "advice", "boom")
        assert idle._running is False and not idle._stop_event.is_set()
        assert events == [{"data_dir": idle._data_dir, "event_type": "failure", "severity": "fatal",
                           "payload": {"code": "DATABASE_ERROR", "recovery": "advice", "message": "boom"}}]
        for _ in range(2):
            with pytest.raises(st.SearchError, match="boom"):
                idle.status()

    def test_failing_emit_still_stores(self, idle, monkeypatch, caplog):
        import tarnwicket.callbacks as callbacks

        monkeypatch.setattr(callbacks, "emit_event", raising(RuntimeError("no sink")))
        idle._set_fatal_error("X", "y", "z")
        assert "callback dispatch failed during fatal-error: no sink" in caplog.text
        assert idle._fatal_error.error_code == "X"
        # the event's arguments are read inside the guard too
        del idle._data_dir
        idle._set_fatal_error("W", "y", "z")
        assert "callback dispatch failed during fatal-error: " \
               "'_SearchHandleImpl' object has no attribute '_data_dir'" in caplog.text
        assert idle._fatal_error.error_code == "W"


class TestSupervisor:
    def test_dead_worker_is_replaced_once(self, make_handle):
        h = make_handle(template=lambda ctx: None, n_jobs=1)
        assert wait_until(lambda: any(t.name == "worker_restart_0" for t in h._worker_threads))
        assert h._worker_threads[0].name == "worker_0"

    def test_ten_failed_restarts_are_fatal(self, make_handle, monkeypatch):
        monkeypatch.setattr(st, "_restart_worker", raising(RuntimeError("cannot spawn")))
        monkeypatch.setattr(st, "_INFRASTRUCTURE_FAILURE_THRESHOLD", 3)
        h = make_handle(template=lambda ctx: None, n_jobs=1)
        assert wait_until(lambda: h._fatal_error is not None, timeout=6)
        with pytest.raises(st.SearchError) as info:
            h.status()
        assert info.value.message == "Background infrastructure failed permanently"

    def test_probe_failures_count_too(self, make_handle, monkeypatch):
        monkeypatch.setattr(st, "_spawn_worker", raising(RuntimeError("probe")))
        monkeypatch.setattr(st, "_INFRASTRUCTURE_FAILURE_THRESHOLD", 2)
        block = threading.Event()
        h = make_handle(template=lambda ctx: iter(lambda: block.wait(0.01) or {"type": "feature", "node": "f"}, None))
        assert wait_until(lambda: h._fatal_error is not None, timeout=4)

    def test_dead_sync_manager_is_restarted(self, make_handle):
        mgr = FakeSyncManager(alive=False)
        make_handle(template=lambda ctx: None, sync_mgr=mgr)
        assert wait_until(lambda: mgr.started >= 1)

    def test_dead_era_thread_is_rebuilt(self, make_handle):
        h = make_handle(template=lambda ctx: None)
        first = h._era_thread
        h._era_thread = threading.Thread(target=lambda: None, name="dead")
        h._era_thread.start()
        h._era_thread.join()
        assert wait_until(lambda: h._era_thread is not first and h._era_thread.name == "era_thread"
                          and h._era_thread.is_alive())
