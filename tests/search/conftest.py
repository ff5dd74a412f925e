"""Stand-ins for the onboarding and tracking siblings used by the lifecycle tests."""

import logging
import sys
import types

import pytest

import tarnwicket.search_templates as st
from fakes.collaborators import FakeTracker


@pytest.fixture
def tracker(monkeypatch):
    cls = FakeTracker.fresh()
    monkeypatch.setattr(st, "SearchTracker", cls, raising=False)
    return cls


@pytest.fixture
def onboarding(monkeypatch):
    """A fake tarnwicket.agent_onboarding with `_config` and a recording `update_nudge`."""
    mod = types.ModuleType("tarnwicket.agent_onboarding")
    mod._config = {"data_dir": "/var/lib/tw", "server_url": "http://127.0.0.1:1"}
    mod.nudges = []
    mod.update_nudge = lambda trigger, **context: mod.nudges.append((trigger, context))
    monkeypatch.setitem(sys.modules, mod.__name__, mod)
    return mod


@pytest.fixture
def idle_module(monkeypatch):
    monkeypatch.setattr(st, "_search_active", False)
    monkeypatch.setattr(st, "_active_search_handle", None)


@pytest.fixture
def logged(caplog):
    """logged(level) -> messages of the module logger at that level."""
    caplog.set_level(logging.DEBUG, logger="tarnwicket.search_templates")
    return lambda level: [r.getMessage() for r in caplog.records
                          if r.levelno == level and r.name == "tarnwicket.search_templates"]


@pytest.fixture(autouse=True)
def _fresh_module_state(module_state_reset):
    yield
