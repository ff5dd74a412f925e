import json
import logging
import queue
import threading
import uuid

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf

GRAPH = {"type": "feature", "node": "close", "children": []}


def reasons(tracker):
    return [(args[3], kwargs["rejection_reason"]) for args, kwargs in tracker.records]


@pytest.fixture
def world(make_ctx, clock):
    """A context wired to memory fakes, a queue and events."""

    def build(stats=None, tracker=None, **kw):
        tracker = tracker or cf.MemoryTracker()
        bt = kw.pop("bt", None) or cf.FakeBacktester(stats=stats, clock=clock)
        q = kw.pop("submission_queue", queue.Queue())
        wake = kw.pop("submission_wakeup", threading.Event())
        ctx = make_ctx(tracker=tracker, bt=bt, submission_queue=q, submission_wakeup=wake, **kw)
        return ctx, tracker, bt, q, wake

    return build


@pytest.mark.parametrize(
    "graph",
    [[], {}, {"node": "x"}, {"type": "feature", "extra": 1}, "feature", None],
)
def test_malformed_graphs_are_recorded_as_invalid_input(world, graph):
    ctx, tracker, bt, q, _ = world()
    assert ctx.evaluate(graph) is None
    assert reasons(tracker) == [(False, "invalid_input")]
    assert tracker.records[0][0][0] is graph and tracker.records[0][0][1] is not None
    assert bt.calls == [] and q.empty()


@pytest.mark.parametrize(
    "vocab, graph, rejected",
    [
        (cf.VOCAB, {"type": "rotation", "node": "nope"}, True),
        (cf.VOCAB, {"type": "filtration"}, True),
        (cf.VOCAB, {"type": "reduction", "node": "rank"}, False),
        (cf.VOCAB, {"type": "rotation", "node": "ts_mean", "children": [{"type": "rotation", "node": "nope"}]}, False),
        (cf.VOCAB, {"type": "feature", "node": "unknown_feature"}, False),
        ({"functions": []}, {"type": "rotation", "node": "nope"}, False),
        ({}, {"type": "rotation", "node": "nope"}, False),
    ],
)
def test_unknown_top_function(world, vocab, graph, rejected):
    ctx, tracker, bt, _, _ = world(vocab=vocab)
    result = ctx.evaluate(graph)
    if rejected:
        assert result is None and reasons(tracker) == [(False, "unknown_function")] and bt.calls == []
    else:
        assert isinstance(result, st.BacktestResult)


def test_evaluate_expression_failure(world, caplog):
    caplog.set_level(logging.ERROR, logger="tarnwicket.search_templates")
    ctx, tracker, bt, _, _ = world()
    bt.eval_error = RuntimeError("cannot compile")
    assert ctx.evaluate(GRAPH) is None
    assert reasons(tracker) == [(False, "evaluate_expression_failed")]
    rec = [r for r in caplog.records if r.getMessage() == "evaluate_expression_failed"]
    assert rec and rec[0].exc_info and rec[0].exc_info[1] is bt.eval_error
    assert bt.calls == ["evaluate_expression"]


@pytest.mark.parametrize("era_config", [None, cf.EraConfig(budget=None), {"era_id": 2}])
def test_missing_budget_raises_after_evaluation_and_records_nothing(world, era_config):
    ctx, tracker, bt, _, _ = world(era_config=era_config, thresholds=dict(cf.THRESHOLDS))
    with pytest.raises(ValueError) as ei:
        ctx.evaluate(GRAPH)
    assert str(ei.value) == "era config missing required field: max_expression_generation_seconds"
    assert bt.calls == ["evaluate_expression"] and tracker.records == []


@pytest.mark.parametrize(
    "era_factory, seconds, too_slow",
    [
        (lambda: cf.EraConfig(budget=2.0), 2.0, False),
        (lambda: cf.EraConfig(budget=2.0), 2.5, True),
        (lambda: cf.era_dict(budget=2), 2.5, True),
        (lambda: cf.era_dict(budget=2.0), 1.0, False),
    ],
)
def test_timing_budget(world, clock, caplog, era_factory, seconds, too_slow):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ctx, tracker, bt, _, _ = world(era_config=era_factory())
    bt.eval_seconds = seconds
    result = ctx.evaluate(GRAPH)
    if too_slow:
        assert result is None and reasons(tracker) == [(False, "expression_too_slow")]
        assert bt.calls == ["evaluate_expression"]
        rec = [r for r in caplog.records if r.getMessage() == "Expression rejected: timing breach"][0]
        assert (rec.elapsed, rec.threshold, rec.rejection_reason) == (seconds, 2, "expression_too_slow")
    else:
        assert result is not None
        assert tracker.enqueued[0][0]["expression_elapsed_seconds"] == seconds


