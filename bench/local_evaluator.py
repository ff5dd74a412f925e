"""Throughput of the local evaluator on one thread and on several.

Run: python bench/local_evaluator.py [n_graphs] [threads]
Each evaluation is evaluate_expression + run_backtest, as a search does.
"""

import sys
import threading
import time

from tarnwicket.local.era import LocalEraConfig
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.graph import compile_graph
from tarnwicket.local.market_data import generate_panel
from tarnwicket.local.sampling import random_graphs


def run(graphs, threads, fresh):
    ev = LocalEvaluator.from_panel(generate_panel(0), thresholds=LocalEraConfig().thresholds,
                                   **({"signal_cache_size": 1, "backtest_cache_size": 1} if fresh else {}))
    ev.run_backtest(graphs[0])
    chunks = [graphs[i::threads] for i in range(threads)]

    def work(chunk):
        for g in chunk:
            ev.evaluate_expression(g)
            ev.run_backtest(g)

    workers = [threading.Thread(target=work, args=(c,)) for c in chunks]
    t0 = time.perf_counter()
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    return len(graphs) / (time.perf_counter() - t0)


if __name__ == "__main__":
    n = int(sys.argv[1]) if len(sys.argv) > 1 else 2000
    threads = int(sys.argv[2]) if len(sys.argv) > 2 else 2
    graphs = random_graphs(n, seed=11)
    names = frozenset(g["node"] for g in graphs)
    print(f"{n} random graphs of depth 2-4")
    print(f"1 thread, memo caches on : {run(graphs, 1, False):8.0f} evaluations/s")
    print(f"1 thread, memo caches off: {run(graphs, 1, True):8.0f} evaluations/s")
    print(f"{threads} threads, caches on  : {run(graphs, threads, False):8.0f} evaluations/s")
