"""The local evaluation runtime: evaluates expression graphs over the synced panel
and backtests them.

Safe for concurrent use from many threads: the panel is loaded once under a
lock, memo caches and the pool of passed signals have locks of their own, and
everything else is per call. Cached arrays are read-only.
"""

from __future__ import annotations

import json
import threading
from collections import OrderedDict
from typing import Any, Mapping

import numpy as np

from .backtest import BacktestCore, BacktestSettings, MarketContext
from .engines import ENGINES
from .era import verify_seed
from .features import compute_features
from .graph import compile_graph
from .market_data import UNIVERSE_ID, load_panel, panel_path
from .operators import PanelEnv
from .signal_pool import SignalPool

# Used where the thresholds mapping does not name a value.
DEFAULT_THRESHOLDS = {
    "sharpe_min": 0.9,
    "fitness_min": 0.5,
    "turnover_max": 0.7,
    "delta_exposure_max": 0.08,
    "max_weight_max": 0.15,
    "correlation_max": 0.85,
}


def _copy_records(records: dict) -> dict:
    """Fresh copies of a two-level record, so callers can't reach cached state."""
    return {name: dict(entry) for name, entry in records.items()}


class _LRU:
    def __init__(self, capacity: int):
        self._capacity = capacity
        self._items: OrderedDict = OrderedDict()
        self._lock = threading.Lock()

    def get(self, key):
        with self._lock:
            value = self._items.get(key)
            if value is not None:
                self._items.move_to_end(key)
            return value

    def put(self, key, value) -> None:
        with self._lock:
            self._items[key] = value
            self._items.move_to_end(key)
            while len(self._items) > self._capacity:
                self._items.popitem(last=False)


class _Loaded:
    def __init__(self, panel, engine: str, settings: BacktestSettings):
        self.panel = panel
        self.features = compute_features(panel)
        self.feature_names = frozenset(self.features)
        self.env = PanelEnv(panel.sector, self.features["dollar_volume"])
        self.market = MarketContext(panel)
        self.pool = SignalPool(panel.close.shape[0] - 1)
        self.engine = ENGINES[engine](self.features, self.env, self.market, settings)


