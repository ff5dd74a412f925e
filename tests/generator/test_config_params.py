import math

import pytest

import tarnwicket.search_templates as st


def child(param, window_limit=None):
    return st._random_weighted_config_child("fn", dict(param, name="w"), window_limit)


NO_INT = "config param 'w' has no safe int default/range"
NO_FLOAT = "config param 'w' has no safe float default/range"
NO_STRING = "config param 'w' has no safe string default/range"
INVALID = "config param 'w' has invalid numeric range metadata"


@pytest.mark.parametrize(
    "param, window_limit, node",
    [
        ({"type": "int", "default": 20, "min": 5, "max": 60}, None, 20),
        ({"type": "int", "min": 5, "max": 60}, None, 32),
        ({"type": "int", "min": 1, "max": 2}, None, 2),
        ({"type": "int", "min": 0, "max": 1}, None, 1),
        ({"type": "int", "min": 2.5, "max": 3.5}, None, 3),
        ({"type": "int", "min": 3.2, "max": 3.9}, None, None),
        ({"type": "int", "min": "5", "max": "9"}, None, 7),
        ({"type": "int"}, 3360, 1680),
        ({"type": "int", "max": "abc"}, 3360, 1680),
        ({"type": "int", "min": 100, "max": "abc"}, 3360, 1730),
        ({"type": "int", "max": 10**9}, 3360, 1680),
        ({"type": "int", "default": 1000000000}, None, 1000000000),
        ({"type": "float", "min": 0.0}, None, 0.0),
        ({"type": "float", "max": 3}, None, 3.0),
        ({"type": "float", "default": 2}, None, 2.0),
        ({"type": "float", "default": -0.5, "min": -1}, None, -0.5),
        ({"type": "bool", "default": 0}, None, False),
        ({"type": "bool"}, None, False),
        ({"type": "bool", "default": "false"}, None, True),
        ({"type": "string", "default": "x", "choices": ["y"]}, None, "x"),
        ({"type": "string", "choices": [], "options": ("opt",)}, None, "opt"),
        ({"type": "string", "choices": "abc", "enum": ["e"]}, None, "e"),
    ],
)
def test_emitted_literal(param, window_limit, node):
    result, reason = child(param, window_limit)
    if node is None:
        assert result is None and reason == NO_INT
        return
    assert reason is None
    assert result == {"type": param["type"], "node": node} and type(result["node"]) is type(node)


@pytest.mark.parametrize(
    "param, window_limit, reason",
    [
        ({"type": "int", "default": 70, "min": 5, "max": 60}, None, "config param 'w' default 70 outside declared range [5.0, 60.0]"),
        ({"type": "int", "default": 3, "min": 5}, None, "config param 'w' default 3 outside declared range [5.0, inf]"),
        ({"type": "int", "min": 0.5, "max": 0.9}, None, NO_INT),
        ({"type": "int", "min": -10, "max": -1}, None, NO_INT),
        ({"type": "int", "default": 0, "min": 0}, None, NO_INT),
        ({"type": "int", "default": True}, None, NO_INT),
        ({"type": "int", "default": "5"}, None, NO_INT),
        ({"type": "int"}, None, NO_INT),
        ({"type": "int", "min": 4000}, 3360, NO_INT),
        ({"type": "int", "default": 5000}, 3360, "config param 'w' window 5000 exceeds per-node lookback budget 3360"),
        ({"type": "int", "default": 2000000000}, None,
         "config param 'w' emitted value 2000000000 exceeds hard config bound +/-1000000000.0"),
        ({"type": "int", "default": 10**400}, None, "config param 'w' has non-numeric default/range"),
        ({"type": "int", "default": 5, "min": 9, "max": 1}, None, INVALID),
        ({"type": "int", "default": 5, "min": True}, None, INVALID),
        ({"type": "int", "default": 5, "max": math.inf}, None, INVALID),
        ({"type": "int", "default": 5, "max": "many"}, None, INVALID),
        ({"type": "int", "min": 9, "max": 1}, None, NO_INT),
        ({"type": "float", "default": True}, None, NO_FLOAT),
        ({"type": "float", "default": "1.0"}, None, NO_FLOAT),
        ({"type": "float"}, None, NO_FLOAT),
        ({"type": "float", "min": math.inf}, None, NO_FLOAT),
        ({"type": "float", "default": math.nan}, None, "config param 'w' has non-finite numeric default/range"),
        ({"type": "float", "default": 1e10}, None,
         "config param 'w' emitted value 10000000000.0 exceeds hard config bound +/-1000000000.0"),
        ({"type": "float", "default": 9.5, "max": 1}, None, "config param 'w' default 9.5 outside declared range [-inf, 1.0]"),
        ({"type": "string", "default": 7, "choices": ["a"]}, None, NO_STRING),
        ({"type": "string", "default": ""}, None, NO_STRING),
        ({"type": "string", "choices": [""]}, None, NO_STRING),
        ({"type": "list"}, None, "unsupported config param type 'list'"),
        ({"type": None}, None, "unsupported config param type None"),
    ],
)
def test_refusal_reason(param, window_limit, reason):
    assert child(param, window_limit) == (None, reason)


