"""A small signal service on loopback, for local runs and tests.

POST /v1/signals takes a submission (bearer token, Idempotency-Key honoured:
one submission per key, a key sent again with another body is refused with
409); GET /v1/signals/<id> reports its status, which stays "is_validating" for
a number of polls and then turns terminal.

What the service accepted is kept in SQLite (in memory unless a file is named),
so that with a file its answers survive a restart of either side, and several
service processes on one file agree on one submission per key.

Faults can be injected two ways: one at a time (``fail_next``, ``set_delay``)
or at random rates (``FaultRates``, from text such as
``"drop=0.1,5xx=0.1,401=0.05,403=0.05,lost=0.05,slow=0.1,seed=7"``).

Run on its own: ``python -m tarnwicket.local_signal_service --help``.
"""

from __future__ import annotations

import argparse
import collections
import contextlib
import hashlib
import json
import logging
import os
import random
import signal
import sqlite3
import sys
import threading
import time
import uuid
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Any, Callable
from urllib.parse import unquote

logger = logging.getLogger(__name__)

SIGNALS_PATH = "/v1/signals"
ACCEPTED = ("found", "useful")
TERMINAL = ("found", "useful", "is_rejected", "not_useful", "os_failed", "useful_transition_failed")
MAX_BODY_BYTES = 8 * 1024 * 1024
IDLE_SECONDS = 60.0
FAULTS_ENV = "TARNWICKET_SERVICE_FAULTS"
DB_FILENAME = "signal_service.db"

# Decides the terminal outcome of a submission: (status, rejection_reason or None).
Outcome = Callable[["Submission"], "tuple[str, str | None]"]

_SCHEMA = """
CREATE TABLE IF NOT EXISTS submissions (
    submission_id TEXT PRIMARY KEY,
    idempotency_key TEXT NOT NULL UNIQUE,
    body_json TEXT NOT NULL,
    created_at REAL NOT NULL,
    polls INTEGER NOT NULL DEFAULT 0,
    status TEXT NOT NULL,
    rejection_reason TEXT,
    repeats INTEGER NOT NULL DEFAULT 0
);
CREATE TABLE IF NOT EXISTS key_conflicts (
    idempotency_key TEXT NOT NULL,
    body_json TEXT NOT NULL,
    at REAL NOT NULL
);
"""


@dataclass
class Submission:
    submission_id: str
    idempotency_key: str
    body: dict
    created_at: float
    polls: int = 0
    status: str = "is_validating"
    rejection_reason: str | None = None
    repeats: int = 0            # later requests with the same key and body


@dataclass
class _Fault:
    status_code: int | None  # None: drop the connection without an answer
    body: Any
    route: str


