"""SignalServiceClient against the local signal service on loopback."""

import logging
import socket
import subprocess
import sys
import threading
import time

import pytest

from tarnwicket.local_signal_service import LocalSignalService
from tarnwicket.submit import SignalServiceClient

TOKEN = "tok-123"


def signal_kwargs(**over):
    kwargs = {
        "graph": {"type": "rotation", "node": "rank", "children": [{"type": "feature",
                                                                     "node": "close"}]},
        "universe_id": "universe_top50", "signal_pool_id": "pool_a",
        "is_stats": {"sharpe": 1.2}, "is_pnl_mi": 0.1, "metaparameters": None,
        "expression_elapsed_seconds": 0.5, "search_state": {}, "idempotency_key": "key-1",
    }
    kwargs.update(over)
    return kwargs


@pytest.fixture
def service():
    svc = LocalSignalService(token=TOKEN, polls_to_terminal=2).start()
    yield svc
    svc.stop()


@pytest.fixture
def client(service):
    c = SignalServiceClient(service.url, TOKEN, timeout=5.0)
    yield c
    c.close()


def test_submit_then_poll_to_terminal(service, client):
    result = client.submit_signal(**signal_kwargs())
    assert 200 <= result.status_code < 300 and result.error is None
    assert result.submission_id and result.body["submission_id"] == result.submission_id
    stored = service.get(result.submission_id)
    assert stored.body["graph"]["node"] == "rank" and stored.idempotency_key == "key-1"

    statuses = [client.get_signal_status(result.submission_id).body["status"] for _ in range(4)]
    assert statuses == ["is_validating", "is_validating", "found", "found"]
    body = client.get_signal_status(result.submission_id).body
    assert body["signal_pool_id"] == "pool_a" and body["is_stats"] == {"sharpe": 1.2}
    assert {"payment", "rejection_reason", "is_correlation", "is_pnl_mi", "agent_is_pnl_mi",
            "is_weights_mi", "failure_reason", "failure_detail"} <= set(body)


def test_outcome_hook_decides_the_terminal_status(service, client):
    service.polls_to_terminal = 0
    service.outcome = lambda sub: ("not_useful", "too correlated")
    sid = client.submit_signal(**signal_kwargs()).submission_id
    body = client.get_signal_status(sid).body
    assert (body["status"], body["rejection_reason"], body["payment"]) == (
        "not_useful", "too correlated", None)


def test_one_submission_per_idempotency_key(service, client):
    first = client.submit_signal(**signal_kwargs())
    again = client.submit_signal(**signal_kwargs())
    other = client.submit_signal(**signal_kwargs(idempotency_key="key-2"))
    reused = client.submit_signal(**signal_kwargs(is_pnl_mi=0.2))
    assert (first.status_code, again.status_code, again.body["duplicate"]) == (201, 200, True)
    assert again.submission_id == first.submission_id != other.submission_id
    assert (reused.status_code, reused.submission_id) == (409, None)
    assert service.submission_count == 2 and service.request_counts["submit"] == 4
    # key-2 carries the same signal under a second key: the service holds that body twice
    assert service.counts() == {"submissions": 2, "repeats": 1, "key_conflicts": 1, "bodies_held_twice": 1}


def test_key_derived_from_the_body_when_none_is_given(service, client):
    kwargs = signal_kwargs()
    del kwargs["idempotency_key"]
    a = client.submit_signal(**kwargs).submission_id
    b = client.submit_signal(**dict(reversed(list(kwargs.items())))).submission_id
    assert a == b
    assert service.get(a).idempotency_key == SignalServiceClient._idempotency_key_for_body(kwargs)


@pytest.mark.parametrize("fault, code, error", [
    ((403, {"error": "banned", "ban_expiry": 123.0}), 403, "banned"),
    ((422, {"message": "bad stats"}), 422, "bad stats"),
    ((500, {"error": "boom"}), 500, "boom"),
    ((503, None), 503, "injected failure 503"),
])
def test_error_answers_come_back_as_results(service, client, fault, code, error):
    service.fail_next(*fault, route="submit")
    result = client.submit_signal(**signal_kwargs())
    assert (result.status_code, result.error, result.submission_id) == (code, error, None)
    assert isinstance(result.body, dict)
    assert service.submission_count == 0


