import threading

import numpy as np
import pytest

from tarnwicket.local import kernels as k
from tarnwicket.local.backtest import BacktestSettings
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.operators import OPERATORS


def F(name):
    return {"type": "feature", "node": name}


def R(name, *children, kind="rotation"):
    return {"type": kind, "node": name, "children": list(children)}


def L(kind, value):
    return {"type": kind, "node": value}


@pytest.fixture(scope="module")
def evaluator(synthetic_panel):
    return LocalEvaluator.from_panel(synthetic_panel)


@pytest.mark.parametrize("op", OPERATORS, ids=lambda op: op.name)
def test_every_operator_evaluates_with_its_defaults(evaluator, op):
    children = [F("close"), F("volume")][: len(op.data_params)]
    children += [L(p.type, p.default) for p in op.config]
    out = evaluator.evaluate_expression(R(op.name, *children, kind=op.kind))
    assert out.shape == evaluator._data().panel.shape
    assert not np.isinf(out).any()
    assert np.isfinite(out).mean() > 0.5
    assert not out.flags.writeable


class TestTimeSeries:
    X = np.array([[1.0, 2.0], [3.0, np.nan], [5.0, 6.0], [7.0, 8.0], [9.0, 10.0]])

    def naive(self, fn, window):
        out = np.full_like(self.X, np.nan)
        for t in range(window - 1, len(self.X)):
            win = self.X[t - window + 1: t + 1]
            for j in range(self.X.shape[1]):
                if np.isfinite(win[:, j]).all():
                    out[t, j] = fn(win[:, j])
        return out

    @pytest.mark.parametrize("kernel, reference", [
        (k.ts_mean, np.mean),
        (k.ts_std, np.std),
        (k.ts_sum, np.sum),
        (k.ts_max, np.max),
        (k.ts_min, np.min),
        (k.ts_decay, lambda w: np.dot(w, np.arange(1, len(w) + 1)) / np.arange(1, len(w) + 1).sum()),
        (k.ts_rank, lambda w: (w < w[-1]).sum() / (len(w) - 1)),
    ])
    def test_against_naive_windows(self, kernel, reference):
        np.testing.assert_allclose(kernel(self.X, 2), self.naive(reference, 2), equal_nan=True)
        np.testing.assert_allclose(kernel(self.X, 3), self.naive(reference, 3), equal_nan=True)

    def test_a_gap_only_spoils_the_windows_that_hold_it(self):
        out = k.ts_mean(self.X, 2)
        assert np.isnan(out[1:3, 1]).all() and out[3, 1] == 7.0

    def test_delay_and_corr(self):
        np.testing.assert_array_equal(k.shift(self.X, 2)[2:], self.X[:-2])
        assert np.isnan(k.shift(self.X, 2)[:2]).all()
        x = np.arange(10.0)[:, None]
        np.testing.assert_allclose(k.ts_corr(x, 2 * x + 1, 4)[3:], 1.0)
        np.testing.assert_allclose(k.ts_corr(x, -x, 4)[3:], -1.0)


class TestCrossSection:
    def test_rank_averages_ties_and_skips_missing(self):
        x = np.array([[3.0, 1.0, 3.0, np.nan, 2.0]])
        np.testing.assert_allclose(k.cs_rank(x), [[5 / 6, 0.0, 5 / 6, np.nan, 1 / 3]], equal_nan=True)
        np.testing.assert_allclose(k.cs_rank(x, ascending=False)[0, 1], 1.0)
        assert (k.cs_rank(np.full((1, 4), 7.0)) == 0.5).all()

    def test_zscore_demean_scale(self):
        x = np.array([[1.0, 2.0, 3.0, np.nan], [4.0, 4.0, 4.0, 4.0]])
        z = k.cs_zscore(x)
        np.testing.assert_allclose(np.nanmean(z[0]), 0.0, atol=1e-12)
        np.testing.assert_allclose(np.nanstd(z[0]), 1.0)
        assert (z[1] == 0.0).all()                      # a flat day has no spread
        np.testing.assert_allclose(k.cs_demean(x)[0, :3], [-1.0, 0.0, 1.0])
        np.testing.assert_allclose(np.nansum(np.abs(k.cs_scale(x)), axis=1), [1.0, 1.0])

    def test_group_neutralize_zeroes_every_group(self, evaluator, synthetic_panel):
        out = evaluator.evaluate_expression(R("group_neutralize", F("close"), L("string", "sector")))
        for g in np.unique(synthetic_panel.sector):
            cols = synthetic_panel.sector == g
            np.testing.assert_allclose(np.nansum(out[:, cols], axis=1), 0.0, atol=1e-6)


