"""``python -m tarnwicket results``, ``report`` and ``db``: what a data
directory's store holds, in a table and in pictures, and its upkeep."""

from __future__ import annotations

import os
import sqlite3
import sys
import time

from tarnwicket.errors import DamagedFile

from .options import int_at_least, path
from .results import SORTS, STATUSES, as_csv, as_json, as_table, read_results
from .runtime import DEFAULT_DATA_DIR


def add_data_dir(parser) -> None:
    parser.add_argument("--data-dir", type=path, default=DEFAULT_DATA_DIR, metavar="DIR",
                        help=f"the data directory (default: {DEFAULT_DATA_DIR})")


def add_parsers(sub) -> None:
    non_negative_int = int_at_least(0)
    results = sub.add_parser(
        "results", help="list the passing signals of a data directory",
        description=("List the passing signals in a data directory's store, newest first: their "
                     "expression, metrics, era and where each stands with the signal service "
                     "(queued, retrying, sent and in review, accepted, rejected with the reason, "
                     "not_queued). Reads only; works while a search runs."))
    add_data_dir(results)
    results.add_argument("--status", choices=STATUSES, default=None, help="only signals in this state")
    results.add_argument("--era", type=int, default=None, metavar="N", help="only signals of this era")
    results.add_argument("--sort", choices=SORTS, default="newest",
                         help="newest (default), oldest, or best first by a metric")
    results.add_argument("--top", type=int_at_least(1), default=None, metavar="N",
                         help="at most N signals")
    form = results.add_mutually_exclusive_group()
    form.add_argument("--json", action="store_true", help="a JSON list instead of the table")
    form.add_argument("--csv", action="store_true", help="CSV with a header row instead of the table")

    report = sub.add_parser(
        "report", help="write an HTML report with pictures of what the searches did and found",
        description=("Write report.html (self-contained) and its PNG pictures: evaluations and passes "
                     "over time, submissions, rejection reasons, and cumulative P&L and turnover of the "
                     "best signals recomputed on the local data. Needs matplotlib "
                     "(pip install 'tarnwicket[report]'). Reads only; works while a search runs."))
    add_data_dir(report)
    report.add_argument("--out", type=path, default=None, metavar="DIR",
                        help="where the report goes (default: report/ in the data directory)")
    report.add_argument("--best", type=non_negative_int, default=3, metavar="N",
                        help="signals whose P&L is drawn, best fitness first (default: 3)")

    db = sub.add_parser(
        "db", help="look at or trim a data directory's store",
        description=("Database size and row counts, and trimming old or failed evaluations. "
                     "Trimming never touches an evaluation whose signal still waits to be sent or "
                     "reviewed, and is refused while a search runs on the store."))
    db.add_argument("action", choices=("info", "trim", "trim-failed"),
                    help="info: size and row counts; trim: keep the newest --keep evaluations per type; "
                         "trim-failed: delete the evaluations that did not pass")
    add_data_dir(db)
    db.add_argument("--type", choices=("signal", "strategy"), default=None, dest="eval_type",
                    help="only this type of evaluation (default: both)")
    db.add_argument("--keep", type=non_negative_int, default=50000, metavar="N",
                    help="evaluations per type that trim keeps (default: 50000)")
    db.add_argument("--force", action="store_true",
                    help="go on although the store says a search is running (after a search was killed)")


def _open(data_dir: str):
    """The store of ``data_dir`` (read-only connection), or None when it has none."""
    from tarnwicket.search_tracking import DB_FILENAME
    from tarnwicket.stores import open_store

    try:
        store = open_store(data_dir, db_filename=DB_FILENAME)
    except DamagedFile as exc:
        raise _NoStore(str(exc)) from None
    return store, (store.read_only(30.0) if store.exists() else None)


class _NoStore(Exception):
    """No store to read: none yet, or the file that says where it is is damaged."""


def _reading(data_dir: str, read):
    """``read(store, conn)`` on a read-only connection to the data directory's store."""
    store, conn = _open(data_dir)
    if conn is None:
        raise _NoStore(f"there is no store in {data_dir!r} yet: run a search there first")
    try:
        return store, read(store, conn)
    finally:
        conn.close()


