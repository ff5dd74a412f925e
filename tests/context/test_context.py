import logging
import sys
import threading
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

FIELD_ORDER = [
    "_vocabulary",
    "_universe_id",
    "_metaparameters",
    "_max_depth",
    "_tracker",
    "_sync_mgr",
    "_backtester",
    "_analytics_engine",
    "_analytics",
    "_thresholds",
    "_era_config",
    "_fatal_callback",
    "_submission_queue",
    "_submission_wakeup",
    "_tracker_write_lock",
    "_stop_event",
    "_submission_owner",
    "_replacement_abort_event",
    "_signal_pool_id",
    "_metaparams_for_db",
    "_era_id",
]


def test_fields_are_instance_attributes_in_assignment_order(make_ctx):
    ctx = make_ctx(metaparams={"a": None, "b": 2, "c": "x"})
    assert list(ctx.__dict__) == FIELD_ORDER
    assert ctx._metaparams_for_db == {"a": "none", "b": "2", "c": "x"}
    assert ctx._signal_pool_id == "pool-a"
    assert ctx._era_id == 3


def test_constructor_accepts_all_arguments_by_position():
    lock, q, wake, stop, abort = threading.RLock(), object(), threading.Event(), threading.Event(), threading.Event()
    cb = object()
    ctx = st.SearchContext(
        cf.VOCAB, "u", {}, 2, cf.MemoryTracker(), None, cf.FakeBacktester(), dict(cf.THRESHOLDS), None,
        cb, q, lock, wake, stop, "owner-1", abort,
    )
    assert (ctx._fatal_callback, ctx._submission_queue, ctx._tracker_write_lock) == (cb, q, lock)
    assert (ctx._submission_wakeup, ctx._stop_event, ctx._replacement_abort_event) == (wake, stop, abort)
    assert ctx._submission_owner == "owner-1"
    assert ctx._era_id == 1 and ctx._signal_pool_id is None


@pytest.mark.parametrize(
    "era_config, expected",
    [
        (None, 1),
        ({"era_id": 0, "thresholds": {}}, 1),
        ({"era_id": "7", "thresholds": {}}, 7),
        ({"thresholds": {}}, 1),
        (cf.EraConfig(era_id="raw"), "raw"),
    ],
)
def test_era_id_forms(make_ctx, era_config, expected):
    ctx = make_ctx(era_config=era_config, thresholds={})
    assert ctx._era_id == expected


def test_object_era_config_without_era_id_fails(make_ctx):
    era = cf.EraConfig()
    del era.era_id
    with pytest.raises(AttributeError):
        make_ctx(era_config=era)


def test_metaparams_none_fails(make_ctx):
    with pytest.raises(AttributeError):
        make_ctx(metaparams=None)


@pytest.mark.parametrize(
    "thresholds, era_config, message",
    [
        (None, {"era_id": 1}, "SearchContext thresholds must be provided"),
        (None, None, "SearchContext thresholds must be provided"),
        (None, {"thresholds": [1]}, "SearchContext thresholds must be provided"),
        ([], cf.era_dict(), "SearchContext thresholds must be a dict"),
        (0, cf.EraConfig(), "SearchContext thresholds must be a dict"),
    ],
)
def test_threshold_resolution_errors(make_ctx, thresholds, era_config, message):
    with pytest.raises(ValueError) as ei:
        make_ctx(thresholds=thresholds, era_config=era_config)
    assert str(ei.value) == message


@pytest.mark.parametrize("era_config", [cf.era_dict(thresholds={"turnover_max": 1}), cf.EraConfig(thresholds={"turnover_max": 1})])
def test_thresholds_are_a_private_copy(make_ctx, era_config):
    ctx = make_ctx(era_config=era_config)
    source = era_config["thresholds"] if isinstance(era_config, dict) else era_config.thresholds
    assert ctx._thresholds == source and ctx._thresholds is not source
    explicit = {"x": 1}
    assert st.SearchContext._resolve_search_thresholds(explicit, None) is not explicit


@pytest.mark.parametrize(
    "value, error",
    [
        (None, "SearchContext thresholds missing required threshold 'turnover_max'"),
        (True, "SearchContext threshold 'turnover_max' must be numeric"),
        ("0.5", "SearchContext threshold 'turnover_max' must be numeric"),
    ],
)
def test_require_search_threshold_errors(value, error):
    thresholds = {} if value is None else {"turnover_max": value}
    for fn in (st._require_search_threshold, st.SearchContext._require_search_threshold):
        with pytest.raises(ValueError) as ei:
            fn(thresholds, "turnover_max")
        assert str(ei.value) == error


def test_require_search_threshold_returns_value_unconverted():
    nan = float("nan")
    assert st._require_search_threshold({"a": nan}, "a") is nan
    assert st._require_search_threshold({"a": 3}, "a") == 3 and type(st._require_search_threshold({"a": 3}, "a")) is int


