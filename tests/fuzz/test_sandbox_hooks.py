"""The sandbox's hooked entry points and guard with hostile arguments and state.

Arguments are never path-like, strings or small integers, so that a call
passed through to the real operation cannot create a file or adopt a
descriptor of the test process.
"""

import threading

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st

from fakes import hostile_data as hd

HOOKS = [st._sandboxed_open, st._sandboxed_sqlite_connect, st._sandboxed_urllib_urlopen]


class Opaque(hd.Trap):
    """A trap that is no file descriptor: open() must not take it for one."""

    def __index__(self):
        self.fire()
        raise TypeError("not an index")

    __int__ = __index__


def harmless():
    return hs.one_of(hs.none(), hs.floats(), hs.sampled_from(hd.HUGE[1:]),
                     hs.builds(Opaque, hs.integers(0, 20), hs.sampled_from([1.0, float("nan")])),
                     hs.lists(hs.floats(), max_size=2))


def call_args():
    return hs.tuples(hs.lists(harmless(), max_size=3),
                     hs.dictionaries(hs.sampled_from(["mode", "timeout", "data", "uri", "x"]), harmless(), max_size=2))


@pytest.fixture(scope="module", autouse=True)
def hooks_installed():
    with st._template_sandbox():
        pass


@given(hs.data(), call_args())
def test_hooks_refuse_inside_and_forward_outside(data, call):
    args, kwargs = call
    hook = data.draw(hs.sampled_from(HOOKS))
    hd.arm(data, [args, kwargs])
    with st._template_sandbox():
        with pytest.raises(st.TemplateSandboxViolation):
            hook(*args, **kwargs)
    hd.ordinary_outcome(hook, *args, **kwargs)
    assert threading.get_ident() not in st._template_sandbox_threads


class HostileThreads:
    """A stand-in for the set of sandboxed threads whose hooks misbehave."""

    def __init__(self, mode):
        self.mode, self.items = mode, set()

    def __contains__(self, item):
        if self.mode % 3 == 0:
            raise hd.Boom("contains")
        return (item in self.items) if self.mode % 3 == 1 else hd.Trap(self.mode)

    def add(self, item):
        if self.mode % 4 == 3:
            raise hd.Boom("add")
        self.items.add(item)

    def discard(self, item):
        self.items.discard(item)


@given(hs.integers(0, 30), harmless(), call_args())
def test_replaced_module_state_gives_ordinary_outcomes(monkeypatch_mode, operation, call):
    args, kwargs = call
    mp = pytest.MonkeyPatch()
    try:
        mp.setattr(st, "_template_sandbox_threads", HostileThreads(monkeypatch_mode))
        if monkeypatch_mode % 5 == 0:
            mp.setattr(st, "_template_sandbox_active", lambda: hd.Trap(monkeypatch_mode))
        if monkeypatch_mode % 7 == 0:
            mp.delattr(st, "_original_sqlite_connect")
        for hook in HOOKS:
            hd.ordinary_outcome(hook, *args, **kwargs)
        hd.ordinary_outcome(st._template_sandbox_active)
        hd.ordinary_outcome(st._install_template_sandbox_hooks)

        def guarded():
            with st._template_sandbox():
                return st._template_sandbox_active()

        hd.ordinary_outcome(guarded)
    finally:
        mp.undo()
    outcome, exc = hd.ordinary_outcome(st._raise_template_sandbox_violation, operation)
    assert outcome == "raised"


def test_guard_exit_checks_its_arguments():
    guard = st._template_sandbox()
    with pytest.raises(TypeError):
        guard.__exit__(None)
    assert guard.__exit__(None, None, None) is False
    with pytest.raises(TypeError):
        type(guard)()
