"""Vectorised NumPy kernels over (days, instruments) panels.

Conventions: NaN marks a missing value. Time-series kernels need a full window of
valid values and give NaN otherwise; cross-sectional kernels work on the valid
entries of each day. No kernel writes into its inputs.
"""

from __future__ import annotations

import math

import numpy as np
from numpy.lib.stride_tricks import sliding_window_view

_EPS = 1e-12


def _window_sums(x: np.ndarray, window: int, *powers: int) -> tuple[np.ndarray, list[np.ndarray]]:
    """Rolling count of valid values and rolling sums of x**p, by cumulative sums."""
    valid = np.isfinite(x)
    filled = np.where(valid, x, 0.0)
    t_len = x.shape[0]

    def rolling(a: np.ndarray) -> np.ndarray:
        c = np.cumsum(a, axis=0, dtype=np.float64)
        out = c.copy()
        if window < t_len:
            out[window:] = c[window:] - c[:-window]
        return out

    count = rolling(valid.astype(np.float64))
    sums = [rolling(filled if p == 1 else filled ** p) for p in powers]
    full = count >= window - 0.5
    full[: window - 1] = False
    return full, sums


def shift(x: np.ndarray, lag: int) -> np.ndarray:
    out = np.full_like(x, np.nan)
    if lag < x.shape[0]:
        out[lag:] = x[: x.shape[0] - lag]
    return out


def ts_mean(x: np.ndarray, window: int) -> np.ndarray:
    full, (s,) = _window_sums(x, window, 1)
    return np.where(full, s / window, np.nan)


def ts_sum(x: np.ndarray, window: int) -> np.ndarray:
    full, (s,) = _window_sums(x, window, 1)
    return np.where(full, s, np.nan)


def ts_std(x: np.ndarray, window: int) -> np.ndarray:
    full, (s, s2) = _window_sums(x, window, 1, 2)
    mean = s / window
    var = np.maximum(s2 / window - mean * mean, 0.0)
    return np.where(full, np.sqrt(var), np.nan)


def ts_zscore(x: np.ndarray, window: int) -> np.ndarray:
    full, (s, s2) = _window_sums(x, window, 1, 2)
    mean = s / window
    std = np.sqrt(np.maximum(s2 / window - mean * mean, 0.0))
    with np.errstate(invalid="ignore", divide="ignore"):
        z = np.where(std > _EPS * (1.0 + np.abs(mean)), (x - mean) / std, 0.0)
    return np.where(full & np.isfinite(x), z, np.nan)


def ts_corr(x: np.ndarray, y: np.ndarray, window: int) -> np.ndarray:
    both = np.isfinite(x) & np.isfinite(y)
    xm = np.where(both, x, np.nan)
    ym = np.where(both, y, np.nan)
    full, (sx, sxx) = _window_sums(xm, window, 1, 2)
    _, (sy, syy) = _window_sums(ym, window, 1, 2)
    _, (sxy,) = _window_sums(np.where(both, x * y, np.nan), window, 1)
    n = float(window)
    cov = sxy / n - (sx / n) * (sy / n)
    vx = sxx / n - (sx / n) ** 2
    vy = syy / n - (sy / n) ** 2
    denom = np.sqrt(np.maximum(vx, 0.0) * np.maximum(vy, 0.0))
    with np.errstate(invalid="ignore", divide="ignore"):
        r = np.where(denom > _EPS, cov / denom, 0.0)
    return np.where(full, np.clip(r, -1.0, 1.0), np.nan)


def _windows(x: np.ndarray, window: int) -> np.ndarray:
    return sliding_window_view(x, window, axis=0)   # (T - w + 1, N, w)


def _pad_front(core: np.ndarray, t_len: int) -> np.ndarray:
    out = np.full((t_len,) + core.shape[1:], np.nan)
    out[t_len - core.shape[0]:] = core
    return out


def ts_rank(x: np.ndarray, window: int) -> np.ndarray:
    """Rank of today's value within the trailing window, in [0, 1]; ties count half."""
    if window > x.shape[0]:
        return np.full_like(x, np.nan)
    win = _windows(x, window)
    last = win[..., -1:]
    below = (win < last).sum(axis=-1)
    equal = (win == last).sum(axis=-1) - 1
    rank = (below + 0.5 * equal) / max(window - 1, 1)
    rank = np.where(np.isfinite(win).all(axis=-1), rank, np.nan)
    return _pad_front(rank, x.shape[0])


def ts_decay(x: np.ndarray, window: int) -> np.ndarray:
    """Linearly decaying weighted mean, the newest value weighted most."""
    if window > x.shape[0]:
        return np.full_like(x, np.nan)
    weights = np.arange(1, window + 1, dtype=np.float64)
    weights /= weights.sum()
    # Oldest day first, one day at a time: a fixed order of sums, which a
    # matrix product does not promise.
    win = _windows(x, window)
    out = win[..., 0] * weights[0]
    for j in range(1, window):
        out = out + win[..., j] * weights[j]
    return _pad_front(out, x.shape[0])


def ts_max(x: np.ndarray, window: int) -> np.ndarray:
    if window > x.shape[0]:
        return np.full_like(x, np.nan)
    return _pad_front(_windows(x, window).max(axis=-1), x.shape[0])


def ts_min(x: np.ndarray, window: int) -> np.ndarray:
    if window > x.shape[0]:
        return np.full_like(x, np.nan)
    return _pad_front(_windows(x, window).min(axis=-1), x.shape[0])


# ---------------------------------------------------------------- cross-section

