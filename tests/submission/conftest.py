import sys

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf


@pytest.fixture
def service(monkeypatch):
    """Stand-ins for the submit, auth and onboarding modules, logged in and configured."""
    auth = cf.FakeAuth()
    mods = {
        "submit": cf.submit_module(),
        "auth": cf.auth_module(),
        "onboarding": cf.onboarding_module(auth_manager=auth),
    }
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", mods["submit"])
    monkeypatch.setitem(sys.modules, "tarnwicket.auth", mods["auth"])
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", mods["onboarding"])
    for name in ("_library_runtime", "_auth"):
        monkeypatch.delattr(st, name, raising=False)
    mods["auth_obj"] = auth
    return mods
