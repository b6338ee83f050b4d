"""What waiting costs: give-backs that make no room, threads that only wait, and the way back."""

from __future__ import annotations

import threading
import time
from collections import defaultdict
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager, suppress
from statistics import median
from typing import Any

from cases import BOUNDLESS, SUBJECTS, load

WAITERS = 200
CROWD = 5000


@contextmanager
def _crowd(module: Any, stop: Callable[[], bool], spare: int) -> Iterator[list[Any]]:
    """`WAITERS` threads without room, and `spare` shares whose give-back makes none."""
    budget = module.RunBudget(BOUNDLESS, 1, should_stop=stop)
    shares = [budget.hold(0.0) for _ in range(spare)]
    blocker = budget.hold(10.0)
    threads = [threading.Thread(target=budget.reserve) for _ in range(WAITERS)]
    for thread in threads:
        thread.start()
    try:
        yield shares
    finally:
        blocker.settle(None)
        for thread in threads:
            thread.join()


def _settle_down() -> float:
    """Sleep until the process is idle; returns the CPU time at which it was."""
    spent = time.process_time()
    while True:
        time.sleep(0.01)
        before, spent = spent, time.process_time()
        if spent - before < 0.0004:
            return spent


def _cpu_per_give_back(stops: dict[str, Callable[[], bool]], give_backs: int) -> dict[str, float]:
    """CPU seconds of the whole process for one give-back, until every thread waits again.

    All crowds wait at once and the give-backs go from one to the next, so that what else the
    machine does falls on all alike. The poll is put off meanwhile: `_cpu_share` measures it.
    """
    spent = dict.fromkeys(stops, 0.0)
    with ExitStack() as crowds:
        shares = {}
        for subject, stop in stops.items():
            module: Any = load(subject)
            crowds.callback(setattr, module, "_POLL_S", module._POLL_S)
            module._POLL_S = 60.0
            shares[subject] = crowds.enter_context(_crowd(module, stop, give_backs))
        began = _settle_down()
        for _ in range(give_backs):
            for subject, left in shares.items():
                left.pop().settle(None)
                ended = _settle_down()
                spent[subject] += (ended - began) / give_backs
                began = ended
    return spent


def _cpu_share(module: Any, seconds: float) -> float:
    """The part of one core that the waiting threads take with their poll."""
    with _crowd(module, module.never, 0):
        time.sleep(0.3)
        cpu, wall = time.process_time(), time.perf_counter()
        time.sleep(seconds)
        return (time.process_time() - cpu) / (time.perf_counter() - wall)


def _way_back(module: Any, times: int) -> float:
    """Median seconds from the call of a give-back to the return of the `hold` that waited."""
    budget = module.RunBudget(BOUNDLESS, 1)
    go, done = threading.Semaphore(0), threading.Semaphore(0)
    returned: list[float] = []

    def wait() -> None:
        for _ in range(times):
            go.acquire()
            with budget.hold(1.0):
                returned.append(time.perf_counter())
            done.release()

    waiter = threading.Thread(target=wait)
    waiter.start()
    took = []
    for _ in range(times):
        blocker = budget.hold(1.0)
        go.release()
        time.sleep(0.002)
        gave = time.perf_counter()
        blocker.settle(None)
        done.acquire()
        took.append(returned[-1] - gave)
    waiter.join()
    return median(took)


def _of_a_crowd(module: Any, seconds: float) -> dict[str, float]:
    """Thousands of threads that ask a Python stop predicate: how long they take to start, the part
    of one core that they take, how late a thread is that would run every 10 ms, and how long they
    take to end by the stop."""
    stop, over = threading.Event(), threading.Event()
    budget = module.RunBudget(BOUNDLESS, 1, should_stop=stop.is_set)
    blocker = budget.hold(10.0)
    late: list[float] = []

    def wait() -> None:
        with suppress(module.DecisionStopped):
            budget.reserve()

    def beat() -> None:
        while not over.is_set():
            due = time.perf_counter() + 0.01
            time.sleep(0.01)
            late.append(time.perf_counter() - due)

    usual_size = threading.stack_size(128 * 1024)
    try:
        threads = [threading.Thread(target=wait) for _ in range(CROWD)]
        began = time.perf_counter()
        for thread in threads:
            thread.start()
        started = time.perf_counter()
        heart = threading.Thread(target=beat)
        heart.start()
        cpu, wall = time.process_time(), time.perf_counter()
        time.sleep(seconds)
        share = (time.process_time() - cpu) / (time.perf_counter() - wall)
        over.set()
        heart.join()
    finally:
        threading.stack_size(usual_size)
        stopped = time.perf_counter()
        stop.set()
        for thread in threads:
            thread.join()
        blocker.settle(None)
    ended = time.perf_counter()
    return {
        "start": started - began,
        "idle": share,
        "late": sum(late) / len(late),
        "drain": ended - stopped,
    }


def measure_crowd(quick: bool) -> dict[str, list[float]]:
    """Seconds and a share of one core: one value per subject."""
    return {
        f"crowd {what}/{subject}": [value]
        for subject in SUBJECTS
        for what, value in _of_a_crowd(load(subject), 0.5 if quick else 2.0).items()
    }


def measure(quick: bool) -> dict[str, list[float]]:
    """CPU seconds, a share of one core, and seconds: one value per round and subject."""
    values: dict[str, list[float]] = defaultdict(list)
    kinds = {
        "wake-never": {subject: load(subject).never for subject in SUBJECTS},
        "wake-python": dict.fromkeys(SUBJECTS, lambda: False),
    }
    for _ in range(1 if quick else 2):
        for kind, stops in kinds.items():
            for subject, cpu in _cpu_per_give_back(stops, 5 if quick else 20).items():
                values[f"{kind}/{subject}"].append(cpu)
        for subject in SUBJECTS:
            values[f"idle/{subject}"].append(_cpu_share(load(subject), 0.5 if quick else 1.0))
            values[f"way-back/{subject}"].append(_way_back(load(subject), 50 if quick else 200))
    return values
