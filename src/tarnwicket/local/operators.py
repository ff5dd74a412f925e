"""The functions the local runtime can evaluate, with their vocabulary metadata.

Each operator takes its data inputs first (panels of shape (days, instruments)),
then its config values in schema order, and returns a new panel. Window
parameters are in trading days.
"""

from __future__ import annotations

from dataclasses import dataclass, field
from typing import Any, Callable

import numpy as np

from . import kernels as k


@dataclass(frozen=True)
class ConfigParam:
    name: str
    type: str                     # "int", "float", "bool" or "string"
    default: Any
    min: float | None = None
    max: float | None = None
    choices: tuple[str, ...] = ()

    def schema(self) -> dict:
        out: dict[str, Any] = {"type": self.type, "default": self.default}
        if self.min is not None:
            out["min"] = self.min
        if self.max is not None:
            out["max"] = self.max
        if self.choices:
            out["choices"] = list(self.choices)
        return out

    def check(self, value: Any, op_name: str) -> Any:
        """Validate a literal from a graph; return it in the operator's form."""
        where = f"{op_name}: config param {self.name!r}"
        if self.type == "int":
            if isinstance(value, bool) or not isinstance(value, (int, np.integer)):
                raise ValueError(f"{where} expects an int, got {value!r}")
            value = int(value)
        elif self.type == "float":
            if isinstance(value, bool) or not isinstance(value, (int, float, np.floating, np.integer)):
                raise ValueError(f"{where} expects a float, got {value!r}")
            value = float(value)
            if not np.isfinite(value):
                raise ValueError(f"{where} must be finite, got {value!r}")
        elif self.type == "bool":
            if not isinstance(value, (bool, np.bool_)):
                raise ValueError(f"{where} expects a bool, got {value!r}")
            return bool(value)
        else:
            if not isinstance(value, str) or (self.choices and value not in self.choices):
                raise ValueError(f"{where} expects one of {list(self.choices)!r}, got {value!r}")
            return value
        if (self.min is not None and value < self.min) or (self.max is not None and value > self.max):
            raise ValueError(f"{where} value {value!r} outside [{self.min}, {self.max}]")
        return value


@dataclass(frozen=True)
class Operator:
    name: str
    kind: str                     # "rotation", "filtration" or "reduction"
    family: str
    subfamily: str | None
    data_params: tuple[str, ...]
    config: tuple[ConfigParam, ...]
    fn: Callable[..., np.ndarray]
    stateful: bool = False
    description: str = ""
    extra: dict = field(default_factory=dict)

    def param_schema(self) -> dict:
        schema: dict[str, Any] = {name: {"type": "data"} for name in self.data_params}
        for p in self.config:
            schema[p.name] = p.schema()
        return schema


class PanelEnv:
    """What some operators need besides their inputs: groupings and liquidity."""

    def __init__(self, sector: np.ndarray, dollar_volume: np.ndarray):
        groups = int(sector.max()) + 1 if sector.size else 0
        self.sector_onehot = np.eye(groups)[sector] if groups else np.zeros((0, 0))
        self.liquidity_rank = k.cs_rank(k.ts_mean(dollar_volume, 20), ascending=False)
        self.n_instruments = sector.size


def _window(default: int, lo: int, hi: int) -> ConfigParam:
    return ConfigParam("window", "int", default, lo, hi)


def _ts(name, fn, default, lo, hi, sub, doc):
    return Operator(name, "rotation", "time_series", sub, ("x",), (_window(default, lo, hi),),
                    lambda env, x, w: fn(x, w), stateful=True, description=doc)


def _ts_delta(env, x, window, pct):
    prev = k.shift(x, window)
    return k.safe_div(x - prev, np.abs(prev)) if pct else x - prev


def _group_neutralize(env, x, group):
    return k.group_demean(x, env.sector_onehot) if group == "sector" else k.cs_demean(x)


def _liquid_only(env, x, top):
    keep = env.liquidity_rank * max(env.n_instruments - 1, 1) < top
    return np.where(keep, x, np.nan)


def _price_above(env, x, floor):
    return np.where(x > floor, x, np.nan)


