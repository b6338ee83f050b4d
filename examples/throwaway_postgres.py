"""A throw-away PostgreSQL on loopback, for the demo and the tests.

It runs the binaries of Debian's package, as the package's user where root starts it (the server
refuses root), on a port and with a password of its own. It ends with its `with` block, or with the
process that started it if that is killed.
"""

from __future__ import annotations

import os
import pwd
import random
import secrets
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from contextlib import ExitStack
from pathlib import Path
from typing import Any, Self

import psycopg
from psycopg import sql

_INSTALLED = Path("/usr/lib/postgresql")
_PATIENCE_S = 30.0
# Ends the server when this process does: the pipe that is its standard input is closed then.
_WATCH = 'postgres=$1; shift; "$postgres" "$@" </dev/null & read -r _; kill -INT $!; wait $!'


class ServerError(Exception):
    """The server cannot be installed, started or stopped; one line says why."""


class Server:
    """A PostgreSQL whose data live under `directory` while its `with` block runs.

    with Server(Path("build")) as server:
        psycopg.connect(server.url)
        server.stop()   # connections end, as with a service that is restarted
        server.start()  # the same data, port and password
    """

    def __init__(
        self, directory: Path, *, durable: bool = False, primary: Server | None = None
    ) -> None:
        """Choose the binaries and a port.

        Args:
            durable: Whether the disk is waited for, as a service must: its data outlive the
                machine's crash, not only the server's.
            primary: The running server that this one is to be the synchronous standby of: what was
                committed there is here, and `SELECT pg_promote()` makes it take over. From now on
                a commit there waits for it.
        """
        self._directory = directory
        self._fsync = "on" if durable else "off"
        self._primary = primary
        self._bin = _newest_binaries()
        self._port = _free_port()
        self._password: str = primary._password if primary else secrets.token_hex(8)
        self._process: subprocess.Popen[bytes] | None = None
        self._open = ExitStack()

    @property
    def url(self) -> str:
        """The address of the database that every new server has."""
        return self.address("postgres")

    def new_database(self, name: str) -> str:
        """Make an empty database, and give its address."""
        with psycopg.connect(self.url, autocommit=True) as connection:
            connection.execute(sql.SQL("CREATE DATABASE {}").format(sql.Identifier(name)))
        return self.address(name)

    def __enter__(self) -> Self:
        with ExitStack() as undo:
            self._make_data(undo)
            self.start()
            if self._primary:
                with psycopg.connect(self._primary.url, autocommit=True) as connection:
                    connection.execute("ALTER SYSTEM SET synchronous_standby_names = '*'")
                    connection.execute("SELECT pg_reload_conf()")
            self._open = undo.pop_all()
        return self

    def __exit__(self, *_exc: object) -> None:
        with self._open:
            self.stop()

    def start(self) -> None:
        """Start the server on the data that it had, and wait until it answers."""
        server = [self._bin / "postgres", "-D", self._data, f"--port={self._port}"]
        server.append(f"--fsync={self._fsync}")
        options = "--listen_addresses=127.0.0.1 --unix_socket_directories= --timezone=UTC"
        self._process = self._run(
            ["sh", "-c", _WATCH, "sh", *server, *options.split()], stdin=subprocess.PIPE
        )
        until = time.monotonic() + _PATIENCE_S
        while True:
            try:
                return psycopg.connect(self.url, connect_timeout=5).close()
            except psycopg.OperationalError:
                if self._process.poll() is not None or time.monotonic() > until:
                    self.stop()
                    raise ServerError(f"PostgreSQL does not start: {self._last_word()}") from None
                time.sleep(0.02)

    def stop(self) -> None:
        """Stop the server as a restart of the service does: what was committed is kept, every
        connection ends. A server that is stopped already stays so."""
        process, self._process = self._process, None
        if process is None:
            return
        try:
            process.communicate(timeout=_PATIENCE_S)
        except subprocess.TimeoutExpired:
            self._kill(process)

    def crash(self) -> None:
        """End the server as a machine's end does: at once, and without a word to anybody."""
        process, self._process = self._process, None
        if process is not None:
            self._kill(process)

    def address(self, database: str, *standbys: Server) -> str:
        """The address of a database, on whichever of the servers can be written to."""
        hosts = ",".join(f"127.0.0.1:{server._port}" for server in (self, *standbys))
        return f"postgresql://owner:{self._password}@{hosts}/{database}"

    def _kill(self, process: subprocess.Popen[bytes]) -> None:
        os.killpg(process.pid, signal.SIGKILL)
        process.communicate()

    def _make_data(self, undo: ExitStack) -> None:
        self._directory.mkdir(parents=True, exist_ok=True)
        folder = Path(tempfile.mkdtemp(prefix="postgres-", dir=self._directory))
        undo.callback(shutil.rmtree, folder, ignore_errors=True)
        self._log = undo.enter_context((folder / "log").open("w+b"))
        self._owner = _unprivileged_user()
        data, password = folder / "data", folder / "password"
        data.mkdir(0o700)
        password.write_text(self._password)
        if self._owner:
            for path in (folder, data, password):
                shutil.chown(path, self._owner)
        # The folders above may be closed to the server's user, so it is handed this one open.
        self._folder = os.open(folder, os.O_RDONLY)
        undo.callback(os.close, self._folder)
        reachable = f"/proc/self/fd/{self._folder}"
        self._data = f"{reachable}/data"
        if self._primary:
            name, about = "pg_basebackup", f"--dbname={self._primary.url}"
            options = "--write-recovery-conf --checkpoint=fast --no-sync"
        else:
            name, about = "initdb", f"--pwfile={reachable}/password"
            options = "--username=owner --auth=scram-sha-256 --encoding=UTF8 --locale=C --no-sync"
        command = [self._bin / name, "-D", self._data, about, *options.split()]
        if self._run(command).wait(_PATIENCE_S) != 0:
            raise ServerError(f"{name} fails: {self._last_word()}")

    def _run(self, command: list[Any], stdin: int = subprocess.DEVNULL) -> subprocess.Popen[bytes]:
        """Run a program of the server's as its user, away from the terminal's Ctrl-C."""
        return subprocess.Popen(
            command,
            stdin=stdin,
            stdout=self._log,
            stderr=subprocess.STDOUT,
            cwd="/",
            user=self._owner,
            group=self._owner,
            extra_groups=[] if self._owner else None,
            pass_fds=[self._folder],
            start_new_session=True,
        )

    def _last_word(self) -> str:
        self._log.seek(0)
        lines = self._log.read().decode(errors="replace").strip().splitlines()
        return lines[-1] if lines else "it says nothing"


def _newest_binaries() -> Path:
    servers = _INSTALLED.glob("*/bin/postgres")
    newest = max(servers, key=lambda path: float(path.parts[-3]), default=None)
    if newest is None:
        raise ServerError("PostgreSQL is not installed (Debian's package is postgresql)")
    return newest.parent


def _unprivileged_user() -> str | None:
    """Whom the server runs as: the user of Debian's package in place of root, who may not."""
    if os.geteuid() != 0:
        return None
    try:
        return pwd.getpwnam("postgres").pw_name
    except KeyError:
        raise ServerError(
            "PostgreSQL refuses to run as root, and no user postgres is there"
        ) from None


def _free_port() -> int:
    """A port that is free, and below those that outgoing connections take: while the server is
    stopped none of them can get it."""
    for port in random.sample(range(20_000, 30_000), 100):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) != 0:
                return port
    raise ServerError("no port is free on 127.0.0.1")
