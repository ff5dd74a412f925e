"""The per-thread guard around template code: open, sqlite3.connect and urlopen."""

import builtins
import io
import sqlite3
import subprocess
import sys
import textwrap
import threading
import urllib.request

import pytest

import tarnwicket.search_templates as st

WAIT = 10.0


def forbidden_calls(tmp_path):
    target = tmp_path / "data.txt"
    target.write_text("x")
    return {
        "read": (lambda: open(target), "filesystem"),
        "write": (lambda: open(tmp_path / "new.txt", "w"), "filesystem"),
        "sqlite": (lambda: sqlite3.connect(str(tmp_path / "db.sqlite")), "sqlite"),
        "network": (lambda: urllib.request.urlopen("http://127.0.0.1:9/"), "network"),
    }


@pytest.fixture(autouse=True)
def no_thread_left_marked():
    yield
    assert threading.get_ident() not in st._template_sandbox_threads


def test_state_before_and_at_first_installation():
    # A fresh interpreter: nothing is hooked until the first guard is entered.
    script = textwrap.dedent(
        """
        import builtins, io, sqlite3, threading
        import tarnwicket.search_templates as st
        assert st._original_urllib_urlopen is None
        assert st._template_sandbox_hooks_installed is False
        assert st._original_open is io.open and builtins.open is io.open
        assert st._original_sqlite_connect is sqlite3.dbapi2.connect
        assert type(st._template_sandbox_lock) is type(threading.Lock())
        assert st._template_sandbox_threads == set() and type(st._template_sandbox_threads) is set
        import urllib.request
        real = urllib.request.urlopen
        with st._template_sandbox():
            pass
        assert st._template_sandbox_hooks_installed is True
        assert st._original_urllib_urlopen is real
        assert builtins.open is st._sandboxed_open
        assert sqlite3.connect is st._sandboxed_sqlite_connect
        assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
        print("ok")
        """
    )
    out = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert out.returncode == 0, out.stderr
    assert out.stdout.strip() == "ok"


@pytest.mark.parametrize("kind", ["read", "write", "sqlite", "network"])
def test_forbidden_inside_guard(tmp_path, kind):
    call, word = forbidden_calls(tmp_path)[kind]
    with st._template_sandbox():
        with pytest.raises(st.TemplateSandboxViolation) as info:
            call()
    assert str(info.value) == f"forbidden {word} access from search template"
    assert isinstance(info.value, RuntimeError)
    assert not (tmp_path / "new.txt").exists()


def test_other_thread_passes_while_one_is_sandboxed(tmp_path):
    target = tmp_path / "data.txt"
    target.write_text("payload")
    inside = threading.Event()
    release = threading.Event()
    seen = {}

    def worker():
        with st._template_sandbox():
            seen["active"] = st._template_sandbox_active()
            try:
                open(target)
            except st.TemplateSandboxViolation as exc:
                seen["error"] = str(exc)  # a template may swallow it and go on
            inside.set()
            release.wait(WAIT)
        seen["after"] = st._template_sandbox_active()

    t = threading.Thread(target=worker)
    t.start()
    try:
        assert inside.wait(WAIT)
        assert st._template_sandbox_active() is False
        with open(target) as fh:
            assert fh.read() == "payload"
        conn = sqlite3.connect(":memory:")
        conn.close()
    finally:
        release.set()
        t.join(WAIT)
    assert seen == {
        "active": True,
        "error": "forbidden filesystem access from search template",
        "after": False,
    }
    assert st._template_sandbox_threads == set()


def test_leaving_restores_access_and_keeps_hooks(tmp_path):
    target = tmp_path / "f.txt"
    target.write_text("abc")
    with st._template_sandbox() as entered:
        assert entered is None
        assert threading.get_ident() in st._template_sandbox_threads
    assert builtins.open is st._sandboxed_open
    with open(target) as fh:
        assert fh.read() == "abc"


class Boom(Exception):
    pass


def test_exception_unmarks_thread_and_passes_unchanged():
    exc = Boom("inside")
    with pytest.raises(Boom) as info:
        with st._template_sandbox():
            raise exc
    assert info.value is exc
    assert st._template_sandbox_active() is False


def test_violation_escaping_the_guard_unmarks_thread(tmp_path):
    with pytest.raises(st.TemplateSandboxViolation):
        with st._template_sandbox():
            open(tmp_path / "x")
    assert st._template_sandbox_active() is False


