"""Fakes of the collaborators that a SearchContext and the signal service binding talk to."""

from __future__ import annotations

import types
from dataclasses import dataclass, field
from typing import Any

GOOD_METRICS = dict(
    sharpe=1.5,
    fitness=1.2,
    returns=0.1,
    drawdown=0.05,
    turnover=0.3,
    margin=0.002,
    long_count=25,
    short_count=24,
    delta_exposure=0.01,
    max_weight=0.05,
)

THRESHOLDS = dict(turnover_max=0.7, delta_exposure_max=0.1, max_weight_max=0.1, correlation_max=0.5)


def make_stats(**overrides):
    """A backtest result that passes every rule, with `overrides` applied.

    An override of `Ellipsis` removes the attribute."""
    values = dict(GOOD_METRICS)
    values.update(
        passed=True,
        correlation=None,
        weight_quality_metrics={},
        liquidity_metrics={},
        custom_stats={},
        factor_pnl=[0.1, -0.2],
        per_column_stats={"gross_returns": {"sharpe": 1.0}},
        is_pnl_mi=0.25,
    )
    values.update(overrides)
    return types.SimpleNamespace(**{k: v for k, v in values.items() if v is not Ellipsis})


class MemoryTracker:
    """A tracker without a store connection; records every call it gets."""

    def __init__(self, eval_id="eval-1", record_error=None, stats=None, with_stats=True):
        self.eval_id = eval_id
        self.record_error = record_error
        self.records: list[tuple[tuple, dict]] = []
        self.enqueued: list[tuple] = []
        self.enqueue_error = None
        self.lock_seen: list[bool] = []
        self.lock = None
        self._stats = stats
        if with_stats:
            self.get_search_stats = self._get_search_stats

    def _get_search_stats(self):
        if isinstance(self._stats, BaseException):
            raise self._stats
        return self._stats

    def _lock_held(self):
        if self.lock is None:
            return None
        # An RLock reports ownership through its repr ("owner=<ident>").
        import threading

        return f"owner={threading.get_ident()}" in repr(self.lock)

    def record_signal_evaluation(self, *args, **kwargs):
        self.records.append((args, kwargs))
        self.lock_seen.append(self._lock_held())
        if self.record_error is not None:
            raise self.record_error
        return self.eval_id

    def enqueue_submission(self, *args):
        self.lock_seen.append(self._lock_held())
        if self.enqueue_error is not None:
            raise self.enqueue_error
        self.enqueued.append(args)


class PersistentTracker(MemoryTracker):
    """A tracker with an open store connection: gets the four-argument enqueue."""

    def __init__(self, **kw):
        super().__init__(**kw)
        self._conn = object()


class FakeBacktester:
    """Evaluation runtime; `clock` (a FakeClock) advances by `eval_seconds` per evaluation."""

    def __init__(self, stats=None, clock=None, eval_seconds=0.001, eval_error=None, backtest_error=None):
        self.stats = stats if stats is not None else make_stats()
        self.clock = clock
        self.eval_seconds = eval_seconds
        self.eval_error = eval_error
        self.backtest_error = backtest_error
        self.calls: list[str] = []

    def evaluate_expression(self, graph):
        self.calls.append("evaluate_expression")
        if self.clock is not None:
            self.clock.now += self.eval_seconds
        if self.eval_error is not None:
            raise self.eval_error
        return object()

    def run_backtest(self, graph):
        self.calls.append("run_backtest")
        if self.backtest_error is not None:
            raise self.backtest_error
        return self.stats


class FakeClock:
    def __init__(self, start=1000.0):
        self.now = start

    def __call__(self):
        return self.now


class FakeSyncManager:
    def __init__(self, error=None):
        self.error = error
        self.requests = 0

    def request_for_sync(self):
        self.requests += 1
        if self.error is not None:
            raise self.error
        return ["a.pnl"]


class EraConfig:
    """Era configuration in its object form."""

    def __init__(self, era_id=3, thresholds=None, budget=5.0, pools=("pool-a",), rules=None, **extra):
        self.era_id = era_id
        self.thresholds = dict(THRESHOLDS) if thresholds is None else thresholds
        self.max_expression_generation_seconds = budget
        self.signal_pools = [{"signal_pool_id": p} for p in pools]
        self.column_threshold_rules = rules or []
        for k, v in extra.items():
            setattr(self, k, v)


