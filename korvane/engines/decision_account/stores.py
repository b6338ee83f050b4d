"""The store that a URL names."""

from __future__ import annotations

from .records import AccountError, Store
from .sqlite import SqliteStore


def store_at(url: str) -> Store:
    """Raises :class:`AccountError` where the URL names none, or what it needs is not installed."""
    scheme, colon, rest = url.partition("://")
    if scheme == "sqlite" and colon and (not rest or rest.startswith("/")):
        return SqliteStore(rest[1:])
    if scheme in ("postgresql", "postgres") and colon:
        try:
            from .postgresql import PostgresStore
        except ImportError as error:
            raise AccountError(
                "an account in PostgreSQL needs psycopg: "
                "pip install 'korvane-decision-bounds[postgresql]'"
            ) from error
        return PostgresStore(url)
    raise AccountError(
        f"not the URL of an account: {url!r}; say sqlite:///FILE or postgresql://..."
    )
