"""A store shared by several machines: PostgreSQL through psycopg 3.

``PostgresConnection`` makes a psycopg connection behave as the SQLite
connection the search's statements were written for:

- ``?`` placeholders become the driver's own (a literal ``%`` is escaped);
- ``BEGIN IMMEDIATE`` opens a transaction and takes the store's write lock
  at once (a transaction-scoped advisory lock per schema), so that write
  transactions are serialised across processes and machines as SQLite's
  are across processes; ``COMMIT`` and ``ROLLBACK`` are plain statements too;
- an ``INSERT`` into a table with a row id returns it, for ``lastrowid``;
- ``ALTER TABLE ... ADD COLUMN x REAL`` adds a double-precision column, and
  only if it is missing (several owners may migrate at once);
- every driver failure is raised as the ``sqlite3`` exception class of the
  same DB-API name, the driver's own exception chained;
- a lost connection is opened again at the next statement outside a
  transaction; inside one, the statements fail until ``ROLLBACK``.
- a transaction is its thread's alone until it ends, as on the SQLite
  connection (see turns.py).

A commit of a transaction in which a statement failed rolls it back and
raises, where SQLite would have committed the statements that succeeded.
"""

from __future__ import annotations

import json
import re
import sqlite3
import threading
import urllib.parse

import psycopg
from psycopg.pq import TransactionStatus

from .turns import TransactionTurns

# Row ids of the tables that have one: an INSERT into them returns it.
ID_COLUMNS = {"submission_queue": "queue_id", "submission_retry": "retry_id",
              "submission_status": "status_id", "submission_attempts": "attempt_id"}
_LOCK_SQL = "SELECT pg_advisory_xact_lock(hashtext('tarnwicket.store:' || current_schema()))"
_BEGIN = {"BEGIN": False, "BEGIN TRANSACTION": False, "BEGIN DEFERRED": False,
          "BEGIN IMMEDIATE": True, "BEGIN EXCLUSIVE": True}
_COMMIT = {"COMMIT", "COMMIT TRANSACTION", "END", "END TRANSACTION"}
_ROLLBACK = {"ROLLBACK", "ROLLBACK TRANSACTION"}
_INSERT = re.compile(r"\s*INSERT\s+INTO\s+(\w+)", re.IGNORECASE)
_RETURNING = re.compile(r"\bRETURNING\b", re.IGNORECASE)
_ADD_COLUMN = re.compile(r"(\s*ALTER\s+TABLE\s+\S+\s+ADD\s+COLUMN\s+)(?!IF\s+NOT\s+EXISTS\b)(\S+\s+)(REAL\b)?",
                         re.IGNORECASE)
_DBAPI_NAMES = ("IntegrityError", "DataError", "NotSupportedError", "ProgrammingError", "InternalError",
                "OperationalError", "InterfaceError", "DatabaseError", "Error")
_CACHE_LIMIT = 512


def redacted(url: str) -> str:
    """The URL without its password, for messages."""
    parts = urllib.parse.urlsplit(url)
    if parts.password is None:
        return url
    netloc = parts.netloc.replace(f":{parts.password}@", ":***@", 1)
    return urllib.parse.urlunsplit(parts._replace(netloc=netloc))


def store_error(exc: psycopg.Error) -> sqlite3.Error:
    """The sqlite3 exception of the same DB-API class as ``exc``."""
    for klass in type(exc).__mro__:
        if klass.__name__ in _DBAPI_NAMES and klass.__module__.startswith("psycopg"):
            mapped = getattr(sqlite3, klass.__name__)
            break
    else:
        mapped = sqlite3.Error
    return mapped(str(exc).strip() or type(exc).__name__)


def _placeholders(sql: str) -> str:
    """``?`` outside quotes becomes ``%s``; every ``%`` is doubled."""
    out = []
    quote = None
    for ch in sql:
        if ch == "%":
            out.append("%%")
        elif quote is not None:
            out.append(ch)
            if ch == quote:
                quote = None
        elif ch in ("'", '"'):
            quote = ch
            out.append(ch)
        elif ch == "?":
            out.append("%s")
        else:
            out.append(ch)
    return "".join(out)


