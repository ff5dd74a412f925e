import logging
import types

import pytest

import tarnwicket.agent_onboarding as onboarding
import tarnwicket.search_templates as st
from tarnwicket.sync import SyncError
from fakes.runtime import EraConfig, FakeAuth, FakeBacktester, FakeSyncManager, MemoryTracker, raising, wait_until


class Obf:
    instances = []

    def __init__(self, text, era_id, universe):
        self.args = (text, era_id, universe)
        Obf.instances.append(self)

    def get_vocabulary(self):
        return {"functions": [], "features": []}


def endless(ctx):
    while True:
        yield {"type": "feature", "node": "f"}


@pytest.fixture
def runtime(monkeypatch, seed_dir):
    rt = types.SimpleNamespace(
        auth_proxy=FakeAuth(), sync_manager=None, valid_universe_id="universe_top50",
        vocabulary_raw={"functions": [], "features": []}, search_tracker=MemoryTracker(),
        search_era_config=EraConfig(), evaluator=FakeBacktester(passes=False))
    monkeypatch.setattr(st, "_library_runtime", rt, raising=False)
    monkeypatch.setattr(st, "ObfuscationManager", Obf)
    monkeypatch.setattr(st, "_check_memory", lambda: None)
    monkeypatch.setattr(st, "_check_disk", lambda: None)
    monkeypatch.setitem(onboarding._config, "data_dir", str(seed_dir))
    Obf.instances.clear()
    handles = []
    real_search = st.search

    def tracked_search(*a, **kw):
        h = real_search(*a, **kw)
        handles.append(h)
        return h

    rt.search = tracked_search
    yield rt
    for h in handles:
        h.stop(join_timeout=1.0)


def code_of(call):
    with pytest.raises(st.SearchError) as info:
        call()
    return info.value


class TestOrderOfChecks:
    def test_missing_runtime_is_an_auth_error(self, monkeypatch):
        monkeypatch.setattr(st, "_library_runtime", None, raising=False)
        err = code_of(lambda: st.search(endless))
        assert err.error_code == "AUTH_ERROR" and str(err) == st._NOT_AUTHENTICATED_MESSAGE
        assert err.status == st.SearchStatus(running=False)

    def test_template_checked_before_n_jobs(self, runtime):
        with pytest.raises(TypeError, match="Template must be callable accepting SearchContext"):
            st.search("nope", n_jobs=0)
        with pytest.raises(ValueError, match="n_jobs must be >= 1"):
            st.search(endless, n_jobs=0)

    def test_memory_probe_runs_before_argument_checks(self, runtime, monkeypatch):
        error = st.SearchError("OUT_OF_MEMORY", "a", "m", st.SearchStatus())
        monkeypatch.setattr(st, "_check_memory", raising(error))
        assert code_of(lambda: st.search("nope", n_jobs=0)).error_code == "OUT_OF_MEMORY"

    def test_data_dir_required(self, runtime, monkeypatch):
        monkeypatch.setitem(onboarding._config, "data_dir", None)
        assert code_of(lambda: st.search(endless)).error_code == "DATA_DIR_REQUIRED"

    @pytest.mark.parametrize("attr, value, code", [
        ("valid_universe_id", "", "VALID_UNIVERSE_UNAVAILABLE"),
        ("search_tracker", None, "SEARCH_TRACKER_UNAVAILABLE"),
        ("search_era_config", None, "ERA_CONFIG_UNAVAILABLE"),
        ("evaluator", None, "BACKTESTER_UNAVAILABLE"),
    ])
    def test_runtime_requirements(self, runtime, attr, value, code):
        setattr(runtime, attr, value)
        assert code_of(lambda: st.search(endless)).error_code == code
        assert st._search_active is False
        assert attr != "search_era_config" or runtime.search_tracker.active == [True, False]

    def test_failed_obfuscation_is_vocabulary_unavailable(self, runtime, monkeypatch):
        monkeypatch.setattr(st, "ObfuscationManager", raising(ValueError("no vocabulary")))
        assert code_of(lambda: st.search(endless)).error_code == "VOCABULARY_UNAVAILABLE"
        assert runtime.search_tracker.active == [True]


