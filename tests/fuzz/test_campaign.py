"""The long fuzz campaign: every property of this folder, many examples each.

    python -m pytest -m campaign            (under the sanitizers: tools/sanitize -m campaign)
"""
import os
import subprocess
import sys

import pytest


@pytest.mark.campaign
def test_long_campaign():
    env = dict(os.environ, TW_FUZZ_PROFILE="campaign")
    here = os.path.dirname(__file__)
    proc = subprocess.run(
        [sys.executable, "-m", "pytest", "-q", "-p", "no:cacheprovider", here,
         "-m", "not campaign", "--hypothesis-show-statistics"],
        env=env)
    assert proc.returncode == 0
