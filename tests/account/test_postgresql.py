"""What only an account in PostgreSQL meets: servers that hang, stop or move, roles, a pooler."""

from __future__ import annotations

import contextlib
import os
import signal
import socket
import subprocess
import threading
from collections.abc import Callable, Iterator
from functools import partial
from pathlib import Path
from typing import Any

import pytest

from support import SOON, Task, together

pytest.importorskip("psycopg", reason="PostgreSQL's library is not installed")
import psycopg
import throwaway_postgres

from korvane.engines.decision_account import AccountError, AccountSilent, postgresql
from korvane.engines.decision_account.postgresql import PostgresStore
from korvane.engines.decision_account.records import NANO, Ending, Opening, State
from korvane.engines.decision_account.stores import store_at

CALL = Opening("a", 5, 5, "n", "f", 600)
OTHER = Opening("b", 5, 5, "n", "f", 600)
PAID = Ending("a", State.PAID, 3, "n", "f")


@pytest.fixture
def store(url: str) -> Iterator[PostgresStore]:
    store = PostgresStore(url)
    store.open(NANO)
    with contextlib.closing(store):
        yield store


@pytest.fixture
def sql(url: str) -> Iterator[Callable[[str], Any]]:
    with contextlib.ExitStack() as stack:

        def run(text: str) -> Any:
            connection = stack.enter_context(psycopg.connect(url, autocommit=True))
            return connection.execute("SET search_path = decision_account").connection.execute(text)

        yield run


def in_the_end(request: Callable[[], Any]) -> Any:
    """What a request comes to, for whom the store may be silent for a while."""
    while True:
        with contextlib.suppress(AccountSilent):
            return request()


def postmaster(postgres: Any) -> int:
    with psycopg.connect(postgres.url) as connection:
        (text,) = connection.execute("SELECT pg_read_file('postmaster.pid')").fetchone()
    return int(text.split()[0])


@contextlib.contextmanager
def hanging(postgres: Any) -> Iterator[None]:
    """The server with all its processes is stopped, as a frozen machine is."""
    first = postmaster(postgres)
    children = Path(f"/proc/{first}/task/{first}/children").read_text().split()

    def signal_all(number: int) -> None:
        for process in (first, *map(int, children)):
            with contextlib.suppress(ProcessLookupError):
                os.kill(process, number)

    signal_all(signal.SIGSTOP)
    try:
        yield
    finally:
        signal_all(signal.SIGCONT)


def test_a_server_that_hangs(
    postgres: Any, url: str, store: PostgresStore, monkeypatch: pytest.MonkeyPatch
) -> None:
    """It is given up, on a connection that is there and on a new one, and so is Ctrl-C's wait."""
    monkeypatch.setattr(postgresql, "LIMIT_S", 0.1)
    new = PostgresStore(url)
    requests = [lambda: store.admit(CALL), lambda: new.look(), lambda: new.open(NANO)]
    with hanging(postgres):
        for request in requests:
            with pytest.raises(AccountSilent, match="says nothing"):
                request()
        monkeypatch.setattr(postgresql, "LIMIT_S", 1000.0)
        main = threading.get_ident()
        interrupt = threading.Timer(0.2, signal.pthread_kill, [main, signal.SIGINT])
        interrupt.start()
        with pytest.raises(KeyboardInterrupt):
            store.look()
        interrupt.join()
    monkeypatch.setattr(postgresql, "LIMIT_S", SOON)
    # Every turn came back, and the request that nobody heard of is carried out once.
    for _ in range(store.lanes + 1):
        assert in_the_end(lambda: store.admit(CALL)).state is State.OPEN
    assert store.look().holders == 1
    new.close()