def run_results(args) -> int:
    from .cli import EXIT_FAILED, EXIT_OK, EXIT_USAGE, _err

    data_dir = os.path.expanduser(args.data_dir)
    try:
        store, results = _reading(data_dir, lambda store, conn: read_results(
            conn, status=args.status, era=args.era, sort=args.sort, top=args.top))
    except _NoStore as exc:
        _err(str(exc))
        return EXIT_USAGE
    except sqlite3.Error as exc:
        _err(f"the store of {data_dir!r} could not be read: {exc}")
        return EXIT_FAILED
    if args.json:
        text = as_json(results)
    elif args.csv:
        text = as_csv(results).rstrip("\n")
    elif results:
        text = as_table(results)
    else:
        which = "".join((f" with status {args.status}" if args.status else "",
                         f" of era {args.era}" if args.era is not None else ""))
        text = f"No passing signals{which} in {store.location}."
    print(text)
    return EXIT_OK


def run_report(args) -> int:
    from .cli import EXIT_FAILED, EXIT_OK, EXIT_USAGE, _err
    from .report import write_report

    data_dir = os.path.expanduser(args.data_dir)
    out_dir = os.path.expanduser(args.out) if args.out else os.path.join(data_dir, "report")
    try:
        _, page = _reading(data_dir, lambda store, conn: write_report(
            conn, data_dir, out_dir, best=args.best, location=store.location))
    except _NoStore as exc:
        _err(str(exc))
        return EXIT_USAGE
    except RuntimeError as exc:          # no matplotlib
        _err(str(exc))
        return EXIT_FAILED
    except (OSError, sqlite3.Error) as exc:
        _err(f"the report could not be written: {exc}")
        return EXIT_FAILED
    print(f"Wrote {page} (open it in a browser); the pictures are beside it.")
    return EXIT_OK


def _running_since(data_dir: str) -> float | None:
    """When the store was marked as searched, if it says a search runs now."""
    try:
        _, row = _reading(data_dir, lambda store, conn: conn.execute(
            "SELECT value, updated_at FROM tracker_meta WHERE key='search_active'").fetchone())
    except _NoStore:
        return None
    return row[1] if row is not None and row[0] == "1" else None


def run_db(args) -> int:
    import tarnwicket.agent_onboarding as onboarding
    import tarnwicket.search_templates as st

    from .cli import EXIT_FAILED, EXIT_OK, EXIT_USAGE, _err

    data_dir = os.path.expanduser(args.data_dir)
    if not os.path.isdir(data_dir):
        _err(f"{data_dir!r} is not a data directory")
        return EXIT_USAGE
    try:
        since = _running_since(data_dir) if args.action != "info" else None
        if since is not None and not args.force:
            _err(f"a search is running on this store (since {time.strftime('%Y-%m-%d %H:%M:%S', time.localtime(since))}); "
                 "stop it first, and trim afterwards. If no search runs (one was killed), add --force.")
            return EXIT_FAILED
        onboarding._config["data_dir"] = data_dir
        if args.action == "info":
            _print_info(st.get_db_info())
        elif args.action == "trim":
            n = st.delete_evaluations(eval_type=args.eval_type, keep_last=args.keep)
            print(f"Deleted {n:,} evaluations; kept the newest {args.keep:,} of each type and every one "
                  "still waiting to be sent or reviewed.")
        else:
            n = st.delete_failed_evaluations(eval_type=args.eval_type)
            print(f"Deleted {n:,} evaluations that did not pass.")
    except (_NoStore, DamagedFile) as exc:
        _err(str(exc))
        return EXIT_USAGE
    except RuntimeError as exc:           # this process runs a search itself
        _err(str(exc))
        return EXIT_FAILED
    except (OSError, sqlite3.Error) as exc:
        _err(f"the store of {data_dir!r} could not be used: {exc}")
        return EXIT_FAILED
    return EXIT_OK


def _print_info(info: dict) -> None:
    out = sys.stdout
    print(f"Store: {info['db_path']}", file=out)
    size = f"{info['size_mb']:,.3f} MB"
    if info.get("wal_size_bytes"):
        size += f" (and {info['wal_size_bytes'] / 1048576:,.3f} MB of write-ahead log)"
    print(f"Size: {size}", file=out)
    print(f"Passing signal evaluations: {info['passed_signal_evaluations']:,}; "
          f"submissions in review: {info['open_submissions']:,}", file=out)
    counts = info["row_counts"]
    width = max(map(len, counts))
    for table, n in counts.items():
        print(f"  {table.ljust(width)}  {n:>10,}", file=out)
