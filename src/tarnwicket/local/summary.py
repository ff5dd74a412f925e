"""What the command prints: expressions as text, progress lines and the summary."""

from __future__ import annotations

import json
import os
import sqlite3
from typing import Any, Iterable, NamedTuple

from tarnwicket.stores.sqlite import SqliteStore


_TEXT_DEPTH = 100   # deeper nodes print as "..."


def load_graph(text) -> Any:
    """The graph stored as JSON ``text``; ``ValueError`` for one that can't be read,
    also one nested deeper than the JSON reader goes."""
    try:
        return json.loads(text)
    except (TypeError, RecursionError) as exc:
        raise ValueError(f"unreadable graph: {exc}") from None


def expression_text(graph: Any, _depth: int = 0) -> str:
    """``rank(ts_mean(returns, 20), true)`` style text of a graph."""
    if _depth >= _TEXT_DEPTH:
        return "..."
    if not isinstance(graph, dict):
        return repr(graph)
    node = graph.get("node")
    kind = graph.get("type")
    if kind == "feature":
        return str(node)
    if kind in ("int", "float", "string"):
        return repr(node) if kind == "string" else str(node)
    if kind == "bool":
        return "true" if node else "false"
    args = ", ".join(expression_text(c, _depth + 1) for c in graph.get("children") or [])
    return f"{node}({args})"


class Counts(NamedTuple):
    found: int = 0      # evaluations of this run that passed
    queued: int = 0     # rows waiting in the submission queue
    sent: int = 0       # receipts of this run recorded in the store
    retrying: int = 0   # rows waiting in the retry table
    accepted: int = 0   # reviews that ended in this run with acceptance
    rejected: int = 0   # ... with a rejection
    in_review: int = 0  # sent submissions, of any run, whose review has not ended


def progress_line(evaluated: int, rate: float, counts: Counts, discarded: int, errors: int,
                  elapsed: float, limit: float) -> str:
    return (f"[{elapsed:5.0f}s/{limit:.0f}s] evaluated {evaluated:,}  {rate:,.0f}/s  "
            f"signals {counts.found:,}  queued {counts.queued:,}  sent {counts.sent:,}  "
            f"retrying {counts.retrying:,}  discarded {discarded:,}  accepted {counts.accepted:,}  "
            f"rejected {counts.rejected:,}  errors {errors}")


ACCEPTED = ("found", "useful")
REJECTED = ("is_rejected", "not_useful", "os_failed", "useful_transition_failed")
_COUNTS_SQL = (
    "SELECT (SELECT COUNT(*) FROM signal_evaluations WHERE passed=1 AND created_at>=?), "
    "(SELECT COUNT(*) FROM submission_queue), "
    "(SELECT COUNT(*) FROM submission_status WHERE submitted_at>=?), "
    "(SELECT COUNT(*) FROM submission_retry), "
    f"(SELECT COUNT(*) FROM submission_status WHERE finalized_at>=? AND status IN {ACCEPTED}), "
    f"(SELECT COUNT(*) FROM submission_status WHERE finalized_at>=? AND status IN {REJECTED}), "
    "(SELECT COUNT(*) FROM submission_status WHERE finalized_at IS NULL)")


def read_counts(conn, since: float) -> Counts:
    return Counts(*(int(n) for n in conn.execute(_COUNTS_SQL, (since,) * 4).fetchone()))


class LiveCounts:
    """The run's counts, read from the store while the search writes it."""

    def __init__(self, store, since: float):
        self.since = since
        self.conn = None
        if store is not None:
            try:
                self.conn = store.read_only()
            except sqlite3.Error:
                self.conn = None

    def read(self) -> Counts:
        if self.conn is None:
            return Counts()
        try:
            return read_counts(self.conn, self.since)
        except sqlite3.Error:          # busy or not yet created: the next look will tell
            return Counts()

    def close(self) -> None:
        if self.conn is not None:
            self.conn.close()


