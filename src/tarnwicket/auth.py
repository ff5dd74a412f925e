"""Authentication errors."""

from __future__ import annotations


class AuthError(Exception):
    """Authentication failed or nobody is logged in; ``reason`` says why."""

    def __init__(self, message: str = "Authentication failed.", reason: str | None = None):
        super().__init__(message)
        self.message = message
        self.reason = reason
