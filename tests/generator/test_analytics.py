import itertools
import math
import types

import pytest

import tarnwicket.search_templates as st
from generator.gen_helpers import snapshot


def obj_row(functions, features, yield_rate=0.0, count=None, window_count=None, windows=None):
    window = types.SimpleNamespace(yield_rate=yield_rate)
    if window_count is not None:
        window.evaluation_count = window_count
    row = types.SimpleNamespace(group_key=(functions, features), windows=windows if windows is not None else [window])
    if count is not None:
        row.evaluation_count = count
    return row


def stats(analytics, functions=None, features=None):
    return st._random_weighted_analytics_stats(analytics, functions, features)


@pytest.mark.parametrize("analytics", [None, object(), types.SimpleNamespace(rows=[]), types.SimpleNamespace(rows=5),
                                       types.SimpleNamespace(rows=None), snapshot("row", 3, None, [1, 2])])
def test_empty_or_unusable_snapshots(analytics):
    assert stats(analytics) == (0, {}, {})
    assert st._random_weighted_yield_maps(analytics) == ({}, {})


def test_map_rows_by_type_and_clamps():
    rows = [{"name": "f1", "yield_rate": math.nan}, {"name": "x", "type": "feature", "yield_rate": 5000},
            {"name": "f2", "type": "other", "yield_rate": -3}, {"name": ""}, {"yield_rate": 1.0},
            {"name": "f3", "yield_rate": "0.5", "evaluation_count": "4"}]
    seen, fstats, tstats = stats(snapshot(*rows))
    assert seen == 4
    assert {n: s["yield_rate"] for n, s in fstats.items()} == {"f1": 0.0, "f2": -1.0, "f3": 0.5}
    assert tstats["x"]["yield_rate"] == 1000.0 and tstats["x"]["failure_rate"] == 0.0
    assert fstats["f3"] == {"yield_total": 2.0, "weight_total": 4.0, "evaluation_count": 4, "yield_rate": 0.5,
                            "failure_rate": 0.5}


def test_weighted_mean_over_rows():
    rows = [{"name": "a", "yield_rate": 1.0, "evaluation_count": 1}, {"name": "a", "yield_rate": 0.0, "evaluation_count": 3}]
    _, fstats, _ = stats(snapshot(*rows))
    assert fstats["a"]["yield_rate"] == 0.25 and fstats["a"]["failure_rate"] == 0.75
    assert fstats["a"]["evaluation_count"] == 4


@pytest.mark.parametrize("count, weight, evaluations", [(2000000000, 1e9, 1000000000), (0, 1.0, 0), (-7, 1.0, 0),
                                                        ("x", 1.0, 0), (10**30, 1e9, 1000000000), (2.9, 2.0, 2)])
def test_row_weight(count, weight, evaluations):
    _, fstats, _ = stats(snapshot({"name": "a", "evaluation_count": count}))
    assert fstats["a"]["weight_total"] == weight and fstats["a"]["evaluation_count"] == evaluations


def test_object_rows():
    rows = [
        obj_row(["f"], ["x", "y"], yield_rate=0.5, count=0, window_count=6),
        obj_row(["f"], ["x"], yield_rate=1.0, window_count=2),
        types.SimpleNamespace(group_key=("f", "x", "z"), windows=[types.SimpleNamespace(yield_rate=1.0)]),
        obj_row(["f"], [], windows=[]),
        obj_row(["f"], [], windows={1: "no index 0"}),
        obj_row("f", 5),
        obj_row([""] * 64 + ["late"] * 6, []),
        obj_row({"g"}, frozenset(), yield_rate="nan"),
    ]
    entries = list(st._random_weighted_analytics_entries(snapshot(*rows)))
    assert entries == [(1, ["f"], ["x", "y"], 0.5, 6), (1, ["f"], ["x"], 1.0, 2), (1, ["g"], [], 0.0, 0)]
    seen, fstats, tstats = stats(snapshot(*rows))
    assert seen == 3 and fstats["f"]["evaluation_count"] == 8 and fstats["f"]["yield_rate"] == 0.625
    assert tstats["y"]["weight_total"] == 6.0


def test_row_count_bound_leaves_rest_untouched():
    consumed = itertools.count()
    rows = ({"name": f"f{next(consumed)}", "yield_rate": 1.0} for _ in range(10**5))
    seen, fstats, _ = stats(types.SimpleNamespace(rows=rows))
    assert seen == 10000 and next(consumed) == 10000 and len(fstats) == 4096


def test_unique_name_bound_keeps_known_names():
    rows = [{"name": f"n{i}"} for i in range(4097)] + [{"name": "n0", "evaluation_count": 5}]
    _, fstats, _ = stats(snapshot(*rows))
    assert len(fstats) == 4096 and "n4096" not in fstats and fstats["n0"]["evaluation_count"] == 5