def test_unnamed_param_and_window_only_for_given_limit():
    assert st._random_weighted_config_child("fn", {"type": "float"}) == (None, "config param '' has no safe float default/range")
    assert child({"type": "int", "default": 5000}) == ({"type": "int", "node": 5000}, None)


def test_value_reasons_and_labels():
    assert st._random_weighted_config_value_reason("p", "x", True) == "config param 'p' has non-numeric emitted value"
    assert st._random_weighted_config_value_reason("p", math.inf, False) == "config param 'p' has non-finite emitted value"
    assert st._random_weighted_config_value_reason("p", -1e9, False) is None
    assert st._random_weighted_numeric_range_label(False, None, True, 3.0) == "[-inf, 3.0]"
    assert st._random_weighted_numeric_range_label(True, 1.0, False, None) == "[1.0, inf]"
    assert st._random_weighted_window_budget_reason("p", 10, None) is None


@pytest.mark.parametrize(
    "param, expected",
    [
        ({"min": "5", "max": 10}, (True, 5.0, True, 10.0, True)),
        ({"min": True, "max": 1}, (True, None, True, None, False)),
        ({"min": None}, (False, None, False, None, True)),
        ({"min": 2, "max": 2}, (True, 2.0, True, 2.0, True)),
        ({"min": 1, "max": math.nan}, (True, 1.0, True, math.nan, False)),
        ({"min": [1]}, (True, None, False, None, False)),
    ],
)
def test_numeric_bounds(param, expected):
    got = st._random_weighted_numeric_bounds(param)
    assert len(got) == 5 and got[:3] == expected[:3] and got[4] == expected[4]
    if isinstance(expected[3], float) and math.isnan(expected[3]):
        assert math.isnan(got[3])
    else:
        assert got[3] == expected[3]


@pytest.mark.parametrize(
    "param, expected_max",
    [({"min": 5, "max": 10000}, 3360), ({"max": 7.9}, 7), ({"max": math.inf}, 3360), ({}, 3360), ({"max": 12}, 12)],
)
def test_window_bounded_param(param, expected_max):
    bounded = st._random_weighted_window_bounded_param(param, 3360)
    assert bounded["max"] == expected_max and bounded["min"] == param.get("min", 1)
    assert bounded is not param and st._random_weighted_window_bounded_param(param, None) == param


def test_numeric_default_and_first_choice():
    assert st._random_weighted_numeric_default({"min": 1, "max": 4}, integer=True) == 2
    assert st._random_weighted_numeric_default({"min": 1, "max": 4}, integer=False) == 2.5
    assert st._random_weighted_numeric_default({}, integer=False) is None
    assert st._random_weighted_numeric_default({"min": 1e308, "max": 1.7e308}, integer=True) is None
    assert st._random_weighted_first_choice({"choices": None, "options": [], "enum": ("z", "y")}) == "z"
    assert st._random_weighted_first_choice({"choices": {"a"}}) is None
