import logging

import pytest

LOGGER = "tarnwicket.search_templates"


@pytest.fixture
def info_log(caplog):
    caplog.set_level(logging.INFO, logger=LOGGER)

    def messages():
        return [r.getMessage() for r in caplog.records if r.name == LOGGER]

    return messages
