"""The local data source behind the sync manager: writes the synthetic universe."""

from __future__ import annotations

import operator
import os
import threading

from .features import compute_features
from .market_data import UNIVERSE_ID, generate_panel, panel_path, save_panel
from .vocabulary import VOCABULARY_FILE, build_vocabulary, write_vocabulary


def vocabulary_path(data_dir: str, universe_id: str = UNIVERSE_ID) -> str:
    return os.path.join(os.path.expanduser(data_dir), universe_id, VOCABULARY_FILE)


class LocalMarketSource:
    """Materialises ``<data_dir>/<universe_id>/`` with the panel and its vocabulary.

    Both files are written under temporary names and renamed into place, the
    panel last, so ``is_present`` never sees a half-written universe.
    """

    def __init__(self, seed: int = 0):
        try:
            self.seed = operator.index(seed)
        except TypeError:
            raise TypeError(f"seed must be a whole number, got {type(seed).__name__}") from None
        if self.seed < 0:
            raise ValueError(f"seed must be at least 0, got {self.seed}")
        self._lock = threading.Lock()

    def is_present(self, data_dir: str, universe_id: str = UNIVERSE_ID) -> bool:
        return (os.path.isfile(vocabulary_path(data_dir, universe_id))
                and os.path.isfile(panel_path(data_dir, universe_id)))

    def materialise(self, data_dir: str, universe_id: str = UNIVERSE_ID) -> None:
        with self._lock:
            if self.is_present(data_dir, universe_id):
                return
            write_universe(generate_panel(self.seed), data_dir, universe_id, seed=self.seed)


def write_universe(panel, data_dir: str, universe_id: str = UNIVERSE_ID, seed: int | None = None) -> None:
    """The panel and its vocabulary, the vocabulary first: the panel's presence marks a whole universe."""
    vocab = build_vocabulary(compute_features(panel), universe_id)
    if seed is not None:
        vocab["seed"] = seed
    write_vocabulary(vocab, vocabulary_path(data_dir, universe_id))
    save_panel(panel, panel_path(data_dir, universe_id))
