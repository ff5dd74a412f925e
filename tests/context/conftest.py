import sys
import time

import pytest

import tarnwicket.search_templates as st
from tarnwicket.search_tracking import BacktestStats

from fakes import context_fakes as cf


@pytest.fixture(autouse=True)
def analytics(monkeypatch):
    mod = cf.analytics_module()
    monkeypatch.setitem(sys.modules, "tarnwicket.search_analytics", mod)
    if not hasattr(st, "_BacktestStats"):
        monkeypatch.setattr(st, "_BacktestStats", BacktestStats, raising=False)
    return mod


@pytest.fixture
def clock(monkeypatch):
    c = cf.FakeClock()
    monkeypatch.setattr(time, "monotonic", c)
    return c


@pytest.fixture
def make_ctx():
    """A SearchContext with working defaults; keywords override them."""

    def build(**kw):
        args = dict(vocab=cf.VOCAB, universe="universe_top50", metaparams={"seed": 7}, depth=4,
                    tracker=cf.MemoryTracker(), sync_mgr=None, bt=cf.FakeBacktester(), era_config=cf.EraConfig())
        args.update(kw)
        ctx = st.SearchContext(**args)
        if isinstance(args["tracker"], cf.MemoryTracker):
            args["tracker"].lock = ctx._tracker_write_lock
        return ctx

    return build
