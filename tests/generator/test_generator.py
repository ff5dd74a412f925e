import collections
import gc
import math
import random
import types

import pytest

import tarnwicket.search_templates as st
from generator.gen_helpers import context, feature, ref_choice, ref_cum, rotation, snapshot

INT5 = {"name": "w", "type": "int", "default": 5}


# ---------------------------------------------------------------- a plain reference of the same algorithm

def ref_build(fn, fs, fw, tn, tw, depth):
    if depth <= 1:
        return {"type": "feature", "node": ref_choice(tn, tw)}
    func = ref_choice(fn, fw)
    spec = fs[func]
    children = [ref_build(fn, fs, fw, tn, tw, depth - 1) for _ in spec["data_params"]]
    children += [dict(c) for c in spec["config_children"]]
    return {"type": "rotation", "node": func, "children": children}


def ref_stream(ctx, count):
    max_depth = int(ctx.max_depth)
    vocab = st._normalize_template_vocabulary(ctx.vocabulary)
    limit = st._random_weighted_node_limit(ctx)
    safe = st._random_weighted_safe_rotations(vocab["functions"], st._random_weighted_window_limit(ctx, max_depth), limit)
    tn = st._random_weighted_feature_names(vocab["features"])
    safe = st._random_weighted_rotations_within_node_budget(safe, limit)
    top = st._random_weighted_max_depth_within_node_budget(safe, max_depth, limit)
    fn = [s["name"] for s in safe]
    fs = {s["name"]: s for s in safe}
    cached, out = object(), []
    for _ in range(count):
        depth = random.randint(2, top)
        analytics = ctx.analytics
        if analytics is not cached:
            cached = analytics
            fmap, tmap = st._random_weighted_yield_maps(analytics, fn, tn)
            fw, tw = ref_cum(fn, fmap), ref_cum(tn, tmap)
        out.append(ref_build(fn, fs, fw, tn, tw, depth))
    return out


FUNCTIONS = [rotation("add", ["data", "data"]), rotation("neg", ["data"]),
             rotation("mean", {"x": "data", "w": {"type": "int"}}, stateful=True),
             rotation("clip", ["data", {"name": "lo", "type": "float", "default": -1}, {"name": "m", "type": "bool"}]),
             rotation("add", ["data", "data", INT5])]
FEATURES = [feature(f"x{i}") for i in range(12)]


def rich_snapshot():
    return snapshot({"name": "neg", "yield_rate": 2.0, "evaluation_count": 10}, {"name": "add", "yield_rate": -1.0},
                    {"name": "x3", "type": "feature", "yield_rate": 5.0}, {"name": "x4", "type": "feature", "yield_rate": -1})


def count_nodes(node):
    return 1 + sum(count_nodes(c) for c in node.get("children", ()))


def depth_of(node):
    kids = [c for c in node.get("children", ()) if c["type"] in ("rotation", "feature")]
    return 1 + max((depth_of(c) for c in kids), default=0)


@pytest.mark.parametrize("analytics", [None, "rich", "dead", "wide", "skewed"])
@pytest.mark.parametrize("seed", [0, 7, 12345])
def test_draw_sequence_matches_plain_reference(seed, analytics):
    features = FEATURES
    if analytics in ("wide", "skewed"):
        rates = random.Random(seed)
        choices = [-1.0, 0.0, 0.5, 3.0] if analytics == "wide" else [-1.0] * 6 + [0.0, 1000.0]
        features = [feature(f"w{i}") for i in range(300)]
        analytics = snapshot(*({"name": f"w{i}", "type": "feature", "yield_rate": rates.choice(choices)}
                               for i in range(300)))
    elif analytics == "rich":
        analytics = rich_snapshot()
    elif analytics == "dead":
        analytics = snapshot(*({"name": n, "yield_rate": -1.0} for n in ("add", "neg", "mean", "clip")))
    ctx = context(FUNCTIONS, features, max_depth=5, analytics=analytics, max_node_count=150)
    random.seed(seed)
    expected = ref_stream(ctx, 60)
    after_reference = random.random()
    random.seed(seed)
    gen = st.random_weighted(ctx)
    assert [next(gen) for _ in range(60)] == expected
    assert random.random() == after_reference


def test_default_random_functions_are_reproduced_exactly(monkeypatch):
    weighted_choice = st._weighted_choice
    items = [f"i{k}" for k in range(1000)]
    random.seed(99)
    expected = [random.randint(2, top) for top in range(2, 60)] + [random.choice(items) for _ in range(200)]
    # With a draw that consumes no randomness, each graph takes exactly one randint.
    monkeypatch.setattr(st, "_weighted_choice", lambda items, cum: items[0])
    random.seed(99)
    depths = [depth_of(next(st.random_weighted(context([rotation("neg", ["data"])], [feature("x")], max_depth=top))))
              for top in range(2, 60)]
    picks = [weighted_choice(items, [0.0] * 1000) for _ in range(200)]
    assert depths + picks == expected


