"""Yield statistics of a search, per function and per feature."""

from __future__ import annotations

import logging
from dataclasses import dataclass, field
from typing import Any

logger = logging.getLogger(__name__)

# Only the newest evaluations count; older history says little about the era.
DEFAULT_MAX_EVALUATIONS = 200_000


@dataclass
class SearchStatsResult:
    """Snapshot of search statistics.

    ``rows`` holds one map per function and per feature name:
    ``{"name", "type": "function" | "feature", "yield_rate", "evaluation_count"}``.
    """

    total_evaluations: int = 0
    rows: list = field(default_factory=list)
    total_passed: int = 0


def _pool_id(pool: Any) -> str | None:
    if isinstance(pool, dict):
        value = pool.get("signal_pool_id") or pool.get("name")
    else:
        value = getattr(pool, "signal_pool_id", None) or getattr(pool, "name", None)
    return value if isinstance(value, str) and value else None


def _resolve_pool_configs(era_config=None) -> list:
    """Signal pool configurations of an era config (record or object), or []."""
    if era_config is None:
        return []
    if isinstance(era_config, dict):
        pools = era_config.get("signal_pools")
    else:
        pools = getattr(era_config, "signal_pools", None)
        if not (isinstance(pools, (list, tuple)) and pools):
            data = getattr(era_config, "_data", None)
            if isinstance(data, dict):
                pools = data.get("signal_pools")
    if not isinstance(pools, (list, tuple)):
        return []
    return list(pools)


class SearchAnalytics:
    """Computes a ``SearchStatsResult`` from a tracker's signal evaluations."""

    def __init__(self, tracker, pool_configs, max_evaluations: int = DEFAULT_MAX_EVALUATIONS):
        if tracker is None:
            raise ValueError("SearchAnalytics needs a tracker")
        if pool_configs is None:
            pool_configs = []
        if not isinstance(pool_configs, (list, tuple)):
            raise TypeError(
                f"pool_configs must be a list, got {type(pool_configs).__name__}"
            )
        self._tracker = tracker
        self._pool_configs = list(pool_configs)
        self._pool_ids = [p for p in (_pool_id(c) for c in self._pool_configs) if p]
        self._max_evaluations = int(max_evaluations)

    @property
    def pool_ids(self) -> list[str]:
        return list(self._pool_ids)

    def get_search_stats(self) -> SearchStatsResult:
        outcomes = getattr(self._tracker, "iter_signal_outcomes", None)
        if not callable(outcomes):
            return SearchStatsResult()
        total = 0
        passed_total = 0
        functions: dict[str, list[int]] = {}
        features: dict[str, list[int]] = {}
        for passed, function_names, feature_names in outcomes(
            pool_ids=self._pool_ids or None, limit=self._max_evaluations
        ):
            total += 1
            passed_total += 1 if passed else 0
            for names, table in ((function_names, functions), (feature_names, features)):
                if not isinstance(names, list):
                    continue
                for name in set(n for n in names if isinstance(n, str) and n):
                    counts = table.setdefault(name, [0, 0])
                    counts[0] += 1
                    counts[1] += 1 if passed else 0
        rows = [
            _row(name, "function", counts) for name, counts in sorted(functions.items())
        ] + [_row(name, "feature", counts) for name, counts in sorted(features.items())]
        return SearchStatsResult(total_evaluations=total, rows=rows, total_passed=passed_total)


def _row(name: str, kind: str, counts: list[int]) -> dict:
    evaluated, passed = counts
    return {
        "name": name,
        "type": kind,
        "yield_rate": passed / evaluated if evaluated else 0.0,
        "evaluation_count": evaluated,
    }
