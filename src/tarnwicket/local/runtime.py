"""Assembles the local runtime object that a search takes from the package."""

from __future__ import annotations

import errno
import importlib
import os
import sqlite3

from tarnwicket.errors import DamagedFile

from .checks import check_store, check_vocabulary
from .data_source import LocalMarketSource
from .era import LocalAuth, LocalEraConfig, ensure_seed_file, load_or_create_wallet_secret
from .evaluator import LocalEvaluator
from .market_data import UNIVERSE_ID, load_panel, panel_path
from .user_data import install_market_file

DEFAULT_DATA_DIR = "~/.tarnwicket/local"


class LocalRuntime:
    """Authentication, sync, tracking, era and evaluation for a search on this machine."""

    valid_universe_id = UNIVERSE_ID
    vocabulary_raw = None          # the vocabulary file is read through load_vocabulary

    def __init__(self, *, data_dir, auth_proxy, sync_manager, search_tracker,
                 search_era_config, evaluator, source, server_url=None, signal_service=None):
        self.data_dir = data_dir
        self.auth_proxy = auth_proxy
        self.sync_manager = sync_manager
        self.search_tracker = search_tracker
        self.search_era_config = search_era_config
        self.evaluator = evaluator
        self.source = source
        self.server_url = server_url
        self.signal_service = signal_service   # the loopback service this runtime started, if any

    def close(self) -> None:
        """Stop the loopback signal service, if this runtime started one."""
        service, self.signal_service = self.signal_service, None
        if service is not None:
            service.close()

    def __repr__(self) -> str:
        return f"LocalRuntime(data_dir={self.data_dir!r}, universe={self.valid_universe_id!r})"


def _sync_manager(data_dir: str, source: LocalMarketSource):
    try:
        from tarnwicket.sync import SyncManager
    except ImportError:
        return None
    return SyncManager(data_dir, universe_id=UNIVERSE_ID, source=source)


def _ensure_data(data_dir: str, source: LocalMarketSource, sync_manager) -> None:
    if source.is_present(data_dir, UNIVERSE_ID):
        return
    if sync_manager is not None and callable(getattr(sync_manager, "sync", None)):
        sync_manager.sync()
    if not source.is_present(data_dir, UNIVERSE_ID):
        source.materialise(data_dir, UNIVERSE_ID)


class NoSharedService(ValueError):
    """A store shared by several machines, and no signal service named for them all."""


def _one_service_for_a_shared_store(store: str | None, server_url: str | None) -> None:
    """Machines on one store poll each other's submissions: were each to start a
    loopback service of its own, the others' would be unknown to it, and a poll of
    an unknown submission ends it as rejected."""
    from tarnwicket.stores import is_postgres_url

    if server_url is None and store is not None and is_postgres_url(store):
        raise NoSharedService(
            "a store shared by several machines needs one signal service for all of them: start one with "
            "'python -m tarnwicket.local_signal_service --db PATH --data-dir DIR' and give its URL with "
            "--server-url (from Python: server_url=URL)")


def usable_data_dir(data_dir: str) -> str:
    """The absolute data directory, created if need be; ``OSError`` if it can't be used."""
    if os.fspath(data_dir) in ("", b""):     # not the current directory by accident
        raise FileNotFoundError(errno.ENOENT, "an empty path names no data directory", data_dir)
    path = os.path.abspath(os.path.expanduser(data_dir))
    if os.path.exists(path) and not os.path.isdir(path):
        raise NotADirectoryError(f"data directory {path} is not a directory")
    os.makedirs(path, exist_ok=True)
    if not os.access(path, os.W_OK | os.X_OK):
        raise PermissionError(f"data directory {path} is not writable")
    return path


REVIEW_POLLS = 2    # polls the loopback service answers "is_validating" before its verdict


def start_signal_service(data_dir: str, token: str, faults=None):
    """The loopback signal service of ``data_dir``, serving on a free port.

    ``faults`` (text or ``FaultRates``) injects faults at random; when it is
    None the environment variable named by ``FAULTS_ENV`` is read instead.
    """
    from tarnwicket.local_signal_service import DB_FILENAME, FAULTS_ENV, LocalSignalService

    if faults is None:
        faults = os.environ.get(FAULTS_ENV) or None
    path = os.path.join(data_dir, DB_FILENAME)
    try:
        service = LocalSignalService(token=token, db_path=path, faults=faults,
                                     polls_to_terminal=REVIEW_POLLS)
    except sqlite3.DatabaseError as exc:
        raise DamagedFile(path, f"cannot be used as the signal service's store ({exc})",
                          "move it away to start the local signal service afresh "
                          "(what it holds was already recorded by the searches that sent it)") from None
    try:
        return service.start()
    except BaseException:
        service.close()
        raise