def _row_moments(x: np.ndarray) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    valid = np.isfinite(x)
    count = valid.sum(axis=1, keepdims=True)
    filled = np.where(valid, x, 0.0)
    safe = np.maximum(count, 1)
    mean = filled.sum(axis=1, keepdims=True) / safe
    var = (np.where(valid, (x - mean) ** 2, 0.0)).sum(axis=1, keepdims=True) / safe
    return valid, mean, np.sqrt(var)


def cs_rank(x: np.ndarray, ascending: bool = True) -> np.ndarray:
    """Average-tie rank per day scaled to [0, 1]; a day with one value gets 0.5."""
    t_len, n = x.shape
    valid = np.isfinite(x)
    order = np.argsort(np.where(valid, x, np.inf), axis=1, kind="stable")
    s = np.take_along_axis(np.where(valid, x, np.inf), order, axis=1)
    idx = np.broadcast_to(np.arange(n), (t_len, n))
    new_group = np.ones((t_len, n), dtype=bool)
    new_group[:, 1:] = s[:, 1:] != s[:, :-1]
    start = np.maximum.accumulate(np.where(new_group, idx, 0), axis=1)
    end_group = np.ones((t_len, n), dtype=bool)
    end_group[:, :-1] = new_group[:, 1:]
    end = np.minimum.accumulate(np.where(end_group, idx, n)[:, ::-1], axis=1)[:, ::-1]
    avg = (start + end) / 2.0
    ranks = np.empty((t_len, n))
    np.put_along_axis(ranks, order, avg, axis=1)
    count = valid.sum(axis=1, keepdims=True)
    with np.errstate(invalid="ignore", divide="ignore"):
        scaled = np.where(count > 1, ranks / np.maximum(count - 1, 1), 0.5)
    if not ascending:
        scaled = 1.0 - scaled
    return np.where(valid, scaled, np.nan)


def cs_zscore(x: np.ndarray) -> np.ndarray:
    valid, mean, std = _row_moments(x)
    with np.errstate(invalid="ignore", divide="ignore"):
        z = np.where(std > _EPS * (1.0 + np.abs(mean)), (x - mean) / std, 0.0)
    return np.where(valid, z, np.nan)


def cs_demean(x: np.ndarray) -> np.ndarray:
    valid, mean, _ = _row_moments(x)
    return np.where(valid, x - mean, np.nan)


def cs_scale(x: np.ndarray) -> np.ndarray:
    valid = np.isfinite(x)
    gross = np.where(valid, np.abs(x), 0.0).sum(axis=1, keepdims=True)
    with np.errstate(invalid="ignore", divide="ignore"):
        out = np.where(gross > _EPS, x / gross, 0.0)
    return np.where(valid, out, np.nan)


def cs_winsorize(x: np.ndarray, limit: float) -> np.ndarray:
    valid, mean, std = _row_moments(x)
    return np.where(valid, np.clip(x, mean - limit * std, mean + limit * std), np.nan)


def group_demean(x: np.ndarray, onehot: np.ndarray) -> np.ndarray:
    """Demean within groups; ``onehot`` is (instruments, groups)."""
    valid = np.isfinite(x)
    filled = np.where(valid, x, 0.0)
    # Each group's sum adds its members in order: a fixed order of sums,
    # which a matrix product does not promise.
    sums = np.zeros((x.shape[0], onehot.shape[1]))
    for i, g in enumerate(onehot.argmax(axis=1)):
        sums[:, g] += filled[:, i]
    counts = valid.astype(np.float64) @ onehot
    with np.errstate(invalid="ignore", divide="ignore"):
        means = np.where(counts > 0, sums / counts, 0.0)
    return np.where(valid, x - means @ onehot.T, np.nan)


def cs_mean(x: np.ndarray) -> np.ndarray:
    valid, mean, _ = _row_moments(x)
    any_valid = valid.any(axis=1, keepdims=True)
    return np.broadcast_to(np.where(any_valid, mean, np.nan), x.shape).copy()


def cs_median(x: np.ndarray) -> np.ndarray:
    valid = np.isfinite(x)
    med = np.full((x.shape[0], 1), np.nan)
    rows = valid.any(axis=1)
    if rows.any():
        with np.errstate(all="ignore"):
            med[rows, 0] = np.nanmedian(x[rows], axis=1)
    return np.broadcast_to(med, x.shape).copy()


# ---------------------------------------------------------------- arithmetic

def safe_div(x: np.ndarray, y: np.ndarray) -> np.ndarray:
    with np.errstate(invalid="ignore", divide="ignore"):
        return np.where(np.abs(y) > _EPS, x / y, np.nan)


# pow and log1p come from the C library, element by element, as in the native
# kernels: on some processors NumPy's own vectorised versions differ from it in
# the last bit, and the reference must give one answer on every machine.
def _c_pow(base: float, exponent: float) -> float:
    try:
        return math.pow(base, exponent)
    except OverflowError:
        return math.inf
    except ValueError:  # a negative base under a fractional exponent
        return math.nan


_C_POW = np.frompyfunc(_c_pow, 2, 1)
_C_LOG1P = np.frompyfunc(math.log1p, 1, 1)


def signed_log1p(x: np.ndarray) -> np.ndarray:
    return np.sign(x) * _C_LOG1P(np.abs(x)).astype(np.float64)


def signed_power(x: np.ndarray, exponent: float) -> np.ndarray:
    a = np.abs(x)
    with np.errstate(over="ignore", invalid="ignore"):
        if exponent == 2.0:
            powered = a * a
        elif exponent == 0.5:
            powered = np.sqrt(a)
        else:
            powered = _C_POW(a, exponent).astype(np.float64)
        out = np.sign(x) * powered
    return np.where(np.isfinite(out), out, np.nan)
