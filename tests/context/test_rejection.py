import math
import types

import pytest

import tarnwicket.search_templates as st

from fakes import context_fakes as cf


def bad(**kw):
    return dict(passed=False, **kw)


@pytest.mark.parametrize("overrides, expected", [
    ({}, None),
    ({"turnover": 0.7}, None),
    ({"turnover": math.nextafter(0.7, 1.0)}, "turnover_exceeded"),
    ({"turnover": "9", "max_weight": float("nan")}, None),
    ({"turnover": True}, "turnover_exceeded"),
    ({"turnover": 5, "delta_exposure": 5, "max_weight": 5}, "turnover_exceeded"),
    ({"delta_exposure": 0.2, "max_weight": 0.2}, "delta_exposure_exceeded"),
    ({"max_weight": 0.2, "weight_quality_metrics": {"a": bad()}}, "max_weight_exceeded"),
    ({"weight_quality_metrics": {"ok": {"passed": True}, "x": "entry", "a": bad(value=None)}}, "invalid_weights"),
    ({"weight_quality_metrics": {"conc": bad(value=0)}}, "weight_quality_conc_exceeded"),
    ({"weight_quality_metrics": [bad(value=1)]}, None),
    ({"weight_quality_metrics": {"w": bad(value=1)}, "liquidity_metrics": {"l": bad(min=1)}}, "weight_quality_w_exceeded"),
    ({"liquidity_metrics": {"adv": bad(value=0.5, min=1.0)}}, "liquidity_adv_below_min"),
    ({"liquidity_metrics": {"adv": bad(value=5, max=3)}}, "liquidity_adv_above_max"),
    ({"liquidity_metrics": {"adv": bad(value=2, min=1, max=3)}}, "liquidity_adv_below_min"),
    ({"liquidity_metrics": {"adv": bad(value=2, min=3, max=1)}}, "liquidity_adv_below_min"),
    ({"liquidity_metrics": {"adv": bad(max=-1)}}, "liquidity_adv_above_max"),
    ({"liquidity_metrics": {"l": bad(min=3)}, "custom_stats": {"c": bad(value=1, max=0)}}, "liquidity_l_below_min"),
    ({"custom_stats": {"c": bad(value=-1, min=0)}}, "custom_stat_c_below_min"),
    ({"custom_stats": {"c": bad(value=0.5, min=0, max=1)}}, "custom_stat_c_below_min"),
    ({"custom_stats": {"c": bad(value=2, max=1)}, "correlation": 0.9, "passed": False}, "custom_stat_c_above_max"),
    ({"custom_stats": ["x"], "passed": False}, "gross_returns_sharpe_below_min"),
    ({"correlation": 0.5}, None),
    ({"correlation": 0.51}, "correlation_exceeded"),
    ({"correlation": 0.9, "passed": False}, "correlation_exceeded"),
    ({"correlation": "0.9"}, None),
    ({"passed": 0}, "gross_returns_sharpe_below_min"),
])
def test_rule_precedence(make_ctx, overrides, expected):
    assert make_ctx()._derive_rejection_reason(cf.make_stats(**overrides)) == expected


@pytest.mark.parametrize("rules, expected", [
    ([{"column": "net", "stat": "sortino"}, {"column": "o", "stat": "x"}], "net_sortino_below_min"),
    ([{}], "gross_returns_sharpe_below_min"),
    ([{"stat": "calmar"}], "gross_returns_calmar_below_min"),
    ([], "gross_returns_sharpe_below_min"),
])
def test_failed_verdict_names_the_first_column_rule(make_ctx, rules, expected):
    ctx = make_ctx(era_config=cf.EraConfig(rules=rules))
    assert ctx._derive_rejection_reason(cf.make_stats(passed=False)) == expected


def test_column_rules_are_read_as_an_attribute(make_ctx):
    ctx = make_ctx(era_config=cf.era_dict())
    assert ctx._derive_rejection_reason(cf.make_stats()) is None
    with pytest.raises(AttributeError):
        ctx._derive_rejection_reason(cf.make_stats(passed=False))
    ctx = make_ctx(era_config=None, thresholds=cf.THRESHOLDS)
    assert ctx._derive_rejection_reason(cf.make_stats(passed=False)) == "gross_returns_sharpe_below_min"


@pytest.mark.parametrize("thresholds, stats, outcome", [
    ({}, {"turnover": "text"}, "missing required threshold 'turnover_max'"),
    ({"turnover_max": 1}, {"turnover": 5}, "turnover_exceeded"),
    ({"turnover_max": 1}, {}, "missing required threshold 'delta_exposure_max'"),
    ({"turnover_max": 1, "delta_exposure_max": 1}, {}, "missing required threshold 'max_weight_max'"),
    ({"turnover_max": 1, "delta_exposure_max": 1, "max_weight_max": 1}, {"correlation": "x"}, None),
    ({"turnover_max": 1, "delta_exposure_max": 1, "max_weight_max": 1}, {"correlation": 0.1},
     "missing required threshold 'correlation_max'"),
    ({"turnover_max": True, "delta_exposure_max": 1, "max_weight_max": 1}, {}, "threshold 'turnover_max' must be numeric"),
])
def test_thresholds_are_required_in_rule_order(make_ctx, thresholds, stats, outcome):
    ctx = make_ctx(thresholds=thresholds)
    if outcome is None or outcome.endswith("_exceeded"):
        assert ctx._derive_rejection_reason(cf.make_stats(**stats)) == outcome
    else:
        with pytest.raises(ValueError, match=outcome):
            ctx._derive_rejection_reason(cf.make_stats(**stats))


def test_bare_stats_and_incomparable_values(make_ctx):
    ctx = make_ctx()
    assert ctx._derive_rejection_reason(types.SimpleNamespace()) is None
    with pytest.raises(TypeError):
        ctx._derive_rejection_reason(cf.make_stats(liquidity_metrics={"l": bad(value="a", min=1)}))


def test_replaced_threshold_lookup_is_used(make_ctx, monkeypatch):
    asked = []
    monkeypatch.setattr(st, "_require_search_threshold", lambda t, name: asked.append(name) or 100)
    assert make_ctx()._derive_rejection_reason(cf.make_stats(turnover=50, correlation=0.9)) is None
    assert asked == ["turnover_max", "delta_exposure_max", "max_weight_max", "correlation_max"]


class Verdict:
    """A `passed` value that is falsy when first asked and truthy after."""

    def __init__(self):
        self.asked = 0

    def __bool__(self):
        self.asked += 1
        return self.asked > 1


def test_custom_statistics_are_walked_again_for_the_reason(make_ctx):
    # the first walk sets the flag, the second finds no failed entry: the rule goes on to the next tier
    ctx = make_ctx()
    assert ctx._derive_rejection_reason(cf.make_stats(custom_stats={"c": {"passed": Verdict()}})) is None
    custom = {"c": {"passed": Verdict()}, "d": bad(value=5, max=1)}
    assert ctx._derive_rejection_reason(cf.make_stats(custom_stats=custom, correlation=0.9)) == \
        "custom_stat_d_above_max"


def test_a_verdict_that_changes_its_record_raises_as_a_loop_over_it_does(make_ctx):
    metrics = {}

    class Growing:
        def __bool__(self):
            metrics["late"] = bad()
            return True

    metrics["a"] = {"passed": Growing()}
    with pytest.raises(RuntimeError, match="^dictionary changed size during iteration$"):
        make_ctx()._derive_rejection_reason(cf.make_stats(liquidity_metrics=metrics))