def translate(sql: str) -> tuple[str, str | None]:
    """The statement in this dialect, and the row-id column it returns (or None)."""
    text = _ADD_COLUMN.sub(lambda m: m.group(1) + "IF NOT EXISTS " + m.group(2)
                           + ("DOUBLE PRECISION" if m.group(3) else ""), sql, count=1)
    text = _placeholders(text)
    m = _INSERT.match(text)
    id_column = ID_COLUMNS.get(m.group(1).lower()) if m else None
    if id_column is not None and not _RETURNING.search(text):
        text = text.rstrip().rstrip(";") + f" RETURNING {id_column}"
    else:
        id_column = None
    return text, id_column


class PostgresCursor:
    """The result of one statement, fetched whole."""

    arraysize = 1

    def __init__(self, rows=(), rowcount=-1, description=None, lastrowid=None):
        self._rows = list(rows)
        self._next = 0
        self.rowcount = rowcount
        self.description = description
        self.lastrowid = lastrowid

    def fetchone(self):
        if self._next >= len(self._rows):
            return None
        row = self._rows[self._next]
        self._next += 1
        return row

    def fetchall(self):
        rows = self._rows[self._next:]
        self._next = len(self._rows)
        return rows

    def __iter__(self):
        return iter(self.fetchall())

    def close(self) -> None:
        self._rows = []


class PostgresConnection:
    dialect = "postgres"

    def __init__(self, url: str, busy_timeout: float = 30.0, *, read_only: bool = False):
        self._url = url
        self._busy_timeout = float(busy_timeout)
        self._read_only = read_only
        self._lock = threading.RLock()
        self._turns = TransactionTurns(self._lock, self._transaction_open, self._busy_timeout)
        self._in_tx = False
        self._closed = False
        self._translated: dict[str, tuple[str, str | None]] = {}
        self._raw = self._open()

    def _open(self) -> psycopg.Connection:
        try:
            raw = psycopg.connect(self._url, autocommit=True,
                                  connect_timeout=max(1, int(self._busy_timeout)))
        except psycopg.Error as exc:
            raise store_error(exc) from exc
        try:
            # Lock waits end like SQLite's busy timeout.
            raw.execute(f"SET lock_timeout = {int(self._busy_timeout * 1000)}")
            if self._read_only:
                raw.execute("SET default_transaction_read_only = on")
        except psycopg.Error as exc:
            raw.close()
            raise store_error(exc) from exc
        return raw

    def _live(self) -> psycopg.Connection:
        if self._closed:
            raise sqlite3.ProgrammingError("Cannot operate on a closed database.")
        raw = self._raw
        if raw is None or raw.closed or raw.broken:
            if self._in_tx:
                raise sqlite3.OperationalError(
                    "the connection to the store was lost inside a transaction; roll it back")
            if raw is not None:
                raw.close()
            self._raw = None
            raw = self._raw = self._open()
        return raw

    @property
    def in_transaction(self) -> bool:
        """Whether the calling thread has a transaction open on the connection."""
        return self._turns.mine()

    def _transaction_open(self) -> bool:
        return self._in_tx

    def execute(self, sql, params=()):
        if not isinstance(sql, str):
            raise TypeError(f"sql must be a str, got {type(sql).__name__}")
        if params is None:
            params = ()
        elif isinstance(params, (str, bytes)) or not hasattr(params, "__iter__") or hasattr(params, "keys"):
            raise TypeError("params must be a sequence of values for the ? placeholders")
        params = tuple(params)
        return self._turns.run(self._execute, sql, params)

    def _execute(self, sql: str, params: tuple) -> PostgresCursor:
        word = " ".join(sql.split()).rstrip(";").upper()
        if word in _BEGIN:
            self._begin(_BEGIN[word])
            return PostgresCursor()
        if word in _COMMIT:
            self._commit()
            return PostgresCursor()
        if word in _ROLLBACK:
            self._rollback()
            return PostgresCursor()
        found = self._translated.get(sql)
        if found is None:
            if len(self._translated) >= _CACHE_LIMIT:
                self._translated.clear()
            found = self._translated[sql] = translate(sql)
        return self._run(*found, params)

    def _run(self, text: str, id_column: str | None, params: tuple) -> PostgresCursor:
        raw = self._live()
        try:
            cur = raw.execute(text, params)
            columns = cur.description
            rows = cur.fetchall() if columns is not None else []
            rowcount = cur.rowcount
        except psycopg.Error as exc:
            raise store_error(exc) from exc
        if id_column is not None:
            return PostgresCursor(rowcount=rowcount, lastrowid=rows[0][0] if rows else None)
        description = None if columns is None else [(c.name, None, None, None, None, None, None)
                                                      for c in columns]
        return PostgresCursor(rows, rowcount, description)

    def _begin(self, take_lock: bool) -> None:
        raw = self._live()
        if self._in_tx:
            raise sqlite3.OperationalError("cannot start a transaction within a transaction")
        try:
            raw.execute("BEGIN")
            self._in_tx = True
            if take_lock:
                raw.execute(_LOCK_SQL)
        except psycopg.Error as exc:
            self._abandon(raw)
            raise store_error(exc) from exc

    def _abandon(self, raw) -> None:
        """End the transaction without its work, whatever state the connection is in."""
        self._in_tx = False
        try:
            if not (raw.closed or raw.broken):
                raw.execute("ROLLBACK")
        except psycopg.Error:
            raw.close()

    def commit(self) -> None:
        self._turns.run(self._commit)

    def _commit(self) -> None:
        if not self._in_tx:
            return
        raw = self._raw
        if raw is None or raw.closed or raw.broken:
            self._in_tx = False
            raise sqlite3.OperationalError("the connection to the store was lost; the transaction is rolled back")
        if raw.info.transaction_status == TransactionStatus.INERROR:
            self._abandon(raw)
            raise sqlite3.OperationalError("the transaction was rolled back: a statement in it failed")
        self._in_tx = False
        try:
            raw.execute("COMMIT")
        except psycopg.Error as exc:
            raise store_error(exc) from exc

    def rollback(self) -> None:
        self._turns.run(self._rollback)

    def _rollback(self) -> None:
        raw = self._raw
        if self._in_tx and raw is not None:
            self._abandon(raw)
        self._in_tx = False

    def close(self) -> None:
        with self._lock:
            self._closed = True
            self._in_tx = False
            raw, self._raw = self._raw, None
        if raw is not None:
            raw.close()

    def __enter__(self):
        return self

    def __exit__(self, *exc) -> None:
        self.close()


