"""Reusable fakes and builders around the sibling modules."""

from __future__ import annotations

import json
import os
import threading


def graph(function="rank", *features, config=None):
    """A rotation over feature leaves, with optional literal config children."""
    children = [{"type": "feature", "node": f} for f in (features or ("close",))]
    children += [dict(c) for c in (config or [])]
    return {"type": "rotation", "node": function, "children": children}


def payload(eval_id, era_id=1, submission_type="signal", **extra):
    """A submission payload record and its stored JSON form (sorted keys)."""
    record = {"eval_id": eval_id, "submission_type": submission_type, "era_id": era_id,
              "signal_pool_id": "pool_a", "is_stats": {"sharpe": 1.0}, **extra}
    return record, json.dumps(record, sort_keys=True)


class DirSource:
    """Writes a marker file per universe; the first calls raise the given `failures`."""

    def __init__(self, failures=()):
        self.failures = list(failures)
        self.calls = 0
        self._lock = threading.Lock()

    @staticmethod
    def marker(data_dir, universe_id):
        return os.path.join(data_dir, universe_id, "READY")

    def is_present(self, data_dir, universe_id):
        return os.path.exists(self.marker(data_dir, universe_id))

    def materialise(self, data_dir, universe_id):
        with self._lock:
            self.calls += 1
            if self.failures:
                raise self.failures.pop(0)
        os.makedirs(os.path.join(data_dir, universe_id), exist_ok=True)
        with open(self.marker(data_dir, universe_id), "w") as fh:
            fh.write("ok")


class FakeTracker:
    """A management tracker: records its construction, the commands it was asked and its
    closing. A test uses the class `fresh()` returns; it sets `fail_with` and
    `close_fails_with` to make commands or closing raise."""

    @classmethod
    def fresh(cls):
        """A subclass of its own: nothing made yet, nothing failing."""
        return type("Tracker", (cls,), {"made": [], "fail_with": None, "close_fails_with": None})

    def __init__(self, data_dir):
        self.data_dir, self.calls, self.closed = data_dir, [], 0
        self.made.append(self)

    def __getattr__(self, name):
        def command(*args, **kwargs):
            self.calls.append((name, args, kwargs))
            if self.fail_with is not None:
                raise self.fail_with
            return (name, args, kwargs)

        return command

    def close(self):
        self.closed += 1
        if self.close_fails_with is not None:
            raise self.close_fails_with


def interrupt_on(conn, word):
    """Make the store raise KeyboardInterrupt, as a signal handler would, on its statements that begin with `word`."""
    execute = conn.execute

    def interrupted(sql, *params):
        if sql.lstrip().startswith(word):
            raise KeyboardInterrupt("interrupted")
        return execute(sql, *params)

    conn.execute = interrupted
