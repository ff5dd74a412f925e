"""The generator's module functions, the generator object and the analysis report
fed with hostile inputs: inputs that change under the generator's feet, lie about
their size or print oddly. Every call must return or raise an ordinary exception,
never SystemError, never a crash; where the inputs are plain, the answer is
checked as well. The hand-written cases each once crashed, overflowed or raised
the wrong error.
"""
import fractions
import inspect
import math
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


# ---------------------------------------------------------------- hostile objects for the properties

SURROGATE = "\ud800"
BIG_INTS = [sys.maxsize, sys.maxsize - 1, -sys.maxsize - 1, 2**63, 2**64 + 1, -(2**63) - 1, 10**400]


class Arena:
    """The containers of one example, which hostile dunders mutate."""

    def __init__(self, actions):
        self.victims = []
        self.actions = actions  # drawn list of (action, victim index)
        self.step = 0

    def keep(self, container):
        self.victims.append(container)
        return container

    def act(self):
        if not self.actions or self.step >= 64:
            return
        action, idx = self.actions[self.step % len(self.actions)]
        self.step += 1
        if action == "raise":
            raise ValueError("hostile")
        if action == "raise_type":
            raise TypeError("hostile")
        if not self.victims:
            return
        v = self.victims[idx % len(self.victims)]
        if action == "clear":
            v.clear()
        elif action == "pop":
            if v:
                v.popitem() if isinstance(v, dict) else v.pop()
        elif action == "grow":
            if isinstance(v, dict):
                v["grown%d" % self.step] = 1.0
            else:
                v.extend([0.5] * 3)


def _hit(self, what):
    if what in self._triggers:
        self._arena.act()


def _make(base):
    """A subclass of `base` (or a plain class) whose dunders call the arena."""

    ns = {}

    def cmp(op):
        def f(self, other):
            _hit(self, "cmp")
            v = self._value
            return getattr(v, op)(other) if v is not self else NotImplemented
        return f

    for op in ("__eq__", "__ne__", "__lt__", "__le__", "__gt__", "__ge__"):
        ns[op] = cmp(op)

    def __hash__(self):
        _hit(self, "hash")
        return hash(self._value) if self._value is not self else id(self)

    def hooked(trigger, result):
        def f(self):
            _hit(self, trigger)
            return result(self)
        return f

    for dunder, trigger, result in (
            ("__float__", "float", lambda self: float(self._value)),
            ("__index__", "index", lambda self: int(self._value)),
            ("__int__", "index", lambda self: int(self._value)),
            ("__len__", "len", lambda self: self._length),
            ("__iter__", "iter", lambda self: iter(self._items)),
            ("__bool__", "bool", lambda self: bool(self._length)),
            ("__repr__", "repr", lambda self: "hostile" + SURROGATE)):
        ns[dunder] = hooked(trigger, result)
    if base not in (object, list, dict):
        for dunder in ("__len__", "__iter__", "__bool__"):
            del ns[dunder]

    def __getitem__(self, key):
        _hit(self, "getitem")
        if base is dict:
            return dict.__getitem__(self, key)
        return self._items[key]

    def get(self, key, default=None):
        _hit(self, "getitem")
        if base is dict:
            return dict.get(self, key, default)
        return default

    def __mul__(self, other):
        _hit(self, "arith")
        return self._value * other

    __rmul__ = __mul__

    def __sub__(self, other):
        _hit(self, "arith")
        return self._value - other

    def __add__(self, other):
        _hit(self, "arith")
        return self._value + other

    __radd__ = __add__

    def __del__(self):
        try:
            if "del" in self._triggers and self._arena.actions:
                action, idx = self._arena.actions[0]
                if action not in ("raise", "raise_type") and self._arena.victims:
                    v = self._arena.victims[idx % len(self._arena.victims)]
                    v.clear()
        except Exception:
            pass

    ns.update(__hash__=__hash__, __del__=__del__, __mul__=__mul__, __rmul__=__rmul__, __sub__=__sub__,
              __add__=__add__, __radd__=__radd__)
    if base in (object, list, dict):
        ns["__getitem__"] = __getitem__
    if base in (object, dict):
        ns["get"] = get
    bases = () if base is object else (base,)
    return type("Hostile" + (base.__name__.title() if base is not object else ""), bases, ns)


