"""Small builders of vocabularies, contexts and snapshots for the generator tests."""
import bisect
import math
import random
import types


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
