"""The one fake of each collaborator: tracker, evaluation runtime, auth, analytics, signal service."""

import sys
import threading
import types
from dataclasses import dataclass, field
from typing import Any

GOOD_METRICS = dict(sharpe=1.5, fitness=1.2, returns=0.1, drawdown=0.05, turnover=0.3, margin=0.002,
                    long_count=25, short_count=24, delta_exposure=0.01, max_weight=0.05)
THRESHOLDS = dict(turnover_max=0.7, delta_exposure_max=0.1, max_weight_max=0.1, correlation_max=0.5)
VOCAB = {"functions": [{"name": "ts_mean"}, {"name": "rank"}], "features": [{"name": "close"}]}


def make_stats(**overrides):
    """A backtest result that passes every rule; an override of Ellipsis removes the attribute."""
    values = dict(GOOD_METRICS, passed=True, correlation=None, weight_quality_metrics={}, liquidity_metrics={},
                  custom_stats={}, factor_pnl=[0.1, -0.2], per_column_stats={"c": {}}, is_pnl_mi=0.25)
    values.update(overrides)
    return types.SimpleNamespace(**{k: v for k, v in values.items() if v is not Ellipsis})


class MemoryTracker:
    """A tracker without a store connection, recording calls and whether `lock` was held."""

    def __init__(self, eval_id="eval-1", record_error=None, stats=None, with_stats=True, count=None):
        self.eval_id, self.record_error, self.stats, self.count = eval_id, record_error, stats, count
        self.records, self.enqueued, self.lock_seen, self.active, self.retries = [], [], [], [], []
        self.enqueue_error = self.lock = None
        if with_stats:
            self.get_search_stats = self._get_search_stats

    def set_search_active(self, flag):
        self.active.append(flag)

    def get_evaluation_count(self):
        return self.count

    def _get_search_stats(self):
        if isinstance(self.stats, BaseException):
            raise self.stats
        return self.stats

    def _held(self):
        return self.lock is not None and f"owner={threading.get_ident()}" in repr(self.lock)

    def record_signal_evaluation(self, *args, **kwargs):
        self.records.append((args, kwargs))
        self.lock_seen.append(self._held())
        if self.record_error is not None:
            raise self.record_error
        return self.eval_id

    def enqueue_submission(self, *args):
        self.lock_seen.append(self._held())
        if self.enqueue_error is not None:
            raise self.enqueue_error
        self.enqueued.append(args)

    def enqueue_retry(self, *args, **kwargs):
        self.retries.append(("enqueue_retry", args, kwargs))

    def increment_retry(self, *args, **kwargs):
        self.retries.append(("increment_retry", args, kwargs))


class PersistentTracker(MemoryTracker):
    def __init__(self, **kw):
        super().__init__(**kw)
        self._conn = object()


class FakeBacktester:
    """Evaluation runtime; each evaluation advances `clock` by `eval_seconds`. With
    `passes=False` every backtest yields nothing (the runtime is unavailable)."""

    def __init__(self, stats=None, clock=None, eval_seconds=0.001, eval_error=None, backtest_error=None, passes=True):
        self.stats = (make_stats() if stats is None else stats) if passes else None
        self.clock, self.eval_seconds = clock, eval_seconds
        self.eval_error, self.backtest_error = eval_error, backtest_error
        self.calls, self.init_calls = [], []

    def init_reconstruction(self, shuffle_blob=None, wallet_secret=None, era_id=None):
        self.init_calls.append((shuffle_blob, wallet_secret, era_id))

    def evaluate_expression(self, graph):
        self.calls.append("evaluate_expression")
        if self.clock is not None:
            self.clock.now += self.eval_seconds
        if self.eval_error is not None:
            raise self.eval_error

    def run_backtest(self, graph):
        self.calls.append("run_backtest")
        if self.backtest_error is not None:
            raise self.backtest_error
        return self.stats


class FakeClock:
    now = 1000.0

    def __call__(self):
        return self.now


class EraConfig:
    """Era configuration in its object form; other keywords set further fields."""

    def __init__(self, era_id=3, thresholds=None, budget=5.0, pools=("pool-a",), rules=(), **fields):
        self.era_id = era_id
        self.thresholds = dict(THRESHOLDS, demean="Cross_Sectional", normalise=None) if thresholds is None \
            else thresholds
        self.max_expression_generation_seconds = budget
        self.signal_pools = [{"signal_pool_id": p} for p in pools]
        self.column_threshold_rules = list(rules)
        self.transform_pipeline, self.max_depth = ["demean", "normalise"], 4
        self.__dict__.update(fields)


