"""Entry point of ``python -m tarnwicket``."""

import os
import signal
import sys


def _interrupted_while_starting(signum, frame):
    """Ctrl-C before the command has taken over its signals: end as it would, without a traceback."""
    raise SystemExit(128 + signum)


if __name__ == "__main__":
    signal.signal(signal.SIGINT, _interrupted_while_starting)

# The search's worker threads are its parallelism; the linear algebra
# library's own pool of threads on top of them only spins on the same cores.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

from tarnwicket.local.cli import main  # noqa: E402  (after the environment is set)

if __name__ == "__main__":
    sys.exit(main())
