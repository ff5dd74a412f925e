import shutil

import pytest


@pytest.fixture
def data_dir(prepared, tmp_path):
    """A copy of the test module's `prepared` data directory, for one test to change."""
    copy = tmp_path / "local"
    shutil.copytree(prepared, copy)
    return copy