HOSTILE_TYPES = {b: _make(b) for b in (object, int, float, str, list, dict)}


def hostile(arena, base, value, triggers, length=1, items=()):
    cls = HOSTILE_TYPES[base]
    if base is object:
        obj = cls()
    elif base in (list, dict):
        obj = cls(items)
    else:
        obj = cls(value)
    obj._arena = arena
    obj._triggers = frozenset(triggers)
    obj._value = value
    obj._length = length
    obj._items = list(items)
    if base in (list, dict):
        arena.keep(obj)
    return obj


TRIGGERS = ["cmp", "hash", "float", "index", "len", "iter", "bool", "repr", "getitem", "arith", "del"]
ACTIONS = hs.lists(hs.tuples(hs.sampled_from(["clear", "pop", "grow", "raise", "raise_type"]),
                             hs.integers(0, 8)), max_size=4)


def plain_scalars():
    return hs.one_of(
        hs.none(), hs.booleans(), hs.integers(-5, 300), hs.sampled_from(BIG_INTS),
        hs.floats(allow_nan=True, allow_infinity=True), hs.sampled_from(hd.SPECIAL_FLOATS),
        hs.sampled_from(["", "7", "3.5", "nan", "inf", "x", SURROGATE, "a\x00b", "int", "float", "data",
                         "string", "bool", "filtration", "rotation", "feature", "function"]),
    )


DEEP = hd.deep_list()


def cyclic_entry():
    """A schema entry that holds itself."""
    d = {"name": "cyc", "type": "data"}
    d["self"] = d
    return d


@hs.composite
def values(draw, arena, depth=0):
    """Any value: plain, special, hostile, or a container of more values."""
    kind = draw(hs.integers(0, 9))
    if kind <= 3 or depth >= 2:
        return draw(plain_scalars())
    if kind == 4:
        base = draw(hs.sampled_from([object, int, float, str]))
        seed = draw(plain_scalars())
        value = {int: draw(hs.one_of(hs.integers(-3, 300), hs.sampled_from(BIG_INTS))),
                 float: draw(hs.floats()),
                 str: draw(hs.sampled_from(["data", "int", "w", "feature", "", SURROGATE]))}.get(base, seed)
        length = draw(hs.one_of(hs.integers(0, 3), hs.sampled_from([sys.maxsize, sys.maxsize - 1])))
        return hostile(arena, base, value, draw(hs.sets(hs.sampled_from(TRIGGERS))), length,
                       draw(hs.lists(plain_scalars(), max_size=3)))
    if kind == 5:
        items = draw(hs.lists(values(arena, depth + 1), max_size=4))
        if draw(hs.booleans()):
            return hostile(arena, list, None, draw(hs.sets(hs.sampled_from(TRIGGERS))), len(items), items)
        return arena.keep(items) if draw(hs.booleans()) else tuple(items)
    if kind == 6:
        keys = draw(hs.lists(hs.sampled_from(["name", "type", "min", "max", "default", "choices", "options",
                                               "enum", "variadic", "data_params", "config_children",
                                               "yield_rate", "evaluation_count", "weight_total",
                                               "yield_total", "failure_rate", "stateful", "arity",
                                               "param_schema", "function_type", "engine_only"]), max_size=6))
        d = {k: draw(values(arena, depth + 1)) for k in keys}
        if draw(hs.booleans()):
            return hostile(arena, dict, None, draw(hs.sets(hs.sampled_from(TRIGGERS))), len(d), d)
        return arena.keep(d)
    if kind == 7:
        return draw(hs.sampled_from([lambda: DEEP, cyclic_entry]))()
    return draw(hs.sampled_from([float("nan"), 2**63, -1, 0, 1, 2, 1e9, "\ud800"]))


# ---------------------------------------------------------------- module functions, one property each

NAMES = sorted({n for n in dir(st) if n.startswith("_random_weighted_")}
               | {"_weighted_choice", "_build_random_signal_expression"})
# Every parameter of every generator function, as its signature says.
ARITIES = {n: len(inspect.signature(getattr(st, n)).parameters) for n in NAMES}

# Arguments that drive work exponential or linear in their value: kept to
# sizes the host itself would finish.
BOUNDED = {
    "_build_random_signal_expression": {5: 8},
    "_random_weighted_worst_case_node_count": {1: 200},
    "_random_weighted_max_depth_within_node_budget": {1: 200, 2: 2000},
}


