"""PnL of the signals that passed so far, for the correlation of a new one."""

from __future__ import annotations

import math
import threading

import numpy as np


class SignalPool:
    """Thread-safe store of unit-normalised PnL series.

    ``admit`` measures the largest absolute correlation of a PnL with every
    stored series and, when the caller's test accepts it, stores it. The test
    and the store happen under one lock, against the pool as it is then, so two
    near-identical signals cannot both slip in. The product with every stored
    series (up to 4,096 x days: a millisecond or more) runs outside the lock;
    the series stored while it ran, which may have overwritten one it read, are
    measured again under the lock.
    """

    def __init__(self, length: int, capacity: int = 4096):
        self._lock = threading.Lock()
        self._rows = np.zeros((capacity, length))
        self._count = 0
        self._next = 0
        self._stored = 0  # series stored so far; the k-th went to row k % capacity

    def __len__(self) -> int:
        with self._lock:
            return self._count

    @staticmethod
    def _unit(pnl: np.ndarray) -> np.ndarray | None:
        # pnl.mean() and np.sqrt without their Python-level wrappers: the same values.
        centred = pnl - np.add.reduce(pnl) / pnl.shape[0]
        norm = math.sqrt(float(centred @ centred))
        return centred / norm if norm > 0.0 else None

    def _max_corr(self, unit: np.ndarray | None) -> float:
        if unit is None or self._count == 0:
            return 0.0
        return float(np.abs(self._rows[: self._count] @ unit).max())

    def _max_corr_since(self, unit: np.ndarray, corrs: np.ndarray, stored: int) -> float:
        """The largest correlation with the pool as it is now, given ``corrs``
        against its first rows when ``stored`` series had been stored. Call
        under the lock."""
        capacity = self._rows.shape[0]
        if self._stored - stored >= capacity:
            return self._max_corr(unit)
        changed = np.array([k % capacity for k in range(stored, self._stored)], dtype=np.intp)
        best = 0.0
        if corrs.size:
            kept = np.ones(corrs.size, dtype=bool)
            kept[changed[changed < corrs.size]] = False
            if kept.any():
                best = float(corrs[kept].max())
        if changed.size:
            best = max(best, float(np.abs(self._rows[changed] @ unit).max()))
        return best

    def correlation(self, pnl: np.ndarray) -> float:
        with self._lock:
            return self._max_corr(self._unit(pnl))

    def admit(self, pnl: np.ndarray, accept) -> tuple[float, bool]:
        """Return (max correlation, stored); ``accept(corr)`` decides the storing."""
        unit = self._unit(pnl)
        if unit is None:
            with self._lock:
                return self._max_corr(None), False
        with self._lock:
            count, stored = self._count, self._stored
        corrs = np.abs(self._rows[:count] @ unit)
        with self._lock:
            corr = self._max_corr_since(unit, corrs, stored)
            if not accept(corr):
                return corr, False
            self._rows[self._next] = unit
            self._next = (self._next + 1) % self._rows.shape[0]
            self._count = min(self._count + 1, self._rows.shape[0])
            self._stored += 1
            return corr, True
