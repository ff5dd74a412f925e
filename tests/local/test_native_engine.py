"""The native kernels and backtest against the NumPy reference they mirror."""

import random
import subprocess
import sys
import threading

import numpy as np
import pytest

from fakes.searches import ASAN
from tarnwicket.local import _native
from tarnwicket.local.era import LocalEraConfig
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.graph import native_config
from tarnwicket.local.operators import OPERATORS

# Under the sanitizers the native code runs several times slower.
RANDOM_GRAPHS = 300 if ASAN else 2000
METRICS = ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "long_count",
           "short_count", "delta_exposure", "max_weight", "correlation", "is_pnl_mi")


def _engines(panel):
    thresholds = LocalEraConfig().thresholds
    return {name: LocalEvaluator.from_panel(panel, engine=name, thresholds=thresholds)
            for name in ("numpy", "native")}


def _hostile_inputs(evaluator):
    """Two feature panels with gaps, ties, infinities and a constant column."""
    data = evaluator._data()
    x = np.array(data.features["returns"])
    y = np.array(data.features["close"])
    rng = np.random.default_rng(7)
    x[rng.random(x.shape) < 0.05] = np.nan
    x[:, 1] = np.round(x[:, 1], 2)          # many ties
    x[:, 2] = 0.25                          # constant
    y[rng.random(y.shape) < 0.02] = np.inf
    y[len(y) // 2] = np.nan                 # a day with no values
    return data, x, y


def _configs(op):
    """Defaults, then each parameter at its lower and upper bound."""
    yield tuple(p.default for p in op.config)
    for bound in ("min", "max"):
        values = tuple(getattr(p, bound) if getattr(p, bound) is not None else p.default
                       for p in op.config)
        if any(getattr(p, bound) is not None for p in op.config):
            yield values
    for i, p in enumerate(op.config):
        for choice in p.choices:
            values = [q.default for q in op.config]
            values[i] = choice
            yield tuple(values)


@pytest.mark.parametrize("shape", [(756, 50), (40, 90), (3, 5)], ids=["synthetic", "wide", "tiny"])
def test_every_operator_matches_the_reference(make_panel, random_returns, shape):
    # wide: ranks above 64 names take the sorting path; tiny: windows longer than the data
    days, names = shape
    panel = make_panel(random_returns(days, names, seed=days), sector=np.arange(names) % 4)
    data, x, y = _hostile_inputs(LocalEvaluator.from_panel(panel))
    native = _native.Evaluator(np.asarray(panel.sector, dtype=np.int64), data.env.liquidity_rank)
    for op in OPERATORS:
        inputs = [x, y][:len(op.data_params)]
        for config in _configs(op):
            with np.errstate(all="ignore"):
                want = np.asarray(op.fn(data.env, *inputs, *config), dtype=np.float64)
            want = np.where(np.isfinite(want), want, np.nan)
            got = native.run(inputs, [(op.name, list(range(len(inputs))), native_config(op, config))])[0]
            assert got.shape == want.shape
            np.testing.assert_array_equal(np.isnan(got), np.isnan(want), err_msg=f"{op.name}{config}")
            np.testing.assert_allclose(got, want, rtol=1e-12, atol=1e-12, equal_nan=True,
                                       err_msg=f"{op.name}{config}")


def _random_graph(rng, depth):
    """A graph of rotations at the given depth with random config values."""
    if depth <= 1:
        return {"type": "feature", "node": rng.choice(
            ["close", "open", "volume", "returns", "gap", "range", "adv20", "dollar_volume"])}
    op = rng.choice([o for o in OPERATORS if o.kind == "rotation"])
    children = [_random_graph(rng, depth - 1 if rng.random() < 0.8 else rng.randint(1, depth - 1))
                for _ in op.data_params]
    for p in op.config:
        if p.choices:
            value = rng.choice(p.choices)
        elif p.type == "bool":
            value = rng.random() < 0.5
        elif p.type == "int":
            value = rng.randint(int(p.min), int(p.max))
        else:
            value = rng.uniform(p.min, p.max)
        children.append({"type": p.type, "node": value})
    return {"type": "rotation", "node": op.name, "children": children}


def test_random_graphs_agree_with_the_reference(synthetic_panel):
    evaluators = _engines(synthetic_panel)
    rng = random.Random(2024)
    for i in range(RANDOM_GRAPHS):
        graph = _random_graph(rng, rng.randint(3, 6))
        want = evaluators["numpy"].evaluate_expression(graph)
        got = evaluators["native"].evaluate_expression(graph)
        np.testing.assert_allclose(got, want, rtol=1e-9, atol=1e-9, equal_nan=True, err_msg=str(graph))
        if i % 4:
            continue        # the backtest is shared by all signals: check every fourth
        a = evaluators["numpy"].run_backtest(graph)
        b = evaluators["native"].run_backtest(graph)
        for name in METRICS:
            assert getattr(b, name) == pytest.approx(getattr(a, name), rel=1e-9, abs=1e-12), (name, graph)
        assert b.passed == a.passed
        assert b.factor_pnl == pytest.approx(a.factor_pnl, rel=1e-9, abs=1e-12)
        assert b.weight_quality_metrics.keys() == a.weight_quality_metrics.keys()
        for group in ("weight_quality_metrics", "liquidity_metrics", "per_column_stats"):
            for key, entry in getattr(a, group).items():
                for field, value in entry.items():
                    other = getattr(b, group)[key][field]
                    assert other == (pytest.approx(value, rel=1e-9, abs=1e-12)
                                     if isinstance(value, float) else value), (group, key, field)


def test_a_subexpression_used_twice_is_computed_once(synthetic_panel):
    evaluator = LocalEvaluator.from_panel(synthetic_panel, signal_cache_size=64)
    inner = {"type": "rotation", "node": "ts_mean", "children": [{"type": "feature", "node": "close"}]}
    graph = {"type": "rotation", "node": "sub", "children": [inner, inner]}
    runs = []
    engine = evaluator._data().engine
    real = engine._evaluator

    class Counting:
        def run(self, inputs, steps):
            runs.append([name for name, _, _ in steps])
            return real.run(inputs, steps)

    engine._evaluator = Counting()
    assert not np.nanmax(np.abs(evaluator.evaluate_expression(graph)))
    assert runs == [["ts_mean", "sub"]]
    evaluator.evaluate_expression(graph)          # now memoised
    assert len(runs) == 1


def test_threads_sharing_one_evaluator_get_the_serial_results(synthetic_panel):
    rng = random.Random(5)
    graphs = [_random_graph(rng, rng.randint(2, 5)) for _ in range(40)]
    lenient = {"sharpe_min": 100.0}           # nothing passes: no pool, no order effects
    serial = LocalEvaluator.from_panel(synthetic_panel, thresholds=lenient,
                                       signal_cache_size=1, backtest_cache_size=1)
    want, kept, stats = [], [], []
    for g in graphs:
        want.append(serial.evaluate_expression(g))
        kept.append(want[-1].copy())
        stats.append(serial.run_backtest(g))
    shared = LocalEvaluator.from_panel(synthetic_panel, thresholds=lenient,
                                       signal_cache_size=8, backtest_cache_size=8)
    got: dict[int, list] = {}
    errors = []

    def work(worker):
        order = list(range(len(graphs)))
        random.Random(worker).shuffle(order)
        try:
            for i in order:
                got.setdefault(i, []).append((shared.evaluate_expression(graphs[i]),
                                              shared.run_backtest(graphs[i])))
        except Exception as exc:  # reported below
            errors.append(exc)

    threads = [threading.Thread(target=work, args=(k,)) for k in range(4)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert not errors
    for i, w in enumerate(want):
        # Results still held keep their values while freed buffers are reused.
        np.testing.assert_array_equal(w, kept[i])
        for values, result in got[i]:
            np.testing.assert_array_equal(values, w)
            assert (result.sharpe, result.turnover, result.long_count) == pytest.approx(
                (stats[i].sharpe, stats[i].turnover, stats[i].long_count))


def test_bad_programs_and_arrays_are_refused(synthetic_panel):
    data = LocalEvaluator.from_panel(synthetic_panel)._data()
    sector = np.asarray(data.market.sector, dtype=np.int64)
    ev = _native.Evaluator(sector, data.env.liquidity_rank)
    x = data.features["close"]
    cases = [
        ([x], [("no_such_op", [0], [])], "unknown operator"),
        ([x], [("add", [0], [])], "takes 2 input"),
        ([x], [("abs", [1], [])], "out of range"),
        ([x], [("ts_mean", [0], [0.0])], "window"),
        ([x], [("ts_mean", [0], [float("nan")])], "window"),
        ([x], [("ts_mean", [0], [2.5])], "window"),
        ([x[:10]], [("abs", [0], [])], "shape"),
        ([x[0]], [("abs", [0], [])], "panel"),
        (["text"], [("abs", [0], [])], "panels of numbers"),
    ]
    for inputs, steps, message in cases:
        with pytest.raises(ValueError, match=message):
            ev.run(inputs, steps)
    with pytest.raises(ValueError, match="one group per instrument"):
        _native.Evaluator(sector[:3], data.env.liquidity_rank)
    with pytest.raises(ValueError, match="groups must be"):
        _native.Evaluator(-sector - 1, data.env.liquidity_rank)
    bt = data.engine._backtester
    with pytest.raises(ValueError, match="shape"):
        bt.run(x[:, :5])
    with pytest.raises(ValueError, match="engine must be one of"):
        LocalEvaluator.from_panel(synthetic_panel, engine="gpu")


@pytest.mark.parametrize("days, names", [(30, 0), (0, 4), (1, 1)])
def test_a_market_without_instruments_or_days_gives_empty_panels(days, names):
    sector = np.zeros(names, dtype=np.int64)
    ev = _native.Evaluator(sector, np.zeros((days, names)))
    x = np.ones((days, names))
    for op in OPERATORS:
        inputs = [x] * len(op.data_params)
        config = native_config(op, tuple(p.default for p in op.config))
        (got,) = ev.run(inputs, [(op.name, list(range(len(inputs))), config)])
        assert got.shape == (days, names), op.name
    groups = 1 if names else 0
    market = [np.ones((days, names))] * 5
    bt = _native.Backtester(*market, sector, np.zeros((days, 1 + groups)), 0.1, 1.0, 1e6, 5.0, 3)
    figures = bt.run(x)
    assert figures["has_positions"] is False
    assert len(figures["pnl"]) == max(days - 1, 0)


LONG_WINDOWS = """
import resource
import numpy as np
from tarnwicket.local import _native

days, names = 40, 50
ev = _native.Evaluator(np.zeros(names, dtype=np.int64), np.random.rand(days, names))
x = np.random.rand(days, names)
before = resource.getrusage(resource.RUSAGE_SELF).ru_maxrss
for op in ("ts_mean", "ts_std", "ts_zscore", "ts_corr", "ts_decay", "ts_rank", "ts_max", "ts_min", "delay"):
    (got,) = ev.run([x, x], [(op, [0, 1] if op == "ts_corr" else [0], [1e6])])
    assert np.isnan(got).all(), op
print((resource.getrusage(resource.RUSAGE_SELF).ru_maxrss - before) // 1024)
"""


def test_a_window_longer_than_the_data_costs_no_more_than_the_data():
    # window sums kept a million days of running sums (800 MB here) for 40 days of data
    done = subprocess.run([sys.executable, "-c", LONG_WINDOWS], capture_output=True, text=True, timeout=120)
    assert done.returncode == 0, done.stderr
    assert int(done.stdout) < 100  # MiB


# A daemon thread is inside a native evaluation when the interpreter exits; it
# comes back for the interpreter lock while the interpreter is being finalised
# (an object's finaliser keeps finalisation busy for three seconds).
EXIT_DURING_EVALUATION = """
import sys, threading, time, types
import numpy as np
from tarnwicket.local import _native

days, names = 2000, 200
ev = _native.Evaluator(np.arange(names, dtype=np.int64) % 4, np.random.rand(days, names))
x = np.random.rand(days, names)
started = time.perf_counter()
ev.run([x], [("ts_rank", [0], [250.0])])
steps = max(1, int(0.5 / (time.perf_counter() - started)))
busy, returned = threading.Event(), []


def work():
    busy.set()
    ev.run([x], [("ts_rank", [0], [250.0])] * steps)
    returned.append(True)
    print("returned to Python", flush=True)


class Slow:
    def __del__(self, sleep=time.sleep, write=sys.stderr.write, returned=returned):
        write("finalising with the worker " + ("done" if returned else "busy") + "\\n")
        sleep(3)


holder = types.ModuleType("holder")
holder.slow = Slow()
sys.modules["holder"] = holder
del holder
threading.Thread(target=work, daemon=True).start()
busy.wait()
"""


def test_a_thread_inside_a_native_evaluation_at_exit_does_not_end_the_process():
    done = subprocess.run([sys.executable, "-c", EXIT_DURING_EVALUATION], capture_output=True, text=True,
                          timeout=120)
    assert "finalising with the worker busy" in done.stderr
    assert done.returncode == 0, done.stderr
    assert "terminate" not in done.stderr and "Fatal" not in done.stderr
    assert "returned to Python" not in done.stdout
