"""tarnwicket: an unattended search for trading signals."""

__version__ = "0.1.0"
