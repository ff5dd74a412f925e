"""A template of your own: short-term reversal of each price feature.

Run it: python docs/examples/reversal_template.py [DATA_DIR] [SECONDS]
"""

import sys
import time

import tarnwicket


def feature(name):
    return {"type": "feature", "node": name}


def number(value):
    return {"type": "int", "node": value}


def rotation(name, *children):
    return {"type": "rotation", "node": name, "children": list(children)}


def reversal(ctx):
    """Bet against each price feature's move over a few days, ranked across the universe."""
    functions = {f["name"] for f in ctx.vocabulary["functions"]}
    prices = [f["name"] for f in ctx.vocabulary["features"] if f.get("feature_family") == "price"]
    if not {"delay", "sub", "ts_decay", "rank"} <= functions:
        return None                                   # nothing to do with this vocabulary
    for name in prices:
        for days in (2, 3, 5, 10):
            # The price some days ago minus today's: high after a fall.
            fall = rotation("sub", rotation("delay", feature(name), number(days)), feature(name))
            yield rotation("rank", rotation("ts_decay", fall, number(days)))


def main(data_dir="~/.tarnwicket/local", seconds=20.0):
    tarnwicket.register(data_dir)
    handle = tarnwicket.search(reversal, n_jobs=1)
    try:
        time.sleep(seconds)
        status = tarnwicket.status()
    finally:
        handle.stop()
    print(f"evaluated {status.total_evaluated}, passed {status.total_found}")
    return status


if __name__ == "__main__":
    main(*sys.argv[1:2], *(float(a) for a in sys.argv[2:3]))
