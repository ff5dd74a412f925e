"""Feature panels derived from the market data, with their vocabulary metadata."""

from __future__ import annotations

import hashlib
from dataclasses import dataclass

import numpy as np

from . import kernels as k
from .market_data import Panel


@dataclass(frozen=True)
class FeatureInfo:
    name: str
    family: str
    subfamily: str
    rotation_families: tuple[str, ...]
    description: str


_ALL = ("time_series", "cross_sectional", "arithmetic")

FEATURES: tuple[FeatureInfo, ...] = (
    FeatureInfo("close", "price", "level", _ALL, "closing price"),
    FeatureInfo("open", "price", "level", _ALL, "opening price"),
    FeatureInfo("high", "price", "level", _ALL, "daily high"),
    FeatureInfo("low", "price", "level", _ALL, "daily low"),
    FeatureInfo("vwap", "price", "level", _ALL, "volume-weighted average price"),
    FeatureInfo("volume", "volume", "shares", _ALL, "shares traded"),
    FeatureInfo("dollar_volume", "volume", "notional", _ALL, "close times volume"),
    FeatureInfo("returns", "price", "return", _ALL, "close-to-close return"),
    FeatureInfo("gap", "price", "return", _ALL, "open over previous close, minus one"),
    FeatureInfo("range", "price", "volatility", _ALL, "(high - low) / close"),
    FeatureInfo("adv20", "volume", "notional", _ALL, "20-day mean dollar volume"),
)

FEATURE_NAMES = tuple(f.name for f in FEATURES)


def feature_infos(features: dict) -> list[FeatureInfo]:
    """The built-in features, then a user's own columns among ``features``."""
    own = [FeatureInfo(name, "custom", "column", _ALL, f"column {name} of your market data")
           for name in features if name not in FEATURE_NAMES]
    return [*FEATURES, *own]


def compute_features(panel: Panel) -> dict[str, np.ndarray]:
    """All feature panels, read-only, shape (days, instruments)."""
    prev_close = k.shift(panel.close, 1)
    dollar_volume = panel.close * panel.volume
    out = {
        "close": panel.close,
        "open": panel.open,
        "high": panel.high,
        "low": panel.low,
        "vwap": panel.vwap,
        "volume": panel.volume,
        "dollar_volume": dollar_volume,
        "returns": k.safe_div(panel.close, prev_close) - 1.0,
        "gap": k.safe_div(panel.open, prev_close) - 1.0,
        "range": k.safe_div(panel.high - panel.low, panel.close),
        "adv20": k.ts_mean(dollar_volume, 20),
        **panel.extras,
    }
    for name, arr in out.items():
        arr = np.array(arr, dtype=np.float64, copy=True)
        arr.setflags(write=False)
        out[name] = arr
    return out


def feature_stats(arr: np.ndarray) -> dict:
    finite = arr[np.isfinite(arr)]
    if finite.size == 0:
        return {"mean": 0.0, "std": 0.0, "pct_nan": 1.0, "min": 0.0, "max": 0.0}
    return {
        "mean": float(finite.mean()),
        "std": float(finite.std()),
        "pct_nan": float(1.0 - finite.size / arr.size),
        "min": float(finite.min()),
        "max": float(finite.max()),
    }


def feature_hash(name: str, universe_id: str, arr: np.ndarray) -> str:
    h = hashlib.sha256()
    h.update(f"{universe_id}/{name}/".encode())
    h.update(np.ascontiguousarray(np.nan_to_num(arr, nan=-1.0)).tobytes())
    return h.hexdigest()[:16]
