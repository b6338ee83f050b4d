"""The ledger: what every paid call cost, kept beyond the run, in SQLite or PostgreSQL.

Any number of runs may write one ledger at once. Each reads what the others spent when its day
starts, and not again: one cap over many processes takes more (see the fleet's example). A row is
dated by the day on which the account counts its cost: :class:`Calendar` lets no midnight come
between the two. :class:`Outbox` decides what becomes of a run whose ledger fails.
"""

from __future__ import annotations

import logging
import sqlite3
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from pathlib import Path
from typing import TYPE_CHECKING, Any, Protocol
from urllib.parse import urlsplit
from uuid import UUID, uuid4

if TYPE_CHECKING:
    import psycopg

logger = logging.getLogger(__name__)

_TABLE = """
CREATE TABLE IF NOT EXISTS paid (
    day TEXT NOT NULL,
    feature TEXT NOT NULL,
    input_tokens {integer} NOT NULL,
    cost {double} NOT NULL{identity}
);
CREATE INDEX IF NOT EXISTS paid_by_day ON paid (day, cost);
"""
_BUSY_S = 1.0
_RETRY_S = 1.0
_LAST_OFFERS = 3


@dataclass(frozen=True)
class PaidCall:
    """A row of the ledger. By its identity it is one row, also where it is recorded twice."""

    day: str
    feature: str
    input_tokens: int
    cost: float
    id: UUID = field(default_factory=uuid4)


class Ledger(Protocol):
    """Where paid calls are recorded. Each method raises what goes wrong."""

    def spent_since(self, day: str) -> float:
        """What the paid calls since ``day`` cost, USD."""

    def record(self, calls: Sequence[PaidCall]) -> None:
        """Commit a row for each call, or none."""

    def close(self) -> None: ...


class SqliteLedger:
    """A ledger in a file. The lock guards the connection."""

    def __init__(self, path: Path) -> None:
        path.parent.mkdir(parents=True, exist_ok=True)
        self._lock = threading.Lock()
        self._connection = sqlite3.connect(path, timeout=_BUSY_S, check_same_thread=False)
        try:
            self._prepare()
        except BaseException:
            self._connection.close()
            raise

    def spent_since(self, day: str) -> float:
        with self._lock:
            rows = self._connection.execute("SELECT total(cost) FROM paid WHERE day >= ?", (day,))
            return float(rows.fetchone()[0])

    def record(self, calls: Sequence[PaidCall]) -> None:
        # A file never loses its answer on the way, so what failed was not written: no identity.
        rows = [(call.day, call.feature, call.input_tokens, call.cost) for call in calls]
        with self._lock, self._connection as transaction:
            transaction.executemany("INSERT INTO paid VALUES (?, ?, ?, ?)", rows)

    def close(self) -> None:
        self._connection.close()

    def _prepare(self) -> None:
        """Make the file a ledger. Runs that do so at the same moment find it locked without the
        busy time-out being observed, so here it is observed by hand."""
        until = time.monotonic() + _BUSY_S
        while True:
            try:
                self._connection.execute("PRAGMA journal_mode=WAL")
                self._connection.executescript(
                    _TABLE.format(integer="INTEGER", double="REAL", identity="")
                )
                return
            except sqlite3.OperationalError as error:
                busy = error.sqlite_errorcode & 0xFF == sqlite3.SQLITE_BUSY
                if not busy or time.monotonic() >= until:
                    raise
                time.sleep(0.01)


class PostgresLedger:
    """A ledger for several hosts. It may be restarted at any time: a row whose answer was lost on
    the way is recorded again, and its identity keeps it one row."""

    def __init__(self, url: str) -> None:
        import psycopg
        from psycopg_pool import ConnectionPool

        # The pool says the same, again and again.
        logging.getLogger("psycopg.pool").setLevel(logging.ERROR)
        with psycopg.connect(url, connect_timeout=5) as connection:
            # Two that create one table at the same time may both fail.
            connection.execute("SELECT pg_advisory_xact_lock(hashtext('decision_client'))")
            connection.execute(
                _TABLE.format(
                    integer="BIGINT", double="DOUBLE PRECISION", identity=", id UUID PRIMARY KEY"
                )
            )
        self._pool = ConnectionPool(
            url,
            min_size=1,
            max_size=8,
            timeout=_BUSY_S,
            reconnect_timeout=_BUSY_S / 2,  # the next call tries again
            kwargs={"connect_timeout": 5, "tcp_user_timeout": 5000},
            configure=_limit_statements,
            check=ConnectionPool.check_connection,
            open=True,
        )

    def spent_since(self, day: str) -> float:
        with self._pool.connection() as connection:
            query = "SELECT coalesce(sum(cost), 0) FROM paid WHERE day >= %s"
            row = connection.execute(query, (day,)).fetchone()
            return float(row[0]) if row else 0.0

    def record(self, calls: Sequence[PaidCall]) -> None:
        rows = [(call.day, call.feature, call.input_tokens, call.cost, call.id) for call in calls]
        with self._pool.connection() as connection:
            connection.cursor().executemany(
                "INSERT INTO paid VALUES (%s, %s, %s, %s, %s) ON CONFLICT (id) DO NOTHING", rows
            )

    def close(self) -> None:
        self._pool.close()


