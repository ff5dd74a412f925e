import types

import pytest

import tarnwicket.search_templates as st
from generator.gen_helpers import rotation

NOT_ROTATION = ("function_type={!r} is not a SIGNAL-safe rotation; random_weighted can only synthesize SIGNAL "
                "expression graphs from rotations")
INT_W = {"name": "w", "type": "int", "default": 3}


@pytest.mark.parametrize(
    "entry, node_limit, reason",
    [
        ({"name": "f", "function_type": "filtration", "param_schema": ["data"]}, None, NOT_ROTATION.format("filtration")),
        ({"name": "f", "param_schema": ["data"]}, None, NOT_ROTATION.format(None)),
        (rotation("f", ["data"], engine_only=True), None, "engine_only runtime transform"),
        (rotation("f", ["data"], arity=0), None, "invalid arity metadata 0"),
        (rotation("f", ["data"], arity=True), None, "invalid arity metadata True"),
        (rotation("f", ["data"], arity="x"), None, "invalid arity metadata 'x'"),
        (rotation("f", None), None, "rotation metadata missing param_schema"),
        ({"name": "f", "function_type": "rotation"}, None, "rotation metadata missing param_schema"),
        (rotation("f", {}), None, "rotation metadata param_schema is empty"),
        (rotation("f", ()), None, "rotation metadata param_schema is empty"),
        (rotation("f", ["data"] * 3), 3, "param_schema size 3 exceeds node budget child limit 2"),
        (rotation("f", {"a": "data", "b": "data"}), 2, "param_schema size 2 exceeds node budget child limit 1"),
        (rotation("f", {"x": 5}), None, "unsupported param_schema entry for 'x'"),
        (rotation("f", ["data", {"name": "y"}]), None, "unsupported param_schema entry at index 1"),
        (rotation("f", [{"name": "x", "type": "data", "variadic": True}]), None, "unsupported param_schema entry at index 0"),
        (rotation("f", "data"), None, "unsupported param_schema container str"),
        (rotation("f", 5), None, "unsupported param_schema container int"),
        (rotation("f", ["data"]), 1, "param_schema minimum node count exceeds node budget 1"),
        (rotation("f", ["data"]), 0, "param_schema minimum node count exceeds node budget 0"),
        (rotation("f", ["data", "filtration"]), None, "rotation requires filtration input, which is not SIGNAL-safe"),
        (rotation("f", ["data", "matrix"]), None, "unsupported param_schema type 'matrix'"),
        (rotation("f", ["data", "int"]), None, "config param 'param_1' has no safe int default/range"),
        (rotation("f", [INT_W]), None, "rotation metadata declares no data input"),
        (rotation("f", ["data", INT_W], arity=2), None, "arity metadata 2 does not match param_schema data inputs 1"),
        (rotation("f", ["data", {"name": "w", "type": "int", "default": 9000}], stateful=True), None,
         "config param 'w' window 9000 exceeds per-node lookback budget 3360"),
    ],
)
def test_unsafe_reasons(entry, node_limit, reason):
    safe, unsafe = st._random_weighted_function_safety([entry], False, 3360, node_limit)
    assert safe == [] and unsafe == {"f": reason}


def test_safe_spec_shape():
    schema = {"x": "data", "w": {"type": "int", "default": 5000}, "y": {"name": "other", "type": "data"},
              "mode": {"type": "string", "choices": ["fast"]}}
    entry = rotation("f", schema, function_family="fam", arity="2", stateful=0)
    safe, unsafe = st._random_weighted_function_safety([entry], False, 3360, None)
    assert unsafe == {}
    assert safe == [{
        "name": "f", "function_type": "rotation", "function_family": "fam", "function_subfamily": "", "stateful": False,
        "data_params": [{"name": "x", "type": "data"}, {"name": "other", "type": "data"}],
        "config_children": [{"type": "int", "node": 5000}, {"type": "string", "node": "fast"}],
    }]
    assert list(safe[0]) == ["name", "function_type", "function_family", "function_subfamily", "stateful",
                             "data_params", "config_children"]


def test_param_dict_forms():
    obj = types.SimpleNamespace(type="int", min=1, max=5, unrelated=3)
    assert st._random_weighted_param_dict(obj, "p") == {"type": "int", "min": 1, "max": 5, "name": "p"}
    assert st._random_weighted_param_dict("data", "param_0") == {"name": "param_0", "type": "data"}
    assert st._random_weighted_param_dict({"name": "", "type": "data"}, "k") == {"name": "k", "type": "data"}
    assert st._random_weighted_param_dict(object(), "p") is None
    assert st._random_weighted_param_dict({"name": "x"}, "p") is None


def test_schema_params_names_list_entries():
    params, reason = st._random_weighted_schema_params(["data", "int"], None)
    assert reason is None and [p["name"] for p in params] == ["param_0", "param_1"]
    assert st._random_weighted_schema_params(["data", "data"], 3) == ([{"name": "param_0", "type": "data"},
                                                                       {"name": "param_1", "type": "data"}], None)
    assert st._random_weighted_declared_arity("not a map") == (None, None)
    assert st._random_weighted_declared_arity({"arity": "3"}) == (3, None)


def test_unsafe_function_reason():
    assert st._random_weighted_unsafe_function_reason("rotation", "why") == "why"
    for empty in (None, "", 5):
        assert st._random_weighted_unsafe_function_reason("rotation", empty) == \
            "unsupported rotation metadata for SIGNAL-safe random_weighted generation"
    assert st._random_weighted_unsafe_function_reason(3, "why") == NOT_ROTATION.format(3)


def test_screening_logs_and_unsafe_map(info_log):
    functions = ["text", {"name": ""}, {"name": 5}, {"name": "a", "function_type": "reduction"},
                 rotation("b", ["data"], engine_only=1), rotation("c", None), rotation("c", ["data"]),
                 rotation("c", ["data", "x"]), rotation("d", ["data"])]
    safe, unsafe = st._random_weighted_function_safety(functions, True, None, None)
    assert [s["name"] for s in safe] == ["c", "d"]
    assert unsafe == {"a": NOT_ROTATION.format("reduction"), "b": "engine_only runtime transform",
                      "c": "unsupported param_schema type 'x'"}
    assert info_log() == [
        "random_weighted excluded function entry: expected dict metadata",
        "random_weighted excluded function with missing name from SIGNAL generation",
        "random_weighted excluded function with missing name from SIGNAL generation",
        "random_weighted excluded a from SIGNAL generation: function_type='reduction' is not rotation",
        "random_weighted excluded b from SIGNAL generation: engine_only runtime transform",
        "random_weighted excluded c from SIGNAL generation: rotation metadata missing param_schema",
        "random_weighted excluded c from SIGNAL generation: unsupported param_schema type 'x'",
    ]
    assert st._random_weighted_safe_rotations(functions) == safe


def test_non_list_functions(info_log):
    assert st._random_weighted_function_safety((rotation("a", ["data"]),), False) == ([], {})
    assert info_log() == []
    assert st._random_weighted_safe_rotations((rotation("a", ["data"]),)) == []
    assert info_log() == ["random_weighted excluded function vocabulary: functions must be a list"]
