"""Cost of the hooked `open` on a thread that is not sandboxed.

Compares the hooked call with the saved original on the same file, both
opening and closing it, and reports the difference per call in nanoseconds.
Run: python bench/bench_sandbox.py
"""

from __future__ import annotations

import gc
import os
import tempfile
import time

import tarnwicket.search_templates as st


def per_call(fn, path, n):
    gc.disable()
    try:
        best = float("inf")
        for _ in range(5):
            t0 = time.perf_counter_ns()
            for _ in range(n):
                fn(path, "rb").close()
            best = min(best, (time.perf_counter_ns() - t0) / n)
        return best
    finally:
        gc.enable()


def main(n=50000):
    with st._template_sandbox():
        pass
    fd, path = tempfile.mkstemp()
    os.close(fd)
    hooked = per_call(st._sandboxed_open, path, n)
    original = per_call(st._original_open, path, n)
    print(f"open()+close(): original {original:,.0f} ns, hooked {hooked:,.0f} ns, "
          f"overhead {hooked - original:,.0f} ns per call")
    probe_t0 = time.perf_counter_ns()
    for _ in range(n):
        st._template_sandbox_active()
    print(f"_template_sandbox_active(): {(time.perf_counter_ns() - probe_t0) / n:,.0f} ns per call")
    os.unlink(path)


if __name__ == "__main__":
    main()
