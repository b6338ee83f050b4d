"""The engine: Dask. A plugin makes each worker process a member; a pass maps texts over them.

The pass has limits of its own, split into parts, one for each process. Where a part is used up
while texts wait for it, all parts end and what is left is split anew: how much that is, the account
knows, which has every paid call of the pass.
"""

from __future__ import annotations

import asyncio
import logging
import math
import os
import signal
import threading
import time
from collections.abc import Callable, Iterable, Iterator, Sequence
from contextlib import contextmanager, suppress
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import dask
import distributed
from decision_client.passes import End, Outcome
from decision_client.wire import Request
from distributed import Worker, WorkerPlugin, get_worker

from fleet.account import AccountUnreachable, Books, books
from fleet.member import Member, Part, Settings, Status
from korvane.engines.decision_bounds import RequestRates

_LOOK_EVERY_S = 0.2
_FAILED = "error", "cancelled"

# Most of the engine's own functions have no types.
_dask: Any = distributed
type Client = Any
type Future = Any


class EngineError(Exception):
    """No scheduler, or no worker; one line says which."""


@contextmanager
def local(workers: int, threads: int, directory: Path) -> Iterator[Client]:
    """A scheduler and worker processes of this machine, for the length of the block."""
    # They inherit that it is ignored: Ctrl-C in the terminal is the coordinator's to handle.
    handler = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        cluster = _dask.LocalCluster(
            n_workers=workers,
            threads_per_worker=threads,
            host="127.0.0.1",
            dashboard_address="127.0.0.1:0",
            local_directory=str(directory),
            silence_logs=logging.ERROR,
        )
    finally:
        signal.signal(signal.SIGINT, handler)
    # What is asked of a worker that has just died must not hold the pass up for long.
    patience = dask.config.set({"distributed.comm.timeouts.connect": "5s"})
    with patience, cluster, _dask.Client(cluster) as client:
        yield client


@contextmanager
def existing(scheduler: str) -> Iterator[Client]:
    """A cluster that is there already, with this package on its workers' path."""
    try:
        client = _dask.Client(scheduler, timeout=10)
    except (OSError, ValueError) as error:
        raise EngineError(f"no scheduler answers at {scheduler}: {error}") from error
    with client:
        if not client.scheduler_info()["workers"]:
            raise EngineError(f"the scheduler at {scheduler} has no worker")
        yield client


class FleetPlugin(WorkerPlugin):
    """Makes a worker process a member of the fleet, for as long as it has the plugin."""

    member: Member

    def __init__(self, settings: Settings) -> None:
        self.name = f"fleet-{settings.fleet}"
        self._settings = settings

    def setup(self, worker: Worker) -> None:
        self.member = Member(self._settings, f"{worker.name}-{os.getpid()}")

    async def teardown(self, worker: Worker) -> None:
        await asyncio.to_thread(self.member.close)


@dataclass(frozen=True)
class Progress:
    """A pass at one moment."""

    total: int
    ended: int
    books: Sequence[Books]


