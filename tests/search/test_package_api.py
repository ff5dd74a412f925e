"""The package as users meet it: the engine's names at package level, register() and login()."""

import os
import time

import pytest

import tarnwicket
import tarnwicket.search_templates as st
from tarnwicket.local.era import WALLET_FILE


@pytest.fixture(autouse=True)
def _close_runtime(module_state_reset):
    yield
    runtime = getattr(st, "_library_runtime", None)
    if runtime is not None and hasattr(runtime, "close"):
        runtime.close()
    st._library_runtime = None


def test_engine_names_at_package_level_follow_the_module():
    for name in tarnwicket.__all__:
        assert getattr(tarnwicket, name) is not None
        assert name in dir(tarnwicket)
    assert tarnwicket.search is st.search and tarnwicket.SearchStatus is st.SearchStatus
    with pytest.raises(AttributeError, match="no attribute 'nothing'"):
        tarnwicket.nothing


def test_every_public_name_says_what_it_is():
    names = {n: getattr(st, n) for n in dir(st) if not n.startswith("_")}
    undocumented = [n for n, o in names.items()
                    if (callable(o) or isinstance(o, type)) and not (getattr(o, "__doc__", None) or "").strip()]
    assert undocumented == []
    for cls in (st.SearchContext, st.SearchHandle):
        for n, member in vars(cls).items():
            if not n.startswith("_"):
                assert (member.__doc__ or "").strip(), f"{cls.__name__}.{n}"
    assert all((getattr(tarnwicket, n).__doc__ or "").strip() for n in tarnwicket.__all__)


@pytest.mark.parametrize("obj, doc", [
    (st.search, "Start search with given template. Returns SearchHandle immediately."),
    (st.SearchHandle, "Concrete SearchHandle returned by search()."),
    (st.SearchError, "Raised when a fatal error occurs during search."),
    (st.SearchStatus, "Current search state snapshot (23 fields)."),
    (st.SearchContext, "Context passed to template functions."),
    (st.BacktestResult, "Result from expression evaluation."),
    (st.TemplateSandboxViolation, "Raised when template code attempts forbidden direct system access."),
    (st.SubmissionProtocolError, "Raised when a successful submission response violates the client protocol."),
    (st._resolve_search_thresholds, "Resolve SearchContext thresholds without silent defaults."),
    (st.SearchContext._resolve_search_thresholds, "Resolve SearchContext thresholds without silent defaults."),
    (st.SearchHandle.status, "Return SearchStatus snapshot. Raises SearchError on fatal."),
    (st.status, "Return the active search's status snapshot."),
    (st.get_db_info, "Return database size and row-count information."),
    (st.inject_heartbeat, "Inject heartbeat during search startup."),
])
def test_the_texts_that_say_what_a_name_is(obj, doc):
    assert obj.__doc__ == doc


def test_register_then_login_elsewhere_with_the_same_identity(tmp_path):
    key = tarnwicket.register(str(tmp_path / "a"))
    assert len(key) == 64 and int(key, 16) >= 0
    first = st._library_runtime
    service = first.signal_service
    assert first.data_dir == str(tmp_path / "a") and service.url.startswith("http://127.0.0.1:")
    assert tarnwicket.register(str(tmp_path / "a")) == key          # an identity is kept
    assert st._library_runtime is not first
    with pytest.raises(Exception):
        service.url                                                  # the replaced runtime was closed

    tarnwicket.login(key, str(tmp_path / "b"))
    assert (tmp_path / "b" / WALLET_FILE).read_bytes() == bytes.fromhex(key)
    assert os.stat(tmp_path / "b" / WALLET_FILE).st_mode & 0o077 == 0
    assert st._library_runtime.auth_proxy.get_token() == first.auth_proxy.get_token()

    other = "ab" * 32
    with pytest.raises(ValueError, match="already holds another identity"):
        tarnwicket.login(other, str(tmp_path / "b"))
    assert (tmp_path / "b" / WALLET_FILE).read_bytes() == bytes.fromhex(key)
    for bad, exc in [("xyz", ValueError), ("ab" * 31, ValueError), (b"ab" * 32, TypeError)]:
        with pytest.raises(exc):
            tarnwicket.login(bad, str(tmp_path / "c"))
    assert not (tmp_path / "c" / WALLET_FILE).exists()


def test_the_advice_texts_hold_in_this_package(tmp_path):
    with pytest.raises(tarnwicket.SearchError) as raised:
        tarnwicket.status()
    assert "tarnwicket.search(template)" in raised.value.status.recovery_advice
    tarnwicket.register(str(tmp_path))
    handle = tarnwicket.search(tarnwicket.random_weighted, n_jobs=1)
    try:
        deadline = time.monotonic() + 60
        while tarnwicket.status().total_evaluated < 5 and time.monotonic() < deadline:
            time.sleep(0.05)
        assert tarnwicket.status().running and tarnwicket.status().total_evaluated >= 5
    finally:
        handle.stop()


def test_the_documented_template_runs_as_written(tmp_path, capfd):
    import importlib.util
    import sqlite3

    from tarnwicket.local.summary import expression_text

    path = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "examples", "reversal_template.py")
    spec = importlib.util.spec_from_file_location("reversal_template", path)
    example = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(example)
    status = example.main(str(tmp_path), 2.0)
    assert status.total_evaluated >= 8
    conn = sqlite3.connect(tmp_path / "search_tracking.db")
    try:
        rows = conn.execute("SELECT graph_json, rejection_reason FROM signal_evaluations").fetchall()
    finally:
        conn.close()
    texts = {expression_text(__import__("json").loads(g)) for g, _ in rows}
    assert "rank(ts_decay(sub(delay(close, 2), close), 2))" in texts
    assert "failed" not in capfd.readouterr().err     # every graph it makes can be evaluated


def test_the_type_stubs_match_the_built_module():
    import subprocess
    import sys

    done = subprocess.run([sys.executable, "-m", "mypy.stubtest", "tarnwicket.search_templates"],
                          capture_output=True, text=True, timeout=600)
    assert done.returncode == 0, done.stdout + done.stderr