class TestArithmetic:
    @pytest.mark.parametrize("name, expected", [
        ("add", lambda c, o: c + o), ("sub", lambda c, o: c - o),
        ("mul", lambda c, o: c * o), ("div", lambda c, o: c / o),
    ])
    def test_binary(self, evaluator, synthetic_panel, name, expected):
        out = evaluator.evaluate_expression(R(name, F("close"), F("open")))
        np.testing.assert_allclose(out, expected(synthetic_panel.close, synthetic_panel.open),
                                   equal_nan=True)

    def test_unary_and_safe_division(self):
        x = np.array([[-2.0, 0.0, 3.0]])
        np.testing.assert_allclose(k.signed_log1p(x), [[-np.log(3), 0.0, np.log(4)]])
        np.testing.assert_allclose(k.signed_power(x, 2.0), [[-4.0, 0.0, 9.0]])
        assert np.isnan(k.safe_div(x, np.zeros_like(x))).all()


class TestGraphErrors:
    @pytest.mark.parametrize("graph, words", [
        ([], "must be a dict"),
        ({"type": "rotation", "node": "nope", "children": [F("close")]}, "unknown function 'nope'"),
        (R("rank", F("nope"), L("bool", True)), "unknown feature 'nope'"),
        (R("ts_mean", F("close"), F("open"), L("int", 5)), "takes 1 data input"),
        (R("ts_corr", F("close")), "takes 2 data input"),
        (R("ts_mean", F("close"), L("float", 5.0)), "is 'float', expected 'int'"),
        (R("ts_mean", F("close"), L("int", 5000)), "outside"),
        (R("ts_mean", F("close"), L("int", True)), "expects an int"),
        (R("group_neutralize", F("close"), L("string", "country")), "expects one of"),
        (R("ts_mean", F("close"), {"type": "tuple", "node": 3}), "unsupported type 'tuple'"),
        ({"type": "feature", "node": "close", "extra": 1}, "unexpected keys"),
        ({"type": "feature", "node": "close", "children": [F("open")]}, "cannot have children"),
        (R("liquid_only", F("close"), L("int", 5)), "is a filtration, not a rotation"),
        (R("masked_mean", F("close")), "unknown function 'masked_mean'"),
        ({"type": "program", "node": "x"}, "unsupported type 'program'"),
    ])
    def test_bad_graphs_raise_value_error(self, evaluator, graph, words):
        with pytest.raises(ValueError, match=words.replace("(", r"\(")):
            evaluator.evaluate_expression(graph)

    def test_missing_trailing_config_takes_defaults(self, evaluator):
        a = evaluator.evaluate_expression(R("ts_mean", F("close")))
        b = evaluator.evaluate_expression(R("ts_mean", F("close"), L("int", 20)))
        np.testing.assert_array_equal(a, b)

    def test_filtration_and_reduction_nodes(self, evaluator):
        kept = evaluator.evaluate_expression(R("liquid_only", F("close"), L("int", 10), kind="filtration"))
        assert (np.isfinite(kept).sum(axis=1)[30:] <= 10).all()
        mean = evaluator.evaluate_expression(R("cs_mean", F("returns"), kind="reduction"))
        assert np.allclose(mean[5:], mean[5:, :1], equal_nan=True)


def test_concurrent_passes_enter_the_pool_once(synthetic_panel):
    graph = R("ts_mean", F("returns"), L("int", 120))
    ev = LocalEvaluator.from_panel(synthetic_panel, thresholds={
        "sharpe_min": -100.0, "fitness_min": -100.0, "turnover_max": 10.0,
        "delta_exposure_max": 10.0, "max_weight_max": 10.0, "correlation_max": 0.9},
        settings=BacktestSettings(min_effective_positions=0.0, max_participation=1.0))
    threads = [threading.Thread(target=ev.run_backtest, args=(graph,)) for _ in range(6)]
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    assert len(ev.passed_signals()) == 1
