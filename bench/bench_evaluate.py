"""Cost of one `SearchContext.evaluate` of a passing three-node graph.

Not a test. The collaborators are as cheap as Python allows: a tracker whose
record and enqueue append to a list, an evaluation runtime that returns one
fixed passing stats object, a `queue.SimpleQueue` and a `threading.Event`.
Reports per call:

* the whole `evaluate`;
* the host calls it must make, timed on their own with the same arguments
  (evaluate_expression, run_backtest, the tracker's stats record, record and
  enqueue under the tracker's write lock, queue put, event set);
* the module's own time, the difference;
* the same steps written as plain Python (`plain_evaluate.py`), whole and own,
  for scale.

Run:  python bench/bench_evaluate.py [--calls N] [--repeat R]
"""
import argparse
import gc
import queue
import sys
import threading
import time
import types

import tarnwicket.search_templates as st
from bench_hot_memory import THRESHOLDS, Backtester, EraConfig
from plain_evaluate import PlainContext

GRAPH = {"type": "rotation", "node": "rank",
         "children": [{"type": "rotation", "node": "ts_mean",
                       "children": [{"type": "feature", "node": "close", "children": []}]}]}
VOCAB = {"functions": [{"name": "ts_mean"}, {"name": "rank"}], "features": [{"name": "close"}]}
CHUNK = 1000  # records kept between clears: the lists stay small


class ListTracker:
    def __init__(self):
        self.records, self.enqueued = [], []

    def record_signal_evaluation(self, *args, **kwargs):
        self.records.append((args, kwargs))
        return "eval-1"

    def enqueue_submission(self, *args):
        self.enqueued.append(args)


def analytics_stub():
    mod = types.ModuleType("tarnwicket.search_analytics")

    class SearchAnalytics:
        def __init__(self, tracker, pool_configs):
            pass

        def get_search_stats(self):
            return None

    mod.SearchAnalytics = SearchAnalytics
    mod._resolve_pool_configs = lambda *, era_config: []
    return mod


def per_call(fn, calls, repeat):
    best = float("inf")
    for _ in range(repeat):
        t0 = time.perf_counter()
        fn(calls)
        best = min(best, time.perf_counter() - t0)
    return best / calls


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--calls", type=int, default=50_000)
    ap.add_argument("--repeat", type=int, default=7)
    args = ap.parse_args()

    sys.modules.setdefault("tarnwicket.search_analytics", analytics_stub())
    tracker, bt = ListTracker(), Backtester()
    q, wakeup = queue.SimpleQueue(), threading.Event()
    ctx = st.SearchContext(VOCAB, "universe_top50", {"seed": 7}, 4, tracker, None, bt, THRESHOLDS,
                           EraConfig(), submission_queue=q, submission_wakeup=wakeup)
    plain = PlainContext(ctx)
    for evaluate in (plain.evaluate, ctx.evaluate):
        tracker.records.clear()
        tracker.enqueued.clear()
        if evaluate(GRAPH) is None or not tracker.enqueued:
            raise SystemExit("the graph did not pass: the benchmark measures the passing path")
    # The host calls are timed with the very arguments the module passed.
    (record_args, record_kwargs), (payload,) = tracker.records[0], tracker.enqueued[0]
    era_id, passed, universe_id, metaparams = record_args[2:]
    pool_id = record_kwargs["pool_id"]

    def drain():
        tracker.records.clear()
        tracker.enqueued.clear()
        while not q.empty():
            q.get_nowait()

    def calls_of(evaluate):
        def run(n):
            for done in range(0, n, CHUNK):
                for _ in range(min(CHUNK, n - done)):
                    evaluate(GRAPH)
                drain()
        return run

    new_stats, lock = st._BacktestStats, ctx._tracker_write_lock

    def run_host(n):
        ev, rb = bt.evaluate_expression, bt.run_backtest
        rec, enq, put, wake = tracker.record_signal_evaluation, tracker.enqueue_submission, q.put, wakeup.set
        for done in range(0, n, CHUNK):
            for _ in range(min(CHUNK, n - done)):
                ev(GRAPH)
                rb(GRAPH)
                stats = new_stats()
                with lock:
                    rec(GRAPH, stats, era_id, passed, universe_id, metaparams,
                        pool_id=pool_id, rejection_reason=None, per_column_stats=None)
                with lock:
                    enq(payload)
                    put(payload.copy())
                    wake()
            drain()

    gc.disable()
    try:
        total = per_call(calls_of(ctx.evaluate), args.calls, args.repeat)
        host = per_call(run_host, args.calls, args.repeat)
        python = per_call(calls_of(plain.evaluate), args.calls, args.repeat)
    finally:
        gc.enable()
    print(f"evaluate, whole call:   {total * 1e6:7.2f} us")
    print(f"host calls it makes:    {host * 1e6:7.2f} us")
    print(f"module's own time:      {(total - host) * 1e6:7.2f} us")
    print(f"plain Python, whole:    {python * 1e6:7.2f} us")
    print(f"plain Python, own time: {(python - host) * 1e6:7.2f} us")


if __name__ == "__main__":
    main()
