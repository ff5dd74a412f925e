"""The local vocabulary as the built-in generator sees it."""

import types

import tarnwicket.search_templates as st
from tarnwicket.local.era import LocalEraConfig
from tarnwicket.local.features import compute_features
from tarnwicket.local.vocabulary import build_vocabulary


def test_screening_keeps_usable_rotations_and_refuses_the_unsafe(synthetic_panel):
    vocab = build_vocabulary(compute_features(synthetic_panel), "universe_top50")
    ctx = types.SimpleNamespace(vocabulary=st._normalize_template_vocabulary(vocab), max_depth=4, analytics=None,
                                era_config=LocalEraConfig())
    report = st.analyze_random_weighted(ctx)
    refused = report["unsafe_functions"]
    assert len(report["function_weights"]) >= 15 and len(report["feature_weights"]) >= 8
    assert refused["masked_mean"] == "rotation requires filtration input, which is not SIGNAL-safe"
    assert refused["ts_backfill"] == "engine_only runtime transform"
    assert refused["sum_of"].startswith("unsupported param_schema entry")
    graphs = st.random_weighted(ctx)
    assert all(next(graphs)["node"] in report["function_weights"] for _ in range(50))
