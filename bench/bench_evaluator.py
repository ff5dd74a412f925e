"""Evaluations per second of the local evaluator: the native kernels against
the NumPy reference, with 1 and 2 worker threads.

Graphs come from the built-in generator `random_weighted` over the local
vocabulary, at maximum depths 3 to 6, on the synthetic panel (50 instruments,
756 days). An evaluation is what a search does per graph: evaluate_expression,
then run_backtest. The memo caches are off, so every graph is computed in full.

Run: python bench/bench_evaluator.py [graphs-per-depth]
"""

from __future__ import annotations

import os

# As `python -m tarnwicket` does: worker threads, not the linear algebra
# library's own threads, use the cores.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import random
import sys
import threading
import time
import types

import tarnwicket.search_templates as st
from tarnwicket.local.era import LocalEraConfig
from tarnwicket.local.evaluator import LocalEvaluator
from tarnwicket.local.features import compute_features
from tarnwicket.local.market_data import UNIVERSE_ID, generate_panel
from tarnwicket.local.vocabulary import build_vocabulary

DEPTHS = (3, 4, 5, 6)
ENGINES = ("numpy", "native")


def generate(panel, depth: int, count: int) -> list[dict]:
    random.seed(depth)
    vocab = build_vocabulary(compute_features(panel), UNIVERSE_ID)
    era = types.SimpleNamespace(max_node_count=1000, buffer_duration_minutes=20160)
    ctx = types.SimpleNamespace(vocabulary=vocab, max_depth=depth, analytics=None, era_config=era)
    gen = st.random_weighted(ctx)
    return [next(gen) for _ in range(count)]


def rate(panel, engine: str, graphs: list[dict], workers: int) -> float:
    ev = LocalEvaluator.from_panel(panel, engine=engine, thresholds=LocalEraConfig().thresholds,
                                   signal_cache_size=1, backtest_cache_size=1)
    ev.run_backtest(graphs[0])                      # loads the panel and its arrays

    def work(chunk):
        for g in chunk:
            ev.evaluate_expression(g)
            ev.run_backtest(g)

    threads = [threading.Thread(target=work, args=(graphs[i::workers],)) for i in range(workers)]
    t0 = time.perf_counter()
    for t in threads:
        t.start()
    for t in threads:
        t.join()
    return len(graphs) / (time.perf_counter() - t0)


def main() -> None:
    count = int(sys.argv[1]) if len(sys.argv) > 1 else 400
    panel = generate_panel(0)
    print(f"{count} graphs per depth from random_weighted; evaluations per second")
    print(f"{'depth':>5}  {'numpy 1w':>9} {'numpy 2w':>9}  {'native 1w':>9} {'native 2w':>9}  "
          f"{'native/numpy':>12} {'2w/1w':>6}")
    totals = {(e, w): 0.0 for e in ENGINES for w in (1, 2)}
    for depth in DEPTHS:
        graphs = generate(panel, depth, count)
        r = {(e, w): rate(panel, e, graphs, w) for e in ENGINES for w in (1, 2)}
        for key, value in r.items():
            totals[key] += len(graphs) / value
        print(f"{depth:>5}  {r['numpy', 1]:9.0f} {r['numpy', 2]:9.0f}  {r['native', 1]:9.0f} "
              f"{r['native', 2]:9.0f}  {r['native', 1] / r['numpy', 1]:11.1f}x "
              f"{r['native', 2] / r['native', 1]:5.2f}x")
    n = count * len(DEPTHS)
    all_r = {key: n / spent for key, spent in totals.items()}
    print(f"{'all':>5}  {all_r['numpy', 1]:9.0f} {all_r['numpy', 2]:9.0f}  {all_r['native', 1]:9.0f} "
          f"{all_r['native', 2]:9.0f}  {all_r['native', 1] / all_r['numpy', 1]:11.1f}x "
          f"{all_r['native', 2] / all_r['native', 1]:5.2f}x")


if __name__ == "__main__":
    main()
