"""Synthetic daily market data for the local universe.

The panel is drawn from a factor model: a market factor and sector factors with
volatility clustering, style factors, idiosyncratic noise with its own clustering,
per-instrument drift, and two weak effects that a search can find (a slowly
drifting alpha and a short-term reversal of idiosyncratic moves). Everything is
drawn from one ``numpy.random.Generator`` so a seed fixes the whole data set.

Arrays are time-major: shape (days, instruments).
"""

from __future__ import annotations

import os
import zipfile
import zlib
from dataclasses import dataclass, field

import numpy as np

from tarnwicket.errors import DamagedFile

from .files import write_atomically

UNIVERSE_ID = "universe_top50"
PANEL_FILE = "panel.npz"
PRICE_FIELDS = ("open", "high", "low", "close", "volume", "vwap")

N_INSTRUMENTS = 50
N_DAYS = 756          # three years of trading days
N_SECTORS = 5
LATE_LISTINGS = 2     # instruments that list part-way through the sample
ALPHA_VOL = 0.0007          # daily cross-sectional spread of the drifting alpha
ALPHA_PERSISTENCE = 0.993   # its day-to-day autocorrelation
LOW_VOL_PREMIUM = 0.02     # drift lost per unit of idiosyncratic volatility
VOLUME_ALPHA = 0.5          # weight of volume shocks in the alpha innovations
REVERSAL = -0.03            # share of yesterday's idiosyncratic move given back


@dataclass(frozen=True)
class Panel:
    dates: np.ndarray       # int64 YYYYMMDD, shape (T,)
    symbols: np.ndarray     # str, shape (N,)
    sector: np.ndarray      # int64 sector index, shape (N,)
    open: np.ndarray
    high: np.ndarray
    low: np.ndarray
    close: np.ndarray
    volume: np.ndarray
    vwap: np.ndarray
    extras: dict = field(default_factory=dict)   # further numeric columns of a user's data: name -> (T, N)

    @property
    def shape(self) -> tuple[int, int]:
        return self.close.shape


def _business_days(n: int, start: str = "2021-01-04") -> np.ndarray:
    days = np.busday_offset(np.datetime64(start), np.arange(n), roll="forward")
    text = np.datetime_as_string(days, unit="D")
    return np.array([int(d.replace("-", "")) for d in text], dtype=np.int64)


def _garch_vol(rng: np.random.Generator, shape: tuple[int, ...], daily_vol: np.ndarray | float,
               alpha: float = 0.08, beta: float = 0.90) -> tuple[np.ndarray, np.ndarray]:
    """Shocks with GARCH(1,1) volatility clustering; returns (shocks, sigma)."""
    t_len = shape[0]
    target = np.broadcast_to(np.asarray(daily_vol, dtype=float), shape[1:]).copy()
    omega = target ** 2 * (1.0 - alpha - beta)
    z = rng.standard_normal(shape)
    var = target ** 2
    shocks = np.empty(shape)
    sigma = np.empty(shape)
    for t in range(t_len):
        s = np.sqrt(var)
        sigma[t] = s
        shocks[t] = s * z[t]
        var = omega + alpha * shocks[t] ** 2 + beta * var
    return shocks, sigma


