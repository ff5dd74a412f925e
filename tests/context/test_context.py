import logging
import sys
import threading
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

FIELDS = ["_vocabulary", "_universe_id", "_metaparameters", "_max_depth", "_tracker", "_sync_mgr", "_backtester",
          "_analytics_engine", "_analytics", "_thresholds", "_era_config", "_fatal_callback", "_submission_queue",
          "_submission_wakeup", "_tracker_write_lock", "_stop_event", "_submission_owner",
          "_replacement_abort_event", "_signal_pool_id", "_metaparams_for_db", "_era_id"]


def messages(caplog):
    return [r.getMessage() for r in caplog.records]


def test_fields_in_assignment_order(make_ctx):
    era = cf.EraConfig()
    ctx = make_ctx(metaparams={"a": None, "b": 2, "c": "x"}, era_config=era)
    assert list(ctx.__dict__) == FIELDS
    assert ctx._metaparams_for_db == {"a": "none", "b": "2", "c": "x"}
    assert (ctx._signal_pool_id, ctx._era_id) == ("pool-a", 3)
    assert ctx._thresholds == era.thresholds and ctx._thresholds is not era.thresholds
    with pytest.raises(AttributeError):
        make_ctx(metaparams=None)
    with pytest.raises(AttributeError):
        make_ctx(era_config=object(), thresholds={})


@pytest.mark.parametrize("era_config, expected", [
    (None, 1), ({"era_id": 0}, 1), ({"era_id": "7"}, 7), ({}, 1), (cf.EraConfig(era_id="raw"), "raw"),
])
def test_era_id_forms(make_ctx, era_config, expected):
    assert make_ctx(era_config=era_config, thresholds={})._era_id == expected


@pytest.mark.parametrize("thresholds, era_config, message", [
    (None, {"era_id": 1}, "SearchContext thresholds must be provided"),
    (None, None, "SearchContext thresholds must be provided"),
    (None, cf.EraConfig(thresholds=[1]), "SearchContext thresholds must be provided"),
    ([], cf.era_dict(), "SearchContext thresholds must be a dict"),
])
def test_threshold_resolution_errors(make_ctx, thresholds, era_config, message):
    with pytest.raises(ValueError) as ei:
        make_ctx(thresholds=thresholds, era_config=era_config)
    assert str(ei.value) == message


@pytest.mark.parametrize("fn", [st._require_search_threshold, st.SearchContext._require_search_threshold])
def test_require_search_threshold(fn):
    with pytest.raises(ValueError, match="^SearchContext thresholds missing required threshold 'x'$"):
        fn({}, "x")
    for bad in (True, "0.5", None):
        with pytest.raises(ValueError, match="^SearchContext threshold 'x' must be numeric$"):
            fn({"x": bad}, "x")
    nan = float("nan")
    assert fn({"x": nan}, "x") is nan and type(fn({"x": 3}, "x")) is int


def test_write_lock_shared_or_private_reentrant(make_ctx):
    shared = threading.RLock()
    assert make_ctx(tracker_write_lock=shared)._tracker_write_lock is shared
    a, b = make_ctx(), make_ctx()
    assert a._tracker_write_lock is not b._tracker_write_lock
    with a._tracker_write_lock, a._tracker_write_lock:
        pass


def test_views_and_read_only_properties(make_ctx):
    vocab, meta = {"functions": [{"name": "f"}]}, {"k": 1}
    ctx = make_ctx(vocab=vocab, metaparams=meta)
    one, two = ctx.vocabulary, ctx.vocabulary
    assert one == vocab and one is not two and one["functions"][0] is not vocab["functions"][0]
    assert ctx.metaparameters is meta and ctx.analytics is ctx._analytics
    for name in ("vocabulary", "universe_id", "metaparameters", "max_depth"):
        with pytest.raises(AttributeError, match=f"^{name} is read-only$"):
            setattr(ctx, name, 1)
    with pytest.raises(AttributeError, match="^property 'analytics' of 'SearchContext' object has no setter$"):
        ctx.analytics = None
    with pytest.raises(AttributeError, match="^property 'vocabulary' of 'SearchContext' object has no deleter$"):
        del ctx.vocabulary


# ---------------------------------------------------------------- analytics


class BrokenStats:
    total_evaluations = property(lambda self: 1 / 0)
    rows = property(lambda self: [][1])


@pytest.mark.parametrize("raw, count, rows, logged", [
    (types.SimpleNamespace(total_evaluations="12", rows=(1, 2)), 0, [1, 2], []),
    (types.SimpleNamespace(total_evaluations=True, rows="ab"), True, [], []),
    (None, 0, [], []),
    (RuntimeError("down"), 0, [], ["Failed to get search stats: down"]),
    (BrokenStats(), 0, [], ["Failed to read total_evaluations from stats: division by zero",
                            "Failed to read rows from stats: list index out of range"]),
])
def test_snapshot_from_loose_stats(make_ctx, caplog, raw, count, rows, logged):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    snap = make_ctx(tracker=cf.MemoryTracker(stats=raw)).analytics
    assert type(snap) is st._AnalyticsSnapshot
    assert (snap.total_evaluations, snap.rows, type(snap.rows)) == (count, rows, list)
    assert messages(caplog) == logged


