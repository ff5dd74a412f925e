"""The module's functions call one another through the module namespace, as
Python functions call their globals: a host that replaces a helper is obeyed
by every function of the module that uses it.

Each case replaces one helper with a spy that hands the call on to the original,
so the caller must reach the spy and still give exactly the answer it gives with
the helper in place.
"""
import math
import types

import pytest

import tarnwicket.search_templates as st

from fakes import hostile_data as hd

ROTATION = {"name": "f", "function_type": "rotation", "stateful": True, "arity": 1,
            "param_schema": [{"name": "x", "type": "data"}, {"name": "w", "type": "int", "min": 2, "max": 20}]}
SPEC = {"name": "f", "data_params": [{"name": "x", "type": "data"}], "config_children": [{"type": "int", "node": 5}]}
ERA = types.SimpleNamespace(era_config=types.SimpleNamespace(max_node_count=50, buffer_duration_minutes=600))
ANALYTICS = types.SimpleNamespace(rows=[
    {"name": "f", "yield_rate": 0.5, "evaluation_count": 3, "type": "function"},
    {"name": "x", "yield_rate": "0.25", "evaluation_count": 2.0, "type": "feature"},
    types.SimpleNamespace(group_key=(["f", "g"], ["x"]), windows=[types.SimpleNamespace(yield_rate=-0.2, evaluation_count=4)]),
])
STATS = {"f": {"yield_total": 1.0, "weight_total": 2.0, "evaluation_count": 2, "yield_rate": 0.5, "failure_rate": 0.5}}
WEIGHTS = {"f": {"cold_weight": 0.5, "warm_weight": 0.6, "warm_delta": 0.1}}
# the module's own functions, for the recursive walkers' cases
HAS_NON_FINITE, HAS_DISALLOWED = st._has_non_finite_number, st._has_disallowed_mi_contract_field


def rotation(**changes):
    return {**ROTATION, **changes}


def vocabulary():
    entry = {"name": "r", "function_type": "rotation", "function_family": "ts", "function_subfamily": "mean",
             "param_schema": {"x": "data"}}
    feature = {"name": "close", "function_type": "feature", "feature_family": "price", "feature_subfamily": "raw",
               "rotation_families": ["ts"], "feature_hash": "h",
               "stats": {"mean": 0, "std": 1, "pct_nan": 0, "min": 0, "max": 1}}
    return {"rotations": {"ts": {"mean": [entry]}}, "features": {"price": [feature]}}


