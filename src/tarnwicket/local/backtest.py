"""Daily long-short backtest of a signal panel.

The signal of day t (known at that day's close) sets the weights held over
day t+1: weights are the signal demeaned across the tradable instruments,
scaled to unit gross, clipped per name and rescaled. Metrics are measured from
the first day with a position to the end of the sample.
"""

from __future__ import annotations

import math
from dataclasses import dataclass

import numpy as np

from . import kernels as k
from .market_data import Panel

TRADING_DAYS = 252
_REL_TOL = 1e-9
CLIP_ROUNDS = 3
BETA_WINDOW = 60


@dataclass(frozen=True)
class BacktestSettings:
    max_position: float = 0.10        # clip per name, as a share of gross
    min_names: int = 10               # fewer valid names on a day: no position
    book_size: float = 20_000_000.0    # dollars, for liquidity measures
    cost_bps: float = 5.0             # cost per unit of gross traded
    min_effective_positions: float = 8.0
    min_coverage: float = 0.5
    max_participation: float = 0.02   # dollar-weighted share of daily dollar volume
    max_illiquid_share: float = 0.40  # share of gross in the least liquid fifth


class MarketContext:
    """Per-panel arrays the backtest needs, computed once."""

    def __init__(self, panel: Panel):
        close = panel.close
        self.n_days, self.n_instruments = close.shape
        self.tradable = np.isfinite(close)
        ret = k.safe_div(close, k.shift(close, 1)) - 1.0
        self.returns = np.where(np.isfinite(ret), ret, 0.0)          # return of day t
        adv = k.ts_mean(close * panel.volume, 20)
        fallback = np.nanmedian(close * panel.volume, axis=0)
        adv = np.where(np.isfinite(adv), adv, np.where(np.isfinite(fallback), fallback, 1.0))
        self.adv = np.maximum(adv, 1.0)
        liq_rank = k.cs_rank(np.where(self.tradable, self.adv, np.nan))
        self.illiquid = np.nan_to_num(liq_rank, nan=1.0) < 0.2
        groups = int(panel.sector.max()) + 1
        self.factor_names = ["market"] + [f"sector_{g}" for g in range(groups)]
        loadings = np.concatenate([np.ones((self.n_instruments, 1)), np.eye(groups)[panel.sector]], axis=1)
        self.loadings = loadings
        self.sector = panel.sector
        trad = self.tradable.astype(np.float64)
        with np.errstate(invalid="ignore", divide="ignore"):
            fr = (self.returns * trad) @ loadings / np.maximum(trad @ loadings, 1.0)
        self.factor_returns = fr                                     # (T, F)
        self.market_returns = fr[:, 0]
        # Trailing market betas, known at each day's close; 1.0 until measurable.
        m = np.broadcast_to(self.market_returns[:, None], self.returns.shape)
        cov = k.ts_mean(self.returns * m, BETA_WINDOW) - k.ts_mean(self.returns, BETA_WINDOW) * k.ts_mean(m, BETA_WINDOW)
        var = k.ts_std(m, BETA_WINDOW) ** 2
        beta = k.safe_div(cov, var)
        self.beta = np.where(np.isfinite(beta), beta, 1.0)


