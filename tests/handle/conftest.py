import pytest

import tarnwicket.search_templates as st
from tarnwicket.search_tracking import SearchTracker
from fakes.runtime import EraConfig, FakeAuth, FakeBacktester, FakeObfuscation, MemoryTracker


@pytest.fixture
def make_handle(seed_dir):
    """Builds handles with fakes; every handle made is stopped afterwards."""
    made = []

    def build(template=None, n_jobs=1, tracker=None, sync_mgr=None, bt="default", obf=None, era_cfg="default",
              auth="default", data_dir="default"):
        h = st._SearchHandleImpl(
            template=template or (lambda ctx: None),
            n_jobs=n_jobs,
            tracker=tracker if tracker is not None else MemoryTracker(),
            sync_mgr=sync_mgr,
            bt=FakeBacktester(passes=False) if bt == "default" else bt,
            obf=obf or FakeObfuscation(),
            era_cfg=EraConfig() if era_cfg == "default" else era_cfg,
            auth_mock=FakeAuth() if auth == "default" else auth,
            data_dir=str(seed_dir) if data_dir == "default" else data_dir,
        )
        made.append(h)
        return h

    yield build
    for h in made:
        try:
            h.stop(join_timeout=1.0)
        except Exception:
            pass


@pytest.fixture(autouse=True)
def _fresh_module_state(module_state_reset):
    yield


@pytest.fixture
def store(tmp_path, store_url):
    """A real store: SQLite, and PostgreSQL."""
    tracker = SearchTracker(str(tmp_path / "store"), store=store_url)
    yield tracker
    tracker.close()


@pytest.fixture
def h(make_handle, store):
    """A stopped handle on the real store (no thread of its own runs), whose background
    failures are collected in `h.failures`."""
    handle = make_handle(tracker=store)
    handle.stop(join_timeout=10.0)  # the tests drive the pipeline's steps themselves
    # Every thread must be gone before the stop event is cleared: one that were
    # still running would go on working beside the test.
    threads = [handle._supervisor_thread, handle._era_thread, handle._submission_thread, handle._polling_thread,
               *handle._worker_threads]
    assert not [t for t in threads if t is not None and t.is_alive()]
    handle._stop_event.clear()
    handle.failures = []
    handle._record_background_failure = lambda component, operation, exc, backoff=True: \
        handle.failures.append((component, operation, str(exc), backoff))
    return handle


@pytest.fixture
def claimed(h, store):
    """A claimed queue payload of a recorded evaluation; the handle's discovery nudges are counted in `h.nudges`."""
    from fakes.collaborators import payload

    eval_id = store.record_signal_evaluation({"type": "feature", "node": "close"}, None, 3, True, "u", {},
                                             pool_id="pool_a")
    store.enqueue_submission(payload(eval_id, era_id=3)[0])
    h.nudges = []
    h._maybe_fire_discovery_rate_declining_nudge = lambda: h.nudges.append(1)
    return h._peek_submission_payload()
