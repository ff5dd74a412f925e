"""The passing path of `SearchContext.evaluate`, written as plain Python.

A cost model for `bench_evaluate.py`, not a second implementation: it takes
the same steps, reads the same fields and makes the same host calls as the
module, so that the module's own time can be set beside what the interpreter
needs for the same work. Rejections are only recorded; their logging is left
out because the benchmark never takes them.
"""
import math
import time
import uuid

import tarnwicket.search_templates as st

_MISSING = object()
_REQUIRED = ("sharpe", "fitness", "returns", "drawdown", "turnover", "margin", "long_count", "short_count",
             "delta_exposure", "max_weight")
_COUNTS = frozenset({"long_count", "short_count"})

def _invalid_backtest_metric_reason(attr):
    return f"invalid_backtest_metric_{attr}"


def _required_backtest_metric_value(bt_stats, attr):
    value = getattr(bt_stats, attr, _MISSING)
    if value is _MISSING or isinstance(value, bool) or not isinstance(value, (int, float)):
        return None, _invalid_backtest_metric_reason(attr)
    try:
        f = float(value)
    except (TypeError, ValueError, OverflowError):
        return None, _invalid_backtest_metric_reason(attr)
    if not math.isfinite(f):
        return None, _invalid_backtest_metric_reason(attr)
    if attr in _COUNTS:
        if not f.is_integer():
            return None, _invalid_backtest_metric_reason(attr)
        return int(f), None
    return f, None


def _collect_required_backtest_stats(bt_stats):
    out = {}
    for attr in _REQUIRED:
        value, reason = _required_backtest_metric_value(bt_stats, attr)
        if reason is not None:
            return None, reason
        out[attr] = value
    return out, None


def _normalize_factor_pnl(value):
    if isinstance(value, list):
        return list(value) or [0.0]
    if isinstance(value, tuple):
        return list(value) or [0.0]
    tolist = getattr(value, "tolist", None)
    if callable(tolist):
        try:
            r = tolist()
        except Exception:
            r = None
        if isinstance(r, list):
            return r or [0.0]
    if isinstance(value, (int, float)) and not isinstance(value, bool):
        return [float(value)]
    return [0.0]


def _normalize_per_column_stats(value):
    return dict(value) if isinstance(value, dict) else {}


def _is_finite_number(value):
    if type(value) not in (int, float):
        return False
    try:
        return math.isfinite(float(value))
    except (OverflowError, ValueError):
        return False


def _is_pnl_mi_from_backtest_stats(bt_stats):
    v = getattr(bt_stats, "is_pnl_mi", None)
    if not _is_finite_number(v):
        raise ValueError("BacktestStats.is_pnl_mi must be a finite scalar number")
    return float(v)


def _tracker_uses_persistent_store(tracker):
    return getattr(tracker, "_conn", None) is not None


class BacktestResult:
    def __init__(self, expression=None, passed=False, stats=None, factor_pnl=None, per_column_stats=None,
                 portfolio_returns=None, processed_weights=None, mi_score=None, mi_passed=None,
                 submitted=False, structural_failed=False):
        self.expression = {} if expression is None else expression
        self.passed = passed
        self.stats = stats
        self.factor_pnl = factor_pnl
        self.per_column_stats = per_column_stats
        self.portfolio_returns = portfolio_returns
        self.processed_weights = processed_weights
        self.mi_score = mi_score
        self.mi_passed = mi_passed
        self.submitted = submitted
        self.structural_failed = structural_failed


def _first_failed(record):
    if not isinstance(record, dict):
        return None, None
    for name, entry in record.items():
        if isinstance(entry, dict) and not entry.get("passed", True):
            return name, entry
    return None, None


