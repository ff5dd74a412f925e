"""Fakes of the runtime collaborators that a search handle talks to."""

import threading
import time

from fakes.context_fakes import EraConfig, FakeAuth, FakeBacktester, MemoryTracker  # noqa: F401  (one fake each)


class FakeSyncManager:
    def __init__(self, needs=False, sync_failures=0, sync_exc=ConnectionError, alive=True, transition=False):
        self.needs, self.sync_failures, self.sync_exc, self.alive = needs, sync_failures, sync_exc, alive
        self.sync_calls = self.acquired = self.released = self.started = 0
        self.callbacks, self.unregistered = [], []
        if transition:
            self.transitions = []
            self.run_handle_era_transition = self._run_transition

    def needs_sync(self):
        return self.needs

    def sync(self):
        self.sync_calls += 1
        if self.sync_calls <= self.sync_failures:
            raise self.sync_exc("sync failed")

    def acquire(self):
        self.acquired += 1

    def release(self):
        self.released += 1

    def register_era_callback(self, cb):
        self.callbacks.append(cb)

    def unregister_era_callback(self, cb):
        self.unregistered.append(cb)

    def is_alive(self):
        return self.alive

    def start(self):
        self.started += 1
        self.alive = True

    def request_for_sync(self):
        return []

    def _run_transition(self, era_id, kill, restart):
        self.transitions.append(era_id)
        kill()
        restart()


class FakeObfuscation:
    def __init__(self, vocab=None):
        self.vocab = vocab if vocab is not None else {"functions": [], "features": []}

    def get_vocabulary(self):
        return self.vocab


def wait_until(predicate, timeout=5.0, interval=0.01):
    """Polls `predicate` until it holds or `timeout` seconds pass."""
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if predicate():
            return True
        time.sleep(interval)
    return predicate()


def raising(exc):
    """A callable that raises `exc` whatever it is given."""
    def fail(*args, **kwargs):
        raise exc

    return fail
