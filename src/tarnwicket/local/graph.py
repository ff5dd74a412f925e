"""Expression graphs: validation into hashable keys, and evaluation of keys.

A graph is a tree of maps. A function node is ``{"type": kind, "node": name,
"children": [...]}`` with its data children first, in schema order, then one
literal child ``{"type": "int"|"float"|"bool"|"string", "node": value}`` per
config parameter, in schema order (trailing literals may be left out and take
their defaults). A feature leaf is ``{"type": "feature", "node": name}``.

``compile_graph`` turns a graph into a nested tuple key that names the same
computation, so results can be memoised across graphs that share a subtree.
"""

from __future__ import annotations

from collections.abc import Callable, Mapping
from typing import Any

import numpy as np

from .operators import OPERATORS_BY_NAME, Operator

FUNCTION_KINDS = ("rotation", "filtration", "reduction")
LITERAL_TYPES = ("int", "float", "bool", "string")
MAX_GRAPH_DEPTH = 64
_ALLOWED_KEYS = frozenset(("type", "node", "children"))
_LITERAL_KEYS = frozenset(("type", "node"))


def _where(at: tuple | None) -> str:
    """The path of a node for messages: "root", or "/name[i]/..." from the root."""
    parts = []
    while at is not None:
        at, name, index = at
        parts.append(f"/{name}[{index}]")
    return "".join(reversed(parts)) or "root"


def compile_graph(graph: Any, feature_names: frozenset[str] | set[str]) -> tuple:
    """Validate ``graph`` and return its key; raise ``ValueError`` on any fault."""
    return _compile(graph, feature_names, None, 0)


def _compile(graph: Any, feature_names: frozenset[str] | set[str], at: tuple | None, depth: int) -> tuple:
    # `at` is (parent's at, parent's name, child index): the message path is
    # only spelled out when there is a message.
    if depth > MAX_GRAPH_DEPTH:
        raise ValueError(f"graph deeper than {MAX_GRAPH_DEPTH} levels at {_where(at)}")
    if type(graph) is not dict and not isinstance(graph, Mapping):
        raise ValueError(f"graph node at {_where(at)} must be a dict, got {type(graph).__name__}")
    if not _ALLOWED_KEYS.issuperset(graph):
        extra = set(graph) - _ALLOWED_KEYS
        raise ValueError(f"graph node at {_where(at)} has unexpected keys {sorted(map(str, extra))}")
    node_type = graph.get("type")
    name = graph.get("node")
    if node_type == "feature":
        if graph.get("children"):
            raise ValueError(f"feature leaf at {_where(at)} cannot have children")
        if not isinstance(name, str) or name not in feature_names:
            raise ValueError(f"unknown feature {name!r} at {_where(at)}")
        return ("feature", name)
    if node_type not in FUNCTION_KINDS:
        raise ValueError(f"graph node at {_where(at)} has unsupported type {node_type!r}")
    op = OPERATORS_BY_NAME.get(name) if isinstance(name, str) else None
    if op is None:
        raise ValueError(f"unknown function {name!r} at {_where(at)}")
    if op.kind != node_type:
        raise ValueError(f"function {name!r} at {_where(at)} is a {op.kind}, not a {node_type}")
    children = graph.get("children", [])
    if not isinstance(children, (list, tuple)):
        raise ValueError(f"children of {name!r} at {_where(at)} must be a list")
    n_data, n_config = len(op.data_params), len(op.config)
    if not n_data <= len(children) <= n_data + n_config:
        raise ValueError(f"function {name!r} at {_where(at)} takes {n_data} data input(s) and "
                         f"{n_config} config value(s), got {len(children)} children")
    data_keys = tuple([_compile(children[i], feature_names, (at, name, i), depth + 1) for i in range(n_data)])
    config_values = tuple([_literal(op, i, child, at) for i, child in enumerate(children[n_data:])])
    if len(config_values) < n_config:
        config_values += tuple(p.default for p in op.config[len(config_values):])
    return (node_type, name, data_keys, config_values)


