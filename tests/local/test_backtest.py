import math
import threading

import numpy as np
import pytest

from tarnwicket.local.backtest import (BacktestSettings, MarketContext, run_core,
                                       signal_weights)
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.signal_pool import SignalPool

SETTINGS = BacktestSettings(min_names=4)


def core_for(panel, signal, settings=SETTINGS):
    return run_core(signal, MarketContext(panel), settings)


def test_constant_signal_has_no_positions(make_panel, random_returns):
    panel = make_panel(random_returns())
    signal = np.full(panel.shape, 3.0)
    w = signal_weights(signal, MarketContext(panel), SETTINGS)
    assert not w.any()
    core = core_for(panel, signal)
    assert not core.has_positions
    assert core.metrics["long_count"] == core.metrics["short_count"] == 0
    assert core.metrics["sharpe"] == 0.0
    # No named metric to blame but the weights: the search files it as invalid weights.
    assert core.weight_quality["coverage"] == {"passed": False, "value": None, "min": 0.5, "max": None}


def test_weights_are_dollar_neutral_unit_gross_and_clipped(make_panel, random_returns):
    panel = make_panel(random_returns(n=20))
    rng = np.random.default_rng(3)
    signal = rng.normal(size=panel.shape)
    signal[:, 0] = 50.0                              # one name dominates before clipping
    settings = BacktestSettings(min_names=4, max_position=0.1)
    w = signal_weights(signal, MarketContext(panel), settings)
    np.testing.assert_allclose(np.abs(w).sum(axis=1), 1.0)
    # After clip and rescale the dominant name stays near the cap, not at ~0.5.
    assert np.abs(w).max() < 0.2
    assert np.abs(w.sum(axis=1)).max() < 0.05


def test_too_few_valid_names_means_no_position(make_panel, random_returns):
    panel = make_panel(random_returns(n=12))
    signal = np.full(panel.shape, np.nan)
    signal[:, :3] = [[1.0, 2.0, 3.0]]
    assert not signal_weights(signal, MarketContext(panel), SETTINGS).any()


def test_perfect_foresight_has_large_positive_sharpe(make_panel, random_returns):
    r = random_returns()
    panel = make_panel(r)
    foresight = np.vstack([r[1:], np.zeros((1, r.shape[1]))])     # tomorrow's return, today
    core = core_for(panel, foresight)
    assert core.metrics["sharpe"] > 10.0
    assert core.metrics["returns"] > 0.5
    assert core.metrics["fitness"] > 0.0
    assert core.metrics["drawdown"] < 0.05
    # The same-day return is known only after the close: no edge from it.
    same_day = core_for(panel, r)
    assert abs(same_day.metrics["sharpe"]) < 2.0
    # Betting against foresight mirrors the PnL.
    opposite = core_for(panel, -foresight)
    assert opposite.metrics["sharpe"] == pytest.approx(-core.metrics["sharpe"])


def test_static_portfolio_turnover_counts_and_exposure(make_panel, random_returns):
    panel = make_panel(random_returns(n=12))
    values = np.array([5, 4, 3, 2, 1, 1, 1, -1, -2, -3, -4, -5], dtype=float)
    signal = np.broadcast_to(values, panel.shape).copy()
    core = core_for(panel, signal, BacktestSettings(min_names=4, max_position=1.0))
    m = core.metrics
    assert m["turnover"] == pytest.approx(0.0, abs=1e-12)
    # Mean is 0.1667: seven names above it, five below.
    assert (m["long_count"], m["short_count"]) == (7, 5)
    assert m["max_weight"] == pytest.approx(abs(-5 - values.mean()) / np.abs(values - values.mean()).sum())
    # Only the initial build is traded, so the margin is finite.
    assert math.isfinite(m["margin"])


def test_turnover_of_a_daily_flip(make_panel, random_returns):
    panel = make_panel(random_returns(n=10))
    values = np.array([1.0] * 5 + [-1.0] * 5)
    sign = np.where(np.arange(panel.shape[0]) % 2 == 0, 1.0, -1.0)[:, None]
    core = core_for(panel, sign * values, BacktestSettings(min_names=4, max_position=1.0))
    # Every day the whole unit-gross book is reversed: |w_t - w_{t-1}| sums to 2.
    assert core.metrics["turnover"] == pytest.approx(2.0)


def test_auxiliary_metrics_are_finite_and_shaped(make_panel, random_returns):
    r = random_returns()
    panel = make_panel(r, sector=np.arange(12) % 4)
    core = core_for(panel, np.vstack([r[1:], r[:1]]))
    assert len(core.factor_pnl) == 1 + 4
    assert all(math.isfinite(v) for v in core.factor_pnl)
    assert set(core.per_column_stats) == {"gross_returns", "net_returns"}
    gross, net = core.per_column_stats["gross_returns"], core.per_column_stats["net_returns"]
    assert net["returns"] < gross["returns"]                     # costs are charged
    assert math.isfinite(core.is_pnl_mi) and core.is_pnl_mi >= 0.0
    for group in (core.weight_quality, core.liquidity):
        for entry in group.values():
            assert set(entry) == {"passed", "value", "min", "max"}


