"""Small builders of vocabularies, contexts and snapshots for the generator tests."""
import bisect
import math
import random
import types

import tarnwicket.search_templates as st


def rotation(name, schema, **extra):
    entry = {"name": name, "function_type": "rotation", "param_schema": schema}
    entry.update(extra)
    return entry


def feature(name, **extra):
    entry = {"name": name}
    entry.update(extra)
    return entry


def context(functions, features, max_depth=4, analytics=None, **era):
    vocab = {"functions": functions, "features": features}
    era_config = types.SimpleNamespace(**era) if era else None
    return types.SimpleNamespace(vocabulary=vocab, max_depth=max_depth, analytics=analytics, era_config=era_config)


def snapshot(*rows):
    return types.SimpleNamespace(rows=list(rows))


def ref_choice(items, cum):
    """The weighted draw, written plainly."""
    total = cum[-1]
    if total <= 0.0 or not math.isfinite(total):
        return random.choice(items)
    i = bisect.bisect_left(cum, random.random() * total)
    return items[i] if i < len(items) else items[-1]


def ref_cum(names, yield_map):
    """The cumulative weights, written plainly."""
    out, total = [], 0.0
    for name in names:
        total += max(0.0, 1.0 + st._random_weighted_safe_yield_rate(yield_map.get(name, 0.0)))
        out.append(total)
    return out if total > 0.0 and math.isfinite(total) else [float(i + 1) for i in range(len(names))]
