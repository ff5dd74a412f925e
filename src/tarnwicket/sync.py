"""Data sync manager: makes sure a universe's data is present before a search."""

from __future__ import annotations

import logging
import os
import threading
from typing import Any, Callable, Protocol

logger = logging.getLogger(__name__)

ERA_EVENTS = ("kill", "restart", "abort")


class SyncError(Exception):
    """A data sync failed in a way that retrying now will not fix."""

    def __init__(self, message: str = "Data sync failed."):
        super().__init__(message)
        self.message = message


class DataSource(Protocol):
    def is_present(self, data_dir: str, universe_id: str) -> bool: ...

    def materialise(self, data_dir: str, universe_id: str) -> None: ...


class SyncManager:
    """Keeps one universe's data in a data directory.

    The data comes from ``source`` (an object with ``is_present(data_dir,
    universe_id)`` and ``materialise(data_dir, universe_id)``); without a source
    there is nothing to sync. Local data has a single era, so era transitions are
    trivial, but handles can still register for era events.
    """

    def __init__(self, data_dir, universe_id: str = "universe_top50", source: Any = None):
        if isinstance(data_dir, os.PathLike):
            data_dir = os.fspath(data_dir)
        if not isinstance(data_dir, str) or not data_dir:
            raise TypeError("data_dir must be a non-empty str")
        if not isinstance(universe_id, str) or not universe_id:
            raise TypeError("universe_id must be a non-empty str")
        if source is not None:
            for name in ("is_present", "materialise"):
                if not callable(getattr(source, name, None)):
                    raise TypeError(f"source must provide a callable {name}(data_dir, universe_id)")
        self.data_dir = os.path.expanduser(data_dir)
        self.universe_id = universe_id
        self.source = source
        self._lock = threading.Lock()
        self._sync_lock = threading.Lock()
        self._refs = 0
        self._callbacks: list[Callable[[str, Any], Any]] = []
        self._stop_event = threading.Event()
        self._thread: threading.Thread | None = None
        self._sync_requests = 0

    # -- data -------------------------------------------------------------

    def needs_sync(self) -> bool:
        if self.source is None:
            return False
        return not self.source.is_present(self.data_dir, self.universe_id)

    def sync(self) -> None:
        """Materialise the data; a transport or file failure is retryable."""
        if self.source is None:
            return
        with self._sync_lock:
            try:
                self.source.materialise(self.data_dir, self.universe_id)
            except ConnectionError:
                raise
            except OSError as exc:
                raise ConnectionError(f"data sync failed: {exc}") from exc

    def request_for_sync(self) -> list:
        with self._lock:
            self._sync_requests += 1
        return []

    # -- references -------------------------------------------------------

    def acquire(self) -> int:
        with self._lock:
            self._refs += 1
            return self._refs

    def release(self) -> int:
        with self._lock:
            if self._refs > 0:
                self._refs -= 1
            return self._refs

    @property
    def ref_count(self) -> int:
        with self._lock:
            return self._refs

    # -- era events -------------------------------------------------------

    def register_era_callback(self, callback) -> None:
        if not callable(callback):
            raise TypeError("callback must be callable")
        with self._lock:
            if callback not in self._callbacks:
                self._callbacks.append(callback)

    def unregister_era_callback(self, callback) -> None:
        with self._lock:
            try:
                self._callbacks.remove(callback)
            except ValueError:
                pass

    def notify_era_event(self, event_type: str, era_id) -> int:
        """Call every registered callback with (event_type, era_id); returns how many ran."""
        if event_type not in ERA_EVENTS:
            raise ValueError(f"event_type must be one of {ERA_EVENTS}, got {event_type!r}")
        with self._lock:
            callbacks = list(self._callbacks)
        for callback in callbacks:
            try:
                callback(event_type, era_id)
            except Exception as exc:  # one handle's failure must not stop the others
                logger.warning("era callback failed for %s: %s", event_type, exc)
        return len(callbacks)

    def run_handle_era_transition(self, era_id, kill_callback, restart_callback) -> None:
        # Local data has a single era: there is never a transition to carry out.
        return None

    # -- background thread ------------------------------------------------

    def is_alive(self) -> bool:
        thread = self._thread
        return thread is not None and thread.is_alive()

    def start(self) -> None:
        self._start_internal()

    def _start_internal(self) -> None:
        with self._lock:
            if self._thread is not None and self._thread.is_alive():
                return
            self._stop_event.clear()
            self._thread = threading.Thread(
                target=self._run, name="sync_manager", daemon=True
            )
            self._thread.start()

    def _run(self) -> None:
        while not self._stop_event.wait(1.0):
            pass

    def stop(self, timeout: float = 2.0) -> None:
        self._stop_event.set()
        thread = self._thread
        if thread is not None and thread is not threading.current_thread():
            thread.join(timeout)
