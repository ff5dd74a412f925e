"""Small hand-made panels whose backtest answers are known."""

import numpy as np
import pytest

from tarnwicket.local.market_data import Panel, generate_panel


def make_panel(returns: np.ndarray, sector=None, volume: float = 1e6) -> Panel:
    t_len, n = returns.shape
    close = 100.0 * np.cumprod(1.0 + returns, axis=0)
    if sector is None:
        sector = np.arange(n) % 3
    vol = np.full((t_len, n), volume)
    return Panel(
        dates=np.arange(t_len, dtype=np.int64) + 20200101,
        symbols=np.array([f"S{i}" for i in range(n)]),
        sector=np.asarray(sector, dtype=np.int64),
        open=close.copy(), high=close * 1.01, low=close * 0.99, close=close,
        volume=vol, vwap=close.copy(),
    )


def random_returns(t_len=300, n=12, seed=1, vol=0.01) -> np.ndarray:
    rng = np.random.default_rng(seed)
    r = rng.normal(0.0, vol, (t_len, n))
    r[0] = 0.0
    return r


@pytest.fixture(name="make_panel")
def _make_panel_fixture():
    return make_panel


@pytest.fixture(name="random_returns")
def _random_returns_fixture():
    return random_returns


@pytest.fixture(scope="session")
def synthetic_panel():
    return generate_panel(0)
