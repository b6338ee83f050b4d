"""A process's line to the shared account in PostgreSQL; `account.sql` holds the rules.

Amounts are whole micro-dollars. Every request is one round trip and one transaction, and may be
repeated after its answer was lost: the account carries it out once.
"""

from __future__ import annotations

from collections.abc import Iterator, Mapping, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from decimal import Decimal
from pathlib import Path
from typing import Any

import psycopg
from psycopg.rows import class_row

from fleet.client import PaidCall
from korvane.engines.decision_bounds import DecisionError

MICRO = 1_000_000
_RULES = Path(__file__).with_name("account.sql")
# A link that says nothing is given up within seconds, and so is a wait for another's row.
_LINK: Mapping[str, Any] = {
    "connect_timeout": 5,
    "keepalives_idle": 2,
    "keepalives_interval": 1,
    "keepalives_count": 3,
    "tcp_user_timeout": 5000,
    "options": "-c lock_timeout=5s",
}
_BOOKS = """
SELECT owner, day::text, granted AS leased, granted - amount AS handed_back, lease.paid,
    coalesce(max(cost), 0) AS dearest, count(id) AS calls,
    coalesce(sum(tokens), 0)::bigint AS tokens, request AS requests
FROM fleet.lease LEFT JOIN fleet.paid USING (day, owner)
WHERE starts_with(owner, %s) GROUP BY lease.day, lease.owner ORDER BY owner, day
"""
# Any number will do, as long as no other program of this database takes the same lock.
_PREPARING = 0x6665_6C74


class AccountError(DecisionError):
    """The account refuses a request, and would refuse it again; one line says why."""


class AccountUnreachable(DecisionError):
    """The account does not answer now. Whether it carried the request out is not known."""


@dataclass(frozen=True)
class Lease:
    """What the account granted: `amount` in all on `day`, good for `seconds`."""

    day: str
    amount: int
    seconds: float
    spent: bool


class Account:
    """One owner's view of the account. One thread at a time uses it."""

    def __init__(self, url: str, owner: str, cap: int, term: float) -> None:
        self._url = url
        self._owner = owner
        self._cap = cap
        self.term = term
        self._request = 0
        self._connection: psycopg.Connection[Any] | None = None

    def lease(self, wish: int) -> Lease:
        """Ask for `wish` more, which renews the lease; 0 renews it only.

        Where the last answer was lost, the account takes this for the same request: what it
        granted then is what it answers now, whatever the wish.
        """
        day, left, total, spent = self._ask(
            "SELECT of_day::text, extract(epoch FROM day_left)::float8, total, spent"
            " FROM fleet.lease(%s, %s, %s, %s, make_interval(secs => %s))",
            (self._owner, self._request + 1, self._cap, wish, self.term),
        )
        self._request += 1
        return Lease(day, total, min(left, self.term), spent)

    def hand_back(self, day: str) -> int:
        """Return what is left of the day's lease; the amount that the lease keeps."""
        (amount,) = self._ask(
            "SELECT fleet.hand_back(%s, %s, %s)", (self._owner, self._request + 1, day)
        )
        self._request += 1
        return int(amount)

    def record(self, call: PaidCall) -> None:
        """Write a paid call down, on the day of the lease that it was paid from. Its identity
        makes a row that is offered twice one row."""
        self._ask(
            "INSERT INTO fleet.paid (id, day, owner, cost, tokens)"
            " VALUES (%s, %s, %s, %s, %s) ON CONFLICT DO NOTHING RETURNING 0",
            (call.id, call.day, self._owner, micro(call.cost), call.input_tokens),
        )

    def close(self) -> None:
        if self._connection is not None:
            self._connection.close()
            self._connection = None

    def _ask(self, query: str, values: Sequence[Any]) -> Any:
        try:
            if self._connection is None:
                self._connection = connect(self._url)
            with _telling():
                return self._connection.execute(query, values).fetchone()
        except AccountUnreachable:
            self.close()
            raise


def connect(url: str) -> psycopg.Connection[Any]:
    """A connection to the account, each of whose statements is a transaction of its own. Whoever
    connects first makes the account's tables."""
    with _telling():
        connection = psycopg.connect(url, autocommit=True, **_LINK)
        try:
            if not _is_made(connection):
                with connection.transaction():
                    connection.execute("SELECT pg_advisory_xact_lock(%s)", (_PREPARING,))
                    if not _is_made(connection):
                        connection.execute(_RULES.read_bytes())
        except BaseException:
            connection.close()
            raise
        return connection


def _is_made(connection: psycopg.Connection[Any]) -> bool:
    # From the catalogue itself: what a session remembers of names may be older than its locks.
    query = "SELECT FROM pg_tables WHERE (schemaname, tablename) = ('fleet', 'paid')"
    return connection.execute(query).fetchone() is not None


@contextmanager
def _telling() -> Iterator[None]:
    """Tells what may work later from what will not, in one line."""
    try:
        yield
    except psycopg.OperationalError as error:
        raise AccountUnreachable(f"the account does not answer: {_line(error)}") from error
    except psycopg.Error as error:
        raise AccountError(f"the account refuses: {_line(error)}") from error


@dataclass(frozen=True)
class Books:
    """What the account knows of one process on one day; amounts in micro-dollars."""

    owner: str
    day: str
    leased: int
    handed_back: int
    paid: Decimal
    dearest: Decimal
    calls: int
    tokens: int
    requests: int


def books(url: str, fleet: str = "") -> list[Books]:
    """The books of every process whose name begins with `fleet`."""
    with (
        _telling(),
        connect(url) as connection,
        connection.cursor(row_factory=class_row(Books)) as cursor,
    ):
        return cursor.execute(_BOOKS, (fleet,)).fetchall()


def micro(usd: float) -> Decimal:
    """An amount in micro-dollars, to the nano-dollar."""
    return Decimal(repr(float(usd))).scaleb(6).quantize(Decimal("0.001"))


def _line(error: psycopg.Error) -> str:
    return str(error.diag.message_primary or error).strip().splitlines()[0]
