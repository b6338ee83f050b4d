"""Four fleets spend one cap while their processes are killed and put to sleep, midnight comes, the
server cuts them off, restarts and fails over, and their clocks are off: what they paid, by the
endpoint's bill.
"""

import itertools
import multiprocessing
import os
import random
import signal
import tempfile
import time
from collections import Counter
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from functools import partial
from multiprocessing.process import BaseProcess
from pathlib import Path

import psycopg
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.passes import End
from decision_client.wire import Request
from fleet.member import Settings, decide
from throwaway_postgres import Server

from korvane.engines.decision_account import SharedSpend, sqlite, stores
from support import until

FLEETS, THREADS, CAP = 4, 8, 0.6
PATIENCE_S = 2.0  # with a call: what sleeps longer is lost
AN_HOUR, A_DAY = 3600.0, 86400.0
CLOCK = """
CREATE OR REPLACE FUNCTION decision_account.clock() RETURNS double precision LANGUAGE sql VOLATILE
AS $$ SELECT extract(epoch FROM clock_timestamp())::double precision + {} $$
"""
CUT_OFF = """
SELECT pg_terminate_backend(pid) FROM pg_stat_activity
WHERE backend_type = 'client backend' AND pid <> pg_backend_pid()
"""

# Their processes are forked from one that has imported all this and has no threads.
processes = multiprocessing.get_context("forkserver")
processes.set_forkserver_preload([__name__])


def use_clock(shift: float, midnight: Path) -> None:
    """The clock of an account in SQLite is its machine's: this one passes midnight on demand."""
    real = time.time

    def clock() -> float:
        return real() + shift + (AN_HOUR if midnight.exists() else 0)

    stores.SqliteStore = partial(sqlite.SqliteStore, clock=clock)  # type: ignore[assignment,misc]


def be_off() -> None:
    """What a process takes for the time: an account in PostgreSQL does not ask it."""
    real, off = time.time, random.uniform(-900, 900)
    time.time = lambda: real() + off


def work(settings: Settings, life: int, clock: Callable[[], None]) -> None:
    """A process of a fleet, whose threads ask until the cap is reached."""
    clock()
    texts = itertools.count()

    def ask() -> None:
        end = End.ANSWERED
        while end is not End.CAP_REACHED:
            # As many bytes each: no call is dearer than the first.
            request = Request("paragraph", f"{life:03} berth {next(texts):05} leaks")
            end = decide(request, settings)[0].end

    with ThreadPoolExecutor(THREADS) as threads:
        for end in [threads.submit(ask) for _ in range(THREADS)]:
            end.result()


class Storm:
    """Fleets of one process each, and what happens to them."""

    def __init__(
        self, url: str, endpoint: EmbeddedEndpoint, patience: float, clock: Callable[[], None]
    ) -> None:
        clock()
        self.spend = SharedSpend(url, CAP, name="storm")
        self._endpoint = endpoint
        self._clock = clock
        self._fleets = [
            Settings(url, endpoint.url, CAP, patience=patience, timeout=1.0) for _ in range(FLEETS)
        ]
        self._lives = itertools.count()
        self._crew: list[BaseProcess] = []
        self._man(FLEETS)

    def at(self, share: float, trouble: Callable[[], object]) -> None:
        """Bring a trouble once so much of the cap is billed."""
        until(lambda: self._endpoint.billed >= share * CAP)
        trouble()

    def kill(self, count: int) -> None:
        dying = self._crew[:count]
        for process in dying:
            process.kill()
        for process in dying:
            process.join()
        self._man(FLEETS)

    def put_to_sleep(self) -> None:
        """One sleeps until what it had in flight is lost."""
        asleep = self._crew[-1].pid
        assert asleep is not None
        os.kill(asleep, signal.SIGSTOP)
        time.sleep(1.5 * PATIENCE_S)
        os.kill(asleep, signal.SIGCONT)

    def end(self, days: int) -> str:
        """Wait until all is spent; what was paid."""
        self._join()
        self._man(1)  # of what late settlements gave back
        self._join()
        books, figures = self.spend.books(days=2), self.spend.figures()
        self.spend.close()
        paid = Counter[str]()
        for book in books:
            paid[book.day] += book.paid
        lost, dearest = sum(book.lost for book in books), max(book.dearest for book in books)
        billed, counted = self._endpoint.billed, paid.total()
        assert figures.in_flight == figures.held == sum(book.beyond for book in books) == 0, books
        assert len(paid) == days, paid
        assert all(usd < CAP + dearest + 1e-9 for usd in paid.values()), (paid, dearest)
        assert figures.paid >= CAP - 1e-9, figures
        assert counted - lost - 1e-9 <= billed <= counted + 1e-9, (billed, lost, paid)
        return f"${billed:.4f} billed and ${counted:.4f} counted of ${days * CAP:.2f}"

    def _man(self, size: int) -> None:
        """Start processes until there are so many."""
        self._crew = [process for process in self._crew if process.is_alive()]
        while len(self._crew) < size:
            life = next(self._lives)
            about = self._fleets[life % FLEETS], life, self._clock
            self._crew.append(processes.Process(target=work, args=about, daemon=True))
            self._crew[-1].start()

    def _join(self) -> None:
        for process in self._crew:
            process.join()
            assert process.exitcode == 0, process


