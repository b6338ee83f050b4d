"""What the fleet's tests share: accounts, the proof that their sums are right, a call."""

from collections.abc import Callable
from contextlib import suppress
from datetime import UTC, datetime, timedelta

import psycopg
from fleet.account import Account, connect
from fleet.client import PaidCall
from fleet.postgres import Server
from psycopg.errors import DuplicateDatabase

CAP = 1_000_000
SUMS = """
    SELECT cap, leased, beyond, coalesce(sum(amount), 0),
        coalesce(sum(greatest(0, ceil(lease.paid) - amount)), 0),
        bool_and(lease.paid = (SELECT coalesce(sum(cost), 0) FROM fleet.paid
                               WHERE (day, owner) = (lease.day, lease.owner)))
    FROM fleet.day JOIN fleet.lease USING (day) GROUP BY day, cap, leased, beyond
"""

type Join = Callable[..., Account]


def new_account(postgres: Server, name: str = "account") -> str:
    """An account without a past. Its database is made once: each costs a thousand files."""
    with suppress(DuplicateDatabase):
        postgres.new_database(name)
    url = postgres.address(name)
    with psycopg.connect(url, autocommit=True) as connection:
        connection.execute("DROP SCHEMA IF EXISTS fleet CASCADE")
        connection.execute(f"ALTER DATABASE {name} RESET ALL")
    return url


def set_clock(url: str, before_midnight: float) -> None:
    """Moves the account's clock to some seconds before a midnight, for who connects from now on."""
    with connect(url) as connection:
        shift = datetime(2026, 3, 2, tzinfo=UTC) - datetime.now(UTC)
        shift -= timedelta(seconds=before_midnight)
        connection.execute(f"ALTER DATABASE {connection.info.dbname} SET fleet.shift = '{shift}'")


def balanced(url: str) -> bool:
    """Whether the account's sums are those of its rows, and the promise holds."""
    with connect(url) as connection:
        for cap, leased, beyond, amounts, overs, proven in connection.execute(SUMS):
            if (leased, beyond, True) != (amounts, overs, proven) or leased > cap:
                return False
    return True


def until(true: Callable[[], bool]) -> None:
    """Looks until something is true, for as long as a test may take."""
    while not true():
        pass


def paid(day: str, micro: int) -> PaidCall:
    return PaidCall(day, "paragraph", 5, micro / 1e6)
