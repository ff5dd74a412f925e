"""HTTP client of the signal service, and the types of its answers."""

from __future__ import annotations

import hashlib
import http.client
import json
import socket
import time
import urllib.error
import urllib.parse
import urllib.request
from dataclasses import dataclass, field
from typing import Any

SIGNALS_PATH = "/v1/signals"
_LOOPBACK_HOSTS = frozenset({"127.0.0.1", "localhost", "::1"})
_MAX_ERROR_TEXT = 500
_MAX_BODY = 4 * 1024 * 1024   # an answer of the service is a few hundred bytes
_READ_CHUNK = 64 * 1024


@dataclass
class ServiceResult:
    """Plain outcome of one request: never an exception for HTTP or transport trouble."""

    status_code: int
    error: str | None = None
    body: Any = None
    submission_id: str | None = None
    headers: dict = field(default_factory=dict)

    @property
    def ok(self) -> bool:
        return 200 <= self.status_code < 300


@dataclass
class SubmissionReceipt:
    submission_id: str


@dataclass
class SubmissionStatus:
    submission_id: str
    status: str
    is_stats: Any
    payment: Any
    rejection_reason: Any
    signal_pool_id: Any = None
    is_correlation: Any = None
    is_pnl_mi: Any = None
    agent_is_pnl_mi: Any = None
    is_weights_mi: Any = None
    failure_reason: Any = None
    failure_detail: Any = None


class SubmissionRejectedError(Exception):
    """The service answered and refused the request."""

    def __init__(self, status_code, error, details, body=None):
        super().__init__(f"submission rejected ({status_code}): {error}")
        self.status_code = status_code
        self.reason = error
        self.details = details
        self.body = body


def _http_url(server_url) -> urllib.parse.SplitResult:
    if not isinstance(server_url, str):
        raise TypeError(f"server_url must be a str, got {type(server_url).__name__}")
    try:
        parsed = urllib.parse.urlsplit(server_url)
    except ValueError as exc:  # a broken [IPv6] host
        raise ValueError(f"server_url must be an http(s) URL, got {server_url!r} ({exc})") from None
    if parsed.scheme not in ("http", "https") or not parsed.netloc:
        raise ValueError(f"server_url must be an http(s) URL, got {server_url!r}")
    return parsed


def check_server_url(server_url) -> str:
    """``server_url`` if requests can be sent to it: an http(s) URL with a host
    and, if it names one, a port in range. Otherwise ``TypeError`` or
    ``ValueError`` saying what is wrong, before anything is queued for it.
    (A client takes any http(s) URL; a bad host or port fails its requests as
    transport trouble, which keeps their signals queued.)"""
    parsed = _http_url(server_url)
    try:
        parsed.port  # noqa: B018 - raises for a port that is not a number in range
    except ValueError as exc:
        raise ValueError(f"server_url must be an http(s) URL, got {server_url!r} ({exc})") from None
    if not parsed.hostname:
        raise ValueError(f"server_url must name a host, got {server_url!r}")
    return server_url


