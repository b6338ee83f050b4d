"""What the tests of an account share: one that has no past, and a clock that a test moves."""

from __future__ import annotations

import contextlib
from collections.abc import Callable
from typing import Any

import pytest

from korvane.engines.decision_account.records import Store
from support import SOON

CAP = 1_000_000_000
NOON = 20_000 * 86400.0 + 43200
CLOCK = (
    "CREATE OR REPLACE FUNCTION decision_account.clock() RETURNS double precision"
    " LANGUAGE sql VOLATILE AS 'SELECT {}::double precision'"
)


class Bench:
    """An account; ``store`` is this process's way to it, ``other`` makes another one's."""

    def __init__(self, other: Callable[[], Store], move: Callable[[float], None]) -> None:
        self.other = other
        self._move = move
        self.store = other()
        self.store.open(CAP)
        self.go(NOON)

    def go(self, now: float) -> None:
        self.now = now
        self._move(now)


def new_account(postgres: Any, monkeypatch: pytest.MonkeyPatch) -> str:
    """An account without a past, whose store may take as long as a busy machine makes it."""
    import psycopg

    from korvane.engines.decision_account import postgresql

    monkeypatch.setattr(postgresql, "LIMIT_S", SOON)
    with contextlib.suppress(psycopg.errors.DuplicateDatabase):
        postgres.new_database("paid")
    url = str(postgres.address("paid"))
    with psycopg.connect(url, autocommit=True) as connection:
        connection.execute("DROP SCHEMA IF EXISTS decision_account CASCADE")
        connection.execute("ALTER DATABASE paid RESET ALL")
    return url
