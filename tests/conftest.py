import os
import shutil
import sys

import pytest
from hypothesis import HealthCheck, settings

# Tests run against the installed package; shared fakes live in tests/fakes.
sys.path.insert(0, os.path.dirname(__file__))

# Property-based tests take their number of examples from the profile named by
# TW_FUZZ_PROFILE: "ci" (the default, bounded so that the sanitizer run stays
# short) or "campaign" (the long run of tests/test_property_campaign.py).
_PROFILE = dict(deadline=None, derandomize=False, print_blob=True,
                suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large, HealthCheck.filter_too_much])
settings.register_profile("ci", max_examples=int(os.environ.get("TW_FUZZ_EXAMPLES", "150")), **_PROFILE)
settings.register_profile("campaign", max_examples=int(os.environ.get("TW_FUZZ_EXAMPLES", "20000")), **_PROFILE)
settings.load_profile(os.environ.get("TW_FUZZ_PROFILE", "ci"))


@pytest.hookimpl(tryfirst=True)
def pytest_collection_modifyitems(items):
    """Marks every property-based test `properties`, wherever it lives, for the campaign to select."""
    for item in items:
        if getattr(getattr(item, "obj", None), "is_hypothesis_test", False):
            item.add_marker(pytest.mark.properties)


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


@pytest.fixture(scope="session")
def postgres_server():
    """One PostgreSQL server for the whole run, started from the machine's server programs."""
    import tempfile

    from tarnwicket.stores.local_server import LocalPostgres

    directory = tempfile.mkdtemp(prefix="tw-postgres-")
    server = LocalPostgres(directory).start()
    yield server
    server.stop()
    shutil.rmtree(directory, ignore_errors=True)


# Under the sanitizers the suite checks the engine's memory, which both stores
# drive alike; the PostgreSQL runs, several times slower there, are left to
# the plain run.
STORES = ["sqlite"] if os.environ.get("TW_SANITIZED") else ["sqlite", "postgres"]


@pytest.fixture(params=STORES)
def store_url(request):
    """Each store a search can use: the data directory's SQLite file, or a fresh PostgreSQL schema."""
    if request.param == "sqlite":
        return None
    return request.getfixturevalue("postgres_server").new_schema_url()