@dataclass(frozen=True)
class FaultRates:
    """Random faults, each a share of all requests.

    ``drop``: the connection is closed before the request is handled.
    ``lost``: the request is handled, then the connection is closed unanswered.
    ``codes``: (status, share) pairs answered instead of handling the request;
    403 carries a ``ban_expiry`` ``ban_seconds`` ahead. ``slow``: the share of
    answers delayed by ``slow_seconds`` (independent of the others).
    """

    drop: float = 0.0
    lost: float = 0.0
    codes: tuple = ()
    slow: float = 0.0
    slow_seconds: float = 1.0
    ban_seconds: float = 2.0
    seed: int | None = None

    _SHARES = ("drop", "lost", "slow")
    _SECONDS = ("slow_seconds", "ban_seconds")

    @classmethod
    def parse(cls, text: str) -> "FaultRates":
        """``name=value`` pairs separated by commas; names are drop, lost, slow,
        slow_seconds, ban_seconds, seed, 5xx (503) or an HTTP status code."""
        if not isinstance(text, str):
            raise TypeError(f"faults must be text, got {type(text).__name__}")
        fields: dict[str, Any] = {}
        codes: dict[int, float] = {}
        for item in filter(None, (part.strip() for part in text.split(","))):
            name, sep, value = item.partition("=")
            name = name.strip().lower()
            if not sep:
                raise ValueError(f"fault {item!r} is not of the form name=value")
            if name == "seed":
                fields["seed"] = _number(name, value, int)
            elif name in cls._SECONDS:
                fields[name] = _number(name, value, float, low=0.0)
            elif name in cls._SHARES:
                fields[name] = _number(name, value, float, low=0.0, high=1.0)
            elif name == "5xx" or (name.isdigit() and len(name) == 3 and 400 <= int(name) < 600):
                code = 503 if name == "5xx" else int(name)
                codes[code] = _number(name, value, float, low=0.0, high=1.0)
            else:
                raise ValueError(f"unknown fault {name!r} (known: drop, lost, slow, slow_seconds, "
                                 "ban_seconds, seed, 5xx or a status code 400-599)")
        rates = cls(codes=tuple(sorted(codes.items())), **fields)
        if rates.drop + rates.lost + sum(codes.values()) > 1.0:
            raise ValueError("the shares of drop, lost and the status codes add up to more than 1")
        return rates

    def draw(self, rng: random.Random) -> tuple[str | int | None, bool]:
        """(fault or None, slow): the fault is "drop", "lost" or a status code."""
        slow = self.slow > 0 and rng.random() < self.slow
        r = rng.random()
        for kind, share in (("drop", self.drop), ("lost", self.lost), *self.codes):
            if r < share:
                return kind, slow
            r -= share
        return None, slow


def _number(name: str, text: str, kind: type, low: float | None = None,
            high: float | None = None):
    try:
        value = kind(text.strip())
    except ValueError:
        raise ValueError(f"fault {name}: {text.strip()!r} is not a number") from None
    if (low is not None and not value >= low) or (high is not None and not value <= high) \
            or value != value:
        raise ValueError(f"fault {name}: {value} is out of range "
                         f"[{low if low is not None else '-inf'}, {high if high is not None else 'inf'}]")
    return value


class _Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A client that went away (timeout, dropped test connection) is routine.
        exc = sys.exc_info()[1]
        if isinstance(exc, (BrokenPipeError, ConnectionResetError, ConnectionAbortedError, TimeoutError)):
            logger.debug("client %s went away: %s", client_address, exc)
        else:
            logger.warning("local signal service request from %s failed", client_address,
                           exc_info=True)


REJECTED_SHARE = 0.2
_REJECTIONS = (("is_rejected", "too correlated with a signal already in the pool"),
               ("not_useful", "adds nothing to the pool's out-of-sample performance"))


def default_outcome(submission: Submission) -> tuple[str, str | None]:
    """A review that always ends the same way for the same submission: a fifth
    are rejected (with one of two reasons), the rest found."""
    digest = hashlib.sha256(submission.idempotency_key.encode("utf-8")).digest()
    if digest[0] < 256 * REJECTED_SHARE:
        return _REJECTIONS[digest[1] % len(_REJECTIONS)]
    return "found", None


def _canonical(body: dict) -> str:
    return json.dumps(body, sort_keys=True, separators=(",", ":"), default=str)