OPERATORS: tuple[Operator, ...] = (
    # time series, stateful: each keeps a lookback window of days
    _ts("delay", k.shift, 1, 1, 20, "lag", "value a number of days ago"),
    Operator("ts_delta", "rotation", "time_series", "difference", ("x",),
             (_window(5, 1, 60), ConfigParam("pct", "bool", False)), _ts_delta, stateful=True,
             description="change over a window, absolute or relative"),
    _ts("ts_mean", k.ts_mean, 20, 2, 120, "smoothing", "rolling mean"),
    _ts("ts_std", k.ts_std, 20, 2, 120, "dispersion", "rolling standard deviation"),
    _ts("ts_rank", k.ts_rank, 10, 3, 60, "normalisation", "rank of today within the window"),
    _ts("ts_zscore", k.ts_zscore, 20, 3, 120, "normalisation", "rolling z-score"),
    _ts("ts_decay", k.ts_decay, 10, 2, 60, "smoothing", "linearly decaying mean"),
    _ts("ts_max", k.ts_max, 10, 2, 60, "extremum", "rolling maximum"),
    _ts("ts_min", k.ts_min, 10, 2, 60, "extremum", "rolling minimum"),
    Operator("ts_corr", "rotation", "time_series", "dependence", ("x", "y"), (_window(20, 5, 120),),
             lambda env, x, y, w: k.ts_corr(x, y, w), stateful=True,
             description="rolling correlation of two inputs"),
    # cross-sectional
    Operator("rank", "rotation", "cross_sectional", "normalisation", ("x",),
             (ConfigParam("ascending", "bool", True),), lambda env, x, asc: k.cs_rank(x, asc),
             description="rank across instruments, scaled to [0, 1]"),
    Operator("zscore", "rotation", "cross_sectional", "normalisation", ("x",), (),
             lambda env, x: k.cs_zscore(x), description="z-score across instruments"),
    Operator("demean", "rotation", "cross_sectional", "neutralisation", ("x",), (),
             lambda env, x: k.cs_demean(x), description="subtract the daily mean"),
    Operator("scale", "rotation", "cross_sectional", "normalisation", ("x",), (),
             lambda env, x: k.cs_scale(x), description="scale to unit gross per day"),
    Operator("winsorize", "rotation", "cross_sectional", "clipping", ("x",),
             (ConfigParam("limit", "float", 3.0, 0.5, 10.0),),
             lambda env, x, lim: k.cs_winsorize(x, lim), description="clip at mean +/- limit std"),
    Operator("group_neutralize", "rotation", "cross_sectional", "neutralisation", ("x",),
             (ConfigParam("group", "string", "sector", choices=("sector", "market")),),
             _group_neutralize, description="demean within a grouping"),
    # arithmetic
    Operator("add", "rotation", "arithmetic", "binary", ("x", "y"), (), lambda env, x, y: x + y),
    Operator("sub", "rotation", "arithmetic", "binary", ("x", "y"), (), lambda env, x, y: x - y),
    Operator("mul", "rotation", "arithmetic", "binary", ("x", "y"), (), lambda env, x, y: x * y),
    Operator("div", "rotation", "arithmetic", "binary", ("x", "y"), (),
             lambda env, x, y: k.safe_div(x, y), description="division, NaN where |y| is ~0"),
    Operator("abs", "rotation", "arithmetic", "unary", ("x",), (), lambda env, x: np.abs(x)),
    Operator("sign", "rotation", "arithmetic", "unary", ("x",), (), lambda env, x: np.sign(x)),
    Operator("log1p", "rotation", "arithmetic", "unary", ("x",), (),
             lambda env, x: k.signed_log1p(x), description="sign(x) * log(1 + |x|)"),
    Operator("signed_power", "rotation", "arithmetic", "unary", ("x",),
             (ConfigParam("exponent", "float", 2.0, 0.25, 4.0),),
             lambda env, x, e: k.signed_power(x, e), description="sign(x) * |x| ** exponent"),
    # filtrations (no subfamily) and reductions
    Operator("liquid_only", "filtration", "liquidity", None, ("x",),
             (ConfigParam("top", "int", 30, 1, 50),), _liquid_only,
             description="keep the most liquid instruments"),
    Operator("price_above", "filtration", "price", None, ("x",),
             (ConfigParam("floor", "float", 5.0, 0.0, 1000.0),), _price_above,
             description="keep values above a floor"),
    Operator("cs_mean", "reduction", "cross_sectional", "mean", ("x",), (),
             lambda env, x: k.cs_mean(x), description="daily mean across instruments"),
    Operator("cs_median", "reduction", "cross_sectional", "median", ("x",), (),
             lambda env, x: k.cs_median(x), description="daily median across instruments"),
)

OPERATORS_BY_NAME: dict[str, Operator] = {op.name: op for op in OPERATORS}