def bounded(top):
    return hs.one_of(hs.integers(-2, top), hs.floats(-2, top), hs.sampled_from([math.nan, None, "3", True]))


def _ctx_like(arena, data):
    """An object with the attributes the era readers look up."""
    ns = types.SimpleNamespace()
    for attr in ("era_config", "_era_config"):
        if data.draw(hs.booleans()):
            era = types.SimpleNamespace()
            for field in ("max_node_count", "buffer_duration_minutes"):
                if data.draw(hs.booleans()):
                    setattr(era, field, data.draw(values(arena)))
            setattr(ns, attr, era)
    for attr in ("rows", "vocabulary", "max_depth", "analytics"):
        if data.draw(hs.booleans()):
            setattr(ns, attr, data.draw(values(arena)))
    return ns


# Five groups of names, each a test of its own, so that every name gets its share of examples.
GROUPS = {i: NAMES[i::5] for i in range(5)}


@pytest.mark.parametrize("group", sorted(GROUPS))
@given(data=hs.data())
def test_module_function_survives_hostile_arguments(group, data):
    name = data.draw(hs.sampled_from(GROUPS[group]), label="function")
    arena = Arena(data.draw(ACTIONS))
    fn = getattr(st, name)
    args = []
    for i in range(ARITIES[name]):
        if i in BOUNDED.get(name, {}):
            args.append(data.draw(bounded(BOUNDED[name][i])))
        elif data.draw(hs.integers(0, 4)) == 0:
            args.append(_ctx_like(arena, data))
        else:
            args.append(data.draw(values(arena)))
    hd.ordinary_outcome(fn, *args)


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
def test_weighted_choice_with_a_container_shrunk_by_comparisons(data, seed):
    arena = Arena(data.draw(ACTIONS, label="actions"))
    n = data.draw(hs.integers(1, 30))
    cum = arena.keep([])
    items = arena.keep(["n%d" % i for i in range(n)])
    for i in range(n):
        if data.draw(hs.booleans()):
            cum.append(hostile(arena, float, float(i + 1), {"cmp"}))
        else:
            cum.append(float(i + 1))
    random.seed(seed)
    outcome, got = hd.ordinary_outcome(st._weighted_choice, items, cum)
    assert outcome == "raised" or isinstance(got, str) or got == 0.5  # 0.5: what a grown list holds


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

def _vocab(data, arena):
    functions = arena.keep([])
    for i in range(data.draw(hs.integers(0, 4))):
        schema = data.draw(hs.sampled_from([
            ["data"], ["data", "data"], {"x": "data", "w": {"type": "int", "default": 5}},
            ["data", {"type": "string", "choices": ["a"]}], ["data", {"type": "float", "min": 0.0}],
        ]))
        entry = {"name": "f%d" % i, "function_type": "rotation", "param_schema": schema}
        if data.draw(hs.integers(0, 3)) == 0:
            entry[data.draw(hs.sampled_from(["name", "param_schema", "arity", "stateful", "engine_only",
                                             "function_type"]))] = data.draw(values(arena))
        functions.append(entry)
    if data.draw(hs.integers(0, 4)) == 0:
        functions.append(data.draw(values(arena)))
    features = arena.keep([{"name": "t%d" % i} for i in range(data.draw(hs.integers(0, 3)))])
    if data.draw(hs.integers(0, 4)) == 0:
        features.append(data.draw(values(arena)))
    vocab = {"functions": functions, "features": features}
    if data.draw(hs.integers(0, 5)) == 0:
        return data.draw(values(arena))
    return vocab


def _rows(data, arena):
    rows = arena.keep([])
    for _ in range(data.draw(hs.integers(0, 5))):
        if data.draw(hs.booleans()):
            rows.append({"name": data.draw(hs.sampled_from(["f0", "f1", "t0", "", 5])),
                         "yield_rate": data.draw(values(arena)),
                         "evaluation_count": data.draw(values(arena)),
                         "type": data.draw(hs.sampled_from(["feature", "function", None]))})
        elif data.draw(hs.booleans()):
            window = types.SimpleNamespace(yield_rate=data.draw(values(arena)),
                                           evaluation_count=data.draw(values(arena)))
            rows.append(types.SimpleNamespace(group_key=data.draw(hs.one_of(
                hs.just([["f0"], ["t0"]]), values(arena))), windows=[window],
                evaluation_count=data.draw(values(arena))))
        else:
            rows.append(data.draw(values(arena)))
    return types.SimpleNamespace(rows=rows) if data.draw(hs.integers(0, 4)) else data.draw(values(arena))


