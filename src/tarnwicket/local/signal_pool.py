"""PnL of the signals that passed so far, for the correlation of a new one."""

from __future__ import annotations

import math
import threading

import numpy as np


class SignalPool:
    """Thread-safe store of unit-normalised PnL series.

    ``admit`` measures the largest absolute correlation of a PnL with every
    stored series and, when the caller's test accepts it, stores it, all under
    one lock so two near-identical signals cannot both slip in.
    """

    def __init__(self, length: int, capacity: int = 4096):
        self._lock = threading.Lock()
        self._rows = np.zeros((capacity, length))
        self._count = 0
        self._next = 0

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

    def correlation(self, pnl: np.ndarray) -> float:
        with self._lock:
            return self._max_corr(self._unit(pnl))

    def admit(self, pnl: np.ndarray, accept) -> tuple[float, bool]:
        """Return (max correlation, stored); ``accept(corr)`` decides the storing."""
        unit = self._unit(pnl)
        with self._lock:
            corr = self._max_corr(unit)
            if unit is None or not accept(corr):
                return corr, False
            self._rows[self._next] = unit
            self._next = (self._next + 1) % self._rows.shape[0]
            self._count = min(self._count + 1, self._rows.shape[0])
            return corr, True
