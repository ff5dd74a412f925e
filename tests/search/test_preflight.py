import os
import sys
import types
from logging import DEBUG, WARNING

import pytest

import tarnwicket.search_templates as st

GIB, MIB = 1073741824, 1048576
NS = types.SimpleNamespace


def runtime_module(proxy):
    return NS(_library_runtime=NS(auth_proxy=proxy))


def token_source(result=None, error=None):
    def get_token():
        if error is not None:
            raise error
        return result

    return NS(get_token=get_token)


@pytest.mark.parametrize("mod, expected", [
    (NS(), False), (NS(_library_runtime=None), False), (NS(_library_runtime=NS()), False),
    (runtime_module(None), False), (runtime_module(token_source("")), True), (runtime_module(token_source(None)), True),
])
def test_is_authed_by_runtime_shape(mod, expected):
    assert st._is_authed(mod) is expected


@pytest.mark.parametrize("proxy, text", [
    (object(), "'object' object has no attribute 'get_token'"), (token_source(error=ConnectionError("refused")), "refused"),
    (token_source(error=TypeError("t")), "t"), (token_source(error=RuntimeError("r")), "r"),
    (token_source(error=ValueError("v")), "v"), (token_source(error=KeyError("k")), None),
    (token_source(error=ZeroDivisionError()), None),
])
def test_probe_failures(logged, proxy, text):
    if text is None:  # anything else is not an expected probe failure
        with pytest.raises((KeyError, ZeroDivisionError)):
            st._is_authed(runtime_module(proxy))
        return
    assert st._is_authed(runtime_module(proxy)) is False
    assert logged(DEBUG) == [f"auth probe get_token() raised: {text}"]


def install_psutil(monkeypatch, available):
    fake = types.ModuleType("psutil")
    fake.virtual_memory = lambda: NS(available=available)
    monkeypatch.setitem(sys.modules, "psutil", fake)


def test_memory_check_skipped_without_psutil(monkeypatch, logged):
    monkeypatch.setitem(sys.modules, "psutil", None)
    assert st._check_memory() is None
    assert logged(WARNING) == ["psutil not installed \u2014 memory check skipped"]


def test_memory_refused_on_unrounded_value(monkeypatch):
    install_psutil(monkeypatch, int(3.96 * GIB))
    with pytest.raises(st.SearchError) as info:
        st._check_memory()
    err = info.value
    assert (err.error_code, str(err), err.recovery_advice, err.status) == (
        "OUT_OF_MEMORY", "Not enough memory: requires 4.0 GB, available 4.0 GB",
        "Run get_db_info() then delete_evaluations(). Reduce n_jobs if needed.", st.SearchStatus(running=False))
    assert err.message == str(err)
    install_psutil(monkeypatch, 4 * GIB)
    assert st._check_memory() is None


@pytest.fixture
def disk(monkeypatch, tmp_path):
    """shutil.disk_usage replaced; HOME points at a temporary directory."""
    monkeypatch.setenv("HOME", str(tmp_path))
    state = NS(paths=[], free=10_000 * MIB, error=None)

    def disk_usage(path):
        state.paths.append(path)
        if state.error is not None:
            raise state.error
        return NS(total=2 * state.free, used=state.free, free=state.free)

    monkeypatch.setattr("shutil.disk_usage", disk_usage)
    return state


def test_disk_checks_home_whatever_the_data_dir(disk, onboarding, tmp_path):
    onboarding._config["data_dir"] = "/somewhere/roomy"
    disk.free = 500 * MIB
    assert st._check_disk() is None
    assert disk.paths == [os.path.expanduser("~")] == [str(tmp_path)]


@pytest.mark.parametrize("free, shown", [(499.6 * MIB, "500"), (0, "0")])
def test_disk_full(disk, free, shown):
    disk.free = free
    with pytest.raises(st.SearchError) as info:
        st._check_disk()
    err = info.value
    assert (err.error_code, err.message, err.recovery_advice, err.status) == (
        "DISK_FULL", f"Disk space critically low: {shown} MB remaining",
        "Run get_db_info() then delete_evaluations() or delete_failed_evaluations().", st.SearchStatus(running=False))


def test_disk_probe_failure_warns_and_passes(disk, logged):
    disk.error = OSError("stat failed")
    assert st._check_disk() is None
    assert logged(WARNING) == ["Disk check failed: stat failed"]


@pytest.mark.parametrize("active", [True, False])
def test_management_lockout(monkeypatch, active):
    monkeypatch.setattr(st, "_search_active", active)
    if active:
        with pytest.raises(RuntimeError, match=r"^Cannot delete evaluations while a search is running\. Call handle"):
            st._raise_if_management_blocked()
    else:
        assert st._raise_if_management_blocked() is None
    assert not st._search_active_lock.locked()
