import importlib.abc
import importlib.util
import inspect
import os
import sys
import types
from logging import WARNING

import pytest

import tarnwicket.search_templates as st

NO_DIR_TEXT = "data_dir is required for search tracking database management."


def test_status_without_search(idle_module):
    with pytest.raises(st.SearchError) as info:
        st.status()
    err, advice = info.value, "Call tarnwicket.search(template) first to start one."
    assert (err.error_code, str(err), err.message, err.recovery_advice) == (
        "NO_ACTIVE_SEARCH", err.message, "No active search. " + advice, advice
    )
    assert err.status == st.SearchStatus(running=False, error_code="NO_ACTIVE_SEARCH", recovery_advice=advice)


def test_status_asks_the_active_handle_outside_the_lock(monkeypatch):
    snapshot, seen = st.SearchStatus(running=True, n_jobs=3), []
    handle = types.SimpleNamespace(status=lambda: seen.append(st._search_active_lock.locked()) or snapshot)
    monkeypatch.setattr(st, "_active_search_handle", handle)
    assert st.status() is snapshot and seen == [False]


@pytest.mark.parametrize("name, args, kwargs, expected", [
    ("delete_evaluations", (), {}, {"eval_type": None, "keep_last": 50000}),
    ("delete_evaluations", ("signal", -5), {}, {"eval_type": "signal", "keep_last": -5}),
    ("delete_failed_evaluations", (), {"eval_type": "strategy"}, {"eval_type": "strategy"}),
    ("get_db_info", (), {}, {}),
])
@pytest.mark.parametrize("active", [False, True])
def test_commands(monkeypatch, onboarding, tracker, name, args, kwargs, expected, active):
    monkeypatch.setattr(st, "_search_active", active)
    onboarding._config["data_dir"] = "~/tw-data"
    if active:
        with pytest.raises(RuntimeError) as info:
            getattr(st, name)(*args, **kwargs)
        assert str(info.value) == "Cannot delete evaluations while a search is running. Call handle.stop() first."
        assert tracker.made == []
        return
    assert getattr(st, name)(*args, **kwargs) == (name, (), expected)
    (made,) = tracker.made
    assert (made.data_dir, made.calls, made.closed) == (os.path.expanduser("~/tw-data"), [(name, (), expected)], 1)


def test_commands_use_module_names_at_call_time(monkeypatch):
    calls = []
    monkeypatch.setattr(st, "_raise_if_management_blocked", lambda: calls.append("check"))
    monkeypatch.setattr(st, "_call_management_tracker", lambda *a, **k: calls.append((a, k)) or "result")
    assert st.delete_evaluations(keep_last=7) == "result"
    assert calls == ["check", (("delete_evaluations",), {"eval_type": None, "keep_last": 7})]


def test_call_management_tracker_forwards_and_closes(onboarding, tracker):
    assert st._call_management_tracker("anything", "a", 2, keep_last=None) == ("anything", ("a", 2), {"keep_last": None})
    first = tracker.fail_with = ValueError("command")
    with pytest.raises(ValueError):
        st._call_management_tracker("get_db_info")
    tracker.close_fails_with = OSError("close")
    with pytest.raises(OSError, match="close") as info:
        st._call_management_tracker("get_db_info")
    assert info.value.__context__ is first
    assert [t.closed for t in tracker.made] == [1, 1, 1]


@pytest.mark.parametrize("close", ["absent", None])
def test_tracker_without_callable_close(monkeypatch, onboarding, close):
    body = {"__init__": lambda self, d: None, "get_db_info": lambda self: {"size": 1}}
    if close != "absent":
        body["close"] = close
    monkeypatch.setattr(st, "SearchTracker", type("Tracker", (), body), raising=False)
    assert st._call_management_tracker("get_db_info") == {"size": 1}


def test_tracker_class_imported_when_module_has_none(monkeypatch, onboarding, tracker):
    monkeypatch.delattr(st, "SearchTracker")
    monkeypatch.setitem(sys.modules, "tarnwicket.search_tracking", types.SimpleNamespace(SearchTracker=tracker))
    made = st._new_management_tracker()
    assert type(made) is tracker and made.data_dir == "/var/lib/tw"


@pytest.mark.parametrize("config", [{}, {"data_dir": None}, None])
def test_no_data_dir_is_oserror(monkeypatch, onboarding, tracker, idle_module, config):
    if config is None:
        monkeypatch.setitem(sys.modules, onboarding.__name__, None)
    else:
        onboarding._config = config
    for call in (st._configured_tracking_data_dir, st.get_db_info):
        with pytest.raises(OSError) as info:
            call()
        assert str(info.value) == NO_DIR_TEXT
    assert tracker.made == []


def test_data_dir_default_and_config_read_each_call(monkeypatch):
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", None)  # the import fails
    sentinel = object()
    assert st._agent_onboarding_data_dir() is None and st._agent_onboarding_data_dir(sentinel) is sentinel
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", types.SimpleNamespace(_config={"data_dir": ""}))
    assert st._agent_onboarding_data_dir("d") == ""


class BrokenOnboardingFinder(importlib.abc.MetaPathFinder, importlib.abc.Loader):
    """The onboarding module exists but one of its own imports is missing."""

    def find_spec(self, name, path=None, target=None):
        return importlib.util.spec_from_loader(name, self) if name == "tarnwicket.agent_onboarding" else None

    def exec_module(self, module):
        raise ModuleNotFoundError("No module named 'tw_missing_dep'", name="tw_missing_dep")


def test_failure_inside_onboarding_imports_propagates(monkeypatch):
    monkeypatch.delitem(sys.modules, "tarnwicket.agent_onboarding", raising=False)
    monkeypatch.setattr(sys, "meta_path", [BrokenOnboardingFinder()] + sys.meta_path)
    with pytest.raises(ModuleNotFoundError) as info:
        st._agent_onboarding_data_dir("d")
    assert info.value.name == "tw_missing_dep"


def test_nudge_passes_trigger_and_context(onboarding):
    assert st._safe_update_nudge("first_signal", count=1) is st._safe_update_nudge("10_signals") is None
    assert onboarding.nudges == [("first_signal", {"count": 1}), ("10_signals", {})]


@pytest.mark.parametrize("broken", ["raises", "no module"])
def test_nudge_failure_is_a_warning(monkeypatch, onboarding, logged, broken):
    if broken == "raises":
        onboarding.update_nudge = lambda trigger, **context: 1 / 0
    else:
        monkeypatch.setitem(sys.modules, onboarding.__name__, None)
    assert st._safe_update_nudge("strategy_unlock", x=1) is None
    (text,) = logged(WARNING)
    assert text.startswith("update_nudge call failed: ")
    assert broken != "raises" or text == "update_nudge call failed: division by zero"


CALL_FORMS = {"status": "()", "delete_evaluations": "(eval_type=None, keep_last=50000)",
              "delete_failed_evaluations": "(eval_type=None)", "_safe_update_nudge": "(trigger, **context)",
              "_agent_onboarding_data_dir": "(default=None)", "_sandboxed_open": "(*args, **kwargs)",
              "_call_management_tracker": "(method_name, *args, **kwargs)"}


def test_call_forms():
    assert {name: str(inspect.signature(getattr(st, name))) for name in CALL_FORMS} == CALL_FORMS
