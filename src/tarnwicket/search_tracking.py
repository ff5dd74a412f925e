"""Evaluation and submission store of a search (SQLite)."""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any


@dataclass
class BacktestStats:
    """Metrics of one backtest, as produced by an evaluation runtime."""

    passed: bool = True
    sharpe: float | None = None
    fitness: float | None = None
    returns: float | None = None
    drawdown: float | None = None
    turnover: float | None = None
    margin: float | None = None
    long_count: int | None = None
    short_count: int | None = None
    delta_exposure: float | None = None
    max_weight: float | None = None
    correlation: float | None = None
    factor_pnl: Any = None
    per_column_stats: dict | None = None
    is_pnl_mi: float | None = None
    weight_quality_metrics: dict = field(default_factory=dict)
    liquidity_metrics: dict = field(default_factory=dict)
    custom_stats: dict = field(default_factory=dict)