# (helper replaced, the call that must reach it)
CASES = [
    ("_random_weighted_rotation_schema", lambda: st._random_weighted_function_safety([rotation()], False, 30)),
    ("_random_weighted_unsafe_function_reason",
     lambda: st._random_weighted_function_safety([rotation(function_type="filtration"), rotation(param_schema=None)], False)),
    ("_random_weighted_function_safety", lambda: st._random_weighted_safe_rotations([rotation()])),
    ("_random_weighted_declared_arity", lambda: st._random_weighted_rotation_schema(rotation())),
    ("_random_weighted_schema_params", lambda: st._random_weighted_rotation_schema(rotation())),
    ("_random_weighted_config_child", lambda: st._random_weighted_rotation_schema(rotation(), 30)),
    ("_random_weighted_param_dict", lambda: st._random_weighted_schema_params({"x": "data", "w": {"type": "int"}})),
    ("_random_weighted_int", lambda: st._random_weighted_declared_arity(rotation())),
    ("_random_weighted_int", lambda: st._random_weighted_positive_int("7", 1)),
    ("_random_weighted_window_bounded_param", lambda: st._random_weighted_config_child("f", {"name": "w", "type": "int"}, 30)),
    ("_random_weighted_numeric_default", lambda: st._random_weighted_config_child("f", {"name": "w", "type": "int", "min": 2, "max": 9})),
    ("_random_weighted_numeric_bounds_reason",
     lambda: st._random_weighted_config_child("f", {"name": "w", "type": "float", "default": 2.5, "min": 0})),
    ("_random_weighted_config_value_reason", lambda: st._random_weighted_config_child("f", {"name": "w", "type": "float", "default": 2.5})),
    ("_random_weighted_window_budget_reason",
     lambda: st._random_weighted_config_child("f", {"name": "w", "type": "int", "default": 40}, 30)),
    ("_random_weighted_first_choice", lambda: st._random_weighted_config_child("f", {"name": "s", "type": "string", "choices": ["a"]})),
    ("_random_weighted_numeric_bounds", lambda: st._random_weighted_numeric_default({"min": 1, "max": 4}, True)),
    ("_random_weighted_numeric_bounds", lambda: st._random_weighted_numeric_bounds_reason({"min": 1}, 0)),
    ("_random_weighted_numeric_range_label", lambda: st._random_weighted_numeric_bounds_reason({"min": 1}, 0)),
    ("_random_weighted_era_value", lambda: st._random_weighted_node_limit(ERA)),
    ("_random_weighted_positive_int", lambda: st._random_weighted_node_limit(ERA)),
    ("_random_weighted_buffer_duration_limit", lambda: st._random_weighted_window_limit(ERA, 4)),
    ("_random_weighted_min_node_count", lambda: st._random_weighted_rotations_within_node_budget([SPEC, SPEC], 3)),
    ("_random_weighted_worst_case_node_count", lambda: st._random_weighted_max_depth_within_node_budget([SPEC], 5, 40)),
    ("_random_weighted_feature_specs", lambda: st._random_weighted_feature_names([{"name": "x"}, {"name": "y"}])),
    ("_random_weighted_float", lambda: list(st._random_weighted_analytics_entries(ANALYTICS))),
    ("_random_weighted_int", lambda: list(st._random_weighted_analytics_entries(ANALYTICS))),
    ("_random_weighted_valid_names", lambda: list(st._random_weighted_analytics_entries(ANALYTICS))),
    *[(name, lambda: st._random_weighted_analytics_stats(ANALYTICS, ["f", "g"], None)) for name in (
        "_random_weighted_allowed_name_set", "_random_weighted_analytics_entries", "_random_weighted_skip_analytics_name",
        "_random_weighted_add_stat", "_random_weighted_finalize_stats", "_random_weighted_float",
        "_random_weighted_int", "_random_weighted_valid_names", "_random_weighted_safe_yield_rate")],
    *[(name, lambda: st._random_weighted_yield_maps(ANALYTICS)) for name in (
        "_random_weighted_analytics_stats", "_random_weighted_safe_yield_rate", "_random_weighted_add_stat")],
    ("_random_weighted_safe_yield_rate", lambda: st._random_weighted_add_stat({}, "f", 7.5, 3)),
    ("_random_weighted_int", lambda: st._random_weighted_add_stat({}, "f", 0.5, "3")),
    ("_random_weighted_safe_yield_rate", lambda: st._random_weighted_finalize_stats({"f": dict(STATS["f"])})),
    ("_random_weighted_float", lambda: st._random_weighted_finalize_stats({"f": dict(STATS["f"])})),
    ("_random_weighted_float", lambda: st._random_weighted_safe_yield_rate("0.5")),
    ("_random_weighted_safe_yield_rate", lambda: st._random_weighted_normalized_weights(["f", "g"], STATS)),
    ("_random_weighted_safe_yield_rate", lambda: st._random_weighted_weight_entry(WEIGHTS, STATS, "f")),
    ("_random_weighted_float", lambda: st._random_weighted_weight_entry(WEIGHTS, STATS, "f")),
    ("_random_weighted_weight_entry", lambda: st._random_weighted_function_weight_report([SPEC], WEIGHTS, STATS)),
    ("_random_weighted_safe_yield_rate", lambda: st._random_weighted_cum_weights(["f", "g"], {"f": 0.5})),
    ("_random_weighted_is_finite_number", lambda: st._random_weighted_cum_weights(["f", "g"], {"f": 0.5})),
    ("_invalid_backtest_metric_reason", lambda: st._required_backtest_metric_value(types.SimpleNamespace(), "sharpe")),
    ("_is_finite_number", lambda: st._is_pnl_mi_from_backtest_stats(types.SimpleNamespace(is_pnl_mi=0.5))),
    ("_is_finite_number", lambda: st._has_non_finite_number({"a": [1.0, 2]})),
    ("_has_non_finite_number", lambda: HAS_NON_FINITE({"a": [1.0, 2]})),
    ("_has_disallowed_mi_contract_field", lambda: HAS_DISALLOWED({"a": [{"b": 1}]})),
    ("_flatten_vocabulary_entries", lambda: st._normalize_template_vocabulary(vocabulary())),
    ("_validate_function_entry", lambda: st._normalize_template_vocabulary(vocabulary())),
    ("_validate_feature_entry", lambda: st._normalize_template_vocabulary(vocabulary())),
]