class LocalSignalService:
    """Threaded HTTP signal service bound to 127.0.0.1 on an ephemeral port."""

    def __init__(
        self,
        token: str = "local-token",
        polls_to_terminal: int = 1,  # polls answered "is_validating" before the outcome
        outcome: Outcome | None = None,
        host: str = "127.0.0.1",
        port: int = 0,
        db_path: str | None = None,
        faults: FaultRates | str | None = None,
    ):
        if not isinstance(token, str) or not token:
            raise ValueError("token must be a non-empty string")
        if isinstance(polls_to_terminal, bool) or not isinstance(polls_to_terminal, int) \
                or polls_to_terminal < 0:
            raise ValueError("polls_to_terminal must be an int >= 0")
        if isinstance(port, bool) or not isinstance(port, int) or not 0 <= port <= 65535:
            raise ValueError(f"port must be an int from 0 to 65535, got {port!r}")
        self.token = token
        self.polls_to_terminal = polls_to_terminal
        self.outcome: Outcome = outcome or default_outcome
        self.db_path = db_path
        self._host = host
        self._port = port
        self._lock = threading.Lock()
        self._db = self._open(db_path)
        self._faults: collections.deque[_Fault] = collections.deque()
        self._delay = 0.0
        self.set_fault_rates(faults)
        self.request_counts: collections.Counter = collections.Counter()
        self.fault_counts: collections.Counter = collections.Counter()
        self._server: ThreadingHTTPServer | None = None
        self._thread: threading.Thread | None = None

    @staticmethod
    def _open(db_path: str | None) -> sqlite3.Connection:
        db = sqlite3.connect(db_path or ":memory:", timeout=30.0, isolation_level=None,
                             check_same_thread=False)
        try:
            if db_path:
                # A damaged file is refused before anything is written to it; a
                # damaged page deep in it would otherwise fail request by request.
                verdict = [row[0] for row in db.execute("PRAGMA quick_check")]
                if verdict != ["ok"]:
                    raise sqlite3.DatabaseError(f"fails SQLite's integrity check ({verdict[0]})")
                db.execute("PRAGMA journal_mode=WAL")
                db.execute("PRAGMA synchronous=FULL")
            db.executescript(_SCHEMA)
        except BaseException:
            db.close()
            raise
        return db

    # -- lifecycle --------------------------------------------------------

    def start(self) -> "LocalSignalService":
        if self._server is not None:
            return self
        server = _Server((self._host, self._port), _make_handler(self))
        self._server = server
        self._thread = threading.Thread(
            target=server.serve_forever, kwargs={"poll_interval": 0.1},
            name="local_signal_service", daemon=True,
        )
        self._thread.start()
        return self

    def stop(self) -> None:
        server, self._server = self._server, None
        if server is None:
            return
        server.shutdown()
        server.server_close()
        if self._thread is not None:
            self._thread.join(5.0)

    def close(self) -> None:
        """Stop serving and close the store."""
        self.stop()
        with self._lock:
            self._db.close()

    def __enter__(self) -> "LocalSignalService":
        return self.start()

    def __exit__(self, *exc: Any) -> None:
        self.stop()

    @property
    def url(self) -> str:
        if self._server is None:
            raise RuntimeError("LocalSignalService is not running")
        host, port = self._server.server_address[:2]
        return f"http://{host}:{port}"

    # -- fault injection --------------------------------------------------

    def fail_next(self, status_code: int | None, body: Any = None, count: int = 1,
                  route: str = "any") -> None:
        """Answer the next ``count`` requests of ``route`` ("submit", "status" or
        "any") with ``status_code`` and ``body``; ``None`` drops the connection."""
        if route not in ("submit", "status", "any"):
            raise ValueError("route must be 'submit', 'status' or 'any'")
        with self._lock:
            for _ in range(count):
                self._faults.append(_Fault(status_code, body, route))

    def set_delay(self, seconds: float) -> None:
        """Wait this long before every answer."""
        if seconds < 0:
            raise ValueError("delay must be >= 0")
        self._delay = float(seconds)

    def set_fault_rates(self, faults: FaultRates | str | None) -> None:
        """Inject faults at random from now on (``None`` for none)."""
        rates = FaultRates.parse(faults) if isinstance(faults, str) else faults
        if rates is not None and not isinstance(rates, FaultRates):
            raise TypeError(f"faults must be FaultRates, text or None, got {type(faults).__name__}")
        with self._lock:
            self._rates = rates
            self._rng = random.Random(rates.seed if rates is not None else None)

    def clear_faults(self) -> None:
        with self._lock:
            self._faults.clear()
            self._rates = None
        self._delay = 0.0

    # -- inspection -------------------------------------------------------

    @property
    def submission_count(self) -> int:
        with self._lock:
            return self._db.execute("SELECT COUNT(*) FROM submissions").fetchone()[0]

    def submissions(self) -> list[Submission]:
        with self._lock:
            rows = self._db.execute(f"SELECT {_COLUMNS} FROM submissions ORDER BY created_at").fetchall()
        return [_submission(row) for row in rows]

    def get(self, submission_id: str) -> Submission | None:
        with self._lock:
            row = self._db.execute(f"SELECT {_COLUMNS} FROM submissions WHERE submission_id = ?",
                                   (submission_id,)).fetchone()
        return None if row is None else _submission(row)

    def counts(self) -> dict:
        """Submissions held, repeated keys and key conflicts, from the store."""
        return read_counts(self._db, self._lock)

    # -- request handling (called on server threads) -----------------------

    def _take_fault(self, route: str) -> tuple[_Fault | None, float]:
        """The fault to answer this request with, and the seconds to wait first."""
        with self._lock:
            for i, fault in enumerate(self._faults):
                if fault.route in ("any", route):
                    del self._faults[i]
                    return fault, self._delay
            rates = self._rates
            if rates is None:
                return None, self._delay
            kind, slow = rates.draw(self._rng)
        delay = self._delay + (rates.slow_seconds if slow else 0.0)
        if slow:
            self.fault_counts["slow"] += 1
        if kind is None:
            return None, delay
        self.fault_counts[str(kind)] += 1
        if kind == "drop":
            return _Fault(None, None, route), delay
        if kind == "lost":
            return _Fault(None, "lost", route), delay
        body = {"error": f"injected failure {kind}"}
        if kind == 401:
            body = {"error": "invalid or missing token"}
        elif kind == 403:
            body = {"error": "banned", "ban_expiry": time.time() + rates.ban_seconds}
        return _Fault(kind, body, route), delay

    def _submit(self, key: str | None, body: Any) -> tuple[int, dict]:
        if not isinstance(body, dict):
            return 400, {"error": "request body must be a JSON object"}
        pool = body.get("signal_pool_id")
        if not isinstance(pool, str) or not pool:
            return 422, {"error": "signal_pool_id is required"}
        if not isinstance(body.get("is_stats"), dict):
            return 422, {"error": "is_stats is required"}
        if not key:
            return 400, {"error": "Idempotency-Key header is required"}
        # The key travels in the body too; what is kept is the signal without it,
        # so that one signal sent under two keys shows as a body held twice.
        text = _canonical({k: v for k, v in body.items() if k != "idempotency_key"})
        now = time.time()
        with self._lock, _transaction(self._db) as db:
            row = db.execute("SELECT submission_id, body_json FROM submissions "
                             "WHERE idempotency_key = ?", (key,)).fetchone()
            if row is None:
                sid = f"sub_{uuid.uuid4().hex[:20]}"
                db.execute("INSERT INTO submissions (submission_id, idempotency_key, body_json, "
                           "created_at, status) VALUES (?, ?, ?, ?, 'is_validating')",
                           (sid, key, text, now))
                return 201, {"submission_id": sid, "status": "is_validating", "duplicate": False}
            if row[1] != text:
                db.execute("INSERT INTO key_conflicts (idempotency_key, body_json, at) "
                           "VALUES (?, ?, ?)", (key, text, now))
                return 409, {"error": "idempotency key already used with a different body"}
            db.execute("UPDATE submissions SET repeats = repeats + 1 WHERE submission_id = ?",
                       (row[0],))
            return 200, {"submission_id": row[0], "status": "is_validating", "duplicate": True}

    def _status(self, submission_id: str) -> tuple[int, dict]:
        with self._lock, _transaction(self._db) as db:
            row = db.execute(f"SELECT {_COLUMNS} FROM submissions WHERE submission_id = ?",
                             (submission_id,)).fetchone()
            if row is None:
                return 404, {"error": f"unknown submission {submission_id}"}
            sub = _submission(row)
            sub.polls += 1
            if sub.status not in TERMINAL and sub.polls > self.polls_to_terminal:
                sub.status, sub.rejection_reason = self.outcome(sub)
            db.execute("UPDATE submissions SET polls = ?, status = ?, rejection_reason = ? "
                       "WHERE submission_id = ?",
                       (sub.polls, sub.status, sub.rejection_reason, submission_id))
        body = sub.body
        accepted = sub.status in ACCEPTED
        return 200, {
            "submission_id": sub.submission_id,
            "status": sub.status,
            "is_stats": body.get("is_stats") or {},
            "payment": 1.0 if accepted else None,
            "rejection_reason": sub.rejection_reason,
            "signal_pool_id": body.get("signal_pool_id"),
            "is_correlation": None,
            "is_pnl_mi": body.get("is_pnl_mi"),
            "agent_is_pnl_mi": body.get("is_pnl_mi"),
            "is_weights_mi": None,
            "failure_reason": None,
            "failure_detail": None,
        }


