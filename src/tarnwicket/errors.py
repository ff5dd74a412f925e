"""Errors shared across the package."""

from __future__ import annotations


class SdkRuntimeNotReadyError(Exception):
    """The runtime (login, era configuration) is not ready for this operation."""

    DEFAULT_MESSAGE = (
        "The runtime is not ready: log in and wait for the era configuration before searching."
    )

    def __init__(self, message: str | None = None):
        super().__init__(message or self.DEFAULT_MESSAGE)
