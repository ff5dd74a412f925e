"""search(), status(), the management commands and the start-up probes, with hostile arguments.

Property: each call returns or raises an ordinary exception (never SystemError),
and leaves no thread running and no active search behind.
"""

import shutil
import sys
import tempfile
import types

import pytest
from hypothesis import given, strategies as hs

import tarnwicket.agent_onboarding as onboarding
import tarnwicket.search_templates as st
from fakes.collaborators import FakeTracker
from fakes.handle_fields import IntSub, raiser, hostile, numbers, settle, texts
from fakes.runtime import EraConfig, FakeAuth, FakeBacktester, MemoryTracker

NS = types.SimpleNamespace
SEED_DIR = tempfile.mkdtemp(prefix="tw-search-")
with open(SEED_DIR + "/shuffle_seed.enc", "wb") as fh:
    fh.write(b"s" * 60)


class Recorded(st._SearchHandleImpl):
    """The handle class, keeping every instance: a constructor that raises after its threads started
    leaves a handle that search() never returns."""

    made = []

    def __init__(self, *args, **kwargs):
        Recorded.made.append(self)
        super().__init__(*args, **kwargs)


class Obf:
    def __init__(self, text, era_id, universe):
        pass

    def get_vocabulary(self):
        return {"functions": [], "features": []}


def small_job_counts():
    """n_jobs values that cannot make a search start unbounded numbers of threads."""
    return hs.one_of(hs.integers(-2, 3), hs.sampled_from([2**64, -(2**64), 10**100, float("nan"), float("inf"),
                                                           -float("inf"), 1.5, "2", None, b"1"]),
                     hs.builds(IntSub, hs.integers(-1, 3)), raiser())


class Cores(int):
    """A cpu count whose text cannot be encoded."""

    def __format__(self, spec):
        return "cores\udc80"


@given(template=hs.one_of(hs.just(lambda ctx: None), hostile()), n_jobs=small_job_counts(),
       cores=hs.sampled_from([None, 1, Cores(1)]), universe=hs.one_of(hs.just("u"), hostile()),
       vocab=hs.one_of(hs.just({"functions": [], "features": []}), hostile()))
def test_search(template, n_jobs, cores, universe, vocab):
    rt = NS(auth_proxy=FakeAuth(), sync_manager=None, valid_universe_id=universe, vocabulary_raw=vocab,
            search_tracker=MemoryTracker(), search_era_config=EraConfig(), evaluator=FakeBacktester(passes=False))
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "_library_runtime", rt, raising=False)
        mp.setattr(st, "ObfuscationManager", Obf)
        mp.setattr(st, "_SearchHandleImpl", Recorded)
        mp.setattr(st, "_check_memory", lambda: None)
        mp.setattr(st, "_check_disk", lambda: None)
        mp.setattr("os.cpu_count", lambda: cores)
        mp.setitem(onboarding._config, "data_dir", SEED_DIR)
        h = settle(lambda: st.search(template, n_jobs=n_jobs), made=Recorded.made)
    if h is not None and isinstance(n_jobs, int) and 1 <= n_jobs and cores is None:
        assert h._n_jobs == n_jobs and h._stopped is True
    assert not st._search_active


class HostileHandle:
    def __init__(self, answer):
        self.answer = answer

    def status(self):
        if isinstance(self.answer, Exception):
            raise self.answer
        return self.answer


@given(active=hs.one_of(hs.none(), hostile(), hostile().map(HostileHandle)))
def test_module_status(active):
    with st._search_active_lock:
        st._active_search_handle = active
    settle(st.status)


@given(eval_type=hostile(), keep_last=hs.one_of(numbers(), hostile()), data_dir=hs.one_of(texts(), hostile()),
       active=hostile(), method=hs.one_of(texts(), hostile()), args=hs.lists(hostile(), max_size=3))
def test_management_commands(eval_type, keep_last, data_dir, active, method, args):
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "SearchTracker", FakeTracker.fresh(), raising=False)
        mp.setitem(onboarding._config, "data_dir", data_dir)
        assert settle(lambda: st.delete_evaluations(eval_type, keep_last=keep_last)) in (
            None, ("delete_evaluations", (), {"eval_type": eval_type, "keep_last": keep_last}))
        settle(lambda: st.delete_failed_evaluations(eval_type=eval_type))
        settle(st.get_db_info)
        settle(lambda: st._call_management_tracker(method, *args))
        settle(st.inject_heartbeat)
        settle(lambda: st._safe_update_nudge(method, **{"k": active}))
        st._search_active = active
        settle(st.get_db_info)


def probe_values():
    return hs.one_of(numbers(), hostile(), hs.sampled_from([3.96 * 2**30, 2**30 * 5, 0, -1]))


@given(available=probe_values(), free=probe_values())
def test_preflight_probes(available, free):
    with pytest.MonkeyPatch.context() as mp:
        fake = types.ModuleType("psutil")
        fake.virtual_memory = lambda: NS(available=available)
        mp.setitem(sys.modules, "psutil", fake)
        mp.setattr(shutil, "disk_usage", lambda path: NS(free=free, total=0, used=0))
        settle(st._check_memory)
        settle(st._check_disk)
    settle(lambda: st._is_authed(NS(_library_runtime=NS(auth_proxy=NS(get_token=lambda: available)))))
    settle(lambda: st._is_authed(available))
