import math
import types

import pytest

import tarnwicket.search_templates as st

GOOD = dict(sharpe=1.5, fitness=1.0, returns=0.2, drawdown=0.1, turnover=0.3, margin=0.002, long_count=10,
            short_count=12, delta_exposure=0.01, max_weight=0.05)


def stats(**overrides):
    values = {**GOOD, **overrides}
    return types.SimpleNamespace(**{k: v for k, v in values.items() if v is not st._MISSING_BACKTEST_METRIC})


def test_constants():
    assert st._REQUIRED_BACKTEST_METRICS == tuple(GOOD)
    assert st._REQUIRED_BACKTEST_COUNT_METRICS == {"long_count", "short_count"}
    assert st._invalid_backtest_metric_reason("margin") == "invalid_backtest_metric_margin"


class TestRequiredMetrics:
    def test_collects_in_order_with_types(self):
        record, reason = st._collect_required_backtest_stats(stats(sharpe=2, long_count=12.0))
        assert reason is None and list(record) == list(GOOD)
        assert record["sharpe"] == 2.0 and type(record["sharpe"]) is float
        assert record["long_count"] == 12 and type(record["long_count"]) is int

    @pytest.mark.parametrize("attr, value", [
        ("margin", st._MISSING_BACKTEST_METRIC), ("margin", None), ("sharpe", True), ("sharpe", "1.0"),
        ("turnover", 10**400), ("drawdown", math.nan), ("returns", math.inf), ("long_count", 3.5),
    ])
    def test_each_kind_of_bad_value_names_the_metric(self, attr, value):
        value_, reason = st._required_backtest_metric_value(stats(**{attr: value}), attr)
        assert value_ is None and reason == f"invalid_backtest_metric_{attr}"

    def test_first_bad_metric_in_order_wins(self):
        assert st._collect_required_backtest_stats(stats(sharpe=None, margin=None)) == (
            None, "invalid_backtest_metric_sharpe")


class TestNormalisers:
    class ToList:
        def __init__(self, result=None, exc=None):
            self.result, self.exc = result, exc

        def tolist(self):
            if self.exc:
                raise self.exc
            return self.result

    @pytest.mark.parametrize("value, expected", [
        (None, [0.0]), ([], [0.0]), ((), [0.0]), (True, [0.0]), (3, [3.0]), ((1, 2), [1, 2]),
        ([math.nan], None), ("text", [0.0]),
    ])
    def test_factor_pnl(self, value, expected):
        result = st._normalize_factor_pnl(value)
        if expected is None:
            assert len(result) == 1 and math.isnan(result[0])
        else:
            assert result == expected

    def test_factor_pnl_list_is_copied(self):
        original = [1.0]
        assert st._normalize_factor_pnl(original) is not original

    def test_factor_pnl_through_tolist(self):
        produced = [1.0, 2.0]
        assert st._normalize_factor_pnl(self.ToList(produced)) is produced
        assert st._normalize_factor_pnl(self.ToList([])) == [0.0]
        assert st._normalize_factor_pnl(self.ToList(exc=RuntimeError())) == [0.0]
        assert st._normalize_factor_pnl(self.ToList((1, 2))) == [0.0]

    def test_per_column_stats(self):
        src = {"a": {"sharpe": 1}}
        out = st._normalize_per_column_stats(src)
        assert out == src and out is not src
        assert st._normalize_per_column_stats([("a", 1)]) == {}


class TestScalarGuards:
    def test_is_pnl_mi(self):
        assert st._is_pnl_mi_from_backtest_stats(types.SimpleNamespace(is_pnl_mi=2)) == 2.0
        for bad in (None, True, math.nan, "0.1"):
            with pytest.raises(ValueError, match="BacktestStats.is_pnl_mi must be a finite scalar number"):
                st._is_pnl_mi_from_backtest_stats(types.SimpleNamespace(is_pnl_mi=bad))
        with pytest.raises(ValueError):
            st._is_pnl_mi_from_backtest_stats(object())

    def test_is_finite_number_uses_exact_types(self):
        class MyFloat(float):
            pass

        assert st._is_finite_number(1) and st._is_finite_number(0.5)
        for bad in (True, math.inf, 10**400, MyFloat(1.0), "1"):
            assert not st._is_finite_number(bad)

    def test_non_finite_search_is_recursive_over_values_only(self):
        assert st._has_non_finite_number({"a": [{"b": math.nan}]})
        assert st._has_non_finite_number((1, 10**400))
        assert not st._has_non_finite_number({math.nan: 1, "t": "nan", "b": True})

    def test_disallowed_mi_fields_at_any_depth(self):
        assert st._has_disallowed_mi_contract_field({"x": [{"is_mi": 1}]})
        assert st._has_disallowed_mi_contract_field({"is_pnl_mi_values": None})
        assert st._has_disallowed_mi_contract_field([({"is_mi_values": []},)])
        assert not st._has_disallowed_mi_contract_field({"is_pnl_mi": 0.2, "v": "is_mi"})
