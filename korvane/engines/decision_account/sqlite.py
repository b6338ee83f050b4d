"""An account in an SQLite file, for the processes of one machine; or in memory, for one process."""

from __future__ import annotations

import fcntl
import glob
import math
import os
import random
import secrets
import sqlite3
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from typing import Any

from .records import LIMIT_S, AccountError, AccountSilent, Answer, Opening
from .rules import REQUESTS, SECTIONS, TRIGGERS, VERSION, SqlStore, day_of

_RETRY_S = 0.001
_REMOTE = {"9p", "afs", "ceph", "cifs", "fuse.sshfs", "lustre", "nfs", "nfs4", "smb3", "smbfs"}
_inherited: list[object] = []  # connections of a parent process, which a child must not close


class SqliteStore(SqlStore):
    """One connection, and one request at a time.

    The lock guards the connection. The file's own lock is taken under it, and asked for again and
    again at short intervals: SQLite's own waiting lets one of many processes starve.

    A process that has opened the account keeps a file beside it locked. The kernel lets go of that
    lock when the process dies, and not while it is only stopped: so a call whose process is dead
    ends at once, and no call is given up for being slow.
    """

    lanes = 1
    _connection: sqlite3.Connection | None
    _alive: int | None  # the locked file

    def __init__(self, path: str, clock: Callable[[], float] = time.time) -> None:
        """Name the store: nothing is opened yet. Without a path the account is in memory."""
        self._path = path and os.path.abspath(path)
        self._clock = clock
        self._begin_process()

    def open(self, cap: int | None) -> int:
        if cap is None and not os.path.exists(self._path):
            raise AccountError(f"there is no account {self._path}")
        with self._transaction() as run:
            tables = {name for (name,) in run("SELECT name FROM sqlite_master")}
            if not tables:
                version = 0
            elif "account" in tables:
                version = run("SELECT version FROM account")[0][0]
            else:
                raise AccountError(f"{self._path} is another program's database, not an account")
            if version > VERSION:
                raise AccountError(
                    f"the account {self._path} was made by a newer version of decision_account"
                )
            for later in range(version + 1, VERSION + 1):
                self._upgrade(run, later, cap)
            return int(run("SELECT cap FROM account")[0][0])

    def _upgrade(self, run: Run, version: int, cap: int | None) -> None:
        for statement in SECTIONS[f"schema {version}"]:
            run(statement, {"cap": cap})
        for number, (event, condition, (step,)) in enumerate(TRIGGERS):
            run(f"DROP TRIGGER IF EXISTS count_{number}")
            run(
                f"CREATE TRIGGER count_{number} AFTER {event} ON calls WHEN {condition} "
                f"BEGIN {step}; END"
            )
        run("UPDATE account SET version = :version", {"version": version})

    def admit(self, call: Opening) -> Answer:
        answer = super().admit(call)
        if answer.state is None and answer.paid < answer.cap and self._end_the_dead():
            answer = super().admit(call)
        return answer

    def _ask(self, request: str, *given: dict[str, Any], limit: float = math.inf) -> list[Any]:
        with self._transaction(limit) as run:
            now = self._clock()
            rows: list[Any] = []
            for values in given:
                for statement in REQUESTS[request]:
                    rows = run(statement, values | {"now": now}) or rows
            return rows

    def forked(self) -> None:
        if self._connection is not None and self._path:
            _inherited.append(self._connection)
        if self._alive is not None:
            os.close(self._alive)  # the parent's lock stays the parent's
        memory = None if self._path else self._connection
        self._begin_process()
        self._connection = memory

    def close(self) -> None:
        with self._lock:
            self._closed = True
            if self._connection is not None:
                self._connection.close()
                self._connection = None
            if self._alive is not None:
                os.unlink(self._alive_path(self.process))
                os.close(self._alive)
                self._alive = None

    def _begin_process(self) -> None:
        self.process = secrets.token_hex(6)
        self._lock = threading.Lock()
        self._closed = False
        self._connection = None
        self._alive = None

    @contextmanager
    def _transaction(self, limit: float = math.inf) -> Iterator[Run]:
        limit = min(limit, LIMIT_S)
        until = time.monotonic() + limit
        if not self._lock.acquire(timeout=limit):
            raise AccountSilent(f"the account {self._path} does not answer: it is busy")
        try:
            if self._closed:  # while this waited for its turn
                raise AccountError("the account is closed")
            connection = self._connection or self._connect()
            _begin(connection, until)
            try:
                yield lambda text, values=(): connection.execute(text, values).fetchall()
                connection.execute("COMMIT")
            except BaseException:
                if connection.in_transaction:
                    connection.execute("ROLLBACK")
                raise
        except sqlite3.Error as error:
            raise self._trouble(error) from error
        finally:
            self._lock.release()

    def _connect(self) -> sqlite3.Connection:
        if self._path:
            if (kind := _file_system(self._path)) in _REMOTE:
                raise AccountError(
                    f"the account {self._path} is on a network drive ({kind}), which SQLite cannot "
                    "share: put it on a local disk, or use PostgreSQL"
                )
            if os.path.exists(self._path) and not os.access(self._path, os.W_OK):
                raise AccountError(f"the account {self._path} is read-only")
        connection = sqlite3.connect(
            self._path or ":memory:", timeout=0, isolation_level=None, check_same_thread=False
        )
        try:
            connection.create_function("day_of", 1, day_of, deterministic=True)
            if self._path:
                _patiently(lambda: connection.execute("PRAGMA journal_mode=WAL"))
                connection.execute("PRAGMA synchronous=NORMAL")
                if self._alive is None:
                    self._alive = self._stay_alive()
        except BaseException:
            connection.close()
            raise
        self._connection = connection
        return connection

    def _trouble(self, error: sqlite3.Error) -> Exception:
        code = getattr(error, "sqlite_errorcode", 0) & 0xFF
        if code in (sqlite3.SQLITE_NOTADB, sqlite3.SQLITE_CORRUPT):
            return AccountError(f"{self._path} is no account: {error}")
        if code == sqlite3.SQLITE_CANTOPEN and not os.path.isdir(os.path.dirname(self._path)):
            return AccountError(f"the account {self._path} cannot be made: there is no such folder")
        if code in (sqlite3.SQLITE_CANTOPEN, sqlite3.SQLITE_READONLY, sqlite3.SQLITE_PERM):
            return AccountError(f"the account {self._path} cannot be written: {error}")
        if code == sqlite3.SQLITE_FULL:
            return AccountSilent(f"the disk of the account {self._path} is full")
        return AccountSilent(f"the account {self._path} does not answer: {error}")

    # Who is alive: a file for each process, locked by it.

    def _alive_path(self, process: str) -> str:
        return f"{self._path}-{process}.alive"

    def _stay_alive(self) -> int:
        for path in glob.glob(glob.escape(self._path) + "-*.alive"):
            _is_dead(path)
        while True:
            path = self._alive_path(self.process)
            file = os.open(path, os.O_CREAT | os.O_RDWR, 0o666)
            fcntl.flock(file, fcntl.LOCK_EX)
            # Whoever tidies up may have come between the two.
            if os.path.exists(path) and os.path.samestat(os.stat(path), os.fstat(file)):
                return file
            os.close(file)

    def _end_the_dead(self) -> bool:
        """End the open calls of processes that are dead; whether there were any."""
        if not self._path:
            return False
        processes = {process for (process,) in self._ask("processes", {})} - {self.process}
        dead = [process for process in processes if _is_dead(self._alive_path(process))]
        self._ask("end", *({"process": process} for process in dead))
        return bool(dead)


