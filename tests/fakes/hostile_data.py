"""Hostile values for property-based tests of the evaluation context, the
metric contract, the vocabulary and the submission helpers.

A `Trap` answers every hook the module may call (hash, comparisons, float(),
index(), len(), iter(), str(), format(), bool(), arithmetic, attribute reads)
and, while armed, first runs an action on the data around it: it clears,
shrinks or grows the containers it was given, or raises. Unarmed, a large
mode makes it lie about its size; armed with mode 3 and nothing around it,
every hook raises. `arm` wires the traps of a generated
structure to the containers of that same structure, so that a callback pulls
items out from under a walker of it.
"""

import math
import sys

from hypothesis import strategies as hs

HUGE = [sys.maxsize, sys.maxsize + 1, -sys.maxsize - 2, 2 ** 1024, -(2 ** 4000)]
SPECIAL_FLOATS = [math.nan, math.inf, -math.inf, -0.0, 1e308, 5e-324]
TEXTS = ["", "x", "type", "node", "children", "name", "is_mi", "is_mi_values", "is_pnl_mi_values", "\udc80", "a\x00b",
         "signal", "data_params", "config_children", "param_schema", "function_type", "yield_rate",
         "evaluation_count", "default", "choices", "min", "max", "int", "float", "data", "rotation", "feature"]


class Boom(Exception):
    """Raised by a trap that is told to fail."""


