"""Checks of the data directory made before a search starts.

Each check reads its file and raises ``DamagedFile`` when the file is there but
unusable; none of them creates, repairs or rewrites anything, so a damaged file
stays as it was found for the user to look at.
"""

from __future__ import annotations

import json
import os
import pathlib
import sqlite3

from tarnwicket.errors import DamagedFile

from .data_source import vocabulary_path
from .features import FEATURE_NAMES
from .operators import OPERATORS

STORE_ADVICE = "move it aside to start a new store, or put back a copy that works"
VOCABULARY_ADVICE = "delete it to have the local data set written again"
_IN_USE = (5, 6)      # SQLITE_BUSY, SQLITE_LOCKED


def _expected_columns(schema: str) -> dict[str, set[str]]:
    """Table -> column names that ``schema`` creates, read from an in-memory copy of it."""
    conn = sqlite3.connect(":memory:")
    try:
        conn.executescript(schema)
        tables = [row[0] for row in conn.execute("SELECT name FROM sqlite_master WHERE type='table'")]
        return {t: {row[1] for row in conn.execute(f'PRAGMA table_info("{t}")')} for t in tables}
    finally:
        conn.close()


def check_store(path: str) -> None:
    """A store that exists must open read-only, pass SQLite's own check and hold our tables' columns."""
    if not os.path.lexists(path):
        return
    from tarnwicket.search_tracking import _SCHEMA
    from tarnwicket.stores.sqlite import SqliteStore

    try:
        conn = sqlite3.connect(pathlib.Path(path).resolve().as_uri() + "?mode=ro", uri=True, timeout=5.0)
    except sqlite3.Error as exc:
        raise DamagedFile(path, f"cannot be opened as a search store ({exc})", STORE_ADVICE) from None
    try:
        verdict = [row[0] for row in conn.execute("PRAGMA quick_check")]
        if verdict != ["ok"]:
            raise DamagedFile(path, f"fails SQLite's integrity check ({verdict[0]})", STORE_ADVICE)
        for table, wanted in _expected_columns(_SCHEMA.format(**SqliteStore.types)).items():
            have = {row[1] for row in conn.execute(f'PRAGMA table_info("{table}")')}
            if have and not wanted <= have:
                missing = ", ".join(sorted(wanted - have))
                raise DamagedFile(path, f"has a table {table} without the columns {missing}", STORE_ADVICE)
    except sqlite3.Error as exc:
        if getattr(exc, "sqlite_errorcode", None) in _IN_USE:
            raise                      # busy with another process, not damaged
        raise DamagedFile(path, f"is not a usable search store ({exc})", STORE_ADVICE) from None
    finally:
        conn.close()


def _read_vocabulary(path: str, data_dir: str, universe_id: str) -> dict:
    from tarnwicket.obfuscation import load_vocabulary

    try:
        return load_vocabulary(data_dir, universe_id)
    except UnicodeDecodeError:
        problem = "is not UTF-8 text"
    except OSError as exc:
        problem = f"cannot be read ({exc.strerror or exc})"
    except ValueError as exc:
        cause = exc.__cause__
        problem = (f"is not valid JSON ({cause})" if isinstance(cause, json.JSONDecodeError)
                   else "does not hold a JSON object")
    raise DamagedFile(path, problem, VOCABULARY_ADVICE)


def check_vocabulary(data_dir: str, universe_id: str) -> None:
    """The vocabulary must pass the search's own normalisation and name something the evaluator runs."""
    import tarnwicket.search_templates as st

    path = vocabulary_path(data_dir, universe_id)
    vocab = _read_vocabulary(path, data_dir, universe_id)
    try:
        flat = st._normalize_template_vocabulary(vocab)
    except (TypeError, ValueError) as exc:
        raise DamagedFile(path, f"has an entry the search refuses ({exc})", VOCABULARY_ADVICE) from None

    def names(entries) -> set:
        if not isinstance(entries, list):
            return set()
        return {e["name"] for e in entries if isinstance(e, dict) and isinstance(e.get("name"), str)}

    if not names(flat.get("functions")) & {op.name for op in OPERATORS}:
        raise DamagedFile(path, "lists no function that the local evaluator runs", VOCABULARY_ADVICE)
    if not names(flat.get("features")) & set(FEATURE_NAMES):
        raise DamagedFile(path, "lists no feature of the local data set", VOCABULARY_ADVICE)
