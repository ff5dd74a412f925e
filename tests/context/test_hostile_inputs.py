"""SearchContext construction, evaluate and the rejection tiers against hostile
graphs, vocabularies, thresholds and backtest results."""

import gc
import types

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st

from fakes import context_fakes as cf
from fakes import hostile_data as hd

UNKNOWN = {"type": "rotation", "node": "nope"}
METRIC_DICTS = ["weight_quality_metrics", "liquidity_metrics", "custom_stats"]


def build_ctx(**kw):
    """A context with working defaults (the folder's `make_ctx` fixture cannot serve a property test)."""
    args = dict(vocab=cf.VOCAB, universe="u", metaparams={"seed": 7}, depth=4, tracker=cf.MemoryTracker(),
                sync_mgr=None, bt=cf.FakeBacktester(), era_config=cf.EraConfig())
    args.update(kw)
    return st.SearchContext(**args)


def reasons(tracker):
    return [kwargs.get("rejection_reason") for _, kwargs in tracker.records]


def graphs():
    key = hs.one_of(hs.sampled_from(["type", "node", "children"]), hd.leaves())
    value = hs.one_of(hs.sampled_from(["rotation", "filtration", "reduction", "feature", "ts_mean", "rank"]),
                      hd.leaves(), hd.nested(6))
    return hs.one_of(hs.dictionaries(key, value, max_size=4),
                     hs.dictionaries(key, value, max_size=4).map(hd.ShrinkingDict), hd.leaves())


def functions():
    entry = hs.one_of(hs.fixed_dictionaries({"name": hs.one_of(hs.sampled_from(["ts_mean", "rank"]), hd.leaves())}),
                      hs.builds(types.SimpleNamespace, name=hd.leaves()), hd.leaves())
    return hs.one_of(hs.lists(entry, max_size=4), hs.lists(entry, max_size=4).map(hd.ShrinkingList), hd.leaves())


@given(hs.data(), graphs(), functions())
def test_evaluate_of_hostile_graphs_returns_or_raises_ordinarily(data, graph, funcs):
    vocab = {"functions": funcs}
    hd.arm(data, [graph, funcs], extra=[vocab])
    tracker = cf.MemoryTracker()
    ctx = build_ctx(vocab=vocab, tracker=tracker)
    outcome, result = hd.ordinary_outcome(ctx.evaluate, graph)
    if outcome == "ok":
        assert result is None or result.passed is True


def metric_records():
    entry = hs.one_of(hs.fixed_dictionaries({}, optional={k: hd.leaves() for k in ("passed", "value", "min", "max")}),
                      hd.leaves())
    names = hs.one_of(hs.sampled_from(["a", "b", "\udc80"]), hd.leaves().filter(lambda k: not isinstance(k, (list, dict))))
    d = hs.dictionaries(names, entry, max_size=3)
    return hs.one_of(d, d.map(hd.ShrinkingDict), hd.leaves())


def stats_overrides():
    leaf = hs.one_of(hd.leaves(), hs.floats(0, 1))
    fields = {k: leaf for k in list(cf.GOOD_METRICS) + ["passed", "correlation", "is_pnl_mi"]}
    fields.update({k: metric_records() for k in METRIC_DICTS})
    fields.update(factor_pnl=hs.one_of(hd.nested(6), hs.builds(types.SimpleNamespace, tolist=hs.just(lambda: [1.0]))),
                  per_column_stats=hs.one_of(hd.nested(6), hd.leaves()))
    return hs.fixed_dictionaries({}, optional=fields)


@given(hs.data(), stats_overrides(),
       hs.dictionaries(hs.sampled_from(list(cf.THRESHOLDS)), hd.leaves(), max_size=2))
def test_evaluate_of_hostile_backtest_results_returns_or_raises_ordinarily(data, overrides, bad_thresholds):
    stats = data.draw(hs.one_of(hs.just(cf.make_stats(**overrides)), hs.builds(hd.Trap, hs.integers(0, 20))))
    thresholds = {**cf.THRESHOLDS, **bad_thresholds}
    rules = data.draw(hs.lists(hs.one_of(hs.fixed_dictionaries({}, optional={"column": hd.leaves(),
                                                                             "stat": hd.leaves()}), hd.leaves()),
                               max_size=2))
    tracker = cf.PersistentTracker() if data.draw(hs.booleans()) else cf.MemoryTracker()
    events = data.draw(hs.fixed_dictionaries({}, optional={"stop_event": hd.leaves(), "replacement_abort_event": hd.leaves(),
                                                           "submission_queue": hd.leaves(), "submission_wakeup": hd.leaves(),
                                                           "sync_mgr": hd.leaves(), "tracker_write_lock": hd.leaves()}))
    hd.arm(data, [list(overrides.values()), list(bad_thresholds.values()), stats, rules, list(events.values())],
           extra=[vars(stats), thresholds])
    outcome, ctx = hd.ordinary_outcome(build_ctx, tracker=tracker, bt=cf.FakeBacktester(stats=stats),
                                       era_config=cf.EraConfig(thresholds=thresholds, rules=rules), **events)
    if outcome == "raised":
        return
    outcome, result = hd.ordinary_outcome(ctx.evaluate, {"type": "feature", "node": "close"})
    if outcome == "ok" and result is not None:
        assert list(result.stats) == list(st._REQUIRED_BACKTEST_METRICS)
    hd.ordinary_outcome(ctx._derive_rejection_reason, stats)
    hd.ordinary_outcome(ctx._submission_cancelled)


