"""An hour of a two-worker search with submissions and polling (`-m soak`;
TW_SOAK_SECONDS shortens it): memory flat, no thread left behind, no deadlock,
every invariant at the end."""
import os
import time

import psutil
import pytest

from fakes.searches import reconcile, search

SECONDS = float(os.environ.get("TW_SOAK_SECONDS", "3600"))


@pytest.mark.soak
def test_an_hour_of_search_with_submissions(data_dir, service):
    child = search(data_dir, SECONDS, "--server-url", service.url, jobs=2, lease=30.0)
    proc = psutil.Process(child.pid)
    samples = []  # (seconds, resident MB, threads)
    started = time.monotonic()
    while child.poll() is None and time.monotonic() - started < SECONDS + 120:
        try:
            samples.append((time.monotonic() - started, proc.memory_info().rss / 2**20, proc.num_threads()))
        except psutil.NoSuchProcess:
            break
        time.sleep(min(60.0, SECONDS / 20))
    out, err = child.communicate(timeout=120)  # a deadlock would end here
    assert child.returncode == 0, err
    warm = [s for s in samples if s[0] >= max(60.0, SECONDS / 10)] or samples[-1:]
    (_, first_mb, first_threads), (_, last_mb, last_threads) = warm[0], warm[-1]
    print(f"soak: {SECONDS:.0f}s, resident {first_mb:.0f} MB after warm-up, {last_mb:.0f} MB at the end; "
          f"threads {first_threads} -> {last_threads}")
    assert last_mb <= first_mb * 1.15 + 20  # flat, beyond the store's page cache
    assert last_threads <= first_threads  # no thread left behind
    r = reconcile(data_dir, service.db)
    assert r.service_held > 0 and r.duplicates == 0