def test_a_server_that_comes_and_goes(
    postgres: Any, url: str, store: PostgresStore, sql: Callable[[str], Any]
) -> None:
    any_server = PostgresStore(url + "?target_session_attrs=any")
    # A connection that was ended while nobody used it is nobody's trouble.
    store.admit(CALL)
    sql("SELECT pg_terminate_backend(pid, 5000) FROM pg_stat_activity"
        " WHERE datname = 'paid' AND pid <> pg_backend_pid()")  # fmt: skip
    store.admit(CALL)
    # One that is ended under a request is silence. The request was waiting for its turn.
    with psycopg.connect(url) as holder:
        holder.execute("SELECT FROM decision_account.account FOR UPDATE")
        waiting = Task(store.settle, [PAID])
        while not sql(
            "SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE wait_event_type = 'Lock'"
        ).fetchall():
            pass
        with pytest.raises(AccountSilent):
            waiting.result()
    # The read-only moment of a failover: of new connections, and of those that are there.
    sql("ALTER DATABASE paid SET default_transaction_read_only = on")
    sql("SELECT pg_terminate_backend(pid) FROM pg_stat_activity WHERE pid <> pg_backend_pid()")
    for _ in range(store.lanes + 1):
        with pytest.raises(AccountSilent, match="session is read-only"):
            store.settle([PAID])
        with pytest.raises(AccountSilent, match="in a read-only transaction"):
            any_server.settle([PAID])
    # The server dies at once. What it answered is kept, though it wrote nothing by itself.
    with psycopg.connect(postgres.url, autocommit=True) as connection:
        connection.execute("ALTER DATABASE paid RESET ALL")
        connection.execute("ALTER SYSTEM SET wal_writer_delay = '10s'")
        connection.execute("SELECT pg_reload_conf()")
    in_the_end(lambda: store.admit(OTHER))
    os.kill(postmaster(postgres), signal.SIGQUIT)
    postgres.stop()
    with pytest.raises(AccountSilent):
        store.settle([PAID])
    postgres.start()
    with psycopg.connect(postgres.url, autocommit=True) as connection:
        connection.execute("ALTER SYSTEM RESET wal_writer_delay")
    in_the_end(lambda: store.settle([PAID]))
    assert (store.look().paid, any_server.look().holders) == (3, 1)
    any_server.close()


def test_several_servers(url: str, store: PostgresStore, monkeypatch: pytest.MonkeyPatch) -> None:
    """One that hangs keeps nobody from the next."""
    with socket.socket() as hung:
        hung.bind(("127.0.0.1", 0))
        hung.listen()
        monkeypatch.setattr(postgresql, "LIMIT_S", 0.5)
        before, host = url.split("@")
        with contextlib.closing(
            PostgresStore(f"{before}@127.0.0.1:{hung.getsockname()[1]},{host}")
        ) as two:
            assert in_the_end(two.look) == store.look()


def test_what_trying_again_does_not_mend(
    url: str, store: PostgresStore, sql: Callable[[str], Any]
) -> None:
    secret = url.split(":")[2].split("@")[0]
    sql("DROP ROLE IF EXISTS nobody")
    sql("CREATE ROLE nobody LOGIN PASSWORD 'none'")

    def refusal(url: str) -> str:
        with pytest.raises(AccountError) as raised:
            store_at(url).open(NANO)
        text = str(raised.value)
        assert secret not in text and "\n" not in text
        return text

    assert "does not exist" in refusal(url.replace("/paid", "/none"))
    assert "authentication failed" in refusal(url.replace("owner:", "no-one:"))
    assert "authentication failed" in refusal(url.replace(secret, "wrong"))
    assert "not the URL" in refusal(url.replace("owner:", "ow ner:[").replace("@", "@["))
    assert "permission denied" in refusal(url.replace(f"owner:{secret}", "nobody:none"))
    sql("UPDATE account SET version = 2")
    assert "newer version" in refusal(url)
    sql("DROP SCHEMA decision_account CASCADE")
    with pytest.raises(AccountError, match="cannot be used"):
        store.look()
    sql("CREATE SCHEMA decision_account")
    sql("CREATE TABLE theirs ()")
    assert "another program's" in refusal(url)
    sql("DROP SCHEMA decision_account CASCADE")
    assert "permission denied" in refusal(url.replace(f"owner:{secret}", "nobody:none"))


def test_many_open_it_at_once(url: str) -> None:
    stores = [PostgresStore(url) for _ in range(6)]
    assert len(set(together(6, lambda n: in_the_end(partial(stores[n].open, NANO + n))))) == 1
    for store in stores:
        store.close()


