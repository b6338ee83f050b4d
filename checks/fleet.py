"""Two passes share one cap while workers are killed and put to sleep and the server restarts."""

import os
import signal
import tempfile
import threading
from collections import Counter
from collections.abc import Sequence
from pathlib import Path

from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.passes import End
from fleet.account import MICRO, Books, books
from fleet.cluster import FleetPass, Progress, local
from fleet.member import Settings
from fleet.postgres import Server
from fleet_support import balanced, new_account

from support import Task

WORKERS, THREADS, TEXTS, CAP, TERM = 4, 8, 600, 1.2, 1.0


class Trouble:
    """Kills a process, puts one to sleep past its lease, restarts the server, and so on: the next
    each time that some more calls were paid."""

    def __init__(self, server: Server) -> None:
        self._server = server
        self._lock = threading.Lock()
        self._calls = 0
        self._hit: set[int] = set()
        self.done = Counter[str]()

    def show(self, now: Progress) -> None:
        with self._lock:
            calls = sum(book.calls for book in now.books)
            if calls > self._calls + 40 and self.done.total() < 6:
                self._calls = calls
                (self._kill, self._restart, self._sleep)[self.done.total() % 3](now.books)

    def _busy(self, found: Sequence[Books]) -> int:
        """The process that has done most, of those that nothing happened to yet."""
        calls = {int(book.owner.rsplit("-", 1)[1]): book.calls for book in found}
        process = max(calls.keys() - self._hit, key=lambda process: calls[process])
        self._hit.add(process)
        return process

    def _kill(self, found: Sequence[Books]) -> None:
        os.kill(self._busy(found), signal.SIGKILL)
        self.done["killed"] += 1

    def _sleep(self, found: Sequence[Books]) -> None:
        process = self._busy(found)
        os.kill(process, signal.SIGSTOP)
        threading.Timer(3 * TERM, os.kill, (process, signal.SIGCONT)).start()
        self.done["put to sleep"] += 1

    def _restart(self, _: Sequence[Books]) -> None:
        self._server.stop()
        self._server.start()
        self.done["server restarts"] += 1


def check() -> str:
    texts = [f"a fee was paid twice for berth {number}" for number in range(TEXTS)]
    behaviour = Behaviour(latency=0.1, failures=0.05, stalls=0.0, seed=1)
    with (
        tempfile.TemporaryDirectory() as folder,
        Server(Path(folder)) as server,
        EmbeddedEndpoint(behaviour) as endpoint,
        local(WORKERS, THREADS, Path(folder)) as client,
    ):
        url, trouble = new_account(server), Trouble(server)

        def run() -> list[End]:
            settings = Settings(url, endpoint.url, cap=CAP, slice=0.05, threads=THREADS, term=TERM)
            fleet = FleetPass(client, settings, max_calls=10**6, max_tokens=10**9)
            outcomes = fleet.run(texts, threading.Event(), trouble.show)
            return [outcome.end for outcome in outcomes]

        passes = [Task(run) for _ in range(2)]
        for task in passes:
            task.join(120)
        ends = Counter(end for task in passes for end in task.result())
        found = books(url)
        assert balanced(url)
    paid, billed = sum(book.paid for book in found), round(endpoint.billed * MICRO)
    dearest = max(book.dearest for book in found)
    in_flight = THREADS * dearest
    assert len(trouble.done) == 3, trouble.done
    assert set(ends) == {End.ANSWERED, End.CAP_REACHED}, ends
    assert ends.total() == 2 * TEXTS
    assert paid >= 0.99 * MICRO * CAP, paid
    over, allowed = paid - round(CAP * MICRO), len(found) * dearest
    assert over <= allowed + trouble.done["put to sleep"] * in_flight, (over, allowed)
    assert 0 <= billed - paid <= trouble.done["killed"] * in_flight, (billed, paid)
    happened = ", ".join(f"{times} {what}" for what, times in sorted(trouble.done.items()))
    return (
        f"${paid / MICRO:.4f} of ${CAP:.2f} paid by {len(found)} processes, at most"
        f" ${(CAP * MICRO + float(allowed)) / MICRO:.4f}; {happened}"
    )
