import dataclasses
import logging
import queue
import threading
import types
import uuid

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

GRAPH = {"type": "feature", "node": "close", "children": []}
PAYLOAD_KEYS = ["eval_id", "submission_type", "graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
                "metaparameters", "search_state", "era_id", "expression_elapsed_seconds"]


def reasons(tracker):
    return [(args[3], kwargs["rejection_reason"]) for args, kwargs in tracker.records]


@pytest.fixture
def world(make_ctx, clock, caplog):
    """A context wired to memory fakes, a queue and a wakeup event."""
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")

    def build(stats=None, tracker=None, bt=None, **kw):
        w = types.SimpleNamespace(tracker=tracker or cf.MemoryTracker(),
                                  bt=bt or cf.FakeBacktester(stats=stats, clock=clock),
                                  q=kw.pop("submission_queue", queue.Queue()),
                                  wake=kw.pop("submission_wakeup", threading.Event()))
        w.ctx = make_ctx(tracker=w.tracker, bt=w.bt, submission_queue=w.q, submission_wakeup=w.wake, **kw)
        w.logs = lambda: [r.getMessage() for r in caplog.records]
        return w

    return build


@pytest.mark.parametrize("vocab, graph, reason", [
    (cf.VOCAB, [], "invalid_input"), (cf.VOCAB, {}, "invalid_input"), (cf.VOCAB, {"node": "x"}, "invalid_input"),
    (cf.VOCAB, {"type": "feature", "extra": 1}, "invalid_input"), (cf.VOCAB, None, "invalid_input"),
    (cf.VOCAB, {"type": "rotation", "node": "nope"}, "unknown_function"),
    (cf.VOCAB, {"type": "filtration"}, "unknown_function"),
    (cf.VOCAB, {"type": "reduction", "node": "rank"}, None),
    (cf.VOCAB, {"type": "rotation", "node": "ts_mean", "children": [{"type": "rotation", "node": "nope"}]}, None),
    (cf.VOCAB, {"type": "feature", "node": "not_in_vocab"}, None),
    ({"functions": []}, {"type": "rotation", "node": "nope"}, None),
    ({}, {"type": "rotation", "node": "nope"}, None),
])
def test_shape_rejections_need_no_era_config(world, vocab, graph, reason):
    if reason is None:  # known or unchecked functions go on to be evaluated
        assert isinstance(world(vocab=vocab).ctx.evaluate(graph), st.BacktestResult)
        return
    w = world(vocab=vocab, era_config=None, thresholds={})
    assert w.ctx.evaluate(graph) is None
    assert reasons(w.tracker) == [(False, reason)] and w.bt.calls == []


def test_function_names_follow_the_vocabulary_as_it_is_now(world):
    # the host changes the function list in place, without changing its length
    w = world(vocab={"functions": [{"name": "ts_mean"}, {"name": "rank"}], "features": []})
    graph = {"type": "rotation", "node": "zscore"}
    assert w.ctx.evaluate(graph) is None
    w.ctx._vocabulary["functions"][0] = {"name": "zscore"}
    assert isinstance(w.ctx.evaluate(graph), st.BacktestResult)
    w.ctx._vocabulary["functions"][0]["name"] = "ts_mean"
    assert w.ctx.evaluate(graph) is None
    assert reasons(w.tracker) == [(False, "unknown_function"), (True, None), (False, "unknown_function")]
    w.ctx._vocabulary["functions"] = 5
    with pytest.raises(TypeError, match="not iterable"):
        w.ctx.evaluate(graph)


def test_evaluate_expression_failure_logged_with_traceback(world, caplog):
    w = world(bt=cf.FakeBacktester(eval_error=RuntimeError("cannot compile")))
    assert w.ctx.evaluate(GRAPH) is None
    assert reasons(w.tracker) == [(False, "evaluate_expression_failed")]
    rec, = [r for r in caplog.records if r.getMessage() == "evaluate_expression_failed"]
    assert rec.levelno == logging.ERROR and rec.exc_info[1] is w.bt.eval_error
    assert w.bt.calls == ["evaluate_expression"]


