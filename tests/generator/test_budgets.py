import math
import types

import pytest

import tarnwicket.search_templates as st


def era_ctx(**fields):
    return types.SimpleNamespace(era_config=types.SimpleNamespace(**fields))


@pytest.mark.parametrize(
    "value, default, expected",
    [("nan", 2.0, 2.0), (True, 2.0, 1.0), ("1.5", 0, 1.5), (None, 3, 3), (math.inf, 0, 0), (10**400, 7, 7), (4, 0, 4.0)],
)
def test_float_coercion(value, default, expected):
    result = st._random_weighted_float(value, default)
    assert result == expected and type(result) is type(expected)


@pytest.mark.parametrize(
    "value, default, expected",
    [(True, 2, 2), ("7", 0, 7), (3.9, 0, 3), (-3.9, 0, -3), (math.nan, 5, 5), (math.inf, 5, 5), ("7.5", 1, 1),
     (None, 4, 4), (10**30, 0, 10**30), (b"12", 0, 12)],
)
def test_int_coercion(value, default, expected):
    assert st._random_weighted_int(value, default) == expected


@pytest.mark.parametrize("value, expected", [(0, 9), (-1, 9), (False, 9), ("3", 3), (2.5, 2)])
def test_positive_int(value, expected):
    assert st._random_weighted_positive_int(value, 9) == expected


@pytest.mark.parametrize("value, expected", [(-5, -1.0), (1e9, 1000.0), (None, 0.0), ("0.5", 0.5), (math.nan, 0.0),
                                             (math.inf, 0.0), (-1.0, -1.0), (999.5, 999.5)])
def test_safe_yield_rate(value, expected):
    assert st._random_weighted_safe_yield_rate(value) == expected


@pytest.mark.parametrize("value, expected", [(math.nan, False), (math.inf, False), (-math.inf, False), (1, True),
                                             ("x", True), (10**400, True)])
def test_is_finite_number_makes_no_conversion(value, expected):
    assert st._random_weighted_is_finite_number(value) is expected


@pytest.mark.parametrize("raw, expected", [(0, 100), (-4, 100), (True, 100), ("abc", 100), (None, 100), (5000, 1000),
                                           (7.9, 7), ("250", 250)])
def test_node_limit(raw, expected):
    assert st._random_weighted_node_limit(era_ctx(max_node_count=raw)) == expected


def test_era_value_candidates():
    ctx = types.SimpleNamespace(era_config=types.SimpleNamespace(), _era_config=types.SimpleNamespace(max_node_count=9))
    assert st._random_weighted_era_value(ctx, "max_node_count", 1) == 9
    ctx.era_config.max_node_count = None
    assert st._random_weighted_era_value(ctx, "max_node_count", 1) is None
    assert st._random_weighted_node_limit(ctx) == 100
    assert st._random_weighted_era_value(types.SimpleNamespace(), "x", "d") == "d"


@pytest.mark.parametrize("buffer, depth, expected", [(None, 6, 3360), (10, 50, 1), (20160, 0, 20160), ("100", 3, 33),
                                                     (-5, 2, 10080)])
def test_window_limit(buffer, depth, expected):
    ctx = era_ctx(buffer_duration_minutes=buffer) if buffer is not None else types.SimpleNamespace()
    assert st._random_weighted_window_limit(ctx, depth) == expected


SPEC_2_1 = {"name": "r", "data_params": [{}, {}], "config_children": [{"type": "int", "node": 1}]}


def test_worst_case_counts_and_depth_cap():
    counts = [st._random_weighted_worst_case_node_count([SPEC_2_1], d, 1000) for d in range(1, 8)]
    assert counts == [1, 4, 10, 22, 46, 94, 190]
    assert st._random_weighted_worst_case_node_count([SPEC_2_1], 7, 100) == 101
    assert st._random_weighted_max_depth_within_node_budget([SPEC_2_1], 7, 100) == 6
    assert st._random_weighted_max_depth_within_node_budget([SPEC_2_1], 4, 100) == 4


def test_worst_case_takes_maxima_independently():
    a = {"data_params": [{}, {}], "config_children": []}
    b = {"data_params": [{}], "config_children": [{}, {}]}
    assert st._random_weighted_worst_case_node_count([a, b], 2, 100) == 5
    with pytest.raises(ValueError):
        st._random_weighted_worst_case_node_count([], 2, 100)


def test_depth_limits():
    one_input = {"data_params": [{}], "config_children": []}
    assert st._random_weighted_max_depth_within_node_budget([one_input], 500, 1000) == 128
    assert st._random_weighted_max_depth_within_node_budget([SPEC_2_1], 6, 1) == 1
    assert st._random_weighted_max_depth_within_node_budget([], 6, 100) == 1
    assert st._random_weighted_worst_case_node_count([SPEC_2_1], 30, 10**40) == 3 * 2**29 - 2


def test_rotations_within_node_budget(info_log):
    fits = {"name": "fits", "data_params": [{}, {}], "config_children": []}
    big = {"name": "big", "data_params": [{}, {}], "config_children": [{}]}
    anonymous = {"data_params": [{}] * 4}
    assert st._random_weighted_min_node_count(fits) == 3 and st._random_weighted_min_node_count({}) == 1
    assert st._random_weighted_rotations_within_node_budget([fits, big, anonymous], 3) == [fits]
    assert info_log() == [
        "random_weighted excluded big from SIGNAL generation: minimum node count 4 exceeds node budget 3",
        "random_weighted excluded <unknown> from SIGNAL generation: minimum node count 5 exceeds node budget 3",
    ]
