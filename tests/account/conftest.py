"""Accounts on each kind of store, and on one that can be made to fail."""

from __future__ import annotations

import contextlib
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from korvane.engines.decision_account import AccountSilent, SharedSpend, sqlite
from korvane.engines.decision_account.records import NANO, Store
from korvane.engines.decision_account.sqlite import SqliteStore
from support import SOON

NOON = 20_000 * 86400.0 + 43200
CLOCK = (
    "CREATE OR REPLACE FUNCTION decision_account.clock() RETURNS double precision"
    " LANGUAGE sql VOLATILE AS 'SELECT {}::double precision'"
)


@pytest.fixture
def url(postgres: Any, monkeypatch: pytest.MonkeyPatch) -> str:
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


class Bench:
    """An account of 1 USD a day, and a clock that a test moves; ``store`` is this process's way to
    it, ``other`` makes another one's."""

    def __init__(self, other: Callable[[], Store], move: Callable[[float], object]) -> None:
        self.other = other
        self._move = move
        self.store = other()
        self.store.open(NANO)
        self.go(NOON)

    def go(self, now: float) -> None:
        self.now = now
        self._move(now)


@pytest.fixture(params=["memory", "file", "postgresql"])
def bench(
    request: pytest.FixtureRequest, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> Iterator[Bench]:
    with contextlib.ExitStack() as stack:

        def kept(store: Store) -> Store:
            stack.callback(store.close)
            return store

        if request.param == "postgresql":
            url = request.getfixturevalue("url")
            import psycopg

            from korvane.engines.decision_account.postgresql import PostgresStore

            connection = stack.enter_context(psycopg.connect(url, autocommit=True))
            yield Bench(
                lambda: kept(PostgresStore(url)),
                lambda now: connection.execute(CLOCK.format(repr(now))),
            )
        else:
            monkeypatch.setattr(sqlite, "LIMIT_S", SOON)
            time: list[float] = []
            path = "" if request.param == "memory" else str(tmp_path / "spend.db")
            memory = kept(SqliteStore("", lambda: time[-1]))
            yield Bench(
                lambda: kept(SqliteStore(path, lambda: time[-1])) if path else memory,
                time.append,
            )


class Flaky:
    """A store that counts its requests, and does not answer while it is down. Where it is `deaf`
    the request is carried out, and its answer lost."""

    def __init__(self) -> None:
        self._store = SqliteStore("")
        self.down = self.deaf = False
        self.asked: list[str] = []

    def __getattr__(self, name: str) -> Any:
        value = getattr(self._store, name)
        if name not in ("admit", "settle", "look", "open"):
            return value

        def request(*about: Any) -> Any:
            self.asked.append(name)
            if self.down:
                raise AccountSilent("the account does not answer: it is down")
            answer = value(*about)
            if self.deaf:
                raise AccountSilent("the account does not answer: it is deaf")
            return answer

        return request


@pytest.fixture
def flaky(monkeypatch: pytest.MonkeyPatch) -> Iterator[Flaky]:
    """What the next account is made on."""
    store = Flaky()
    monkeypatch.setattr("korvane.engines.decision_account.spend.store_at", lambda url: store)
    yield store
    store.down = store.deaf = False


@pytest.fixture
def spend(flaky: Flaky) -> Iterator[SharedSpend]:
    with SharedSpend("sqlite://", 1.0) as spend:
        yield spend
