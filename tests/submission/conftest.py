import sys
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf


@pytest.fixture
def service(monkeypatch):
    """Stand-ins for the submit, auth and onboarding modules: configured and logged in."""
    s = types.SimpleNamespace(auth=cf.FakeAuth(), submit=cf.submit_module())
    s.onboarding = cf.module("tarnwicket.agent_onboarding", _config={"server_url": "http://127.0.0.1:8765"},
                             _auth_manager=s.auth)
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", s.submit)
    monkeypatch.setitem(sys.modules, "tarnwicket.auth", cf.module("tarnwicket.auth", AuthError=cf.AuthError))
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", s.onboarding)
    for name in ("_library_runtime", "_auth"):
        monkeypatch.delattr(st, name, raising=False)

    def use_submit(**kw):
        s.submit = cf.submit_module(**kw)
        monkeypatch.setitem(sys.modules, "tarnwicket.submit", s.submit)

    s.use_submit = use_submit
    return s