def test_bad_token_and_bad_requests(service):
    with SignalServiceClient(service.url, "wrong") as c:
        result = c.submit_signal(**signal_kwargs())
    assert (result.status_code, result.error) == (401, "invalid or missing token")
    with SignalServiceClient(service.url, TOKEN) as c:
        missing_pool = c.submit_signal(**signal_kwargs(signal_pool_id=None))
        unknown = c.get_signal_status("sub_missing")
    assert (missing_pool.status_code, missing_pool.error) == (422, "signal_pool_id is required")
    assert unknown.status_code == 404 and unknown.submission_id == "sub_missing"


def test_transport_failures_have_status_zero(service, client):
    service.fail_next(None, route="status")
    dropped = client.get_signal_status("anything")
    assert dropped.status_code == 0 and dropped.error and dropped.body is None

    with socket.socket() as s:  # a port that nobody listens on
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
    with SignalServiceClient(f"http://127.0.0.1:{port}", TOKEN, timeout=2.0) as c:
        refused = c.submit_signal(**signal_kwargs())
    assert (refused.status_code, refused.body, refused.submission_id) == (0, None, None)
    assert "refused" in refused.error.lower()


def test_timeout_is_a_transport_failure(service):
    service.set_delay(1.0)
    with SignalServiceClient(service.url, TOKEN, timeout=0.2) as c:
        result = c.submit_signal(**signal_kwargs())
    assert result.status_code == 0 and "timed out" in result.error.lower()


@pytest.mark.parametrize("status", [200, 500])
def test_an_answer_without_end_is_a_transport_failure(status):
    # a server that trickles its body, or sends more than any answer holds,
    # must not hold the caller past its timeout or fill its memory
    head = f"HTTP/1.1 {status} X\r\nContent-Type: application/json\r\nContent-Length: 999999999\r\n\r\n"

    def serve(listener, send):
        conn, _ = listener.accept()
        with conn:
            conn.recv(65536)
            conn.sendall(head.encode())
            try:
                send(conn)
            except OSError:
                pass  # the client hung up, as it should

    def trickle(conn):
        for _ in range(200):
            conn.sendall(b" ")
            time.sleep(0.02)

    def flood(conn):
        while True:
            conn.sendall(b" " * 65536)

    for send, says in ((trickle, "in time"), (flood, "larger than")):
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen()
            server = threading.Thread(target=serve, args=(listener, send), daemon=True)
            server.start()
            started = time.monotonic()
            with SignalServiceClient(f"http://127.0.0.1:{listener.getsockname()[1]}", TOKEN, timeout=0.5) as c:
                result = c.get_signal_status("sub_1")
            assert time.monotonic() - started < 3.0
            server.join(10)
        if status == 200:
            assert result.status_code == 0 and says in result.error
        else:  # an error answer keeps its status; its unreadable body is dropped
            assert (result.status_code, result.body) == (500, None)