@pytest.mark.parametrize("mgr, progress, calls", [
    (FakeSyncManager(needs=True, sync_failures=10), 1.0, 11), (FakeSyncManager(needs=False), 1.0, 0), (None, 0.0, 0),
])
def test_sync_stage_retries_connection_errors(runtime, mgr, progress, calls):
    runtime.sync_manager = mgr
    assert runtime.search(endless).status().sync_progress == progress
    assert mgr is None or mgr.sync_calls == calls


@pytest.mark.parametrize("failures, exc, text", [
    (11, ConnectionError, "Data sync failed after multiple retries"), (1, KeyError, "Data sync failed before search startup"),
])
def test_sync_stage_failures(runtime, failures, exc, text):
    runtime.sync_manager = FakeSyncManager(needs=True, sync_failures=failures, sync_exc=exc)
    with pytest.raises(SyncError, match=text) as info:
        st.search(endless)
    assert exc is ConnectionError or isinstance(info.value.__cause__, KeyError)


class TestStart:
    def test_running_search_and_module_status(self, runtime):
        h = runtime.search(endless, n_jobs=1)
        assert st.status().running is True and st._search_active is True
        assert h in list(st._active_handles)
        assert Obf.instances[-1].args == ('{"functions": [], "features": []}', 3, "universe_top50")
        assert wait_until(lambda: h.status().total_evaluated > 0)
        h.stop()
        with pytest.raises(st.SearchError) as info:
            st.status()
        assert info.value.error_code == "NO_ACTIVE_SEARCH"

    def test_too_many_jobs_are_clamped(self, runtime, monkeypatch, caplog):
        monkeypatch.setattr("os.cpu_count", lambda: 2)
        h = runtime.search(endless, n_jobs=1000)
        assert h._n_jobs == 2
        assert "n_jobs=1000 exceeds available cores (2). Using n_jobs=2." in caplog.text

    def test_new_search_replaces_the_running_one(self, runtime):
        first = runtime.search(endless)
        second = runtime.search(endless)
        assert first._stopped and first._replacement_abort_requested()
        assert st._active_search_handle is second and first not in list(st._active_handles)

    def test_load_vocabulary_is_used_without_runtime_vocabulary(self, runtime, monkeypatch, caplog):
        import tarnwicket.obfuscation as obf_mod

        runtime.vocabulary_raw = ["not", "a", "map"]
        monkeypatch.setattr(obf_mod, "load_vocabulary", lambda d, u: ["list"])
        caplog.set_level(logging.WARNING)
        runtime.search(endless)
        assert "load_vocabulary returned non-dict payload: list" in caplog.text
        assert Obf.instances[-1].args[0] is None

    def test_heartbeat_failure_is_only_a_warning(self, runtime, monkeypatch, caplog):
        monkeypatch.setattr(st, "inject_heartbeat", raising(RuntimeError("beat")))
        runtime.search(endless)
        assert "Heartbeat injection failed: beat" in caplog.text

    def test_warning_texts_keep_what_cannot_be_encoded(self, runtime, monkeypatch, caplog):
        class Cores(int):
            def __format__(self, spec):
                return "two\udc80"

        monkeypatch.setattr("os.cpu_count", lambda: Cores(2))
        monkeypatch.setattr(st, "inject_heartbeat", raising(RuntimeError("beat\udc80")))
        h = runtime.search(endless, n_jobs=3)
        messages = [r.getMessage() for r in caplog.records]
        assert "n_jobs=3 exceeds available cores (two\udc80). Using n_jobs=two\udc80." in messages
        assert "Heartbeat injection failed: beat\udc80" in messages
        assert h._n_jobs == 2
