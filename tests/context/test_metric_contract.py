import math
import types

import pytest

import tarnwicket.search_templates as st

from fakes.context_fakes import make_stats


@pytest.mark.parametrize("attr, value", [
    ("margin", Ellipsis), ("margin", None), ("sharpe", True), ("sharpe", "1.0"),
    ("turnover", 10**400), ("drawdown", math.nan), ("returns", math.inf), ("long_count", 3.5),
])
def test_each_kind_of_bad_metric_is_named(attr, value):
    assert st._required_backtest_metric_value(make_stats(**{attr: value}), attr) == (
        None, f"invalid_backtest_metric_{attr}")


class ToList:
    def __init__(self, result=None, exc=None):
        self.result, self.exc = result, exc

    def tolist(self):
        if self.exc:
            raise self.exc
        return self.result


@pytest.mark.parametrize("value, expected", [
    (None, [0.0]), ([], [0.0]), ((), [0.0]), (True, [0.0]), (3, [3.0]), ((1, 2), [1, 2]), ("text", [0.0]),
    (ToList([]), [0.0]), (ToList(exc=RuntimeError()), [0.0]), (ToList((1, 2)), [0.0]),
])
def test_factor_pnl(value, expected):
    assert st._normalize_factor_pnl(value) == expected


def test_factor_pnl_identity_nan_and_per_column_stats():
    original, produced = [1.0], [1.0, 2.0]
    assert st._normalize_factor_pnl(original) is not original
    assert st._normalize_factor_pnl(ToList(produced)) is produced
    assert math.isnan(st._normalize_factor_pnl([math.nan])[0])
    src = {"a": {"sharpe": 1}}
    out = st._normalize_per_column_stats(src)
    assert out == src and out is not src and st._normalize_per_column_stats([("a", 1)]) == {}


def test_is_pnl_mi():
    assert st._is_pnl_mi_from_backtest_stats(types.SimpleNamespace(is_pnl_mi=2)) == 2.0
    for bad in (types.SimpleNamespace(is_pnl_mi=b) for b in (None, True, math.nan, "0.1")):
        with pytest.raises(ValueError, match="^BacktestStats.is_pnl_mi must be a finite scalar number$"):
            st._is_pnl_mi_from_backtest_stats(bad)
    with pytest.raises(ValueError):
        st._is_pnl_mi_from_backtest_stats(object())


class MyFloat(float):
    pass


@pytest.mark.parametrize("fn, value, expected", [
    (st._is_finite_number, 1, True), (st._is_finite_number, 0.5, True), (st._is_finite_number, True, False),
    (st._is_finite_number, math.inf, False), (st._is_finite_number, 10**400, False),
    (st._is_finite_number, MyFloat(1.0), False), (st._is_finite_number, "1", False),
    (st._has_non_finite_number, {"a": [{"b": math.nan}]}, True), (st._has_non_finite_number, (1, 10**400), True),
    (st._has_non_finite_number, {math.nan: 1, "t": "nan", "b": True}, False),
    (st._has_disallowed_mi_contract_field, {"x": [{"is_mi": 1}]}, True),
    (st._has_disallowed_mi_contract_field, {"is_pnl_mi_values": None}, True),
    (st._has_disallowed_mi_contract_field, [({"is_mi_values": []},)], True),
    (st._has_disallowed_mi_contract_field, {"is_pnl_mi": 0.2, "v": "is_mi"}, False),
])
def test_scalar_and_recursive_guards(fn, value, expected):
    assert bool(fn(value)) is expected