def test_host_random_replacements_are_obeyed(monkeypatch):
    ctx = context(FUNCTIONS, FEATURES, max_depth=6, max_node_count=1000)
    monkeypatch.setattr(random, "randint", lambda a, b: b)
    monkeypatch.setattr(random, "random", lambda: 0.0)
    graph = next(st.random_weighted(ctx))
    assert depth_of(graph) == 6 and graph["node"] == "add"
    monkeypatch.setattr(random, "choice", lambda items: items[-1])
    assert st._weighted_choice(["a", "b"], [0.0, math.inf]) == "b"


def test_replaced_weighted_choice_and_builder_are_obeyed(monkeypatch):
    ctx = context(FUNCTIONS, FEATURES, max_depth=3)
    gen = st.random_weighted(ctx)
    next(gen)
    monkeypatch.setattr(st, "_weighted_choice", lambda items, cum: items[1])
    graph = next(gen)
    assert graph["node"] == "neg" and all(leaf == {"type": "feature", "node": "x1"}
                                          for leaf in _leaves(graph))
    calls = []

    def builder(fn, fs, fw, tn, tw, depth):
        calls.append((list(fn), sorted(fs), len(fw), list(tn), len(tw), depth))
        return {"built": depth}

    monkeypatch.setattr(st, "_build_random_signal_expression", builder)
    assert next(gen) in ({"built": 2}, {"built": 3})
    assert calls[0][:2] == (["add", "neg", "mean", "clip", "add"], ["add", "clip", "mean", "neg"])


def _leaves(node):
    if node["type"] == "feature":
        return [node]
    return [leaf for c in node.get("children", []) if c["type"] in ("rotation", "feature") for leaf in _leaves(c)]


def test_weights_follow_snapshot_identity(monkeypatch):
    calls = []
    original = st._random_weighted_yield_maps

    def counting(analytics, fn, tn):
        calls.append(analytics)
        return original(analytics, fn, tn)

    monkeypatch.setattr(st, "_random_weighted_yield_maps", counting)
    first = rich_snapshot()
    ctx = context(FUNCTIONS, FEATURES, analytics=first)
    gen = st.random_weighted(ctx)
    for _ in range(5):
        next(gen)
    first.rows.append({"name": "neg", "yield_rate": -1.0})
    next(gen)
    assert calls == [first]
    ctx.analytics = None
    next(gen)
    next(gen)
    assert calls == [first, None]


def test_graph_shape_and_fresh_config_children():
    entry = rotation("r", ["data", "data", "data", {"name": "a", "type": "int", "default": 3},
                           {"name": "b", "type": "string", "default": "s"}])
    ctx = context([entry], FEATURES, max_depth=2)
    gen = st.random_weighted(ctx)
    g1, g2 = next(gen), next(gen)
    assert [c["type"] for c in g1["children"]] == ["feature"] * 3 + ["int", "string"]
    assert g1["children"][3:] == [{"type": "int", "node": 3}, {"type": "string", "node": "s"}]
    assert g1["children"][3] is not g2["children"][3]
    g1["children"][3]["node"] = 99
    assert next(gen)["children"][3]["node"] == 3


def test_graphs_stay_within_budgets():
    ctx = context(FUNCTIONS, FEATURES, max_depth=9, max_node_count=40)
    random.seed(3)
    gen = st.random_weighted(ctx)
    graphs = [next(gen) for _ in range(300)]
    assert max(count_nodes(g) for g in graphs) <= 40
    assert {depth_of(g) for g in graphs} == {2, 3, 4}
    # the window budget shares the buffer over the requested depth (9), not the capped one
    windows = {n["children"][1]["node"] for g in graphs for n in _walk(g) if n.get("node") == "mean"}
    assert windows == {1120}


def _walk(node):
    yield node
    for c in node.get("children", []):
        yield from _walk(c)


def test_draw_frequencies_follow_weights():
    random.seed(2024)
    picks = collections.Counter(st._weighted_choice(["a", "b", "c"], [2.0, 3.0, 3.0]) for _ in range(6000))
    assert 0.62 < picks["a"] / 6000 < 0.72 and 0.28 < picks["b"] / 6000 < 0.38 and picks["c"] == 0
    functions = [rotation("f", ["data"]), rotation("g", ["data"]), rotation("f", ["data", INT5])]
    analytics = snapshot({"name": "x1", "type": "feature", "yield_rate": 1.0},
                         {"name": "x2", "type": "feature", "yield_rate": -1.0})
    ctx = context(functions, [feature("x0"), feature("x1"), feature("x2")], max_depth=2, analytics=analytics)
    gen = st.random_weighted(ctx)
    graphs = [next(gen) for _ in range(3000)]
    funcs = collections.Counter(g["node"] for g in graphs)
    feats = collections.Counter(g["children"][0]["node"] for g in graphs)
    assert 0.62 < funcs["f"] / 3000 < 0.72 and feats["x2"] == 0
    assert 0.62 < feats["x1"] / 3000 < 0.72
    assert all(len(g["children"]) == 2 for g in graphs if g["node"] == "f")


