"""The generator's module functions, the generator object and the analysis report
fed with hostile inputs: inputs that change under the generator's feet, lie about
their size or print oddly. Every call must return or raise an ordinary exception,
never SystemError, never a crash; where the inputs are plain, the answer is
checked as well. The hand-written cases each once crashed, overflowed or raised
the wrong error.
"""
import copy
import fractions
import random
import sys
import types

import pytest
from hypothesis import given, strategies as hs

import tarnwicket.search_templates as st
from fakes import hostile_data as hd
from fakes.hostile_data import Sized
from generator.gen_helpers import context, feature, ref_choice, ref_cum, rotation


class ShrinkingFloat(float):
    """A cumulative weight whose comparison empties the list it sits in."""

    victim = None

    def __lt__(self, other):
        if self.victim is not None:
            self.victim.clear()
        return float(self) < other


def test_weighted_choice_cum_list_emptied_by_a_comparison():
    items = ["n%d" % i for i in range(64)]
    for _ in range(20):
        cum = [ShrinkingFloat(i + 1.0) for i in range(63)] + [64.0]
        for w in cum[:-1]:
            w.victim = cum
        try:
            assert st._weighted_choice(items, cum) in items
        except IndexError:
            pass  # bisect_left raises the same once the list is gone


def test_cum_weights_walk_names_as_a_loop_does():
    names = ["a"]

    class Rate:
        def __float__(self):
            if len(names) == 1:
                names.append("b")
            return 0.5

    assert st._random_weighted_cum_weights(names, {"a": Rate()}) == [1.5, 2.5]
    assert st._random_weighted_cum_weights(names, {"a": -5, "b": -5}) == [1.0, 2.0]


def test_node_counts_of_lengths_near_maxsize():
    huge = {"data_params": Sized(sys.maxsize), "config_children": Sized(sys.maxsize)}
    assert st._random_weighted_min_node_count(huge) == 1 + 2 * sys.maxsize
    assert st._random_weighted_rotations_within_node_budget([huge], 1000) == []
    wide = {"name": "wide", "data_params": Sized(sys.maxsize), "config_children": []}
    assert st._random_weighted_worst_case_node_count([wide], 3, 100) == 101
    assert st._random_weighted_worst_case_node_count([wide], 3, 2**62) == 2**62 + 1
    # a rotation far over the budget leaves no depth at which a root fits
    assert st._random_weighted_max_depth_within_node_budget([wide], 5, 100) == 1


def test_worst_case_with_constant_growth_and_a_huge_depth():
    flat = {"data_params": [], "config_children": [{}]}
    chain = {"data_params": [{}], "config_children": [{}]}
    assert st._random_weighted_worst_case_node_count([flat], 2**62, 100) == 2
    assert st._random_weighted_worst_case_node_count([chain], 2**62, 100) == 101
    assert st._random_weighted_worst_case_node_count([chain], 10**30, 10**40) == 1 + (10**30 - 1) * 2
    assert st._random_weighted_worst_case_node_count([chain], 10**30, 10**20) == 10**20 + 1


def test_stat_counts_summed_past_int64(monkeypatch):
    monkeypatch.setattr(st, "_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT", sys.maxsize)
    rows = [{"name": "f", "yield_rate": 0.0, "evaluation_count": sys.maxsize} for _ in range(3)]
    _, function_stats, _ = st._random_weighted_analytics_stats(types.SimpleNamespace(rows=rows))
    assert function_stats["f"]["evaluation_count"] == 3 * sys.maxsize


def test_frozen_seen_names_cannot_be_added_to():
    with pytest.raises(AttributeError):
        st._random_weighted_skip_analytics_name("a", None, frozenset())
    assert st._random_weighted_skip_analytics_name("a", None, frozenset({"a"})) is False


class TrueBadLen(hd.BadLen):
    def __bool__(self):
        return True


def test_a_failed_len_is_raised_where_it_fails():
    row = types.SimpleNamespace(group_key=TrueBadLen([["f"], ["t"]]), windows=[types.SimpleNamespace(yield_rate=0.1)])
    with pytest.raises(hd.Boom):
        st._random_weighted_analytics_stats(types.SimpleNamespace(rows=[row]))
    with pytest.raises(hd.Boom):
        st._random_weighted_first_choice({"enum": hd.BadLen(["a"])})
    assert st._random_weighted_first_choice({"choices": (), "enum": TrueBadLen(["a"])}) == "a"


class OddRepr:
    def __repr__(self):
        return "odd\ud800"

    def __format__(self, spec):
        return "fmt\ud800"


