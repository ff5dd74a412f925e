"""A user's own daily market data: a long-form CSV or Parquet file read into the
local runtime's panel.

One row per date and symbol, with the columns ``date``, ``symbol``, ``open``,
``high``, ``low``, ``close`` and ``volume`` (any letter case); ``vwap`` and
``sector`` (a label) are optional; every further column of numbers becomes a
feature of that name. An empty cell is a missing value. Problems are told in
one line naming the file and, where there is one, the row.
"""

from __future__ import annotations

import csv
import datetime as dt
import hashlib
import json
import math
import os
import re

import numpy as np

from .files import write_atomically
from .market_data import PRICE_FIELDS, Panel

REQUIRED = ("date", "symbol", "open", "high", "low", "close", "volume")
OPTIONAL = ("vwap", "sector")
MIN_DATES = 60          # the longest windows of the vocabulary need this many days
MIN_SYMBOLS = 5         # cross-sectional operators need a cross-section
SOURCE_FILE = "market_source.json"
_NAME = re.compile(r"^[a-z][a-z0-9_]{0,39}$")


class DataFileError(ValueError):
    """A market data file that cannot be used; the message is one line."""

    def __init__(self, path: str, problem: str):
        super().__init__(f"{path}: {problem}")
        self.path, self.problem = path, problem


def _rows(path: str) -> tuple[list[str], list[list]]:
    """Header (lower case) and rows of a CSV or Parquet file."""
    if path.lower().endswith((".parquet", ".pq")):
        try:
            import pyarrow.parquet as pq
        except ModuleNotFoundError:
            raise DataFileError(path, "reading Parquet needs pyarrow: pip install 'tarnwicket[data]'") from None
        try:
            table = pq.read_table(path)
        except (OSError, ValueError) as exc:
            raise DataFileError(path, f"is not a readable Parquet file ({exc})") from None
        columns = [c.lower() for c in table.column_names]
        data = [table.column(i).to_pylist() for i in range(table.num_columns)]
        return columns, [list(r) for r in zip(*data)]
    try:
        with open(path, newline="", encoding="utf-8-sig") as fh:
            reader = csv.reader(fh)
            header = next(reader, None)
            if header is None:
                raise DataFileError(path, "is empty")
            return [c.strip().lower() for c in header], list(reader)
    except UnicodeDecodeError:
        raise DataFileError(path, "is not UTF-8 text (CSV) and not named .parquet") from None
    except csv.Error as exc:
        raise DataFileError(path, f"is not valid CSV ({exc})") from None


def _date(value, path: str, row: int) -> int:
    if isinstance(value, (dt.date, dt.datetime)):
        return value.year * 10000 + value.month * 100 + value.day
    text = str(value).strip()
    for fmt in ("%Y-%m-%d", "%Y%m%d", "%Y/%m/%d"):
        try:
            d = dt.datetime.strptime(text, fmt)
            return d.year * 10000 + d.month * 100 + d.day
        except ValueError:
            pass
    raise DataFileError(path, f"row {row}: date {text!r} is not a date (use YYYY-MM-DD)")


def _number(value, column: str, path: str, row: int) -> float:
    if value is None or (isinstance(value, str) and value.strip() == ""):
        return math.nan
    try:
        number = float(value)
    except (TypeError, ValueError):
        raise DataFileError(path, f"row {row}: {column} {value!r} is not a number") from None
    if math.isinf(number):
        raise DataFileError(path, f"row {row}: {column} is infinite")
    return number