def test_market_exposed_pnl_has_mutual_information_with_market(make_panel):
    rng = np.random.default_rng(5)
    t_len, n = 400, 12
    market = rng.normal(0, 0.01, t_len)
    beta = np.linspace(0.2, 2.0, n)
    r = market[:, None] * beta + rng.normal(0, 0.002, (t_len, n))
    r[0] = 0.0
    panel = make_panel(r)
    core = core_for(panel, np.broadcast_to(beta, (t_len, n)).copy())   # long high beta
    assert core.is_pnl_mi > 0.5
    # Dollar neutral, yet long the market through beta.
    assert core.metrics["delta_exposure"] > 0.3
    assert core.factor_pnl[0] != 0.0


class TestSignalPool:
    def test_admit_and_correlation(self):
        pool = SignalPool(length=50, capacity=4)
        rng = np.random.default_rng(0)
        a = rng.normal(size=50)
        assert pool.admit(a, lambda c: True) == (0.0, True)
        corr, stored = pool.admit(-2.0 * a, lambda c: c <= 0.5)
        assert corr == pytest.approx(1.0) and not stored
        assert pool.correlation(rng.normal(size=50)) < 0.6
        assert len(pool) == 1

    def test_zero_pnl_is_never_stored_and_capacity_wraps(self):
        pool = SignalPool(length=10, capacity=2)
        assert pool.admit(np.zeros(10), lambda c: True) == (0.0, False)
        rng = np.random.default_rng(1)
        for _ in range(5):
            pool.admit(rng.normal(size=10), lambda c: True)
        assert len(pool) == 2

    @pytest.mark.parametrize("before, during", [(0, 3), (2, 1), (3, 2), (4, 3), (5, 9)])
    def test_series_stored_while_the_product_ran_are_measured_again(self, before, during):
        # The product with the stored series runs outside the lock; what was
        # stored meanwhile (appended, or overwriting a row that was read) must
        # count as if it had all happened under the lock.
        pool = SignalPool(length=30, capacity=4)
        rng = np.random.default_rng(before * 10 + during)
        for _ in range(before):
            pool.admit(rng.normal(size=30), lambda c: True)
        probe = SignalPool._unit(rng.normal(size=30))
        count, stored = pool._count, pool._stored
        corrs = np.abs(pool._rows[:count] @ probe)
        for k in range(during):
            pool.admit(probe * (k + 1) + rng.normal(size=30) * 0.1 * k, lambda c: True)
        assert pool._max_corr_since(probe, corrs, stored) == pytest.approx(pool._max_corr(probe), abs=1e-12)

    def test_threads_never_store_two_near_identical_series(self):
        pool = SignalPool(length=200, capacity=64)
        rng = np.random.default_rng(3)
        base = [rng.normal(size=200) for _ in range(8)]
        jobs = [b + rng.normal(size=200) * 1e-3 for b in base for _ in range(6)]
        rng.shuffle(jobs)
        stored = []

        def work(part):
            for pnl in part:
                corr, kept = pool.admit(pnl, lambda c: c <= 0.9)
                if kept:
                    stored.append(pnl)

        threads = [threading.Thread(target=work, args=(jobs[i::4],)) for i in range(4)]
        for t in threads:
            t.start()
        for t in threads:
            t.join()
        assert len(stored) == len(base)  # one of each family, whatever the interleaving


class TestEvaluatorVerdict:
    GRAPH = {"type": "rotation", "node": "rank",
             "children": [{"type": "feature", "node": "close"}, {"type": "bool", "node": True}]}

    def test_stats_fields_and_verdict_follow_thresholds(self, make_panel, random_returns):
        panel = make_panel(random_returns(n=12))
        lenient = {"sharpe_min": -100.0, "fitness_min": -100.0, "turnover_max": 10.0,
                   "delta_exposure_max": 10.0, "max_weight_max": 10.0, "correlation_max": 0.5}
        ev = LocalEvaluator.from_panel(panel, thresholds=lenient,
                                       settings=BacktestSettings(min_names=4, min_effective_positions=1))
        first = ev.run_backtest(self.GRAPH)
        assert first.passed is True and first.correlation == 0.0 and first.custom_stats == {}
        for name in ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin",
                     "delta_exposure", "max_weight"):
            assert isinstance(getattr(first, name), float), name
        assert isinstance(first.long_count, int) and isinstance(first.short_count, int)
        # The first one entered the pool; the same signal again is fully correlated.
        again = ev.run_backtest(self.GRAPH)
        assert again.correlation == pytest.approx(1.0)
        assert [r["graph"] for r in ev.passed_signals()] == [self.GRAPH]

        strict = LocalEvaluator.from_panel(panel, thresholds={"sharpe_min": 100.0})
        assert strict.run_backtest(self.GRAPH).passed is False
        assert strict.passed_signals() == []

    def test_returned_records_are_private_copies(self, make_panel, random_returns):
        ev = LocalEvaluator.from_panel(make_panel(random_returns()),
                                       settings=BacktestSettings(min_names=4))
        a = ev.run_backtest(self.GRAPH)
        a.per_column_stats["gross_returns"]["sharpe"] = 99.0
        a.factor_pnl.append(1.0)
        b = ev.run_backtest(self.GRAPH)
        assert b.per_column_stats["gross_returns"]["sharpe"] != 99.0
        assert len(b.factor_pnl) == len(a.factor_pnl) - 1

    def test_no_data_means_no_backtest(self, tmp_path):
        ev = LocalEvaluator(str(tmp_path))
        assert ev.run_backtest(self.GRAPH) is None
        with pytest.raises(FileNotFoundError, match="run a sync first"):
            ev.evaluate_expression(self.GRAPH)
