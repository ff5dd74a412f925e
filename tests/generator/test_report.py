import math
import types

import tarnwicket.search_templates as st
from generator.gen_helpers import feature, rotation, snapshot


def ctx_of(functions, features, max_depth=4, **attrs):
    return types.SimpleNamespace(vocabulary={"functions": functions, "features": features}, max_depth=max_depth, **attrs)


def test_report_without_analytics():
    report = st.analyze_random_weighted(ctx_of([rotation("a", ["data"]), rotation("b", ["data"])], [feature("x")]))
    assert list(report) == ["analytics_rows_seen", "function_weights", "feature_weights", "unsafe_functions"]
    assert report["analytics_rows_seen"] == 0 and report["unsafe_functions"] == {}
    assert report["function_weights"]["a"] == {
        "yield_rate": 0.0, "failure_rate": 1.0, "evaluation_count": 0, "cold_weight": 0.5, "warm_weight": 0.5,
        "warm_delta": 0.0, "function_family": "", "function_subfamily": ""}
    assert report["feature_weights"]["x"]["warm_weight"] == 1.0


def test_report_with_analytics_and_refusals(info_log):
    functions = [rotation("a", ["data"], function_family="fam"), rotation("b", ["data"]), "junk", {"name": ""},
                 rotation("c", ["data", "int"]), rotation("wide", ["data"] * 5)]
    analytics = snapshot({"name": "a", "yield_rate": 1.0, "evaluation_count": 3}, {"name": "ghost", "yield_rate": 1.0},
                         {"name": "x", "type": "feature", "yield_rate": -0.5})
    ctx = ctx_of(functions, [feature("x", feature_family="px"), feature("y")], analytics=analytics,
                 era_config=types.SimpleNamespace(max_node_count=5))
    report = st.analyze_random_weighted(ctx)
    assert report["analytics_rows_seen"] == 3
    assert report["unsafe_functions"] == {"c": "config param 'param_1' has no safe int default/range",
                                          "wide": "param_schema size 5 exceeds node budget child limit 4"}
    a, b = report["function_weights"]["a"], report["function_weights"]["b"]
    assert set(report["function_weights"]) == {"a", "b"} and a["function_family"] == "fam"
    assert (a["yield_rate"], a["failure_rate"], a["evaluation_count"]) == (1.0, 0.0, 3)
    assert math.isclose(a["warm_weight"], 2 / 3) and math.isclose(b["warm_delta"], -1 / 6)
    x, y = report["feature_weights"]["x"], report["feature_weights"]["y"]
    assert x["feature_family"] == "px" and x["failure_rate"] == 1.0 and math.isclose(x["warm_weight"], 1 / 3)
    assert y["failure_rate"] == 1.0 and math.isclose(y["warm_weight"], 2 / 3)
    assert info_log() == []  # the report screens functions silently


def test_report_edge_cases(info_log):
    empty = st.analyze_random_weighted(types.SimpleNamespace(vocabulary=None, max_depth=None))
    assert empty == {"analytics_rows_seen": 0, "function_weights": {}, "feature_weights": {}, "unsafe_functions": {}}
    stateful = rotation("m", {"x": "data", "w": {"type": "int", "default": 6000}}, stateful=True)
    # a non-numeric depth counts as 2: the window budget is 20160 // 2
    report = st.analyze_random_weighted(ctx_of([stateful], [feature("x")], max_depth="?"))
    assert set(report["function_weights"]) == {"m"} and report["unsafe_functions"] == {}
    report = st.analyze_random_weighted(ctx_of([stateful], [feature("x")], max_depth=4))
    assert report["unsafe_functions"] == {"m": "config param 'w' window 6000 exceeds per-node lookback budget 5040"}
    assert info_log() == []
