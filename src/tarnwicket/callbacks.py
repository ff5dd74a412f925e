"""Event callbacks: a durable line per event in the data directory."""

from __future__ import annotations

import collections
import json
import logging
import os
import threading
import time

logger = logging.getLogger(__name__)

EVENTS_FILENAME = "events.jsonl"
_MAX_RECENT = 100

_recent: collections.deque = collections.deque(maxlen=_MAX_RECENT)
_lock = threading.Lock()


def emit_event(data_dir=None, event_type="failure", severity="fatal", payload=None) -> dict:
    """Record an event; appended to ``<data_dir>/events.jsonl`` when a directory is given."""
    if not isinstance(event_type, str) or not event_type:
        raise ValueError("event_type must be a non-empty string")
    if not isinstance(severity, str) or not severity:
        raise ValueError("severity must be a non-empty string")
    if payload is not None and not isinstance(payload, dict):
        raise TypeError(f"payload must be a dict or None, got {type(payload).__name__}")
    event = {
        "time": time.time(),
        "event_type": event_type,
        "severity": severity,
        "payload": dict(payload or {}),
    }
    line = json.dumps(event, sort_keys=True, default=str)
    with _lock:
        _recent.append(event)
        if data_dir:
            directory = os.path.expanduser(os.fspath(data_dir))
            os.makedirs(directory, exist_ok=True)
            with open(os.path.join(directory, EVENTS_FILENAME), "a", encoding="utf-8") as fh:
                fh.write(line + "\n")
                fh.flush()
                os.fsync(fh.fileno())
    logger.info("event %s (%s): %s", event_type, severity, event["payload"])
    return event


def recent_events() -> list[dict]:
    with _lock:
        return list(_recent)
