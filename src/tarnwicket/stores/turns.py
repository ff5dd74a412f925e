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
"""

from __future__ import annotations

import contextlib
import sqlite3
import threading
from typing import Callable, Iterator


class TransactionTurns:
    def __init__(self, busy_timeout: float):
        self._lock = threading.RLock()
        self._timeout = float(busy_timeout)
        self._owner: int | None = None      # the thread whose transaction is open

    def mine(self) -> bool:
        """Whether the open transaction, if any, is the calling thread's."""
        return self._owner == threading.get_ident()

    @contextlib.contextmanager
    def statement(self, transaction_open: Callable[[], bool]) -> Iterator[None]:
        """The calling thread's turn for one statement; kept past it while the
        statement leaves a transaction open, handed back when one ends."""
        if not self._lock.acquire(timeout=self._timeout):
            raise sqlite3.OperationalError("database is locked")
        try:
            yield
        finally:
            try:
                open_now = transaction_open()
            except sqlite3.Error:           # closed meanwhile: no transaction left
                open_now = False
            if open_now and self._owner is None:
                self._owner = threading.get_ident()     # this hold now belongs to the transaction
            else:
                if not open_now and self._owner is not None:
                    self._owner = None
                    self._lock.release()                # the transaction's hold
                self._lock.release()
