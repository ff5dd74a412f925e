"""The template sandbox: its guard, its hooked entry points, and both with hostile
arguments and state.

Hostile arguments are never path-like, strings or small integers, so that a call
passed through to the real operation cannot create a file or adopt a
descriptor of the test process.
"""
import builtins
import io
import sqlite3
import subprocess
import sys
import threading
import urllib.request

import pytest
from hypothesis import given
from hypothesis import strategies as hs

import tarnwicket.search_templates as st
from fakes import hostile_data as hd

HOOKS = [
    ("_sandboxed_open", "_original_open", "filesystem"),
    ("_sandboxed_sqlite_connect", "_original_sqlite_connect", "sqlite"),
    ("_sandboxed_urllib_urlopen", "_original_urllib_urlopen", "network"),
]


@pytest.fixture(autouse=True)
def no_thread_left_marked():
    yield
    assert threading.get_ident() not in st._template_sandbox_threads


def test_nothing_hooked_before_first_guard():
    script = """if True:
        import builtins, io, sqlite3, threading, urllib.request
        import tarnwicket.search_templates as st
        assert st._original_urllib_urlopen is None and st._template_sandbox_hooks_installed is False
        assert st._original_open is io.open is builtins.open
        assert st._original_sqlite_connect is sqlite3.dbapi2.connect
        assert type(st._template_sandbox_lock) is type(threading.Lock())
        assert type(st._template_sandbox_threads) is set and not st._template_sandbox_threads
        real = urllib.request.urlopen
        with st._template_sandbox():
            pass
        assert st._template_sandbox_hooks_installed is True and st._original_urllib_urlopen is real
        assert builtins.open is st._sandboxed_open and sqlite3.connect is st._sandboxed_sqlite_connect
        assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
    """
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert out.returncode == 0, out.stderr


def test_hooked_operations_still_work_for_finalisers_after_the_namespace_is_emptied(tmp_path):
    # A finaliser that kept the hooked operations runs after the host has
    # emptied the module's namespace at exit: no template runs any more, and
    # the calls reach the real operations.
    script = f"""
import builtins, sqlite3, sys
import tarnwicket.search_templates as st
with st._template_sandbox():
    pass

class Late:
    def __del__(self, open=builtins.open, connect=sqlite3.connect, err=sys.stderr):
        try:
            with open({str(tmp_path / "late.txt")!r}, "w") as f:
                f.write("written")
            connect(":memory:").close()
        except Exception as e:
            err.write("finaliser failed: %r" % (e,))

st._late_finaliser = Late()
"""
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert (out.returncode, out.stderr) == (0, "")
    assert (tmp_path / "late.txt").read_text() == "written"


@pytest.mark.parametrize("call, word", [
    (lambda d: open(d / "data.txt"), "filesystem"), (lambda d: open(d / "new.txt", "w"), "filesystem"),
    (lambda d: sqlite3.connect(str(d / "db.sqlite")), "sqlite"),
    (lambda d: urllib.request.urlopen("http://127.0.0.1:9/"), "network"),
])
def test_forbidden_inside_guard(tmp_path, call, word):
    (tmp_path / "data.txt").write_text("x")
    with st._template_sandbox():
        with pytest.raises(st.TemplateSandboxViolation) as info:
            call(tmp_path)
    assert str(info.value) == f"forbidden {word} access from search template" and isinstance(info.value, RuntimeError)
    assert sorted(p.name for p in tmp_path.iterdir()) == ["data.txt"]


def test_other_thread_passes_while_one_is_sandboxed(tmp_path):
    target = tmp_path / "data.txt"
    target.write_text("payload")
    inside, release, seen = threading.Event(), threading.Event(), {}

    def worker():
        with st._template_sandbox():
            try:
                open(target)
            except st.TemplateSandboxViolation as exc:  # a template may swallow it and go on
                seen["error"] = str(exc)
            seen["active"] = st._template_sandbox_active()
            inside.set()
            release.wait(10)

    t = threading.Thread(target=worker)
    t.start()
    try:
        assert inside.wait(10)
        assert st._template_sandbox_active() is False
        with open(target) as fh:
            assert fh.read() == "payload"
        sqlite3.connect(":memory:").close()
    finally:
        release.set()
        t.join(10)
    assert seen == {"error": "forbidden filesystem access from search template", "active": True}
    assert st._template_sandbox_threads == set()