@given(hs.data(), hd.nested(8), hd.nested(8), hs.one_of(hd.nested(6), hd.leaves()))
def test_construction_and_threshold_lookups_survive_hostile_arguments(data, metaparams, thresholds, era):
    stats = data.draw(hs.one_of(hd.leaves(), hs.builds(types.SimpleNamespace, total_evaluations=hd.leaves(),
                                                       rows=hd.nested(4))))
    reason = data.draw(hd.leaves())
    name = data.draw(hs.one_of(hs.sampled_from(list(cf.THRESHOLDS)), hd.leaves()))
    hd.arm(data, [metaparams, thresholds, era, stats, reason, name])
    tracker = cf.MemoryTracker(stats=stats)
    for kw in ({"metaparams": metaparams}, {"thresholds": thresholds}, {"era_config": era}):
        outcome, ctx = hd.ordinary_outcome(build_ctx, tracker=tracker, **kw)
        if outcome == "ok":
            hd.ordinary_outcome(ctx.refresh_analytics)
            hd.ordinary_outcome(ctx._safe_record, {"type": "feature"}, False, rejection_reason=reason)
    hd.ordinary_outcome(st._require_search_threshold, thresholds, name)
    hd.ordinary_outcome(st.SearchContext._require_search_threshold, thresholds, name)
    hd.ordinary_outcome(st._resolve_search_thresholds, thresholds, era)
    hd.ordinary_outcome(st._build_search_analytics_from_era_config, tracker, era)


@given(hs.fixed_dictionaries({k: hs.floats(-10, 10) for k in cf.GOOD_METRICS}))
def test_ordinary_passing_results_still_pass_with_their_metrics(metrics):
    metrics.update(turnover=0.3, delta_exposure=0.01, max_weight=0.05, long_count=3, short_count=4)
    tracker = cf.MemoryTracker()
    ctx = build_ctx(tracker=tracker, bt=cf.FakeBacktester(stats=cf.make_stats(**metrics)))
    result = ctx.evaluate({"type": "feature", "node": "close"})
    assert result.stats == metrics and reasons(tracker) == [None] and len(tracker.enqueued) == 1


# ---------------------------------------------------------------- regressions


def test_function_name_cache_survives_reentry_from_a_finaliser():
    """A name dropped with the cached set evaluates again from its finaliser. Its
    new function list is made first, so that it may take the memory of the cached
    list just freed: a cache still naming the old list and set would hand out a
    set that is being destroyed."""
    inner_tracker = cf.MemoryTracker()
    inner = build_ctx(tracker=inner_tracker)
    reentered = []

    class Name:
        def __hash__(self):
            return 1

        def __eq__(self, other):
            return self is other

        def __del__(self):
            funcs = [{"name": "f"}]
            inner._vocabulary = {"functions": funcs}
            reentered.append(inner.evaluate(dict(UNKNOWN)))

    class Entry:
        @property
        def name(self):
            return Name()

    first = build_ctx(vocab={"functions": [Entry()]})
    assert first.evaluate(dict(UNKNOWN)) is None
    del first  # the cache now holds the only reference to that function list
    gc.collect()
    tracker = cf.MemoryTracker()
    second = build_ctx(vocab={"functions": [{"name": "g"}]}, tracker=tracker)
    assert second.evaluate(dict(UNKNOWN)) is None
    assert reentered == [None] and reasons(inner_tracker) == ["unknown_function"]
    assert reasons(tracker) == ["unknown_function"]
    assert inner.evaluate(dict(UNKNOWN)) is None and second.evaluate(dict(UNKNOWN)) is None
    assert inner.evaluate({"type": "rotation", "node": "f"}) is not None


def test_reason_texts_keep_surrogates():
    tracker = cf.MemoryTracker()
    ctx = build_ctx(tracker=tracker, bt=cf.FakeBacktester(backtest_error=RuntimeError("bad \udc80")))
    assert ctx.evaluate({"type": "feature"}) is None
    assert reasons(tracker) == ["backtest_failed: bad \udc80"]
    failed = {"\udc80": {"passed": False, "value": 1}}
    assert ctx._derive_rejection_reason(cf.make_stats(weight_quality_metrics=failed)) == \
        "weight_quality_\udc80_exceeded"
    assert ctx._derive_rejection_reason(cf.make_stats(liquidity_metrics={3: {"passed": False}})) == \
        "liquidity_3_below_min"
    with pytest.raises(ValueError) as info:
        st._require_search_threshold({}, "x\udc80")
    assert str(info.value) == "SearchContext thresholds missing required threshold 'x\udc80'"


def test_database_error_text_keeps_surrogates():
    seen = []
    ctx = build_ctx(tracker=cf.MemoryTracker(record_error=OSError("disk \udc80")),
                   fatal_callback=lambda *a: seen.append(a))
    assert ctx._safe_record({"type": "feature"}, False) is None
    assert seen[0][2] == "Database write failed after retry: disk \udc80"