class PlainContext:
    """Holds the fields of a module `SearchContext` as its own instance attributes."""

    def __init__(self, ctx):
        self.__dict__.update(vars(ctx))

    @staticmethod
    def _require_search_threshold(thresholds, name):
        if name not in thresholds:
            raise ValueError(f"SearchContext thresholds missing required threshold '{name}'")
        v = thresholds[name]
        if isinstance(v, bool) or not isinstance(v, (int, float)):
            raise ValueError(f"SearchContext threshold '{name}' must be numeric")
        return v

    def _submission_cancelled(self):
        if self._stop_event is not None and self._stop_event.is_set():
            return True
        ev = self._replacement_abort_event
        return ev is not None and ev.is_set()

    def _safe_record(self, expr_graph, passed, rejection_reason=None, stats=None, per_column_stats=None):
        try:
            if stats is None:
                stats = st._BacktestStats()
            with self._tracker_write_lock:
                return self._tracker.record_signal_evaluation(
                    expr_graph, stats, self._era_id, passed, self._universe_id, self._metaparams_for_db,
                    pool_id=self._signal_pool_id, rejection_reason=rejection_reason,
                    per_column_stats=per_column_stats)
        except OSError:
            return None

    def _derive_rejection_reason(self, stats):
        thresholds = self._thresholds
        passed = getattr(stats, "passed", True)
        for attr, key, reason in (("turnover", "turnover_max", "turnover_exceeded"),
                                  ("delta_exposure", "delta_exposure_max", "delta_exposure_exceeded"),
                                  ("max_weight", "max_weight_max", "max_weight_exceeded")):
            value = getattr(stats, attr, 0.0)
            limit = self._require_search_threshold(thresholds, key)
            if isinstance(value, (int, float)) and value > limit:
                return reason
        name, entry = _first_failed(getattr(stats, "weight_quality_metrics", {}))
        if entry is not None:
            return "invalid_weights" if entry.get("value") is None else f"weight_quality_{name}_exceeded"
        name, entry = _first_failed(getattr(stats, "liquidity_metrics", {}))
        if entry is not None:
            return f"liquidity_{name}_below_min"
        custom = getattr(stats, "custom_stats", {})
        custom_fail = _first_failed(custom)[1] is not None
        corr = getattr(stats, "correlation", None)
        corr_fail = isinstance(corr, (int, float)) and corr > self._require_search_threshold(thresholds, "correlation_max")
        if not passed and not custom_fail and not corr_fail:
            return "gross_returns_sharpe_below_min"
        cname, centry = _first_failed(custom)
        if centry is not None:
            return f"custom_stat_{cname}_below_min"
        if corr_fail:
            return "correlation_exceeded"
        if not passed:
            return "gross_returns_sharpe_below_min"
        return None

    def evaluate(self, expr_graph):
        if not isinstance(expr_graph, dict) or not expr_graph or "type" not in expr_graph \
                or not set(expr_graph) <= {"type", "node", "children"}:
            self._safe_record(expr_graph, False, rejection_reason="invalid_input")
            return None
        if expr_graph.get("type", "") in ("rotation", "filtration", "reduction"):
            functions = self._vocabulary.get("functions", [])
            if functions:
                names = {f.get("name") if isinstance(f, dict) else getattr(f, "name", None) for f in functions}
                if expr_graph.get("node", "") not in names:
                    self._safe_record(expr_graph, False, rejection_reason="unknown_function")
                    return None
        t0 = time.monotonic()
        try:
            self._backtester.evaluate_expression(expr_graph)
        except Exception:
            self._safe_record(expr_graph, False, rejection_reason="evaluate_expression_failed")
            return None
        elapsed = time.monotonic() - t0
        max_expr_secs = None
        if self._era_config is not None:
            cfg = self._era_config
            max_expr_secs = cfg.get("max_expression_generation_seconds") if isinstance(cfg, dict) \
                else getattr(cfg, "max_expression_generation_seconds", None)
        if max_expr_secs is None:
            raise ValueError("era config missing required field: max_expression_generation_seconds")
        if elapsed > max_expr_secs:
            self._safe_record(expr_graph, False, rejection_reason="expression_too_slow")
            return None
        bt_stats = None
        try:
            bt_stats = self._backtester.run_backtest(expr_graph)
        except Exception:
            pass
        if bt_stats is None:
            self._safe_record(expr_graph, False, rejection_reason="backtester_unavailable")
            return None
        reason = self._derive_rejection_reason(bt_stats)
        if reason is not None:
            self._safe_record(expr_graph, False, rejection_reason=reason)
            return None
        corr = getattr(bt_stats, "correlation", None)
        if isinstance(corr, (int, float)) and corr > self._require_search_threshold(self._thresholds, "correlation_max"):
            self._safe_record(expr_graph, False, rejection_reason="correlation_exceeded")
            return None
        if self._sync_mgr is not None:
            try:
                self._sync_mgr.request_for_sync()
            except Exception:
                pass
        stats_dict, stats_reason = _collect_required_backtest_stats(bt_stats)
        if stats_reason is not None:
            self._safe_record(expr_graph, False, rejection_reason=stats_reason)
            return None
        factor_pnl = _normalize_factor_pnl(getattr(bt_stats, "factor_pnl", None))
        per_column = _normalize_per_column_stats(getattr(bt_stats, "per_column_stats", {}))
        result = BacktestResult(expression=expr_graph, passed=True, stats=stats_dict, factor_pnl=factor_pnl,
                                per_column_stats=per_column, submitted=False)
        if self._submission_cancelled():
            return None
        recorded = self._safe_record(expr_graph, True)
        if self._submission_cancelled():
            return result
        eval_id = recorded if recorded is not None else str(uuid.uuid4())
        payload = {"eval_id": eval_id, "submission_type": "signal", "graph": expr_graph,
                   "universe_id": self._universe_id, "signal_pool_id": self._signal_pool_id,
                   "is_stats": stats_dict, "is_pnl_mi": _is_pnl_mi_from_backtest_stats(bt_stats),
                   "metaparameters": self._metaparams_for_db, "search_state": {}, "era_id": self._era_id,
                   "expression_elapsed_seconds": elapsed}
        if self._submission_owner is not None:
            payload["_submission_owner"] = self._submission_owner
        with self._tracker_write_lock:
            if self._submission_cancelled():
                return result
            if not _tracker_uses_persistent_store(self._tracker):
                self._tracker.enqueue_submission(payload)
            else:
                self._tracker.enqueue_submission(eval_id, payload["submission_type"],
                                                st._serialize_submission_payload(payload), self._era_id)
            if self._submission_cancelled():
                return result
            if self._submission_queue is not None:
                self._submission_queue.put(dict(payload))
                if self._submission_wakeup is not None:
                    self._submission_wakeup.set()
        return result