def signal_weights(signal: np.ndarray, market: MarketContext, settings: BacktestSettings) -> np.ndarray:
    valid = np.isfinite(signal)
    valid &= market.tradable
    count = valid.sum(axis=1, keepdims=True)
    filled = np.where(valid, signal, 0.0)
    scale = np.abs(filled).sum(axis=1, keepdims=True)
    filled -= filled.sum(axis=1, keepdims=True) / np.maximum(count, 1)
    w = np.multiply(filled, valid, out=filled)
    gross = np.abs(w).sum(axis=1, keepdims=True)
    live = (count >= settings.min_names) & (gross > _REL_TOL * np.maximum(scale, 1e-300))
    w /= np.where(live, gross, np.inf)
    # Clipping a dominant name breaks neutrality; a few rounds of clip, demean
    # and rescale bring the book back close to dollar neutral. Only the days
    # with a weight over the cap take part.
    cap = settings.max_position
    rows = np.flatnonzero((np.abs(w) > cap).any(axis=1))
    if rows.size:
        sub = w[rows]
        inside = valid[rows] & live[rows]
        n_inside = np.maximum(inside.sum(axis=1, keepdims=True), 1)
        for _ in range(CLIP_ROUNDS):
            np.clip(sub, -cap, cap, out=sub)
            sub -= sub.sum(axis=1, keepdims=True) / n_inside
            sub *= inside
            sub /= np.maximum(np.abs(sub).sum(axis=1, keepdims=True), 1e-300)
        w[rows] = sub
    return w


@dataclass
class BacktestCore:
    """Everything about one signal except its relation to other signals."""
    metrics: dict
    factor_pnl: list
    per_column_stats: dict
    is_pnl_mi: float
    weight_quality: dict
    liquidity: dict
    pnl: np.ndarray            # daily PnL over days 1..T-1, zero before the first position
    has_positions: bool


def _entry(passed: bool, value, lo=None, hi=None) -> dict:
    return {"passed": bool(passed), "value": value, "min": lo, "max": hi}


def _sharpe(p: np.ndarray) -> float:
    sd = float(p.std())
    return float(p.mean() / sd * math.sqrt(TRADING_DAYS)) if sd > 0.0 else 0.0


def _drawdown(p: np.ndarray) -> float:
    cum = np.concatenate([[0.0], np.cumsum(p)])
    return float((np.maximum.accumulate(cum) - cum).max())


def core_figures(signal: np.ndarray, market: MarketContext, settings: BacktestSettings) -> dict:
    """The numbers of one backtest, by NumPy: the reference for the native backtest,
    which returns the same keys."""
    w = signal_weights(signal, market, settings)
    gross = np.abs(w).sum(axis=1)
    active = gross > 0.0
    n_days = w.shape[0]
    figures: dict = {"has_positions": False, "pnl": np.zeros(max(n_days - 1, 0))}
    if n_days < 2 or not active[:-1].any():
        return figures
    first = int(np.argmax(active))
    pnl = np.einsum("ij,ij->i", w[:-1], market.returns[1:])
    period = pnl[first:]
    dw = np.abs(np.diff(w[first:], axis=0))                        # days first+1 .. T-1
    traded = dw.sum(axis=1)
    initial = float(gross[first])
    cost = traded * settings.cost_bps / 1e4
    cost[0] += initial * settings.cost_bps / 1e4
    net = period - cost

    sharpe, returns = _sharpe(period), float(period.mean() * TRADING_DAYS)
    net_returns = float(net.mean() * TRADING_DAYS)
    if sharpe > 0.0 and returns > 0.0:
        fitness = sharpe * min(max(net_returns / returns, 0.0), 1.0)
    else:
        fitness = sharpe
    total_traded = initial + float(traded.sum())
    live = w[active]
    exposures = w[first:-1] @ market.loadings                       # (A, F)
    factor_pnl = (exposures * market.factor_returns[first + 1:]).mean(axis=0) * TRADING_DAYS
    mkt = market.market_returns[first + 1:]
    pc, mc = period - period.mean(), mkt - mkt.mean()
    denom = math.sqrt(float(pc @ pc) * float(mc @ mc))
    rho = float(pc @ mc) / denom if denom > 0.0 else 0.0
    rho2 = min(rho * rho, 1.0 - 1e-12)
    # Dollar-weighted mean share of a name's daily dollar volume that we trade.
    dollars = float(traded.sum()) * settings.book_size
    participation = (float((dw * dw / market.adv[first + 1:]).sum()) * settings.book_size ** 2 / dollars
                     if dollars > 0 else 0.0)
    figures.update(
        has_positions=True,
        pnl=pnl,
        sharpe=sharpe,
        fitness=float(fitness),
        returns=returns,
        drawdown=_drawdown(period),
        turnover=float(traded.mean()),
        margin=float(period.sum() / total_traded * 1e4) if total_traded > 0 else 0.0,
        long_count=float((live > 0).sum(axis=1).mean()),
        short_count=float((live < 0).sum(axis=1).mean()),
        # Market exposure of the book: dollar neutral is not beta neutral.
        delta_exposure=float(np.abs((live * market.beta[active]).sum(axis=1)).mean()),
        max_weight=float(np.abs(live).max()),
        net_sharpe=_sharpe(net),
        net_returns=net_returns,
        net_drawdown=_drawdown(net),
        factor_pnl=factor_pnl,
        is_pnl_mi=float(-0.5 * math.log(1.0 - rho2)),
        effective_positions=float((1.0 / (live * live).sum(axis=1)).mean()),
        coverage=float(active.mean()),
        participation=participation,
        illiquid_share=float((np.abs(w) * market.illiquid).sum() / active.sum()),
    )
    return figures


