"""The long fuzz campaign: every property-based test of the suite, many examples each.

    python -m pytest -m campaign            (under the sanitizers: tools/sanitize -m campaign)

It takes hours: the inner run writes to the terminal as it goes, so a run that is
cut short still shows how far it got and what failed.
"""
import os
import subprocess
import sys

import pytest


@pytest.mark.campaign
def test_long_campaign(capfd):
    env = dict(os.environ, TW_FUZZ_PROFILE="campaign")
    with capfd.disabled():
        proc = subprocess.run(
            [sys.executable, "-m", "pytest", "-v", "-p", "no:cacheprovider", os.path.dirname(__file__),
             "-m", "properties and not campaign", "--hypothesis-show-statistics"],
            env=env)
    assert proc.returncode == 0