class SignalServiceClient:
    """JSON-over-HTTP client of the signal service; one client serves one call."""

    def __init__(self, server_url, token, timeout=30.0):
        parsed = _http_url(server_url)
        if not isinstance(token, str):
            raise TypeError(f"token must be a str, got {type(token).__name__}")
        if isinstance(timeout, bool) or not isinstance(timeout, (int, float)) or not timeout > 0:
            raise ValueError(f"timeout must be a positive number of seconds, got {timeout!r}")
        self.server_url = server_url.rstrip("/")
        self.timeout = float(timeout)
        self._token = token
        self._closed = False
        handlers: list[Any] = []
        if parsed.hostname in _LOOPBACK_HOSTS:
            handlers.append(urllib.request.ProxyHandler({}))  # never proxy loopback
        self._opener = urllib.request.build_opener(*handlers)

    def __repr__(self) -> str:
        return f"SignalServiceClient({self.server_url!r}, timeout={self.timeout})"

    @staticmethod
    def _idempotency_key_for_body(body) -> str:
        """Stable key of a request body: the same body always gives the same key."""
        if not isinstance(body, dict):
            raise TypeError(f"body must be a dict, got {type(body).__name__}")
        canonical = json.dumps(body, sort_keys=True, separators=(",", ":"), default=str)
        return hashlib.sha256(canonical.encode("utf-8")).hexdigest()

    def submit_signal(self, **kwargs) -> ServiceResult:
        key = kwargs.get("idempotency_key")
        if not isinstance(key, str) or not key:
            key = self._idempotency_key_for_body(
                {k: v for k, v in kwargs.items() if k != "idempotency_key"}
            )
        data = json.dumps(kwargs, sort_keys=True, default=str).encode("utf-8")
        result = self._request("POST", SIGNALS_PATH, data, {"Idempotency-Key": key})
        if isinstance(result.body, dict):
            sid = result.body.get("submission_id")
            result.submission_id = sid if isinstance(sid, str) and sid else None
        return result

    def get_signal_status(self, submission_id) -> ServiceResult:
        if not isinstance(submission_id, str) or not submission_id:
            raise ValueError("submission_id must be a non-empty string")
        path = f"{SIGNALS_PATH}/{urllib.parse.quote(submission_id, safe='')}"
        result = self._request("GET", path, None, {})
        result.submission_id = submission_id
        return result

    def close(self) -> None:
        self._closed = True

    def __enter__(self) -> "SignalServiceClient":
        return self

    def __exit__(self, *exc: Any) -> None:
        self.close()

    def _request(self, method: str, path: str, data: bytes | None, extra: dict) -> ServiceResult:
        if self._closed:
            raise RuntimeError("SignalServiceClient is closed")
        headers = {"Authorization": f"Bearer {self._token}", "Accept": "application/json", **extra}
        if data is not None:
            headers["Content-Type"] = "application/json"
        request = urllib.request.Request(
            self.server_url + path, data=data, headers=headers, method=method
        )
        try:
            with self._opener.open(request, timeout=self.timeout) as response:
                raw = _read_body(response, time.monotonic() + self.timeout)
                status = response.status
                response_headers = dict(response.headers.items())
        except urllib.error.HTTPError as exc:
            try:
                raw = _read_body(exc, time.monotonic() + self.timeout)
            except (OSError, http.client.HTTPException):
                raw = b""
            finally:
                exc.close()
            body, text = _decode(raw)
            error = _error_text(body, text) or f"HTTP {exc.code} {exc.reason}"
            return ServiceResult(exc.code, error, body, headers=dict(exc.headers.items()))
        except (urllib.error.URLError, OSError, http.client.HTTPException, socket.timeout) as exc:
            reason = getattr(exc, "reason", None) or exc
            return ServiceResult(0, f"{type(exc).__name__}: {reason}")
        body, text = _decode(raw)
        error = None
        if not 200 <= status < 300:
            error = _error_text(body, text) or f"HTTP {status}"
        return ServiceResult(status, error, body, headers=response_headers)


def _read_body(response, deadline: float) -> bytes:
    """The whole body of an answer, read within ``deadline``; ``OSError`` for one
    that is too slow or too large. The timeout of each read alone would let a
    server that sends a byte now and then hold the caller for ever, and a body
    without end would fill the memory of the search."""
    chunks, size = [], 0
    while chunk := response.read1(_READ_CHUNK):
        size += len(chunk)
        if size > _MAX_BODY:
            raise OSError(f"the answer is larger than {_MAX_BODY:,} bytes")
        if time.monotonic() > deadline:
            raise socket.timeout("the answer did not arrive in time")
        chunks.append(chunk)
    return b"".join(chunks)


def _decode(raw: bytes) -> tuple[Any, str]:
    text = raw.decode("utf-8", errors="replace")
    if not text.strip():
        return None, ""
    try:
        return json.loads(text), text
    except ValueError:
        return None, text


def _error_text(body: Any, text: str) -> str | None:
    if isinstance(body, dict):
        for key in ("error", "message", "detail"):
            value = body.get(key)
            if isinstance(value, str) and value:
                return value
    if body is None and text.strip():
        return text.strip()[:_MAX_ERROR_TEXT]
    return None
