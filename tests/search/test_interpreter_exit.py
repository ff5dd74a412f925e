"""How a process that runs a local search through the Python API ends.

Each case is a child interpreter that starts a real search on the local runtime
and then leaves in its own way, without calling stop(). The interpreter must
end as it would without a search running, and the store must not be left
saying that a search is active.
"""

import os
import signal
import sqlite3
import subprocess
import sys
import textwrap

import pytest

START = """
import os, sys, time
from tarnwicket.local import prepare_local_runtime
import tarnwicket.search_templates as st

prepare_local_runtime(sys.argv[1])
handle = st.search(st.random_weighted, n_jobs=min(2, os.cpu_count() or 1))
deadline = time.monotonic() + 20
while handle.status().total_evaluated < 20 and time.monotonic() < deadline:
    time.sleep(0.05)
print("running", flush=True)
"""

ENDINGS = {
    "return": "",
    "raise": "raise RuntimeError('the script failed')",
    "exit": "sys.exit(3)",
    "sigint": "while True:\n    time.sleep(0.1)",
}


def search_active(data_dir):
    conn = sqlite3.connect(os.path.join(data_dir, "search_tracking.db"))
    try:
        row = conn.execute("SELECT value FROM tracker_meta WHERE key='search_active'").fetchone()
        assert conn.execute("PRAGMA integrity_check").fetchone() == ("ok",)
    finally:
        conn.close()
    return row is not None and row[0] == "1"


def run_script(tmp_path, ending):
    script = tmp_path / "script.py"
    script.write_text(START + textwrap.dedent(ENDINGS[ending]) + "\n")
    data_dir = str(tmp_path / "data")
    # A shell that starts pytest in the background without job control makes it ignore SIGINT, and
    # an ignored SIGINT is inherited: the child gets Python's own handler as from a terminal.
    child = subprocess.Popen([sys.executable, str(script), data_dir], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, env=dict(os.environ, PYTHONUNBUFFERED="1"),
                             preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))
    first = ""
    try:
        if ending == "sigint":
            first = child.stdout.readline()
            assert first == "running\n"
            child.send_signal(signal.SIGINT)
        out, err = child.communicate(timeout=40)
    finally:
        if child.poll() is None:
            child.kill()
            child.communicate()
    return child.returncode, first + out, err, data_dir


def assert_only_traceback(err, last_line):
    lines = err.strip().splitlines()
    assert lines[0] == "Traceback (most recent call last):", err
    assert lines[-1] == last_line, err
    assert err.count("Traceback") == 1 and "Exception ignored" not in err and "FATAL" not in err.upper(), err


@pytest.mark.parametrize("ending", sorted(ENDINGS))
def test_a_script_that_leaves_a_search_running_ends_as_python_does(tmp_path, ending):
    code, out, err, data_dir = run_script(tmp_path, ending)
    if ending == "return":
        assert (code, err) == (0, "")
    elif ending == "raise":
        assert code == 1, err
        assert_only_traceback(err, "RuntimeError: the script failed")
    elif ending == "exit":
        assert (code, err) == (3, "")
    else:
        # An uncaught KeyboardInterrupt ends the interpreter by SIGINT itself.
        assert code == -signal.SIGINT, err
        assert_only_traceback(err, "KeyboardInterrupt")
    assert "running" in out
    assert not search_active(data_dir)


BUSY = """
import sys, threading
from tarnwicket.local import prepare_local_runtime
import tarnwicket.search_templates as st

prepare_local_runtime(sys.argv[1])
started = threading.Event()

def busy(ctx):
    started.set()
    n = 0
    while True:               # never yields: its worker outlives the join at exit
        n = (n + 1) % 1000
        [str(i) for i in range(n % 50)]
    yield

st.search(busy, n_jobs=1)
started.wait(20)
print("running", flush=True)
"""


def test_a_worker_that_outlives_its_join_is_unwound_quietly(tmp_path):
    # The host unwinds the still-busy worker through the module's frames while
    # it finalises; that must neither abort nor crash the process.
    script = tmp_path / "busy.py"
    script.write_text(BUSY)
    data_dir = str(tmp_path / "data")
    proc = subprocess.run([sys.executable, str(script), data_dir], capture_output=True, text=True, timeout=60)
    assert (proc.returncode, proc.stderr, proc.stdout) == (0, "", "running\n")
    assert not search_active(data_dir)


STOPPED_HANDLE = """
import atexit, sys, time, types
sys.path.insert(0, sys.argv[2])
import tarnwicket.search_templates as st
from fakes.context_fakes import FakeBacktester, MemoryTracker
from fakes.runtime import EraConfig, FakeAuth, FakeObfuscation

open(sys.argv[1] + "/shuffle_seed.enc", "wb").write(b"s" * 60)
h = st._SearchHandleImpl(template=lambda ctx: None, n_jobs=1, tracker=MemoryTracker(), sync_mgr=None,
                         bt=FakeBacktester(passes=False), obf=FakeObfuscation(), era_cfg=EraConfig(),
                         auth_mock=FakeAuth(), data_dir=sys.argv[1])
h._record_background_failure = lambda *a, **kw: None  # never degrades; the fake tracker has no queue of its own
"""


def run_with_a_stopped_handle(tmp_path, work, ending):
    """A child that gives a handle `work`, stops it with a short join while its
    submission thread goes on, then runs `ending` and leaves."""
    script = tmp_path / "child.py"
    script.write_text(STOPPED_HANDLE + textwrap.dedent(work) + textwrap.dedent("""
        h.stop(join_timeout=0.2)
        assert h._submission_thread.is_alive()
    """) + textwrap.dedent(ending) + 'print("left running", flush=True)\n')
    tests_dir = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    return subprocess.run([sys.executable, str(script), str(tmp_path), tests_dir], capture_output=True, text=True,
                          timeout=60)


def test_a_submission_thread_still_busy_at_exit_ends_quietly(tmp_path):
    # A receipt that can never be recorded keeps the submission thread going
    # after stop(); the process ends while it is retrying.
    done = run_with_a_stopped_handle(tmp_path, """
        st._submission_backoff_sleep = lambda seconds: time.sleep(0.0005)  # awake all through finalisation
        garbage = [{"n": [i]} for i in range(300000)]  # and finalisation takes a while
        h._pending_receipts_by_queue_id[("queue", 1)] = ({"eval_id": "e1"}, types.SimpleNamespace(submission_id="s"))
    """, "")
    assert (done.returncode, done.stdout) == (0, "left running\n"), done.stderr
    assert "terminate" not in done.stderr and "Fatal" not in done.stderr


def test_a_thread_that_outlives_stop_may_still_run_after_the_exit_hook(tmp_path):
    # A retry that is not yet due keeps the stopped handle's submission thread
    # polling; the program's own exit handler then keeps the host alive after
    # the module's exit hook has let its state go. The thread reads the clock
    # and the queues all that while.
    done = run_with_a_stopped_handle(tmp_path, """
        h._retry_queue.append({"eval_id": "e1", "retry_after": time.time() + 3600})
    """, """
        atexit.register(time.sleep, 0.5)
    """)
    assert (done.returncode, done.stdout, done.stderr) == (0, "left running\n", "")
