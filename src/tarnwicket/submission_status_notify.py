"""The one writer of submission status changes."""

from __future__ import annotations

import logging

logger = logging.getLogger(__name__)

TERMINAL_STATUSES = frozenset(
    {"found", "useful", "is_rejected", "not_useful", "os_failed", "useful_transition_failed"}
)


def notify_submission_status(
    submission_id,
    status,
    tracker=None,
    data_dir=None,
    rejection_reason=None,
    require_tracker=True,
    is_stats_json=None,
    payment_json=None,
    payment=None,
    signal_pool_id=None,
    is_correlation=None,
    is_pnl_mi=None,
    agent_is_pnl_mi=None,
    is_weights_mi=None,
    failure_reason=None,
    failure_detail=None,
) -> None:
    """Write a status change of ``submission_id`` into ``submission_status``.

    Uses ``tracker``, or a tracker opened on ``data_dir`` for this one call. A
    terminal status also stamps ``finalized_at``. With ``require_tracker`` a
    write that can't happen raises (RuntimeError without a tracker, LookupError
    for an unknown submission); otherwise it is logged and skipped.
    """
    if not isinstance(submission_id, str) or not submission_id:
        raise ValueError("submission_id must be a non-empty string")
    if not isinstance(status, str) or not status:
        raise ValueError("status must be a non-empty string")

    own_tracker = None
    if tracker is None and data_dir:
        from tarnwicket.search_tracking import SearchTracker

        tracker = own_tracker = SearchTracker(data_dir)
    try:
        writer = getattr(tracker, "update_submission_status", None) if tracker is not None else None
        if not callable(writer):
            message = (
                f"no tracker to record status {status!r} of submission {submission_id}"
                if tracker is None
                else f"tracker {type(tracker).__name__} can't record submission status"
            )
            if require_tracker:
                raise RuntimeError(message)
            logger.warning("%s; skipped", message)
            return None
        written = writer(
            submission_id,
            status,
            rejection_reason=rejection_reason,
            is_stats_json=is_stats_json,
            payment_json=payment_json,
            payment=payment,
            signal_pool_id=signal_pool_id,
            is_correlation=is_correlation,
            is_pnl_mi=is_pnl_mi,
            agent_is_pnl_mi=agent_is_pnl_mi,
            is_weights_mi=is_weights_mi,
            failure_reason=failure_reason,
            failure_detail=failure_detail,
        )
        if not written:
            message = f"no submission_status row for submission {submission_id}"
            if require_tracker:
                raise LookupError(message)
            logger.warning("%s; status %r not recorded", message, status)
            return None
        logger.debug("submission %s status %s", submission_id, status)
        return None
    finally:
        if own_tracker is not None:
            own_tracker.close()
