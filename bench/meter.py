"""Time spent inside chosen methods of an object, summed over all threads."""

import threading
import time


class Meter:
    """Replaces each named method of `target` by a timed one, on the instance."""

    def __init__(self, target, names):
        self.spent = 0.0
        self.lock = threading.Lock()
        for name in names:
            setattr(target, name, self._wrap(getattr(target, name)))

    def _wrap(self, fn):
        def timed(*a, **kw):
            t0 = time.perf_counter()
            try:
                return fn(*a, **kw)
            finally:
                dt = time.perf_counter() - t0
                with self.lock:
                    self.spent += dt

        return timed