def test_the_service_answers_malformed_requests_and_drops_idle_ones(monkeypatch, caplog):
    import tarnwicket.local_signal_service as svc_module

    monkeypatch.setattr(svc_module, "IDLE_SECONDS", 0.5)
    with LocalSignalService(token=TOKEN) as svc:
        svc.start()
        address = svc.url.split("//")[1].split(":")

        def exchange(head):
            with socket.create_connection((address[0], int(address[1])), timeout=5) as s:
                s.sendall(head)
                answer = b""
                while chunk := s.recv(65536):  # until the service hangs up
                    answer += chunk
                return answer

        for length in (b"abc", b"-5", b"1e3"):
            answer = exchange(b"POST /v1/signals HTTP/1.1\r\nHost: x\r\nContent-Length: " + length + b"\r\n\r\n{}")
            assert answer.startswith(b"HTTP/1.1 400") and b"Content-Length must be" in answer
        deep = b'{"signal_pool_id": "p", "is_stats": {}, "graph": ' + b"[" * 5000 + b"]" * 5000 + b"}"
        answer = exchange(b"POST /v1/signals HTTP/1.1\r\nHost: x\r\nConnection: close\r\nAuthorization: Bearer "
                          + TOKEN.encode() + b"\r\nIdempotency-Key: k\r\nContent-Length: %d\r\n\r\n" % len(deep) + deep)
        assert answer.startswith(b"HTTP/1.1 400") and b"nested too deeply" in answer
        started = time.monotonic()
        assert exchange(b"") == b""  # a silent client is hung up on
        assert time.monotonic() - started < 4
    assert not [r for r in caplog.records if r.levelno >= logging.WARNING]


def test_the_service_command_refuses_a_port_it_cannot_listen_on(tmp_path, capsys):
    from tarnwicket.local_signal_service import main

    with socket.socket() as taken:
        taken.bind(("127.0.0.1", 0))
        taken.listen()
        for port, says in (("70000", "port must be an int from 0 to 65535"), (str(taken.getsockname()[1]),
                                                                             "cannot listen on 127.0.0.1 port")):
            assert main(["--db", str(tmp_path / "s.db"), "--token", "t", "--port", port]) == 2
            err = capsys.readouterr().err
            assert err.count("\n") == 1 and says in err


def test_the_service_command_takes_the_token_of_a_data_directory(tmp_path, capsys):
    from tarnwicket.local.era import LocalAuth, load_or_create_wallet_secret
    from tarnwicket.local_signal_service import main

    argv = ["--db", str(tmp_path / "s.db"), "--data-dir", str(tmp_path / "d")]
    assert main(argv) == 2 and "has no local identity yet" in capsys.readouterr().err
    for empty in (["--db", "", "--token", "t"], ["--db", "s.db", "--data-dir", ""]):
        with pytest.raises(SystemExit):       # not a private store, nor the identity of the current directory
            main(empty)
        assert "expected a path, got an empty text" in capsys.readouterr().err
    (tmp_path / "d").mkdir()
    token = LocalAuth(load_or_create_wallet_secret(str(tmp_path / "d"))).get_token()
    proc = subprocess.Popen([sys.executable, "-m", "tarnwicket.local_signal_service", *argv],
                            stdout=subprocess.PIPE, text=True)
    try:
        url = proc.stdout.readline().strip()
        for key, status in ((token, 201), ("other", 401)):
            with SignalServiceClient(url, key) as c:
                assert c.submit_signal(**signal_kwargs()).status_code == status
    finally:
        proc.kill()
        proc.communicate()


def test_idempotency_key_for_body():
    key = SignalServiceClient._idempotency_key_for_body
    body = {"b": [1, 2], "a": {"y": 1, "x": object.__name__}}
    assert key(body) == key(dict(reversed(list(body.items()))))
    assert key(body) != key({**body, "b": [2, 1]})
    assert isinstance(key({"when": object()}), str)  # non-JSON values go by their text
    with pytest.raises(TypeError):
        key([1, 2])


@pytest.mark.parametrize("args, exc", [
    (("ftp://host", "t"), ValueError),
    (("localhost:8080", "t"), ValueError),
    ((8080, "t"), TypeError),
    (("http://h", None), TypeError),
    (("http://h", "t", 0), ValueError),
])
def test_client_construction_is_checked(args, exc):
    with pytest.raises(exc):
        SignalServiceClient(*args)


def test_rejection_error_exposes_the_error_text_as_reason():
    from tarnwicket.submit import SubmissionRejectedError

    err = SubmissionRejectedError(403, "banned", {"ban_expiry": 5}, body=[1])
    assert (err.status_code, err.reason, err.details, err.body) == (
        403, "banned", {"ban_expiry": 5}, [1])


