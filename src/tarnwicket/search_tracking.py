"""Evaluation and submission store of a search.

One SQLite file per data directory by default, or a PostgreSQL database that
several machines share (``tarnwicket.stores``). The tracker keeps a single
connection in autocommit mode (``_conn``); the search pipeline runs its own
statements on it, including ``BEGIN IMMEDIATE`` / ``COMMIT`` / ``ROLLBACK``, and
serialises that use under its own lock. The tracker's own multi-statement
writes open a transaction of their own, or a savepoint when the caller already
has one open. Every statement here runs unchanged in both dialects.
"""

from __future__ import annotations

import contextlib
import dataclasses
import hashlib
import json
import logging
import math
import operator
import os
import sqlite3
import threading
import time
import uuid
from dataclasses import dataclass, field
from typing import Any, Iterator

from tarnwicket.search_analytics import SearchAnalytics
from tarnwicket.stores import open_store

logger = logging.getLogger(__name__)

DB_FILENAME = "search_tracking.db"
SCHEMA_VERSION = 1
BUSY_TIMEOUT_SECONDS = 30.0
CLAIM_LEASE_SECONDS = 300.0
RETRY_LIMIT = 5

EVAL_TABLES = {"signal": "signal_evaluations", "strategy": "strategy_evaluations"}
TERMINAL_STATUSES = frozenset(
    {"found", "useful", "is_rejected", "not_useful", "os_failed", "useful_transition_failed"}
)


@dataclass
class BacktestStats:
    """Metrics of one backtest, as produced by an evaluation runtime."""

    passed: bool = True
    sharpe: float | None = None
    fitness: float | None = None
    returns: float | None = None
    drawdown: float | None = None
    turnover: float | None = None
    margin: float | None = None
    long_count: int | None = None
    short_count: int | None = None
    delta_exposure: float | None = None
    max_weight: float | None = None
    correlation: float | None = None
    factor_pnl: Any = None
    per_column_stats: dict | None = None
    is_pnl_mi: float | None = None
    weight_quality_metrics: dict = field(default_factory=dict)
    liquidity_metrics: dict = field(default_factory=dict)
    custom_stats: dict = field(default_factory=dict)


# Scalar metrics that get a column of their own in signal_evaluations.
METRIC_COLUMNS = (
    "sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "long_count",
    "short_count", "delta_exposure", "max_weight", "correlation", "is_pnl_mi",
)

_SCHEMA = """
CREATE TABLE IF NOT EXISTS tracker_meta (
    key TEXT PRIMARY KEY,
    value TEXT,
    updated_at {real} NOT NULL
);
CREATE TABLE IF NOT EXISTS simulations (
    sim_id TEXT PRIMARY KEY,
    era_id INTEGER,
    created_at {real} NOT NULL
);
CREATE TABLE IF NOT EXISTS signal_evaluations (
    eval_id TEXT PRIMARY KEY,
    era_id INTEGER NOT NULL,
    universe_id TEXT NOT NULL,
    pool_id TEXT,
    passed INTEGER NOT NULL,
    rejection_reason TEXT,
    graph_json TEXT NOT NULL,
    function_names_json TEXT NOT NULL DEFAULT '[]',
    feature_names_json TEXT NOT NULL DEFAULT '[]',
    metaparams_json TEXT,
    stats_json TEXT,
    per_column_stats_json TEXT,
    sharpe {real}, fitness {real}, returns {real}, drawdown {real}, turnover {real}, margin {real},
    long_count {real}, short_count {real}, delta_exposure {real}, max_weight {real},
    correlation {real}, is_pnl_mi {real},
    submitted INTEGER NOT NULL DEFAULT 0,
    created_at {real} NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_signal_evaluations_created
    ON signal_evaluations (created_at);
CREATE TABLE IF NOT EXISTS strategy_evaluations (
    eval_id TEXT PRIMARY KEY,
    era_id INTEGER,
    strategy_pool_id TEXT,
    signal_pool_id TEXT,
    passed INTEGER NOT NULL DEFAULT 0,
    rejection_reason TEXT,
    payload_json TEXT,
    submitted INTEGER NOT NULL DEFAULT 0,
    created_at {real} NOT NULL
);
CREATE INDEX IF NOT EXISTS idx_strategy_evaluations_created
    ON strategy_evaluations (created_at);
CREATE TABLE IF NOT EXISTS submission_queue (
    queue_id {id},
    eval_id TEXT NOT NULL,
    eval_type TEXT NOT NULL,
    payload_json TEXT NOT NULL,
    era_id INTEGER NOT NULL,
    priority INTEGER NOT NULL DEFAULT 0,
    created_at {real} NOT NULL
);
CREATE TABLE IF NOT EXISTS submission_retry (
    retry_id {id},
    eval_id TEXT NOT NULL,
    eval_type TEXT NOT NULL,
    pool_id TEXT,
    payload_json TEXT NOT NULL,
    era_id INTEGER NOT NULL,
    retry_count INTEGER NOT NULL DEFAULT 0,
    last_rejection_reason TEXT,
    retry_after {real},
    created_at {real} NOT NULL
);
CREATE TABLE IF NOT EXISTS submission_attempts (
    attempt_id {id},
    idempotency_key TEXT NOT NULL UNIQUE,
    eval_id TEXT NOT NULL,
    eval_type TEXT NOT NULL,
    era_id INTEGER NOT NULL,
    pool_id TEXT,
    payload_json TEXT NOT NULL,
    attempt_count INTEGER NOT NULL DEFAULT 1,
    first_started_at {real} NOT NULL,
    last_started_at {real} NOT NULL
);
CREATE TABLE IF NOT EXISTS submission_status (
    status_id {id},
    eval_id TEXT,
    eval_type TEXT,
    era_id INTEGER,
    pool_id TEXT,
    signal_pool_id TEXT,
    submission_id TEXT,
    sim_id TEXT REFERENCES simulations (sim_id),
    status TEXT NOT NULL DEFAULT 'pending',
    submitted_at {real},
    updated_at {real},
    finalized_at {real},
    rejection_reason TEXT,
    is_stats_json TEXT,
    payment_json TEXT,
    payment {any},
    is_correlation {any},
    is_pnl_mi {any},
    agent_is_pnl_mi {any},
    is_weights_mi {any},
    failure_reason TEXT,
    failure_detail TEXT
);
CREATE INDEX IF NOT EXISTS idx_submission_status_submission
    ON submission_status (submission_id);
CREATE INDEX IF NOT EXISTS idx_submission_status_open
    ON submission_status (finalized_at, submitted_at);
"""

