"""Where a search's store lives: a SQLite file in the data directory (the
default) or a PostgreSQL database shared by several machines.

A store hands out connections that behave alike: ``execute(sql, params)`` with
``?`` placeholders, cursors with ``fetchone``/``fetchall``/``rowcount``/
``lastrowid``/``description``, ``commit()``, ``in_transaction``, the plain
statements ``BEGIN IMMEDIATE``, ``COMMIT`` and ``ROLLBACK``, and failures
raised as the ``sqlite3`` module's exception classes whichever the dialect,
so that callers handle one vocabulary of errors.

A data directory remembers a store that is not its own SQLite file in
``store_url`` (written by the local runtime), so that every later command on
that directory opens the same store.
"""

from __future__ import annotations

import os
import sqlite3

from tarnwicket.errors import DamagedFile

from .sqlite import SqliteStore

STORE_URL_FILE = "store_url"
STORE_URL_ADVICE = ("write the URL of the search store in it, or remove it to use the data directory's "
                    "own SQLite file")
POSTGRES_SCHEMES = ("postgresql://", "postgres://")


def is_postgres_url(url: str) -> bool:
    return url.startswith(POSTGRES_SCHEMES)


def check_store_url(url):
    """The URL itself, or ValueError with a one-line reason."""
    if not isinstance(url, str):
        raise TypeError(f"store must be a str URL or None, got {type(url).__name__}")
    if url == "sqlite" or is_postgres_url(url):
        return url
    raise ValueError(f"unsupported store {url!r}: use 'sqlite' (the data directory's own file) "
                     "or a postgresql://user@host:port/database URL")


def remembered_store_url(data_dir: str) -> str | None:
    """The store URL a data directory was set up with, if any; ``DamagedFile``
    when its file is there but does not hold one."""
    path = os.path.join(data_dir, STORE_URL_FILE)
    try:
        with open(path, encoding="utf-8") as fh:
            url = fh.read().strip()
        return check_store_url(url) if url else None
    except FileNotFoundError:
        return None
    except (OSError, ValueError) as exc:   # unreadable, not text, or not a store URL
        raise DamagedFile(path, f"does not hold a store URL ({exc})", STORE_URL_ADVICE) from None


def remember_store_url(data_dir: str, url: str | None) -> None:
    """Record ``url`` as the data directory's store (None or 'sqlite': its own file)."""
    path = os.path.join(data_dir, STORE_URL_FILE)
    if url is None or url == "sqlite":
        try:
            os.remove(path)
        except FileNotFoundError:
            pass
        return
    tmp = path + ".tmp"
    fd = os.open(tmp, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)   # the URL may carry a password
    with os.fdopen(fd, "w", encoding="utf-8") as fh:
        fh.write(check_store_url(url) + "\n")
    os.replace(tmp, path)


def open_store(data_dir: str, url: str | None = None, *, db_filename: str):
    """The store of ``data_dir``: ``url`` if given, else the one the directory remembers,
    else its own SQLite file ``db_filename``."""
    if url is None:
        url = remembered_store_url(data_dir)
    if url is None or check_store_url(url) == "sqlite":
        return SqliteStore(os.path.join(data_dir, db_filename))
    try:
        from .postgres import PostgresStore      # psycopg is only needed for a shared store
    except ModuleNotFoundError as exc:
        if exc.name not in ("psycopg", "psycopg_binary"):
            raise
        raise sqlite3.NotSupportedError("a PostgreSQL store needs psycopg 3: "
                                        "pip install 'tarnwicket[postgres]'") from exc
    return PostgresStore(url)
