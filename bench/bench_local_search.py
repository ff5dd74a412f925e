"""Whole local search: evaluations per second with 1 and 2 workers, and where
the workers' time goes (evaluator, tracker store, and the module itself:
generator, evaluation logic, worker loop and sandbox).

Run: python bench/bench_local_search.py [seconds-per-run]
"""

from __future__ import annotations

import sys
import tempfile
import time

import tarnwicket.search_templates as st
from meter import Meter
from tarnwicket.local.runtime import prepare_local_runtime


def run(n_jobs, seconds, data_dir):
    runtime = prepare_local_runtime(data_dir, seed=0)
    evaluator = Meter(runtime.evaluator, ["evaluate_expression", "run_backtest"])
    store = Meter(runtime.search_tracker, ["record_signal_evaluation", "enqueue_submission"])
    h = st.search(st.random_weighted, n_jobs=n_jobs)
    start_count = h.status().total_evaluated
    t0 = time.perf_counter()
    time.sleep(seconds)
    done = h.status().total_evaluated - start_count
    wall = time.perf_counter() - t0
    h.stop()
    busy = wall * n_jobs
    module = max(busy - evaluator.spent - store.spent, 0.0)
    print(f"{n_jobs} worker(s): {done / wall:,.0f} evaluations/s over {wall:.0f} s; "
          f"worker time: evaluator {evaluator.spent / busy:.1%}, store {store.spent / busy:.1%}, "
          f"module and waiting for the interpreter lock {module / busy:.1%} "
          f"({module / max(done, 1) * 1e6:.0f} us per evaluation)")


def main():
    seconds = float(sys.argv[1]) if len(sys.argv) > 1 else 20.0
    data_dir = tempfile.mkdtemp()
    for n_jobs in (1, 2):
        run(n_jobs, seconds, data_dir)


if __name__ == "__main__":
    main()
