"""Entry point of ``python -m tarnwicket``."""

import sys

from tarnwicket.local.cli import main

if __name__ == "__main__":
    sys.exit(main())