def on_sqlite(endpoint: EmbeddedEndpoint, folder: Path) -> str:
    midnight = folder / "midnight"
    clock = partial(use_clock, A_DAY - time.time() % A_DAY - AN_HOUR, midnight)
    storm = Storm(f"sqlite:///{folder}/spend.db", endpoint, PATIENCE_S, clock)
    storm.at(0.1, partial(storm.kill, 1))
    storm.at(0.2, storm.put_to_sleep)
    storm.at(0.4, partial(storm.kill, 3))
    storm.at(0.6, midnight.touch)
    storm.at(1.0, partial(storm.kill, FLEETS))
    return storm.end(days=2)


def on_postgresql(endpoint: EmbeddedEndpoint, folder: Path) -> str:
    with Server(folder) as server, Server(folder, primary=server) as standby:
        url = server.address("postgres", standby) + "?target_session_attrs=read-write"

        def run(statement: str, url: str = url) -> None:
            with psycopg.connect(url, autocommit=True) as connection:
                connection.execute(statement)

        def restart() -> None:
            server.stop()
            server.start()

        def fail_over() -> None:
            """Between the two nobody is admitted: what is billed is what was in flight."""
            server.crash()
            before = endpoint.billed
            time.sleep(PATIENCE_S)
            assert endpoint.billed - before < FLEETS * THREADS * 0.002, "nobody waited"
            run("SELECT pg_promote()", standby.url)

        SharedSpend(url, CAP).close()
        shift = A_DAY - time.time() % A_DAY - AN_HOUR
        run(CLOCK.format(shift))
        storm = Storm(url, endpoint, PATIENCE_S, be_off)
        storm.at(0.1, partial(storm.kill, 1))
        storm.at(0.2, partial(run, CUT_OFF))
        storm.at(0.3, storm.put_to_sleep)
        storm.at(0.4, restart)
        storm.at(0.5, partial(storm.kill, 3))
        storm.at(0.6, partial(run, CLOCK.format(shift + AN_HOUR)))
        storm.at(0.8, partial(storm.kill, FLEETS))
        storm.at(1.0, fail_over)
        storm.at(1.1, partial(run, CUT_OFF))
        return storm.end(days=2)


def check() -> str:
    figures = []
    for name, run in (("SQLite", on_sqlite), ("PostgreSQL", on_postgresql)):
        behaviour = Behaviour(latency=0.02, failures=0.05, stalls=0.01, seed=1)
        with tempfile.TemporaryDirectory() as folder, EmbeddedEndpoint(behaviour) as endpoint:
            figures.append(f"{name}: {run(endpoint, Path(folder))}")
    return "; ".join(figures)