class LocalEvaluator:
    def __init__(self, data_dir: str, universe_id: str = UNIVERSE_ID,
                 thresholds: Mapping[str, Any] | None = None,
                 settings: BacktestSettings | None = None,
                 signal_cache_size: int = 96, backtest_cache_size: int = 4096,
                 max_passed_records: int = 1000, engine: str = "native"):
        """``engine`` is "native" (compiled kernels that run on every core) or
        "numpy" (the reference they are checked against)."""
        if engine not in ENGINES:
            raise ValueError(f"engine must be one of {sorted(ENGINES)}, got {engine!r}")
        self.engine = engine
        self.data_dir = data_dir
        self.universe_id = universe_id
        self.thresholds = thresholds if thresholds is not None else {}
        self.settings = settings or BacktestSettings()
        self.era_id: int | None = None
        self.reconstructed = False
        self._load_lock = threading.Lock()
        self._loaded: _Loaded | None = None
        self._signals = _LRU(signal_cache_size)
        self._cores = _LRU(backtest_cache_size)
        self._passed_lock = threading.Lock()
        self._passed: list[dict] = []
        self._max_passed = max_passed_records

    @classmethod
    def from_panel(cls, panel, **kwargs) -> "LocalEvaluator":
        """An evaluator over an in-memory panel (no data directory)."""
        ev = cls(data_dir="", **kwargs)
        ev._loaded = _Loaded(panel, ev.engine, ev.settings)
        return ev

    # ---------------------------------------------------------------- data

    def _data(self) -> _Loaded:
        loaded = self._loaded
        if loaded is not None:
            return loaded
        with self._load_lock:
            if self._loaded is None:
                path = panel_path(self.data_dir, self.universe_id)
                try:
                    panel = load_panel(path)
                except FileNotFoundError:
                    raise FileNotFoundError(
                        f"no market data for {self.universe_id!r} at {path}; run a sync first") from None
                self._loaded = _Loaded(panel, self.engine, self.settings)
            return self._loaded

    def init_reconstruction(self, *, shuffle_blob: bytes, wallet_secret: bytes, era_id: int) -> None:
        """Check the era seed against the wallet secret and load the era's data."""
        verify_seed(shuffle_blob, wallet_secret, era_id)
        self._data()
        self.era_id = era_id
        self.reconstructed = True

    # ---------------------------------------------------------------- evaluation

    def _signal(self, graph: Any) -> tuple[tuple, np.ndarray, _Loaded]:
        data = self._data()
        key = compile_graph(graph, data.feature_names)
        if key[0] == "feature":
            return key, data.features[key[1]], data
        signal = data.engine.signal(key, self._signals.get, self._signals.put)
        return key, signal, data

    def evaluate_expression(self, graph: Any) -> np.ndarray:
        """The signal panel (days x instruments, read-only) of ``graph``.

        Raises ``ValueError`` for an unknown name or a malformed graph.
        """
        return self._signal(graph)[1]

    def _threshold(self, name: str) -> float:
        value = self.thresholds.get(name) if hasattr(self.thresholds, "get") else None
        if isinstance(value, bool) or not isinstance(value, (int, float)):
            value = DEFAULT_THRESHOLDS[name]
        return float(value)

    def run_backtest(self, graph: Any):
        """A ``BacktestStats`` for ``graph``, or None when there is no data to test on."""
        from tarnwicket.search_tracking import BacktestStats

        try:
            data = self._data()
        except (FileNotFoundError, OSError, ValueError, KeyError):
            return None
        key, signal, _ = self._signal(graph)
        core: BacktestCore | None = self._cores.get(key)
        if core is None:
            core = data.engine.backtest(signal)
            self._cores.put(key, core)
        m = core.metrics
        passed = (m["sharpe"] >= self._threshold("sharpe_min")
                  and m["fitness"] >= self._threshold("fitness_min"))
        clean = (passed and core.has_positions
                 and m["turnover"] <= self._threshold("turnover_max")
                 and m["delta_exposure"] <= self._threshold("delta_exposure_max")
                 and m["max_weight"] <= self._threshold("max_weight_max")
                 and all(e["passed"] for e in core.weight_quality.values())
                 and all(e["passed"] for e in core.liquidity.values()))
        corr_max = self._threshold("correlation_max")
        correlation, stored = data.pool.admit(core.pnl, lambda c: clean and c <= corr_max)
        stats = BacktestStats(
            passed=passed,
            correlation=correlation,
            factor_pnl=list(core.factor_pnl),
            per_column_stats=_copy_records(core.per_column_stats),
            is_pnl_mi=core.is_pnl_mi,
            weight_quality_metrics=_copy_records(core.weight_quality),
            liquidity_metrics=_copy_records(core.liquidity),
            custom_stats={},
            **m,
        )
        if stored:
            self._remember(graph, m, correlation)
        return stats

    # ---------------------------------------------------------------- passed signals

    def _remember(self, graph: Any, metrics: dict, correlation: float) -> None:
        record = dict(metrics, correlation=correlation, graph=json.loads(json.dumps(graph)))
        with self._passed_lock:
            self._passed.append(record)
            if len(self._passed) > self._max_passed:
                self._passed.sort(key=lambda r: r["fitness"], reverse=True)
                del self._passed[self._max_passed:]

    def passed_signals(self) -> list[dict]:
        """Signals that passed every local rule, best fitness first."""
        with self._passed_lock:
            return sorted((dict(r) for r in self._passed), key=lambda r: r["fitness"], reverse=True)

    def pool_size(self) -> int:
        return len(self._data().pool) if self._loaded is not None else 0