class FleetPass:
    """One pass over many texts. Two passes may share a cluster, an account, or both."""

    def __init__(
        self, client: Client, settings: Settings, *, max_calls: int, max_tokens: int
    ) -> None:
        self._client = client
        self._settings = settings
        self._max_calls = max_calls
        self._max_tokens = max_tokens
        self._plugin = FleetPlugin(settings)

    def run(
        self, texts: Sequence[str], stop: threading.Event, show: Callable[[Progress], None]
    ) -> list[Outcome]:
        """The outcomes of the texts, in their order. Once `stop` is set no call begins."""
        try:
            self._client.register_plugin(self._plugin)
        except Exception as error:  # whatever the workers' interpreters make of it
            raise EngineError(f"the workers cannot join the fleet: {error}") from error
        outcomes: dict[int, Outcome] = {}

        def decide(indices: Sequence[int]) -> None:
            for ended in self._ends(texts, indices):
                outcomes.update(ended)
                if stop.is_set():
                    self._on_members(Member.stop)  # each time: a member may have come since
                with suppress(AccountUnreachable):  # the members wait for it as well
                    found = books(self._settings.account, self._settings.fleet)
                    show(Progress(len(texts), len(outcomes), found))
                    if any(status.dry for status in self._statuses().values()):
                        self._share_out()

        try:
            self._share_out()
            # The longest text goes first, alone: what it costs bounds the others from the start.
            order = sorted(range(len(texts)), key=lambda index: -len(texts[index]))
            decide(order[:1])
            with suppress(AccountUnreachable):  # whoever finds no room makes it be tried again
                self._share_out()
            decide(order[1:])
            return [outcomes[index] for index in range(len(texts))]
        finally:
            self._client.unregister_worker_plugin(self._plugin.name)

    def _ends(self, texts: Sequence[str], indices: Sequence[int]) -> Iterator[dict[int, Outcome]]:
        """How some of the texts ended since the last look, by their index, until all have.

        Answers are fetched as they come: one that is still where it was made is lost with its
        process, and paid again. Equal texts are tasks of their own, and so is a text that the
        engine runs again: what is paid twice is counted twice.
        """
        chosen = [texts[index] for index in indices]
        futures = self._client.map(_decide, chosen, plugin=self._plugin.name, pure=False)
        answers = _dask.as_completed(
            futures, loop=self._client.loop, with_results=True, raise_errors=False
        )
        running: dict[Future, int] = dict(zip(futures, indices, strict=True))
        del futures  # a worker keeps an answer for as long as somebody here may ask for it
        while running:
            time.sleep(_LOOK_EVERY_S)
            ended = {}
            for future, answer in answers.next_batch(block=False):
                if isinstance(answer, Outcome):
                    ended[running.pop(future)] = answer
            for future in [future for future in running if future.status in _FAILED]:
                index = running.pop(future)
                ended[index] = _failed(texts[index], future)
            yield ended

    def _share_out(self) -> None:
        """Split what is left of the pass's limits among the members, once their calls have ended.
        Where less is left than each could use, those come first whose calls wait."""
        statuses = self._statuses()
        rates = _learned(statuses.values())
        waiting = {worker for worker, status in statuses.items() if status.dry}
        members = sorted(
            self._on_members(Member.withdraw), key=lambda worker: worker not in waiting
        )
        found = books(self._settings.account, self._settings.fleet)
        calls = max(0, self._max_calls - sum(book.calls for book in found))
        tokens = max(0, self._max_tokens - sum(book.tokens for book in found))
        last = calls == 0 or tokens == 0
        for index, worker in enumerate(members):
            part = Part(_split(calls, members, index), _split(tokens, members, index), rates, last)
            self._on_members(Member.begin, part, workers=[worker])

    def _statuses(self) -> dict[str, Status]:
        return self._on_members(Member.status)

    def _on_members(self, call: Callable[..., Any], *args: Any, **kwargs: Any) -> dict[str, Any]:
        """What `call` returns on each member; one that has just died is left out."""
        answers: dict[str, Any] = self._client.run(
            _on_member, self._plugin.name, call, *args, on_error="ignore", **kwargs
        )
        return answers


async def _on_member(plugin: str, call: Callable[..., Any], *args: Any, dask_worker: Worker) -> Any:
    # In a thread: what blocks here would block the worker's own traffic.
    return await asyncio.to_thread(call, _member(dask_worker, plugin), *args)


def _decide(text: str, plugin: str) -> Outcome:
    return _member(get_worker(), plugin).decide(text)


def _member(worker: Worker, plugin: str) -> Member:
    found = worker.plugins[plugin]
    assert isinstance(found, FleetPlugin)
    return found.member


def _split(whole: int, members: Sequence[str], index: int) -> int:
    share, rest = divmod(whole, len(members))
    return share + (index < rest)


def _learned(statuses: Iterable[Status]) -> RequestRates:
    """What a process that has had a reply knows of the requests' cost."""
    known = (status.rates for status in statuses if math.isfinite(status.rates.tokens(1)))
    return next(known, RequestRates())


def _failed(text: str, future: Future) -> Outcome:
    message = str(future.exception()) if future.status == "error" else "the engine cancelled it"
    return Outcome(Request("paragraph", text), End.FAILED, message=message)
