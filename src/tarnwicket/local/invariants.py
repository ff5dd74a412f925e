"""What must hold of a data directory and its signal service, whatever crashed.

Reads the search store, the receipt journal and the loopback service's own
store, and reports:

- every passed evaluation is in at most one of the queue, the retry table and
  the status table (the journal holds receipts in transit, not places);
- every journal entry is recorded in the status table or still has its row;
- every recorded submission is known to the service, and every submission
  the service holds is recorded in the status table exactly once, or is
  still in transit: in the journal, or its row still waits and
  will be sent again under the same idempotency key. One submission may be
  recorded for several passes of one graph whose requests were the same body:
  the key is the body's, so the service answered each later one as a repeat
  of the first; it counts as shared when the service holds that graph and
  counted a repeat for each further pass;
- no idempotency key reached the service with two different bodies, and no
  signal is held by the service under two keys;
- no row is claimed by an owner whose lease has run out (meaningful once a
  search has made a pass after the lease);
- every row names a passed evaluation, or one that is not in the store at
  all: a pass whose record failed (a full or broken disk) is still queued,
  under an identifier of its own, and such rows are listed apart;
- passed evaluations in no place at all are listed with their times, so that
  a driver can match them to its kills (the evaluation and its queue row are
  two writes; a kill between them leaves the pass without a row).

``python -m tarnwicket check --data-dir DIR`` prints the report and exits 1
when an invariant fails.
"""

from __future__ import annotations

import collections
import json
import os
import sqlite3
import time
from dataclasses import dataclass, field

from tarnwicket.local_signal_service import DB_FILENAME as SERVICE_DB
from tarnwicket.search_tracking import DB_FILENAME as STORE_DB
from tarnwicket.stores import open_store

JOURNAL_DIR = "submission_receipts_pending"


@dataclass
class Report:
    passed: int = 0
    queued: int = 0
    retrying: int = 0
    recorded: int = 0               # status rows
    accepted: int = 0               # verdicts of the service, as recorded
    rejected: int = 0
    in_review: int = 0
    journal: int = 0                # entries in the journal
    service_held: int = 0           # submissions the service holds
    service_repeats: int = 0        # requests that repeated a key the service knew
    in_transit: int = 0             # held by the service, not yet recorded, still on its way
    lost_receipts: int = 0          # accepted by the service, and neither recorded nor on its way
    duplicates: int = 0             # submissions recorded twice, and signals held under two keys
    shared: int = 0                 # submissions recorded for several passes that sent one body
    unplaced: list = field(default_factory=list)        # (eval_id, created_at) of passes in no place
    unrecorded: list = field(default_factory=list)      # eval_id of rows whose pass the store never recorded
    problems: list = field(default_factory=list)        # broken invariants, one text each

    @property
    def ok(self) -> bool:
        return not self.problems

    def lines(self) -> list[str]:
        out = [f"passed {self.passed:,}: queued {self.queued:,}, retrying {self.retrying:,}, "
               f"recorded {self.recorded:,} (accepted {self.accepted:,}, rejected {self.rejected:,}, "
               f"in review {self.in_review:,}), in no place {len(self.unplaced):,}, "
               f"shared by passes of one body {self.shared:,}, rows of unrecorded passes {len(self.unrecorded):,}",
               f"service holds {self.service_held:,} (repeated requests {self.service_repeats:,}); "
               f"in transit {self.in_transit:,}; journal entries {self.journal:,}"]
        out += [f"BROKEN: {p}" for p in self.problems] or ["every invariant holds"]
        return out


def _ro(path: str) -> sqlite3.Connection:
    return sqlite3.connect(f"file:{path}?mode=ro", uri=True, timeout=30.0)


def _stale_claims(store, conn, table: str, before: float) -> int:
    """Rows of ``table`` claimed before ``before``; none where no search has added the claim columns yet."""
    if "in_flight_owner" not in store.table_columns(conn, table):
        return 0
    return conn.execute(f"SELECT COUNT(*) FROM {table} WHERE in_flight_owner IS NOT NULL AND in_flight_at < ?",
                        (before,)).fetchone()[0]


def _journal_entries(data_dir: str, report: Report) -> list[dict]:
    path = os.path.join(data_dir, JOURNAL_DIR)
    entries = []
    for name in sorted(os.listdir(path)) if os.path.isdir(path) else []:
        if not name.endswith(".json"):
            continue
        try:
            with open(os.path.join(path, name), encoding="utf-8") as fh:
                entry = json.load(fh)
        except (OSError, ValueError) as exc:
            report.problems.append(f"journal entry {name} cannot be read: {exc}")
            continue
        if isinstance(entry, dict):
            entries.append(entry)
    return entries


