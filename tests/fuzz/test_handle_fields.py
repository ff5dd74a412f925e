"""Handle methods on handles whose fields a host replaced with hostile objects.

Property: each call returns or raises an ordinary exception (never SystemError),
starts no thread that outlives the example, and on sane fields still gives the
right answer.
"""

import tempfile
import threading

import pytest
from hypothesis import given, strategies as hs

import tarnwicket.search_templates as st
import tarnwicket.callbacks as callbacks
from fakes.handle_fields import (CountdownEvent, FakeThread, IntSub, Liar, bare_handle, hostile, join_new_threads,
                                 numbers, texts)

SEED_DIR = tempfile.mkdtemp(prefix="tw-seed-")
with open(SEED_DIR + "/shuffle_seed.enc", "wb") as fh:
    fh.write(b"s" * 60)


@pytest.fixture(autouse=True, scope="module")
def no_event_files():
    """A fatal error emits an event into `_data_dir`; hostile directories must not get files."""
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(callbacks, "emit_event", lambda **kw: None)
        yield


def settle(call):
    """Runs `call`; an ordinary exception is an answer, SystemError is a defect."""
    before = set(threading.enumerate())
    try:
        return call()
    except SystemError:
        raise
    except Exception:
        return None
    finally:
        assert not join_new_threads(before), "threads left running"
        with st._search_active_lock:
            st._search_active = False
            st._active_search_handle = None


STATUS_FIELDS = ["_fatal_error", "_start_time", "_total_evaluated", "_errors", "_n_jobs", "_running",
                 "_crash_count", "_lock", "_tracker_uses_persistent_store", "_submission_queued"]
ACCOUNTING_FIELDS = ["_submission_failures", "_polling_failures", "_submission_backoff_seconds",
                     "_polling_backoff_seconds", "_errors", "_crash_count", "_submission_degraded",
                     "_polling_degraded", "_lock"]
SHUTDOWN_FIELDS = ["_stopped", "_stop_event", "_worker_threads", "_supervisor_thread", "_era_thread",
                   "_sync_mgr", "_submission_queue", "_queue_empty", "_retry_queue", "_pending_submissions",
                   "_tracker", "_tracker_uses_persistent_store", "_submission_owner", "_submission_wakeup",
                   "_replacement_abort_event", "_submission_start_lock"]


def fields_from(names):
    return hs.dictionaries(hs.sampled_from(names), hostile(), max_size=4)


@given(fields=fields_from(STATUS_FIELDS))
def test_status_and_counts(fields):
    h = bare_handle(**fields)
    settle(h.status)
    settle(h._update_submission_counts)


@given(fields=fields_from(["_submission_queue", "_pending_submissions", "_retry_queue", "_lock"]))
def test_update_submission_counts(fields):
    settle(bare_handle(**fields)._update_submission_counts)


@given(fields=fields_from(ACCOUNTING_FIELDS), component=texts(), operation=hostile(), exc=hostile(),
       backoff=hostile())
def test_failure_accounting(fields, component, operation, exc, backoff):
    h = bare_handle(**fields)
    settle(lambda: h._record_background_failure(component, operation, exc, backoff))
    settle(lambda: h._reset_background_failures(component))
    settle(lambda: h._append_error(operation))


@given(fields=fields_from(["_lock", "_data_dir"]), code=hostile(), advice=hostile(), message=hostile())
def test_set_fatal_error(fields, code, advice, message):
    settle(lambda: bare_handle(**fields)._set_fatal_error(code, advice, message))


def bounded_counts():
    """Counts a spawning call may get: small, beyond any C integer, or not integers at all."""
    return hs.one_of(hs.integers(-3, 3), hs.sampled_from([2**64, -(2**70), 10**100, 1.5, float("nan"), None, "2"]),
                     hs.builds(IntSub, hs.integers(-2, 3)), hs.just("raise").map(Liar))


@given(fields=fields_from(["_stopped", "_worker_threads", "_worker_start_event", "_worker_start_count"]),
       n_jobs=bounded_counts(), event_type=hs.one_of(texts(), hostile()), data=hs.data())