class HostileContext:
    """A context whose `analytics` property may misbehave on each read."""

    def __init__(self, data, arena):
        self.vocabulary = _vocab(data, arena)
        self.max_depth = data.draw(hs.one_of(hs.integers(-1, 8), values(arena)))
        if data.draw(hs.booleans()):
            era = types.SimpleNamespace()
            for field in ("max_node_count", "buffer_duration_minutes"):
                if data.draw(hs.booleans()):
                    setattr(era, field, data.draw(hs.one_of(hs.integers(-2, 2000), values(arena))))
            self.era_config = era
        self._snapshots = [_rows(data, arena) for _ in range(data.draw(hs.integers(1, 3)))]
        self._reads = 0
        self._arena = arena
        self._misbehave = data.draw(hs.sampled_from([None, "raise", "act", "reenter"]))
        self.gen = None

    @property
    def analytics(self):
        self._reads += 1
        if self._misbehave == "raise" and self._reads % 3 == 0:
            raise RuntimeError("analytics unavailable")
        if self._misbehave == "act":
            self._arena.act()
        if self._misbehave == "reenter" and self.gen is not None and self._reads == 2:
            with pytest.raises(ValueError):
                next(self.gen)
        return self._snapshots[self._reads % len(self._snapshots)]


def _check_graph(node, depth=0):
    assert isinstance(node, dict)
    assert node["type"] in ("rotation", "feature", "int", "float", "string", "bool")
    for child in node.get("children", ()):
        _check_graph(child, depth + 1)


def _patched_hooks(data, arena, monkeypatch_like):
    """Optionally replaces draw hooks with host functions that hand out hostile lists."""
    choice = data.draw(hs.sampled_from([None, "cum_weights", "weighted_choice", "build"]))
    if choice == "cum_weights":
        def cum(names, yield_map):
            out = arena.keep([hostile(arena, float, float(i + 1), {"cmp", "float"}) for i in range(len(names))])
            return out
        monkeypatch_like("_random_weighted_cum_weights", cum)
    elif choice == "weighted_choice":
        original = st._weighted_choice

        def wc(items, cum):
            arena.act()
            return original(items, cum)
        monkeypatch_like("_weighted_choice", wc)
    elif choice == "build":
        original = st._build_random_signal_expression

        def build(*args):
            arena.act()
            return original(*args)
        monkeypatch_like("_build_random_signal_expression", build)


@given(data=hs.data())
def test_generator_object_survives_hostile_contexts(data):
    arena = Arena(data.draw(ACTIONS))
    ctx = HostileContext(data, arena)
    saved = {}

    def patch(name, fn):
        saved[name] = getattr(st, name)
        setattr(st, name, fn)

    _patched_hooks(data, arena, patch)
    try:
        gen = st.random_weighted(ctx)
        ctx.gen = gen
        for op in data.draw(hs.lists(hs.sampled_from(["next", "next", "send", "send_value", "throw", "close"]),
                                     min_size=1, max_size=8)):
            try:
                if op == "next":
                    graph = next(gen)
                elif op == "send":
                    graph = gen.send(None)
                elif op == "send_value":
                    graph = gen.send(data.draw(values(arena)))
                elif op == "throw":
                    with pytest.raises(KeyError):
                        gen.throw(KeyError("thrown"))
                    continue
                else:
                    assert gen.close() is None
                    continue
            except SystemError:
                raise
            except Exception:
                continue
            _check_graph(graph)
    finally:
        for name, fn in saved.items():
            setattr(st, name, fn)


@given(data=hs.data())
def test_analysis_report_survives_hostile_contexts(data):
    arena = Arena(data.draw(ACTIONS))
    ctx = HostileContext(data, arena)
    outcome, report = hd.ordinary_outcome(st.analyze_random_weighted, ctx)
    if outcome == "ok":
        assert list(report) == ["analytics_rows_seen", "function_weights", "feature_weights", "unsafe_functions"]
