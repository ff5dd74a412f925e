"""What a search found: the passing signals of a store with their metrics and
where each stands with the signal service.

The metrics of a pass travel in its submission payload (``is_stats``), which
the store keeps in the queue or retry row while the signal waits and in the
submission attempt once it was sent; the verdict comes from the status row.
Reads only; safe beside a running search.
"""

from __future__ import annotations

import csv
import io
import json
import math
from dataclasses import asdict, dataclass, field

from .summary import ACCEPTED, REJECTED, expression_text, load_graph

METRICS = ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "long_count", "short_count",
           "delta_exposure", "max_weight")
STATUSES = ("queued", "retrying", "sent", "accepted", "rejected", "not_queued")
SORTS = ("newest", "oldest", *METRICS)

# One row per passing signal evaluation; the payload is the newest the store holds for it.
_SQL = """
SELECT e.eval_id, e.era_id, e.created_at, e.graph_json,
       q.payload_json, r.payload_json, r.retry_count, r.last_rejection_reason,
       (SELECT a.payload_json FROM submission_attempts a WHERE a.eval_id = e.eval_id
         ORDER BY a.last_started_at DESC LIMIT 1),
       s.submission_id, s.status, s.finalized_at, s.rejection_reason, s.failure_reason
FROM signal_evaluations e
LEFT JOIN submission_queue q ON q.eval_id = e.eval_id
LEFT JOIN submission_retry r ON r.eval_id = e.eval_id
LEFT JOIN submission_status s ON s.eval_id = e.eval_id
WHERE e.passed = 1
"""


@dataclass
class Result:
    eval_id: str
    era_id: int
    created_at: float
    expression: str
    status: str
    reason: str | None = None
    submission_id: str | None = None
    metrics: dict = field(default_factory=dict)
    graph_json: str = field(default="", repr=False)     # the stored graph, for recomputing

    def as_dict(self) -> dict:
        out = asdict(self)
        del out["graph_json"]
        return out


def _status(queue_json, retry_json, retry_count, retry_reason, status, finalized_at, rejection, failure):
    """(status, reason) of one signal."""
    if status is not None:
        if status in ACCEPTED:
            return "accepted", None
        if status in REJECTED or finalized_at is not None:
            return "rejected", rejection or failure or status
        return "sent", None      # and in review
    if retry_json is not None:
        return "retrying", f"{retry_reason} (rejections {retry_count})" if retry_reason else None
    if queue_json is not None:
        return "queued", None
    return "not_queued", None


def _metrics(*payload_texts) -> dict:
    for text in payload_texts:
        if not text:
            continue
        try:
            stats = json.loads(text).get("is_stats")
        except (TypeError, ValueError, AttributeError):
            continue
        if isinstance(stats, dict):
            return {name: _real(stats.get(name)) for name in METRICS}
    return {name: None for name in METRICS}


def _real(value):
    """A metric as a number, or None: a store shared with other programs may hold anything."""
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return None
    return None if isinstance(value, float) and math.isnan(value) else value


def read_results(conn, *, status: str | None = None, era: int | None = None, sort: str = "newest",
                 top: int | None = None) -> list[Result]:
    """The passing signals of the store behind ``conn``, filtered, sorted and cut to ``top``."""
    if status is not None and status not in STATUSES:
        raise ValueError(f"unknown status {status!r}: choose from {', '.join(STATUSES)}")
    if sort not in SORTS:
        raise ValueError(f"unknown sort {sort!r}: choose from {', '.join(SORTS)}")
    results = []
    for (eval_id, era_id, created_at, graph_json, queue_json, retry_json, retry_count, retry_reason,
         attempt_json, submission_id, st, finalized_at, rejection, failure) in conn.execute(_SQL).fetchall():
        if era is not None and era_id != era:
            continue
        kind, reason = _status(queue_json, retry_json, retry_count, retry_reason, st, finalized_at,
                               rejection, failure)
        if status is not None and kind != status:
            continue
        try:
            expression = expression_text(load_graph(graph_json))
        except ValueError:
            expression = "(unreadable graph)"
        results.append(Result(eval_id, era_id, created_at, expression, kind, reason, submission_id,
                              _metrics(queue_json, retry_json, attempt_json), graph_json))
    if sort in ("newest", "oldest"):
        results.sort(key=lambda r: (r.created_at, r.eval_id), reverse=sort == "newest")
    else:   # best first; a signal without the metric goes last
        results.sort(key=lambda r: (r.metrics.get(sort) is None, -(r.metrics.get(sort) or 0.0), r.eval_id))
    return results if top is None else results[:top]


def _number(value) -> str:
    if value is None:
        return "-"
    if isinstance(value, int) or (isinstance(value, float) and value.is_integer() and abs(value) >= 10):
        return f"{int(value)}"
    return f"{value:.3f}" if abs(value) < 1000 else f"{value:.0f}"


def as_table(results: list[Result]) -> str:
    head = ["era", "status", *("long" if m == "long_count" else "short" if m == "short_count" else
                               "delta" if m == "delta_exposure" else "max_w" if m == "max_weight" else m
                               for m in METRICS), "expression"]
    rows = [[str(r.era_id), r.status + (f": {r.reason}" if r.reason else ""),
             *(_number(r.metrics.get(m)) for m in METRICS), r.expression] for r in results]
    widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head) - 1)]
    lines = []
    for row in [head, *rows]:
        cells = [c.rjust(w) if 1 < i < len(head) - 1 else c.ljust(w) for i, (c, w) in enumerate(zip(row, widths))]
        lines.append("  ".join(cells + [row[-1]]).rstrip())
    return "\n".join(lines)


def as_json(results: list[Result]) -> str:
    """Strict JSON: an infinite metric is null, as JSON has no number for it."""
    rows = [r.as_dict() for r in results]
    for row in rows:
        row["metrics"] = {m: None if isinstance(v, float) and math.isinf(v) else v
                          for m, v in row["metrics"].items()}
    return json.dumps(rows, indent=2, allow_nan=False)


def as_csv(results: list[Result]) -> str:
    out = io.StringIO()
    writer = csv.writer(out, lineterminator="\n")
    writer.writerow(["eval_id", "era_id", "created_at", "status", "reason", "submission_id", *METRICS, "expression"])
    for r in results:
        writer.writerow([r.eval_id, r.era_id, f"{r.created_at:.3f}", r.status, r.reason or "", r.submission_id or "",
                         *("" if r.metrics.get(m) is None else r.metrics[m] for m in METRICS), r.expression])
    return out.getvalue()