def generate_panel(seed: int = 0, n_instruments: int = N_INSTRUMENTS, n_days: int = N_DAYS) -> Panel:
    rng = np.random.default_rng(seed)
    n, t_len = n_instruments, n_days

    sector = np.arange(n) % N_SECTORS
    rng.shuffle(sector)

    # Factor returns: market, sectors, two styles.
    market, _ = _garch_vol(rng, (t_len,), 0.010)
    market = market + 0.0003
    sectors, _ = _garch_vol(rng, (t_len, N_SECTORS), 0.006)
    styles, _ = _garch_vol(rng, (t_len, 2), 0.004, alpha=0.05, beta=0.93)

    beta_mkt = rng.normal(1.0, 0.25, n)
    beta_sec = rng.normal(1.0, 0.2, n)
    beta_sty = rng.normal(0.0, 1.0, (n, 2))

    idio_vol = rng.uniform(0.010, 0.025, n)
    idio, idio_sigma = _garch_vol(rng, (t_len, n), idio_vol)

    # Slowly drifting alpha (an Ornstein-Uhlenbeck process) that volume shocks
    # push up, a low-volatility premium, and a short-term reversal of
    # yesterday's idiosyncratic move.
    drift = rng.normal(0.0002, 0.0003, n) - LOW_VOL_PREMIUM * (idio_vol - idio_vol.mean())
    vol_noise = np.empty((t_len, n))
    v = np.zeros(n)
    alpha = np.empty((t_len, n))
    a = rng.normal(0.0, ALPHA_VOL, n)
    innovation = ALPHA_VOL * np.sqrt(1 - ALPHA_PERSISTENCE ** 2)
    for t in range(t_len):
        v = 0.7 * v + rng.normal(0.0, 0.25, n)
        vol_noise[t] = v
        a = ALPHA_PERSISTENCE * a + innovation * (rng.standard_normal(n) + VOLUME_ALPHA * v / 0.35)
        alpha[t] = a
    reversal = np.zeros((t_len, n))
    reversal[1:] = REVERSAL * idio[:-1]

    ret = (market[:, None] * beta_mkt
           + sectors[:, sector] * beta_sec
           + styles @ beta_sty.T
           + idio + reversal + drift + alpha)

    start_price = np.exp(rng.uniform(np.log(15.0), np.log(400.0), n))
    close = start_price * np.exp(np.cumsum(ret, axis=0))
    prev_close = np.vstack([start_price[None, :], close[:-1]])

    gap_share = rng.uniform(0.2, 0.4, n)
    open_ = prev_close * np.exp(gap_share * ret + rng.normal(0.0, 0.002, (t_len, n)))
    spread = np.abs(rng.normal(0.0, 0.6, (t_len, n))) * idio_sigma
    high = np.maximum(open_, close) * np.exp(spread * rng.uniform(0.3, 1.0, (t_len, n)))
    low = np.minimum(open_, close) * np.exp(-spread * rng.uniform(0.3, 1.0, (t_len, n)))
    vwap = (high + low + 2.0 * close) / 4.0 * np.exp(rng.normal(0.0, 0.001, (t_len, n)))
    vwap = np.clip(vwap, low, high)

    base_volume = np.exp(rng.uniform(np.log(2e5), np.log(2e7), n))
    activity = np.log(idio_sigma / idio_vol) + 8.0 * np.abs(ret - market[:, None] * beta_mkt)
    volume = np.round(base_volume * np.exp(vol_noise + activity))

    # A few instruments list late: no data before their first day.
    for i in rng.choice(n, LATE_LISTINGS, replace=False):
        first = int(rng.integers(t_len // 6, t_len // 3))
        for arr in (open_, high, low, close, vwap, volume):
            arr[:first, i] = np.nan

    symbols = np.array([f"TW{i:03d}" for i in range(n)])
    return Panel(_business_days(t_len), symbols, sector.astype(np.int64),
                 open_, high, low, close, volume, vwap)


def panel_path(data_dir: str, universe_id: str = UNIVERSE_ID) -> str:
    return os.path.join(os.path.expanduser(data_dir), universe_id, PANEL_FILE)


def save_panel(panel: Panel, path: str) -> None:
    """Write atomically: a temporary file in the same directory, then rename."""
    arrays = {name: getattr(panel, name) for name in PRICE_FIELDS}
    arrays.update({EXTRA_PREFIX + name: values for name, values in panel.extras.items()})
    write_atomically(path, lambda fh: np.savez(fh, dates=panel.dates, symbols=panel.symbols, sector=panel.sector,
                                               **arrays))


REWRITE_ADVICE = "delete it to have the local data set written again"
EXTRA_PREFIX = "extra__"

_ZIP_MAGIC = (b"PK\x03\x04", b"PK\x05\x06")   # an archive with members, an empty one
# What can go wrong reading a damaged archive: a broken archive or member, bad
# compression, a truncated file, or a payload that is not an array file.
_UNREADABLE = (OSError, ValueError, EOFError, KeyError, zipfile.BadZipFile, zlib.error)


def _check_panel_arrays(arrays: dict) -> str | None:
    """What is wrong with the arrays of a panel file, or None when they form a panel."""
    missing = [name for name in ("dates", "symbols", "sector", *PRICE_FIELDS) if name not in arrays]
    if missing:
        return "lacks the arrays " + ", ".join(missing)
    dates, symbols, sector = arrays["dates"], arrays["symbols"], arrays["sector"]
    if dates.ndim != 1 or dates.dtype.kind not in "iu" or dates.size < 2:
        return "has no usable dates (expected two or more whole-number dates)"
    if np.any(np.diff(dates) <= 0):
        return "has dates that are not in increasing order"
    if symbols.ndim != 1 or symbols.size < 1:
        return "has no instruments"
    if sector.shape != symbols.shape or sector.dtype.kind not in "iu" or np.any(sector < 0):
        return "has a sector array that does not match its instruments"
    shape = (dates.size, symbols.size)
    for name in (*PRICE_FIELDS, *(n for n in arrays if n.startswith(EXTRA_PREFIX))):
        values = arrays[name]
        if values.shape != shape or values.dtype.kind not in "iuf":
            return f"has a {name} array of shape {values.shape}, expected {shape} numbers"
        if np.isinf(values).any():
            return f"has infinite {name} values"
    close = arrays["close"]
    known = close[~np.isnan(close)]
    if known.size == 0 or np.any(known <= 0):
        return "has no positive close prices" if known.size == 0 else "has close prices that are not positive"
    return None


def load_panel(path: str) -> Panel:
    """The panel in ``path``; ``DamagedFile`` when it is not a readable, well-formed panel."""
    with open(path, "rb") as fh:
        magic = fh.read(4)
    if magic not in _ZIP_MAGIC:
        raise DamagedFile(path, "is not a market data file (not an archive of arrays)", REWRITE_ADVICE)
    try:
        with np.load(path, allow_pickle=False) as npz:
            arrays = {name: npz[name] for name in npz.files}
    except _UNREADABLE as exc:
        raise DamagedFile(path, f"is not a readable market data file ({exc})", REWRITE_ADVICE) from None
    problem = _check_panel_arrays(arrays)
    if problem is not None:
        raise DamagedFile(path, problem, REWRITE_ADVICE)
    fields = {name: np.asarray(arrays[name], dtype=np.float64) for name in PRICE_FIELDS}
    extras = {name[len(EXTRA_PREFIX):]: np.asarray(values, dtype=np.float64)
              for name, values in arrays.items() if name.startswith(EXTRA_PREFIX)}
    return Panel(arrays["dates"], arrays["symbols"], arrays["sector"], **fields, extras=extras)
