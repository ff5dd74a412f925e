"""How `python -m tarnwicket search` ends: signals, a closed output pipe, damaged data files."""

import os
import signal
import sqlite3
import subprocess
import sys
import time

import numpy as np
import pytest

DB = "search_tracking.db"
PANEL = os.path.join("universe_top50", "panel.npz")
VOCAB = os.path.join("universe_top50", "vocabulary.json")
WALLET = "local_wallet.key"
SERVICE = "signal_service.db"


def command(data_dir, *args):
    return [sys.executable, "-m", "tarnwicket", "search", "--data-dir", str(data_dir), "--jobs", "1", *args]


def start(data_dir, seconds="30"):
    return subprocess.Popen(command(data_dir, "--seconds", seconds), stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=dict(os.environ, PYTHONUNBUFFERED="1"))


def finish(child, timeout=40):
    try:
        return child.communicate(timeout=timeout)
    finally:
        if child.poll() is None:
            child.kill()
            child.communicate()


def wait_for_progress(child):
    """Read up to the first progress line, which is printed once the search runs."""
    seen = ""
    while not seen.startswith("["):
        seen = child.stdout.readline()
        assert seen, "the command ended before its search started"


def store_state(data_dir):
    conn = sqlite3.connect(f"file:{os.path.join(data_dir, DB)}?mode=ro", uri=True)
    try:
        assert conn.execute("PRAGMA integrity_check").fetchone() == ("ok",)
        active = conn.execute("SELECT value FROM tracker_meta WHERE key='search_active'").fetchone()
        evaluated, passed = conn.execute("SELECT COUNT(*), COALESCE(SUM(passed), 0) FROM signal_evaluations").fetchone()
        queued = conn.execute("SELECT COUNT(*) FROM submission_queue").fetchone()[0]
        placed = conn.execute("SELECT (SELECT COUNT(*) FROM submission_retry) + "
                              "(SELECT COUNT(*) FROM submission_status)").fetchone()[0] + queued
        orphans = conn.execute("SELECT COUNT(*) FROM submission_queue q LEFT JOIN signal_evaluations e "
                               "ON e.eval_id = q.eval_id WHERE e.passed IS NOT 1").fetchone()[0]
        twice = conn.execute("SELECT COUNT(*) - COUNT(DISTINCT eval_id) FROM submission_queue").fetchone()[0]
    finally:
        conn.close()
    return {"active": active is not None and active[0] == "1", "evaluated": evaluated, "passed": passed,
            "queued": queued, "placed": placed, "orphans": orphans, "twice": twice}


def assert_store_settled(data_dir, before):
    state = store_state(data_dir)
    assert not state["active"]
    assert state["orphans"] == 0 and state["twice"] == 0
    # a pass recorded while the single worker was stopping may miss its queue row
    unplaced = (state["passed"] - state["placed"]) - (before["passed"] - before["placed"])
    assert unplaced in (0, 1)
    return state


@pytest.fixture(scope="module")
def prepared(tmp_path_factory):
    """A data directory after one short search: data set, wallet, seed and a store with rows."""
    data_dir = tmp_path_factory.mktemp("prepared") / "local"
    done = subprocess.run(command(data_dir, "--seconds", "2"), capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr
    return data_dir


@pytest.mark.parametrize("sig, code, word", [(signal.SIGINT, 130, "Interrupted"),
                                              (signal.SIGTERM, 143, "Terminated")])
def test_a_signal_stops_the_search_and_prints_the_summary(data_dir, sig, code, word):
    before = store_state(data_dir)
    child = start(data_dir)
    wait_for_progress(child)
    assert store_state(data_dir)["active"]
    time.sleep(1.5)
    child.send_signal(sig)
    out, err = finish(child)
    assert child.returncode == code, err
    assert err == ""
    assert f"{word}; stopping ..." in out and "This run evaluated " in out and "Local data and settings" in out
    after = assert_store_settled(data_dir, before)
    assert after["evaluated"] > before["evaluated"]


@pytest.mark.parametrize("then_sigint", [False, True])
def test_a_closed_output_pipe_ends_the_search_quietly(data_dir, then_sigint):
    before = store_state(data_dir)
    child = start(data_dir)
    assert child.stdout.readline().startswith("Preparing the local runtime")
    wait_for_progress(child)
    child.stdout.close()
    child.stdout = None          # nothing more to read; communicate() then collects stderr only
    if then_sigint:
        child.send_signal(signal.SIGINT)
    _, err = finish(child, timeout=20)
    assert (child.returncode, err) == (141, "")
    assert_store_settled(data_dir, before)


# The supervisor's health probe waits for the stop, then for the pipeline threads
# that the stop ends; the walk it belongs to then finds them gone, as one can when
# the stop comes in the middle of a walk. WALK_DELAY holds the walk past the
# stop's own join of the supervisor.
SUPERVISOR_MID_WALK = """
import os, sys, time
import tarnwicket.search_templates as st

probe = st._spawn_worker


def held_probe(handle, index):
    if index < 0 and handle._stop_event.wait(120):
        threads = [handle._submission_thread, handle._polling_thread]
        for thread in threads:
            thread.join(10)
        if not any(thread.is_alive() for thread in threads):
            time.sleep(float(os.environ["WALK_DELAY"]))
            open(os.environ["WALK_MARK"], "w").close()
    return probe(handle, index)


st._spawn_worker = held_probe
from tarnwicket.local.cli import main
sys.exit(main(sys.argv[1:]))
"""


@pytest.mark.parametrize("delay", ["0", "3"])
def test_a_stop_in_the_middle_of_a_supervisor_walk_prints_no_warnings(data_dir, tmp_path, delay):
    mark = tmp_path / "walked"
    argv = [sys.executable, "-c", SUPERVISOR_MID_WALK, *command(data_dir, "--seconds", "3")[3:]]
    child = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                             env=dict(os.environ, PYTHONUNBUFFERED="1", WALK_MARK=str(mark), WALK_DELAY=delay))
    out, err = finish(child, timeout=60)
    assert (child.returncode, err) == (0, "")
    assert mark.exists() and "This run evaluated" in out