def prepare_local_runtime(data_dir: str = DEFAULT_DATA_DIR, seed: int = 0,
                          server_url: str | None = None, service_faults=None,
                          store: str | None = None, data: str | None = None) -> LocalRuntime:
    """Build the local runtime, syncing the local data set first if needed.

    Unless ``server_url`` names a signal service, the loopback one is started
    for this runtime (``runtime.signal_service``; ``runtime.close()`` stops it)
    with the runtime's own token, keeping what it accepted in the data
    directory; ``service_faults`` makes it inject faults (see
    ``tarnwicket.local_signal_service.FaultRates``). A ``server_url`` that
    is not an http(s) URL with a host raises ``ValueError`` before anything
    is written.

    ``store`` chooses where evaluations and submissions are kept: a
    ``postgresql://`` URL of a database that several searches share, or
    ``"sqlite"`` for the data directory's own file. The data directory
    remembers the choice (None keeps the one it has; SQLite by default).
    A shared store needs a ``server_url`` that all its machines use; without
    one ``NoSharedService`` (a ``ValueError``) is raised.

    ``data`` is a file of your own daily market data (CSV or Parquet, see
    ``tarnwicket.local.user_data``); it replaces the data set of the data
    directory, which keeps it for later runs. A bad file raises
    ``DataFileError`` (a ``ValueError``) and changes nothing.

    The store, the market data, the vocabulary and the wallet secret are checked
    before anything is written; a damaged one raises ``DamagedFile`` (a
    ``ValueError``) and is left as it is.

    Also points ``tarnwicket.agent_onboarding._config`` at the data directory
    and the server URL, and publishes the runtime as
    ``tarnwicket.search_templates._library_runtime``.
    """
    from tarnwicket.search_tracking import DB_FILENAME, SearchTracker
    from tarnwicket.stores import check_store_url, remember_store_url, remembered_store_url
    from tarnwicket.submit import check_server_url

    if store is not None:
        check_store_url(store)
    if server_url is not None:
        check_server_url(server_url)
    source = LocalMarketSource(seed)
    _one_service_for_a_shared_store(store, server_url)
    data_dir = usable_data_dir(data_dir)
    if store is None:
        store = remembered_store_url(data_dir)
        _one_service_for_a_shared_store(store, server_url)
    if store is None or store == "sqlite":
        check_store(os.path.join(data_dir, DB_FILENAME))
    sync_manager = _sync_manager(data_dir, source)
    if data is not None:
        install_market_file(data_dir, data, UNIVERSE_ID)
    _ensure_data(data_dir, source, sync_manager)
    load_panel(panel_path(data_dir, UNIVERSE_ID))
    check_vocabulary(data_dir, UNIVERSE_ID)

    wallet_secret = load_or_create_wallet_secret(data_dir)
    era_config = LocalEraConfig()
    ensure_seed_file(data_dir, wallet_secret, era_config.era_id)
    auth = LocalAuth(wallet_secret)
    service = None
    if server_url is None:
        service = start_signal_service(data_dir, auth.get_token(), service_faults)
        server_url = service.url

    try:
        runtime = LocalRuntime(
            data_dir=data_dir,
            auth_proxy=auth,
            sync_manager=sync_manager,
            search_tracker=SearchTracker(data_dir, store=store),
            search_era_config=era_config,
            evaluator=LocalEvaluator(data_dir, UNIVERSE_ID, thresholds=era_config.thresholds),
            source=source,
            server_url=server_url,
            signal_service=service,
        )
    except BaseException:
        if service is not None:
            service.close()
        raise
    remember_store_url(data_dir, store)
    try:
        onboarding = importlib.import_module("tarnwicket.agent_onboarding")
    except ModuleNotFoundError as exc:
        if exc.name != "tarnwicket.agent_onboarding":
            raise
    else:
        onboarding._config["data_dir"] = data_dir
        onboarding._config["server_url"] = server_url
    search_templates = importlib.import_module("tarnwicket.search_templates")
    search_templates._library_runtime = runtime
    return runtime
