"""``python -m tarnwicket search``: a signal search on this machine."""

from __future__ import annotations

import argparse
import contextlib
import io
import logging
import os
import select
import shlex
import signal
import sqlite3
import stat
import sys
import threading
import time

from tarnwicket.errors import DamagedFile

from .user_data import DataFileError, installed_source
from .options import fault_rates, int_at_least, path, positive_seconds, server_url, store_url
from .runtime import DEFAULT_DATA_DIR, NoSharedService
from .store_commands import add_data_dir
from .store_commands import add_parsers as add_store_commands
from .store_commands import run_db, run_report, run_results

EXIT_OK, EXIT_FAILED, EXIT_USAGE = 0, 1, 2
EXIT_PIPE = 128 + signal.SIGPIPE
DEFAULT_SECONDS = 45.0


class UsageError(Exception):
    pass


class _Parser(argparse.ArgumentParser):
    def error(self, message):          # one line, no usage dump
        raise UsageError(message)


def build_parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="python -m tarnwicket",
                     description="Search for trading signals on this machine.")
    sub = parser.add_subparsers(dest="command", metavar="COMMAND")
    search = sub.add_parser(
        "search", help="run a local signal search",
        description=("Run the built-in random_weighted search against the local runtime: "
                     "synthetic daily data for 50 instruments, evaluated and backtested on "
                     "this machine. The data set is written on first use."))
    search.add_argument("--jobs", type=int_at_least(1), default=2, metavar="N",
                        help="worker threads (default: 2)")
    search.add_argument("--seconds", type=positive_seconds, default=DEFAULT_SECONDS, metavar="S",
                        help=f"stop after this many seconds (default: {DEFAULT_SECONDS:g})")
    search.add_argument("--data-dir", type=path, default=DEFAULT_DATA_DIR, metavar="DIR",
                        help=f"where data and results live (default: {DEFAULT_DATA_DIR})")
    search.add_argument("--seed", type=int_at_least(0), default=0,
                        help="seed of the synthetic data set, used when it is first written "
                             "(default: 0)")
    search.add_argument("--server-url", type=server_url, default=None, metavar="URL",
                        help="signal service to submit to (default: a loopback service started "
                             "for this search, keeping what it accepted in the data directory)")
    search.add_argument("--service-faults", type=fault_rates, default=None, metavar="SPEC",
                        help="make the loopback service inject faults at random, e.g. "
                             "drop=0.1,5xx=0.1,401=0.05,403=0.05,lost=0.05,slow=0.1,seed=1 "
                             "(default: the environment variable TARNWICKET_SERVICE_FAULTS)")
    search.add_argument("--data", type=path, default=None, metavar="FILE",
                        help="your own daily market data, CSV or Parquet in long form: date, symbol, open, "
                             "high, low, close, volume (vwap and sector optional; further numeric columns "
                             "become features). It replaces the data set of the data directory, which keeps "
                             "it for later runs (default: the synthetic data set)")
    search.add_argument("--store", type=store_url, default=None, metavar="URL",
                        help="where evaluations and submissions are kept: a postgresql://user@host:port/db "
                             "URL shared by several machines, or 'sqlite' for the data directory's own file "
                             "(default: what the data directory was last used with; SQLite at first)")
    check = sub.add_parser(
        "check", help="check a data directory's submissions against the signal service's record",
        description=("Check that every passing signal is in one place, every submission the service "
                     "holds is recorded once or still on its way, no key was reused with another body "
                     "and no dead owner holds a claim. Exit 1 when something is broken."))
    add_data_dir(check)
    check.add_argument("--service-db", type=path, default=None, metavar="PATH",
                       help="the signal service's store (default: the data directory's own)")
    check.add_argument("--lease", type=positive_seconds, default=300.0, metavar="S",
                       help="the claim lease the searches used (default: 300)")
    check.add_argument("--with-data-dir", type=path, action="append", default=[], metavar="DIR",
                       help="another data directory on the same shared store, whose receipt journal "
                            "counts too (repeat for each)")
    add_store_commands(sub)
    return parser


def _err(message: str) -> None:
    try:
        print(f"tarnwicket: error: {message}", file=sys.stderr, flush=True)
    except OSError:                    # stderr is gone as well: nobody to tell
        pass


def main(argv: list[str] | None = None) -> int:
    parser = build_parser()
    try:
        args = parser.parse_args(argv)
        if args.command == "search" and args.server_url is not None and args.service_faults is not None:
            parser.error("argument --service-faults: only the loopback service injects faults; "
                         "it cannot be used with --server-url")
    except UsageError as exc:
        _err(str(exc))
        return EXIT_USAGE
    if args.command == "search":
        return run_search(args)
    if args.command == "check":
        return run_check(args)
    if args.command == "results":
        return run_results(args)
    if args.command == "report":
        return run_report(args)
    if args.command == "db":
        return run_db(args)
    parser.print_help()
    return EXIT_USAGE