def submissions_line(store, since: float, server_url: str | None) -> str:
    """What the run sent to the signal service, and what is still waiting."""
    if store is None:
        return "No store was found, so nothing can be said about submissions."
    try:
        conn = store.read_only()
        try:
            counts = read_counts(conn, since)
        finally:
            conn.close()
    except sqlite3.Error as exc:
        return f"Submissions could not be counted: {exc}"
    plural = "" if counts.sent == 1 else "s"
    return (f"Sent {counts.sent:,} signal{plural} to the signal service at {server_url}; "
            f"{counts.queued:,} waiting in the queue, {counts.retrying:,} waiting to retry. "
            f"Reviews ended in this run: {counts.accepted:,} accepted, {counts.rejected:,} rejected; "
            f"{counts.in_review:,} still in review.")


def find_store(tracker: Any, data_dir: str):
    """The tracker's store, or else a SQLite file in the data directory (None if there is neither)."""
    store = getattr(tracker, "_store", None)
    if store is not None and store.exists():
        return store
    for name in sorted(os.listdir(data_dir)) if os.path.isdir(data_dir) else []:
        if name.endswith((".db", ".sqlite", ".sqlite3")):
            return SqliteStore(os.path.join(data_dir, name))
    return None


def stored_evaluations(store, since: float | None = None) -> dict:
    """Counts of evaluations in the store (in all, and recorded before ``since``), and the
    graphs of those that passed."""
    out: dict = {"total": None, "passed": None, "before": None, "passed_graphs": []}
    try:
        conn = store.read_only()
    except sqlite3.Error:
        return out
    try:
        cols = store.table_columns(conn, "signal_evaluations")
        if not cols:
            return out
        out["total"] = conn.execute("SELECT COUNT(*) FROM signal_evaluations").fetchone()[0]
        if since is not None and "created_at" in cols:
            out["before"] = conn.execute("SELECT COUNT(*) FROM signal_evaluations WHERE created_at < ?",
                                         (since,)).fetchone()[0]
        flag = next((c for c in ("passed_thresholds", "passed") if c in cols), None)
        if flag is not None:
            out["passed"] = conn.execute(
                f"SELECT COUNT(*) FROM signal_evaluations WHERE {flag} = 1").fetchone()[0]
            graph_col = next((c for c in ("graph_json", "expression", "graph", "expr_graph")
                              if c in cols), None)
            if graph_col is not None:
                rows = conn.execute(
                    f"SELECT {graph_col} FROM signal_evaluations WHERE {flag} = 1 "
                    "ORDER BY created_at DESC LIMIT 200").fetchall()
                for (text,) in rows:
                    try:
                        out["passed_graphs"].append(load_graph(text))
                    except ValueError:
                        pass
    except sqlite3.Error:
        pass
    finally:
        conn.close()
    return out


def summary_lines(passed: Iterable[dict], stored: dict, location: str | None,
                  evaluated: int, elapsed: float, top: int = 5, found: int | None = None) -> list[str]:
    """``evaluated`` and ``found`` (passes recorded in the store) are this run's; ``passed``
    the evaluator's records of this run's best signals."""
    passed = list(passed)
    found = len(passed) if found is None else found
    lines = [f"This run evaluated {evaluated:,} expressions in {elapsed:.0f}s; "
             f"{found:,} passed every rule."]
    if stored.get("before"):
        lines.append(f"It continued earlier searches on the same store, which held "
                     f"{stored['before']:,} evaluations before it.")
    if passed:
        lines.append("Best signals (by fitness):")
        for rec in passed[:top]:
            lines.append(f"  fitness {rec['fitness']:5.2f}  sharpe {rec['sharpe']:5.2f}  "
                         f"turnover {rec['turnover']:4.2f}  {expression_text(rec['graph'])}")
    elif stored.get("passed_graphs"):
        lines.append("Passed signals in the store (latest first):")
        for graph in stored["passed_graphs"][:top]:
            lines.append(f"  {expression_text(graph)}")
    if location:
        counts = ""
        if stored.get("total") is not None:
            counts = f" ({stored['total']:,} evaluations in all"
            counts += f", {stored['passed']:,} passed)" if stored.get("passed") is not None else ")"
        lines.append(f"Evaluations are stored in {location}{counts}.")
    return lines