def test_allow_lists_and_hostile_rows_never_raise():
    wide = obj_row([f"f{i}" for i in range(10**4)], [f"x{i}" for i in range(10**4)], yield_rate=1e308, count=10**400)
    rows = [wide, {"name": "f1", "yield_rate": 10**400}, {"name": "zz"}, {"name": "x3", "type": "feature"},
            None, 3.5, "text", b"bytes", obj_row(None, None)] * 5000
    fmap, tmap = st._random_weighted_yield_maps(snapshot(*rows), ["f1", "f70", "zz", 7], ["x3"])
    assert set(fmap) == {"f1", "zz"} and 999.99 < fmap["f1"] <= 1000.0 and fmap["zz"] == 0.0
    assert set(tmap) == {"x3"} and 999.99 < tmap["x3"] <= 1000.0
    assert st._random_weighted_yield_maps(snapshot(*rows), [], [])[0] == {}


def test_weight_shares():
    fstats = {"a": {"yield_rate": 1.0}, "b": {"yield_rate": 0.0}}
    w = st._random_weighted_normalized_weights(["a", "b"], fstats)
    assert math.isclose(w["a"]["warm_weight"], 2 / 3) and math.isclose(w["b"]["warm_weight"], 1 / 3)
    assert math.isclose(w["a"]["warm_delta"], 1 / 6) and math.isclose(w["b"]["warm_delta"], -1 / 6)
    dead = st._random_weighted_normalized_weights(["a", "b"], {"a": {"yield_rate": -1.0}, "b": {"yield_rate": -1.0}})
    assert dead == {n: {"cold_weight": 0.5, "warm_weight": 0.5, "warm_delta": 0.0} for n in "ab"}
    assert st._random_weighted_normalized_weights([], {}) == {}
    assert st._random_weighted_cum_weights(["a", "b", "c"], {"a": 1.0, "b": -1.0, "c": "x"}) == [2.0, 2.0, 3.0]
    assert st._random_weighted_cum_weights(["a", "b"], {"a": -1, "b": -5}) == [1.0, 2.0]
    assert st._random_weighted_cum_weights([], {}) == []


def test_stat_helpers_on_plain_maps():
    table = {}
    st._random_weighted_add_stat(table, "a", 1.0, 1)
    st._random_weighted_add_stat(table, "a", 0.0, 3)
    st._random_weighted_add_stat(table, "b", 7, True)
    st._random_weighted_finalize_stats(table)
    assert table["a"] == {"yield_total": 1.0, "weight_total": 4.0, "evaluation_count": 4, "yield_rate": 0.25,
                          "failure_rate": 0.75}
    assert table["b"]["weight_total"] == 1.0 and table["b"]["evaluation_count"] == 0
    seen = set()
    assert st._random_weighted_skip_analytics_name("", None, seen) is True
    assert st._random_weighted_skip_analytics_name("a", {"b"}, seen) is True
    assert st._random_weighted_skip_analytics_name("a", None, seen) is False and seen == {"a"}
    assert st._random_weighted_allowed_name_set(None) is None
    assert st._random_weighted_allowed_name_set(["a", "", 3, "a"]) == {"a"}
    assert st._random_weighted_valid_names(("a", 1, "", "b")) == ["a", "b"]
    assert st._random_weighted_valid_names("ab") == []


def test_weight_entry_and_reports():
    entry = st._random_weighted_weight_entry({}, {}, "missing")
    assert entry == {"yield_rate": 0.0, "failure_rate": 1.0, "evaluation_count": 0, "cold_weight": 0.0,
                     "warm_weight": 0.0, "warm_delta": 0.0}
    specs = [{"name": "x", "feature_family": "price"}]
    report = st._random_weighted_feature_weight_report(specs, {"x": {"cold_weight": 1.0, "warm_weight": 1.0}}, {})
    assert report["x"]["feature_family"] == "price" and report["x"]["feature_subfamily"] == ""
    assert list(report["x"])[-2:] == ["feature_family", "feature_subfamily"]


def test_feature_screening_logs(info_log):
    features = [{"name": "a", "feature_family": "f"}, "x", {"name": ""}, {"name": 3}, {"name": "a"}]
    assert st._random_weighted_feature_names(features) == ["a", "a"]
    assert st._random_weighted_feature_specs(features)[0] == {"name": "a", "feature_family": "f", "feature_subfamily": ""}
    assert st._random_weighted_feature_specs(("a",)) == []
    assert info_log()[:3] == ["random_weighted excluded feature entry: expected dict metadata",
                              "random_weighted excluded feature with missing name",
                              "random_weighted excluded feature with missing name"]
    assert info_log()[-1] == "random_weighted excluded feature vocabulary: features must be a list"