def check(data_dir: str, service_db: str | None = None, lease: float = 300.0,
          now: float | None = None, others: tuple = ()) -> Report:
    """The report of ``data_dir`` (its store and journal) and of the service's store
    (``signal_service.db`` in ``data_dir`` unless ``service_db`` names another).

    ``others`` are further data directories on the same shared store: their
    journals count as well."""
    report = Report()
    now = time.time() if now is None else now
    where = open_store(data_dir, db_filename=STORE_DB)
    if not where.exists():
        raise FileNotFoundError(f"no store in {data_dir}")
    # named places that are not there would be checked as empty, and pass
    if service_db is not None and not os.path.isfile(service_db):
        raise FileNotFoundError(f"no signal service store at {service_db}")
    for other in others:
        if not os.path.isdir(other):
            raise FileNotFoundError(f"{other} is not a data directory")
    store = where.read_only(30.0)
    try:
        passed = dict(store.execute("SELECT eval_id, created_at FROM signal_evaluations WHERE passed=1"))
        queue = [r[0] for r in store.execute("SELECT eval_id FROM submission_queue")]
        retry = [r[0] for r in store.execute("SELECT eval_id FROM submission_retry")]
        status = store.execute("SELECT eval_id, submission_id, status, finalized_at FROM submission_status").fetchall()
        failed = {e for e in {*queue, *retry, *(r[0] for r in status)} - passed.keys()
                  if store.execute("SELECT 1 FROM signal_evaluations WHERE eval_id=?", (e,)).fetchone()}
        sources = {("queue", r[0]): r[1] for r in store.execute("SELECT queue_id, eval_id FROM submission_queue")}
        sources.update({("retry", r[0]): r[1] for r in store.execute("SELECT retry_id, eval_id FROM submission_retry")})
        key_to_eval = dict(store.execute("SELECT idempotency_key, eval_id FROM submission_attempts"))
        recorded_ids = collections.Counter(sid for _, sid, *_ in status if sid)
        shared = {sid: [e for e, s, *_ in status if s == sid] for sid, n in recorded_ids.items() if n > 1}
        graphs = {e: _graph(store, e) for evals in shared.values() for e in evals}
        stale = sum(_stale_claims(where, store, table, now - lease) for table in ("submission_queue", "submission_retry"))
    finally:
        store.close()

    report.passed, report.queued, report.retrying, report.recorded = len(passed), len(queue), len(retry), len(status)
    report.accepted = sum(s in ("found", "useful") for _, _, s, f in status if f is not None)
    report.in_review = sum(f is None for *_, f in status)
    report.rejected = report.recorded - report.accepted - report.in_review

    places = collections.Counter(queue + retry + [e for e, *_ in status])
    for eval_id, n in places.items():
        if n > 1:
            report.problems.append(f"evaluation {eval_id} is in {n} places")
        if eval_id in failed:
            report.problems.append(f"evaluation {eval_id} has a submission row but did not pass")
        elif eval_id not in passed:
            report.unrecorded.append(eval_id)
    report.unplaced = sorted(((e, t) for e, t in passed.items() if e not in places), key=lambda p: p[1])

    journal = [e for d in (data_dir, *others) for e in _journal_entries(d, report)]
    report.journal = len(journal)
    journal_ids = set()
    for entry in journal:
        sid, source = entry.get("submission_id"), (entry.get("source_kind"), entry.get("source_id"))
        journal_ids.add(sid)
        if sid not in recorded_ids and source not in sources:
            report.lost_receipts += 1
            report.problems.append(f"receipt {sid} in the journal is neither recorded nor has its row ({source})")

    if stale:
        report.problems.append(f"{stale} rows are claimed by an owner whose lease ran out")

    service_path = service_db or os.path.join(data_dir, SERVICE_DB)
    bodies = {}
    if os.path.exists(service_path):
        bodies = _check_service(service_path, report, recorded_ids, journal_ids, key_to_eval,
                                set(queue) | set(retry), shared)
    for sid, evals in shared.items():
        if sid in bodies and _one_body(*bodies[sid], [graphs[e] for e in evals]):
            report.shared += 1
        else:
            report.duplicates += 1
            report.problems.append(f"submission {sid} is recorded {len(evals)} times")
    return report


def _graph(store, eval_id):
    row = store.execute("SELECT graph_json FROM signal_evaluations WHERE eval_id=?", (eval_id,)).fetchone()
    return None if row is None else json.loads(row[0])


def _one_body(body, repeats, graphs):
    """Whether the held ``body`` is the graph of every one of ``graphs``, and the
    service counted a repeated request for each but the first."""
    return repeats >= len(graphs) - 1 and all(g is not None and g == body.get("graph") for g in graphs)


def _check_service(path, report, recorded_ids, journal_ids, key_to_eval, waiting, shared):
    """Checks what the service holds; returns (body, repeats) of each held one of ``shared``."""
    service = _ro(path)
    try:
        held = service.execute("SELECT submission_id, idempotency_key, repeats FROM submissions").fetchall()
        bodies = {}
        for sid in shared:
            row = service.execute("SELECT body_json, repeats FROM submissions WHERE submission_id=?", (sid,)).fetchone()
            if row is not None:
                bodies[sid] = (json.loads(row[0]), row[1])
        conflicts = service.execute("SELECT COUNT(*) FROM key_conflicts").fetchone()[0]
        twice = service.execute("SELECT COUNT(*) FROM (SELECT body_json FROM submissions GROUP BY body_json "
                                "HAVING COUNT(*) > 1)").fetchone()[0]
    finally:
        service.close()
    report.service_held = len(held)
    report.service_repeats = sum(r for *_, r in held)
    if conflicts:
        report.problems.append(f"{conflicts} requests reused an idempotency key with another body")
    if twice:
        report.duplicates += twice
        report.problems.append(f"{twice} signals are held by the service under more than one key")
    unknown = set(recorded_ids) - {sid for sid, *_ in held}
    if unknown:
        report.problems.append(f"{len(unknown)} recorded submissions are unknown to the service, "
                               f"e.g. {sorted(unknown)[0]}")
    for sid, key, _ in held:
        if sid in recorded_ids:
            continue
        if sid in journal_ids or key_to_eval.get(key) in waiting:
            report.in_transit += 1
        else:
            report.lost_receipts += 1
            report.problems.append(f"submission {sid} held by the service is lost: not recorded, "
                                   f"not in the journal, no row waits to send it again")
    return bodies