@pytest.mark.parametrize("era_config", [None, cf.EraConfig(budget=None), {"era_id": 2}])
def test_missing_budget_raises_without_record(world, era_config):
    w = world(era_config=era_config, thresholds=cf.THRESHOLDS)
    with pytest.raises(ValueError, match="^era config missing required field: max_expression_generation_seconds$"):
        w.ctx.evaluate(GRAPH)
    assert w.bt.calls == ["evaluate_expression"] and w.tracker.records == []


@pytest.mark.parametrize("era_config, seconds, too_slow", [
    (cf.EraConfig(budget=2.0), 2.0, False),
    (cf.EraConfig(budget=2.0), 2.5, True),
    (cf.era_dict(budget=2), 2.5, True),
    (cf.era_dict(budget=2.0), 1.0, False),
])
def test_timing_budget(world, caplog, era_config, seconds, too_slow):
    w = world(era_config=era_config)
    w.bt.eval_seconds = seconds
    result = w.ctx.evaluate(GRAPH)
    if too_slow:
        assert result is None and reasons(w.tracker) == [(False, "expression_too_slow")]
        rec, = [r for r in caplog.records if r.getMessage() == "Expression rejected: timing breach"]
        assert (rec.elapsed, rec.threshold, rec.rejection_reason) == (seconds, 2, "expression_too_slow")
        assert w.bt.calls == ["evaluate_expression"]
    else:
        assert w.tracker.enqueued[0][0]["expression_elapsed_seconds"] == seconds


@pytest.mark.parametrize("error, stats, expected", [
    (RuntimeError("no data"), None, "backtest_failed: no data"),
    (RuntimeError(), None, "backtest_failed: "),
    (None, False, "backtester_unavailable"),
])
def test_backtest_failures(world, error, stats, expected):
    w = world(bt=cf.FakeBacktester(backtest_error=error))
    if stats is False:
        w.bt.stats = None
    assert w.ctx.evaluate(GRAPH) is None
    assert reasons(w.tracker) == [(False, expected)]
    assert (f"Backtest failed: {error}" in w.logs()) is (error is not None)


@pytest.mark.parametrize("overrides, expected", [
    ({"turnover": 9.0}, "turnover_exceeded"),
    ({"margin": Ellipsis}, "invalid_backtest_metric_margin"),
    ({"sharpe": True, "margin": None}, "invalid_backtest_metric_sharpe"),
    ({"long_count": 3.5}, "invalid_backtest_metric_long_count"),
])
def test_rule_and_metric_rejections_carry_no_stats(world, overrides, expected):
    w = world(stats=cf.make_stats(**overrides))
    assert w.ctx.evaluate(GRAPH) is None
    assert reasons(w.tracker) == [(False, expected)] and w.tracker.records[0][0][1] == st._BacktestStats()
    assert w.q.empty() and w.tracker.enqueued == []


def test_correlation_guard_after_the_rules(world, monkeypatch):
    w = world(stats=cf.make_stats(correlation=0.9))
    monkeypatch.setattr(w.ctx, "_derive_rejection_reason", lambda stats: None)
    assert w.ctx.evaluate(GRAPH) is None and reasons(w.tracker) == [(False, "correlation_exceeded")]


