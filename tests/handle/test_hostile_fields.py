"""Handle fields and arguments that a host set to values the handle never makes itself."""

import collections
import logging
import sys
import threading

import pytest

import tarnwicket.search_templates as st
from fakes.handle_fields import CountdownEvent, FakeThread, bare_handle, join_new_threads
from fakes.runtime import wait_until


@pytest.fixture
def started():
    """Worker ids seen by `_worker_loop`; every thread the test starts is joined afterwards."""
    before = set(threading.enumerate())
    ids = []
    yield ids
    assert not join_new_threads(before), "threads left running"


class HugeList(list):
    def __len__(self):
        return sys.maxsize


class TestWorkerLists:
    def test_restart_ids_past_the_largest_c_size(self, started):
        h = bare_handle(_worker_threads=HugeList(), _worker_loop=started.append)
        st._restart_worker(h, 2)
        assert wait_until(lambda: sorted(started) == [sys.maxsize, sys.maxsize + 1])

    @pytest.mark.parametrize("call", [
        lambda h: st._spawn_worker(h, 3),
        lambda h: st._restart_worker(h, 1),
    ])
    def test_worker_list_of_another_type_is_appended_to(self, started, call):
        h = bare_handle(_worker_threads=collections.deque(), _n_jobs=1, _worker_loop=started.append)
        call(h)
        assert len(h._worker_threads) == 1 and wait_until(lambda: len(started) == 1)

    def test_worker_name_keeps_any_text_of_its_id(self, started):
        h = bare_handle(_worker_loop=started.append)
        st._spawn_worker(h, WeirdId(4))
        assert h._worker_threads[0].name == "worker_id\udc80"

    def test_event_type_that_cannot_be_encoded_is_no_event(self):
        h = bare_handle(_worker_threads=[FakeThread()])
        h._on_era_change("kill\udc80", None)
        h._on_era_change(b"kill", None)
        assert len(h._worker_threads) == 1
        h._on_era_change(Texty("kill"), None)
        assert h._worker_threads == []


class WeirdId(int):
    def __format__(self, spec):
        return "id\udc80"


class Texty(str):
    pass


class TestFailureAccounting:
    def test_errors_of_another_type_are_appended_to(self):
        h = bare_handle(_errors=collections.deque())
        h._append_error("x")
        h._record_background_failure("polling", "loop", RuntimeError("y"))
        assert list(h._errors) == ["x", "polling loop failed (RuntimeError): y"]

    def test_message_keeps_text_that_cannot_be_encoded(self):
        h = bare_handle()
        h._record_background_failure("submission", "op\udc80", ValueError("bad \udcff"))
        assert h._errors == ["submission op\udc80 failed (ValueError): bad \udcff"]
        assert h._submission_failures == 1

    @pytest.mark.parametrize("n_jobs, expected", [
        (2**70, [("restart", 2**70 - 1)]),
        (-(2**63), [("probe", -1)]),
        (2.0, [("restart", 1.0)]),
    ])
    def test_dead_count_is_the_hosts_arithmetic(self, monkeypatch, n_jobs, expected):
        calls = []
        monkeypatch.setattr(st, "_restart_worker", lambda hd, count: calls.append(("restart", count)))
        monkeypatch.setattr(st, "_spawn_worker", lambda hd, wid: calls.append(("probe", wid)))
        h = bare_handle(_n_jobs=n_jobs, _stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                        _worker_threads=[FakeThread(alive=True)])
        h._supervisor_loop_inner()
        assert calls == expected

    @pytest.mark.parametrize("field", ["_era_failures", "_sync_failures"])
    def test_restart_counts_beyond_c_integers_reach_the_threshold(self, monkeypatch, field):
        monkeypatch.setattr(st, "_spawn_worker", lambda hd, wid: None)
        monkeypatch.setattr("tarnwicket.callbacks.emit_event", lambda **kw: None)
        failing = FakeThread(alive=False)
        sync = type("Sync", (), {"is_alive": lambda self: 1 / 0})()

        def broken():
            raise RuntimeError("no thread")

        h = bare_handle(_stop_event=CountdownEvent(3), _interruptible_wait=lambda ev, t: False,
                        _era_thread=failing, _build_era_thread=broken, _sync_mgr=sync, **{field: 2**64})
        h._supervisor_loop_inner()
        assert h._fatal_error.message == "Background infrastructure failed permanently"
        assert h.__dict__[field] == 2**64 + 1


def test_template_crash_text_keeps_the_worker_id(make_handle, caplog):
    h = make_handle(bt=None)

    def template(ctx):
        h._stop_event.set()
        raise RuntimeError("boom \udc80")

    h._template = template
    with caplog.at_level(logging.WARNING, logger="tarnwicket.search_templates"):
        h._worker_loop_inner("w\udc80")
    assert "Template sandbox violation in worker w\udc80: boom \udc80" in [r.getMessage() for r in caplog.records]
    assert h._crash_count == 1


def test_permanent_failure_text_that_cannot_be_encoded(make_handle, monkeypatch):
    class EraData:
        def initialize(self, *args):
            raise RuntimeError("era mismatch \udc80")

    monkeypatch.setattr(st, "era_data", EraData(), raising=False)
    monkeypatch.setattr("tarnwicket.callbacks.emit_event", lambda **kw: None)
    h = make_handle()
    assert h._fatal_error.message == "Background infrastructure failed permanently: era mismatch \udc80"
    assert h._worker_threads == []


def test_replacement_pattern_keeps_the_owner_text(monkeypatch):
    statements = []

    class Conn:
        def execute(self, sql, params):
            statements.append(params)

        def commit(self):
            pass

    tracker = type("T", (), {"_conn": Conn()})()
    h = bare_handle(_tracker=tracker, _tracker_uses_persistent_store=True, _submission_owner="o\udc80",
                    _submission_claim_columns_ready=True, _retry_claim_columns_ready=True)
    h._abort_for_replacement()
    assert statements == [('%"_submission_owner": "o\udc80"%', "o\udc80")] * 2


def test_row_schema_error_text_that_cannot_be_encoded():
    err = st.RowSchemaError("queue\udc80", ["b", "a"], row_id="r\udc80")
    assert str(err) == "queue\udc80 row 'r\\udc80' payload_json schema violation; missing keys: a, b"