_COLUMNS = ("submission_id, idempotency_key, body_json, created_at, polls, status, "
            "rejection_reason, repeats")


def _submission(row) -> Submission:
    sid, key, body_json, created_at, polls, status, reason, repeats = row
    return Submission(sid, key, json.loads(body_json), created_at, polls, status, reason, repeats)


class _transaction:
    """BEGIN IMMEDIATE ... COMMIT on an autocommit connection, ROLLBACK on error."""

    def __init__(self, db: sqlite3.Connection):
        self.db = db

    def __enter__(self) -> sqlite3.Connection:
        self.db.execute("BEGIN IMMEDIATE")
        return self.db

    def __exit__(self, exc_type, *rest) -> None:
        # A failed COMMIT (a full disk) ends the transaction too, or every later BEGIN would fail.
        try:
            if exc_type is None:
                self.db.execute("COMMIT")
                return
        except BaseException:
            if self.db.in_transaction:
                self.db.execute("ROLLBACK")
            raise
        if self.db.in_transaction:
            self.db.execute("ROLLBACK")


def read_counts(db: sqlite3.Connection, lock: Any = None) -> dict:
    """What a service store holds: submissions, repeated requests, key conflicts,
    and bodies held under more than one key (a signal sent twice)."""
    with lock if lock is not None else contextlib.nullcontext():
        submissions, repeats = db.execute(
            "SELECT COUNT(*), COALESCE(SUM(repeats), 0) FROM submissions").fetchone()
        conflicts = db.execute("SELECT COUNT(*) FROM key_conflicts").fetchone()[0]
        twice = db.execute("SELECT COUNT(*) FROM (SELECT body_json FROM submissions "
                           "GROUP BY body_json HAVING COUNT(*) > 1)").fetchone()[0]
    return {"submissions": submissions, "repeats": repeats, "key_conflicts": conflicts,
            "bodies_held_twice": twice}


