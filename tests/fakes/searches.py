"""Searches in child processes against the loopback signal service in a process
of its own, for the end-to-end tests of the submission pipeline."""

import os
import signal
import subprocess
import sys

ASAN = "asan" in os.environ.get("LD_PRELOAD", "")
SLOW = 3 if ASAN else 1  # the sanitizers make evaluation several times slower

# A child process: the search command, with the claim lease of the module set from
# the environment (LEASE); with CLIENT_TIMEOUT, the signal service client gives up
# after that many seconds; when KILL_AT names a boundary of a successful
# submission, the child is killed there (SIGKILL) the first time one reaches it.
CHILD = """
import os, signal, sys
import tarnwicket.search_templates as st

st.SUBMISSION_QUEUE_LEASE_SECONDS = float(os.environ["LEASE"])
if os.environ.get("CLIENT_TIMEOUT"):
    build = st._build_signal_service_client
    st._build_signal_service_client = lambda timeout=None: build(timeout=float(os.environ["CLIENT_TIMEOUT"]))


def die(*_):
    os.kill(os.getpid(), signal.SIGKILL)


def hook(owner, name, before):
    real = getattr(owner, name)

    def hooked(*args, **kwargs):
        if before:
            die()
        result = real(*args, **kwargs)
        die()
        return result

    setattr(owner, name, hooked)


boundary = os.environ.get("KILL_AT")
if boundary:
    hook(*{"before_request": (st, "_submit_signal_payload", True),
           "after_answer": (st, "_submit_signal_payload", False),
           "after_journal": (st._SearchHandleImpl, "_record_submission_and_delete_queue", True),
           "after_commit": (st._SearchHandleImpl, "_record_submission_and_delete_queue", False)}[boundary])
from tarnwicket.local.cli import main
sys.exit(main(sys.argv[1:]))
"""


def search(data_dir, seconds, *args, lease=300.0, jobs=1, kill_at="", client_timeout="", prefix=()):
    """The search command in a child process; `prefix` runs it under another program."""
    argv = [*prefix, sys.executable, "-c", CHILD, "search", "--data-dir", str(data_dir), "--jobs", str(jobs),
            "--seconds", str(seconds * SLOW), *args]
    env = dict(os.environ, PYTHONUNBUFFERED="1", LEASE=str(lease), KILL_AT=kill_at, CLIENT_TIMEOUT=str(client_timeout))
    return subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=env)


def finish(child, timeout=120):
    try:
        out, err = child.communicate(timeout=timeout * SLOW)
    finally:
        if child.poll() is None:
            child.kill()
            child.communicate()
    assert child.returncode == 0, err
    assert "Traceback" not in err
    return out


def prepare(data_dir):
    """Writes the data set and the wallet of `data_dir`, and an empty store."""
    code = ("import sys; from tarnwicket.local.runtime import prepare_local_runtime as p; "
            "p(sys.argv[1], server_url='http://unused.invalid').close()")
    subprocess.run([sys.executable, "-c", code, str(data_dir)], check=True, timeout=120 * SLOW)


def token_of(data_dir):
    from tarnwicket.local.era import LocalAuth, load_or_create_wallet_secret

    return LocalAuth(load_or_create_wallet_secret(str(data_dir))).get_token()


class ServiceProcess:
    """The loopback service in a process of its own; it can be killed and started
    again on the same port and store."""

    def __init__(self, db, token, faults=None):
        self.db, self.token, self.faults = str(db), token, faults
        self.port, self.proc, self.url = 0, None, None
        self.start()

    def start(self):
        argv = [sys.executable, "-m", "tarnwicket.local_signal_service", "--db", self.db, "--token", self.token,
                "--port", str(self.port)]
        if self.faults:
            argv += ["--faults", self.faults]
        self.proc = subprocess.Popen(argv, stdout=subprocess.PIPE, text=True)
        self.url = self.proc.stdout.readline().strip()
        assert self.url.startswith("http://127.0.0.1:"), self.url
        self.port = int(self.url.rsplit(":", 1)[1])
        return self

    def kill(self):
        self.proc.kill()
        self.proc.communicate()

    def restart_without_faults(self):
        """Stopped and started again on the same port and store, answering every request."""
        self.stop()
        self.faults = None
        return self.start()

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            self.proc.communicate(timeout=10)


def reconcile(data_dir, service_db):
    """The invariants hold after a clean stop, with nothing left in transit."""
    from tarnwicket.local.invariants import check

    report = check(str(data_dir), str(service_db))
    assert report.ok, report.problems
    assert report.in_transit == 0 and report.journal == 0
    return report


def journal_files(data_dir):
    path = os.path.join(str(data_dir), "submission_receipts_pending")
    return sorted(os.listdir(path)) if os.path.exists(path) else []