class NoRepr:
    def __repr__(self):
        raise RuntimeError("no repr")


def test_messages_keep_texts_that_are_not_utf8():
    assert st._random_weighted_numeric_range_label(True, OddRepr(), False, None) == "[fmt\ud800, inf]"
    assert st._random_weighted_config_value_reason(OddRepr(), "x", True) == \
        "config param odd\ud800 has non-numeric emitted value"
    assert st._random_weighted_window_budget_reason(OddRepr(), 9, 3) == \
        "config param odd\ud800 window 9 exceeds per-node lookback budget 3"
    assert st._random_weighted_unsafe_function_reason(OddRepr(), None).startswith("function_type=odd\ud800 is not")
    assert st._random_weighted_schema_params(type("\u00e9t\u00e9", (), {})(), None) == \
        ([], "unsupported param_schema container \u00e9t\u00e9")
    child, reason = st._random_weighted_config_child("f", {"name": OddRepr(), "type": "int", "default": 0})
    assert (child, reason) == (None, "config param odd\ud800 has no safe int default/range")


def test_a_name_is_printed_only_for_a_message():
    param = {"name": NoRepr(), "type": "int", "default": 5}
    assert st._random_weighted_config_child("f", param) == ({"type": "int", "node": 5}, None)


def test_schema_list_shrunk_by_an_entry_ends_the_walk():
    schema = []

    class Entry:
        @property
        def type(self):
            schema.clear()
            return "data"

    schema.extend([Entry(), "int"])
    params, reason = st._random_weighted_schema_params(schema, None)
    assert reason is None and [p["name"] for p in params] == ["param_0"]


def test_schema_map_changed_by_an_entry_raises_as_iteration_does():
    schema = {}

    class Entry:
        @property
        def type(self):
            schema["late"] = "data"
            return "data"

    schema["x"] = Entry()
    with pytest.raises(RuntimeError, match="changed size"):
        st._random_weighted_schema_params(schema, None)


def test_generator_type_cannot_be_made_without_a_context():
    gen = st.random_weighted(context([rotation("r", ["data"])], [feature("x")]))
    with pytest.raises(TypeError):
        type(gen)()
    with pytest.raises(TypeError):
        object.__new__(type(gen))


def test_generator_follows_a_name_list_changed_by_a_host_hook(monkeypatch):
    # the host's cum-weights hook keeps the name list and swaps its entries:
    # each graph's children must still be those of the function drawn
    kept = []
    original = st._random_weighted_cum_weights

    def cum(names, yield_map):
        kept.append(names)
        return original(names, yield_map)

    monkeypatch.setattr(st, "_random_weighted_cum_weights", cum)
    one = rotation("one", ["data"])
    two = rotation("two", ["data", "data"])
    ctx = context([one, two], [feature("x")], max_depth=2)
    gen = st.random_weighted(ctx)
    next(gen)
    kept[0].reverse()
    for _ in range(30):
        graph = next(gen)
        assert len(graph["children"]) == {"one": 1, "two": 2}[graph["node"]]


def test_generator_follows_weights_a_replaced_draw_kept_and_changed(monkeypatch):
    # a replaced `_weighted_choice` is handed the generator's own weight list for
    # one graph and keeps it; once the hook is back, the host moves all the
    # weight onto the last function: every later draw must follow the change
    kept = []
    original = st._weighted_choice

    def draw(items, cum):
        kept.append((items, cum))
        return original(items, cum)

    names = ["f%d" % i for i in range(8)]
    ctx = context([rotation(n, ["data"]) for n in names], [feature("x")], max_depth=2)
    gen = st.random_weighted(ctx)
    next(gen)
    monkeypatch.setattr(st, "_weighted_choice", draw)
    next(gen)
    monkeypatch.undo()
    (cum,) = [c for items, c in kept if items == names][:1]
    cum[:] = [0.0] * (len(names) - 1) + [1.0]
    assert {next(gen)["node"] for _ in range(40)} == {names[-1]}


def test_a_depth_of_any_number_type_counts_down_with_its_own_operators():
    specs = {"r": {"name": "r", "data_params": [{}], "config_children": []}}
    graph = st._build_random_signal_expression(["r"], specs, [1.0], ["x"], [1.0], fractions.Fraction(5, 2))
    assert graph == {"type": "rotation", "node": "r", "children": [
        {"type": "rotation", "node": "r", "children": [{"type": "feature", "node": "x"}]}]}


# ---------------------------------------------------------------- answers on plain inputs

