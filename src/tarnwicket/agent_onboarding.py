"""Onboarding state of the driving agent: configuration and nudges."""

from __future__ import annotations

import logging
import threading
import time
from typing import Any

logger = logging.getLogger(__name__)

# Set by the embedding package after login.
_config: dict[str, Any] = {"data_dir": None, "server_url": None}
_auth_manager: Any = None

# Nudges given so far, oldest first: {"trigger", "context", "time"}.
_nudges: list[dict[str, Any]] = []
_MAX_NUDGES = 1000
_nudges_lock = threading.Lock()


def update_nudge(trigger, **context) -> None:
    if not isinstance(trigger, str) or not trigger:
        raise ValueError("trigger must be a non-empty string")
    with _nudges_lock:
        _nudges.append({"trigger": trigger, "context": dict(context), "time": time.time()})
        del _nudges[:-_MAX_NUDGES]
    logger.info("nudge: %s %s", trigger, context or "")
