"""The ledger: what every paid call cost, kept in SQLite beyond the run.

Any number of runs may write it at once. A ledger that cannot be used never ends a run: what it
could not take is kept in memory and offered again.
"""

from __future__ import annotations

import logging
import sqlite3
import threading
import time
from pathlib import Path

logger = logging.getLogger(__name__)

_SCHEMA = """
CREATE TABLE IF NOT EXISTS paid (
    day TEXT NOT NULL,
    feature TEXT NOT NULL,
    input_tokens INTEGER NOT NULL,
    cost REAL NOT NULL
);
CREATE INDEX IF NOT EXISTS paid_by_day ON paid (day, cost);
"""
_BUSY_S = 1.0
_RETRY_S = 5.0

type _Row = tuple[str, str, int, float]


class Ledger:
    """One row per paid call. The lock guards the connection and the rows not yet written."""

    def __init__(self, path: Path) -> None:
        self._path = path
        self._lock = threading.Lock()
        self._connection: sqlite3.Connection | None = None
        self._unwritten: list[_Row] = []
        self._retry_at = 0.0

    def spent_since(self, day: str) -> float:
        """What the paid calls since ``day`` cost, USD. Errors are the caller's to handle."""
        with self._lock:
            total = self._open().execute("SELECT total(cost) FROM paid WHERE day >= ?", (day,))
            return float(total.fetchone()[0])

    def record(self, day: str, feature: str, input_tokens: int, cost: float) -> None:
        """Commit a paid call's row, and any that could not be written before it."""
        with self._lock:
            self._unwritten.append((day, feature, input_tokens, cost))
            # A broken ledger costs each call up to the busy time-out, so it is not asked each time.
            if time.monotonic() >= self._retry_at:
                self._write_locked()

    def close(self) -> None:
        """Write what is left, and say what is lost if that fails."""
        with self._lock:
            if self._unwritten:
                self._write_locked()
            if self._unwritten:
                lost = sum(cost for *_, cost in self._unwritten)
                logger.warning("Lost from the ledger %s: $%.4f of paid calls", self._path, lost)
            if self._connection is not None:
                self._connection.close()

    def _write_locked(self) -> None:
        try:
            with self._open() as transaction:
                transaction.executemany("INSERT INTO paid VALUES (?, ?, ?, ?)", self._unwritten)
        except (sqlite3.Error, OSError) as error:
            if not self._retry_at:
                logger.warning("Cannot write the ledger %s: %s; retrying", self._path, error)
            self._retry_at = time.monotonic() + _RETRY_S
        else:
            self._unwritten.clear()
            self._retry_at = 0.0

    def _open(self) -> sqlite3.Connection:
        if self._connection is None:
            self._path.parent.mkdir(parents=True, exist_ok=True)
            connection = sqlite3.connect(self._path, timeout=_BUSY_S, check_same_thread=False)
            try:
                _prepare(connection)
            except sqlite3.Error:
                connection.close()
                raise
            self._connection = connection
        return self._connection


def _prepare(connection: sqlite3.Connection) -> None:
    """Make the file a ledger. Runs that do so at the same moment find it locked without the busy
    time-out being observed, so here it is observed by hand."""
    until = time.monotonic() + _BUSY_S
    while True:
        try:
            connection.execute("PRAGMA journal_mode=WAL")
            connection.executescript(_SCHEMA)
            return
        except sqlite3.OperationalError as error:
            busy = error.sqlite_errorcode & 0xFF == sqlite3.SQLITE_BUSY
            if not busy or time.monotonic() >= until:
                raise
            time.sleep(0.01)