@given(weights=hs.lists(hs.floats(0, 1e6), min_size=1, max_size=40), seed=hs.integers(0, 2**32))
def test_weighted_choice_matches_the_plain_algorithm(weights, seed):
    cum, total = [], 0.0
    for w in weights:
        total += w
        cum.append(total)
    items = ["n%d" % i for i in range(len(cum))]
    random.seed(seed)
    got = [st._weighted_choice(items, cum) for _ in range(5)]
    random.seed(seed)
    assert got == [ref_choice(items, cum) for _ in range(5)]


@given(data=hs.data(), seed=hs.integers(0, 2**32))
def test_weighted_choice_with_weights_that_change_the_lists(data, seed):
    n = data.draw(hs.integers(1, 30))
    cum = [hd.Trap(data.draw(hs.integers(0, 20)), float(i + 1)) if data.draw(hs.booleans()) else float(i + 1)
           for i in range(n)]
    items = ["n%d" % i for i in range(n)]
    hd.arm(data, [cum, items])
    random.seed(seed)
    hd.ordinary_outcome(st._weighted_choice, items, cum)


@given(rates=hs.dictionaries(hs.sampled_from("abcdef"), hs.one_of(hs.floats(), hs.integers(-5, 5), hs.none())),
       names=hs.lists(hs.sampled_from("abcdefg"), max_size=10))
def test_cum_weights_match_the_plain_algorithm(rates, names):
    assert st._random_weighted_cum_weights(names, rates) == ref_cum(names, rates)


def ref_worst_case(rotations, depth, node_limit):
    if depth <= 1:
        return 1
    md = max(len(r.get("data_params", [])) for r in rotations)
    mc = max(len(r.get("config_children", [])) for r in rotations)
    count = 1
    for _ in range(2, depth + 1):
        count = 1 + mc + md * count
        if count > node_limit:
            return node_limit + 1
    return count