@pytest.mark.parametrize("helper, run", CASES, ids=[f"{helper}-{i}" for i, (helper, _) in enumerate(CASES)])
def test_a_replaced_helper_is_called_and_the_answer_is_unchanged(helper, run, monkeypatch):
    expected = run()
    original, calls = getattr(st, helper), []

    def spy(*args, **kwargs):
        calls.append(args)
        return original(*args, **kwargs)

    monkeypatch.setattr(st, helper, spy)
    assert run() == expected
    assert calls, f"{helper} was not looked up in the module"


ANSWERS = [None, -1, math.nan, 10**400, "", [], (1, 2), (1, 2, 3, 4, 5), {"safe": True}, object(), iter([1])]


@pytest.mark.parametrize("helper, run", CASES, ids=[f"{helper}-{i}" for i, (helper, _) in enumerate(CASES)])
def test_a_replacement_answering_anything_ends_in_an_ordinary_outcome(helper, run, monkeypatch):
    for answer in ANSWERS:
        monkeypatch.setattr(st, helper, lambda *args, _answer=answer, **kwargs: _answer)
        hd.ordinary_outcome(run)


def test_a_replaced_rotation_schema_decides_what_is_safe(monkeypatch):
    monkeypatch.setattr(st, "_random_weighted_rotation_schema",
                        lambda fn, window_limit=None, node_limit=None: {"safe": False, "reason": "held back"})
    safe, unsafe = st._random_weighted_function_safety([rotation()], False)
    assert safe == [] and unsafe == {"f": "held back"}


def test_replaced_coercers_reach_the_analytics_weights(monkeypatch):
    monkeypatch.setattr(st, "_random_weighted_safe_yield_rate", lambda value: 1.0)
    functions, features = st._random_weighted_yield_maps(ANALYTICS)
    assert functions == {"f": 1.0, "g": 1.0} and features == {"x": 1.0}
    assert st._random_weighted_cum_weights(["f", "g"], {}) == [2.0, 4.0]
    monkeypatch.setattr(st, "_random_weighted_int", lambda value, default: 0)
    rows, function_stats, _ = st._random_weighted_analytics_stats(ANALYTICS)
    assert rows == 3 and function_stats["f"]["evaluation_count"] == 0


def test_a_replaced_bounds_tuple_of_any_numbers_is_compared_as_the_host_compares():
    # a replacement may give ints where ours gives floats
    original = st._random_weighted_numeric_bounds
    try:
        st._random_weighted_numeric_bounds = lambda param: (True, 2, True, 9, True)
        assert st._random_weighted_numeric_bounds_reason({}, 1) == "default 1 outside declared range [2, 9]"
        assert st._random_weighted_numeric_default({}, False) == 5.5
    finally:
        st._random_weighted_numeric_bounds = original


def test_the_integer_flag_is_passed_by_keyword(monkeypatch):
    seen = []
    monkeypatch.setattr(st, "_random_weighted_numeric_default", lambda param, *, integer: seen.append(integer) or 3)
    monkeypatch.setattr(st, "_random_weighted_config_value_reason",
                        lambda param_name, value, *, integer: seen.append(integer) or None)
    assert st._random_weighted_config_child("f", {"name": "w", "type": "int"}) == ({"type": "int", "node": 3}, None)
    assert st._random_weighted_config_child("f", {"name": "w", "type": "float"}) == ({"type": "float", "node": 3.0}, None)
    assert seen == [True, True, False, False]


def test_entries_from_replaced_vocabulary_helpers_are_copied_as_records_are(monkeypatch):
    monkeypatch.setattr(st, "_flatten_vocabulary_entries", lambda node: [[("name", "r")], 1])
    monkeypatch.setattr(st, "_validate_function_entry", lambda entry, source_kind: None)
    with pytest.raises(TypeError):  # dict(1)
        st._normalize_template_vocabulary({"rotations": {}, "features": []})
    monkeypatch.setattr(st, "_flatten_vocabulary_entries", lambda node: [[("name", "r")]])
    assert st._normalize_template_vocabulary({"rotations": {}, "features": []})["functions"] == [{"name": "r"}] * 3
