"""Every function of the module, called with hostile arguments, returns or
raises an ordinary exception: never a SystemError, a crash or an exception left
set behind a normal return.

Names that reach outside the process (the network, the user's store, sleeps,
thread start-up, the process-wide sandbox hooks) are exercised by their own
tests with fakes in place, not here.
"""
import inspect

import pytest
from hypothesis import given, settings, strategies as hs

import tarnwicket.search_templates as st
from fakes import hostile_data as hd

OUTSIDE_THE_PROCESS = {
    "search", "submit_signal", "poll_status", "_poll_status_internal", "_submit_signal_payload",
    "delete_evaluations", "delete_failed_evaluations", "get_db_info", "inject_heartbeat",
    "_new_management_tracker", "_call_management_tracker", "_raise_if_management_blocked",
    "_install_template_sandbox_hooks", "_spawn_worker", "_restart_worker", "_submission_backoff_sleep",
    "_safe_update_nudge", "notify_submission_status", "_build_signal_service_client",
    "_SearchHandleImpl", "SearchHandle",
    # forward to the host's own open(), sqlite3.connect() and urlopen(): open(3)
    # would adopt and then close a descriptor that the host owns
    "_sandboxed_open", "_sandboxed_sqlite_connect", "_sandboxed_urllib_urlopen",
}

ARGUMENT = hd.nested(max_leaves=8)


def module_functions():
    names = []
    for name, value in sorted(vars(st).items()):
        if name in OUTSIDE_THE_PROCESS or not callable(value):
            continue
        if getattr(value, "__module__", None) != st.__name__ or isinstance(value, type) and issubclass(value, BaseException):
            continue
        names.append(name)
    return names


def arity(fn):
    try:
        params = inspect.signature(fn).parameters.values()
    except (TypeError, ValueError):
        return 0, 3
    positional = [p for p in params if p.kind in (p.POSITIONAL_ONLY, p.POSITIONAL_OR_KEYWORD) and p.name != "self"]
    required = sum(p.default is p.empty for p in positional)
    return required, len(positional)


# A fifth of the profile's examples per name: there are a hundred names.
@pytest.mark.parametrize("name", module_functions())
@settings(max_examples=max(10, settings().max_examples // 5))
@given(data=hs.data())
def test_any_arguments_end_in_a_return_or_an_ordinary_exception(name, data):
    fn = getattr(st, name)
    low, high = arity(fn)
    n = data.draw(hs.integers(max(0, low - 1), max(low, min(high + 1, 4))), label="count")
    args = [data.draw(ARGUMENT) for _ in range(n)]
    for arg in args:
        hd.arm(data, arg)
    outcome, result = hd.ordinary_outcome(fn, *args)
    if outcome == "ok" and hasattr(result, "__next__"):
        for _ in range(3):
            if hd.ordinary_outcome(next, result)[0] == "raised":
                break


@pytest.mark.parametrize("name", module_functions())
def test_deep_and_cyclic_arguments_end_in_an_ordinary_exception(name):
    fn = getattr(st, name)
    low, high = arity(fn)
    for value in (hd.deep_list(), hd.deep_dict(), hd.cyclic_dict(), hd.cyclic_list()):
        hd.ordinary_outcome(fn, *([value] * max(low, min(high, 1))))
