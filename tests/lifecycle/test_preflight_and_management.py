import builtins
import sys
import types

import pytest

import tarnwicket.agent_onboarding as onboarding
import tarnwicket.search_templates as st


def runtime_with(auth):
    return types.SimpleNamespace(_library_runtime=types.SimpleNamespace(auth_proxy=auth))


class TestAuthProbe:
    def test_token_value_is_not_looked_at(self):
        assert st._is_authed(runtime_with(types.SimpleNamespace(get_token=lambda: None))) is True

    @pytest.mark.parametrize("mod", [types.SimpleNamespace(), runtime_with(None), runtime_with(object())])
    def test_missing_parts_are_not_authed(self, mod):
        assert st._is_authed(mod) is False

    def test_connection_error_is_logged_at_debug(self, caplog):
        def fail():
            raise ConnectionError("offline")

        caplog.set_level("DEBUG", logger="tarnwicket.search_templates")
        assert st._is_authed(runtime_with(types.SimpleNamespace(get_token=fail))) is False
        assert [r.levelname for r in caplog.records] == ["DEBUG"]
        assert caplog.records[0].getMessage() == "auth probe get_token() raised: offline"

    def test_other_errors_propagate(self):
        def fail():
            raise KeyError("k")

        with pytest.raises(KeyError):
            st._is_authed(runtime_with(types.SimpleNamespace(get_token=fail)))


class TestResourceProbes:
    def test_missing_psutil_passes_with_a_warning(self, monkeypatch, caplog):
        real_import = builtins.__import__

        def no_psutil(name, *a, **k):
            if name == "psutil":
                raise ImportError("no psutil")
            return real_import(name, *a, **k)

        monkeypatch.delitem(sys.modules, "psutil", raising=False)
        monkeypatch.setattr(builtins, "__import__", no_psutil)
        assert st._check_memory() is None
        assert "psutil not installed \u2014 memory check skipped" in caplog.text

    @pytest.mark.parametrize("gb, refused", [(3.96, True), (4.0, False)])
    def test_memory_threshold(self, monkeypatch, gb, refused):
        fake = types.SimpleNamespace(virtual_memory=lambda: types.SimpleNamespace(available=gb * 1073741824))
        monkeypatch.setitem(sys.modules, "psutil", fake)
        if not refused:
            assert st._check_memory() is None
            return
        with pytest.raises(st.SearchError) as info:
            st._check_memory()
        err = info.value
        assert err.error_code == "OUT_OF_MEMORY" and str(err) == "Not enough memory: requires 4.0 GB, available 4.0 GB"
        assert err.recovery_advice == "Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed."
        assert err.status == st.SearchStatus(running=False)

    def test_disk_is_measured_at_home(self, monkeypatch, tmp_path):
        seen = []

        def usage(path):
            seen.append(path)
            return types.SimpleNamespace(free=499.4 * 1048576)

        monkeypatch.setattr("shutil.disk_usage", usage)
        monkeypatch.setenv("HOME", str(tmp_path))
        with pytest.raises(st.SearchError) as info:
            st._check_disk()
        assert seen == [str(tmp_path)] and info.value.error_code == "DISK_FULL"
        assert info.value.message == "Disk space critically low: 499 MB remaining"

    def test_disk_probe_failure_passes(self, monkeypatch, caplog):
        def broken(path):
            raise PermissionError("denied")

        monkeypatch.setattr("shutil.disk_usage", broken)
        assert st._check_disk() is None
        assert "Disk check failed: denied" in caplog.text


class FakeTracker:
    instances = []

    def __init__(self, data_dir):
        self.data_dir = data_dir
        self.closed = False
        self.calls = []
        FakeTracker.instances.append(self)

    def delete_evaluations(self, eval_type=None, keep_last=None):
        self.calls.append(("delete_evaluations", eval_type, keep_last))
        return 7

    def delete_failed_evaluations(self, eval_type=None):
        raise RuntimeError("store broken")

    def get_db_info(self):
        return {"size": 1}

    def close(self):
        self.closed = True


@pytest.fixture
def management(monkeypatch, tmp_path):
    FakeTracker.instances.clear()
    monkeypatch.setattr(st, "SearchTracker", FakeTracker, raising=False)
    monkeypatch.setitem(onboarding._config, "data_dir", "~/tw-data")
    monkeypatch.setenv("HOME", str(tmp_path))
    yield FakeTracker
    with st._search_active_lock:
        st._search_active = False


class TestManagement:
    def test_arguments_pass_through_and_tracker_closes(self, management, tmp_path):
        assert st.delete_evaluations(eval_type="signal", keep_last=-1) == 7
        tracker = management.instances[-1]
        assert tracker.calls == [("delete_evaluations", "signal", -1)] and tracker.closed
        assert tracker.data_dir == str(tmp_path / "tw-data")

    def test_tracker_closes_after_an_error(self, management):
        with pytest.raises(RuntimeError, match="store broken"):
            st.delete_failed_evaluations()
        assert management.instances[-1].closed

    def test_blocked_while_active_with_the_same_text(self, management):
        with st._search_active_lock:
            st._search_active = True
        for command in (st.get_db_info, st.delete_evaluations, st.delete_failed_evaluations):
            with pytest.raises(RuntimeError) as info:
                command()
            assert str(info.value) == st._MANAGEMENT_ACTIVE_ERROR
        assert management.instances == []

    def test_tracker_without_close(self, management, monkeypatch):
        class NoClose:
            def __init__(self, d):
                pass

            def get_db_info(self):
                return "info"

        monkeypatch.setattr(st, "SearchTracker", NoClose)
        assert st.get_db_info() == "info"

    def test_no_data_dir_is_an_os_error(self, management, monkeypatch):
        monkeypatch.setitem(onboarding._config, "data_dir", None)
        with pytest.raises(OSError, match="data_dir is required for search tracking database management."):
            st.get_db_info()

    def test_missing_onboarding_module_means_no_configuration(self, monkeypatch):
        monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", None)
        assert st._agent_onboarding_data_dir("fallback") == "fallback"

    def test_status_before_any_search(self):
        with pytest.raises(st.SearchError) as info:
            st.status()
        err = info.value
        assert err.error_code == "NO_ACTIVE_SEARCH" and err.status.running is False
        assert err.status.recovery_advice == "Call tarnwicket.search(template) first to start one."
        assert str(err) == "No active search. Call tarnwicket.search(template) first to start one."


class TestNudges:
    def test_context_reaches_update_nudge(self, monkeypatch):
        seen = []
        monkeypatch.setattr(onboarding, "update_nudge", lambda trigger, **ctx: seen.append((trigger, ctx)))
        assert st._safe_update_nudge("first_signal", rate=1.5) is None
        assert seen == [("first_signal", {"rate": 1.5})]

    def test_failures_are_only_warnings(self, monkeypatch, caplog):
        def broken(trigger, **ctx):
            raise ValueError("nope")

        monkeypatch.setattr(onboarding, "update_nudge", broken)
        st._safe_update_nudge("x")
        assert "update_nudge call failed: nope" in caplog.text
        assert st.inject_heartbeat() is None
