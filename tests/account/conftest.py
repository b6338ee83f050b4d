"""An account in a file, and a store that can be made to fail."""

from collections.abc import Callable, Iterator
from pathlib import Path
from typing import Any

import pytest

from korvane.engines.decision_account import AccountSilent, SharedSpend
from korvane.engines.decision_account.sqlite import SqliteStore


@pytest.fixture
def url(tmp_path: Path) -> str:
    return f"sqlite:///{tmp_path}/spend.db"


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
