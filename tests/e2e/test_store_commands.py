"""`results` and `db` on a store left by a real search (and one that goes on beside them)."""

import csv
import html
import io
import json
import re
import sqlite3

import numpy as np
import pytest

from fakes.searches import finish, search
from tarnwicket.local import cli
from tarnwicket.local.results import METRICS, STATUSES
from tarnwicket.search_tracking import SearchTracker

FAULTS = "401=0.3,ban_seconds=1,seed=5"   # some signals wait to retry when the search ends


@pytest.fixture(scope="module")
def searched(prepared):
    """The module's data directory after a real search of several seconds with some refusals;
    `data_dir` gives each test a copy of it."""
    finish(search(prepared, 10, "--service-faults", FAULTS, jobs=2))
    return prepared


@pytest.fixture
def data_dir(searched, data_dir):
    return data_dir


def run(capsys, *argv):
    code = cli.main(list(argv))
    out, err = capsys.readouterr()
    return code, out, err


def store_rows(data_dir, sql):
    conn = sqlite3.connect(f"file:{data_dir / 'search_tracking.db'}?mode=ro", uri=True)
    try:
        return conn.execute(sql).fetchall()
    finally:
        conn.close()


def test_results_list_every_pass_with_its_metrics_and_state(searched, capsys):
    passed = {e for (e,) in store_rows(searched, "SELECT eval_id FROM signal_evaluations WHERE passed=1")}
    code, out, _ = run(capsys, "results", "--data-dir", str(searched), "--json")
    assert code == 0
    rows = json.loads(out)
    assert {r["eval_id"] for r in rows} == passed and len(rows) == len(passed) >= 3
    assert {r["status"] for r in rows} <= set(STATUSES) and len({r["status"] for r in rows}) >= 2
    assert all(set(r["metrics"]) == set(METRICS) for r in rows)
    assert all(isinstance(r["metrics"]["sharpe"], float) for r in rows if r["status"] != "not_queued")
    assert [r["created_at"] for r in rows] == sorted((r["created_at"] for r in rows), reverse=True)
    sent = {s for (s,) in store_rows(searched, "SELECT submission_id FROM submission_status")}
    assert {r["submission_id"] for r in rows if r["submission_id"]} == sent
    retrying = [r for r in rows if r["status"] == "retrying"]
    # A row waits to retry only after a 401; its reason is the service's text for it.
    assert all(r["reason"].startswith("invalid or missing token") for r in retrying), retrying

    code, out, _ = run(capsys, "results", "--data-dir", str(searched), "--csv", "--sort", "fitness", "--top", "3")
    table = list(csv.DictReader(io.StringIO(out)))
    assert len(table) == 3
    fitness = [float(r["fitness"]) for r in table]
    assert fitness == sorted(fitness, reverse=True)
    assert max(r["metrics"]["fitness"] or 0 for r in rows) == fitness[0]

    code, out, _ = run(capsys, "results", "--data-dir", str(searched), "--status", rows[0]["status"])
    lines = out.strip().splitlines()
    assert lines[0].split()[:3] == ["era", "status", "sharpe"]
    assert len(lines) - 1 == sum(r["status"] == rows[0]["status"] for r in rows)
    assert rows[0]["expression"] in out

    assert run(capsys, "results", "--data-dir", str(searched), "--era", "999")[1].startswith(
        "No passing signals of era 999 in ")


def test_results_refuse_what_they_cannot_read(tmp_path, capsys):
    code, _, err = run(capsys, "results", "--data-dir", str(tmp_path / "none"))
    assert code == cli.EXIT_USAGE and "no store" in err
    code, _, err = run(capsys, "results", "--status", "lost")
    assert code == cli.EXIT_USAGE and "invalid choice" in err
    code, _, err = run(capsys, "results", "--top", "0")
    assert code == cli.EXIT_USAGE and "--top: must be at least 1" in err


def test_results_of_metrics_that_are_no_numbers(data_dir, capsys):
    # a store shared with other programs may hold anything in a payload's metrics
    conn = sqlite3.connect(data_dir / "search_tracking.db")
    odd = [{"sharpe": "high", "fitness": [1]}, {"sharpe": float("nan"), "fitness": float("inf")}, {"sharpe": True}]
    with conn:
        for (rowid, text), stats in zip(conn.execute("SELECT rowid, payload_json FROM submission_attempts"), odd):
            payload = json.loads(text)
            payload["is_stats"].update(stats)
            conn.execute("UPDATE submission_attempts SET payload_json=? WHERE rowid=?", (json.dumps(payload), rowid))
    conn.close()
    for sort in ("sharpe", "fitness"):
        code, out, _ = run(capsys, "results", "--data-dir", str(data_dir), "--sort", sort)
        assert code == 0 and " inf " in out
    code, out, _ = run(capsys, "results", "--data-dir", str(data_dir), "--json", "--sort", "fitness")
    rows = json.loads(out, parse_constant=lambda name: pytest.fail(f"{name} is not JSON"))
    assert rows[0]["metrics"]["fitness"] is None  # the infinite one, first by fitness
    assert not any(isinstance(r["metrics"]["sharpe"], (str, bool)) for r in rows)


