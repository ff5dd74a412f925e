"""How the local evaluator computes: native kernels that do their array work
without holding the interpreter lock, so evaluator threads run on every core
(the default), or the NumPy reference that the native kernels are tested
against. Both take compiled graph keys and give the same panels and backtests.
"""

from __future__ import annotations

from typing import Callable

import numpy as np

from . import _native
from .backtest import (CLIP_ROUNDS, BacktestCore, BacktestSettings, MarketContext, assemble_core,
                       run_core)
from .graph import evaluate_key, plan_key
from .operators import PanelEnv

Lookup = Callable[[tuple], "np.ndarray | None"]
Store = Callable[[tuple, np.ndarray], None]


class NumpyEngine:
    """The reference: one NumPy kernel per node, under the interpreter lock."""

    def __init__(self, features: dict, env: PanelEnv, market: MarketContext,
                 settings: BacktestSettings):
        self._features = features
        self._env = env
        self._market = market
        self._settings = settings

    def signal(self, key: tuple, lookup: Lookup, store: Store) -> np.ndarray:
        return evaluate_key(key, self._features, self._env, lookup, store)

    def backtest(self, signal: np.ndarray) -> BacktestCore:
        return run_core(signal, self._market, self._settings)


class NativeEngine:
    """The compiled kernels: a graph's uncached nodes run as one program."""

    def __init__(self, features: dict, env: PanelEnv, market: MarketContext,
                 settings: BacktestSettings):
        self._features = features
        self._settings = settings
        self._n_factors = len(market.factor_names)
        sector = np.asarray(market.sector, dtype=np.int64)
        self._evaluator = _native.Evaluator(sector, env.liquidity_rank)
        self._backtester = _native.Backtester(
            market.tradable, market.returns, market.adv, market.illiquid, market.beta, sector,
            market.factor_returns, settings.max_position, settings.min_names,
            settings.book_size, settings.cost_bps, CLIP_ROUNDS)

    def signal(self, key: tuple, lookup: Lookup, store: Store) -> np.ndarray:
        cached = lookup(key)
        if cached is not None:
            return cached
        inputs, steps, keys = plan_key(key, self._features, lookup)
        results = self._evaluator.run(inputs, steps)
        for step_key, result in zip(keys, results):
            result.setflags(write=False)
            store(step_key, result)
        return results[-1]

    def backtest(self, signal: np.ndarray) -> BacktestCore:
        return assemble_core(self._backtester.run(signal), self._settings, self._n_factors)


ENGINES = {"native": NativeEngine, "numpy": NumpyEngine}
