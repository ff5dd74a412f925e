"""Vocabulary source: the per-universe vocabulary of functions and features."""

from __future__ import annotations

import copy
import json
import os
from typing import Any

VOCABULARY_FILENAME = "vocabulary.json"


def vocabulary_path(data_dir, valid_universe_id) -> str:
    if isinstance(data_dir, os.PathLike):
        data_dir = os.fspath(data_dir)
    if not isinstance(data_dir, str) or not data_dir:
        raise TypeError("data_dir must be a non-empty str")
    if not isinstance(valid_universe_id, str) or not valid_universe_id:
        raise TypeError("valid_universe_id must be a non-empty str")
    if os.sep in valid_universe_id or valid_universe_id in (".", ".."):
        raise ValueError(f"valid_universe_id is not a plain name: {valid_universe_id!r}")
    return os.path.join(os.path.expanduser(data_dir), valid_universe_id, VOCABULARY_FILENAME)


def load_vocabulary(data_dir, valid_universe_id) -> dict:
    """Read ``<data_dir>/<valid_universe_id>/vocabulary.json`` as a map."""
    path = vocabulary_path(data_dir, valid_universe_id)
    try:
        with open(path, "r", encoding="utf-8") as fh:
            text = fh.read()
    except FileNotFoundError:
        raise FileNotFoundError(f"vocabulary file not found: {path}") from None
    try:
        data = json.loads(text)
    except ValueError as exc:
        raise ValueError(f"vocabulary file {path} is not valid JSON: {exc}") from exc
    if not isinstance(data, dict):
        raise ValueError(
            f"vocabulary file {path} must hold a JSON object, got {type(data).__name__}"
        )
    return data


class ObfuscationManager:
    """Holds the raw vocabulary of one era and universe."""

    def __init__(self, vocab_json_str, era_id, valid_universe_id):
        if vocab_json_str is None:
            raise ValueError(f"no vocabulary available for universe {valid_universe_id!r}")
        if isinstance(vocab_json_str, (bytes, bytearray)):
            vocab_json_str = bytes(vocab_json_str).decode("utf-8")
        if not isinstance(vocab_json_str, str):
            raise TypeError(
                f"vocab_json_str must be JSON text, got {type(vocab_json_str).__name__}"
            )
        try:
            vocab = json.loads(vocab_json_str)
        except ValueError as exc:
            raise ValueError(f"vocabulary text is not valid JSON: {exc}") from exc
        if not isinstance(vocab, dict):
            raise ValueError(f"vocabulary must be a JSON object, got {type(vocab).__name__}")
        self.era_id = era_id
        self.valid_universe_id = valid_universe_id
        self._vocabulary: dict[str, Any] = vocab

    def get_vocabulary(self) -> dict:
        return copy.deepcopy(self._vocabulary)