def run_check(args) -> int:
    from .invariants import check

    data_dir = os.path.expanduser(args.data_dir)
    try:
        report = check(data_dir, args.service_db and os.path.expanduser(args.service_db), lease=args.lease,
                       others=tuple(os.path.expanduser(d) for d in args.with_data_dir))
    except (OSError, sqlite3.Error, DamagedFile) as exc:
        _err(f"cannot check {data_dir!r}: {exc}")
        return EXIT_USAGE
    for line in report.lines():
        print(line)
    return EXIT_OK if report.ok else EXIT_FAILED


class _Interrupted(BaseException):
    """A stop request that arrived while the runtime was being prepared."""


class _StopRequests:
    """SIGINT and SIGTERM, turned into the same orderly stop.

    While the runtime is prepared (``interrupting``), a signal interrupts it as
    Ctrl-C would; that code writes its files atomically and cleans up after
    itself. Once the search is about to start, a signal is only noted: the
    progress loop ends on it, and the stop and the summary then run whole, with
    later signals noted and ignored. The first signal decides the exit status.
    """

    SIGNALS = (signal.SIGINT, signal.SIGTERM)

    def __init__(self):
        self.signum: int | None = None
        self.interrupting = True
        self._previous: dict = {}

    def __enter__(self) -> "_StopRequests":
        if threading.current_thread() is threading.main_thread():
            for sig in self.SIGNALS:
                self._previous[sig] = signal.signal(sig, self._on_signal)
        return self

    def __exit__(self, *exc) -> None:
        for sig, previous in self._previous.items():
            signal.signal(sig, signal.SIG_DFL if previous is None else previous)

    def _on_signal(self, signum, frame) -> None:
        if self.signum is None:
            self.signum = signum
        if self.interrupting:
            self.interrupting = False
            raise _Interrupted

    def word(self) -> str:
        return "Terminated" if self.signum == signal.SIGTERM else "Interrupted"


class _Output:
    """Standard output that a reader closing the pipe silences instead of breaking.

    After the first failed write, or once ``reader_gone`` sees the reader has
    left, the stream's descriptor is pointed at the null device, so that what
    is still buffered, and the interpreter's flush at exit, go nowhere quietly.
    """

    def __init__(self, stream):
        self.stream = stream
        self.closed = False
        self._poll = None
        try:
            fd = stream.fileno()
            if stat.S_ISFIFO(os.fstat(fd).st_mode):
                self._poll = select.poll()
                self._poll.register(fd, 0)     # errors only: POLLERR once the reader has gone
        except (AttributeError, OSError, ValueError, io.UnsupportedOperation):
            self._poll = None

    def line(self, text: str = "", end: str = "\n") -> None:
        if self.closed:
            return
        try:
            self.stream.write(text + end)
            self.stream.flush()
        except BrokenPipeError:
            self._silence()

    def reader_gone(self) -> bool:
        if not self.closed and self._poll is not None and self._poll.poll(0):
            self._silence()
        return self.closed

    def _silence(self) -> None:
        self.closed = True
        try:
            devnull = os.open(os.devnull, os.O_WRONLY)
            try:
                os.dup2(devnull, self.stream.fileno())
            finally:
                os.close(devnull)
        except (AttributeError, OSError, ValueError, io.UnsupportedOperation):
            pass


def run_search(args) -> int:
    """Run the search; the exit status tells how it ended.

    A closed output pipe gives 141 (128 + SIGPIPE), a stop by SIGINT or SIGTERM
    128 plus the signal number; otherwise 0, 1 for a search that failed, 2 for
    unusable options or data.
    """
    out = _Output(sys.stdout)
    with _StopRequests() as stops:
        code = _run_search(args, out, stops)
    if out.closed:
        return EXIT_PIPE
    if stops.signum is not None:
        return 128 + stops.signum
    return code


def _prepare(args, out, stops):
    """The local runtime, or an exit status when there is none to search with."""
    from .runtime import prepare_local_runtime

    try:
        try:
            out.line(f"Preparing the local runtime in {os.path.expanduser(args.data_dir)} ...")
            if out.closed:
                return EXIT_PIPE
            runtime = prepare_local_runtime(args.data_dir, seed=args.seed, server_url=args.server_url,
                                            service_faults=args.service_faults, store=args.store,
                                            data=args.data)
            source = installed_source(runtime.data_dir)
            if source is not None:
                own = ", ".join(source["features"]) or "none"
                out.line(f"Market data: {source['path']} ({source['dates']:,} days, {source['symbols']:,} "
                         f"symbols; features of your own: {own})")
            return runtime
        finally:
            stops.interrupting = False
    except _Interrupted:
        out.line(f"{stops.word()} before the search started.")
        return EXIT_FAILED
    except (DamagedFile, DataFileError, NoSharedService) as exc:
        _err(str(exc))
        return EXIT_USAGE
    except OSError as exc:
        _err(f"data directory {args.data_dir!r} is not usable: {exc.strerror or exc}")
        return EXIT_USAGE
    except sqlite3.Error as exc:
        _err(f"the search store in {args.data_dir!r} could not be opened: {exc}")
        return EXIT_FAILED


def _run_search(args, out, stops) -> int:
    runtime = _prepare(args, out, stops)
    if isinstance(runtime, int):
        return runtime
    try:
        return _search_with(runtime, args, out, stops)
    finally:
        runtime.close()