def test_on_era_change(fields, n_jobs, event_type, data):
    h = bare_handle(_n_jobs=n_jobs, **fields)
    if data.draw(hs.booleans()):
        # Threads that empty or replace the handle's list while it is walked.
        def shrink():
            h._worker_threads = data.draw(hostile()) if isinstance(h._worker_threads, list) else []
        h._worker_threads = [FakeThread(hook=shrink) for _ in range(3)]
    settle(lambda: h._on_era_change(event_type, None))


@given(worker_id=hs.one_of(numbers(), texts(), hostile()), threads=hostile())
def test_spawn_worker(worker_id, threads):
    h = bare_handle(_worker_threads=threads)
    settle(lambda: st._spawn_worker(h, worker_id))


@given(count=bounded_counts(), threads=hostile())
def test_restart_worker(count, threads):
    h = bare_handle(_worker_threads=threads)
    settle(lambda: st._restart_worker(h, count))


@given(fields=fields_from(["_n_jobs", "_worker_threads", "_era_failures", "_sync_failures", "_era_thread",
                           "_sync_mgr", "_submission_thread", "_submission_degraded", "_running"]),
       threshold=hostile())
def test_supervisor_pass(fields, threshold):
    calls = []
    h = bare_handle(_stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                    _build_era_thread=lambda: FakeThread(alive=False), _submission_loop=lambda: None, **fields)
    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "_restart_worker", lambda hd, count: calls.append(("restart", count)))
        mp.setattr(st, "_spawn_worker", lambda hd, wid: calls.append(("probe", wid)))
        mp.setattr(st, "_INFRASTRUCTURE_FAILURE_THRESHOLD", threshold)
        settle(h._supervisor_loop_inner)


@given(fields=fields_from(SHUTDOWN_FIELDS), join_timeout=hs.one_of(hs.sampled_from([0, 0.01]), hostile()))
def test_stop_abort_and_finaliser(fields, join_timeout):
    h = bare_handle(**fields)
    settle(h._abort_for_replacement)
    h = bare_handle(**fields)
    settle(lambda: h.stop(join_timeout=join_timeout))
    settle(bare_handle(**fields).__del__)


class FakeConn:
    """A store connection whose answers (rows, rowcount) are whatever was drawn."""

    def __init__(self, rows, dialect, rowcount=1):
        self.rows, self.dialect, self.statements, self.rowcount = rows, dialect, [], rowcount

    def execute(self, sql, params=()):
        self.statements.append(sql)
        return self

    def fetchall(self):
        return self.rows

    def fetchone(self):
        return self.rows[0] if isinstance(self.rows, list) and self.rows else self.rows

    def commit(self):
        pass


ROW = hs.one_of(hostile(), hs.tuples(*[hs.one_of(numbers(), texts(), hostile())] * 9))


@given(rows=hs.one_of(hostile(), hs.lists(hs.one_of(hostile(), hs.tuples(hostile(), hostile()), ROW), max_size=3)),
       dialect=hs.one_of(hs.just("postgres"), hostile()), table=hs.one_of(texts(), hostile()),
       rowcount=hs.one_of(hs.just(1), hostile()), payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_owner",
                           "_submission_claim_columns_ready", "_retry_claim_columns_ready", "_errors", "_lock",
                           "_finished_queue_ids", "_retry_queue", "_pending_receipts_by_queue_id",
                           "_submission_queue", "_submission_wakeup", "_submission_discarded"]))
def test_claim_helpers(rows, dialect, table, rowcount, payload, fields):
    tracker = type("T", (), {})()
    tracker._conn = FakeConn(rows, dialect, rowcount)
    h = bare_handle(**{"_tracker_uses_persistent_store": True, **fields, "_tracker": tracker})
    settle(lambda: h._persistent_table_columns(table))
    settle(h._ensure_submission_claim_columns)
    settle(h._ensure_retry_claim_columns)
    settle(h._peek_submission_payload)
    settle(h._peek_retry_payload)
    settle(lambda: h._payload_from_tracker_item(payload))
    settle(lambda: h._source_sql_predicates(payload, table, rowcount, require_owner=payload))
    settle(lambda: h._delete_claimed_submission_source(payload))
    settle(lambda: h._delete_submission_queue_item(rowcount))
    settle(h._has_in_memory_submission_work)
    settle(lambda: h._enqueue_retry_payload(payload, table, retry_after=rowcount))
    settle(lambda: h._move_claimed_queue_to_retry(payload, table, table, rowcount))
    settle(lambda: h._update_claimed_retry_payload(payload, table, table, rowcount, rowcount))
    settle(lambda: h._defer_claimed_retry_payload(payload, rowcount, table))
    settle(lambda: h._defer_claimed_queue_payload(payload))
    settle(lambda: h._finalize_retry_exhausted_payload(payload, table))


