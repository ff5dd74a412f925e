"""``python -m tarnwicket search``: a signal search on this machine."""

from __future__ import annotations

import argparse
import os
import sys
import time

from .runtime import DEFAULT_DATA_DIR

EXIT_OK, EXIT_FAILED, EXIT_USAGE = 0, 1, 2
DEFAULT_SECONDS = 45.0


class UsageError(Exception):
    pass


class _Parser(argparse.ArgumentParser):
    def error(self, message):          # one line, no usage dump
        raise UsageError(message)


def _positive_int(text: str) -> int:
    try:
        value = int(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a whole number, got {text!r}") from None
    if value < 1:
        raise argparse.ArgumentTypeError(f"must be at least 1, got {value}")
    return value


def _positive_seconds(text: str) -> float:
    try:
        value = float(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"expected a number of seconds, got {text!r}") from None
    if not value > 0 or value == float("inf"):
        raise argparse.ArgumentTypeError(f"must be a positive number of seconds, got {text}")
    return value


def build_parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="python -m tarnwicket",
                     description="Search for trading signals on this machine.")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    search = sub.add_parser(
        "search", help="run a local signal search",
        description=("Run the built-in random_weighted search against the local runtime: "
                     "synthetic daily data for 50 instruments, evaluated and backtested on "
                     "this machine. The data set is written on first use."))
    search.add_argument("--jobs", type=_positive_int, default=2, metavar="N",
                        help="worker threads (default: 2)")
    search.add_argument("--seconds", type=_positive_seconds, default=DEFAULT_SECONDS, metavar="S",
                        help=f"stop after this many seconds (default: {DEFAULT_SECONDS:g})")
    search.add_argument("--data-dir", default=DEFAULT_DATA_DIR, metavar="DIR",
                        help=f"where data and results live (default: {DEFAULT_DATA_DIR})")
    search.add_argument("--seed", type=int, default=0,
                        help="seed of the synthetic data set, used when it is first written "
                             "(default: 0)")
    search.add_argument("--server-url", default=None, metavar="URL",
                        help="signal service to submit to (default: none configured)")
    return parser


def _err(message: str) -> None:
    print(f"tarnwicket: error: {message}", file=sys.stderr)


def main(argv: list[str] | None = None) -> int:
    parser = build_parser()
    try:
        args = parser.parse_args(argv)
    except UsageError as exc:
        _err(str(exc))
        return EXIT_USAGE
    if args.command != "search":
        parser.print_help()
        return EXIT_USAGE if args.command is None else EXIT_OK
    return run_search(args)


def run_search(args) -> int:
    from .runtime import prepare_local_runtime

    print(f"Preparing the local runtime in {os.path.expanduser(args.data_dir)} ...", flush=True)
    try:
        runtime = prepare_local_runtime(args.data_dir, seed=args.seed, server_url=args.server_url)
    except OSError as exc:
        _err(f"data directory {args.data_dir!r} is not usable: {exc.strerror or exc}")
        return EXIT_USAGE

    import tarnwicket.search_templates as st

    search = getattr(st, "search", None)
    template = getattr(st, "random_weighted", None)
    if not callable(search) or template is None:
        _err("this build has no search engine (tarnwicket.search_templates.search is missing)")
        return EXIT_FAILED
    try:
        handle = search(template, n_jobs=args.jobs)
    except Exception as exc:                      # a start-up refusal, told in one line
        _err(f"the search did not start: {exc}")
        return EXIT_FAILED
    evaluated, elapsed, failure = _watch(handle, args.seconds, runtime)
    try:
        handle.stop()
    except Exception as exc:
        _err(f"stopping the search failed: {exc}")
    _print_summary(runtime, evaluated, elapsed)
    if failure is not None:
        _err(f"the search ended with an error: {failure}")
        return EXIT_FAILED
    return EXIT_OK


def _watch(handle, seconds: float, runtime=None):
    """Show progress until the time limit or Ctrl-C; return (evaluated, elapsed, failure)."""
    from .summary import LiveCounts, find_store, progress_line

    db_path = find_store(runtime.search_tracker, runtime.data_dir) if runtime is not None else None
    counts = LiveCounts(db_path, time.time())
    tty = sys.stdout.isatty()
    start = time.monotonic()
    baseline = None
    evaluated = 0
    failure = None
    last_print = 0.0
    try:
        while True:
            now = time.monotonic()
            elapsed = now - start
            try:
                s = handle.status()
            except Exception as exc:              # a fatal error stored in the handle
                failure = getattr(exc, "message", None) or str(exc)
                break
            if baseline is None:
                baseline = s.total_evaluated
            evaluated = s.total_evaluated - baseline
            rate = evaluated / elapsed if elapsed > 0 else 0.0
            found, queued = counts.read()
            line = progress_line(evaluated, rate, found, queued, len(s.errors), elapsed, seconds)
            if tty:
                print("\r" + line.ljust(100), end="", flush=True)
            elif now - last_print >= 5.0:
                print(line, flush=True)
                last_print = now
            if elapsed >= seconds:
                break
            time.sleep(min(0.5, max(seconds - elapsed, 0.01)))
    except KeyboardInterrupt:
        print("\nInterrupted; stopping ...", flush=True)
    counts.close()
    if tty:
        print()
    return evaluated, time.monotonic() - start, failure


def _print_summary(runtime, evaluated: int, elapsed: float) -> None:
    from .summary import find_store, stored_evaluations, summary_lines

    db_path = find_store(runtime.search_tracker, runtime.data_dir)
    stored = stored_evaluations(db_path) if db_path else {}
    passed = runtime.evaluator.passed_signals()
    for line in summary_lines(passed, stored, db_path, evaluated, elapsed):
        print(line)
    print(f"Local data and settings: {runtime.data_dir}")


if __name__ == "__main__":
    sys.exit(main())
