"""The backtest metric contract: each metric's checks, the factor series and the
nested-data walkers, on ordinary values and against hostile stats objects and data."""

import math
import types

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st

from fakes import hostile_data as hd
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


# ---------------------------------------------------------------- the walkers against a plain reference

REQUIRED = list(st._REQUIRED_BACKTEST_METRICS)
BAD_KEYS = {"is_pnl_mi_values", "is_mi_values", "is_mi"}


def ref_is_finite(v):
    if type(v) not in (int, float):
        return False
    try:
        return math.isfinite(float(v))
    except OverflowError:
        return False


def ref_non_finite(v):
    if type(v) in (int, float):
        return not ref_is_finite(v)
    if isinstance(v, dict):
        return any(ref_non_finite(x) for x in v.values())
    if isinstance(v, (list, tuple)):
        return any(ref_non_finite(x) for x in v)
    return False


def ref_disallowed(v):
    if isinstance(v, dict):
        return any((isinstance(k, str) and k in BAD_KEYS) or ref_disallowed(x) for k, x in v.items())
    if isinstance(v, (list, tuple)):
        return any(ref_disallowed(x) for x in v)
    return False


WALKERS = [st._has_non_finite_number, st._has_disallowed_mi_contract_field, st._is_finite_number,
           st._normalize_factor_pnl, st._normalize_per_column_stats]


@given(hd.plain_nested())
def test_walkers_answer_as_the_python_code_on_ordinary_data(value):
    assert st._has_non_finite_number(value) is ref_non_finite(value)
    assert st._has_disallowed_mi_contract_field(value) is ref_disallowed(value)
    assert st._is_finite_number(value) is ref_is_finite(value)


@given(hs.data(), hd.nested())
def test_walkers_survive_hostile_data(data, value):
    hd.arm(data, value)
    for fn in WALKERS:
        hd.ordinary_outcome(fn, value)


def stats_objects():
    values = hs.one_of(hd.leaves(), hs.sampled_from([0.5, 3, 3.0, 3.5]))
    return hs.dictionaries(hs.sampled_from(REQUIRED + ["is_pnl_mi", "factor_pnl", "per_column_stats"]), values)


@given(hs.data(), stats_objects())
def test_collecting_hostile_stats_gives_a_pair_or_an_ordinary_error(data, attrs):
    stats = types.SimpleNamespace(**attrs)
    name = data.draw(hd.leaves())
    hd.arm(data, [list(attrs.values()), name], extra=[stats.__dict__])
    outcome, result = hd.ordinary_outcome(st._collect_required_backtest_stats, stats)
    if outcome == "ok":
        record, reason = result
        assert (record is None) != (reason is None)
    for attr in REQUIRED[:3]:
        hd.ordinary_outcome(st._required_backtest_metric_value, stats, attr)
    hd.ordinary_outcome(st._is_pnl_mi_from_backtest_stats, stats)
    hd.ordinary_outcome(st._invalid_backtest_metric_reason, name)


@given(hs.fixed_dictionaries({k: hs.one_of(hs.floats(allow_nan=True), hs.integers(), hs.booleans(), hs.none())
                              for k in REQUIRED}))
def test_collected_record_is_the_finite_metrics_in_order(attrs):
    record, reason = st._collect_required_backtest_stats(types.SimpleNamespace(**attrs))
    bad = [k for k in REQUIRED if isinstance(attrs[k], bool) or not ref_is_finite(attrs[k])
           or (k.endswith("_count") and float(attrs[k]) != math.floor(float(attrs[k])))]
    if bad:
        assert (record, reason) == (None, "invalid_backtest_metric_" + bad[0])
    else:
        # Values come back as doubles, counts as the integer form of their double.
        as_double = {k: int(float(v)) if k.endswith("_count") else float(v) for k, v in attrs.items()}
        assert reason is None and list(record) == REQUIRED and record == as_double
        assert all(type(record[k]) is (int if k.endswith("_count") else float) for k in REQUIRED)


@pytest.mark.parametrize("fn", [st._has_non_finite_number, st._has_disallowed_mi_contract_field])
@pytest.mark.parametrize("make", [hd.deep_list, hd.deep_dict, hd.cyclic_dict, hd.cyclic_list])
def test_deep_and_cyclic_nesting_ends_in_recursion_error(fn, make):
    with pytest.raises(RecursionError):
        fn(make())


def test_names_list_shrunk_while_collecting_ends_the_walk(monkeypatch):
    names = ["sharpe", "fitness", "returns"]
    monkeypatch.setattr(st, "_REQUIRED_BACKTEST_METRICS", names)

    class Stats:
        fitness = returns = 1.0

        @property
        def sharpe(self):
            names.clear()
            return 2

    assert st._collect_required_backtest_stats(Stats()) == ({"sharpe": 2.0}, None)


def test_list_emptied_by_a_nested_iteration_is_walked_safely():
    outer = []
    inner = hd.ShrinkingList([1.0])
    inner.victims = [outer]
    outer.extend([inner] + [float("nan")] * 8)
    # As `any(...)` over the live list: the walk ends where the list now ends.
    assert st._has_non_finite_number(outer) is False
    outer.extend([inner, {"is_mi": 1}])
    assert st._has_disallowed_mi_contract_field(outer) is False


def test_failing_len_of_a_list_subclass_reaches_the_caller():
    with pytest.raises(hd.Boom):
        st._normalize_factor_pnl(hd.BadLen([1.0]))
    with pytest.raises(hd.Boom):
        st._normalize_factor_pnl(types.SimpleNamespace(tolist=lambda: hd.BadLen()))


def test_reason_texts_keep_any_attribute_name():
    assert st._invalid_backtest_metric_reason("\udc80") == "invalid_backtest_metric_\udc80"
    assert st._invalid_backtest_metric_reason(7) == "invalid_backtest_metric_7"