def test_pass_records_queues_and_wakes(world):
    stats = cf.make_stats(sharpe=2, long_count=12.0, factor_pnl=(), per_column_stats=[1])
    w = world(stats=stats, submission_owner="owner-uuid", metaparams={"m": None})
    result = w.ctx.evaluate(GRAPH)
    expected_stats = dict(cf.GOOD_METRICS, sharpe=2.0, long_count=12)
    assert result == st.BacktestResult(expression=GRAPH, passed=True, stats=expected_stats, factor_pnl=[0.0],
                                       per_column_stats={}, submitted=False)
    assert result.expression is GRAPH and type(result.stats["long_count"]) is int
    assert list(result.stats) == list(cf.GOOD_METRICS) and type(result.stats["sharpe"]) is float
    (args, kwargs), = w.tracker.records
    assert args[3] is True and args[1] == st._BacktestStats() and kwargs["per_column_stats"] is None

    (payload,), = w.tracker.enqueued
    assert list(payload) == PAYLOAD_KEYS + ["_submission_owner"]
    assert payload == dict(eval_id="eval-1", submission_type="signal", graph=GRAPH, universe_id="universe_top50",
                           signal_pool_id="pool-a", is_stats=expected_stats, is_pnl_mi=0.25,
                           metaparameters={"m": "none"}, search_state={}, era_id=3,
                           expression_elapsed_seconds=payload["expression_elapsed_seconds"],
                           _submission_owner="owner-uuid")
    assert payload["graph"] is GRAPH and type(payload["expression_elapsed_seconds"]) is float
    queued = w.q.get_nowait()
    assert queued == payload and queued is not payload and w.wake.is_set()
    assert w.tracker.lock_seen == [True, True]


def test_persistent_tracker_gets_the_serialised_row(world):
    w = world(tracker=cf.PersistentTracker(eval_id="e-7"))
    w.ctx.evaluate(GRAPH)
    (eval_id, kind, text, era_id), = w.tracker.enqueued
    queued = w.q.get_nowait()
    assert (eval_id, kind, era_id) == ("e-7", "signal", 3) and list(queued) == PAYLOAD_KEYS
    assert text == st._serialize_submission_payload(queued)


@pytest.mark.parametrize("tracker, fatal", [(cf.MemoryTracker(eval_id=None), []),
                                            (cf.MemoryTracker(record_error=OSError("full")), ["DATABASE_ERROR"])])
def test_unrecorded_pass_is_queued_under_a_uuid(world, tracker, fatal):
    calls = []
    w = world(tracker=tracker, fatal_callback=lambda *a: calls.append(a[0]))
    assert w.ctx.evaluate(GRAPH) is not None and calls == fatal
    eval_id = w.q.get_nowait()["eval_id"]
    assert len(eval_id) == 36 and uuid.UUID(eval_id).version == 4


def test_no_queue_means_no_wakeup_and_no_wakeup_is_fine(world):
    w = world(submission_queue=None)
    assert w.ctx.evaluate(GRAPH) is not None and len(w.tracker.enqueued) == 1 and not w.wake.is_set()
    w = world(submission_wakeup=None)
    w.ctx.evaluate(GRAPH)
    assert w.q.qsize() == 1


def test_sync_request_failure_is_ignored(world):
    sync = types.SimpleNamespace(request_for_sync=lambda: 1 / 0)
    w = world(sync_mgr=sync)
    assert w.ctx.evaluate(GRAPH) is not None
    assert "Failed to request sync files: division by zero" in w.logs()


def test_invalid_is_pnl_mi_raises_after_recording(world):
    w = world(stats=cf.make_stats(is_pnl_mi=float("inf")))
    with pytest.raises(ValueError, match="^BacktestStats.is_pnl_mi must be a finite scalar number$"):
        w.ctx.evaluate(GRAPH)
    assert reasons(w.tracker) == [(True, None)] and w.tracker.enqueued == [] and w.q.empty()


def test_enqueue_failure_leaves_evaluate_and_releases_lock(world):
    w = world()
    w.tracker.enqueue_error = RuntimeError("constraint")
    with pytest.raises(RuntimeError):
        w.ctx.evaluate(GRAPH)
    assert w.q.empty() and "count=0" in repr(w.ctx._tracker_write_lock)