def read_store(path: str) -> dict:
    """``read_counts`` of a service store file, opened read-only."""
    db = sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=30.0)
    try:
        return read_counts(db)
    finally:
        db.close()


def _make_handler(service: LocalSignalService):
    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        server_version = "LocalSignalService/1"
        timeout = IDLE_SECONDS  # a connection that sends nothing gives its thread back

        def log_message(self, fmt, *args):  # quiet: the access log goes to debug
            logger.debug("local signal service: " + fmt, *args)

        def _send(self, status: int, body: Any) -> None:
            data = json.dumps(body).encode("utf-8")
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)

        def _hang_up(self) -> None:
            self.close_connection = True
            self.connection.shutdown(2)

        def _authorised(self) -> bool:
            return self.headers.get("Authorization", "") == f"Bearer {service.token}"

        def _handle(self, route: str, work: Callable[[], tuple[int, Any]]) -> None:
            service.request_counts[route] += 1
            fault, delay = service._take_fault(route)
            if delay:
                time.sleep(delay)
            if fault is not None and fault.body != "lost":
                if fault.status_code is None:
                    self._hang_up()
                    return
                self._send(fault.status_code, fault.body if fault.body is not None
                           else {"error": f"injected failure {fault.status_code}"})
                return
            if not self._authorised():
                self._send(401, {"error": "invalid or missing token"})
                return
            status, body = work()
            if fault is not None:          # handled, but the answer never arrives
                self._hang_up()
                return
            self._send(status, body)

        def do_POST(self) -> None:
            if self.path.rstrip("/") != SIGNALS_PATH:
                self._send(404, {"error": "not found"})
                return
            declared = (self.headers.get("Content-Length") or "0").strip()
            if not (declared.isascii() and declared.isdigit()):
                self._send(400, {"error": "Content-Length must be a whole number of bytes"})
                self.close_connection = True  # what follows the headers cannot be told apart
                return
            length = int(declared)
            if length > MAX_BODY_BYTES:
                self._send(413, {"error": "request body too large"})
                self.close_connection = True  # the body is left unread
                return
            raw = self.rfile.read(length) if length else b""

            def work():
                try:
                    body = json.loads(raw.decode("utf-8")) if raw else None
                except ValueError:
                    return 400, {"error": "request body is not valid JSON"}
                except RecursionError:
                    return 400, {"error": "request body is nested too deeply"}
                return service._submit(self.headers.get("Idempotency-Key"), body)

            self._handle("submit", work)

        def do_GET(self) -> None:
            prefix = SIGNALS_PATH + "/"
            if not self.path.startswith(prefix) or len(self.path) == len(prefix):
                self._send(404, {"error": "not found"})
                return
            submission_id = unquote(self.path[len(prefix):])
            self._handle("status", lambda: service._status(submission_id))

    return Handler