def test_leaving_unmarks_thread_on_every_way_out(tmp_path):
    (tmp_path / "f").write_text("abc")
    with st._template_sandbox() as entered:
        assert entered is None and threading.get_ident() in st._template_sandbox_threads
    assert open(tmp_path / "f").read() == "abc"
    exc = hd.Boom()
    with pytest.raises(hd.Boom) as info:
        with st._template_sandbox():
            raise exc
    assert info.value is exc and not st._template_sandbox_active()
    # No nesting count: leaving an inner guard ends the sandbox for the thread.
    with st._template_sandbox():
        with st._template_sandbox():
            pass
        assert st._template_sandbox_active() is False
    assert builtins.open is st._sandboxed_open


def test_entry_reasserts_hooks_and_keeps_saved_originals(monkeypatch):
    with st._template_sandbox():
        pass
    saved = (st._original_open, st._original_sqlite_connect, st._original_urllib_urlopen)
    monkeypatch.setattr(urllib.request, "urlopen", lambda *a, **k: "other")
    monkeypatch.setattr(sqlite3, "connect", lambda *a, **k: "other")
    monkeypatch.setattr(builtins, "open", io.open)
    with st._template_sandbox():
        pass
    assert (urllib.request.urlopen, sqlite3.connect, builtins.open) == (
        st._sandboxed_urllib_urlopen, st._sandboxed_sqlite_connect, st._sandboxed_open)
    assert (st._original_open, st._original_sqlite_connect, st._original_urllib_urlopen) == saved


@pytest.mark.parametrize("hook, original, word", HOOKS)
@pytest.mark.parametrize("sandboxed", [False, True])
def test_hook_forwards_arguments_and_reads_module_names(monkeypatch, hook, original, word, sandboxed):
    result, refused = object(), []
    monkeypatch.setattr(st, original, lambda *a, **k: (result, a, k))
    if sandboxed:
        # Replaced checks are obeyed; a violation hook that returns lets the call through.
        monkeypatch.setattr(st, "_template_sandbox_active", lambda: True)
        monkeypatch.setattr(st, "_raise_template_sandbox_violation", refused.append)
    assert getattr(st, hook)("a", 2, mode="rb") == (result, ("a", 2), {"mode": "rb"})
    assert refused == ([word] if sandboxed else [])


class CountingLock:
    def __init__(self):
        self.inner, self.rounds = threading.Lock(), []

    def acquire(self, *a, **k):
        self.rounds.append("acquire")
        return self.inner.acquire(*a, **k)

    def release(self):
        self.rounds.append("release")
        self.inner.release()


def test_hook_takes_module_lock_once_and_releases_on_error(monkeypatch):
    lock = CountingLock()
    monkeypatch.setattr(st, "_template_sandbox_lock", lock)
    monkeypatch.setattr(st, "_original_open", len)
    assert st._sandboxed_open("abc") == 3
    monkeypatch.setattr(st, "_template_sandbox_threads", type("Broken", (set,), {"__contains__": lambda s, i: {}[i]})())
    with pytest.raises(KeyError):
        st._sandboxed_open("abc")
    assert lock.rounds == ["acquire", "release"] * 2 and not lock.inner.locked()


def test_hook_waits_while_another_thread_holds_the_sandbox_lock(monkeypatch):
    monkeypatch.setattr(st, "_original_open", len)
    done = []
    with st._template_sandbox_lock:
        worker = threading.Thread(target=lambda: done.append(st._sandboxed_open("abc")))
        worker.start()
        worker.join(0.2)
        assert done == [] and worker.is_alive()
    worker.join(5)
    assert done == [3]


# ---------------------------------------------------------------- hostile arguments and state

HOOK_FUNCTIONS = [getattr(st, hook) for hook, _, _ in HOOKS]


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


@given(hs.data(), call_args())
def test_hooks_refuse_inside_and_forward_outside(data, call):
    with st._template_sandbox():  # the hooks are in place before any hostile call
        pass
    args, kwargs = call
    hook = data.draw(hs.sampled_from(HOOK_FUNCTIONS))
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
        for hook in HOOK_FUNCTIONS:
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