def _literal(op: Operator, index: int, child: Any, at: tuple | None) -> Any:
    param = op.config[index]
    if not isinstance(child, Mapping) or not _LITERAL_KEYS.issuperset(child) or "node" not in child:
        raise ValueError(f"config child {param.name!r} of {op.name!r} at {_where(at)} must be "
                         "a literal {type, node}")
    literal_type = child.get("type")
    if literal_type not in LITERAL_TYPES:
        raise ValueError(f"config child {param.name!r} of {op.name!r} at {_where(at)} has "
                         f"unsupported type {literal_type!r}")
    if literal_type != param.type and not (param.type == "float" and literal_type == "int"):
        raise ValueError(f"config child {param.name!r} of {op.name!r} at {_where(at)} is "
                         f"{literal_type!r}, expected {param.type!r}")
    return param.check(child["node"], op.name)


def graph_depth(key: tuple) -> int:
    if key[0] == "feature":
        return 1
    return 1 + max((graph_depth(child) for child in key[2]), default=0)


def native_config(op: Operator, values: tuple) -> list[float]:
    """Config values as the native kernels take them: numbers, a string by its
    index among the parameter's choices."""
    return [float(p.choices.index(v)) if p.type == "string" else float(v)
            for p, v in zip(op.config, values)]


def plan_key(key: tuple, features: Mapping[str, np.ndarray],
             lookup: Callable[[tuple], np.ndarray | None]) -> tuple[list, list, list]:
    """What the native evaluator runs to compute a function key: ``(inputs, steps, keys)``.

    ``inputs`` are the feature panels and memoised results the key needs; each
    step is ``(operator, data, config)`` with ``data`` indexing ``inputs`` and
    then the earlier steps' results; ``keys[i]`` is the key step i computes,
    the last one ``key``. A sub-expression that occurs twice is computed once.
    """
    inputs: list[np.ndarray] = []
    steps: list[tuple[str, list[tuple[bool, int]], list[float]]] = []
    keys: list[tuple] = []
    refs: dict[tuple, tuple[bool, int]] = {}        # key -> (is a step, index)

    def visit(k: tuple) -> tuple[bool, int]:
        ref = refs.get(k)
        if ref is not None:
            return ref
        known = features[k[1]] if k[0] == "feature" else lookup(k)
        if known is not None:
            ref = (False, len(inputs))
            inputs.append(known)
        else:
            _, name, data_keys, config_values = k
            data = [visit(child) for child in data_keys]
            ref = (True, len(steps))
            steps.append((name, data, native_config(OPERATORS_BY_NAME[name], config_values)))
            keys.append(k)
        refs[k] = ref
        return ref

    visit(key)
    n = len(inputs)
    program = [(name, [n + i if is_step else i for is_step, i in data], config)
               for name, data, config in steps]
    return inputs, program, keys


def evaluate_key(key: tuple, features: Mapping[str, np.ndarray], env: Any,
                 lookup: Callable[[tuple], np.ndarray | None],
                 store: Callable[[tuple, np.ndarray], None]) -> np.ndarray:
    """Evaluate a compiled key, memoising function nodes through lookup/store."""
    if key[0] == "feature":
        return features[key[1]]
    cached = lookup(key)
    if cached is not None:
        return cached
    _, name, data_keys, config_values = key
    inputs = [evaluate_key(child, features, env, lookup, store) for child in data_keys]
    with np.errstate(all="ignore"):
        out = OPERATORS_BY_NAME[name].fn(env, *inputs, *config_values)
    out = np.asarray(out, dtype=np.float64)
    if out.shape != inputs[0].shape:
        out = np.broadcast_to(out, inputs[0].shape)
    out = np.where(np.isfinite(out), out, np.nan)
    out.setflags(write=False)
    store(key, out)
    return out
