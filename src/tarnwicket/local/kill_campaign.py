"""Random kills of real local searches, and the invariants checked after each.

Each round starts one or more search processes on one store (a short claim
lease, so that a dead owner's rows come free quickly): one data directory's
SQLite file, or with ``--store`` a PostgreSQL database, each process then
with a data directory of its own as on separate machines. It lets them
work for a random while against the loopback signal service (which runs in a
process of its own and may inject faults), then kills every one of them with
SIGKILL at its own random moment, and checks the directory while nothing runs.
After the last round, one clean search without faults drains what is left and
the directory must hold every invariant with nothing in transit. On a shared
store a journal entry whose receipt another machine recorded may outlive that
search; the machine's next start must drop it, and a short search shows it.

A pass that was recorded in the instant before a kill, or before the final
stop, may lack its queue row (the evaluation and its row are two writes);
such a pass counts as lost unless it was recorded within ``KILL_WINDOW``
seconds before one of those moments.

Run: ``python -m tarnwicket.local.kill_campaign --kills 1000 --workdir DIR``.
"""

from __future__ import annotations

import argparse
import json
import os
import random
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass, field

from .invariants import JOURNAL_DIR, Report, check
from .options import fault_spec, int_at_least, path, positive_seconds, store_url

KILL_WINDOW = 2.0
CHILD_FLAG = "--child-with-lease"


@dataclass
class Campaign:
    workdir: str
    kills: int = 20
    processes: int = 1
    jobs: int = 2
    lease: float = 3.0
    faults: str | None = None
    min_seconds: float = 1.5
    max_seconds: float = 5.0
    final_seconds: float = 12.0
    seed: int = 0
    store: str | None = None
    log: object = None

    def __post_init__(self):
        self.data_dir = os.path.join(self.workdir, "local")
        # On a shared store every process has a data directory (and a receipt journal) of its own.
        self.data_dirs = ([self.data_dir] if self.store is None else
                          [os.path.join(self.workdir, f"machine{i}") for i in range(self.processes)])
        self.service_db = os.path.join(self.workdir, "service.db")
        self.rng = random.Random(self.seed)


@dataclass
class Outcome:
    kills: int = 0
    rounds: int = 0
    report: Report | None = None
    faults: dict = field(default_factory=dict)
    requests: dict = field(default_factory=dict)
    lost_passes: list = field(default_factory=list)
    problems: list = field(default_factory=list)   # "round N: ..." for every check that failed

    @property
    def ok(self) -> bool:
        return not self.problems and not self.lost_passes

    def lines(self) -> list[str]:
        r = self.report
        out = [f"kills {self.kills}, restarts {self.rounds}, "
               f"faults injected {dict(sorted(self.faults.items())) or 'none'}, requests {self.requests}"]
        if r is not None:
            out.append(f"passed {r.passed:,}, sent {r.service_held:,}, accepted {r.accepted:,}, "
                       f"rejected {r.rejected:,}, in review {r.in_review:,}, waiting {r.queued + r.retrying:,}, "
                       f"repeated requests {r.service_repeats:,}, shared by passes of one body {r.shared}, "
                       f"duplicates {r.duplicates}, "
                       f"lost {len(self.lost_passes) + r.lost_receipts}")
        out += [f"BROKEN: {p}" for p in self.problems]
        out += [f"LOST: pass {e} recorded at {t:.3f}, not just before a kill" for e, t in self.lost_passes]
        return out


def _python() -> list[str]:
    return [sys.executable]


def _prepare(c: Campaign) -> str:
    """Writes the data set and the wallet of each data directory (one identity for all, as one
    user's machines share theirs); returns the token."""
    from .era import WALLET_FILE

    code = ("import sys; from tarnwicket.local.runtime import prepare_local_runtime as p; "
            "r = p(sys.argv[1], server_url='http://unused.invalid', store=sys.argv[2] if len(sys.argv) > 2 else None); "
            "print(r.auth_proxy.get_token()); r.close()")
    tokens = []
    for data_dir in c.data_dirs:
        if tokens:
            os.makedirs(data_dir, exist_ok=True)
            shutil.copyfile(os.path.join(c.data_dirs[0], WALLET_FILE), os.path.join(data_dir, WALLET_FILE))
        argv = _python() + ["-c", code, data_dir] + ([c.store] if c.store else [])
        done = subprocess.run(argv, capture_output=True, text=True, check=True)
        tokens.append(done.stdout.strip().splitlines()[-1])
    return tokens[0]


def _start_service(c: Campaign, token: str, faults: str | None):
    argv = _python() + ["-m", "tarnwicket.local_signal_service", "--db", c.service_db, "--token", token]
    if faults:
        argv += ["--faults", faults]
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, text=True)
    url = proc.stdout.readline().strip()
    if not url.startswith("http://"):
        proc.kill()
        raise RuntimeError(f"the signal service did not start: {url!r}")
    return proc, url


def _stop_service(proc, outcome: Outcome) -> None:
    proc.send_signal(signal.SIGTERM)
    out, _ = proc.communicate(timeout=30)
    for line in out.splitlines():
        if line.startswith("{"):
            tally = json.loads(line)
            for kind, n in tally.get("faults", {}).items():
                outcome.faults[kind] = outcome.faults.get(kind, 0) + n
            for route, n in tally.get("requests", {}).items():
                outcome.requests[route] = outcome.requests.get(route, 0) + n