@pytest.mark.parametrize(
    "bt_kw, expected",
    [
        ({"backtest_error": RuntimeError("no data")}, "backtest_failed: no data"),
        ({"backtest_error": RuntimeError()}, "backtest_failed: "),
        ({"stats": None}, "backtester_unavailable"),
    ],
)
def test_backtest_failures(world, clock, caplog, bt_kw, expected):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    bt = cf.FakeBacktester(clock=clock, **bt_kw)
    if "stats" in bt_kw:
        bt.stats = None
    ctx, tracker, _, _, _ = world(bt=bt)
    assert ctx.evaluate(GRAPH) is None
    assert reasons(tracker) == [(False, expected)]
    if "backtest_error" in bt_kw:
        assert f"Backtest failed: {bt_kw['backtest_error']}" in [r.getMessage() for r in caplog.records]


@pytest.mark.parametrize(
    "overrides, expected",
    [
        ({"turnover": 9.0}, "turnover_exceeded"),
        ({"margin": Ellipsis}, "invalid_backtest_metric_margin"),
        ({"sharpe": True, "margin": None}, "invalid_backtest_metric_sharpe"),
        ({"long_count": 3.5}, "invalid_backtest_metric_long_count"),
        ({"correlation": 0.9}, "correlation_exceeded"),
    ],
)
def test_rule_and_metric_rejections(world, overrides, expected):
    ctx, tracker, _, q, _ = world(stats=cf.make_stats(**overrides))
    assert ctx.evaluate(GRAPH) is None
    assert reasons(tracker) == [(False, expected)]
    assert tracker.records[0][0][1] == st._BacktestStats()
    assert q.empty() and tracker.enqueued == []


def test_correlation_guard_after_rules(world, monkeypatch):
    ctx, tracker, _, _, _ = world(stats=cf.make_stats(correlation=0.9))
    monkeypatch.setattr(ctx, "_derive_rejection_reason", lambda stats: None)
    assert ctx.evaluate(GRAPH) is None
    assert reasons(tracker) == [(False, "correlation_exceeded")]


def test_pass_records_queues_and_wakes(world):
    stats = cf.make_stats(sharpe=2, long_count=12.0, factor_pnl=(), per_column_stats=[1])
    ctx, tracker, _, q, wake = world(stats=stats, submission_owner="owner-uuid", metaparams={"m": None})
    result = ctx.evaluate(GRAPH)

    expected_stats = dict(cf.GOOD_METRICS, sharpe=2.0, long_count=12)
    assert result == st.BacktestResult(
        expression=GRAPH, passed=True, stats=expected_stats, factor_pnl=[0.0], per_column_stats={}, submitted=False
    )
    assert result.expression is GRAPH and type(result.stats["long_count"]) is int
    # The pass is recorded with the graph and True only.
    (args, kwargs), = tracker.records
    assert args[0] is GRAPH and args[3] is True and args[1] == st._BacktestStats()
    assert kwargs["rejection_reason"] is None and kwargs["per_column_stats"] is None

    (payload,), = tracker.enqueued
    assert list(payload) == [
        "eval_id", "submission_type", "graph", "universe_id", "signal_pool_id", "is_stats", "is_pnl_mi",
        "metaparameters", "search_state", "era_id", "expression_elapsed_seconds", "_submission_owner",
    ]
    assert payload["eval_id"] == "eval-1" and payload["submission_type"] == "signal"
    assert payload["graph"] is GRAPH and payload["universe_id"] == "universe_top50"
    assert payload["signal_pool_id"] == "pool-a" and payload["is_stats"] == expected_stats
    assert payload["is_pnl_mi"] == 0.25 and type(payload["is_pnl_mi"]) is float
    assert payload["metaparameters"] == {"m": "none"} and payload["search_state"] == {}
    assert payload["era_id"] == 3 and payload["_submission_owner"] == "owner-uuid"
    assert type(payload["expression_elapsed_seconds"]) is float

    queued = q.get_nowait()
    assert queued == payload and queued is not payload
    assert wake.is_set()
    assert tracker.lock_seen == [True, True]


def test_persistent_tracker_gets_serialised_row(world):
    tracker = cf.PersistentTracker(eval_id="e-7")
    ctx, _, _, q, _ = world(tracker=tracker)
    ctx.evaluate(GRAPH)
    (eval_id, kind, text, era_id), = tracker.enqueued
    assert (eval_id, kind, era_id) == ("e-7", "signal", 3)
    queued = q.get_nowait()
    assert text == st._serialize_submission_payload(queued)
    assert json.loads(text) == json.loads(json.dumps(queued))
    assert "_submission_owner" not in queued


def test_unrecorded_pass_gets_a_uuid(world):
    tracker = cf.MemoryTracker(eval_id=None)
    ctx, _, _, _, _ = world(tracker=tracker)
    ctx.evaluate(GRAPH)
    eval_id = tracker.enqueued[0][0]["eval_id"]
    assert len(eval_id) == 36 and uuid.UUID(eval_id).version == 4


