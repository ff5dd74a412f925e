"""tarnwicket: an unattended search for trading signals.

Worker threads run a template that proposes expressions over market data;
each is evaluated, judged by fixed rules and recorded, and a passing signal is
sent once to a signal service and followed to its verdict.

    import tarnwicket

    tarnwicket.register()                        # the local runtime and its identity
    handle = tarnwicket.search(tarnwicket.random_weighted, n_jobs=2)
    ...
    print(tarnwicket.status())                   # a SearchStatus snapshot
    handle.stop()

The search engine lives in the extension module ``tarnwicket.search_templates``;
its public names are offered here as well, loaded on first use.
"""

from typing import TYPE_CHECKING

__version__ = "0.1.0"

if TYPE_CHECKING:       # what type checkers see of the names loaded on first use below
    from tarnwicket.identity import login, register
    from tarnwicket.search_templates import (SearchContext, SearchError, SearchHandle, SearchStatus,
                                             TemplateSandboxViolation, analyze_random_weighted,
                                             delete_evaluations, delete_failed_evaluations, get_db_info,
                                             random_weighted, search, status)

# Public names of the extension module, offered at package level.
_ENGINE_NAMES = (
    "search", "status", "SearchHandle", "SearchStatus", "SearchError", "SearchContext",
    "TemplateSandboxViolation", "random_weighted", "analyze_random_weighted",
    "delete_evaluations", "delete_failed_evaluations", "get_db_info",
)
_IDENTITY_NAMES = ("register", "login")

__all__ = [*_IDENTITY_NAMES, *_ENGINE_NAMES]


def __getattr__(name):
    # Loaded on first use: the extension module itself imports sibling modules of this package.
    if name in _ENGINE_NAMES:
        import tarnwicket.search_templates as engine

        return getattr(engine, name)
    if name in _IDENTITY_NAMES:
        from tarnwicket import identity

        return getattr(identity, name)
    raise AttributeError(f"module 'tarnwicket' has no attribute {name!r}")


def __dir__():
    return sorted({*globals(), *__all__})
