"""Option types shared by the commands: each turns the text of one option into its
value, or refuses it with a one-line reason that argparse shows as the error."""

from __future__ import annotations

import argparse


def int_at_least(low: int):
    def parse(text: str) -> int:
        try:
            value = int(text)
        except ValueError:
            raise argparse.ArgumentTypeError(f"expected a whole number, got {text!r}") from None
        if value < low:
            raise argparse.ArgumentTypeError(f"must be at least {low}, got {value}")
        return value
    return parse


def positive_seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a number of seconds, got {text!r}") from None
    if not value > 0 or value == float("inf"):
        raise argparse.ArgumentTypeError(f"must be a positive number of seconds, got {text}")
    return value


def path(text: str) -> str:
    """A file or directory name. An empty one is refused: it would quietly mean the
    current directory, or for SQLite a private database that is gone at exit."""
    if not text:
        raise argparse.ArgumentTypeError("expected a path, got an empty text")
    return text


def store_url(text: str) -> str:
    from tarnwicket.stores import check_store_url

    return _checked(check_store_url, text)


def server_url(text: str) -> str:
    from tarnwicket.submit import check_server_url

    return _checked(check_server_url, text)


def fault_rates(text: str):
    from tarnwicket.local_signal_service import FaultRates

    return _checked(FaultRates.parse, text)


def fault_spec(text: str) -> str:
    """The fault text itself, checked, for a command that hands it on to the service."""
    fault_rates(text)
    return text


def _checked(check, text: str):
    try:
        return check(text)
    except ValueError as exc:
        raise argparse.ArgumentTypeError(str(exc)) from None
