"""``python -m tarnwicket report``: one self-contained HTML page, with its PNG pictures beside it,
of what the searches of a data directory did and found.

Pictures: evaluations and passes over time; submissions sent, accepted and
rejected over time; why evaluations failed and why the service refused; and
for the best signals, cumulative P&L and daily turnover recomputed on the
local market data. Needs matplotlib (``pip install 'tarnwicket[report]'``).
"""

from __future__ import annotations

import base64
import collections
import datetime as dt
import html
import os
import textwrap

import numpy as np

from .results import read_results
from .summary import ACCEPTED, REJECTED, load_graph

PICTURES = ("activity.png", "submissions.png", "reasons.png", "best_signals.png")


def _pyplot():
    try:
        import matplotlib
    except ModuleNotFoundError as exc:
        raise RuntimeError("the report draws with matplotlib: pip install 'tarnwicket[report]'") from exc
    matplotlib.use("Agg", force=True)
    import matplotlib.pyplot as plt

    return plt


def _times(values) -> list:
    return [dt.datetime.fromtimestamp(v) for v in values]


def _cumulative(ax, stamps, label, **kw) -> None:
    stamps = sorted(s for s in stamps if s is not None)
    if stamps:
        ax.step(_times(stamps), np.arange(1, len(stamps) + 1), where="post", label=f"{label} ({len(stamps):,})", **kw)


def _finish(fig, ax, path, title, ylabel) -> None:
    ax.set_title(title)
    ax.set_ylabel(ylabel)
    if ax.get_legend_handles_labels()[0]:
        ax.legend(loc="upper left")
    else:
        ax.text(0.5, 0.5, "nothing yet", ha="center", va="center", transform=ax.transAxes)
    fig.autofmt_xdate()
    fig.tight_layout()
    fig.savefig(path, dpi=100)


def _activity(plt, conn, path) -> dict:
    rows = conn.execute("SELECT created_at, passed FROM signal_evaluations").fetchall()
    fig, ax = plt.subplots(figsize=(8, 4))
    _cumulative(ax, [t for t, _ in rows], "evaluated")
    _cumulative(ax, [t for t, p in rows if p], "passed")
    ax.set_yscale("symlog")
    _finish(fig, ax, path, "Evaluations and passes", "count (cumulative)")
    plt.close(fig)
    return {"evaluated": len(rows), "passed": sum(1 for _, p in rows if p)}


def _submissions(plt, conn, path) -> dict:
    rows = conn.execute("SELECT submitted_at, finalized_at, status FROM submission_status").fetchall()
    fig, ax = plt.subplots(figsize=(8, 4))
    _cumulative(ax, [s for s, _, _ in rows], "sent")
    _cumulative(ax, [f for _, f, st in rows if st in ACCEPTED], "accepted", color="tab:green")
    _cumulative(ax, [f for _, f, st in rows if st in REJECTED], "rejected", color="tab:red")
    _finish(fig, ax, path, "Submissions to the signal service", "count (cumulative)")
    plt.close(fig)
    return {"sent": len(rows), "accepted": sum(st in ACCEPTED for *_, st in rows),
            "rejected": sum(st in REJECTED for *_, st in rows)}


def _reasons(plt, conn, path) -> dict:
    failed = collections.Counter(r or "(none given)" for (r,) in conn.execute(
        "SELECT rejection_reason FROM signal_evaluations WHERE passed = 0").fetchall())
    refused = collections.Counter(r or s for r, s in conn.execute(
        "SELECT rejection_reason, status FROM submission_status WHERE finalized_at IS NOT NULL").fetchall()
        if s in REJECTED)
    fig, (left, right) = plt.subplots(1, 2, figsize=(11, 4))
    for ax, counts, title in ((left, failed, "Why evaluations failed"), (right, refused, "Why the service rejected")):
        top = counts.most_common(8)
        if top:
            ax.barh(["\n".join(textwrap.wrap(name, 30)) for name, _ in reversed(top)], [n for _, n in reversed(top)])
        else:
            ax.text(0.5, 0.5, "none", ha="center", va="center", transform=ax.transAxes)
        ax.set_title(title)
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)
    return {"failed": dict(failed.most_common(8)), "refused": dict(refused.most_common(8))}


def signal_series(evaluator, graph) -> tuple[np.ndarray, np.ndarray, np.ndarray]:
    """(dates, cumulative P&L, daily turnover) of ``graph`` on the evaluator's market data,
    the same book as its backtest."""
    from .backtest import run_core, signal_weights

    data = evaluator._data()
    signal = evaluator.evaluate_expression(graph)
    core = run_core(signal, data.market, evaluator.settings)
    weights = signal_weights(signal, data.market, evaluator.settings)
    turnover = np.abs(np.diff(weights, axis=0)).sum(axis=1)
    first = int(np.argmax(np.abs(weights).sum(axis=1) > 0.0))
    turnover[:first] = np.nan      # building the first book is not turnover
    dates = [dt.datetime.strptime(str(d), "%Y%m%d") for d in data.panel.dates[1:]]
    return np.array(dates), np.cumsum(core.pnl), turnover


