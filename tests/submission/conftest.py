import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf


@pytest.fixture
def service(monkeypatch):
    """Stand-ins for the submit, auth and onboarding modules: configured and logged in."""
    return cf.install_service(monkeypatch, st)
