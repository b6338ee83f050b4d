"""Admissions a second of many threads that share one bound with room for two calls at a time."""

from __future__ import annotations

import os
import random
import threading
import time
from collections.abc import Callable
from contextlib import AbstractContextManager

from cases import MODULE, TWIN, Reply, load

THREADS = (1, 2, 4, 8, 16, 32, 64)
QUICK_THREADS = (2, 8, 64)
ROOM = 2
SHARE = 100.0

Call = Callable[[], None]
Loop = Callable[[list[None], Call], int]


def _at_once() -> None:
    """The call takes no time: what is left is the admission itself."""


def _sends() -> Call:
    """The call lets other threads run while its share is held, as one that sends a request does."""
    sink = os.open(os.devnull, os.O_WRONLY)

    def send() -> None:
        os.write(sink, b"request")

    return send


def _bounded(name: str) -> Loop:
    module = load(name)
    budget = module.RunBudget(10**15, ROOM * SHARE)
    # A reply without tokens leaves the room as it is.
    reply = Reply(input_tokens=0)

    def loop(running: list[None], call: Call) -> int:
        count = 0
        while running:
            with budget.hold(SHARE) as share:
                call()
                share.settle(reply)
            count += 1
        return count

    return loop


def _guarded(guard: AbstractContextManager[object]) -> Loop:
    def loop(running: list[None], call: Call) -> int:
        count = 0
        while running:
            with guard:
                call()
            count += 1
        return count

    return loop


def _rate(loop: Loop, call: Call, threads: int, seconds: float) -> float:
    running: list[None] = [None]
    counts: list[int] = []
    start = threading.Barrier(threads + 1)

    def work() -> None:
        start.wait()
        counts.append(loop(running, call))

    workers = [threading.Thread(target=work) for _ in range(threads)]
    for worker in workers:
        worker.start()
    start.wait()
    began = time.perf_counter()
    time.sleep(seconds)
    running.clear()
    for worker in workers:
        worker.join()
    return sum(counts) / (time.perf_counter() - began)


def measure(rounds: int, threads: tuple[int, ...], seconds: float) -> dict[str, list[float]]:
    """Admissions a second, keyed by the kind of call, the number of threads and the subject."""
    loops = {
        "module": _bounded(MODULE),
        "twin": _bounded(TWIN),
        "semaphore": _guarded(threading.BoundedSemaphore(ROOM)),
    }
    calls = {"at once": _at_once, "sends": _sends()}
    runs = [(kind, count, subject) for kind in calls for count in threads for subject in loops]
    values: dict[str, list[float]] = {f"{kind}/{n}/{subject}": [] for kind, n, subject in runs}
    for _ in range(rounds):
        random.shuffle(runs)
        for kind, count, subject in runs:
            rate = _rate(loops[subject], calls[kind], count, seconds)
            values[f"{kind}/{count}/{subject}"].append(rate)
    return values
