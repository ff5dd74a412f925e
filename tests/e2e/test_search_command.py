"""The main job: `python -m tarnwicket search` on the local runtime."""

import os
import sqlite3
import subprocess
import sys


def run_command(*args, timeout=120):
    env = dict(os.environ, PYTHONUNBUFFERED="1")
    return subprocess.run([sys.executable, "-m", "tarnwicket", "search", *args], capture_output=True, text=True,
                          timeout=timeout, env=env)


# Long enough for passes under the sanitizers too, where evaluation is several times slower.
SECONDS = "15" if "asan" in os.environ.get("LD_PRELOAD", "") else "6"


def test_a_short_local_search_sends_each_pass_to_the_local_service_once(tmp_path):
    from tarnwicket.local_signal_service import read_store

    data_dir = tmp_path / "local"
    done = run_command("--seconds", SECONDS, "--jobs", "2", "--seed", "7", "--data-dir", str(data_dir))
    assert done.returncode == 0, done.stderr
    assert "Traceback" not in done.stderr
    assert f"Local data and settings: {data_dir}" in done.stdout
    best = [line for line in done.stdout.splitlines() if line.startswith("  fitness ")]
    assert 1 <= len(best) <= 5 and all("sharpe" in line and "turnover" in line for line in best)
    db = sqlite3.connect(str(data_dir / "search_tracking.db"))
    evaluated = db.execute("SELECT COUNT(*) FROM signal_evaluations").fetchone()[0]
    passed = db.execute("SELECT COUNT(*) FROM signal_evaluations WHERE passed=1").fetchone()[0]
    waiting, sent = db.execute("SELECT (SELECT COUNT(*) FROM submission_queue) + (SELECT COUNT(*) FROM "
                               "submission_retry), (SELECT COUNT(*) FROM submission_status)").fetchone()
    assert evaluated >= passed >= 1 and sent >= 1
    assert passed - (waiting + sent) in (0, 1)  # the last pass may have missed its row at the stop
    assert f"Sent {sent:,} signal" in done.stdout and "accepted" in done.stdout and "rejected" in done.stdout
    verdicts = db.execute("SELECT COUNT(*) FROM submission_status WHERE finalized_at IS NOT NULL").fetchone()[0]
    assert verdicts >= 1  # the polling thread followed some to the service's verdict
    assert not (data_dir / "submission_receipts_pending").exists()  # nothing left in the journal
    service = read_store(str(data_dir / "signal_service.db"))
    assert service == {"submissions": sent, "repeats": 0, "key_conflicts": 0, "bodies_held_twice": 0}
    # The summary's figures are this run's, and the store's.
    assert f"This run evaluated {evaluated:,} expressions" in done.stdout
    assert f"; {passed:,} passed every rule." in done.stdout and "continued" not in done.stdout

    again = run_command("--seconds", "2", "--jobs", "1", "--data-dir", str(data_dir))
    total, passed_now = db.execute("SELECT COUNT(*), SUM(passed) FROM signal_evaluations").fetchone()
    assert f"which held {evaluated:,} evaluations before it" in again.stdout
    assert f"This run evaluated {total - evaluated:,} expressions" in again.stdout
    assert f"; {passed_now - passed:,} passed every rule." in again.stdout


def test_bad_options_give_one_line(tmp_path):
    blocker = tmp_path / "file"
    blocker.write_text("x")
    for args in (["--jobs", "0"], ["--data-dir", str(blocker)]):
        done = run_command(*args, "--seconds", "1")
        assert done.returncode == 2
        assert len(done.stderr.strip().splitlines()) == 1 and "Traceback" not in done.stderr