def era_dict(budget=5.0, **extra):
    """Era configuration in its record form."""
    return dict({"era_id": 3, "thresholds": dict(THRESHOLDS), "max_expression_generation_seconds": budget,
                 "signal_pools": [{"signal_pool_id": "pool-a"}]}, **extra)


def analytics_module(pool_configs=("cfg",), engine_error=None):
    """Stand-in for tarnwicket.search_analytics; `mod.resolved` lists the era configs it was asked about."""
    mod = types.ModuleType("tarnwicket.search_analytics")
    mod.resolved = []

    @dataclass
    class SearchStatsResult:
        total_evaluations: int = 0
        rows: list = field(default_factory=list)

    class SearchAnalytics:
        def __init__(self, tracker, pool_configs):
            if engine_error is not None:
                raise engine_error
            self.tracker, self.pool_configs, self.calls = tracker, pool_configs, 0

        def get_search_stats(self):
            self.calls += 1
            return SearchStatsResult(total_evaluations=self.calls)

    def _resolve_pool_configs(*, era_config):
        mod.resolved.append(era_config)
        if isinstance(pool_configs, BaseException):
            raise pool_configs
        return list(pool_configs)

    mod.SearchStatsResult, mod.SearchAnalytics, mod._resolve_pool_configs = (
        SearchStatsResult, SearchAnalytics, _resolve_pool_configs)
    return mod


class AuthError(Exception):
    def __init__(self, message, reason=None):
        super().__init__(message)
        if reason is not None:
            self.reason = reason


class FakeAuth:
    def __init__(self, token="tok-1", wallet_secret=b"w" * 32):
        self.token, self.wallet_secret, self.error, self.calls = token, wallet_secret, None, 0

    def get_token(self):
        self.calls += 1
        if self.error is not None:
            raise self.error
        return self.token


def module(name, **attrs):
    mod = types.ModuleType(name)
    mod.__dict__.update(attrs)
    return mod


@dataclass
class ClientResult:
    status_code: int = 200
    error: Any = None
    body: Any = None
    submission_id: Any = "sub-1"


class SubmissionRejectedError(Exception):
    def __init__(self, status_code, error, details, body=None):
        super().__init__(status_code, error)
        self.status_code, self.reason, self.details, self.body = status_code, error, details, body


class SubmissionStatus:
    def __init__(self, *args, **kwargs):
        self.args, self.kwargs = args, kwargs


def submit_module(call_error=None, with_close=True):
    """Stand-in for tarnwicket.submit; `mod.clients` keeps every client built, `mod.result` is what calls return."""
    mod = module("tarnwicket.submit", clients=[], result=ClientResult(), SubmissionStatus=SubmissionStatus,
                 SubmissionRejectedError=SubmissionRejectedError,
                 SubmissionReceipt=lambda submission_id: types.SimpleNamespace(submission_id=submission_id))

    class SignalServiceClient:
        def __init__(self, server_url, token, timeout=30.0):
            self.server_url, self.token, self.timeout = server_url, token, timeout
            self.submitted, self.polled, self.closed = [], [], 0
            mod.clients.append(self)

        def _answer(self, log, value):
            log.append(value)
            if call_error is not None:
                raise call_error
            return mod.result

        def submit_signal(self, **kwargs):
            return self._answer(self.submitted, kwargs)

        def get_signal_status(self, submission_id):
            return self._answer(self.polled, submission_id)

    if with_close:
        def close(self):
            self.closed += 1

        SignalServiceClient.close = close
    mod.SignalServiceClient = SignalServiceClient
    return mod


def install_service(monkeypatch, st):
    """Stand-ins for the submit, auth and onboarding modules, configured and logged in, put in place
    with `monkeypatch`; `s.use_submit(**kw)` swaps in another submit module."""
    s = types.SimpleNamespace(auth=FakeAuth(), submit=submit_module())
    s.onboarding = module("tarnwicket.agent_onboarding", _config={"server_url": "http://127.0.0.1:8765"},
                          _auth_manager=s.auth)
    monkeypatch.setitem(sys.modules, "tarnwicket.submit", s.submit)
    monkeypatch.setitem(sys.modules, "tarnwicket.auth", module("tarnwicket.auth", AuthError=AuthError))
    monkeypatch.setitem(sys.modules, "tarnwicket.agent_onboarding", s.onboarding)
    for name in ("_library_runtime", "_auth"):
        monkeypatch.delattr(st, name, raising=False)

    def use_submit(**kw):
        s.submit = submit_module(**kw)
        monkeypatch.setitem(sys.modules, "tarnwicket.submit", s.submit)

    s.use_submit = use_submit
    return s