def test_store_failure_still_queues_with_uuid(world):
    fatal = []
    tracker = cf.MemoryTracker(record_error=OSError("full"))
    ctx, _, _, q, _ = world(tracker=tracker, fatal_callback=lambda *a: fatal.append(a[0]))
    assert ctx.evaluate(GRAPH) is not None
    assert fatal == ["DATABASE_ERROR"] and len(q.get_nowait()["eval_id"]) == 36


def test_no_queue_means_no_wakeup(world):
    wake = threading.Event()
    ctx, tracker, _, _, _ = world(submission_queue=None, submission_wakeup=wake)
    assert ctx.evaluate(GRAPH) is not None
    assert len(tracker.enqueued) == 1 and not wake.is_set()


def test_no_wakeup_event_is_fine(world):
    ctx, _, _, q, _ = world(submission_wakeup=None)
    ctx.evaluate(GRAPH)
    assert q.qsize() == 1


def test_sync_request_is_made_and_its_failure_ignored(world, caplog):
    caplog.set_level(logging.WARNING, logger="tarnwicket.search_templates")
    ok, broken = cf.FakeSyncManager(), cf.FakeSyncManager(error=RuntimeError("offline"))
    assert world(sync_mgr=ok)[0].evaluate(GRAPH) is not None and ok.requests == 1
    assert world(sync_mgr=broken)[0].evaluate(GRAPH) is not None and broken.requests == 1
    assert "Failed to request sync files: offline" in [r.getMessage() for r in caplog.records]


def test_invalid_is_pnl_mi_raises_after_recording(world):
    ctx, tracker, _, q, _ = world(stats=cf.make_stats(is_pnl_mi=float("inf")))
    with pytest.raises(ValueError) as ei:
        ctx.evaluate(GRAPH)
    assert str(ei.value) == "BacktestStats.is_pnl_mi must be a finite scalar number"
    assert reasons(tracker) == [(True, None)] and tracker.enqueued == [] and q.empty()


def test_enqueue_failure_leaves_evaluate_and_releases_lock(world):
    ctx, tracker, _, q, _ = world()
    tracker.enqueue_error = RuntimeError("constraint")
    with pytest.raises(RuntimeError):
        ctx.evaluate(GRAPH)
    assert q.empty()
    assert ctx._tracker_write_lock.acquire(blocking=False)
    ctx._tracker_write_lock.release()


class CancelAfter:
    """A cancellation probe that turns true from its n-th call on."""

    def __init__(self, n):
        self.n = n
        self.calls = 0

    def __call__(self):
        self.calls += 1
        return self.calls >= self.n


@pytest.mark.parametrize(
    "probe, returns_result, recorded, enqueued, queued",
    [
        (1, False, False, False, False),
        (2, True, True, False, False),
        (3, True, True, False, False),
        (4, True, True, True, False),
        (5, True, True, True, True),
    ],
)
def test_cancellation_points(world, probe, returns_result, recorded, enqueued, queued):
    ctx, tracker, _, q, wake = world()
    cancel = CancelAfter(probe)
    ctx._submission_cancelled = cancel
    result = ctx.evaluate(GRAPH)
    assert (result is not None) is returns_result
    assert bool(tracker.records) is recorded
    assert bool(tracker.enqueued) is enqueued
    assert (not q.empty()) is queued and wake.is_set() is queued
    assert cancel.calls == min(probe, 4)


def test_stop_event_before_recording_leaves_no_trace(world):
    stop = threading.Event()
    stop.set()
    ctx, tracker, bt, q, _ = world(stop_event=stop)
    assert ctx.evaluate(GRAPH) is None
    assert tracker.records == [] and q.empty() and bt.calls == ["evaluate_expression", "run_backtest"]


def test_replacement_abort_during_record(world):
    abort = threading.Event()
    tracker = cf.MemoryTracker()
    original = tracker.record_signal_evaluation

    def record(*a, **kw):
        abort.set()
        return original(*a, **kw)

    tracker.record_signal_evaluation = record
    ctx, _, _, q, _ = world(tracker=tracker, replacement_abort_event=abort)
    assert isinstance(ctx.evaluate(GRAPH), st.BacktestResult)
    assert len(tracker.records) == 1 and tracker.enqueued == [] and q.empty()


def test_replaced_module_functions_are_obeyed(world, monkeypatch):
    monkeypatch.setattr(st, "_tracker_uses_persistent_store", lambda tracker: True)
    monkeypatch.setattr(st, "_serialize_submission_payload", lambda payload: "SERIALISED")
    monkeypatch.setattr(st, "_collect_required_backtest_stats", lambda s: ({"only": 1.0}, None))
    ctx, tracker, _, q, _ = world()
    result = ctx.evaluate(GRAPH)
    assert result.stats == {"only": 1.0}
    assert tracker.enqueued == [("eval-1", "signal", "SERIALISED", 3)]
