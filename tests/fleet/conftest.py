"""An account of its own for each test."""

from collections.abc import Iterator
from contextlib import ExitStack, closing

import pytest

pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
from fleet.account import Account
from fleet.postgres import Server
from fleet_support import CAP, Join, new_account


@pytest.fixture
def url(postgres: Server) -> str:
    return new_account(postgres)


@pytest.fixture
def join() -> Iterator[Join]:
    """Opens an owner's line to an account, and closes it in the end."""
    with ExitStack() as stack:

        def join(url: str, owner: str, *, cap: int = CAP, term: float = 99, kind=Account):
            return stack.enter_context(closing(kind(url, owner, cap, term)))

        yield join