@given(shapes=hs.lists(hs.tuples(hs.one_of(hs.integers(0, 4), hs.sampled_from([sys.maxsize, sys.maxsize // 2])),
                                 hs.one_of(hs.integers(0, 4), hs.sampled_from([sys.maxsize, 2**62]))),
                       min_size=1, max_size=4),
       depth=hs.integers(-1, 60),
       node_limit=hs.one_of(hs.integers(-3, 1100), hs.sampled_from([2**31, 2**62, 2**63, 10**30, sys.maxsize])))
def test_node_counts_match_the_host_arithmetic(shapes, depth, node_limit):
    rotations = [{"data_params": Sized(d), "config_children": Sized(c)} for d, c in shapes]
    assert st._random_weighted_worst_case_node_count(rotations, depth, node_limit) == \
        ref_worst_case(rotations, depth, node_limit)
    for r, (d, c) in zip(rotations, shapes):
        assert st._random_weighted_min_node_count(r) == 1 + d + c
    kept = st._random_weighted_rotations_within_node_budget(rotations, node_limit)
    assert kept == [r for r, (d, c) in zip(rotations, shapes) if 1 + d + c <= node_limit]


# ---------------------------------------------------------------- the generator object and the report

SCHEMAS = [["data"], ["data", "data"], {"x": "data", "w": {"type": "int", "default": 5}},
           ["data", {"type": "string", "choices": ["a"]}], ["data", {"type": "float", "min": 0.0}]]
ANY = hd.nested(6)


def _vocab(data):
    functions = []
    for i in range(data.draw(hs.integers(0, 4))):
        # a copy: the traps may empty it
        entry = {"name": "f%d" % i, "function_type": "rotation",
                 "param_schema": copy.deepcopy(data.draw(hs.sampled_from(SCHEMAS)))}
        if data.draw(hs.integers(0, 3)) == 0:
            entry[data.draw(hs.sampled_from(["name", "param_schema", "arity", "stateful", "engine_only",
                                             "function_type"]))] = data.draw(ANY)
        functions.append(entry)
    if data.draw(hs.integers(0, 4)) == 0:
        functions.append(data.draw(ANY))
    features = [{"name": "t%d" % i} for i in range(data.draw(hs.integers(0, 3)))]
    if data.draw(hs.integers(0, 4)) == 0:
        features.append(data.draw(ANY))
    return data.draw(ANY) if data.draw(hs.integers(0, 5)) == 0 else {"functions": functions, "features": features}


def _rows(data):
    rows = []
    for _ in range(data.draw(hs.integers(0, 5))):
        kind = data.draw(hs.integers(0, 2))
        if kind == 0:
            rows.append({"name": data.draw(hs.sampled_from(["f0", "f1", "t0", "", 5])), "yield_rate": data.draw(ANY),
                         "evaluation_count": data.draw(ANY),
                         "type": data.draw(hs.sampled_from(["feature", "function", None]))})
        elif kind == 1:
            window = types.SimpleNamespace(yield_rate=data.draw(ANY), evaluation_count=data.draw(ANY))
            rows.append(types.SimpleNamespace(
                group_key=data.draw(hs.one_of(hs.builds(lambda: [["f0"], ["t0"]]), ANY)), windows=[window],
                evaluation_count=data.draw(ANY)))
        else:
            rows.append(data.draw(ANY))
    return types.SimpleNamespace(rows=rows) if data.draw(hs.integers(0, 4)) else data.draw(ANY)


class HostileContext:
    """A context whose `analytics` property may misbehave on each read, and whose
    `chaos` trap, fired by host hooks, pulls items out of the context's data."""

    def __init__(self, data):
        self.vocabulary = _vocab(data)
        self.max_depth = data.draw(hs.one_of(hs.integers(-1, 8), ANY))
        if data.draw(hs.booleans()):
            era = types.SimpleNamespace()
            for field in ("max_node_count", "buffer_duration_minutes"):
                if data.draw(hs.booleans()):
                    setattr(era, field, data.draw(hs.one_of(hs.integers(-2, 2000), ANY)))
            self.era_config = era
        self._snapshots = [_rows(data) for _ in range(data.draw(hs.integers(1, 3)))]
        self._reads = 0
        self._misbehave = data.draw(hs.sampled_from([None, "raise", "act", "reenter"]))
        self.chaos = hd.Trap(data.draw(hs.integers(0, 20)))
        self.cum_traps = [hd.Trap(data.draw(hs.integers(0, 20)), float(i + 1)) for i in range(6)]
        self.gen = None

    def arm(self, data):
        """Arms every trap of the context; the test's last draw."""
        hd.arm(data, [self.vocabulary, self._snapshots, self.chaos, self.cum_traps, self.max_depth])

    @property
    def analytics(self):
        self._reads += 1
        if self._misbehave == "raise" and self._reads % 3 == 0:
            raise RuntimeError("analytics unavailable")
        if self._misbehave == "act":
            self.chaos.fire()
        if self._misbehave == "reenter" and self.gen is not None and self._reads == 2:
            with pytest.raises(ValueError):
                next(self.gen)
        return self._snapshots[self._reads % len(self._snapshots)]


def _check_graph(node):
    assert isinstance(node, dict)
    assert node["type"] in ("rotation", "feature", "int", "float", "string", "bool")
    for child in node.get("children", ()):
        _check_graph(child)


def _hooks(ctx, which):
    """Host replacements of the draw hooks that hand out trapped weights or fire the context's trap."""
    if which == "cum_weights":
        return {"_random_weighted_cum_weights":
                lambda names, rates: (ctx.cum_traps + [7.0] * len(names))[:len(names)]}
    if which is None:
        return {}
    name = {"weighted_choice": "_weighted_choice", "build": "_build_random_signal_expression"}[which]
    original = getattr(st, name)

    def hook(*args):
        ctx.chaos.fire()
        return original(*args)
    return {name: hook}


@given(data=hs.data())
def test_generator_object_survives_hostile_contexts(data):
    ctx = HostileContext(data)
    hooks = _hooks(ctx, data.draw(hs.sampled_from([None, "cum_weights", "weighted_choice", "build"])))
    ops = data.draw(hs.lists(hs.sampled_from(["next", "next", "send", "send_value", "throw", "close"]),
                             min_size=1, max_size=8))
    sent = data.draw(ANY)
    ctx.arm(data)
    with pytest.MonkeyPatch.context() as mp:
        for name, fn in hooks.items():
            mp.setattr(st, name, fn)
        gen = st.random_weighted(ctx)
        ctx.gen = gen
        for op in ops:
            if op == "throw":
                with pytest.raises(KeyError):
                    gen.throw(KeyError("thrown"))
            elif op == "close":
                assert gen.close() is None
            else:
                outcome, graph = hd.ordinary_outcome(
                    lambda: next(gen) if op == "next" else gen.send(None if op == "send" else sent))
                if outcome == "ok":
                    _check_graph(graph)


@given(data=hs.data())
def test_analysis_report_survives_hostile_contexts(data):
    ctx = HostileContext(data)
    ctx.arm(data)
    outcome, report = hd.ordinary_outcome(st.analyze_random_weighted, ctx)
    if outcome == "ok":
        assert list(report) == ["analytics_rows_seen", "function_weights", "feature_weights", "unsafe_functions"]