def _search_with(runtime, args, out, stops) -> int:
    import tarnwicket.search_templates as st

    search = getattr(st, "search", None)
    template = getattr(st, "random_weighted", None)
    if not callable(search) or template is None:
        _err("this build has no search engine (tarnwicket.search_templates.search is missing)")
        return EXIT_FAILED
    if stops.signum is not None or out.reader_gone():
        return EXIT_FAILED
    since = time.time()
    try:
        handle = search(template, n_jobs=args.jobs)
    except Exception as exc:                      # a start-up refusal, told in one line
        _err(f"the search did not start: {exc}")
        _mark_ended(runtime)
        return EXIT_FAILED
    try:
        evaluated, elapsed, failure = _watch(handle, args.seconds, runtime, out, stops, since)
    finally:
        try:
            with _threads_end_on_purpose(getattr(st, "logger", None)):
                handle.stop()
                _let_supervisor_finish(handle)
        except Exception as exc:
            _err(f"stopping the search failed: {exc}")
        _mark_ended(runtime)
    _print_summary(runtime, evaluated, elapsed, out, since)
    if failure is not None:
        _err(f"the search ended with an error: {failure}")
        return EXIT_FAILED
    return EXIT_OK


class _NoRestartWarnings(logging.Filter):
    def filter(self, record: logging.LogRecord) -> bool:
        return " thread restart failed (" not in record.getMessage()


@contextlib.contextmanager
def _threads_end_on_purpose(logger):
    """Quiet the supervisor's thread-restart warnings while the search stops.

    The stop ends the submission and polling threads. A supervisor that passed its
    own stop check just before may still find one of them gone and warn that it
    could not restart it, although nothing failed.
    """
    if not isinstance(logger, logging.Logger):
        yield
        return
    quiet = _NoRestartWarnings()
    logger.addFilter(quiet)
    try:
        yield
    finally:
        logger.removeFilter(quiet)


def _let_supervisor_finish(handle, seconds: float = 5.0) -> None:
    """Give a supervisor that outlived the stop's own join a little longer to end its last walk."""
    supervisor = getattr(handle, "_supervisor_thread", None)
    if isinstance(supervisor, threading.Thread) and supervisor is not threading.current_thread():
        supervisor.join(seconds)


def _mark_ended(runtime) -> None:
    """Make sure the store no longer says a search is running (the handle's stop does it when it gets there)."""
    tracker = runtime.search_tracker
    try:
        if tracker.is_search_active():
            tracker.set_search_active(False)
    except Exception as exc:
        _err(f"could not mark the search as ended in the store: {exc}")


def _watch(handle, seconds: float, runtime, out: _Output, stops: _StopRequests, since: float):
    """Show progress until the time limit, a stop request or a closed output; return (evaluated, elapsed, failure)."""
    from .summary import LiveCounts, find_store, progress_line

    counts = LiveCounts(find_store(runtime.search_tracker, runtime.data_dir), since)
    tty = sys.stdout.isatty()
    start = time.monotonic()
    baseline = None
    evaluated = 0
    failure = None
    last_print = 0.0
    try:
        while stops.signum is None and not out.reader_gone():
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
            line = progress_line(evaluated, rate, counts.read(), s.submission_discarded,
                                 len(s.errors), elapsed, seconds)
            if tty:
                out.line("\r" + line.ljust(100), end="")
            elif now - last_print >= 5.0:
                out.line(line)
                last_print = now
            if elapsed >= seconds:
                break
            time.sleep(min(0.5, max(seconds - elapsed, 0.01)))
    finally:
        counts.close()
    if stops.signum is not None:
        out.line(f"\n{stops.word()}; stopping ...")
    elif tty:
        out.line()
    return evaluated, time.monotonic() - start, failure


def _print_summary(runtime, evaluated: int, elapsed: float, out: _Output, since: float) -> None:
    from .summary import LiveCounts, find_store, stored_evaluations, submissions_line, summary_lines

    if out.closed:
        return
    store = find_store(runtime.search_tracker, runtime.data_dir)
    stored = stored_evaluations(store, since) if store is not None else {}
    counts = LiveCounts(store, since)
    found = counts.read().found if counts.conn is not None else None
    counts.close()
    if stored.get("total") is not None and stored.get("before") is not None:
        evaluated = stored["total"] - stored["before"]      # the store's own count of this run
    passed = runtime.evaluator.passed_signals()
    for line in summary_lines(passed, stored, store and store.location, evaluated, elapsed, found=found):
        out.line(line)
    out.line(submissions_line(store, since, runtime.server_url))
    out.line(f"Local data and settings: {runtime.data_dir}")
    where = "" if runtime.data_dir == os.path.abspath(os.path.expanduser(DEFAULT_DATA_DIR)) \
        else f" --data-dir {shlex.quote(runtime.data_dir)}"
    out.line(f"See what was found: python -m tarnwicket results{where}; "
             f"pictures: python -m tarnwicket report{where}")


if __name__ == "__main__":
    sys.exit(main())
