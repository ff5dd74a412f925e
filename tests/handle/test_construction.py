import pytest

import tarnwicket.search_templates as st
from fakes.runtime import EraConfig, FakeAuth, FakeBacktester, MemoryTracker


class RecordingEraData:
    def __init__(self, exc=None):
        self.exc, self.calls = exc, []

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


@pytest.mark.parametrize("pipeline, expected", [
    (["demean", "normalise"], {"demean": "cross_sectional", "normalise": "none"}),
    ([], {"demean": "cross_sectional", "resize": "none", "normalise": "z_score"}),
    (["winsorise"], {"winsorise": "none"}),
])
def test_metaparameters_follow_the_pipeline(make_handle, pipeline, expected):
    assert make_handle(bt=None, era_cfg=EraConfig(transform_pipeline=pipeline))._metaparameters == expected


@pytest.mark.parametrize("count, expected", [(41, 41), (True, 1), ("12", 0), (None, 0)])
def test_persisted_evaluation_count(make_handle, count, expected):
    assert make_handle(bt=None, tracker=MemoryTracker(count=count))._total_evaluated == expected


def test_fields_and_status_of_an_idle_handle(make_handle):
    h = make_handle(bt=None)
    assert st.SearchHandle is st._SearchHandleImpl
    assert h._running is True and h._stopped is False and h._t_batch == 1000
    assert len(h._submission_owner) == 36 and h._submission_owner.count("-") == 4
    assert h._thresholds is h._era_config.thresholds
    assert h._sync_thread is None and h._worker_threads == []
    s = h.status()
    assert (s.running, s.era, s.batch_tier, s.t_batch, s.errors, s.error_code) == (True, "3", "full", 1000, [], None)
    assert s.memory_usage_mb > 0
    s.errors.append("x")
    assert h._errors == []


def test_missing_collaborators_and_bad_vocabulary_leave_the_constructor(make_handle):
    for kw in ({"era_cfg": None}, {"auth": None}):
        with pytest.raises(st.SdkRuntimeNotReadyError):
            make_handle(**kw)
    with pytest.raises(AttributeError, match="_era_config"):  # a field that is not there is not a none
        st._SearchHandleImpl.__new__(st._SearchHandleImpl)._do_per_era_init()
    bad = type("BadObf", (), {"get_vocabulary": lambda self: {"rotations": [{"name": "r"}]}})
    with pytest.raises(st.VocabSchemaError):
        make_handle(obf=bad())


def test_handle_made_without_init_can_be_aborted():
    h = st._SearchHandleImpl.__new__(st._SearchHandleImpl)
    assert h._replacement_abort_requested() is False
    assert h._submission_start_guard() is h._submission_start_lock
    h.__del__()


def test_seed_and_secret_reach_era_data_and_backtester(make_handle, era_data):
    mod, bt = era_data(), FakeBacktester(passes=False)
    make_handle(bt=bt)
    assert mod.calls == bt.init_calls == [(b"s" * 60, b"w" * 32, 3)]


@pytest.mark.parametrize("seed, secret, error, era_called, reconstructed", [
    (b"x" * 59, b"w" * 32, None, False, False),
    (b"x" * 61, b"w" * 32, None, False, False),
    (b"s" * 60, "w" * 32, None, False, False),
    (b"s" * 60, b"w" * 32, RuntimeError("vault already initialized"), True, True),
    (b"s" * 60, b"w" * 32, KeyError("boom"), True, False),
])
def test_per_era_init_problems_are_not_fatal(make_handle, seed_dir, era_data, seed, secret, error, era_called,
                                             reconstructed):
    (seed_dir / "shuffle_seed.enc").write_bytes(seed)
    mod, bt = era_data(error), FakeBacktester(passes=False)
    h = make_handle(bt=bt, auth=FakeAuth(wallet_secret=secret))
    assert (bool(mod.calls), bool(bt.init_calls), h._fatal_error) == (era_called, reconstructed, None)


@pytest.mark.parametrize("text", ["era mismatch: 2 != 3", "invalid credentials"])
def test_permanent_failure_is_fatal_without_threads(make_handle, era_data, text):
    era_data(RuntimeError(text))
    bt = FakeBacktester(passes=False)
    h = make_handle(bt=bt)
    assert bt.init_calls == []
    assert h._running is False and h._supervisor_thread is None and h._worker_threads == []
    with pytest.raises(st.SearchError) as info:
        h.status()
    err = info.value
    assert err.error_code == "INFRASTRUCTURE_FAILURE" and err.recovery_advice == "register()"
    assert err.message == f"Background infrastructure failed permanently: {text}"
    assert err.status.running is False and err.status.error_code == "INFRASTRUCTURE_FAILURE"


def test_failing_reconstruction_only_warns(make_handle, caplog):
    class FailingInit(FakeBacktester):
        def init_reconstruction(self, **kw):
            raise RuntimeError("no gpu")

    assert make_handle(bt=FailingInit())._fatal_error is None
    assert "Backtester init_reconstruction failed: no gpu" in caplog.text


def test_empty_data_dir_uses_the_home_default(make_handle, monkeypatch, tmp_path, era_data):
    (tmp_path / ".tarnwicket").mkdir()
    (tmp_path / ".tarnwicket" / "shuffle_seed.enc").write_bytes(b"h" * 60)
    monkeypatch.setenv("HOME", str(tmp_path))
    mod = era_data()
    make_handle(data_dir="")
    assert mod.calls[0][0] == b"h" * 60
