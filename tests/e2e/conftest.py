import shutil

import pytest

from fakes.searches import ServiceProcess, prepare, token_of


@pytest.fixture(scope="module")
def prepared(tmp_path_factory):
    """A data directory with the data set and the wallet written, and an empty store."""
    data_dir = tmp_path_factory.mktemp("prepared") / "local"
    prepare(data_dir)
    return data_dir


@pytest.fixture
def data_dir(prepared, tmp_path):
    """A copy of the test module's `prepared` data directory, for one test to change."""
    copy = tmp_path / "local"
    shutil.copytree(prepared, copy)
    return copy


@pytest.fixture
def service(data_dir, tmp_path):
    """The service in a process of its own, with the token of `data_dir`'s wallet."""
    proc = ServiceProcess(tmp_path / "service.db", token_of(data_dir))
    yield proc
    proc.stop()
