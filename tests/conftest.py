import os
import sys

import pytest

# Tests run against the installed package; shared fakes live in tests/fakes.
sys.path.insert(0, os.path.dirname(__file__))


@pytest.fixture
def seed_dir(tmp_path):
    (tmp_path / "shuffle_seed.enc").write_bytes(b"s" * 60)
    return tmp_path


@pytest.fixture
def module_state_reset():
    """Clears the module's active flag and handle after a test that started searches."""
    import tarnwicket.search_templates as st

    yield
    with st._search_active_lock:
        st._search_active = False
        st._active_search_handle = None
