import builtins
import sqlite3
import threading
import urllib.request

import pytest

import tarnwicket.search_templates as st


def in_other_thread(fn):
    result = {}

    def run():
        try:
            value = fn()
            getattr(value, "close", lambda: None)()
            result["value"] = value
        except BaseException as e:  # noqa: BLE001 - reported to the test
            result["error"] = e

    t = threading.Thread(target=run)
    t.start()
    t.join()
    return result


@pytest.mark.parametrize("call, word", [
    (lambda p: open(p, "w"), "filesystem"),
    (lambda p: open(p), "filesystem"),
    (lambda p: sqlite3.connect(p), "sqlite"),
    (lambda p: urllib.request.urlopen("http://127.0.0.1:9/"), "network"),
])
def test_forbidden_inside_allowed_outside(tmp_path, call, word):
    path = str(tmp_path / "f.db")
    (tmp_path / "f.db").write_bytes(b"")
    with st._template_sandbox():
        assert st._template_sandbox_active()
        with pytest.raises(st.TemplateSandboxViolation) as info:
            call(path)
        assert str(info.value) == f"forbidden {word} access from search template"
        if word != "network":
            other = in_other_thread(lambda: call(path))
            assert "error" not in other
    assert not st._template_sandbox_active()
    if word != "network":
        getattr(call(path), "close", lambda: None)()


def test_violation_is_a_runtime_error_and_the_thread_is_unmarked_after_errors():
    with pytest.raises(ZeroDivisionError):
        with st._template_sandbox():
            1 / 0
    assert not st._template_sandbox_active()
    assert issubclass(st.TemplateSandboxViolation, RuntimeError)
    with pytest.raises(st.TemplateSandboxViolation, match="forbidden x access from search template"):
        st._raise_template_sandbox_violation("x")


def test_hooks_stay_installed_and_pass_through(tmp_path):
    with st._template_sandbox():
        pass
    assert builtins.open is st._sandboxed_open and sqlite3.connect is st._sandboxed_sqlite_connect
    with open(tmp_path / "a.txt", "w", encoding="utf-8") as fh:
        fh.write("ok")
    assert st._sandboxed_open(tmp_path / "a.txt", mode="r").read() == "ok"
    assert st._original_open is not builtins.open


def test_replaced_urlopen_is_restored_and_the_original_kept(monkeypatch):
    with st._template_sandbox():
        pass
    saved = st._original_urllib_urlopen
    assert urllib.request.urlopen is st._sandboxed_urllib_urlopen and saved is not None

    def other(*a, **k):
        return "other"

    urllib.request.urlopen = other
    with st._template_sandbox():
        assert urllib.request.urlopen is st._sandboxed_urllib_urlopen
    assert st._original_urllib_urlopen is saved


def test_nested_guard_ends_the_sandbox_when_it_leaves():
    with st._template_sandbox():
        with st._template_sandbox():
            pass
        assert not st._template_sandbox_active()


def test_replaced_activity_probe_is_obeyed(monkeypatch, tmp_path):
    with st._template_sandbox():
        pass
    monkeypatch.setattr(st, "_template_sandbox_active", lambda: True)
    with pytest.raises(st.TemplateSandboxViolation):
        open(tmp_path / "x", "w")
