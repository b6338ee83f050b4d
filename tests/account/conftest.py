"""Accounts on each kind of store, and on one that can be made to fail."""

from __future__ import annotations

import contextlib
from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest
from account_support import CLOCK, NOON, Bench, new_account

from korvane.engines.decision_account import AccountSilent, SharedSpend, sqlite
from korvane.engines.decision_account.records import Store
from korvane.engines.decision_account.sqlite import SqliteStore
from support import SOON


@pytest.fixture
def url(request: pytest.FixtureRequest, monkeypatch: pytest.MonkeyPatch) -> str:
    return new_account(request.getfixturevalue("postgres"), monkeypatch)


@pytest.fixture(params=["memory", "file", "postgresql"])
def bench(
    request: pytest.FixtureRequest, tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> Iterator[Bench]:
    with contextlib.ExitStack() as stack:

        def kept(store: Store) -> Store:
            stack.callback(store.close)
            return store

        if request.param == "postgresql":
            url = new_account(request.getfixturevalue("postgres"), monkeypatch)
            import psycopg

            from korvane.engines.decision_account.postgresql import PostgresStore

            connection = stack.enter_context(psycopg.connect(url, autocommit=True))
            yield Bench(
                lambda: kept(PostgresStore(url)),
                lambda now: connection.execute(CLOCK.format(repr(now))).close(),
            )
        else:
            monkeypatch.setattr(sqlite, "LIMIT_S", SOON)
            time = [NOON]
            memory = kept(SqliteStore("", lambda: time[0]))
            path = str(tmp_path / "spend.db")
            yield Bench(
                lambda: (
                    memory
                    if request.param == "memory"
                    else kept(SqliteStore(path, lambda: time[0]))
                ),
                lambda now: time.__setitem__(0, now),
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
        return self._request(name, value) if name in ("admit", "settle", "look", "open") else value

    def _request(self, name: str, carry_out: Callable[..., Any]) -> Callable[..., Any]:
        def request(*about: Any) -> Any:
            self.asked.append(name)
            if self.down:
                raise AccountSilent("the account does not answer: it is down")
            answer = carry_out(*about)
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