def read_market_file(path: str) -> Panel:
    """The panel of a user's market data file; ``DataFileError`` tells what is wrong."""
    if not os.path.isfile(path):
        raise DataFileError(path, "not a regular file" if os.path.exists(path) else "no such file")
    header, rows = _rows(path)
    missing = [c for c in REQUIRED if c not in header]
    if missing:
        raise DataFileError(path, f"missing columns: {', '.join(missing)} (found: {', '.join(header)})")
    repeated = sorted({c for c in header if header.count(c) > 1})
    if repeated:
        raise DataFileError(path, f"columns named twice: {', '.join(repeated)}")
    extras = [c for c in header if c not in REQUIRED and c not in OPTIONAL]
    bad = [c for c in extras if not _NAME.match(c)]
    if bad:
        raise DataFileError(path, f"column {bad[0]!r} can't be a feature name (letters, digits, _; "
                                  "starting with a letter)")
    at = {c: header.index(c) for c in header}
    numeric = [c for c in (*PRICE_FIELDS, *extras) if c in at]

    cells: dict[tuple[int, str], tuple[int, list[float], str | None]] = {}
    for i, row in enumerate(rows, start=2):            # row 1 is the header
        if not any(str(v).strip() for v in row if v is not None):
            continue
        if len(row) != len(header):
            raise DataFileError(path, f"row {i}: {len(row)} fields, the header has {len(header)}")
        date = _date(row[at["date"]], path, i)
        symbol = str(row[at["symbol"]]).strip()
        if not symbol:
            raise DataFileError(path, f"row {i}: the symbol is empty")
        key = (date, symbol)
        if key in cells:
            raise DataFileError(path, f"rows {cells[key][0]} and {i} are both {symbol} on {date}")
        values = [_number(row[at[c]], c, path, i) for c in numeric]
        sector = str(row[at["sector"]]).strip() if "sector" in at else None
        cells[key] = (i, values, sector)

    dates = np.array(sorted({d for d, _ in cells}), dtype=np.int64)
    symbols = sorted({s for _, s in cells})
    if dates.size < MIN_DATES:
        raise DataFileError(path, f"{dates.size} dates; at least {MIN_DATES} are needed")
    if len(symbols) < MIN_SYMBOLS:
        raise DataFileError(path, f"{len(symbols)} symbols; at least {MIN_SYMBOLS} are needed")
    t_index = {d: i for i, d in enumerate(dates.tolist())}
    n_index = {s: j for j, s in enumerate(symbols)}
    arrays = {c: np.full((dates.size, len(symbols)), np.nan) for c in numeric}
    sectors: dict[str, str] = {}
    for (date, symbol), (i, values, sector) in cells.items():
        t, n = t_index[date], n_index[symbol]
        for c, v in zip(numeric, values):
            arrays[c][t, n] = v
        if sector:
            sectors.setdefault(symbol, sector)
    close = arrays["close"]
    if np.any(close[~np.isnan(close)] <= 0):
        raise DataFileError(path, "close prices must be positive")
    if "vwap" not in arrays:            # the typical price stands in for a missing vwap
        arrays["vwap"] = (arrays["high"] + arrays["low"] + arrays["close"]) / 3.0
    labels = sorted(set(sectors.values()))
    sector = np.array([labels.index(sectors[s]) if s in sectors else 0 for s in symbols], dtype=np.int64)
    return Panel(dates, np.array(symbols), sector, *(arrays[c] for c in PRICE_FIELDS),
                 extras={c: arrays[c] for c in extras})


def file_digest(path: str) -> str:
    h = hashlib.sha256()
    with open(path, "rb") as fh:
        for block in iter(lambda: fh.read(1 << 20), b""):
            h.update(block)
    return h.hexdigest()


def installed_source(data_dir: str) -> dict | None:
    try:
        with open(os.path.join(data_dir, SOURCE_FILE), encoding="utf-8") as fh:
            return json.load(fh)
    except (FileNotFoundError, ValueError):
        return None


def install_market_file(data_dir: str, path: str, universe_id: str) -> Panel | None:
    """Make ``path`` the market data of ``data_dir`` unless it already is (then None)."""
    from .data_source import write_universe

    path = os.path.abspath(os.path.expanduser(path))
    digest = file_digest(path) if os.path.isfile(path) else None
    known = installed_source(data_dir)
    if known is not None and digest is not None and known.get("sha256") == digest:
        return None
    panel = read_market_file(path)
    write_universe(panel, data_dir, universe_id)
    record = {"path": path, "sha256": digest, "dates": int(panel.dates.size), "symbols": int(panel.symbols.size),
              "features": sorted(panel.extras)}
    write_atomically(os.path.join(data_dir, SOURCE_FILE), lambda fh: json.dump(record, fh, indent=1), binary=False)
    return panel
