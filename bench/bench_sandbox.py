"""Cost of the sandbox hooks on a thread outside the sandbox.

Two measurements, each as the best of several repeats:

* ``open(path).close()`` through the installed hook versus the original builtin;
* the hook alone: ``_sandboxed_open`` forwarding to a trivial builtin versus
  calling that builtin directly, which isolates the per-call overhead
  (thread id, lock round trip, set lookup, forwarding) from file-system noise.

Run: python bench/bench_sandbox.py [--number N] [--repeat R]
"""

from __future__ import annotations

import argparse
import builtins
import os
import tempfile
import timeit

import tarnwicket.search_templates as st


def best_ns_per_call(a, b, number: int, repeat: int) -> tuple[float, float]:
    """Best time per call of two statements, measured in alternation to share drift."""
    ta, tb = timeit.Timer(a), timeit.Timer(b)
    best_a = best_b = float("inf")
    for _ in range(repeat):
        best_a = min(best_a, ta.timeit(number))
        best_b = min(best_b, tb.timeit(number))
    return best_a / number * 1e9, best_b / number * 1e9


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--number", type=int, default=5000)
    parser.add_argument("--repeat", type=int, default=25)
    args = parser.parse_args()

    # Install the hooks the way a worker does, then leave the sandbox.
    with st._template_sandbox():
        pass
    assert builtins.open is st._sandboxed_open

    original_open = st._original_open
    fd, path = tempfile.mkstemp(prefix="bench_sandbox_")
    os.close(fd)
    try:
        hooked, plain = best_ns_per_call(
            lambda: open(path).close(), lambda: original_open(path).close(), args.number, args.repeat
        )
    finally:
        os.unlink(path)

    saved = st._original_open
    st._original_open = len
    try:
        token = "x"
        sandboxed = st._sandboxed_open
        hook_only, direct = best_ns_per_call(
            lambda: sandboxed(token), lambda: len(token), args.number * 10, args.repeat
        )
    finally:
        st._original_open = saved

    print(f"open(path).close() hooked   : {hooked:9.1f} ns/call")
    print(f"open(path).close() original : {plain:9.1f} ns/call")
    print(f"  difference                : {hooked - plain:9.1f} ns/call")
    print(f"hook forwarding to len()    : {hook_only:9.1f} ns/call")
    print(f"len() directly              : {direct:9.1f} ns/call")
    print(f"  hook overhead             : {hook_only - direct:9.1f} ns/call")


if __name__ == "__main__":
    main()
