import pytest

import tarnwicket.search_templates as st
from fakes.runtime import FakeAuth, FakeBacktester, MemoryTracker, era_config


class RecordingEraData:
    def __init__(self, exc=None):
        self.exc = exc
        self.calls = []

    def initialize(self, shuffle_blob, wallet_secret, era_id):
        self.calls.append((shuffle_blob, wallet_secret, era_id))
        if self.exc is not None:
            raise self.exc


@pytest.fixture
def era_data(monkeypatch):
    def install(exc=None):
        mod = RecordingEraData(exc)
        monkeypatch.setattr(st, "era_data", mod, raising=False)
        return mod

    return install


class TestFields:
    def test_metaparameters_follow_the_pipeline_in_lower_case(self, make_handle):
        h = make_handle(bt=None)
        assert h._metaparameters == {"demean": "cross_sectional", "normalise": "none"}

    def test_empty_pipeline_gets_the_three_defaults(self, make_handle):
        h = make_handle(bt=None, era_cfg=era_config(transform_pipeline=[]))
        assert h._metaparameters == {"demean": "cross_sectional", "resize": "none", "normalise": "z_score"}

    def test_step_without_threshold_is_none_text(self, make_handle):
        h = make_handle(bt=None, era_cfg=era_config(transform_pipeline=["winsorise"]))
        assert h._metaparameters == {"winsorise": "none"}

    @pytest.mark.parametrize("count, expected", [(41, 41), (True, 1), ("12", 0), (None, 0)])
    def test_persisted_evaluation_count(self, make_handle, count, expected):
        h = make_handle(bt=None, tracker=MemoryTracker(count=count))
        assert h._total_evaluated == expected

    def test_static_fields_and_status_texts(self, make_handle):
        h = make_handle(bt=None)
        assert h._era == "3" and h._batch_tier == "full" and h._t_batch == 1000
        assert h._running is True and h._stopped is False
        assert len(h._submission_owner) == 36 and h._submission_owner.count("-") == 4
        assert h._vocab == {"functions": [], "features": []}
        assert h._thresholds is h._era_config.thresholds
        assert h._sync_thread is None and h._worker_threads == []

    def test_missing_era_config_or_auth_is_not_ready(self, make_handle):
        with pytest.raises(st.SdkRuntimeNotReadyError):
            make_handle(era_cfg=None)
        with pytest.raises(st.SdkRuntimeNotReadyError):
            make_handle(auth=None)

    def test_vocabulary_errors_leave_the_constructor(self, make_handle):
        class BadObf:
            def get_vocabulary(self):
                return {"rotations": [{"name": "r"}]}

        with pytest.raises(st.VocabSchemaError):
            make_handle(obf=BadObf())

    def test_handle_made_without_init_can_be_aborted(self):
        h = st._SearchHandleImpl.__new__(st._SearchHandleImpl)
        assert h._replacement_abort_requested() is False
        assert h._submission_start_guard() is h._submission_start_lock
        h.__del__()


class TestPerEraInit:
    def test_seed_and_secret_reach_era_data_and_backtester(self, make_handle, era_data):
        mod = era_data()
        bt = FakeBacktester()
        make_handle(bt=bt, n_jobs=1)
        assert mod.calls == [(b"s" * 60, b"w" * 32, 3)]
        assert bt.init_calls == [(b"s" * 60, b"w" * 32, 3)]

    @pytest.mark.parametrize("size", [59, 61])
    def test_bad_seed_length_is_swallowed(self, make_handle, seed_dir, era_data, size):
        (seed_dir / "shuffle_seed.enc").write_bytes(b"x" * size)
        mod = era_data()
        bt = FakeBacktester()
        h = make_handle(bt=bt)
        assert mod.calls == [] and bt.init_calls == []
        assert h._fatal_error is None

    def test_text_wallet_secret_is_refused_quietly(self, make_handle, era_data):
        mod = era_data()
        make_handle(auth=FakeAuth(wallet_secret="w" * 32))
        assert mod.calls == []

    def test_vault_already_initialized_is_ignored(self, make_handle, era_data):
        era_data(RuntimeError("vault already initialized"))
        bt = FakeBacktester()
        make_handle(bt=bt)
        assert len(bt.init_calls) == 1

    @pytest.mark.parametrize("text", ["era mismatch: 2 != 3", "invalid credentials"])
    def test_permanent_failure_is_fatal_without_threads(self, make_handle, era_data, text):
        era_data(RuntimeError(text))
        bt = FakeBacktester()
        h = make_handle(bt=bt)
        assert bt.init_calls == []
        assert h._running is False and h._supervisor_thread is None and h._worker_threads == []
        with pytest.raises(st.SearchError) as info:
            h.status()
        err = info.value
        assert err.error_code == "INFRASTRUCTURE_FAILURE" and err.recovery_advice == "register()"
        assert err.message == f"Background infrastructure failed permanently: {text}"
        assert err.status.running is False and err.status.error_code == "INFRASTRUCTURE_FAILURE"

    def test_other_era_data_errors_skip_reconstruction(self, make_handle, era_data):
        era_data(KeyError("boom"))
        bt = FakeBacktester()
        h = make_handle(bt=bt)
        assert bt.init_calls == [] and h._fatal_error is None

    def test_failing_reconstruction_only_warns(self, make_handle, caplog):
        class FailingInit(FakeBacktester):
            def init_reconstruction(self, **kw):
                raise RuntimeError("no gpu")

        h = make_handle(bt=FailingInit())
        assert "Backtester init_reconstruction failed: no gpu" in caplog.text
        assert h._fatal_error is None

    def test_empty_data_dir_uses_the_home_default(self, make_handle, monkeypatch, tmp_path, era_data):
        home = tmp_path / "home"
        (home / ".tarnwicket").mkdir(parents=True)
        (home / ".tarnwicket" / "shuffle_seed.enc").write_bytes(b"h" * 60)
        monkeypatch.setenv("HOME", str(home))
        mod = era_data()
        make_handle(data_dir="")
        assert mod.calls and mod.calls[0][0] == b"h" * 60


def test_status_of_an_idle_handle(make_handle):
    h = make_handle(bt=None)
    s = h.status()
    assert s.running is True and s.era == "3" and s.batch_tier == "full" and s.t_batch == 1000
    assert s.errors == [] and s.error_code is None and s.memory_usage_mb > 0
    s.errors.append("x")
    assert h._errors == []


def test_public_name_is_the_handle_class():
    assert st.SearchHandle is st._SearchHandleImpl