def _search(c: Campaign, url: str, seconds: float, log, data_dir: str) -> subprocess.Popen:
    argv = _python() + ["-m", "tarnwicket.local.kill_campaign", CHILD_FLAG, str(c.lease), "search",
                        "--data-dir", data_dir, "--jobs", str(c.jobs), "--seconds", str(seconds),
                        "--server-url", url]
    return subprocess.Popen(argv, stdout=log, stderr=log, env=dict(os.environ, PYTHONUNBUFFERED="1"))


def _say(c: Campaign, text: str) -> None:
    if c.log is not None:
        print(text, file=c.log, flush=True)


def run(c: Campaign) -> Outcome:
    os.makedirs(c.workdir, exist_ok=True)
    outcome = Outcome()
    token = _prepare(c)
    moments: list[float] = []     # kills and the final stop: where a pass may lack its row
    with open(os.path.join(c.workdir, "searches.log"), "ab") as log:
        service, url = _start_service(c, token, c.faults)
        try:
            while outcome.kills < c.kills:
                outcome.rounds += 1
                children = [_search(c, url, 3600, log, c.data_dirs[i % len(c.data_dirs)])
                            for i in range(c.processes)]
                for child in children:
                    time.sleep(c.rng.uniform(c.min_seconds, c.max_seconds) / len(children))
                    child.send_signal(signal.SIGKILL)
                    child.wait()
                    moments.append(time.time())
                    outcome.kills += 1
                report = _check(c, now=0.0)  # claims may be fresh
                outcome.problems += [f"round {outcome.rounds}: {p}" for p in report.problems]
                _say(c, f"round {outcome.rounds}: kills {outcome.kills}; " + "; ".join(report.lines()))
        finally:
            _stop_service(service, outcome)
        service, url = _start_service(c, token, None)
        final_start = time.time()
        try:
            # Each data directory's own search replays what its journal holds.
            finals = [_search(c, url, max(c.final_seconds, 3 * c.lease), log, d) for d in c.data_dirs]
            for final in finals:
                if final.wait() != 0:
                    outcome.problems.append(f"the final search ended with exit status {final.returncode}")
            moments.append(time.time())
        finally:
            _stop_service(service, outcome)
        # A dead owner's claim whose lease ran out before the final search began must be gone:
        # that search's passes took the row. Its own claims left at its stop are not stale yet.
        report = _check(c, now=final_start)
        if report.ok and not report.in_transit and report.journal and len(c.data_dirs) > 1:
            _settle(c, token, log, outcome, moments)
            report = _check(c, now=final_start)
    outcome.report = report
    outcome.problems += [f"final: {p}" for p in report.problems]
    if report.in_transit or report.journal:
        outcome.problems.append(f"final: {report.in_transit} submissions in transit and "
                                f"{report.journal} journal entries after a clean stop")
    outcome.lost_passes = [(e, t) for e, t in report.unplaced
                           if not any(0.0 <= m - t <= KILL_WINDOW for m in moments)]
    return outcome


def _settle(c: Campaign, token: str, log, outcome: Outcome, moments: list[float]) -> None:
    """On a shared store a machine's final search can stop with a receipt in its journal that
    is recorded already: another machine's replay took the row that this one had claimed and
    sent again, so its own recording found no row to delete and kept failing until the stop.
    The machine's next start must drop the entry; one short search of each such machine,
    alone, shows it."""
    service, url = _start_service(c, token, None)
    try:
        for d in c.data_dirs:
            if os.path.isdir(os.path.join(d, JOURNAL_DIR)):
                _say(c, f"settling the journal of {d}")
                if _search(c, url, 2.0, log, d).wait() != 0:
                    outcome.problems.append(f"the settling search of {d} failed")
                moments.append(time.time())
    finally:
        _stop_service(service, outcome)


def _check(c: Campaign, now: float):
    return check(c.data_dirs[0], c.service_db, lease=c.lease, now=now, others=tuple(c.data_dirs[1:]))


def _child(lease: str, argv: list[str]) -> int:
    import tarnwicket.search_templates as st

    st.SUBMISSION_QUEUE_LEASE_SECONDS = float(lease)
    from .cli import main

    return main(argv)


def main(argv: list[str] | None = None) -> int:
    argv = sys.argv[1:] if argv is None else argv
    if argv[:1] == [CHILD_FLAG]:
        return _child(argv[1], argv[2:])
    def shared_store(text: str) -> str | None:
        return None if store_url(text) == "sqlite" else text  # "sqlite": one data directory's own file

    parser = argparse.ArgumentParser(prog="python -m tarnwicket.local.kill_campaign", description=__doc__.split("\n\n")[0])
    parser.add_argument("--workdir", type=path, required=True, help="where the data directory and the service's store go")
    parser.add_argument("--kills", type=int_at_least(0), default=20)
    parser.add_argument("--processes", type=int_at_least(1), default=1, help="searches running at once on one store")
    parser.add_argument("--jobs", type=int_at_least(1), default=2, help="workers per search")
    parser.add_argument("--lease", type=positive_seconds, default=3.0, help="claim lease of the searches, in seconds")
    parser.add_argument("--faults", type=fault_spec, default=None,
                        help="faults of the service, e.g. drop=0.05,5xx=0.05,401=0.05")
    parser.add_argument("--seed", type=int, default=0)
    parser.add_argument("--store", type=shared_store, default=None, metavar="URL",
                        help="a postgresql:// store shared by the processes, each with a data directory of its own")
    args = parser.parse_args(argv)
    c = Campaign(args.workdir, kills=args.kills, processes=args.processes, jobs=args.jobs, lease=args.lease,
                 faults=args.faults, seed=args.seed, store=args.store, log=sys.stdout)
    outcome = run(c)
    for line in outcome.lines():
        print(line)
    return 0 if outcome.ok else 1


if __name__ == "__main__":
    sys.exit(main())
