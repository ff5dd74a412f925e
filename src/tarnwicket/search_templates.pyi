"""Types of the search engine (the extension module ``tarnwicket.search_templates``)."""

import logging
from collections.abc import Callable, Iterator, Mapping
from dataclasses import dataclass, field
from typing import Any, TypeAlias

from tarnwicket.errors import SdkRuntimeNotReadyError as SdkRuntimeNotReadyError
from tarnwicket.obfuscation import ObfuscationManager as ObfuscationManager
from tarnwicket.submission_status_notify import notify_submission_status as notify_submission_status
from tarnwicket.sync import SyncManager as SyncManager

_Graph: TypeAlias = dict[str, Any]
_Template: TypeAlias = Callable[[SearchContext], Iterator[_Graph] | _Graph | None]

ERA_POLL_INTERVAL: float
POLLING_INTERVAL: float
SUBMISSION_POLL_INTERVAL: float
SUBMISSION_QUEUE_LEASE_SECONDS: float
SUPERVISOR_HEALTH_CHECK_INTERVAL: float
SYNC_POLL_INTERVAL: float
logger: logging.Logger

@dataclass
class SearchStatus:
    """Current search state snapshot (23 fields)."""

    running: bool = False
    """True while the search's threads run."""
    n_jobs: int = 0
    """Worker threads the search was started with."""
    total_evaluated: int = 0
    """Expressions evaluated, counting those already in the store when the search began."""
    total_found: int = 0
    """Evaluations of this search that passed every rule."""
    signals_per_hour: float = 0.0
    """Evaluations per hour since the start (despite the name, evaluations, not passes)."""
    elapsed_seconds: float = 0.0
    """Seconds since the search started."""
    memory_usage_mb: float = 0.0
    """Peak resident memory of the process, in MB."""
    batch_tier: str = ""
    """Batch tier of the search ("full")."""
    t_batch: int = 0
    """Batch size of the tier (1000)."""
    era: str = ""
    """The era the search runs in."""
    errors: list[str] = field(default_factory=list)
    """Recent background failures, newest last (a copy)."""
    crash_count: int = 0
    """Worker threads that died and were replaced."""
    sync_progress: float | None = None
    """Progress of a running data sync, 0 to 1, or None."""
    error_code: str | None = None
    """The code of the fatal error, in the status carried by a SearchError."""
    recovery_advice: str | None = None
    """What to do about that error."""
    submission_queued: int = 0
    """Passing signals waiting to be sent."""
    submission_pending: int = 0
    """Sent signals whose review has not ended."""
    submission_accepted: int = 0
    """Reviews that ended in acceptance."""
    submission_rejected: int = 0
    """Reviews that ended in rejection."""
    submission_retrying: int = 0
    """Signals waiting to be sent again after a refusal."""
    submission_discarded: int = 0
    """Signals given up after too many refusals."""
    submission_backoff: bool = False
    """True while the submission thread waits out a network failure."""
    last_poll_time: float | None = None
    """Wall-clock time of the last status poll, or None."""

@dataclass
class BacktestResult:
    """Result from expression evaluation."""

    expression: _Graph = field(default_factory=dict)
    passed: bool = False
    stats: Any = None
    factor_pnl: Any = None
    per_column_stats: Any = None
    portfolio_returns: Any = None
    processed_weights: Any = None
    mi_score: Any = None
    mi_passed: Any = None
    submitted: bool = False
    structural_failed: bool = False

class SearchError(Exception):
    """Raised when a fatal error occurs during search."""

    error_code: str
    recovery_advice: str
    message: str
    status: SearchStatus | None
    def __init__(self, error_code: str, recovery_advice: str, message: str, status: SearchStatus | None) -> None: ...

class TemplateSandboxViolation(RuntimeError):
    """Raised when template code attempts forbidden direct system access."""

class SubmissionProtocolError(RuntimeError):
    """Raised when a successful submission response violates the client protocol."""

class RowSchemaError(ValueError):
    """A stored submission row whose payload lacks the keys a submission needs."""

    def __init__(self, source_kind: str, missing: Any = ..., row_id: Any = None, message: str | None = None) -> None: ...

class VocabSchemaError(ValueError):
    """A vocabulary entry that breaks the canonical contract (missing or unexpected fields)."""

    def __init__(self, source_kind: str, missing: Any = ..., unexpected: Any = ..., entry: Any = None,
                 message: str | None = None) -> None: ...

class SearchContext:
    """Context passed to template functions."""

    def __init__(self, vocab: Mapping[str, Any], universe: str, metaparams: Mapping[str, Any], depth: int,
                 tracker: Any, sync_mgr: Any, bt: Any, thresholds: Mapping[str, Any] | None = None,
                 era_config: Any = None, fatal_callback: Callable[..., Any] | None = None,
                 submission_queue: Any = None, tracker_write_lock: Any = None, submission_wakeup: Any = None,
                 stop_event: Any = None, submission_owner: str | None = None,
                 replacement_abort_event: Any = None) -> None: ...
    @property
    def vocabulary(self) -> dict[str, Any]: ...
    @property
    def universe_id(self) -> str: ...
    @property
    def metaparameters(self) -> dict[str, Any]: ...
    @property
    def max_depth(self) -> int: ...
    @property
    def analytics(self) -> Any: ...
    def refresh_analytics(self) -> Any: ...
    def evaluate(self, expr_graph: _Graph) -> BacktestResult | None: ...

class SearchHandle:
    """Concrete SearchHandle returned by search()."""

    def __init__(self, template: _Template, n_jobs: int, tracker: Any, sync_mgr: Any, bt: Any, obf: Any,
                 era_cfg: Any, auth_mock: Any, data_dir: str | None = None) -> None: ...
    def __del__(self) -> None: ...
    def stop(self, join_timeout: float = 2.0) -> None:
        """Stop all workers. Blocks until clean shutdown."""
    def status(self) -> SearchStatus:
        """Return SearchStatus snapshot. Raises SearchError on fatal."""

def search(template: _Template, n_jobs: int = 1) -> SearchHandle:
    """Start search with given template. Returns SearchHandle immediately."""

def status() -> SearchStatus:
    """Return the active search's status snapshot."""

def random_weighted(ctx: SearchContext) -> Iterator[_Graph]:
    """Built-in template: yields random expression graphs over the era's vocabulary."""

def analyze_random_weighted(ctx: Any) -> dict[str, Any]:
    """What random_weighted would use for this context."""

def delete_evaluations(eval_type: str | None = None, keep_last: int = 50000) -> int:
    """Delete old evaluations from tracking DB. Blocked while search active."""

def delete_failed_evaluations(eval_type: str | None = None) -> int:
    """Delete failed evaluations from tracking DB. Blocked while search active."""

def get_db_info() -> dict[str, Any]:
    """Return database size and row-count information."""

def inject_heartbeat() -> None:
    """Inject heartbeat during search startup."""

def submit_signal(graph: _Graph, universe_id: str, signal_pool_id: str, is_stats: Mapping[str, Any],
                  is_pnl_mi: float, expression_elapsed_seconds: float, *,
                  metaparameters: Mapping[str, Any] | None = None,
                  search_state: Mapping[str, Any] | None = None) -> Any:
    """Submit one signal to the signal service; returns a SubmissionReceipt."""

def poll_status(submission_id: str) -> Any:
    """Poll the signal service for a submission's status."""