def test_given_lock_is_shared_and_default_is_a_private_reentrant_lock(make_ctx):
    shared = threading.RLock()
    assert make_ctx(tracker_write_lock=shared)._tracker_write_lock is shared
    a, b = make_ctx(), make_ctx()
    assert a._tracker_write_lock is not b._tracker_write_lock
    lock = a._tracker_write_lock
    assert lock.acquire(timeout=1) and lock.acquire(timeout=1)
    lock.release()
    lock.release()


# ---------------------------------------------------------------- read-only views


@pytest.mark.parametrize("name", ["vocabulary", "universe_id", "metaparameters", "max_depth"])
def test_read_only_properties(make_ctx, name):
    ctx = make_ctx()
    with pytest.raises(AttributeError) as ei:
        setattr(ctx, name, 1)
    assert str(ei.value) == f"{name} is read-only"


def test_analytics_has_no_setter(make_ctx):
    ctx = make_ctx()
    with pytest.raises(AttributeError):
        ctx.analytics = None
    assert ctx.analytics is ctx._analytics


def test_vocabulary_is_a_deep_copy_on_every_read(make_ctx):
    vocab = {"functions": [{"name": "f"}], "features": []}
    ctx = make_ctx(vocab=vocab)
    one, two = ctx.vocabulary, ctx.vocabulary
    assert one == two == vocab and one is not two
    one["functions"][0]["name"] = "changed"
    assert vocab["functions"][0]["name"] == "f" and two["functions"][0]["name"] == "f"
    assert ctx._vocabulary is vocab


def test_plain_views(make_ctx):
    meta = {"k": 1}
    ctx = make_ctx(metaparams=meta, universe="u1", depth=6)
    assert ctx.metaparameters is meta and ctx.universe_id == "u1" and ctx.max_depth == 6


# ---------------------------------------------------------------- analytics


def test_store_stats_result_kept_as_is(make_ctx, sibling_fakes):
    result = sibling_fakes.SearchStatsResult(total_evaluations=4, rows=[1])
    ctx = make_ctx(tracker=cf.MemoryTracker(stats=result))
    assert ctx.analytics is result and ctx._analytics_engine is None


@pytest.mark.parametrize(
    "raw, count, rows",
    [
        (types.SimpleNamespace(total_evaluations="12", rows=(1, 2)), 0, [1, 2]),
        (types.SimpleNamespace(total_evaluations=True, rows="ab"), True, []),
        (types.SimpleNamespace(), 0, []),
        (None, 0, []),
    ],
)
def test_snapshot_from_loose_stats(make_ctx, raw, count, rows):
    ctx = make_ctx(tracker=cf.MemoryTracker(stats=raw))
    snap = ctx.analytics
    assert type(snap) is st._AnalyticsSnapshot
    assert snap.total_evaluations is count or snap.total_evaluations == count
    assert snap.rows == rows and type(snap.rows) is list


def test_failing_stats_reads_are_logged_not_raised(make_ctx, caplog):
    class Raw:
        @property
        def total_evaluations(self):
            raise RuntimeError("boom-total")

        @property
        def rows(self):
            raise RuntimeError("boom-rows")

    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ctx = make_ctx(tracker=cf.MemoryTracker(stats=Raw()))
    assert (ctx.analytics.total_evaluations, ctx.analytics.rows) == (0, [])
    msgs = [r.getMessage() for r in caplog.records]
    assert "Failed to read total_evaluations from stats: boom-total" in msgs
    assert "Failed to read rows from stats: boom-rows" in msgs


def test_failing_tracker_stats_are_logged(make_ctx, caplog):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ctx = make_ctx(tracker=cf.MemoryTracker(stats=RuntimeError("down")))
    assert ctx.analytics.total_evaluations == 0
    assert "Failed to get search stats: down" in [r.getMessage() for r in caplog.records]


def test_engine_built_when_tracker_has_no_stats(make_ctx, sibling_fakes):
    tracker = cf.MemoryTracker(with_stats=False)
    era = cf.EraConfig()
    ctx = make_ctx(tracker=tracker, era_config=era)
    engine = ctx._analytics_engine
    assert isinstance(engine, sibling_fakes.SearchAnalytics)
    assert engine.tracker is tracker and engine.pool_configs == ["cfg"]
    assert sibling_fakes.resolved == [era]
    assert ctx.analytics.total_evaluations == 1
    assert ctx.refresh_analytics() is ctx.analytics and ctx.analytics.total_evaluations == 2


def test_no_stats_source_warns_and_refresh_raises(make_ctx, caplog):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ctx = make_ctx(tracker=cf.MemoryTracker(with_stats=False), era_config=None, thresholds={})
    assert "Failed to get search stats: tracker exposes no get_search_stats method and era_config has no usable signal_pools." in [
        r.getMessage() for r in caplog.records
    ]
    with pytest.raises(AttributeError) as ei:
        ctx.refresh_analytics()
    assert str(ei.value) == (
        "Cannot refresh analytics: tracker has no get_search_stats method and era_config has no usable signal_pools."
    )