def test_engine_used_when_tracker_has_no_stats(make_ctx, analytics):
    tracker, era = cf.MemoryTracker(with_stats=False), cf.EraConfig()
    ctx = make_ctx(tracker=tracker, era_config=era)
    assert (ctx._analytics_engine.tracker, ctx._analytics_engine.pool_configs) == (tracker, ["cfg"])
    assert analytics.resolved == [era]
    assert ctx.analytics.total_evaluations == 1
    assert ctx.refresh_analytics() is ctx.analytics and ctx.analytics.total_evaluations == 2


def test_no_stats_source(make_ctx, caplog):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ctx = make_ctx(tracker=cf.MemoryTracker(with_stats=False), era_config=None, thresholds={})
    assert messages(caplog) == ["Failed to get search stats: tracker exposes no get_search_stats method and "
                                "era_config has no usable signal_pools."]
    with pytest.raises(AttributeError, match=r"^Cannot refresh analytics: tracker has no get_search_stats method "
                                             r"and era_config has no usable signal_pools\.$"):
        ctx.refresh_analytics()


def test_store_stats_kept_and_refresh_stores_raw_result(make_ctx, analytics):
    result = analytics.SearchStatsResult(total_evaluations=4)
    tracker = cf.MemoryTracker(stats=result)
    ctx = make_ctx(tracker=tracker)
    assert ctx.analytics is result and ctx._analytics_engine is None
    tracker.stats = raw = object()
    assert ctx.refresh_analytics() is raw and ctx.analytics is raw
    tracker.stats = RuntimeError("later")
    with pytest.raises(RuntimeError):
        ctx.refresh_analytics()


@pytest.mark.parametrize("module_kw, era_config", [
    ({}, None),
    ({"pool_configs": RuntimeError("x")}, cf.EraConfig()),
    ({"pool_configs": []}, cf.EraConfig()),
    ({"engine_error": RuntimeError("x")}, cf.EraConfig()),
    (None, cf.EraConfig()),
])
def test_build_search_analytics_gives_none(monkeypatch, module_kw, era_config):
    mod = None if module_kw is None else cf.analytics_module(**module_kw)
    monkeypatch.setitem(sys.modules, "tarnwicket.search_analytics", mod)
    assert st._build_search_analytics_from_era_config(object(), era_config) is None
    assert st.SearchContext._build_search_analytics_from_era_config(object(), era_config) is None
    if mod is None:  # the constructor's own type test is not shielded
        with pytest.raises(ImportError):
            st.SearchContext(cf.VOCAB, "u", {}, 2, cf.MemoryTracker(), None, None, {})


def test_replaced_helpers_are_obeyed(make_ctx, monkeypatch):
    monkeypatch.setattr(st, "_resolve_search_thresholds", lambda t, e: {"from": "module"})
    monkeypatch.setattr(st, "_first_signal_pool_id_from_era_config", lambda era: "patched")
    ctx = make_ctx()
    assert (ctx._thresholds, ctx._signal_pool_id) == ({"from": "module"}, "patched")
    monkeypatch.setattr(st.SearchContext, "_resolve_search_thresholds", staticmethod(lambda t, e: {"from": "class"}))
    assert make_ctx()._thresholds == {"from": "class"}


# ---------------------------------------------------------------- cancellation and recording


def event(state):
    e = None if state is None else threading.Event()
    if state:
        e.set()
    return e


@pytest.mark.parametrize("stop, abort, expected", [
    (None, None, False), (False, False, False), (True, None, True), (None, True, True), (False, True, True),
])
def test_submission_cancelled(make_ctx, stop, abort, expected):
    ctx = make_ctx(stop_event=event(stop), replacement_abort_event=event(abort))
    assert ctx._submission_cancelled() is expected


def test_safe_record_call_form_under_lock(make_ctx):
    tracker = cf.MemoryTracker(eval_id="e-9")
    ctx = make_ctx(tracker=tracker, metaparams={"a": 1})
    stats = object()
    assert ctx._safe_record({"t": 1}, True, rejection_reason="r", stats=stats, per_column_stats={"c": 1}) == "e-9"
    ctx._safe_record({"t": 2}, False)
    (args, kwargs), (args2, kwargs2) = tracker.records
    assert args == ({"t": 1}, stats, 3, True, "universe_top50", {"a": "1"})
    assert list(kwargs.items()) == [("pool_id", "pool-a"), ("rejection_reason", "r"), ("per_column_stats", {"c": 1})]
    assert type(args2[1]) is st._BacktestStats and kwargs2["rejection_reason"] is None
    assert tracker.lock_seen == [True, True]


def test_safe_record_os_error_reported_once_and_lock_released(make_ctx):
    calls, tracker = [], cf.MemoryTracker(record_error=OSError("disk full"))
    ctx = make_ctx(tracker=tracker, fatal_callback=lambda *a: calls.append(a))
    assert ctx._safe_record({}, False) is None
    assert calls == [("DATABASE_ERROR", "Run get_db_info() to check database state. Consider restarting the search.",
                      "Database write failed after retry: disk full")]
    assert "count=0" in repr(ctx._tracker_write_lock)
    assert make_ctx(tracker=tracker)._safe_record({}, False) is None
    tracker.record_error = KeyError("k")
    with pytest.raises(KeyError):
        ctx._safe_record({}, False)
    assert len(calls) == 1
