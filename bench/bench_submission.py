"""Receipts per second: a full submission queue drained by a search's submission
thread into the loopback signal service (its own process, its store fsynced),
without faults and with injected ones, beside this machine's fsync rate in the
same directory. Each receipt waits on several fsyncs (the service's commit, the
receipt journal's file and directory, the store's commits), so the ratio of the
two rates says how close the pipeline runs to the disk.

The no-fault run is made on each store: the data directory's SQLite file,
and a PostgreSQL server started on this machine for the run (durable
settings: fsync and synchronous commit on).

Run: python bench/bench_submission.py [rows]
"""

from __future__ import annotations

import os
import signal
import subprocess
import sys
import tempfile
import time
import types

import tarnwicket.agent_onboarding as onboarding
import tarnwicket.search_templates as st
from tarnwicket.local_signal_service import read_store
from tarnwicket.search_tracking import BacktestStats, SearchTracker

TOKEN = "bench-token"


class Passing:
    """Every evaluation passes, so that every graph becomes a queue row."""

    def init_reconstruction(self, **kw):
        pass

    def evaluate_expression(self, graph):
        return None

    def run_backtest(self, graph):
        return BacktestStats(passed=True, sharpe=2.0, fitness=1.0, returns=0.1, drawdown=0.05, turnover=0.2,
                             margin=0.001, long_count=20, short_count=20, delta_exposure=0.0, max_weight=0.05,
                             correlation=0.1, factor_pnl=[0.1, 0.2], per_column_stats={}, is_pnl_mi=0.3)


def era():
    return types.SimpleNamespace(
        era_id=1, transform_pipeline=[], max_depth=4, max_expression_generation_seconds=5.0,
        thresholds={"turnover_max": 1.0, "delta_exposure_max": 1.0, "max_weight_max": 1.0, "correlation_max": 0.9},
        signal_pools=[{"signal_pool_id": "p"}], column_threshold_rules=[])


def fill_queue(tracker, rows):
    ctx = st.SearchContext({"functions": [], "features": []}, "universe_top50", {"a": "b"}, 4, tracker,
                           None, Passing(), era_config=era(), submission_owner="filler")
    for i in range(rows):
        ctx.evaluate({"type": "rotation", "node": "ts_mean",
                      "children": [{"type": "feature", "node": "close"}, {"type": "int", "node": i + 2}]})


def count(store, table):
    conn = store.read_only(30)
    try:
        return conn.execute(f"SELECT COUNT(*) FROM {table}").fetchone()[0]
    finally:
        conn.close()


def start_service(db, faults):
    argv = [sys.executable, "-m", "tarnwicket.local_signal_service", "--db", db, "--token", TOKEN]
    if faults:
        argv += ["--faults", faults]
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, text=True)
    return proc, proc.stdout.readline().strip()


def drain(rows, faults, timeout, store_url=None):
    """Seconds to turn `rows` queue rows into receipts, and what the service holds."""
    d = tempfile.mkdtemp(prefix="bench-submission-")
    with open(os.path.join(d, "shuffle_seed.enc"), "wb") as fh:
        fh.write(b"\0" * 60)
    tracker = SearchTracker(d, store=store_url)
    fill_queue(tracker, rows)
    proc, url = start_service(os.path.join(d, "service.db"), faults)
    onboarding._config.update(data_dir=d, server_url=url)
    st._library_runtime = types.SimpleNamespace(
        auth_proxy=types.SimpleNamespace(get_token=lambda: TOKEN, wallet_secret=b"\0" * 32), sync_manager=None,
        valid_universe_id="universe_top50", vocabulary_raw={"functions": [], "features": []},
        search_tracker=tracker, search_era_config=era(), evaluator=Passing())
    path = tracker._store
    try:
        t0 = time.perf_counter()
        handle = st.search(lambda ctx: None, n_jobs=1)
        deadline = time.monotonic() + timeout
        while count(path, "submission_status") < rows and time.monotonic() < deadline:
            time.sleep(0.02)
        elapsed = time.perf_counter() - t0
        handle.stop()
        done = count(path, "submission_status")
    finally:
        proc.send_signal(signal.SIGTERM)
        proc.wait(10)
        tracker.close()
    return done, elapsed, read_store(os.path.join(d, "service.db")), d


def fsync_rate(directory, seconds=2.0):
    path = os.path.join(directory, "fsync-probe")
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)
    n = 0
    try:
        t0 = time.perf_counter()
        while time.perf_counter() - t0 < seconds:
            os.write(fd, b"x" * 512)
            os.fsync(fd)
            n += 1
        return n / (time.perf_counter() - t0)
    finally:
        os.close(fd)
        os.unlink(path)


def main(rows=500):
    from tarnwicket.stores.local_server import LocalPostgres

    server = LocalPostgres(tempfile.mkdtemp(prefix="bench-postgres-"), durable=True).start()
    try:
        done, elapsed, held, _ = drain(rows, None, timeout=300, store_url=server.new_schema_url("bench"))
    finally:
        server.stop()
    print(f"PostgreSQL store, no faults: {done}/{rows} receipts in {elapsed:.2f}s = {done / elapsed:,.1f} receipts/s; "
          f"service holds {held['submissions']}, repeats {held['repeats']}")
    runs = [("SQLite store, no faults", None, rows),
            ("refusals: 401 10%, 403 with ban_expiry 10%", "401=0.1,403=0.1,ban_seconds=0.2,seed=1", rows),
            ("network: drop 1%, 5xx 1% (each costs the specified 5 s backoff)", "drop=0.01,5xx=0.01,seed=1",
             rows // 5)]
    for label, faults, n in runs:
        done, elapsed, held, d = drain(n, faults, timeout=300)
        fsyncs = fsync_rate(d)
        rate = done / elapsed
        print(f"{label}: {done}/{n} receipts in {elapsed:.2f}s = {rate:,.1f} receipts/s; "
              f"fsync {fsyncs:,.0f}/s in the same directory, ratio {rate / fsyncs:.3f}; "
              f"service holds {held['submissions']}, repeats {held['repeats']}, "
              f"bodies held twice {held['bodies_held_twice']}")


if __name__ == "__main__":
    main(int(sys.argv[1]) if len(sys.argv) > 1 else 500)
