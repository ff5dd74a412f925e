"""The default store: one SQLite file in the data directory."""

from __future__ import annotations

import functools
import os
import re
import sqlite3
import threading

from .turns import TransactionTurns

_ADD_COLUMN = re.compile(r"\s*ALTER\s+TABLE\s+\S+\s+ADD\s+COLUMN\s", re.IGNORECASE)


def _in_turn(method):
    """`method` of the driver's connection, run in the calling thread's turn (see turns.py)
    and with the connection's own lock held."""

    @functools.wraps(method)
    def run(self, *args):
        return self._turns.run(method, self, *args)

    return run


class SharedConnection(sqlite3.Connection):
    """A connection that several threads use, and that one of them may close.

    A running search works on the tracker's connection under the search's own
    lock, the tracker under its lock, and a host may close the tracker before
    its search has stopped. The driver cannot take a close beside a statement
    of another thread: it frees the statement cache and the database handle
    that the statement still reads, and the interpreter crashes. Statements run
    through the connection, its commits (a `with` block's included), rollbacks
    and the close therefore hold the connection's own lock; after a close the
    others fail with the driver's error, and so does a cursor's fetch. A
    transaction is its thread's alone until it ends (see turns.py).
    """

    def __init__(self, *args, **kwargs):
        super().__init__(*args, **kwargs)
        self._entry = threading.RLock()
        self._turns = TransactionTurns(self._entry, self._transaction_open,
                                       kwargs.get("timeout", args[1] if len(args) > 1 else 5.0))

    def _transaction_open(self) -> bool:
        return sqlite3.Connection.in_transaction.__get__(self)

    @property
    def in_transaction(self) -> bool:
        """Whether the calling thread has a transaction open on the connection."""
        return self._turns.mine()

    _execute = _in_turn(sqlite3.Connection.execute)

    def execute(self, sql, *params):
        """As the driver's, but adding a column that is there already does nothing,
        as on the shared store: several owners may migrate the schema at once."""
        try:
            return self._execute(sql, *params)
        except sqlite3.OperationalError as exc:
            if not (isinstance(sql, str) and _ADD_COLUMN.match(sql) and str(exc).startswith("duplicate column name")):
                raise
            return self._execute("SELECT 1 WHERE 0")

    executemany = _in_turn(sqlite3.Connection.executemany)
    executescript = _in_turn(sqlite3.Connection.executescript)
    commit = _in_turn(sqlite3.Connection.commit)
    rollback = _in_turn(sqlite3.Connection.rollback)
    __exit__ = _in_turn(sqlite3.Connection.__exit__)

    def close(self) -> None:
        """Waits for a statement, not for another thread's transaction, which then fails."""
        with self._entry:
            sqlite3.Connection.close(self)


class SqliteStore:
    dialect = "sqlite"
    # Column types the tracker's schema asks for, in this dialect.
    types = {"id": "INTEGER PRIMARY KEY AUTOINCREMENT", "real": "REAL", "any": ""}

    def __init__(self, path: str):
        self.path = path
        self.location = path

    def connect(self, busy_timeout: float) -> sqlite3.Connection:
        """A connection in autocommit mode: transactions are opened by plain statements."""
        conn = sqlite3.connect(self.path, timeout=busy_timeout, check_same_thread=False,
                               isolation_level=None, factory=SharedConnection)
        try:
            conn.execute(f"PRAGMA busy_timeout = {int(busy_timeout * 1000)}")
            conn.execute("PRAGMA journal_mode = WAL")
            conn.execute("PRAGMA synchronous = NORMAL")
            conn.execute("PRAGMA foreign_keys = ON")
        except BaseException:
            conn.close()
            raise
        return conn

    def read_only(self, timeout: float = 5.0) -> sqlite3.Connection:
        """A connection that cannot write, for readers beside a running search."""
        return sqlite3.connect(f"file:{self.path}?mode=ro", uri=True, timeout=timeout,
                               check_same_thread=False, factory=SharedConnection)

    def exists(self) -> bool:
        return os.path.exists(self.path)

    @staticmethod
    def table_columns(conn, table: str) -> set[str]:
        quoted = '"' + table.replace('"', '""') + '"'
        return {row[1] for row in conn.execute(f"PRAGMA table_info({quoted})").fetchall()}

    @staticmethod
    def after_schema(conn, version: int) -> None:
        conn.execute(f"PRAGMA user_version = {int(version)}")

    @staticmethod
    def loose(value):
        """A value for a column without a declared type: kept as it is."""
        return value

    def size_info(self, conn) -> dict:
        size = os.path.getsize(self.path) if os.path.exists(self.path) else 0
        wal_path = self.path + "-wal"
        wal_size = os.path.getsize(wal_path) if os.path.exists(wal_path) else 0
        return {"db_path": self.path, "size_bytes": size, "size_mb": round(size / (1024 * 1024), 3),
                "wal_size_bytes": wal_size}
