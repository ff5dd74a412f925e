"""Property-based tests of the module's input surfaces.

The number of examples comes from the hypothesis profile named by
TW_FUZZ_PROFILE: "ci" (the default, bounded so that the sanitizer run stays
short) or "campaign" (the long run, started by the test marked `campaign`).
"""
import os

from hypothesis import HealthCheck, settings

_COMMON = dict(
    deadline=None,
    derandomize=False,
    suppress_health_check=[HealthCheck.too_slow, HealthCheck.data_too_large,
                           HealthCheck.filter_too_much],
    print_blob=True,
)
settings.register_profile("ci", max_examples=int(os.environ.get("TW_FUZZ_EXAMPLES", "150")), **_COMMON)
settings.register_profile("campaign", max_examples=int(os.environ.get("TW_FUZZ_EXAMPLES", "20000")), **_COMMON)
settings.load_profile(os.environ.get("TW_FUZZ_PROFILE", "ci"))