@given(message=texts(), data_dir=hs.one_of(texts(), hostile()))
def test_per_era_init_failure_texts(message, data_dir):
    class EraData:
        def initialize(self, *args):
            raise RuntimeError(message)

    era = type("Era", (), {"era_id": 3})()
    auth = type("Auth", (), {"wallet_secret": b"w" * 32})()
    h = bare_handle(_era_config=era, _auth=auth, _data_dir=SEED_DIR, _era_data_mod=EraData())
    settle(h._do_per_era_init)
    text = str(RuntimeError(message))
    fatal = "vault already initialized" not in text and ("era mismatch" in text or "invalid credentials" in text)
    assert (h._fatal_error is not None) == fatal
    if fatal:
        assert h._fatal_error.message == "Background infrastructure failed permanently: " + text
    settle(bare_handle(_era_config=era, _auth=auth, _data_dir=data_dir)._do_per_era_init)


@given(timeout=hs.one_of(hs.sampled_from([0, -1.0, float("nan"), 2**2000, "x", None]), hostile()))
def test_interruptible_wait(timeout):
    ev = threading.Event()
    ev.set()
    settle(lambda: st._SearchHandleImpl._interruptible_wait(ev, timeout))


@given(n_jobs=hostile(),
       count=hostile(), worker_id=hostile())
def test_worker_loop_with_stop_set(n_jobs, count, worker_id):
    ev = threading.Event()
    ev.set()
    h = bare_handle(_n_jobs=n_jobs, _worker_start_count=count, _stop_event=ev)
    del h._worker_loop  # the real loop, which returns at once on the set event
    settle(lambda: h._worker_loop(worker_id))
    settle(lambda: h._worker_loop_inner(worker_id))


@given(outcome=hs.sampled_from([ConnectionError("down"), ValueError("bad"), None]), status=hostile(),
       details=hostile(), payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_backoff_seconds",
                           "_submission_queue", "_submission_wakeup", "_finished_queue_ids", "_lock", "_errors",
                           "_submission_start_lock", "_tracker"]))
def test_submit_payload(outcome, status, details, payload, fields):
    from tarnwicket.submit import SubmissionRejectedError

    def send(p):
        raise outcome if outcome is not None else SubmissionRejectedError(status, details, details)

    with pytest.MonkeyPatch.context() as mp:
        mp.setattr(st, "_submit_signal_payload", send)
        mp.setattr(st, "_submission_backoff_sleep", lambda seconds: None)
        h = bare_handle(**fields)
        settle(lambda: h._submit_payload(payload))
        settle(lambda: h._ensure_submission_idempotency_key(payload))
        settle(lambda: h._drop_replacement_aborted_payload(payload, details))


@given(payload=hs.one_of(hostile(), hs.dictionaries(texts(), hostile())), receipt=hostile(), rows=hostile(),
       fields=fields_from(["_tracker_write_lock", "_tracker_uses_persistent_store", "_submission_owner", "_lock",
                           "_pending_submissions", "_total_found", "_submission_backoff_seconds"]))
def test_receipt_recording(payload, receipt, rows, fields):
    tracker = type("T", (), {})()
    tracker._conn = FakeConn(rows, "sqlite", rows)
    h = bare_handle(**{"_tracker_uses_persistent_store": True, **fields, "_tracker": tracker})
    settle(lambda: h._record_submission_and_delete_queue(payload, receipt))
    settle(lambda: h._finalize_persisted_receipt(payload, receipt))
    with tempfile.TemporaryDirectory() as data_dir:
        h._data_dir = data_dir
        settle(lambda: h._append_receipt_journal(payload, receipt))
        settle(lambda: h._receipt_journal_file_path(payload))
        settle(h._replay_receipt_journal)
        settle(lambda: h._journal_source_still_matches(payload))
        settle(lambda: h._rewrite_receipt_journal_without(h._receipt_journal_key_for_payload(payload, receipt)))