_LEGEND_ENTRIES = 10     # the best ones are named; further lines are drawn unnamed


def _best(plt, results, evaluator, path) -> list:
    fig, (top, bottom) = plt.subplots(2, 1, figsize=(9, 6), sharex=True)
    shown = []
    for r in results:
        try:
            dates, pnl, turnover = signal_series(evaluator, load_graph(r.graph_json))
        except (ValueError, KeyError, OSError) as exc:      # a graph this data set can't evaluate
            shown.append((r, f"not recomputed: {exc}"))
            continue
        label = f"{r.expression[:50]} (fitness {r.metrics['fitness']:.2f})" if r.metrics.get("fitness") is not None \
            else r.expression[:50]
        drawn = sum(note is None for _, note in shown)
        top.plot(dates, pnl, label=label if drawn < _LEGEND_ENTRIES else None)
        bottom.plot(dates, turnover, linewidth=0.8)
        shown.append((r, None))
    top.set_title("Best signals on the local data: cumulative P&L (gross, per unit book)")
    top.set_ylabel("P&L")
    bottom.set_title("Daily turnover")
    bottom.set_ylabel("traded / book")
    if top.get_legend_handles_labels()[0]:
        top.legend(loc="upper left", fontsize=7)
    else:
        top.text(0.5, 0.5, "no passing signal yet", ha="center", va="center", transform=top.transAxes)
    fig.autofmt_xdate()
    fig.tight_layout()
    fig.savefig(path, dpi=100)
    plt.close(fig)
    return shown


def write_report(conn, data_dir: str, out_dir: str, *, best: int = 3, location: str = "") -> str:
    """Writes ``report.html`` and its pictures into ``out_dir``; returns the page's path."""
    from .evaluator import LocalEvaluator

    plt = _pyplot()
    os.makedirs(out_dir, exist_ok=True)
    paths = [os.path.join(out_dir, name) for name in PICTURES]
    activity = _activity(plt, conn, paths[0])
    sent = _submissions(plt, conn, paths[1])
    reasons = _reasons(plt, conn, paths[2])
    results = read_results(conn, sort="fitness", top=best)
    shown = _best(plt, results, LocalEvaluator(data_dir), paths[3])

    def image(i, alt):      # embedded, so that the page alone can be mailed or moved
        with open(paths[i], "rb") as fh:
            data = base64.b64encode(fh.read()).decode("ascii")
        return f'<img src="data:image/png;base64,{data}" alt="{alt}" title="{PICTURES[i]}">'

    def table(rows):
        return "<table>" + "".join("<tr>" + "".join(f"<td>{html.escape(str(c))}</td>" for c in row) + "</tr>"
                                   for row in rows) + "</table>"

    best_rows = [("expression", "era", "status", "sharpe", "fitness", "turnover", "note")] + [
        (r.expression, r.era_id, r.status + (f": {r.reason}" if r.reason else ""),
         *(f"{r.metrics[m]:.3f}" if r.metrics.get(m) is not None else "-" for m in ("sharpe", "fitness", "turnover")),
         note or "") for r, note in shown]
    page = f"""<!doctype html>
<html><head><meta charset="utf-8"><title>tarnwicket report</title>
<style>body{{font-family:sans-serif;max-width:1000px;margin:2em auto}}img{{max-width:100%}}
td{{padding:2px 8px;border-bottom:1px solid #ddd}}</style></head><body>
<h1>Search report</h1>
<p>Store: {html.escape(location)}; written {dt.datetime.now():%Y-%m-%d %H:%M}.</p>
<p>{activity['evaluated']:,} evaluations, {activity['passed']:,} passed every rule;
{sent['sent']:,} sent to the signal service, {sent['accepted']:,} accepted, {sent['rejected']:,} rejected.</p>
<h2>Evaluations and passes</h2>{image(0, "evaluations and passes over time")}
<h2>Submissions</h2>{image(1, "submissions over time")}
<h2>Reasons</h2>{image(2, "rejection reasons")}
<h2>Best signals</h2>{table(best_rows)}
{image(3, "cumulative P&amp;L and turnover of the best signals")}
</body></html>
"""
    page_path = os.path.join(out_dir, "report.html")
    with open(page_path, "w", encoding="utf-8") as fh:
        fh.write(page)
    return page_path
