"""Random expression graphs in the shapes the built-in generator yields.

Used to calibrate the local era's thresholds and to benchmark the evaluator
without a running search: uniform draws of rotations and features, every leaf
at the target depth, config children at their defaults.
"""

from __future__ import annotations

import random

from .features import FEATURE_NAMES
from .operators import OPERATORS


def _rotations():
    return [op for op in OPERATORS if op.kind == "rotation"]


def random_graph(rng: random.Random, depth: int) -> dict:
    if depth <= 1:
        return {"type": "feature", "node": rng.choice(FEATURE_NAMES)}
    op = rng.choice(_rotations())
    children = [random_graph(rng, depth - 1) for _ in op.data_params]
    children += [{"type": p.type, "node": p.default} for p in op.config]
    return {"type": "rotation", "node": op.name, "children": children}


def random_graphs(count: int, seed: int = 0, max_depth: int = 4) -> list[dict]:
    rng = random.Random(seed)
    return [random_graph(rng, rng.randint(2, max_depth)) for _ in range(count)]