@pytest.mark.parametrize("probe, returns_result, recorded, enqueued, queued", [
    (1, False, False, False, False),
    (2, True, True, False, False),
    (3, True, True, False, False),
    (4, True, True, True, False),
    (5, True, True, True, True),
])
def test_cancellation_points(world, probe, returns_result, recorded, enqueued, queued):
    w = world()
    calls = []
    w.ctx._submission_cancelled = lambda: calls.append(1) or len(calls) >= probe
    result = w.ctx.evaluate(GRAPH)
    assert (result is not None, bool(w.tracker.records), bool(w.tracker.enqueued)) == (returns_result, recorded, enqueued)
    assert (not w.q.empty(), w.wake.is_set()) == (queued, queued)
    assert len(calls) == min(probe, 4)


def test_replacement_abort_set_while_recording(world):
    abort = threading.Event()
    tracker = cf.MemoryTracker()
    tracker.record_signal_evaluation = lambda *a, **k: abort.set() or "e"
    w = world(tracker=tracker, replacement_abort_event=abort)
    assert isinstance(w.ctx.evaluate(GRAPH), st.BacktestResult)
    assert tracker.enqueued == [] and w.q.empty()


def test_replaced_module_functions_are_obeyed(world, monkeypatch):
    monkeypatch.setattr(st, "_tracker_uses_persistent_store", lambda tracker: True)
    monkeypatch.setattr(st, "_serialize_submission_payload", lambda payload: "SERIALISED")
    monkeypatch.setattr(st, "_collect_required_backtest_stats", lambda s: ({"only": 1.0}, None))
    w = world()
    assert w.ctx.evaluate(GRAPH).stats == {"only": 1.0}
    assert w.tracker.enqueued == [("eval-1", "signal", "SERIALISED", 3)]


def test_replaced_metric_reader_is_obeyed_by_the_collector(world, monkeypatch):
    seen = []
    monkeypatch.setattr(st, "_required_backtest_metric_value", lambda s, attr: seen.append(attr) or (2.0, None))
    w = world()
    assert set(w.ctx.evaluate(GRAPH).stats.values()) == {2.0}
    assert seen == list(st._REQUIRED_BACKTEST_METRICS)


def test_methods_replaced_on_the_instance_or_a_subclass_are_obeyed(world, monkeypatch):
    w = world()
    recorded = []
    monkeypatch.setattr(w.ctx, "_safe_record", lambda graph, passed, **kw: recorded.append((passed, kw)) or "mine")
    assert w.ctx.evaluate(GRAPH) is not None
    assert recorded == [(True, {})] and w.tracker.records == []
    assert w.q.get_nowait()["eval_id"] == "mine"

    class Cancelling(st.SearchContext):
        def _submission_cancelled(self):
            return True

    w = world()
    w.ctx.__class__ = Cancelling
    assert w.ctx.evaluate(GRAPH) is None and w.tracker.records == []


def test_result_is_the_record_class_own_instance_and_obeys_a_patched_class(world, monkeypatch):
    w = world()
    made = w.ctx.evaluate(GRAPH)
    expected = st.BacktestResult(expression=GRAPH, passed=True, stats=made.stats, factor_pnl=made.factor_pnl,
                                 per_column_stats=made.per_column_stats, submitted=False)
    assert type(made) is st.BacktestResult and made == expected and vars(made) == vars(expected)
    assert list(vars(made)) == [f.name for f in dataclasses.fields(st.BacktestResult)]

    seen = []
    original_init = st.BacktestResult.__init__
    monkeypatch.setattr(st.BacktestResult, "__init__", lambda self, **kw: seen.append(kw) or original_init(self, **kw))
    assert w.ctx.evaluate(GRAPH) == expected and seen[0]["passed"] is True
    monkeypatch.undo()

    assigned = []
    monkeypatch.setattr(st.BacktestResult, "__setattr__",
                        lambda self, k, v: assigned.append(k) or object.__setattr__(self, k, v), raising=False)
    assert w.ctx.evaluate(GRAPH) == expected and assigned[:2] == ["expression", "passed"]

    class Mine:
        def __init__(self, **kw):
            self.kw = kw

    monkeypatch.setattr(st, "BacktestResult", Mine)
    assert w.ctx.evaluate(GRAPH).kw["expression"] is GRAPH