# Tables reported by get_db_info, in this order.
REPORTED_TABLES = (
    "signal_evaluations", "strategy_evaluations", "submission_queue", "submission_retry",
    "submission_status", "submission_attempts", "simulations",
)


@dataclass(frozen=True)
class QueueItem:
    """A submission_queue row handed out by ``dequeue_submission``."""

    queue_id: int
    eval_id: str
    eval_type: str
    payload_json: str
    era_id: int
    priority: int
    created_at: float


@dataclass(frozen=True)
class RetryItem:
    """A submission_retry row handed out by ``dequeue_retryable``."""

    retry_id: int
    eval_id: str
    eval_type: str
    payload_json: str
    era_id: int
    pool_id: str | None
    retry_count: int
    last_rejection_reason: str | None
    retry_after: float | None
    created_at: float


@dataclass(frozen=True)
class PendingSubmission:
    """An open submission_status row (no terminal status seen yet)."""

    submission_id: str
    eval_type: str | None
    eval_id: str | None
    era_id: int | None
    sim_id: str | None
    status: str
    submitted_at: float | None


# ---------------------------------------------------------------------------
# Module-level helpers shared with the submission pipeline


def _synthetic_submission_sim_id(eval_id, submission_type):
    """Deterministic parent-simulation id for a submission that carries none."""
    _require_text("eval_id", eval_id)
    _require_text("submission_type", submission_type)
    digest = hashlib.sha256(f"{submission_type}\x00{eval_id}".encode("utf-8")).hexdigest()
    return f"sim_{submission_type}_{digest[:32]}"


def _ensure_submission_sim_parent(conn, sim_id, era_id):
    """Make sure the parent row of ``sim_id`` exists.

    Runs inside the caller's transaction: no BEGIN or COMMIT here.
    """
    _require_text("sim_id", sim_id)
    conn.execute(
        "INSERT INTO simulations (sim_id, era_id, created_at) VALUES (?, ?, ?) ON CONFLICT (sim_id) DO NOTHING",
        (sim_id, era_id, time.time()),
    )


# ---------------------------------------------------------------------------
# Validation and encoding helpers


def _require_text(name: str, value: Any) -> str:
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str, got {type(value).__name__}")
    if not value:
        raise ValueError(f"{name} must be a non-empty string")
    return value


def _optional_text(name: str, value: Any) -> str | None:
    if value is None:
        return None
    if not isinstance(value, str):
        raise TypeError(f"{name} must be a str or None, got {type(value).__name__}")
    return value


def _require_era_id(value: Any) -> int:
    if isinstance(value, bool):
        raise TypeError("era_id must be an integer, got bool")
    if isinstance(value, int):
        return value
    if isinstance(value, str) and value.strip().lstrip("-").isdigit():
        return int(value)
    try:
        return operator.index(value)
    except TypeError:
        raise TypeError(f"era_id must be an integer, got {type(value).__name__}") from None


def _require_submission_type(value: Any) -> str:
    _require_text("submission_type", value)
    if value not in EVAL_TABLES:
        raise ValueError(f"submission_type must be 'signal' or 'strategy', got {value!r}")
    return value


def _optional_eval_type(value: Any) -> str | None:
    if value is None:
        return None
    return _require_submission_type(value)