def test_inner_guard_ends_sandbox_for_the_thread():
    # No nesting count: leaving any guard unmarks the thread.
    with st._template_sandbox():
        with st._template_sandbox():
            pass
        assert st._template_sandbox_active() is False


def test_entry_reasserts_hooks_and_keeps_saved_originals(monkeypatch):
    with st._template_sandbox():
        pass
    saved = (st._original_open, st._original_sqlite_connect, st._original_urllib_urlopen)

    def other_urlopen(*a, **k):
        return "other"

    def other_connect(*a, **k):
        return "other"

    monkeypatch.setattr(urllib.request, "urlopen", other_urlopen)
    monkeypatch.setattr(sqlite3, "connect", other_connect)
    monkeypatch.setattr(builtins, "open", io.open)
    with st._template_sandbox():
        pass
    assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
    assert sqlite3.connect is st._sandboxed_sqlite_connect
    assert builtins.open is st._sandboxed_open
    assert (st._original_open, st._original_sqlite_connect, st._original_urllib_urlopen) == saved
    assert saved[2] is not other_urlopen


HOOKS = [
    ("_sandboxed_open", "_original_open", "filesystem"),
    ("_sandboxed_sqlite_connect", "_original_sqlite_connect", "sqlite"),
    ("_sandboxed_urllib_urlopen", "_original_urllib_urlopen", "network"),
]


@pytest.mark.parametrize("hook, original, word", HOOKS)
def test_hook_forwards_arguments_and_result(monkeypatch, hook, original, word):
    calls = []
    result = object()

    def real(*args, **kwargs):
        calls.append((args, kwargs))
        return result

    monkeypatch.setattr(st, original, real)
    assert getattr(st, hook)("a", 2, mode="rb", timeout=None) is result
    assert calls == [(("a", 2), {"mode": "rb", "timeout": None})]


@pytest.mark.parametrize("hook, original, word", HOOKS)
def test_hook_reads_checks_from_module_namespace(monkeypatch, hook, original, word):
    seen = []
    monkeypatch.setattr(st, "_template_sandbox_active", lambda: True)
    monkeypatch.setattr(st, "_raise_template_sandbox_violation", seen.append)
    monkeypatch.setattr(st, original, lambda *a, **k: ("forwarded", a, k))
    # A replacement that does not raise lets the call through, as written.
    assert getattr(st, hook)("p", k=1) == ("forwarded", ("p",), {"k": 1})
    assert seen == [word]


def test_hook_errors_of_real_operation_pass_through(tmp_path):
    with pytest.raises(FileNotFoundError):
        st._sandboxed_open(tmp_path / "missing")


class CountingLock:
    def __init__(self):
        self.inner = threading.Lock()
        self.acquired = 0
        self.released = 0

    def acquire(self, *a, **k):
        self.acquired += 1
        return self.inner.acquire(*a, **k)

    def release(self):
        self.released += 1
        self.inner.release()


class ExplodingSet(set):
    def __contains__(self, item):
        raise LookupError("broken set")


def test_hook_takes_module_lock_once_and_releases_on_error(monkeypatch):
    lock = CountingLock()
    monkeypatch.setattr(st, "_template_sandbox_lock", lock)
    monkeypatch.setattr(st, "_original_open", len)
    assert st._sandboxed_open("abc") == 3
    assert (lock.acquired, lock.released) == (1, 1)
    monkeypatch.setattr(st, "_template_sandbox_threads", ExplodingSet())
    with pytest.raises(LookupError):
        st._sandboxed_open("abc")
    assert (lock.acquired, lock.released) == (2, 2)
    assert not lock.inner.locked()


def test_active_waits_for_the_lock():
    done = threading.Event()
    result = []

    def probe():
        result.append(st._template_sandbox_active())
        done.set()

    with st._template_sandbox_lock:
        t = threading.Thread(target=probe)
        t.start()
        assert not done.wait(0.2)
    t.join(WAIT)
    assert result == [False]


@pytest.mark.parametrize("operation", ["filesystem", "anything else"])
def test_raise_violation_text(operation):
    with pytest.raises(st.TemplateSandboxViolation, match=rf"^forbidden {operation} access from search template$"):
        st._raise_template_sandbox_violation(operation)
