"""Benchmarks of the search spine.

1. SearchContext.evaluate() throughput with a trivial evaluator and the real
   SQLite tracker, and the share of that time spent in the module itself
   (everything that is not the evaluator or the tracker).
2. search() start-up and stop() times with 2 workers on the local runtime.

Run: python bench/bench_search.py
"""

from __future__ import annotations

import tempfile
import threading
import time
import types

import tarnwicket.search_templates as st
from meter import Meter
from tarnwicket.local.runtime import prepare_local_runtime
from tarnwicket.search_tracking import BacktestStats, SearchTracker


class TrivialEvaluator:
    def __init__(self, passing_every=50):
        self.n = 0
        self.passing_every = passing_every

    def init_reconstruction(self, **kw):
        pass

    def evaluate_expression(self, graph):
        return None

    def run_backtest(self, graph):
        self.n += 1
        ok = self.n % self.passing_every == 0
        return BacktestStats(passed=ok, sharpe=2.0 if ok else 0.1, fitness=1.0, returns=0.1, drawdown=0.05,
                             turnover=0.2, margin=0.001, long_count=20, short_count=20, delta_exposure=0.0,
                             max_weight=0.05, correlation=0.1, factor_pnl=[0.1, 0.2], per_column_stats={},
                             is_pnl_mi=0.3)


def era():
    return types.SimpleNamespace(
        era_id=1, transform_pipeline=[], max_depth=4, max_expression_generation_seconds=5.0,
        thresholds={"turnover_max": 1.0, "delta_exposure_max": 1.0, "max_weight_max": 1.0, "correlation_max": 0.9},
        signal_pools=[{"signal_pool_id": "p"}], column_threshold_rules=[])


def bench_evaluate(n=20000):
    d = tempfile.mkdtemp()
    tracker = SearchTracker(d)
    timed_tracker = Meter(tracker, ["record_signal_evaluation", "enqueue_submission"])
    evaluator = TrivialEvaluator()
    bt = Meter(evaluator, ["evaluate_expression", "run_backtest"])
    ctx = st.SearchContext({"functions": [], "features": []}, "universe_top50", {"a": "b"}, 4, tracker,
                           None, evaluator, era_config=era(), submission_owner="bench")
    graph = {"type": "rotation", "node": "rank", "children": [{"type": "feature", "node": "close"}]}
    for _ in range(200):
        ctx.evaluate(graph)
    bt.spent = timed_tracker.spent = 0.0
    t0 = time.perf_counter()
    for _ in range(n):
        ctx.evaluate(graph)
    total = time.perf_counter() - t0
    outside = bt.spent + timed_tracker.spent
    print(f"evaluate(): {n / total:,.0f} evaluations/s over {n} calls "
          f"({total / n * 1e6:.1f} us each; evaluator {bt.spent / n * 1e6:.1f} us, "
          f"tracker {timed_tracker.spent / n * 1e6:.1f} us, module {(total - outside) / n * 1e6:.1f} us "
          f"= {(total - outside) / total:.1%} of the time)")
    tracker.close()


def bench_start_stop(rounds=5):
    # The local runtime, as the main job runs it: submissions reach the
    # loopback signal service, so stop() waits for a live submission thread.
    runtime = prepare_local_runtime(tempfile.mkdtemp(), seed=0)
    template = st.random_weighted

    starts, stops = [], []
    for _ in range(rounds):
        t0 = time.perf_counter()
        h = st.search(template, n_jobs=2)
        starts.append(time.perf_counter() - t0)
        time.sleep(0.2)
        t0 = time.perf_counter()
        h.stop()
        stops.append(time.perf_counter() - t0)
    assert not [t for t in threading.enumerate() if t.name.startswith("worker_")]
    print(f"search() start with 2 workers: median {sorted(starts)[rounds // 2] * 1e3:.1f} ms; "
          f"stop(): median {sorted(stops)[rounds // 2] * 1e3:.1f} ms")
    runtime.close()


if __name__ == "__main__":
    bench_evaluate()
    bench_start_stop()
