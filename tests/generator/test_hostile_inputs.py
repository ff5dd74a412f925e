"""Inputs that change under the generator's feet, lie about their size or print
oddly: each case here once crashed, overflowed or raised the wrong error."""
import fractions
import sys
import types

import pytest

import tarnwicket.search_templates as st
from fakes.hostile_data import Sized
from generator.gen_helpers import context, feature, rotation

MAX = sys.maxsize


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
    huge = {"data_params": Sized(MAX), "config_children": Sized(MAX)}
    assert st._random_weighted_min_node_count(huge) == 1 + 2 * MAX
    assert st._random_weighted_rotations_within_node_budget([huge], 1000) == []
    wide = {"name": "wide", "data_params": Sized(MAX), "config_children": []}
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
    monkeypatch.setattr(st, "_RANDOM_WEIGHTED_MAX_ANALYTICS_WEIGHT", MAX)
    rows = [{"name": "f", "yield_rate": 0.0, "evaluation_count": MAX} for _ in range(3)]
    _, function_stats, _ = st._random_weighted_analytics_stats(types.SimpleNamespace(rows=rows))
    assert function_stats["f"]["evaluation_count"] == 3 * MAX


def test_frozen_seen_names_cannot_be_added_to():
    with pytest.raises(AttributeError):
        st._random_weighted_skip_analytics_name("a", None, frozenset())
    assert st._random_weighted_skip_analytics_name("a", None, frozenset({"a"})) is False


class BadLen(list):
    def __len__(self):
        raise ValueError("no length")


class TrueBadLen(BadLen):
    def __bool__(self):
        return True


def test_a_failed_len_is_raised_where_it_fails():
    row = types.SimpleNamespace(group_key=TrueBadLen([["f"], ["t"]]), windows=[types.SimpleNamespace(yield_rate=0.1)])
    with pytest.raises(ValueError, match="no length"):
        st._random_weighted_analytics_stats(types.SimpleNamespace(rows=[row]))
    with pytest.raises(ValueError, match="no length"):
        st._random_weighted_first_choice({"enum": BadLen(["a"])})
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