# Ctrl-C while the command's own modules load, before it has taken over its signals.
INTERRUPTED_WHILE_LOADING = """
import importlib.abc, os, runpy, signal, sys


class Interrupt(importlib.abc.MetaPathFinder):
    def find_spec(self, name, path, target=None):
        if name == "tarnwicket.local.cli":
            os.kill(os.getpid(), signal.SIGINT)
        return None


sys.meta_path.insert(0, Interrupt())
sys.argv[0] = "tarnwicket"
runpy.run_module("tarnwicket", run_name="__main__", alter_sys=True)
"""


def test_an_interrupt_while_the_command_loads_ends_it_without_a_traceback(data_dir):
    child = subprocess.run([sys.executable, "-c", INTERRUPTED_WHILE_LOADING, *command(data_dir)[3:]],
                           capture_output=True, text=True, timeout=60)
    assert (child.returncode, child.stdout, child.stderr) == (130, "", "")


def _garbage(path):
    with open(path, "wb") as fh:
        fh.write(np.random.default_rng(5).bytes(8192))


def _damaged_page(path):
    """Garbage over the second page: the file still opens, its tables do not read."""
    with open(path, "r+b") as fh:
        page = int.from_bytes(fh.read(18)[16:18], "big")
        fh.seek(page)
        fh.write(np.random.default_rng(5).bytes(page))


def _foreign_store(path):
    os.remove(path)
    for suffix in ("-wal", "-shm"):
        if os.path.exists(path + suffix):
            os.remove(path + suffix)
    conn = sqlite3.connect(path)
    conn.execute("CREATE TABLE signal_evaluations (eval_id TEXT, note TEXT)")
    conn.commit()
    conn.close()


def _truncate(path):
    with open(path, "rb") as fh:
        data = fh.read()
    with open(path, "wb") as fh:
        fh.write(data[:len(data) // 2])


def _write(text, binary=False):
    def damage(path):
        with open(path, "wb" if binary else "w") as fh:
            fh.write(text)
    return damage


def _no_rotation_schema(path):
    import json

    with open(path) as fh:
        vocab = json.load(fh)
    entry = next(iter(next(iter(vocab["rotations"].values())).values()))[0]
    del entry["param_schema"]
    with open(path, "w") as fh:
        json.dump(vocab, fh)


@pytest.mark.parametrize("name, damage, words", [
    (DB, _garbage, "not a usable search store"),
    (DB, _foreign_store, "without the columns"),
    (PANEL, _garbage, "not a market data file"),
    (PANEL, _truncate, "not a readable market data file"),
    (VOCAB, _write("{}"), "no function"),
    (VOCAB, _write("[1, 2"), "not valid JSON"),
    (VOCAB, _no_rotation_schema, "param_schema"),
    (WALLET, _write(b"short", binary=True), "wallet secret"),
    (DB, _damaged_page, "not a usable search store"),
    (SERVICE, _damaged_page, "signal service's store"),
    ("store_url", _write(b"\xff\xfe", binary=True), "does not hold a store URL"),
], ids=["store-garbage", "store-foreign", "panel-garbage", "panel-truncated", "vocab-empty",
        "vocab-not-json", "vocab-bad-entry", "wallet-short", "store-damaged-page", "service-damaged-page",
        "store-url-not-text"])
def test_a_damaged_file_is_one_line_and_left_as_it_is(data_dir, name, damage, words):
    path = os.path.join(data_dir, name)
    counts = store_state(data_dir)
    damage(path)
    with open(path, "rb") as fh:
        damaged = fh.read()
    files = sorted(os.listdir(data_dir))
    done = subprocess.run(command(data_dir, "--seconds", "3"), capture_output=True, text=True, timeout=60)
    assert done.returncode == 2, done.stderr
    lines = done.stderr.splitlines()
    assert len(lines) == 1 and lines[0].startswith("tarnwicket: error: " + path) and words in lines[0], done.stderr
    with open(path, "rb") as fh:
        assert fh.read() == damaged
    assert sorted(os.listdir(data_dir)) == files
    if name != DB:
        assert store_state(data_dir) == counts
