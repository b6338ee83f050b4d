"""Admissions a second of many threads: that share one bound, or that have one for each core."""

from __future__ import annotations

import os
import random
import threading
import time
from collections.abc import Callable
from functools import partial
from typing import Any

from cases import BOUNDLESS, SUBJECTS, Reply, load

THREADS = (1, 2, 4, 8, 16, 32, 64)
QUICK_THREADS = (2, 8, 64)
CORES = len(os.sched_getaffinity(0))
ROOM = 2
SHARE = 100.0

CALLS = {"at once": "no time", "sends": "one system call"}

Call = Callable[[], None]
Make = Callable[[], Any]


def _at_once() -> None:
    """The call takes no time: what is left is the admission itself."""


def _sends() -> Call:
    """The call lets other threads run while its share is held, as one that sends a request does."""
    sink = os.open(os.devnull, os.O_WRONLY)

    def send() -> None:
        os.write(sink, b"request")

    return send


def _loop(budget: Any, running: list[None], call: Call) -> int:
    # Numbers of its own, as those that a client reads from a reply. One without tokens leaves the
    # room as it is.
    amount = SHARE * 1.0
    reply = Reply(input_tokens=0, cost=amount / BOUNDLESS)
    count = 0
    while running:
        with budget.hold(amount) as share:
            call()
            share.settle(reply)
        count += 1
    return count


def _rate(budgets: list[Make], call: Call, seconds: float) -> float:
    """Admissions a second of a thread for each budget."""
    # One for each: a flag that all look at would itself be what they contend for.
    running: list[list[None]] = [[None] for _ in budgets]
    counts: list[int] = []
    start = threading.Barrier(len(budgets) + 1)

    def work(make: Make, running: list[None]) -> None:
        budget = make()
        start.wait()
        counts.append(_loop(budget, running, call))

    pairs = zip(budgets, running, strict=True)
    workers = [threading.Thread(target=work, args=pair) for pair in pairs]
    for worker in workers:
        worker.start()
    start.wait()
    began = time.perf_counter()
    time.sleep(seconds)
    for each in running:
        each.clear()
    for worker in workers:
        worker.join()
    return sum(counts) / (time.perf_counter() - began)


def measure(quick: bool) -> dict[str, list[float]]:
    """Admissions a second, keyed by the kind of call, the number of threads and the subject."""
    budgets = {name: load(name).RunBudget(BOUNDLESS, ROOM * SHARE) for name in SUBJECTS}
    calls = {"at once": _at_once, "sends": _sends()}
    threads = QUICK_THREADS if quick else THREADS
    runs = [(kind, count, subject) for kind in calls for count in threads for subject in budgets]
    values: dict[str, list[float]] = {f"{kind}/{n}/{subject}": [] for kind, n, subject in runs}
    for _ in range(2 if quick else 3):
        random.shuffle(runs)
        for kind, count, subject in runs:
            shared = [partial(budgets.__getitem__, subject)] * count
            rate = _rate(shared, calls[kind], 0.1 if quick else 0.25)
            values[f"{kind}/{count}/{subject}"].append(rate)
    return values


def measure_cores(quick: bool) -> dict[str, list[float]]:
    """The same with a budget for each thread, which without a global lock may run at once."""
    runs = [(count, subject) for count in (1, CORES) for subject in SUBJECTS]
    values: dict[str, list[float]] = {f"own/{count}/{subject}": [] for count, subject in runs}
    for _ in range(3 if quick else 12):
        random.shuffle(runs)
        for count, subject in runs:
            own = [partial(load(subject).RunBudget, BOUNDLESS, BOUNDLESS)] * count
            values[f"own/{count}/{subject}"].append(_rate(own, _at_once, 0.25))
    return values
