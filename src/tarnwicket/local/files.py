"""Atomic file writes for the local runtime's data directory."""

from __future__ import annotations

import os
import tempfile
from typing import Callable, IO


def write_atomically(path: str, write: Callable[[IO], None], *, binary: bool = True, private: bool = False) -> None:
    """Write through a temporary file in the same directory, fsync it, then rename it over `path`.

    A reader never sees a partial file; `private` makes the file readable by its owner only.
    """
    directory = os.path.dirname(path) or "."
    os.makedirs(directory, exist_ok=True)
    fd, tmp = tempfile.mkstemp(prefix="." + os.path.basename(path) + "-", suffix=".tmp", dir=directory)
    try:
        if private:
            os.fchmod(fd, 0o600)
        with os.fdopen(fd, "wb" if binary else "w", **({} if binary else {"encoding": "utf-8"})) as fh:
            write(fh)
            fh.flush()
            os.fsync(fh.fileno())
        os.replace(tmp, path)
    except BaseException:
        if os.path.exists(tmp):
            os.unlink(tmp)
        raise