def _token_of(data_dir: str) -> str:
    from tarnwicket.local.era import LocalAuth, read_wallet_secret

    secret = read_wallet_secret(data_dir)
    if secret is None:
        raise ValueError(f"{data_dir} has no local identity yet: run a search there first")
    return LocalAuth(secret).get_token()


def main(argv: list[str] | None = None) -> int:
    """Serve until SIGINT or SIGTERM; the first line printed is the service's URL, the
    last the requests served and the faults injected, by kind, as JSON."""
    from tarnwicket.local.options import path

    parser = argparse.ArgumentParser(prog="python -m tarnwicket.local_signal_service",
                                     description="Run the loopback signal service on its own.")
    parser.add_argument("--db", type=path, required=True, metavar="PATH", help="the service's SQLite file")
    who = parser.add_mutually_exclusive_group(required=True)
    who.add_argument("--token", help="the bearer token clients must send")
    who.add_argument("--data-dir", type=path, metavar="DIR",
                     help="take the token of the local identity of this data directory (its searches', and "
                          "those of the machines that logged in with its key)")
    parser.add_argument("--host", default="127.0.0.1",
                        help="address to listen on (default: 127.0.0.1, this machine only; 0.0.0.0 for all)")
    parser.add_argument("--port", type=int, default=0, help="port (default: a free one)")
    parser.add_argument("--polls-to-terminal", type=int, default=1, metavar="N")
    parser.add_argument("--faults", default=None, metavar="SPEC",
                        help="random faults, e.g. drop=0.1,5xx=0.1,403=0.05,seed=1")
    args = parser.parse_args(argv)
    try:
        token = args.token if args.data_dir is None else _token_of(os.path.expanduser(args.data_dir))
        service = LocalSignalService(token=token, host=args.host, port=args.port, db_path=args.db,
                                     polls_to_terminal=args.polls_to_terminal, faults=args.faults)
    except (ValueError, TypeError, sqlite3.Error, OSError) as exc:
        print(f"local_signal_service: error: {exc}", file=sys.stderr)
        return 2
    try:
        service.start()
    except OSError as exc:  # the port is taken, or not ours to bind
        service.close()
        print(f"local_signal_service: error: cannot listen on {args.host} port {args.port}: {exc}", file=sys.stderr)
        return 2
    done = threading.Event()
    for sig in (signal.SIGINT, signal.SIGTERM):
        signal.signal(sig, lambda *_: done.set())
    print(service.url, flush=True)
    done.wait()
    service.close()
    print(json.dumps({"requests": dict(service.request_counts), "faults": dict(service.fault_counts)}), flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