def test_fault_rates_text():
    from tarnwicket.local_signal_service import FaultRates

    rates = FaultRates.parse(" drop=0.1, 5xx=0.2,401=0.05 ,403=0.05,lost=0.1,slow=0.5,slow_seconds=2,seed=7")
    assert (rates.drop, rates.lost, rates.slow, rates.slow_seconds, rates.seed) == (0.1, 0.1, 0.5, 2.0, 7)
    assert rates.codes == ((401, 0.05), (403, 0.05), (503, 0.2))
    assert FaultRates.parse("") == FaultRates()
    for bad, words in [("drop", "name=value"), ("flood=0.1", "unknown fault"), ("drop=x", "not a number"),
                       ("drop=1.5", "out of range"), ("302=0.1", "unknown fault"), ("slow_seconds=-1", "out of range"),
                       ("drop=nan", "out of range"), ("drop=0.6,500=0.6", "more than 1")]:
        with pytest.raises(ValueError, match=words):
            FaultRates.parse(bad)


def test_random_faults_and_an_answer_lost_after_the_work_was_done():
    with LocalSignalService(token=TOKEN, faults="drop=0.25,503=0.25,403=0.25,lost=0.25,seed=1") as svc, \
            SignalServiceClient(svc.url, TOKEN, timeout=5.0) as client:
        results = [client.submit_signal(**signal_kwargs(idempotency_key=f"k{i}")) for i in range(40)]
        codes = {r.status_code for r in results}
        assert codes == {0, 403, 503}  # every request faulted: a drop and a lost answer both read as 0
        assert all(r.body["ban_expiry"] > 0 for r in results if r.status_code == 403)
        assert set(svc.fault_counts) == {"drop", "lost", "403", "503"}
        assert svc.submission_count == svc.fault_counts["lost"]  # lost answers: done, never heard of
        svc.clear_faults()
        held = {s.idempotency_key: s.submission_id for s in svc.submissions()}
        again = [client.submit_signal(**signal_kwargs(idempotency_key=k)) for k in held]
        assert [r.submission_id for r in again] == list(held.values())  # the re-send finds its submission
        assert svc.counts()["repeats"] == len(held)


def test_what_the_service_accepted_survives_its_restart(tmp_path):
    path = str(tmp_path / "service.db")
    with LocalSignalService(token=TOKEN, db_path=path) as first, \
            SignalServiceClient(first.url, TOKEN) as client:
        sid = client.submit_signal(**signal_kwargs()).submission_id
        assert client.get_signal_status(sid).body["status"] == "is_validating"
    first.close()
    second = LocalSignalService(token=TOKEN, db_path=path, polls_to_terminal=1).start()
    try:
        with SignalServiceClient(second.url, TOKEN) as client:
            assert client.submit_signal(**signal_kwargs()).submission_id == sid
            assert client.get_signal_status(sid).body["status"] == "found"  # its second poll
        assert second.get(sid).polls == 2 and second.counts()["repeats"] == 1
    finally:
        second.close()


def test_a_failed_commit_ends_the_services_transaction():
    import sqlite3
    from tarnwicket import local_signal_service

    db = sqlite3.connect(":memory:", isolation_level=None)
    db.execute("PRAGMA foreign_keys = ON")
    db.execute("CREATE TABLE parent (id INTEGER PRIMARY KEY)")
    db.execute("CREATE TABLE child (parent_id INTEGER REFERENCES parent(id) DEFERRABLE INITIALLY DEFERRED)")
    with pytest.raises(sqlite3.IntegrityError):           # fails at COMMIT, not at the insert
        with local_signal_service._transaction(db) as tx:
            tx.execute("INSERT INTO child VALUES (7)")
    assert not db.in_transaction
    with local_signal_service._transaction(db) as tx:      # the next request's transaction begins
        tx.execute("INSERT INTO parent VALUES (7)")
    assert db.execute("SELECT COUNT(*) FROM child").fetchone() == (0,)