def _require_payload_json(payload_json: Any) -> dict:
    _require_text("payload_json", payload_json)
    try:
        payload = json.loads(payload_json)
    except ValueError as exc:
        raise ValueError(f"payload_json is not valid JSON: {exc}") from exc
    if not isinstance(payload, dict):
        raise ValueError("payload_json must decode to an object")
    return payload


def _optional_number(name: str, value: Any) -> float | None:
    if value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        raise TypeError(f"{name} must be a number or None, got {type(value).__name__}")
    return float(value)


def _dumps(value: Any) -> str:
    return json.dumps(value, sort_keys=True, default=str)


def _metric_value(value: Any) -> float | None:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        try:  # numpy scalars and the like
            value = float(value)  # type: ignore[arg-type]
        except (TypeError, ValueError):
            return None
    value = float(value)
    return value if math.isfinite(value) else None


def _scalar_or_json(value: Any) -> Any:
    """Store numbers and text as they are, anything else as JSON text."""
    if value is None or isinstance(value, (str, int, float)):
        return value
    return _dumps(value)


def _stats_record(stats: Any) -> dict:
    """JSON-ready view of a stats object, without the bulky P&L series."""
    if stats is None:
        return {}
    if dataclasses.is_dataclass(stats) and not isinstance(stats, type):
        record = {f.name: getattr(stats, f.name) for f in dataclasses.fields(stats)}
    elif isinstance(stats, dict):
        record = dict(stats)
    elif hasattr(stats, "__dict__"):
        record = dict(vars(stats))
    else:
        return {"value": str(stats)}
    factor_pnl = record.pop("factor_pnl", None)
    if factor_pnl is not None:
        try:
            record["factor_pnl_length"] = len(factor_pnl)
        except TypeError:
            pass
    return record


_LITERAL_NODE_TYPES = frozenset({"int", "float", "string", "bool"})
_MAX_GRAPH_NODES = 100_000


def graph_names(graph: Any) -> tuple[list[str], list[str]]:
    """Function and feature names of an expression graph, each once, in order."""
    functions: dict[str, None] = {}
    features: dict[str, None] = {}
    stack = [graph]
    seen = 0
    while stack and seen < _MAX_GRAPH_NODES:
        node = stack.pop()
        seen += 1
        if not isinstance(node, dict):
            continue
        kind = node.get("type")
        name = node.get("node")
        if kind == "feature":
            if isinstance(name, str) and name:
                features.setdefault(name)
        elif kind not in _LITERAL_NODE_TYPES and isinstance(name, str) and name:
            functions.setdefault(name)
        children = node.get("children")
        if isinstance(children, (list, tuple)):
            stack.extend(reversed(children))
    return list(functions), list(features)


# ---------------------------------------------------------------------------


