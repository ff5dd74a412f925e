"""Memory of a process that calls the module's hot functions many times.

Not a test. Each hot function is called N times (default 100,000) in a loop;
the resident set size is read before the loop, after a warm-up of 1,000 calls,
and at the end. A function that leaks shows growth proportional to N; a flat
one shows a few kilobytes at most (allocator noise).

Run:  python bench/bench_hot_memory.py [--calls N]
"""
import argparse
import gc
import math
import os
import threading
import types

import tarnwicket.search_templates as st


def rss_kib():
    with open("/proc/self/statm") as f:
        pages = int(f.read().split()[1])
    return pages * os.sysconf("SC_PAGE_SIZE") // 1024


VOCAB = {
    "functions": [{"name": f"rot_{i}", "function_type": "rotation",
                   "param_schema": [{"name": "x", "type": "data"}, {"name": "w", "type": "int", "min": 2, "max": 20}],
                   "stateful": i % 2 == 0, "arity": 1} for i in range(30)],
    "features": [{"name": f"feature_{j}"} for j in range(40)],
}
METRICS = dict(sharpe=1.5, fitness=1.2, returns=0.1, drawdown=0.05, turnover=0.3, margin=0.002,
               long_count=25, short_count=24, delta_exposure=0.01, max_weight=0.05)
THRESHOLDS = dict(turnover_max=0.7, delta_exposure_max=0.1, max_weight_max=0.1, correlation_max=0.5)


class Tracker:
    """Records nothing: the benchmark measures the module, not a store."""

    def record_signal_evaluation(self, *args, **kwargs):
        return "eval-1"

    def enqueue_submission(self, *args):
        pass


class Backtester:
    def __init__(self):
        self.stats = types.SimpleNamespace(**METRICS, passed=True, correlation=None, weight_quality_metrics={},
                                           liquidity_metrics={}, custom_stats={}, factor_pnl=[0.1, -0.2],
                                           per_column_stats={"c": {}}, is_pnl_mi=0.25)

    def evaluate_expression(self, graph):
        pass

    def run_backtest(self, graph):
        return self.stats


class EraConfig:
    era_id = 3
    thresholds = THRESHOLDS
    max_expression_generation_seconds = 5.0
    signal_pools = [{"signal_pool_id": "pool-a"}]
    column_threshold_rules = []


def make_context():
    return st.SearchContext(vocab=VOCAB, universe="universe_top50", metaparams={"seed": 7}, depth=4,
                            tracker=Tracker(), sync_mgr=None, bt=Backtester(), era_config=EraConfig(),
                            thresholds=THRESHOLDS, tracker_write_lock=threading.RLock())


def hot_functions():
    gen_ctx = types.SimpleNamespace(vocabulary=VOCAB, max_depth=4, analytics=None, era_config=None)
    graphs = st.random_weighted(gen_ctx)
    ctx = make_context()
    graph = next(graphs)
    items, cum = list(range(50)), [float(i + 1) for i in range(50)]
    payload = {"expression": "rank(close)", "metrics": METRICS, "signal_pool_id": "pool-a",
               "values": [1.0, 2.5, [3, {"x": math.pi}]]}
    nested = {"a": [1.0, 2.0, {"b": (3.0, 4.0)}], "c": "text"}
    sandbox = st._template_sandbox

    def sandbox_enter_exit():
        with sandbox():
            pass

    return [
        ("random_weighted: next graph", lambda: next(graphs)),
        ("SearchContext.evaluate", lambda: ctx.evaluate(graph)),
        ("_weighted_choice", lambda: st._weighted_choice(items, cum)),
        ("_normalize_template_vocabulary", lambda: st._normalize_template_vocabulary(VOCAB)),
        ("_has_non_finite_number", lambda: st._has_non_finite_number(nested)),
        ("_serialize_submission_payload", lambda: st._serialize_submission_payload(payload)),
        ("_template_sandbox enter/exit", sandbox_enter_exit),
    ]


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--calls", type=int, default=100_000)
    args = parser.parse_args()
    print(f"{'function':34} {'start KiB':>10} {'warm KiB':>10} {'end KiB':>10} {'growth after warm-up':>22}")
    for name, fn in hot_functions():
        gc.collect()
        start = rss_kib()
        for _ in range(1000):
            fn()
        gc.collect()
        warm = rss_kib()
        for _ in range(args.calls - 1000):
            fn()
        gc.collect()
        end = rss_kib()
        print(f"{name:34} {start:>10} {warm:>10} {end:>10} {end - warm:>19} KiB")
    print(f"process peak RSS: {rss_kib()} KiB after {args.calls:,} calls of each")


if __name__ == "__main__":
    main()
