"""One account on each kind of store."""

from __future__ import annotations

import contextlib
from collections.abc import Iterator
from pathlib import Path

import pytest
from account_support import CLOCK, NOON, Bench, new_account
from support import SOON

from korvane.engines.decision_account import sqlite
from korvane.engines.decision_account.records import Store
from korvane.engines.decision_account.sqlite import SqliteStore


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