def era_dict(era_id=3, thresholds=None, budget=5.0, pools=("pool-a",), **extra):
    """Era configuration in its record form."""
    d = {
        "era_id": era_id,
        "thresholds": dict(THRESHOLDS) if thresholds is None else thresholds,
        "max_expression_generation_seconds": budget,
        "signal_pools": [{"signal_pool_id": p} for p in pools],
    }
    d.update(extra)
    return d


VOCAB = {
    "functions": [
        {"name": "ts_mean", "function_type": "rotation"},
        {"name": "rank", "function_type": "reduction"},
    ],
    "features": [{"name": "close", "function_type": "feature"}],
}


# ---------------------------------------------------------------- sibling modules


def analytics_module(pool_configs=("cfg",), engine_error=None, stats=None):
    """A stand-in for tarnwicket.search_analytics."""
    mod = types.ModuleType("tarnwicket.search_analytics")

    @dataclass
    class SearchStatsResult:
        total_evaluations: int = 0
        rows: list = field(default_factory=list)

    class SearchAnalytics:
        instances: list = []

        def __init__(self, tracker, pool_configs):
            if engine_error is not None:
                raise engine_error
            self.tracker = tracker
            self.pool_configs = pool_configs
            self.calls = 0
            SearchAnalytics.instances.append(self)

        def get_search_stats(self):
            self.calls += 1
            return stats if stats is not None else SearchStatsResult(total_evaluations=self.calls, rows=[])

    def _resolve_pool_configs(*, era_config):
        mod.resolved.append(era_config)
        if isinstance(pool_configs, BaseException):
            raise pool_configs
        return list(pool_configs) if pool_configs else pool_configs

    mod.SearchStatsResult = SearchStatsResult
    mod.SearchAnalytics = SearchAnalytics
    mod._resolve_pool_configs = _resolve_pool_configs
    mod.resolved = []
    return mod


class AuthError(Exception):
    def __init__(self, message, reason=None):
        super().__init__(message)
        if reason is not None:
            self.reason = reason


def auth_module():
    mod = types.ModuleType("tarnwicket.auth")
    mod.AuthError = AuthError
    return mod


def onboarding_module(server_url="http://127.0.0.1:8765", auth_manager=None):
    mod = types.ModuleType("tarnwicket.agent_onboarding")
    mod._config = {"data_dir": "/tmp/x", "server_url": server_url}
    mod._auth_manager = auth_manager
    return mod


class FakeAuth:
    def __init__(self, token="tok-1", error=None):
        self.token = token
        self.error = error
        self.calls = 0

    def get_token(self):
        self.calls += 1
        if self.error is not None:
            raise self.error
        return self.token


@dataclass
class ClientResult:
    status_code: int = 200
    error: Any = None
    body: Any = None
    submission_id: Any = "sub-1"


def submit_module(result=None, submit_error=None, with_close=True):
    """A stand-in for tarnwicket.submit; `mod.clients` keeps every client built."""
    mod = types.ModuleType("tarnwicket.submit")
    mod.clients = []

    class SignalServiceClient:
        def __init__(self, server_url, token, timeout=30.0):
            self.server_url = server_url
            self.token = token
            self.timeout = timeout
            self.submitted = []
            self.polled = []
            self.closed = 0
            mod.clients.append(self)

        def submit_signal(self, **kwargs):
            self.submitted.append(kwargs)
            if submit_error is not None:
                raise submit_error
            return mod.result

        def get_signal_status(self, submission_id):
            self.polled.append(submission_id)
            if submit_error is not None:
                raise submit_error
            return mod.result

    if with_close:

        def close(self):
            self.closed += 1

        SignalServiceClient.close = close

    class SubmissionReceipt:
        def __init__(self, submission_id):
            self.submission_id = submission_id

    class SubmissionRejectedError(Exception):
        def __init__(self, status_code, error, details, body=None):
            super().__init__(f"{status_code}: {error}")
            self.status_code = status_code
            self.reason = error
            self.details = details
            self.body = body

    class SubmissionStatus:
        def __init__(self, submission_id, status, is_stats, payment, rejection_reason, **kw):
            self.args = (submission_id, status, is_stats, payment, rejection_reason)
            self.kwargs = kw

    mod.SignalServiceClient = SignalServiceClient
    mod.SubmissionReceipt = SubmissionReceipt
    mod.SubmissionRejectedError = SubmissionRejectedError
    mod.SubmissionStatus = SubmissionStatus
    mod.result = result if result is not None else ClientResult()
    return mod
