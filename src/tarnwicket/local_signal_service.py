"""A small signal service on loopback, for local runs and tests.

POST /v1/signals takes a submission (bearer token, Idempotency-Key honoured);
GET /v1/signals/<id> reports its status, which stays "is_validating" for a
number of polls and then turns terminal. Faults can be injected: status codes
with bodies, delays, and dropped connections.
"""

from __future__ import annotations

import collections
import json
import logging
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

# Decides the terminal outcome of a submission: (status, rejection_reason or None).
Outcome = Callable[["Submission"], "tuple[str, str | None]"]


@dataclass
class Submission:
    submission_id: str
    idempotency_key: str
    body: dict
    created_at: float
    polls: int = 0
    status: str = "is_validating"
    rejection_reason: str | None = None


@dataclass
class _Fault:
    status_code: int | None  # None: drop the connection without an answer
    body: Any
    route: str


class _Server(ThreadingHTTPServer):
    daemon_threads = True

    def handle_error(self, request, client_address):
        # A client that went away (timeout, dropped test connection) is routine.
        exc = sys.exc_info()[1]
        if isinstance(exc, (BrokenPipeError, ConnectionResetError, ConnectionAbortedError)):
            logger.debug("client %s went away: %s", client_address, exc)
        else:
            logger.warning("local signal service request from %s failed", client_address,
                           exc_info=True)


def default_outcome(submission: Submission) -> tuple[str, str | None]:
    return "found", None


class LocalSignalService:
    """Threaded HTTP signal service bound to 127.0.0.1 on an ephemeral port."""

    def __init__(
        self,
        token: str = "local-token",
        polls_to_terminal: int = 1,  # polls answered "is_validating" before the outcome
        outcome: Outcome | None = None,
        host: str = "127.0.0.1",
        port: int = 0,
    ):
        if not isinstance(token, str) or not token:
            raise ValueError("token must be a non-empty string")
        if isinstance(polls_to_terminal, bool) or not isinstance(polls_to_terminal, int) \
                or polls_to_terminal < 0:
            raise ValueError("polls_to_terminal must be an int >= 0")
        self.token = token
        self.polls_to_terminal = polls_to_terminal
        self.outcome: Outcome = outcome or default_outcome
        self._host = host
        self._port = port
        self._lock = threading.Lock()
        self._submissions: dict[str, Submission] = {}
        self._by_key: dict[str, str] = {}
        self._faults: collections.deque[_Fault] = collections.deque()
        self._delay = 0.0
        self.request_counts: collections.Counter = collections.Counter()
        self._server: ThreadingHTTPServer | None = None
        self._thread: threading.Thread | None = None

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

    def clear_faults(self) -> None:
        with self._lock:
            self._faults.clear()
        self._delay = 0.0

    # -- inspection -------------------------------------------------------

    @property
    def submission_count(self) -> int:
        with self._lock:
            return len(self._submissions)

    def submissions(self) -> list[Submission]:
        with self._lock:
            return list(self._submissions.values())

    def get(self, submission_id: str) -> Submission | None:
        with self._lock:
            return self._submissions.get(submission_id)

    # -- request handling (called on server threads) -----------------------

    def _take_fault(self, route: str) -> _Fault | None:
        with self._lock:
            for i, fault in enumerate(self._faults):
                if fault.route in ("any", route):
                    del self._faults[i]
                    return fault
        return None

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
        with self._lock:
            existing = self._by_key.get(key)
            if existing is not None:
                return 200, {"submission_id": existing, "status": "is_validating",
                             "duplicate": True}
            sid = f"sub_{uuid.uuid4().hex[:20]}"
            self._submissions[sid] = Submission(sid, key, body, time.time())
            self._by_key[key] = sid
        return 201, {"submission_id": sid, "status": "is_validating", "duplicate": False}

    def _status(self, submission_id: str) -> tuple[int, dict]:
        with self._lock:
            sub = self._submissions.get(submission_id)
            if sub is None:
                return 404, {"error": f"unknown submission {submission_id}"}
            sub.polls += 1
            if sub.status not in TERMINAL and sub.polls > self.polls_to_terminal:
                status, reason = self.outcome(sub)
                sub.status, sub.rejection_reason = status, reason
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


def _make_handler(service: LocalSignalService):
    class Handler(BaseHTTPRequestHandler):
        protocol_version = "HTTP/1.1"
        server_version = "LocalSignalService/1"

        def log_message(self, fmt, *args):  # quiet: the access log goes to debug
            logger.debug("local signal service: " + fmt, *args)

        def _send(self, status: int, body: Any) -> None:
            data = json.dumps(body).encode("utf-8")
            self.send_response(status)
            self.send_header("Content-Type", "application/json")
            self.send_header("Content-Length", str(len(data)))
            self.end_headers()
            self.wfile.write(data)

        def _authorised(self) -> bool:
            return self.headers.get("Authorization", "") == f"Bearer {service.token}"

        def _handle(self, route: str, work: Callable[[], tuple[int, Any]]) -> None:
            service.request_counts[route] += 1
            if service._delay:
                time.sleep(service._delay)
            fault = service._take_fault(route)
            if fault is not None:
                if fault.status_code is None:
                    self.close_connection = True
                    self.connection.shutdown(2)
                    return
                self._send(fault.status_code, fault.body if fault.body is not None
                           else {"error": f"injected failure {fault.status_code}"})
                return
            if not self._authorised():
                self._send(401, {"error": "invalid or missing token"})
                return
            status, body = work()
            self._send(status, body)

        def do_POST(self) -> None:
            if self.path.rstrip("/") != SIGNALS_PATH:
                self._send(404, {"error": "not found"})
                return
            length = int(self.headers.get("Content-Length") or 0)
            if length > MAX_BODY_BYTES:
                self._send(413, {"error": "request body too large"})
                return
            raw = self.rfile.read(length) if length else b""

            def work():
                try:
                    body = json.loads(raw.decode("utf-8")) if raw else None
                except ValueError:
                    return 400, {"error": "request body is not valid JSON"}
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
