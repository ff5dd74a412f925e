"""Hostile values for the fields of a search handle, and a handle built by hand.

A handle's fields live in its instance __dict__, so a host can put anything
there. `bare_handle` makes one with `_SearchHandleImpl.__new__` and sane fields
that start no thread; tests then replace some of them with hostile objects.
"""

import queue
import sys
import threading
import time

from hypothesis import strategies as hs

import tarnwicket.search_templates as st
from fakes.hostile_data import Boom, IntSub, StrSub, Trap, cyclic_list, deep_list, ordinary_outcome


class ListSub(list):
    def append(self, item):
        raise Boom("append")


class DictSub(dict):
    pass


def numbers():
    """Counts and sizes that stress C integer conversions."""
    edges = [0, 1, -1, 9, 10, sys.maxsize, sys.maxsize - 1, -sys.maxsize - 1, 2**63, 2**64, -(2**63) - 1,
             10**100, -(10**100)]
    return hs.one_of(hs.sampled_from(edges), hs.integers(),
                     hs.floats(allow_nan=True, allow_infinity=True), hs.sampled_from([True, False]),
                     hs.builds(IntSub, hs.sampled_from(edges)))


def texts():
    return hs.one_of(hs.text(), hs.sampled_from(["\udc80", "a\x00b", "submission", "polling", "kill", "restart",
                                                  "abort", "era mismatch \udc80", "vault already initialized"]),
                     hs.builds(StrSub, hs.text(max_size=5)))


DEEP = deep_list()


def raiser():
    """A value every hook of which raises."""
    return hs.builds(Trap, hs.just(3), armed=hs.just(True))


def hostile():
    """Any value a host might leave in a field."""
    return hs.one_of(
        hs.none(), numbers(), texts(), hs.binary(max_size=8),
        raiser(), hs.builds(Trap, hs.just(sys.maxsize), hs.just(float("nan"))),  # lies about its size
        hs.lists(hs.integers(), max_size=3), hs.lists(hs.integers(), max_size=3).map(ListSub),
        hs.dictionaries(hs.text(max_size=3), hs.integers(), max_size=3).map(DictSub),
        hs.just(()), hs.just(frozenset()), hs.builds(object),
        hs.builds(cyclic_list), hs.just(DEEP),
    )


class CountdownEvent:
    """An event that reads as set after `passes` reads: lets a loop run a bounded number of passes."""

    def __init__(self, passes):
        self.left = passes

    def is_set(self):
        self.left -= 1
        return self.left < 0

    def set(self):
        self.left = -1

    def wait(self, timeout=None):
        return self.is_set()


class FakeThread:
    """A thread stand-in whose is_alive/join can run `hook`, e.g. to mutate the handle."""

    def __init__(self, alive=True, hook=None):
        self.alive, self.hook, self.joined = alive, hook, 0

    def is_alive(self):
        if self.hook:
            self.hook()
        return self.alive

    def join(self, timeout=None):
        self.joined += 1
        if self.hook:
            self.hook()

    def start(self):
        pass


def _quick_worker(*args):
    return None


def bare_handle(**fields):
    """A handle made with __new__ whose fields are sane and start no real work.

    `_worker_loop` is shadowed by a no-op, so workers that the handle spawns end at once.
    """
    h = st._SearchHandleImpl.__new__(st._SearchHandleImpl)
    base = dict(
        _template=lambda ctx: None, _n_jobs=1, _tracker=None, _sync_mgr=None, _backtester=None,
        _obfuscation=None, _era_config=None, _auth=None, _data_dir=None, _running=True, _stopped=False,
        _era_failures=0, _sync_failures=0, _era_data_mod=None, _start_time=time.monotonic(),
        _total_evaluated=0, _total_found=0, _crash_count=0, _errors=[], _fatal_error=None,
        _lock=threading.Lock(), _stop_event=threading.Event(), _queue_empty=queue.Empty,
        _submission_queue=queue.Queue(), _submission_wakeup=threading.Event(), _retry_queue=[],
        _pending_submissions={}, _finished_queue_ids=set(), _pending_receipts_by_queue_id={},
        _tracker_write_lock=threading.RLock(), _tracker_uses_persistent_store=False,
        _submission_owner="owner-1", _replacement_abort_event=threading.Event(),
        _submission_start_lock=threading.Lock(), _poll_start_lock=threading.Lock(),
        _submission_claim_columns_ready=False, _retry_claim_columns_ready=False,
        _submission_backoff_seconds=5.0, _submission_backoff_until=0.0, _polling_backoff_seconds=5.0,
        _polling_backoff_until=0.0, _submission_failures=0, _polling_failures=0, _submission_degraded=False,
        _polling_degraded=False, _discovery_rate_declining_nudge_active=False, _submission_queued=0,
        _submission_pending=0, _submission_accepted=0, _submission_rejected=0, _submission_retrying=0,
        _submission_discarded=0, _submission_backoff=False, _last_poll_time=time.time(),
        _era_transition_triggered=False, _era="3", _sync_progress=0.0, _batch_tier="full", _t_batch=1000,
        _worker_threads=[], _worker_start_event=threading.Event(), _worker_start_count=0,
        _supervisor_thread=None, _sync_thread=None, _era_thread=None, _submission_thread=None,
        _polling_thread=None, _worker_loop=_quick_worker,
        _flush_pending_receipt_finalizations=lambda: None,
    )
    base.update(fields)
    h.__dict__.update(base)
    return h


def join_new_threads(before, timeout=5.0):
    """Joins every thread started since `before` (a set of threads); returns those still alive."""
    new = [t for t in threading.enumerate() if t not in before]
    for t in new:
        t.join(timeout)
    return [t for t in new if t.is_alive()]


def settle(call, made=None):
    """Runs `call` and returns its result, or None where it raised an ordinary exception
    (SystemError fails the test). Afterwards it stops every active handle and each of
    `made` (a list, emptied), checks that no thread it started is left running, and
    clears the module's active search."""
    before = set(threading.enumerate())
    try:
        outcome, result = ordinary_outcome(call)
    finally:
        handles = list(st._active_handles) + (made or [])
        for h in handles:
            try:
                h.stop(join_timeout=1.0)
            except Exception:  # noqa: BLE001 - a hostile handle may refuse to stop
                pass
            st._active_handles.discard(h)
        if made:
            made.clear()
        assert not join_new_threads(before), "threads left running"
        with st._search_active_lock:
            st._search_active = False
            st._active_search_handle = None
    return result if outcome == "ok" else None
