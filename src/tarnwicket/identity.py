"""``register()`` and ``login(private_key)``: the local runtime and its identity.

An identity is the wallet secret of a data directory (``local_wallet.key``);
its text form, the private key, is 64 hexadecimal digits. ``register()`` sets
up a data directory, making an identity when it has none, and returns the
private key; ``login(private_key)`` sets up a data directory with that identity,
for example on a second machine that should submit as the first one does.
Either makes the runtime the one that ``tarnwicket.search`` uses.
"""

from __future__ import annotations

import os

from tarnwicket.local.era import WALLET_FILE, WALLET_SECRET_LENGTH, load_or_create_wallet_secret
from tarnwicket.local.files import write_atomically
from tarnwicket.local.runtime import DEFAULT_DATA_DIR, prepare_local_runtime, usable_data_dir


def _replace_runtime(data_dir, store, server_url):
    import tarnwicket.search_templates as st

    previous = getattr(st, "_library_runtime", None)
    runtime = prepare_local_runtime(data_dir, store=store, server_url=server_url)
    if previous is not None and previous is not runtime and callable(getattr(previous, "close", None)):
        previous.close()        # its loopback service would otherwise outlive it
    return runtime


def register(data_dir: str = DEFAULT_DATA_DIR, *, store: str | None = None,
             server_url: str | None = None) -> str:
    """Set up the local runtime in ``data_dir`` and return its private key.

    A data directory without an identity gets a new one; one that has an
    identity keeps it. Keep the key to ``login`` with it elsewhere. ``store``
    and ``server_url`` are those of ``prepare_local_runtime``.
    """
    runtime = _replace_runtime(data_dir, store, server_url)
    return runtime.auth_proxy.wallet_secret.hex()


def login(private_key: str, data_dir: str = DEFAULT_DATA_DIR, *, store: str | None = None,
          server_url: str | None = None) -> None:
    """Set up the local runtime in ``data_dir`` with the identity of ``private_key``.

    Raises ``ValueError`` for a key that is not 64 hexadecimal digits, or when
    the data directory already holds another identity (nothing is changed).
    """
    if not isinstance(private_key, str):
        raise TypeError(f"private_key must be a str, got {type(private_key).__name__}")
    try:
        secret = bytes.fromhex(private_key.strip())
    except ValueError:
        secret = b""
    if len(secret) != WALLET_SECRET_LENGTH:
        raise ValueError(f"private_key must be {2 * WALLET_SECRET_LENGTH} hexadecimal digits, "
                         "as register() returned it")
    data_dir = usable_data_dir(data_dir)
    path = os.path.join(data_dir, WALLET_FILE)
    if os.path.exists(path):
        if load_or_create_wallet_secret(data_dir) != secret:
            raise ValueError(f"{data_dir} already holds another identity; use another data directory, "
                             f"or delete {WALLET_FILE} there to replace it")
    else:
        write_atomically(path, lambda fh: fh.write(secret), private=True)
    _replace_runtime(data_dir, store, server_url)
