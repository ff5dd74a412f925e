import logging
import threading

import tarnwicket.search_templates as st
from fakes.runtime import FakeSyncManager, wait_until


def feature_graphs(n):
    for i in range(n):
        yield {"type": "feature", "node": f"f{i}"}


class TestWorkerLoop:
    def test_every_yielded_graph_is_evaluated_and_counted(self, make_handle):
        seen = []
        lock = threading.Lock()

        def template(ctx):
            assert isinstance(ctx, st.SearchContext) and ctx.universe_id == "universe_top50"
            for g in feature_graphs(5):
                yield g
            with lock:
                seen.append(threading.current_thread().name)
            while True:
                yield {"type": "feature", "node": "again"}

        h = make_handle(template=template, n_jobs=2)
        assert wait_until(lambda: len(seen) >= 2 and h._total_evaluated >= 10)
        assert sorted(set(seen)) == ["worker_0", "worker_1"]
        h.stop()
        assert h._total_evaluated >= 10 and h._crash_count == 0

    def test_a_replaced_stop_event_is_obeyed_at_the_next_graph(self, make_handle):
        handles, resumed, built = [], [], threading.Event()

        def template(ctx):
            built.wait(5.0)
            yield {"type": "feature", "node": "first"}
            stopped = threading.Event()
            stopped.set()
            handles[0]._stop_event = stopped  # the fields are the handle's truth, read at each use
            yield {"type": "feature", "node": "second"}
            resumed.append(1)
            yield from feature_graphs(3)

        handles.append(make_handle(template=template))
        built.set()
        (worker,) = handles[0]._worker_threads
        worker.join(5.0)
        assert not worker.is_alive()
        assert (handles[0]._total_evaluated, resumed) == (1, [])

    def test_failed_evaluations_still_count(self, make_handle, caplog):
        calls = []

        def template(ctx):
            ctx.evaluate = lambda g: (calls.append(g), 1 / 0)
            yield {"type": "feature", "node": "x"}
            yield {"type": "feature", "node": "y"}

        h = make_handle(template=template)
        assert wait_until(lambda: h._total_evaluated >= 2)
        assert "Expression evaluation failed: division by zero" in caplog.text

    def test_exhausted_template_restarts_at_most_twenty_times(self, make_handle, caplog):
        caplog.set_level(logging.INFO, logger="tarnwicket.search_templates")
        calls = []

        def template(ctx):
            calls.append(1)
            return iter(())

        make_handle(template=template)
        assert wait_until(lambda: len(calls) >= 20)
        assert "Template exhausted in worker 0 \u2014 restarting" in caplog.text

    def test_crashing_template_counts_crashes(self, make_handle, caplog):
        error = st.TemplateSandboxViolation("forbidden filesystem access from search template")
        h = make_handle(template=lambda ctx: (_ for _ in ()).throw(error))
        assert wait_until(lambda: h._crash_count >= 3)
        assert "Template sandbox violation in worker 0: forbidden filesystem access" in caplog.text
        assert h.status().errors == []

    def test_template_returning_none_ends_the_worker_and_supervisor_replaces_it(self, make_handle):
        calls = []
        h = make_handle(template=lambda ctx: calls.append(threading.current_thread().name))
        assert wait_until(lambda: any(n.startswith("worker_restart_0") for n in calls), timeout=3)
        assert calls[0] == "worker_0"
        h.stop()

    def test_template_code_runs_inside_the_sandbox(self, make_handle, tmp_path):
        outcome = []

        def template(ctx):
            try:
                open(tmp_path / "x.txt", "w")
            except st.TemplateSandboxViolation as e:
                outcome.append(str(e))
            return None

        make_handle(template=template)
        assert wait_until(lambda: outcome)
        assert outcome[0] == "forbidden filesystem access from search template"


class TestModuleWorkerFunctions:
    def test_restart_ids_step_by_two(self, make_handle):
        h = make_handle(bt=None)
        started = []
        h._worker_loop = lambda wid: started.append(wid)
        h._worker_threads = [threading.Thread() for _ in range(4)]
        st._restart_worker(h, 3)
        assert [t.name for t in h._worker_threads[4:]] == ["worker_restart_0", "worker_restart_1", "worker_restart_2"]
        assert wait_until(lambda: sorted(started) == [4, 6, 8])
        assert all(t.daemon for t in h._worker_threads[4:])

    def test_spawned_worker_is_named_by_its_id_and_probe_creates_nothing(self, make_handle):
        h = make_handle(bt=None)
        h._worker_loop = lambda wid: None
        assert st._spawn_worker(h, -1) is None and h._worker_threads == []
        st._spawn_worker(h, 7)
        assert [t.name for t in h._worker_threads] == ["worker_7"]


class TestEra:
    def test_interruptible_wait(self):
        ev = threading.Event()
        assert st._SearchHandleImpl._interruptible_wait(ev, 0.01) is False
        ev.set()
        assert st._SearchHandleImpl._interruptible_wait(ev, 10.0) is True

    def test_kill_and_restart_replace_the_worker_list(self, make_handle):
        h = make_handle(bt=None)
        h._worker_loop = lambda wid: None
        h._n_jobs = 2
        first = h._worker_threads
        h._on_era_change("kill", 3)
        assert h._worker_threads == [] and h._worker_threads is not first
        h._on_era_change("restart", 3)
        assert [t.name for t in h._worker_threads] == ["worker_0", "worker_1"]
        h._on_era_change("unknown", 3)
        assert len(h._worker_threads) == 2

    def test_restart_after_stop_starts_nothing(self, make_handle):
        h = make_handle(bt=None)
        h.stop()
        h._on_era_change("restart", 3)
        assert h._worker_threads == []

    def test_the_one_transition_runs_once(self, make_handle):
        mgr = FakeSyncManager(transition=True)
        h = make_handle(template=lambda ctx: iter(()), sync_mgr=mgr)
        assert wait_until(lambda: h._era_transition_triggered, timeout=4)
        assert mgr.transitions == [3]
        assert mgr.acquired == 1 and mgr.callbacks == [h._on_era_change]
        h.stop()
        assert mgr.released == 1 and mgr.unregistered == [h._on_era_change]

    def test_era_thread_factory_is_obeyed(self, make_handle, monkeypatch):
        made = []

        def factory():
            t = threading.Thread(target=lambda: None, name="custom_era", daemon=True)
            made.append(t)
            return t

        monkeypatch.setattr(st, "_era_thread_factory", factory, raising=False)
        h = make_handle()
        assert h._era_thread is made[0]


def test_threads_are_daemons_with_their_names(make_handle):
    h = make_handle(template=lambda ctx: feature_graphs(10**9), n_jobs=2)
    threads = [h._supervisor_thread, h._era_thread, *h._worker_threads]
    assert {t.name for t in threads} == {"supervisor", "era_thread", "worker_0", "worker_1"}
    assert all(t.daemon for t in threads)
    h.stop()
    assert not any(t.is_alive() for t in threads)