def assemble_core(figures: dict, settings: BacktestSettings, n_factors: int) -> BacktestCore:
    """The records of one backtest from its numbers (from either backtest)."""
    pnl = figures["pnl"]
    if not figures["has_positions"]:
        return _no_positions(settings, pnl, n_factors)
    f = figures
    metrics = {
        "sharpe": f["sharpe"],
        "fitness": f["fitness"],
        "returns": f["returns"],
        "drawdown": f["drawdown"],
        "turnover": f["turnover"],
        "margin": f["margin"],
        "long_count": int(round(f["long_count"])),
        "short_count": int(round(f["short_count"])),
        "delta_exposure": f["delta_exposure"],
        "max_weight": f["max_weight"],
    }
    effective, coverage = f["effective_positions"], f["coverage"]
    weight_quality = {
        "effective_positions": _entry(effective >= settings.min_effective_positions, effective,
                                      settings.min_effective_positions, None),
        "coverage": _entry(coverage >= settings.min_coverage, coverage, settings.min_coverage, None),
    }
    participation, illiquid = f["participation"], f["illiquid_share"]
    liquidity = {
        "participation": _entry(participation <= settings.max_participation, participation,
                                None, settings.max_participation),
        "illiquid_share": _entry(illiquid <= settings.max_illiquid_share, illiquid,
                                 None, settings.max_illiquid_share),
    }
    columns = {
        "gross_returns": {"sharpe": f["sharpe"], "returns": f["returns"], "drawdown": f["drawdown"]},
        "net_returns": {"sharpe": f["net_sharpe"], "returns": f["net_returns"],
                        "drawdown": f["net_drawdown"]},
    }
    return BacktestCore(metrics, [float(v) for v in f["factor_pnl"]], columns,
                        float(f["is_pnl_mi"]), weight_quality, liquidity, pnl, True)


def run_core(signal: np.ndarray, market: MarketContext, settings: BacktestSettings) -> BacktestCore:
    """The NumPy backtest of one signal."""
    return assemble_core(core_figures(signal, market, settings), settings, len(market.factor_names))


def _no_positions(settings: BacktestSettings, pnl: np.ndarray, n_factors: int) -> BacktestCore:
    metrics = {name: 0.0 for name in ("sharpe", "fitness", "returns", "drawdown", "turnover",
                                      "margin", "delta_exposure", "max_weight")}
    metrics["long_count"] = metrics["short_count"] = 0
    zero_col = {"sharpe": 0.0, "returns": 0.0, "drawdown": 0.0}
    weight_quality = {
        "coverage": _entry(False, None, settings.min_coverage, None),
    }
    return BacktestCore(metrics, [0.0] * n_factors,
                        {"gross_returns": dict(zero_col), "net_returns": dict(zero_col)},
                        0.0, weight_quality, {}, pnl, False)