def test_generator_protocol():
    touched = []

    class Ctx:
        max_depth = 3
        analytics = None

        @property
        def vocabulary(self):
            touched.append(True)
            return {"functions": FUNCTIONS, "features": FEATURES}

    gen = st.random_weighted(ctx=Ctx())
    assert iter(gen) is gen and touched == []
    assert next(gen)["type"] == "rotation" and touched == [True]
    assert gen.send("ignored")["type"] == "rotation"
    assert gen.send(None)["type"] == "rotation" and touched == [True]
    gen.close()
    with pytest.raises(StopIteration):
        next(gen)
    fresh = st.random_weighted(Ctx())
    with pytest.raises(TypeError):
        fresh.send(1)
    with pytest.raises(KeyError):
        fresh.throw(KeyError("k"))
    with pytest.raises(StopIteration):
        fresh.send(None)
    assert len(list(zip(range(4), st.random_weighted(Ctx())))) == 4


class _Boom:
    vocabulary = {"functions": FUNCTIONS, "features": FEATURES}
    max_depth = 3

    @property
    def analytics(self):
        raise RuntimeError("analytics down")


def test_errors_propagate_and_finish():
    gen = st.random_weighted(_Boom())
    with pytest.raises(RuntimeError, match="analytics down"):
        next(gen)
    with pytest.raises(StopIteration):
        next(gen)
    bad = types.SimpleNamespace(vocabulary={"rotations": [{"name": "x"}]}, max_depth=3, analytics=None)
    with pytest.raises(st.VocabSchemaError):
        next(st.random_weighted(bad))


@pytest.mark.parametrize(
    "functions, features, max_depth, era, messages",
    [
        (FUNCTIONS, FEATURES, "deep", {}, ["random_weighted disabled: invalid max_depth 'deep'"]),
        (FUNCTIONS, FEATURES, None, {}, ["random_weighted disabled: invalid max_depth None"]),
        (FUNCTIONS, FEATURES, math.inf, {}, ["random_weighted disabled: invalid max_depth inf"]),
        (FUNCTIONS, FEATURES, 1.9, {}, ["random_weighted disabled: max_depth 1 cannot produce a rotation root"]),
        (FUNCTIONS, FEATURES, -3, {}, ["random_weighted disabled: max_depth -3 cannot produce a rotation root"]),
        (FUNCTIONS, [], 3, {}, ["random_weighted disabled: no valid features available"]),
        ([], [], 3, {}, ["random_weighted disabled: no SIGNAL-safe rotation functions available",
                         "random_weighted disabled: no valid features available"]),
        ([rotation("a", ["data", "data"]), rotation("b", ["data", INT5, dict(INT5, name="v")])], FEATURES, 3,
         {"max_node_count": 4}, ["random_weighted disabled: node budget 4 cannot produce a rotation root"]),
    ],
)
def test_disabled_generators(info_log, functions, features, max_depth, era, messages):
    gen = st.random_weighted(context(functions, features, max_depth=max_depth, **era))
    with pytest.raises(StopIteration):
        next(gen)
    assert info_log() == messages


def test_depth_conversion_and_cap(info_log):
    capped = context([rotation("r", ["data", "data", INT5])], FEATURES, max_depth="8")
    gen = st.random_weighted(capped)
    graphs = [next(gen) for _ in range(40)]
    assert info_log() == ["random_weighted capped max_depth from 8 to 6 to stay within node budget 100"]
    assert max(count_nodes(g) for g in graphs) <= 94
    two = st.random_weighted(context(FUNCTIONS, FEATURES, max_depth=2.9))
    assert all(depth_of(next(two)) == 2 for _ in range(20))


def test_replaced_setup_helpers_are_obeyed(monkeypatch):
    monkeypatch.setattr(st, "_random_weighted_feature_names", lambda features: ["only"])
    monkeypatch.setattr(st, "_random_weighted_cum_weights", lambda names, yield_map: [1] * len(names))
    monkeypatch.setattr(st, "_normalize_template_vocabulary", lambda vocab: {"functions": vocab["fns"]})
    ctx = types.SimpleNamespace(vocabulary={"fns": FUNCTIONS}, max_depth=3, analytics=None)
    graphs = [next(st.random_weighted(ctx)) for _ in range(10)]
    assert all(g["node"] == "add" and g["children"][2] == {"type": "int", "node": 5} for g in graphs)
    assert all(leaf["node"] == "only" for g in graphs for leaf in _leaves(g))


def test_generator_in_a_reference_cycle_is_collected():
    import gc
    import weakref

    class Ctx:
        vocabulary = {"functions": FUNCTIONS, "features": FEATURES}
        max_depth = 3
        analytics = None

    ctx = Ctx()
    ctx.gen = st.random_weighted(ctx)
    next(ctx.gen)
    alive = weakref.ref(ctx)
    del ctx
    gc.collect()
    assert alive() is None


def test_the_collector_is_left_as_the_host_had_it_after_each_graph():
    # the generator pauses the collector while it builds one graph
    gen = st.random_weighted(context([rotation("f", ["data", "data"])], [feature("x")], max_depth=5))
    next(gen)
    assert gc.isenabled()
    gc.disable()
    try:
        next(gen)
        assert not gc.isenabled()
    finally:
        gc.enable()
    for _ in range(5):
        next(gen)
    assert gc.isenabled()

