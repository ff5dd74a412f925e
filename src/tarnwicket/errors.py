"""Errors shared across the package."""

from __future__ import annotations


class SdkRuntimeNotReadyError(Exception):
    """The runtime (login, era configuration) is not ready for this operation."""

    DEFAULT_MESSAGE = (
        "The runtime is not ready: log in and wait for the era configuration before searching."
    )

    def __init__(self, message: str | None = None):
        super().__init__(message or self.DEFAULT_MESSAGE)


class DamagedFile(ValueError):
    """A file of the data directory that is there but cannot be used as it is.

    ``problem`` says what is wrong with it, ``advice`` what the user can do; the
    file itself is left as it was found.
    """

    def __init__(self, path: str, problem: str, advice: str):
        self.path = path
        self.problem = " ".join(str(problem).split())
        self.advice = advice
        super().__init__(f"{path}: {self.problem}; {advice}")