class PostgresStore:
    dialect = "postgres"
    types = {"id": "BIGINT GENERATED BY DEFAULT AS IDENTITY PRIMARY KEY", "real": "DOUBLE PRECISION",
             "any": "TEXT"}
    path = None

    def __init__(self, url: str):
        self.url = url
        self.location = redacted(url)

    def connect(self, busy_timeout: float) -> PostgresConnection:
        return PostgresConnection(self.url, busy_timeout)

    def read_only(self, timeout: float = 5.0) -> PostgresConnection:
        return PostgresConnection(self.url, timeout, read_only=True)

    @staticmethod
    def exists() -> bool:
        return True

    @staticmethod
    def table_columns(conn, table: str) -> set[str]:
        rows = conn.execute("SELECT column_name FROM information_schema.columns"
                            " WHERE table_schema = current_schema() AND table_name = ?", (table,)).fetchall()
        return {row[0] for row in rows}

    @staticmethod
    def after_schema(conn, version: int) -> None:
        conn.execute("INSERT INTO tracker_meta (key, value, updated_at) VALUES ('schema_version', ?, 0)"
                     " ON CONFLICT(key) DO UPDATE SET value=excluded.value", (str(int(version)),))

    @staticmethod
    def loose(value):
        """A value for a column without a declared type: stored as text here (JSON for non-strings)."""
        if value is None or isinstance(value, str):
            return value
        return json.dumps(value)

    def size_info(self, conn) -> dict:
        size = int(conn.execute("SELECT pg_database_size(current_database())").fetchone()[0])
        return {"db_path": self.location, "size_bytes": size, "size_mb": round(size / (1024 * 1024), 3),
                "wal_size_bytes": 0}
