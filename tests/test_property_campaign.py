"""The long fuzz campaign: every property-based test of the suite, many examples each.

    python -m pytest -m campaign            (under the sanitizers: tools/sanitize -m campaign)
"""
import os
import subprocess
import sys

import pytest


@pytest.mark.campaign
def test_long_campaign():
    env = dict(os.environ, TW_FUZZ_PROFILE="campaign")
    proc = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", os.path.dirname(__file__),
         "-m", "properties and not campaign", "--hypothesis-show-statistics"],
        env=env)
    assert proc.returncode == 0
