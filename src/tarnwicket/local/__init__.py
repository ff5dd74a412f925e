"""The local runtime: everything a search needs on one machine, with no outside service.

``prepare_local_runtime(data_dir)`` writes a synthetic market data set and its
vocabulary on first use, and returns the runtime object (auth, sync manager,
tracker, era configuration, evaluator) that a search takes from the package.
"""

from tarnwicket.errors import DamagedFile

from .evaluator import LocalEvaluator
from .market_data import UNIVERSE_ID
from .runtime import DEFAULT_DATA_DIR, LocalRuntime, prepare_local_runtime

__all__ = ["DEFAULT_DATA_DIR", "DamagedFile", "LocalEvaluator", "LocalRuntime", "UNIVERSE_ID",
           "prepare_local_runtime"]