WORKER = """
CREATE ROLE worker LOGIN PASSWORD 'secret';
GRANT USAGE ON SCHEMA decision_account TO worker;
GRANT EXECUTE ON ROUTINE decision_account.account, decision_account.known, decision_account.look,
    decision_account.admit, decision_account.durable_admit,
    decision_account.settle, decision_account.durable_settle TO worker;
"""


def test_belts(url: str, store: PostgresStore, sql: Callable[[str], Any]) -> None:
    """A worker can do what the rules ask and no more; and what was paid stays, whoever asks."""
    with contextlib.suppress(psycopg.errors.UndefinedObject):
        sql("DROP OWNED BY worker; DROP ROLE worker")
    sql(WORKER)
    owner = url.split("//")[1].split("@")[0]
    worker = PostgresStore(url.replace(owner, "worker:secret"))
    assert worker.open(1) == NANO
    assert worker.admit(CALL).state is State.OPEN
    worker.settle([PAID])
    assert worker.look().paid == 3
    assert worker.known() == store.known()
    for forbidden in (lambda: worker.set_cap(0), lambda: worker.prune(-9), worker.table):
        with pytest.raises(AccountError, match="permission denied"):
            forbidden()
    store.admit(OTHER)
    forged = [
        *("UPDATE calls SET cost = 0", "UPDATE calls SET state = 2", "DELETE FROM calls"),
        *("DELETE FROM days", "DELETE FROM account", "TRUNCATE calls", "TRUNCATE days"),
    ]
    with psycopg.connect(url.replace(owner, "worker:secret"), autocommit=True) as connection:
        connection.execute("SET search_path = decision_account")
        for text in ["SELECT FROM calls", *forged]:
            with pytest.raises(psycopg.errors.InsufficientPrivilege):
                connection.execute(text)
    for text in forged:
        with pytest.raises(psycopg.errors.RaiseException, match="keeps what was paid"):
            sql(text)
    assert (store.look().paid, store.look().held) == (3, 5)
    worker.close()


PGBOUNCER = """
[databases]
paid = host=127.0.0.1 port={port} dbname=paid user=owner password={password}
[pgbouncer]
listen_addr = 127.0.0.1
listen_port = {listen}
unix_socket_dir =
auth_type = any
pool_mode = transaction
default_pool_size = 2
"""


def test_a_pooler_in_transaction_mode(url: str, store: PostgresStore, tmp_path: Path) -> None:
    """Two connections to the server serve eight of clients; each request finds what it needs."""
    try:
        subprocess.run(["pgbouncer", "--version"], check=True, capture_output=True)
    except FileNotFoundError:
        if os.environ.get("CI"):
            raise
        pytest.skip("PgBouncer is not installed (Debian's package is pgbouncer)")
    listen = throwaway_postgres._free_port()
    password, port = url.split(":")[2].split("@")[0], url.split(":")[3].split("/")[0]
    ini = tmp_path / "pgbouncer.ini"
    ini.write_text(PGBOUNCER.format(port=port, password=password, listen=listen))
    ini.chmod(0o644)
    user = "postgres" if os.geteuid() == 0 else None
    with ini.open() as file, subprocess.Popen(
        ["pgbouncer", "-q", f"/proc/self/fd/{file.fileno()}"],
        user=user,
        group=user,
        extra_groups=[] if user else None,
        cwd="/",
        pass_fds=[file.fileno()],
        stderr=subprocess.DEVNULL,
    ) as pooler:  # fmt: skip
        clients = [PostgresStore(f"postgresql://owner@127.0.0.1:{listen}/paid") for _ in range(2)]
        try:
            for client in clients:
                in_the_end(partial(client.open, NANO))

            def work(number: int) -> None:
                client = clients[number % 2]
                for call in range(10):
                    id = f"{number}-{call}"
                    begin = partial(client.admit, Opening(id, 5, 5, "n", "f", 600))
                    assert in_the_end(begin).state is State.OPEN
                    in_the_end(partial(client.settle, [Ending(id, State.PAID, 3, "n", "f")]))

            together(8, work)
            assert (store.look().paid, clients[0].look().holders) == (240, 0)
        finally:
            for client in clients:
                client.close()
            pooler.terminate()