class Trap:
    """A value whose hooks may mutate its surroundings, lie, or raise."""

    def __init__(self, mode=0, value=1.0, armed=False):
        self.mode, self.value, self.victims, self.armed = mode, value, [], armed

    def fire(self):
        if not self.armed:
            return
        for victim in self.victims:
            try:
                if isinstance(victim, dict):
                    victim.popitem() if self.mode % 3 else victim.clear()
                    if self.mode % 5 == 4:
                        victim[Trap()] = Trap()
                elif isinstance(victim, list):
                    del victim[: max(1, len(victim) // 2) if self.mode % 2 else len(victim)]
                    if self.mode % 7 == 6:
                        victim.extend([Trap(), 2.0])
            except (KeyError, IndexError):
                pass
        if self.mode % 4 == 3:
            raise Boom("trap")

    def __hash__(self):
        self.fire()
        return self.mode % 3

    def __eq__(self, other):
        self.fire()
        return self is other

    def __lt__(self, other):
        self.fire()
        return self.mode % 2 == 0

    __gt__ = __lt__
    __le__ = __lt__
    __ge__ = __lt__

    def __float__(self):
        self.fire()
        return float(self.value)

    def __index__(self):
        self.fire()
        return int(self.mode)

    __int__ = __index__

    def __len__(self):
        self.fire()
        return self.mode

    def __iter__(self):
        self.fire()
        return iter([self.value, self])

    def __getitem__(self, key):
        self.fire()
        if self.mode % 2:
            raise KeyError(key)
        return self.value

    def __bool__(self):
        self.fire()
        return bool(self.mode % 2)

    def __str__(self):
        self.fire()
        return repr(self)

    def __repr__(self):
        # Quiet, so that hypothesis can report the example; its text is still odd.
        return "\udc80trap" if self.mode % 2 else "trap"

    def __format__(self, spec):
        self.fire()
        return str(self)

    def __add__(self, other):
        self.fire()
        return self

    __radd__ = __sub__ = __rsub__ = __mul__ = __rmul__ = __truediv__ = __add__

    def __getattr__(self, name):
        if name.startswith("__"):
            raise AttributeError(name)
        self.fire()
        if self.mode % 3 == 0:
            raise AttributeError(name)
        return self.value


class ShrinkingList(list):
    """A list whose iteration and length empty the containers it was given."""

    victims = ()

    def __iter__(self):
        for v in self.victims:
            v.clear()
        return super().__iter__()

    def __len__(self):
        for v in self.victims:
            v.clear()
        return super().__len__()


class ShrinkingDict(dict):
    """A dict whose `get`, `items`, `values` and `keys` empty the containers it was given."""

    victims = ()

    def _shrink(self):
        for v in self.victims:
            v.clear()

    def get(self, *a):
        self._shrink()
        return super().get(*a)

    def items(self):
        self._shrink()
        return super().items()

    def values(self):
        self._shrink()
        return super().values()

    def keys(self):
        self._shrink()
        return super().keys()


class BadLen(list):
    """A list whose length fails."""

    def __len__(self):
        raise Boom("len")


class IntSub(int):
    pass


class FloatSub(float):
    pass


class StrSub(str):
    """A text whose str() is another text, one that cannot be encoded."""

    def __str__(self):
        return "sub\udcff"


class Sized:
    """Only a length, which may be anything up to the largest C size."""

    def __init__(self, n):
        self.n = n

    def __len__(self):
        return self.n


def leaves():
    return hs.one_of(
        hs.none(), hs.booleans(), hs.integers(-10, 10), hs.sampled_from(HUGE), hs.floats(allow_nan=True),
        hs.sampled_from(SPECIAL_FLOATS), hs.sampled_from(TEXTS), hs.text(max_size=4),
        hs.builds(IntSub, hs.integers(-3, 3)), hs.builds(FloatSub, hs.sampled_from(SPECIAL_FLOATS + [1.5])),
        hs.builds(StrSub, hs.sampled_from(TEXTS)),
        hs.builds(Trap, hs.integers(0, 20), hs.sampled_from([1.0, math.nan, 2 ** 1024, "x"])))


def _keys():
    return hs.one_of(hs.sampled_from(TEXTS), hs.integers(-3, 3), hs.builds(StrSub, hs.sampled_from(TEXTS)),
                     hs.builds(Trap, hs.integers(0, 20)))


def nested(max_leaves=25):
    """Nested dicts, lists, tuples and their shrinking subclasses, with hostile leaves and keys."""
    return hs.recursive(
        leaves(),
        lambda kids: hs.one_of(
            hs.lists(kids, max_size=5), hs.lists(kids, max_size=5).map(tuple),
            hs.lists(kids, max_size=5).map(ShrinkingList),
            hs.dictionaries(_keys(), kids, max_size=5),
            hs.dictionaries(_keys(), kids, max_size=5).map(ShrinkingDict)),
        max_leaves=max_leaves)


def plain_nested(max_leaves=25):
    """Nested dicts, lists and tuples of ordinary values: where the answer is defined."""
    leaf = hs.one_of(hs.none(), hs.booleans(), hs.integers(-10, 10), hs.sampled_from(HUGE),
                     hs.floats(allow_nan=True), hs.sampled_from(TEXTS), hs.builds(IntSub, hs.integers(-3, 3)),
                     hs.builds(FloatSub, hs.sampled_from(SPECIAL_FLOATS)))
    key = hs.one_of(hs.sampled_from(TEXTS), hs.integers(-3, 3), hs.builds(StrSub, hs.sampled_from(TEXTS)),
                    hs.just(math.nan))
    return hs.recursive(
        leaf,
        lambda kids: hs.one_of(hs.lists(kids, max_size=5), hs.lists(kids, max_size=5).map(tuple),
                               hs.dictionaries(key, kids, max_size=5)),
        max_leaves=max_leaves)


def containers(value, seen=None):
    """Every list and dict reachable from `value`, each once."""
    seen = {} if seen is None else seen
    if isinstance(value, (list, dict)) and id(value) not in seen:
        seen[id(value)] = value
    if isinstance(value, dict):
        for k, v in list(dict.items(value)):
            containers(k, seen)
            containers(v, seen)
    elif isinstance(value, (list, tuple)):
        for v in list(value) if not isinstance(value, list) else list.copy(value):
            containers(v, seen)
    return list(seen.values())


def traps(value, found=None):
    found = [] if found is None else found
    if isinstance(value, (Trap, ShrinkingList, ShrinkingDict)):
        found.append(value)
    if isinstance(value, dict):
        for k, v in list(dict.items(value)):
            traps(k, found)
            traps(v, found)
    elif isinstance(value, (list, tuple)):
        for v in (list.copy(value) if isinstance(value, list) else value):
            traps(v, found)
    return found


def arm(data, value, extra=()):
    """Point each trap of `value` at containers drawn from `value` (and `extra`), then arm it.
    Call it after the test's last draw: an armed trap must not meet hypothesis itself."""
    pool = containers(value) + [c for c in extra if isinstance(c, (list, dict))]
    found = traps(value)
    # Every choice is drawn, as indices, before any trap is armed.
    picks = [data.draw(hs.lists(hs.integers(0, len(pool) - 1), max_size=2)) if pool else [] for _ in found]
    for t, idx in zip(found, picks):
        victims = [pool[i] for i in idx]
        if isinstance(t, Trap):
            t.victims, t.armed = victims, True
        else:
            t.victims = victims
    return value


def deep_list(depth=10 ** 5):
    x = []
    for _ in range(depth):
        x = [x]
    return x


def deep_dict(depth=10 ** 5):
    x = {}
    for _ in range(depth):
        x = {"k": x}
    return x


def cyclic_dict():
    d = {"a": 1.0}
    d["self"] = d
    return d


def cyclic_list():
    lst = [1.0]
    lst.append(lst)
    return lst


def ordinary_outcome(fn, *args, **kwargs):
    """Run fn; return ("ok", result) or ("raised", exc). A SystemError, or an
    exception that is not an Exception, fails the test."""
    try:
        result = fn(*args, **kwargs)
    except SystemError:
        raise
    except Exception as exc:  # noqa: BLE001 - any ordinary exception is an accepted outcome
        return "raised", exc
    return "ok", result
