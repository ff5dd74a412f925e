"""The local era: its configuration, the local identity and the era seed file.

The seed file ``shuffle_seed.enc`` is 60 bytes: a 4-byte magic, the era id as a
4-byte big-endian integer, a 20-byte salt, and a 32-byte HMAC-SHA256 of the
first 28 bytes keyed by the wallet secret. The evaluation runtime checks it
against the wallet secret before it starts an era.
"""

from __future__ import annotations

import hashlib
import hmac
import os
import secrets
import struct

from tarnwicket.errors import DamagedFile

from .files import write_atomically

SEED_FILE = "shuffle_seed.enc"
WALLET_FILE = "local_wallet.key"
SEED_LENGTH = 60
WALLET_SECRET_LENGTH = 32
_MAGIC = b"TWS1"
LOCAL_ERA_ID = 1
LOCAL_SIGNAL_POOL_ID = "local_pool"


class LocalEraConfig:
    """Era settings for the local universe.

    The thresholds are set for the synthetic data so that a few percent of
    randomly generated graphs pass; ``sharpe_min`` and ``fitness_min`` are the
    evaluation runtime's own verdict, the others are judged by the search.
    """

    def __init__(self, era_id: int = LOCAL_ERA_ID):
        self.era_id = era_id
        self.transform_pipeline = ["demean", "resize", "normalise"]
        self.thresholds = {
            "turnover_max": 0.70,
            "delta_exposure_max": 0.08,
            "max_weight_max": 0.15,
            "correlation_max": 0.85,
            "sharpe_min": 0.9,
            "fitness_min": 0.5,
            "demean": "cross_sectional",
            "resize": "none",
            "normalise": "z_score",
        }
        self.max_depth = 4
        self.max_expression_generation_seconds = 5.0
        self.signal_pools = [{"signal_pool_id": LOCAL_SIGNAL_POOL_ID}]
        self.column_threshold_rules = [{"column": "gross_returns", "stat": "sharpe", "min": 1.0}]
        self.max_node_count = 64
        self.buffer_duration_minutes = 20160

    def __repr__(self) -> str:
        return f"LocalEraConfig(era_id={self.era_id})"


class LocalAuth:
    """The local identity: a token for the loopback service and the wallet secret."""

    def __init__(self, wallet_secret: bytes):
        if not isinstance(wallet_secret, bytes) or len(wallet_secret) != WALLET_SECRET_LENGTH:
            raise ValueError("wallet_secret must be 32 bytes")
        self.wallet_secret = wallet_secret
        self._token = "local-" + hashlib.sha256(b"token/" + wallet_secret).hexdigest()[:32]

    def get_token(self) -> str:
        return self._token

    def __repr__(self) -> str:       # never show the secret
        return "LocalAuth(<local>)"


def read_wallet_secret(data_dir: str) -> bytes | None:
    """The wallet secret of ``data_dir``, None while it has none; ``DamagedFile`` for a damaged one."""
    path = os.path.join(data_dir, WALLET_FILE)
    try:
        with open(path, "rb") as fh:
            secret = fh.read(WALLET_SECRET_LENGTH + 1)
    except FileNotFoundError:
        return None
    if len(secret) != WALLET_SECRET_LENGTH:
        raise DamagedFile(path, f"is not a wallet secret of {WALLET_SECRET_LENGTH} bytes",
                          "delete it to make a new local identity")
    return secret


def load_or_create_wallet_secret(data_dir: str) -> bytes:
    """The wallet secret of ``data_dir``, made on first use; a damaged one is never replaced."""
    secret = read_wallet_secret(data_dir)
    if secret is None:
        secret = secrets.token_bytes(WALLET_SECRET_LENGTH)
        _write_private(os.path.join(data_dir, WALLET_FILE), secret)
    return secret


def make_seed(wallet_secret: bytes, era_id: int, salt: bytes) -> bytes:
    head = _MAGIC + struct.pack(">I", era_id) + salt
    return head + hmac.new(wallet_secret, head, hashlib.sha256).digest()


def verify_seed(blob: bytes, wallet_secret: bytes, era_id: int) -> None:
    """Raise ``ValueError`` unless ``blob`` is this era's seed for this wallet."""
    if not isinstance(blob, (bytes, bytearray)) or len(blob) != SEED_LENGTH:
        raise ValueError(f"shuffle seed must be {SEED_LENGTH} bytes")
    if not isinstance(wallet_secret, bytes) or len(wallet_secret) != WALLET_SECRET_LENGTH:
        raise ValueError(f"wallet_secret must be {WALLET_SECRET_LENGTH} bytes")
    head, tag = bytes(blob[:28]), bytes(blob[28:])
    if head[:4] != _MAGIC:
        raise ValueError("invalid credentials: not a local era seed")
    if not hmac.compare_digest(hmac.new(wallet_secret, head, hashlib.sha256).digest(), tag):
        raise ValueError("invalid credentials: seed does not match the wallet secret")
    seed_era = struct.unpack(">I", head[4:8])[0]
    if seed_era != era_id:
        raise ValueError(f"era mismatch: seed is for era {seed_era}, runtime asked for {era_id}")


def ensure_seed_file(data_dir: str, wallet_secret: bytes, era_id: int = LOCAL_ERA_ID) -> str:
    """Write ``shuffle_seed.enc`` unless a valid one for this wallet and era exists."""
    path = os.path.join(data_dir, SEED_FILE)
    try:
        with open(path, "rb") as fh:
            verify_seed(fh.read(), wallet_secret, era_id)
        return path
    except (OSError, ValueError):
        pass
    _write_private(path, make_seed(wallet_secret, era_id, secrets.token_bytes(20)))
    return path


def _write_private(path: str, data: bytes) -> None:
    write_atomically(path, lambda fh: fh.write(data), private=True)