def test_results_and_report_of_graphs_too_deep_to_show(data_dir, capsys, tmp_path):
    def nested(depth):
        return '{"type": "rotation", "node": "abs", "children": [' * depth + '{"type": "feature", "node": "close"}' \
            + "]}" * depth
    conn = sqlite3.connect(data_dir / "search_tracking.db")
    with conn:
        ids = [e for (e,) in conn.execute("SELECT eval_id FROM signal_evaluations WHERE passed=1 LIMIT 2")]
        for eval_id, depth in zip(ids, (150, 5000)):  # the second is deeper than the JSON reader goes
            conn.execute("UPDATE signal_evaluations SET graph_json=?, fitness=99 WHERE eval_id=?",
                         (nested(depth), eval_id))
    conn.close()
    code, out, _ = run(capsys, "results", "--data-dir", str(data_dir))
    assert code == 0 and "abs(" * 100 + "...)" in out and "(unreadable graph)" in out
    code, _, err = run(capsys, "report", "--data-dir", str(data_dir), "--out", str(tmp_path / "r"), "--best", "50")
    assert code == 0, err


def test_a_damaged_store_url_file_is_one_line_for_every_command(data_dir, capsys):
    (data_dir / "store_url").write_text("mysql://db\n")
    for command in (["results"], ["report"], ["db", "info"], ["db", "trim"], ["check"]):
        code, _, err = run(capsys, *command, "--data-dir", str(data_dir))
        assert code == cli.EXIT_USAGE and err.count("\n") == 1, (command, err)
        assert "store_url: does not hold a store URL (unsupported store 'mysql://db'" in err
    assert (data_dir / "store_url").read_text() == "mysql://db\n"


def test_results_while_a_search_runs(data_dir, capsys):
    child = search(data_dir, 6, jobs=1)
    try:
        assert child.stdout.readline().startswith("Preparing")
        code, out, err = run(capsys, "results", "--data-dir", str(data_dir), "--csv")
        assert code == 0 and err == "" and out.startswith("eval_id,era_id")
    finally:
        finish(child)


def test_db_info_and_trims_keep_what_still_waits(data_dir, capsys):
    code, out, _ = run(capsys, "db", "info", "--data-dir", str(data_dir))
    (total,), = store_rows(data_dir, "SELECT COUNT(*) FROM signal_evaluations")
    assert code == 0 and re.search(rf"\n  signal_evaluations +{total:,}\n", out) and "Size:" in out

    (failed,), = store_rows(data_dir, "SELECT COUNT(*) FROM signal_evaluations WHERE passed=0")
    code, out, _ = run(capsys, "db", "trim-failed", "--data-dir", str(data_dir))
    assert code == 0 and f"Deleted {failed:,} evaluations" in out
    waiting = {e for (e,) in store_rows(data_dir, "SELECT eval_id FROM submission_queue UNION "
                                                  "SELECT eval_id FROM submission_retry UNION "
                                                  "SELECT eval_id FROM submission_status WHERE finalized_at IS NULL")}
    code, out, _ = run(capsys, "db", "trim", "--keep", "0", "--data-dir", str(data_dir))
    assert code == 0
    assert {e for (e,) in store_rows(data_dir, "SELECT eval_id FROM signal_evaluations")} == waiting


def test_db_trims_are_refused_while_the_store_says_a_search_runs(data_dir, capsys):
    with SearchTracker(str(data_dir)) as tracker:     # as a search on another machine would leave it
        tracker.set_search_active(True)
    code, _, err = run(capsys, "db", "trim-failed", "--data-dir", str(data_dir))
    assert code == cli.EXIT_FAILED and "a search is running on this store" in err and "--force" in err
    assert store_rows(data_dir, "SELECT COUNT(*) FROM signal_evaluations WHERE passed=0")[0][0] > 0
    assert run(capsys, "db", "info", "--data-dir", str(data_dir))[0] == 0      # looking is always allowed
    code, out, _ = run(capsys, "db", "trim-failed", "--force", "--data-dir", str(data_dir))
    assert code == 0 and store_rows(data_dir, "SELECT COUNT(*) FROM signal_evaluations WHERE passed=0") == [(0,)]


def test_report_pictures_and_the_best_signals_recomputed(searched, tmp_path, capsys):
    from tarnwicket.local.evaluator import LocalEvaluator
    from tarnwicket.local.report import PICTURES, signal_series

    out = tmp_path / "report"
    code, said, _ = run(capsys, "report", "--data-dir", str(searched), "--out", str(out), "--best", "2")
    assert code == 0 and str(out / "report.html") in said
    page = (out / "report.html").read_text()
    for name in PICTURES:
        assert (out / name).read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    assert page.count("data:image/png;base64,") == len(PICTURES)       # the page stands alone
    best = json.loads(run(capsys, "results", "--data-dir", str(searched), "--json", "--sort", "fitness",
                          "--top", "2")[1])
    for r in best:
        assert html.escape(r["expression"]) in page

    # The P&L drawn is the book the search judged: its Sharpe ratio is the one the signal was sent with.
    (graph_json,), = store_rows(searched, "SELECT graph_json FROM signal_evaluations WHERE eval_id='%s'"
                                % best[0]["eval_id"])
    _, cumulative, turnover = signal_series(LocalEvaluator(str(searched)), json.loads(graph_json))
    daily = np.diff(np.concatenate([[0.0], cumulative]))
    daily = daily[np.argmax(daily != 0.0):]
    assert daily.mean() / daily.std() * np.sqrt(252) == pytest.approx(best[0]["metrics"]["sharpe"], abs=1e-9)
    assert np.nanmean(turnover[1:]) == pytest.approx(best[0]["metrics"]["turnover"], rel=0.05)
