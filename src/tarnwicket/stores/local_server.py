"""A throwaway PostgreSQL server in a directory, for trying a shared store on
one machine and for the tests and benchmarks.

It runs the server programs of the machine's PostgreSQL installation
(``initdb``, ``pg_ctl``; on Debian the ``postgresql`` package) as an
unprivileged user, listening on a loopback port, with trust authentication
for its one role. Not for data you want to keep.

Run: ``python -m tarnwicket.stores.local_server DIR`` prints the URL of a new
server and stops it on Ctrl-C.
"""

from __future__ import annotations

import glob
import os
import pwd
import shutil
import signal
import socket
import subprocess
import sys
import threading
import urllib.parse

ROLE = "tarnwicket"
# Settings of a server whose data may be lost with the machine: a killed
# client still finds every committed transaction, which is what the tests need.
FAST = ("-c fsync=off -c synchronous_commit=off -c full_page_writes=off")


_NOT_INHERITED = ("LD_PRELOAD", "ASAN_OPTIONS", "UBSAN_OPTIONS", "PYTHONMALLOC")


class ServerUnavailable(RuntimeError):
    """The PostgreSQL server programs are missing or the server did not start."""


def server_program(name: str) -> str:
    found = shutil.which(name)
    if found:
        return found
    candidates = sorted(glob.glob(f"/usr/lib/postgresql/*/bin/{name}"),
                        key=lambda p: int(p.split("/")[4]) if p.split("/")[4].isdigit() else 0)
    if candidates:
        return candidates[-1]
    raise ServerUnavailable(f"the PostgreSQL server program {name!r} was not found; install the "
                            "'postgresql' package (tools/install-postgres does it on Debian)")


def _free_port() -> int:
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


def _server_user():
    """(uid, gid) to run the server as when we are root, which the server refuses to be."""
    if os.geteuid() != 0:
        return None
    for name in ("postgres", "nobody"):
        try:
            entry = pwd.getpwnam(name)
        except KeyError:
            continue
        return entry.pw_uid, entry.pw_gid
    raise ServerUnavailable("running as root and no unprivileged user (postgres, nobody) exists")


class LocalPostgres:
    def __init__(self, directory: str, *, durable: bool = False, max_connections: int = 300):
        self.directory = os.path.abspath(directory)
        self.data = os.path.join(self.directory, "data")
        self.log = os.path.join(self.directory, "server.log")
        self.port = None
        self.durable = durable
        self.max_connections = max_connections
        self._user = _server_user()
        self._schemas = 0
        self._schema_lock = threading.Lock()

    def _run(self, args: list[str], **kw) -> subprocess.CompletedProcess:
        extra = {} if self._user is None else {"user": self._user[0], "group": self._user[1]}
        # The server is not ours to instrument: no preloaded sanitizer runtimes.
        env = {k: v for k, v in os.environ.items() if k not in _NOT_INHERITED}
        result = subprocess.run(args, capture_output=True, text=True, cwd=self.directory, env=env, **extra, **kw)
        if result.returncode != 0:
            tail = (result.stderr or result.stdout).strip().splitlines()[-5:]
            raise ServerUnavailable(f"{os.path.basename(args[0])} failed: " + " | ".join(tail))
        return result

    def start(self) -> "LocalPostgres":
        os.makedirs(self.directory, exist_ok=True)
        if self._user is not None:
            os.chown(self.directory, *self._user)
            os.chmod(self.directory, 0o755)
        if not os.path.exists(os.path.join(self.data, "PG_VERSION")):
            self._run([server_program("initdb"), "-D", self.data, "-U", ROLE, "--auth=trust",
                       "-E", "UTF8", "--no-sync", "--locale=C"], timeout=300)
        self.port = _free_port()
        options = (f"-p {self.port} -k {self.directory} -c listen_addresses=127.0.0.1 "
                   f"-c max_connections={self.max_connections}")
        if not self.durable:
            options += " " + FAST
        self._run([server_program("pg_ctl"), "-D", self.data, "-l", self.log, "-o", options,
                   "-w", "-t", "120", "start"], timeout=180)
        return self

    def stop(self) -> None:
        if self.port is None:
            return
        try:
            self._run([server_program("pg_ctl"), "-D", self.data, "-m", "fast", "-w", "stop"], timeout=120)
        finally:
            self.port = None

    @property
    def url(self) -> str:
        return f"postgresql://{ROLE}@127.0.0.1:{self.port}/postgres"

    def new_schema_url(self, prefix: str = "store") -> str:
        """The URL of a store in a new, empty schema of its own."""
        import psycopg

        with self._schema_lock:
            self._schemas += 1
            name = f"{prefix}_{os.getpid()}_{self._schemas}"
        with psycopg.connect(self.url, autocommit=True) as conn:
            conn.execute(f'CREATE SCHEMA "{name}"')
        return self.url + "?options=" + urllib.parse.quote(f"-c search_path={name}", safe="")

    def __enter__(self) -> "LocalPostgres":
        return self.start()

    def __exit__(self, *exc) -> None:
        self.stop()


def main(argv: list[str] | None = None) -> int:
    argv = sys.argv[1:] if argv is None else argv
    if len(argv) != 1 or not argv[0]:
        print("usage: python -m tarnwicket.stores.local_server DIR", file=sys.stderr)
        return 2
    server = LocalPostgres(argv[0], durable=True)
    try:
        server.start()
    except ServerUnavailable as exc:
        print(f"error: {exc}", file=sys.stderr)
        return 1
    except OSError as exc:  # a directory that can't be made or written
        print(f"error: {argv[0]} cannot hold a server: {exc}", file=sys.stderr)
        return 2
    print(server.url, flush=True)
    stops = {signal.SIGINT, signal.SIGTERM}
    signal.pthread_sigmask(signal.SIG_BLOCK, stops)
    try:
        signal.sigwait(stops)
    finally:
        server.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