def _limit_statements(connection: psycopg.Connection[Any]) -> None:
    connection.execute("SET statement_timeout = '5s'")
    connection.commit()


class LedgerError(Exception):
    """The ledger cannot be opened; the message says which and why."""


class Outbox:
    """A ledger that never fails the call which has been paid: a row that cannot be written is kept
    and offered again, at the latest when the run ends. The lock guards what is kept."""

    def __init__(self, name: str, ledger: Ledger) -> None:
        self._name = name
        self._ledger = ledger
        self._lock = threading.Lock()
        self._kept: list[PaidCall] = []
        self._retry_at = 0.0
        self._failing = False
        self._unread_day = ""

    @classmethod
    def open(cls, place: str) -> Outbox:
        """The ledger at a ``postgresql://`` address or in an SQLite file."""
        remote = place.startswith(("postgresql://", "postgres://"))
        name = place
        try:
            if remote:
                address = urlsplit(place)
                name = f"{address.hostname}{address.path}"  # the password stays out of messages
            return cls(name, PostgresLedger(place) if remote else SqliteLedger(Path(place)))
        except Exception as error:
            raise LedgerError(f"cannot open the ledger {name}: {_one_line(error)}") from error

    def spent_since(self, day: str) -> float:
        try:
            return self._ledger.spent_since(day)
        except Exception:
            self._unread_day = day
            raise

    def record(self, calls: Sequence[PaidCall]) -> None:
        with self._lock:
            self._kept.extend(calls)
            # A broken ledger costs each call up to its time-out, so it is not asked each time.
            if time.monotonic() < self._retry_at:
                return
            offered, self._kept = self._kept, []
        try:
            self._ledger.record(offered)
        except Exception as error:
            with self._lock:
                self._kept += offered
                self._retry_at = time.monotonic() + _RETRY_S
                first, self._failing = not self._failing, True
            if first:
                logger.warning(
                    "Cannot write the ledger %s: %s; retrying", self._name, _one_line(error)
                )
        else:
            self._failing = False

    def close(self) -> None:
        """Offer what is kept for the last times."""
        for _ in range(_LAST_OFFERS):
            if self._kept:
                self._retry_at = 0.0
                self.record([])
        self._ledger.close()

    @property
    def trouble(self) -> str:
        """What the ledger and the account do not agree on, if anything."""
        parts = []
        if self._unread_day:
            parts.append(f"{self._unread_day} could not be read and was counted from $0")
        if self._kept:
            cost = sum(call.cost for call in self._kept)
            parts.append(f"{len(self._kept)} paid calls, ${cost:.4f}, could not be written")
        return "; ".join(parts)


def _one_line(error: Exception) -> str:
    return " ".join(str(error).split())


class Calendar:
    """Today's UTC date, which stands still while a reply is recorded and counted.

    The ledger dates a row when it is recorded, the account counts it on the day of its settlement.
    A midnight between the two would count it on one day and date it on the other, or twice on the
    new one, which starts from the ledger.
    """

    def __init__(self, date: Callable[[], str]) -> None:
        self._date = date
        self._changed = threading.Condition()
        self._day = ""
        self._counting = 0

    def today(self) -> str:
        with self._changed:
            return self._today_locked()

    @contextmanager
    def standing_still(self) -> Iterator[str]:
        """The date that :meth:`today` gives throughout the block."""
        with self._changed:
            # After midnight those who come later wait, so that the date does change.
            self._changed.wait_for(lambda: not self._counting or self._day == self._date())
            day = self._today_locked()
            self._counting += 1
        try:
            yield day
        finally:
            with self._changed:
                self._counting -= 1
                self._changed.notify_all()

    def _today_locked(self) -> str:
        if not self._counting:
            self._day = self._date()
        return self._day