def test_refresh_stores_raw_result_and_does_not_swallow_errors(make_ctx):
    tracker = cf.MemoryTracker(stats=None)
    ctx = make_ctx(tracker=tracker)
    raw = object()
    tracker._stats = raw
    assert ctx.refresh_analytics() is raw and ctx.analytics is raw
    tracker._stats = RuntimeError("later")
    with pytest.raises(RuntimeError):
        ctx.refresh_analytics()


def test_missing_analytics_module_leaves_constructor(make_ctx, monkeypatch):
    monkeypatch.setitem(sys.modules, "tarnwicket.search_analytics", None)
    with pytest.raises(ImportError):
        make_ctx()


@pytest.mark.parametrize(
    "module_kw, era_config",
    [
        ({}, None),
        ({"pool_configs": RuntimeError("x")}, cf.EraConfig()),
        ({"pool_configs": []}, cf.EraConfig()),
        ({"engine_error": RuntimeError("x")}, cf.EraConfig()),
        (None, cf.EraConfig()),
    ],
)
def test_build_search_analytics_gives_none(monkeypatch, module_kw, era_config):
    mod = None if module_kw is None else cf.analytics_module(**module_kw)
    monkeypatch.setitem(sys.modules, "tarnwicket.search_analytics", mod)
    assert st._build_search_analytics_from_era_config(object(), era_config) is None
    assert st.SearchContext._build_search_analytics_from_era_config(object(), era_config) is None


def test_replaced_helpers_are_obeyed(make_ctx, monkeypatch):
    seen = []

    def resolve(thresholds, era_config):
        seen.append("module")
        return {"from": "module"}

    monkeypatch.setattr(st, "_resolve_search_thresholds", resolve)
    assert make_ctx()._thresholds == {"from": "module"}
    monkeypatch.setattr(st, "_first_signal_pool_id_from_era_config", lambda era: "patched-pool")
    assert make_ctx()._signal_pool_id == "patched-pool"
    monkeypatch.setattr(st.SearchContext, "_resolve_search_thresholds", staticmethod(lambda t, e: {"from": "class"}))
    assert make_ctx()._thresholds == {"from": "class"}


# ---------------------------------------------------------------- cancellation and recording


@pytest.mark.parametrize(
    "stop, abort, expected",
    [(None, None, False), (False, None, False), (True, None, True), (None, True, True), (False, False, False), (False, True, True)],
)
def test_submission_cancelled(make_ctx, stop, abort, expected):
    def event(state):
        if state is None:
            return None
        e = threading.Event()
        if state:
            e.set()
        return e

    ctx = make_ctx(stop_event=event(stop), replacement_abort_event=event(abort))
    assert ctx._submission_cancelled() is expected


def test_safe_record_call_form_under_lock(make_ctx):
    tracker = cf.MemoryTracker(eval_id="e-9")
    ctx = make_ctx(tracker=tracker, metaparams={"a": 1})
    stats = object()
    assert ctx._safe_record({"type": "feature"}, True, rejection_reason="r", stats=stats, per_column_stats={"c": 1}) == "e-9"
    args, kwargs = tracker.records[0]
    assert args == ({"type": "feature"}, stats, 3, True, "universe_top50", {"a": "1"})
    assert list(kwargs.items()) == [("pool_id", "pool-a"), ("rejection_reason", "r"), ("per_column_stats", {"c": 1})]
    assert tracker.lock_seen == [True]


def test_safe_record_supplies_empty_backtest_stats(make_ctx):
    tracker = cf.MemoryTracker()
    make_ctx(tracker=tracker)._safe_record({"type": "x"}, False)
    stats = tracker.records[0][0][1]
    assert type(stats) is st._BacktestStats
    assert tracker.records[0][1] == {"pool_id": "pool-a", "rejection_reason": None, "per_column_stats": None}


def test_safe_record_os_error_goes_to_fatal_callback(make_ctx):
    calls = []
    tracker = cf.MemoryTracker(record_error=OSError("disk full"))
    ctx = make_ctx(tracker=tracker, fatal_callback=lambda *a: calls.append(a))
    assert ctx._safe_record({"type": "x"}, False) is None
    assert calls == [
        (
            "DATABASE_ERROR",
            "Run get_db_info() to check database state. Consider restarting the search.",
            "Database write failed after retry: disk full",
        )
    ]
    # The lock is free again once the failure was reported.
    assert ctx._tracker_write_lock.acquire(blocking=False)
    ctx._tracker_write_lock.release()
    assert make_ctx(tracker=tracker)._safe_record({"type": "x"}, False) is None


def test_safe_record_other_errors_pass_through(make_ctx):
    calls = []
    ctx = make_ctx(tracker=cf.MemoryTracker(record_error=KeyError("k")), fatal_callback=lambda *a: calls.append(a))
    with pytest.raises(KeyError):
        ctx._safe_record({"type": "x"}, False)
    assert calls == []
