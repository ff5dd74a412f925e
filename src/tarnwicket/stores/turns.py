"""Turns on a connection that several threads share.

Each search of a process works on the tracker's one connection, under a lock of
its own; two searches (one replacing the other, or started from two threads)
would otherwise interleave their statements, so that one's BEGIN IMMEDIATE
fails inside the other's transaction, or a savepoint of the tracker lands in a
transaction that another thread then rolls back. Other processes and machines
are kept apart by the store's write lock; the threads of one process sharing a
connection are kept apart here, the same way: a transaction belongs to the
thread that began it until it ends, statements of other threads wait for it,
and past the busy timeout they fail as SQLite's do, "database is locked".

Statements run one at a time under the connection's own lock, and none of
another thread runs while a transaction is open, so the thread that ran the
latest statement owns the open transaction: no other record is kept. A thread
whose turn it is not waits outside the lock and looks again, as SQLite's own
busy handler does. The lock is only ever taken by a `with` block on the lock
itself, so that an exception raised anywhere (a KeyboardInterrupt from a
signal handler included) hands it back.
"""

from __future__ import annotations

import sqlite3
import threading
import time
from typing import Any, Callable

# The first and the longest pause of a thread that waits for another's transaction.
_FIRST_PAUSE, _LONGEST_PAUSE = 0.001, 0.05


class TransactionTurns:
    def __init__(self, statement_lock: threading.RLock, transaction_open: Callable[[], bool], busy_timeout: float):
        self._lock = statement_lock
        self._transaction_open = transaction_open
        self._timeout = float(busy_timeout)
        self._last: int | None = None      # the thread that ran the latest statement

    def _open(self) -> bool:
        try:
            return bool(self._transaction_open())
        except sqlite3.Error:              # closed: no transaction left
            return False

    def mine(self) -> bool:
        """Whether a transaction is open and is the calling thread's. While it is,
        no other thread runs a statement, so no lock is needed to tell."""
        return self._last == threading.get_ident() and self._open()

    def run(self, statement: Callable[..., Any], *args: Any) -> Any:
        """statement(*args) in the calling thread's turn, with the statement lock held."""
        me = threading.get_ident()
        deadline = None
        pause = _FIRST_PAUSE
        while True:
            with self._lock:
                if self._last == me or not self._open():
                    self._last = me
                    return statement(*args)
            now = time.monotonic()
            if deadline is None:
                deadline = now + self._timeout
            elif now >= deadline:
                raise sqlite3.OperationalError("database is locked")
            time.sleep(min(pause, max(deadline - now, 0.0)))
            pause = min(pause * 2, _LONGEST_PAUSE)