Run = Callable[..., list[Any]]


def _begin(connection: sqlite3.Connection, until: float) -> None:
    _patiently(lambda: connection.execute("BEGIN IMMEDIATE"), until)


def _patiently(step: Callable[[], object], until: float | None = None) -> None:
    if until is None:
        until = time.monotonic() + LIMIT_S
    while True:
        try:
            step()
            return
        except sqlite3.OperationalError as error:
            busy = error.sqlite_errorcode & 0xFF in (sqlite3.SQLITE_BUSY, sqlite3.SQLITE_LOCKED)
            if not busy or time.monotonic() >= until:
                raise
        time.sleep(random.uniform(0.2, 1.8) * _RETRY_S)


def _is_dead(path: str) -> bool:
    """Whether nobody holds the lock of a process's file; such a file is removed."""
    try:
        file = os.open(path, os.O_RDWR)
    except FileNotFoundError:
        return True
    try:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        os.unlink(path)
        return True
    except BlockingIOError:
        return False
    finally:
        os.close(file)


def _file_system(path: str) -> str:
    """The kind of file system that a file is on, where the kernel tells."""
    try:
        with open("/proc/self/mountinfo", encoding="utf-8", errors="replace") as mounts:
            lines = [line.split(" - ") for line in mounts]
    except OSError:
        return ""
    kinds = {about.split()[4]: rest.split()[0] for about, rest in lines}
    folder = os.path.realpath(os.path.dirname(path))
    while folder not in kinds and folder != "/":
        folder = os.path.dirname(folder)
    return kinds.get(folder, "")
