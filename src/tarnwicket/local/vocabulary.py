"""The per-universe vocabulary file, in its nested form.

Layout: ``{"rotations": {family: {subfamily: [entry, ...]}}, "filtrations":
{family: [entry, ...]}, "reductions": {family: {subfamily: [...]}}, "features":
{family: {subfamily: [...]}}}``. Besides the operators that the evaluator runs,
the rotations list a few that a generator has to refuse: one that needs a
filtration input, an engine-only transform and one with a variadic input.
"""

from __future__ import annotations

import json

import numpy as np

from .files import write_atomically
from .features import feature_hash, feature_infos, feature_stats
from .operators import OPERATORS, Operator

VOCABULARY_FILE = "vocabulary.json"

# Listed for completeness of the catalogue; the evaluator does not run them.
UNSYNTHESISABLE_ROTATIONS: tuple[dict, ...] = (
    {
        "name": "masked_mean",
        "function_type": "rotation",
        "function_family": "time_series",
        "function_subfamily": "smoothing",
        "stateful": True,
        "param_schema": {
            "x": {"type": "data"},
            "mask": {"type": "filtration"},
            "window": {"type": "int", "default": 20, "min": 2, "max": 120},
        },
        "description": "rolling mean over the days a filtration keeps",
    },
    {
        "name": "ts_backfill",
        "function_type": "rotation",
        "function_family": "time_series",
        "function_subfamily": "repair",
        "stateful": True,
        "engine_only": True,
        "param_schema": {
            "x": {"type": "data"},
            "window": {"type": "int", "default": 5, "min": 1, "max": 60},
        },
        "description": "fill gaps from the last valid value (engine transform)",
    },
    {
        "name": "sum_of",
        "function_type": "rotation",
        "function_family": "arithmetic",
        "function_subfamily": "nary",
        "param_schema": {"inputs": {"type": "data", "variadic": True}},
        "description": "sum of any number of inputs",
    },
)


def operator_entry(op: Operator) -> dict:
    entry = {
        "name": op.name,
        "function_type": op.kind,
        "function_family": op.family,
    }
    if op.subfamily is not None:
        entry["function_subfamily"] = op.subfamily
    entry["param_schema"] = op.param_schema()
    entry["arity"] = len(op.data_params)
    entry["stateful"] = op.stateful
    if op.description:
        entry["description"] = op.description
    return entry


def _nest(tree: dict, keys: list[str], entry: dict) -> None:
    node = tree
    for key in keys[:-1]:
        node = node.setdefault(key, {})
    node.setdefault(keys[-1], []).append(entry)


def build_vocabulary(features: dict[str, np.ndarray], universe_id: str) -> dict:
    vocab: dict = {"rotations": {}, "filtrations": {}, "reductions": {}, "features": {}}
    for op in OPERATORS:
        entry = operator_entry(op)
        if op.kind == "filtration":
            _nest(vocab["filtrations"], [op.family], entry)
        else:
            _nest(vocab[op.kind + "s"], [op.family, op.subfamily or "general"], entry)
    for entry in UNSYNTHESISABLE_ROTATIONS:
        _nest(vocab["rotations"], [entry["function_family"], entry["function_subfamily"]], dict(entry))
    for info in feature_infos(features):
        arr = features[info.name]
        _nest(vocab["features"], [info.family, info.subfamily], {
            "name": info.name,
            "function_type": "feature",
            "feature_family": info.family,
            "feature_subfamily": info.subfamily,
            "rotation_families": list(info.rotation_families),
            "feature_hash": feature_hash(info.name, universe_id, arr),
            "stats": feature_stats(arr),
            "description": info.description,
        })
    vocab["universe_id"] = universe_id
    return vocab


def write_vocabulary(vocab: dict, path: str) -> None:
    write_atomically(path, lambda fh: json.dump(vocab, fh, indent=1, sort_keys=False), binary=False)