class SearchTracker:
    """Store of evaluations and submissions of one data directory.

    ``store`` is None (the store the data directory was set up with, else its
    own SQLite file), ``"sqlite"``, or a ``postgresql://`` URL of a database
    that several searches share.
    """

    def __init__(self, data_dir, *, store=None, busy_timeout: float = BUSY_TIMEOUT_SECONDS):
        if isinstance(data_dir, os.PathLike):
            data_dir = os.fspath(data_dir)
        _require_text("data_dir", data_dir)
        self._data_dir = os.path.abspath(os.path.expanduser(data_dir))
        os.makedirs(self._data_dir, exist_ok=True)
        self._store = open_store(self._data_dir, store, db_filename=DB_FILENAME)
        self._db_path = self._store.path
        self._busy_timeout = float(busy_timeout)
        self._lock = threading.RLock()
        self._search_active = False
        self._claim_columns: dict[str, bool] = {}
        self._read_lock = threading.Lock()
        self._read_conn = None
        self._conn = self._store.connect(self._busy_timeout)
        try:
            self._create_schema()
            self._read_conn = self._store.connect(self._busy_timeout)
        except BaseException:
            self._conn.close()
            self._conn = None
            raise

    # -- connection -------------------------------------------------------

    def _create_schema(self) -> None:
        conn = self._conn
        try:
            conn.execute("BEGIN IMMEDIATE")
            for statement in _SCHEMA.format(**self._store.types).split(";"):
                if statement.strip():
                    conn.execute(statement)
            self._store.after_schema(conn, SCHEMA_VERSION)
            conn.execute("COMMIT")
        except BaseException:
            if conn.in_transaction:
                conn.execute("ROLLBACK")
            raise

    def _require_conn(self):
        conn = self._conn
        if conn is None:
            raise RuntimeError("SearchTracker is closed")
        return conn

    @contextlib.contextmanager
    def _transaction(self) -> Iterator[Any]:
        """One atomic unit of work; a savepoint inside a caller's transaction."""
        with self._lock:
            conn = self._require_conn()
            if conn.in_transaction:
                name = f"tracker_{uuid.uuid4().hex}"
                conn.execute(f"SAVEPOINT {name}")
                try:
                    yield conn
                except BaseException:
                    conn.execute(f"ROLLBACK TO SAVEPOINT {name}")
                    conn.execute(f"RELEASE SAVEPOINT {name}")
                    raise
                conn.execute(f"RELEASE SAVEPOINT {name}")
                return
            # BEGIN inside the try: an exception that lands just after it (a
            # KeyboardInterrupt from a signal handler) still ends the transaction.
            try:
                conn.execute("BEGIN IMMEDIATE")
                yield conn
                conn.execute("COMMIT")
            except BaseException:
                try:
                    if conn.in_transaction:
                        conn.execute("ROLLBACK")
                except sqlite3.Error as exc:
                    logger.warning("tracker rollback failed: %s", exc)
                raise

    @contextlib.contextmanager
    def _reader(self) -> Iterator[Any]:
        """The read connection, for reads made without the caller's lock.

        It is opened with the tracker, so that reads keep working on threads
        that may not open files or databases themselves (template code).
        """
        with self._read_lock:
            conn = self._read_conn
            if conn is None:
                raise RuntimeError("SearchTracker is closed")
            yield conn

    def _has_claim_columns(self, conn, table: str) -> bool:
        if self._claim_columns.get(table):
            return True
        cols = self._store.table_columns(conn, table)
        ready = {"in_flight_owner", "in_flight_at"} <= cols
        if ready:
            self._claim_columns[table] = True
        return ready

    def close(self) -> None:
        with self._lock:
            conn, self._conn = self._conn, None
        with self._read_lock:
            reader, self._read_conn = self._read_conn, None
        for c in (conn, reader):
            if c is not None:
                c.close()

    def __enter__(self) -> "SearchTracker":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self._conn is None else "open"
        return f"SearchTracker({self._store.location!r}, {state})"

    # -- search state -----------------------------------------------------

    def set_search_active(self, flag) -> None:
        if not isinstance(flag, (bool, int)):
            raise TypeError(f"flag must be a bool, got {type(flag).__name__}")
        active = bool(flag)
        with self._lock:
            self._require_conn().execute(
                "INSERT INTO tracker_meta (key, value, updated_at) VALUES ('search_active', ?, ?) "
                "ON CONFLICT(key) DO UPDATE SET value=excluded.value, updated_at=excluded.updated_at",
                ("1" if active else "0", time.time()),
            )
            self._search_active = active

    def is_search_active(self) -> bool:
        with self._lock:
            row = self._require_conn().execute(
                "SELECT value FROM tracker_meta WHERE key='search_active'"
            ).fetchone()
        return bool(row) and row[0] == "1"

    def get_evaluation_count(self) -> int:
        with self._reader() as conn:
            return int(conn.execute("SELECT COUNT(*) FROM signal_evaluations").fetchone()[0])

    def get_search_stats(self):
        return SearchAnalytics(self, []).get_search_stats()

    def iter_signal_outcomes(self, pool_ids=None, limit=None) -> Iterator[tuple[bool, list, list]]:
        """(passed, function names, feature names) of recorded signal evaluations, newest first."""
        sql = "SELECT passed, function_names_json, feature_names_json FROM signal_evaluations"
        params: list[Any] = []
        if pool_ids:
            marks = ", ".join("?" for _ in pool_ids)
            sql += f" WHERE pool_id IN ({marks}) OR pool_id IS NULL"
            params.extend(pool_ids)
        sql += " ORDER BY created_at DESC, eval_id DESC"
        if limit is not None:
            sql += " LIMIT ?"
            params.append(int(limit))
        with self._reader() as conn:
            rows = conn.execute(sql, params).fetchall()
        for passed, functions_json, features_json in rows:
            try:
                functions = json.loads(functions_json)
                features = json.loads(features_json)
            except (TypeError, ValueError):
                continue
            yield bool(passed), functions, features

    # -- evaluations ------------------------------------------------------

    def record_signal_evaluation(
        self,
        graph,
        stats,
        era_id,
        passed_thresholds,
        universe_id,
        metaparams_for_db,
        pool_id=None,
        rejection_reason=None,
        per_column_stats=None,
    ) -> str:
        if not isinstance(graph, dict):
            raise TypeError(f"graph must be a dict, got {type(graph).__name__}")
        era = _require_era_id(era_id)
        if not isinstance(passed_thresholds, (bool, int)):
            raise TypeError(
                f"passed_thresholds must be a bool, got {type(passed_thresholds).__name__}"
            )
        _require_text("universe_id", universe_id)
        if metaparams_for_db is not None and not isinstance(metaparams_for_db, dict):
            raise TypeError(
                f"metaparams_for_db must be a dict or None, got {type(metaparams_for_db).__name__}"
            )
        _optional_text("pool_id", pool_id)
        _optional_text("rejection_reason", rejection_reason)
        if per_column_stats is None and stats is not None:
            per_column_stats = getattr(stats, "per_column_stats", None)

        eval_id = str(uuid.uuid4())
        functions, features = graph_names(graph)
        row = {
            "eval_id": eval_id,
            "era_id": era,
            "universe_id": universe_id,
            "pool_id": pool_id,
            "passed": 1 if passed_thresholds else 0,
            "rejection_reason": rejection_reason,
            "graph_json": _dumps(graph),
            "function_names_json": json.dumps(functions),
            "feature_names_json": json.dumps(features),
            "metaparams_json": None if metaparams_for_db is None else _dumps(metaparams_for_db),
            "stats_json": _dumps(_stats_record(stats)),
            "per_column_stats_json": None if per_column_stats is None else _dumps(per_column_stats),
        }
        for name in METRIC_COLUMNS:
            row[name] = _metric_value(getattr(stats, name, None)) if stats is not None else None
        row["created_at"] = time.time()
        columns = ", ".join(row)
        marks = ", ".join("?" for _ in row)
        sql = f"INSERT INTO signal_evaluations ({columns}) VALUES ({marks})"
        values = tuple(row.values())

        last_error: sqlite3.Error | None = None
        for attempt in range(2):
            try:
                with self._transaction() as conn:
                    conn.execute(sql, values)
                return eval_id
            except sqlite3.Error as exc:
                last_error = exc
                logger.warning("record_signal_evaluation attempt %d failed: %s", attempt + 1, exc)
                if attempt == 0:
                    time.sleep(0.05)
        raise OSError(f"failed to record signal evaluation: {last_error}") from last_error

    def record_strategy_evaluation(
        self, era_id, strategy_pool_id, signal_pool_id, passed, payload=None, rejection_reason=None
    ) -> str:
        era = _require_era_id(era_id)
        _optional_text("strategy_pool_id", strategy_pool_id)
        _optional_text("signal_pool_id", signal_pool_id)
        _optional_text("rejection_reason", rejection_reason)
        eval_id = str(uuid.uuid4())
        with self._transaction() as conn:
            conn.execute(
                "INSERT INTO strategy_evaluations (eval_id, era_id, strategy_pool_id, signal_pool_id,"
                " passed, rejection_reason, payload_json, created_at) VALUES (?, ?, ?, ?, ?, ?, ?, ?)",
                (eval_id, era, strategy_pool_id, signal_pool_id, 1 if passed else 0,
                 rejection_reason, None if payload is None else _dumps(payload), time.time()),
            )
        return eval_id

    def mark_submitted(self, eval_id, eval_type="signal") -> bool:
        _require_text("eval_id", eval_id)
        table = EVAL_TABLES[_require_submission_type(eval_type)]
        with self._transaction() as conn:
            cur = conn.execute(f"UPDATE {table} SET submitted=1 WHERE eval_id=?", (eval_id,))
            return cur.rowcount == 1

    # -- submission queue -------------------------------------------------

    def enqueue_submission(self, *args):
        """Queue a passing evaluation for submission.

        Two forms: ``enqueue_submission(payload)`` with the payload record, or
        ``enqueue_submission(eval_id, submission_type, payload_json, era_id)``.
        Returns the new ``queue_id``.
        """
        if len(args) == 1:
            payload = args[0]
            if not isinstance(payload, dict):
                raise TypeError(f"payload must be a dict, got {type(payload).__name__}")
            missing = [k for k in ("eval_id", "submission_type", "era_id") if k not in payload]
            if missing:
                raise ValueError(f"payload is missing required keys: {', '.join(missing)}")
            args = (payload["eval_id"], payload["submission_type"], _dumps(payload), payload["era_id"])
        if len(args) != 4:
            raise TypeError(
                "enqueue_submission takes (payload) or "
                f"(eval_id, submission_type, payload_json, era_id), got {len(args)} arguments"
            )
        eval_id, submission_type, payload_json, era_id = args
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        _require_payload_json(payload_json)
        era = _require_era_id(era_id)
        with self._transaction() as conn:
            return self._insert_queue_row(conn, eval_id, submission_type, payload_json, era, 0)

    def requeue_submission(self, eval_id, submission_type, payload_json, era_id):
        """Put a payload back after a network failure, ahead of new work.

        A free row of the same evaluation is updated rather than duplicated.
        Returns the row's ``queue_id``.
        """
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        _require_payload_json(payload_json)
        era = _require_era_id(era_id)
        with self._transaction() as conn:
            free = ""
            if self._has_claim_columns(conn, "submission_queue"):
                free = " AND in_flight_owner IS NULL"
            row = conn.execute(
                "SELECT queue_id FROM submission_queue WHERE eval_id=? AND eval_type=? AND era_id=?"
                + free + " ORDER BY queue_id LIMIT 1",
                (eval_id, submission_type, era),
            ).fetchone()
            if row is not None:
                conn.execute(
                    "UPDATE submission_queue SET payload_json=?, priority=1 WHERE queue_id=?",
                    (payload_json, row[0]),
                )
                return row[0]
            return self._insert_queue_row(conn, eval_id, submission_type, payload_json, era, 1)

    def _insert_queue_row(self, conn, eval_id, submission_type, payload_json, era_id, priority):
        cur = conn.execute(
            "INSERT INTO submission_queue (eval_id, eval_type, payload_json, era_id, priority,"
            " created_at) VALUES (?, ?, ?, ?, ?, ?)",
            (eval_id, submission_type, payload_json, era_id, priority, time.time()),
        )
        return cur.lastrowid

    def dequeue_submission(self) -> QueueItem | None:
        """Take the next free queue row out of the table (priority first, then oldest)."""
        with self._transaction() as conn:
            where = ""
            params: tuple = ()
            if self._has_claim_columns(conn, "submission_queue"):
                where = " WHERE in_flight_owner IS NULL OR in_flight_at IS NULL OR in_flight_at < ?"
                params = (time.time() - CLAIM_LEASE_SECONDS,)
            row = conn.execute(
                "SELECT queue_id, eval_id, eval_type, payload_json, era_id, priority, created_at"
                " FROM submission_queue" + where + " ORDER BY priority DESC, queue_id ASC LIMIT 1",
                params,
            ).fetchone()
            if row is None:
                return None
            conn.execute("DELETE FROM submission_queue WHERE queue_id=?", (row[0],))
            return QueueItem(*row)

    def dequeue_retryable(self) -> RetryItem | None:
        """Take the oldest due retry row below the retry limit out of the table."""
        now = time.time()
        with self._transaction() as conn:
            where = "retry_count < ? AND (retry_after IS NULL OR retry_after <= ?)"
            params: list[Any] = [RETRY_LIMIT, now]
            if self._has_claim_columns(conn, "submission_retry"):
                where += " AND (in_flight_owner IS NULL OR in_flight_at IS NULL OR in_flight_at < ?)"
                params.append(now - CLAIM_LEASE_SECONDS)
            row = conn.execute(
                "SELECT retry_id, eval_id, eval_type, payload_json, era_id, pool_id, retry_count,"
                " last_rejection_reason, retry_after, created_at FROM submission_retry WHERE "
                + where + " ORDER BY created_at ASC, retry_id ASC LIMIT 1",
                params,
            ).fetchone()
            if row is None:
                return None
            conn.execute("DELETE FROM submission_retry WHERE retry_id=?", (row[0],))
            return RetryItem(*row)

    # -- retries ----------------------------------------------------------

    def _pool_id_for(self, conn, eval_id, submission_type, payload) -> str | None:
        for key in ("pool_id", "strategy_pool_id" if submission_type == "strategy" else "signal_pool_id"):
            value = payload.get(key)
            if isinstance(value, str) and value:
                return value
        column = "strategy_pool_id" if submission_type == "strategy" else "pool_id"
        row = conn.execute(
            f"SELECT {column} FROM {EVAL_TABLES[submission_type]} WHERE eval_id=?", (eval_id,)
        ).fetchone()
        return row[0] if row else None

    def enqueue_retry(
        self, eval_id, submission_type, payload_json, era_id, rejection_reason, retry_after=None
    ) -> int:
        """First rejection of a payload that has no row: store it with one counted rejection."""
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        payload = _require_payload_json(payload_json)
        era = _require_era_id(era_id)
        _optional_text("rejection_reason", rejection_reason)
        after = _optional_number("retry_after", retry_after)
        with self._transaction() as conn:
            pool_id = self._pool_id_for(conn, eval_id, submission_type, payload)
            cur = conn.execute(
                "INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id,"
                " retry_count, last_rejection_reason, retry_after, created_at)"
                " VALUES (?, ?, ?, ?, ?, 1, ?, ?, ?)",
                (eval_id, submission_type, pool_id, payload_json, era, rejection_reason, after,
                 time.time()),
            )
            return cur.lastrowid

    def increment_retry(
        self,
        retry_id,
        eval_id,
        submission_type,
        payload_json,
        era_id,
        rejection_reason,
        retry_count,
        retry_after=None,
    ) -> int:
        """Count one more rejection; ``retry_count`` is the count before this one.

        Updates the row ``retry_id`` when it exists, otherwise stores a new row.
        Returns the row's ``retry_id``.
        """
        if retry_id is not None and (isinstance(retry_id, bool) or not isinstance(retry_id, int)):
            raise TypeError(f"retry_id must be an int or None, got {type(retry_id).__name__}")
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        payload = _require_payload_json(payload_json)
        era = _require_era_id(era_id)
        _optional_text("rejection_reason", rejection_reason)
        if isinstance(retry_count, bool) or not isinstance(retry_count, int):
            raise TypeError(f"retry_count must be an int, got {type(retry_count).__name__}")
        if retry_count < 0:
            raise ValueError("retry_count must be >= 0")
        after = _optional_number("retry_after", retry_after)
        new_count = retry_count + 1
        now = time.time()
        with self._transaction() as conn:
            if retry_id is not None:
                clear_claim = ""
                if self._has_claim_columns(conn, "submission_retry"):
                    clear_claim = ", in_flight_owner=NULL, in_flight_at=NULL"
                cur = conn.execute(
                    "UPDATE submission_retry SET payload_json=?, retry_count=?,"
                    " last_rejection_reason=?, retry_after=?, created_at=?" + clear_claim +
                    " WHERE retry_id=?",
                    (payload_json, new_count, rejection_reason, after, now, retry_id),
                )
                if cur.rowcount == 1:
                    return retry_id
            pool_id = self._pool_id_for(conn, eval_id, submission_type, payload)
            cur = conn.execute(
                "INSERT INTO submission_retry (eval_id, eval_type, pool_id, payload_json, era_id,"
                " retry_count, last_rejection_reason, retry_after, created_at)"
                " VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?)",
                (eval_id, submission_type, pool_id, payload_json, era, new_count, rejection_reason,
                 after, now),
            )
            return cur.lastrowid

    # -- submissions and their status --------------------------------------

    def record_submission_attempt_started(
        self, eval_id, submission_type, idempotency_key, era_id, payload_json, pool_id=None
    ) -> None:
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        _require_text("idempotency_key", idempotency_key)
        era = _require_era_id(era_id)
        _require_payload_json(payload_json)
        _optional_text("pool_id", pool_id)
        now = time.time()
        with self._transaction() as conn:
            conn.execute(
                "INSERT INTO submission_attempts (idempotency_key, eval_id, eval_type, era_id,"
                " pool_id, payload_json, attempt_count, first_started_at, last_started_at)"
                " VALUES (?, ?, ?, ?, ?, ?, 1, ?, ?)"
                " ON CONFLICT(idempotency_key) DO UPDATE SET"
                " attempt_count=submission_attempts.attempt_count+1, last_started_at=excluded.last_started_at,"
                " payload_json=excluded.payload_json",
                (idempotency_key, eval_id, submission_type, era, pool_id, payload_json, now, now),
            )

    def get_submission_attempts(self, eval_id) -> list[dict]:
        with self._lock:
            cur = self._require_conn().execute(
                "SELECT idempotency_key, eval_type, era_id, pool_id, attempt_count, payload_json"
                " FROM submission_attempts WHERE eval_id=? ORDER BY attempt_id",
                (eval_id,),
            )
            keys = [d[0] for d in cur.description]
            return [dict(zip(keys, row)) for row in cur.fetchall()]

    def record_submission(
        self,
        eval_id,
        submission_type,
        submission_id,
        era_id,
        sim_id=None,
        pool_id=None,
        signal_pool_id=None,
    ) -> bool:
        """Store a receipt as a pending status row and mark the evaluation submitted.

        A receipt already stored under ``submission_id`` is not stored again;
        returns whether a row was inserted.
        """
        _require_text("eval_id", eval_id)
        _require_submission_type(submission_type)
        _require_text("submission_id", submission_id)
        era = _require_era_id(era_id)
        _optional_text("sim_id", sim_id)
        _optional_text("pool_id", pool_id)
        _optional_text("signal_pool_id", signal_pool_id)
        sim_id = sim_id or _synthetic_submission_sim_id(eval_id, submission_type)
        with self._transaction() as conn:
            exists = conn.execute(
                "SELECT 1 FROM submission_status WHERE submission_id=? LIMIT 1", (submission_id,)
            ).fetchone()
            if exists:
                return False
            _ensure_submission_sim_parent(conn, sim_id, era)
            conn.execute(
                "INSERT INTO submission_status (eval_id, eval_type, pool_id, signal_pool_id,"
                " submission_id, sim_id, era_id, status, submitted_at)"
                " VALUES (?, ?, ?, ?, ?, ?, ?, 'pending', ?)",
                (eval_id, submission_type, pool_id, signal_pool_id, submission_id, sim_id, era,
                 time.time()),
            )
            conn.execute(
                f"UPDATE {EVAL_TABLES[submission_type]} SET submitted=1 WHERE eval_id=?", (eval_id,)
            )
            return True

    def update_submission_status(
        self,
        submission_id,
        status,
        rejection_reason=None,
        is_stats_json=None,
        payment_json=None,
        payment=None,
        signal_pool_id=None,
        is_correlation=None,
        is_pnl_mi=None,
        agent_is_pnl_mi=None,
        is_weights_mi=None,
        failure_reason=None,
        failure_detail=None,
    ) -> int:
        """Write a polled status; a terminal status also sets ``finalized_at`` once.

        Fields given as None keep their stored value. Returns the number of rows
        written (0 when no submission has this id).
        """
        _require_text("submission_id", submission_id)
        _require_text("status", status)
        _optional_text("is_stats_json", is_stats_json)
        _optional_text("payment_json", payment_json)
        now = time.time()
        finalized = now if status in TERMINAL_STATUSES else None
        loose = self._store.loose
        with self._transaction() as conn:
            cur = conn.execute(
                "UPDATE submission_status SET status=?, updated_at=?,"
                " finalized_at=COALESCE(finalized_at, ?),"
                " rejection_reason=COALESCE(?, rejection_reason),"
                " is_stats_json=COALESCE(?, is_stats_json),"
                " payment_json=COALESCE(?, payment_json),"
                " payment=COALESCE(?, payment),"
                " signal_pool_id=COALESCE(?, signal_pool_id),"
                " is_correlation=COALESCE(?, is_correlation),"
                " is_pnl_mi=COALESCE(?, is_pnl_mi),"
                " agent_is_pnl_mi=COALESCE(?, agent_is_pnl_mi),"
                " is_weights_mi=COALESCE(?, is_weights_mi),"
                " failure_reason=COALESCE(?, failure_reason),"
                " failure_detail=COALESCE(?, failure_detail)"
                " WHERE submission_id=?",
                (
                    status, now, finalized, _scalar_or_json(rejection_reason), is_stats_json,
                    payment_json, loose(_scalar_or_json(payment)), _scalar_or_json(signal_pool_id),
                    loose(_scalar_or_json(is_correlation)), loose(_scalar_or_json(is_pnl_mi)),
                    loose(_scalar_or_json(agent_is_pnl_mi)), loose(_scalar_or_json(is_weights_mi)),
                    _scalar_or_json(failure_reason), _scalar_or_json(failure_detail),
                    submission_id,
                ),
            )
            return cur.rowcount

    def get_submission_status(self, submission_id) -> dict | None:
        with self._lock:
            cur = self._require_conn().execute(
                "SELECT * FROM submission_status WHERE submission_id=? ORDER BY status_id DESC LIMIT 1",
                (submission_id,),
            )
            row = cur.fetchone()
            if row is None:
                return None
            return dict(zip([d[0] for d in cur.description], row))

    def get_pending_submissions(self) -> list[PendingSubmission]:
        with self._lock:
            rows = self._require_conn().execute(
                "SELECT submission_id, eval_type, eval_id, era_id, sim_id, status, submitted_at"
                " FROM submission_status WHERE finalized_at IS NULL AND submission_id IS NOT NULL"
                " ORDER BY submitted_at, status_id"
            ).fetchall()
        return [PendingSubmission(*row) for row in rows]

    # -- management -------------------------------------------------------

    # Evaluations still referenced by live submission work are never deleted.
    _IN_USE = (
        " AND eval_id NOT IN (SELECT eval_id FROM submission_queue WHERE eval_id IS NOT NULL)"
        " AND eval_id NOT IN (SELECT eval_id FROM submission_retry WHERE eval_id IS NOT NULL)"
        " AND eval_id NOT IN (SELECT eval_id FROM submission_status"
        " WHERE finalized_at IS NULL AND eval_id IS NOT NULL)"
    )

    def _eval_tables(self, eval_type) -> list[str]:
        kind = _optional_eval_type(eval_type)
        return list(EVAL_TABLES.values()) if kind is None else [EVAL_TABLES[kind]]

    def delete_evaluations(self, eval_type=None, keep_last=50000) -> int:
        """Keep the newest ``keep_last`` evaluations per type; return how many were deleted."""
        tables = self._eval_tables(eval_type)
        if isinstance(keep_last, bool) or not isinstance(keep_last, int):
            raise TypeError(f"keep_last must be an int, got {type(keep_last).__name__}")
        if keep_last < 0:
            raise ValueError("keep_last must be >= 0")
        deleted = 0
        with self._transaction() as conn:
            for table in tables:
                cur = conn.execute(
                    f"DELETE FROM {table} WHERE eval_id NOT IN (SELECT eval_id FROM {table}"
                    " ORDER BY created_at DESC, eval_id DESC LIMIT ?)" + self._IN_USE,
                    (keep_last,),
                )
                deleted += cur.rowcount
        return deleted

    def delete_failed_evaluations(self, eval_type=None) -> int:
        """Delete evaluations that did not pass; return how many were deleted."""
        tables = self._eval_tables(eval_type)
        deleted = 0
        with self._transaction() as conn:
            for table in tables:
                cur = conn.execute(f"DELETE FROM {table} WHERE passed=0" + self._IN_USE)
                deleted += cur.rowcount
        return deleted

    def get_db_info(self) -> dict:
        with self._lock:
            conn = self._require_conn()
            counts = {
                table: int(conn.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0])
                for table in REPORTED_TABLES
            }
            passed = int(
                conn.execute("SELECT COUNT(*) FROM signal_evaluations WHERE passed=1").fetchone()[0]
            )
            open_submissions = int(
                conn.execute(
                    "SELECT COUNT(*) FROM submission_status WHERE finalized_at IS NULL"
                ).fetchone()[0]
            )
            sizes = self._store.size_info(conn)
        return {
            **sizes,
            "row_counts": counts,
            "passed_signal_evaluations": passed,
            "open_submissions": open_submissions,
        }
