"""Throughput of the built-in generator `random_weighted`.

Not a test. Builds a large vocabulary (300 rotations with mixed parameter
schemas, 1000 features), a 10,000-row analytics snapshot, depth 6 and a node
budget that does not cap it, then reports per thread:

* set-up time (the first `next`: screening, budgets, analytics weights);
* graphs and nodes per second;
* generation time against `pickle.loads` of the same graphs, each pickled on
  its own with protocol 5; the cyclic GC is off during both timings.

Run:  python bench/bench_generator.py [--graphs N] [--repeat R] [--seed S]
"""
import argparse
import gc
import pickle
import random
import time
import types

import tarnwicket.search_templates as st

CONFIG_KINDS = [
    {"type": "int", "min": 2, "max": 250},
    {"type": "int"},  # takes the window budget on stateful rotations
    {"type": "float", "default": 0.5, "min": 0.0, "max": 1.0},
    {"type": "string", "choices": ["rank", "zscore", "raw"]},
    {"type": "bool", "default": True},
]


def build_vocabulary(rng, n_rotations=300, n_features=1000):
    functions = []
    for i in range(n_rotations):
        n_data = rng.choice([1, 1, 2, 2, 3])
        n_config = rng.choice([0, 1, 1, 2, 3])
        stateful = rng.random() < 0.4
        shape = rng.choice(["list", "map", "text"])
        params = [{"name": f"in{k}", "type": "data"} for k in range(n_data)]
        for k in range(n_config):
            kind = dict(rng.choice(CONFIG_KINDS if stateful else CONFIG_KINDS[:1] + CONFIG_KINDS[2:]))
            kind["name"] = f"p{k}"
            params.append(kind)
        if shape == "map":
            schema = {p["name"]: {k: v for k, v in p.items() if k != "name"} for p in params}
        elif shape == "text" and n_config == 0:
            schema = ["data"] * n_data
        else:
            schema = params
        functions.append({"name": f"rot_{i:03d}", "function_type": "rotation", "function_family": f"fam{i % 7}",
                          "function_subfamily": f"sub{i % 3}", "param_schema": schema, "stateful": stateful,
                          "arity": n_data})
    features = [{"name": f"feature_{j:04d}", "feature_family": f"ff{j % 11}", "feature_subfamily": ""}
                for j in range(n_features)]
    return {"functions": functions, "features": features}


def build_snapshot(rng, vocab, n_rows=10_000):
    fnames = [f["name"] for f in vocab["functions"]]
    tnames = [f["name"] for f in vocab["features"]]
    rows = []
    for i in range(n_rows):
        if i % 2:
            rows.append({"name": rng.choice(tnames if i % 4 == 1 else fnames),
                         "type": "feature" if i % 4 == 1 else "function",
                         "yield_rate": rng.uniform(-1.0, 1.5), "evaluation_count": rng.randint(0, 500)})
        else:
            window = types.SimpleNamespace(yield_rate=rng.uniform(-1.0, 1.5), evaluation_count=rng.randint(1, 500))
            rows.append(types.SimpleNamespace(group_key=(rng.sample(fnames, 2), rng.sample(tnames, 3)),
                                              windows=[window], evaluation_count=0))
    return types.SimpleNamespace(total_evaluations=n_rows, rows=rows)


def count_nodes(node):
    return 1 + sum(count_nodes(c) for c in node.get("children", ()))


def best_of(repeat, fn):
    best = float("inf")
    for _ in range(repeat):
        gc.collect()
        gc.disable()
        try:
            t0 = time.perf_counter()
            fn()
            best = min(best, time.perf_counter() - t0)
        finally:
            gc.enable()
    return best


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--graphs", type=int, default=20_000)
    ap.add_argument("--repeat", type=int, default=5)
    ap.add_argument("--seed", type=int, default=1)
    args = ap.parse_args()

    rng = random.Random(args.seed)
    vocab = build_vocabulary(rng)
    analytics = build_snapshot(rng, vocab)
    era = types.SimpleNamespace(max_node_count=1000, buffer_duration_minutes=20160)
    ctx = types.SimpleNamespace(vocabulary=vocab, max_depth=6, analytics=analytics, era_config=era)

    report = st.analyze_random_weighted(ctx)
    print(f"usable rotations {len(report['function_weights'])}, refused {len(report['unsafe_functions'])}, "
          f"features {len(report['feature_weights'])}, analytics rows read {report['analytics_rows_seen']}")

    setups = []
    for _ in range(args.repeat):
        gen = st.random_weighted(ctx)
        t0 = time.perf_counter()
        next(gen)
        setups.append(time.perf_counter() - t0)
    print(f"set-up (first next, incl. one graph): best {min(setups) * 1e3:.2f} ms, "
          f"median {sorted(setups)[len(setups) // 2] * 1e3:.2f} ms")

    n = args.graphs
    random.seed(args.seed)
    gen = st.random_weighted(ctx)
    next(gen)
    graphs = [next(gen) for _ in range(n)]
    nodes = sum(count_nodes(g) for g in graphs)

    def generate():
        it = gen
        for _ in range(n):
            next(it)

    blobs = [pickle.dumps(g, protocol=5) for g in graphs]
    loads = pickle.loads

    def unpickle():
        for b in blobs:
            loads(b)

    t_gen = best_of(args.repeat, generate)
    t_load = best_of(args.repeat, unpickle)
    whole = pickle.dumps(graphs, protocol=5)
    t_whole = best_of(args.repeat, lambda: loads(whole))

    print(f"graphs {n}, nodes {nodes} ({nodes / n:.1f} per graph), pickled bytes {sum(map(len, blobs)) / n:.0f} per graph")
    print(f"generation:        {t_gen * 1e3:8.1f} ms  {n / t_gen:10.0f} graphs/s  {nodes / t_gen:12.0f} nodes/s")
    print(f"pickle.loads each: {t_load * 1e3:8.1f} ms  {n / t_load:10.0f} graphs/s  {nodes / t_load:12.0f} nodes/s")
    print(f"pickle.loads list: {t_whole * 1e3:8.1f} ms  (one pickle of all graphs, shared memo)")
    print(f"ratio generation / pickle.loads each: {t_gen / t_load:.3f}")
    print(f"ratio generation / pickle.loads list: {t_gen / t_whole:.3f}")


if __name__ == "__main__":
    main()
