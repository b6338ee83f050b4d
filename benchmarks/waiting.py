"""What waiting costs: give-backs that make no room, threads that only wait, and the way back."""

from __future__ import annotations

import threading
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, contextmanager
from statistics import median
from typing import Any

from cases import MODULE, TWIN, load

WAITERS = 200
SUBJECTS = {"module": MODULE, "twin": TWIN}


def _never_in_python() -> bool:
    return False


@contextmanager
def _crowd(module: Any, stop: Callable[[], bool], spare: int) -> Iterator[list[Any]]:
    """`WAITERS` threads without room, and `spare` shares whose give-back makes none."""
    budget = module.RunBudget(10**9, 1, should_stop=stop)
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


def _cpu_per_give_back(
    modules: dict[str, Any], stops: dict[str, Callable[[], bool]], give_backs: int
) -> dict[str, float]:
    """CPU seconds of the whole process for one give-back, until every thread waits again.

    All crowds wait at once and the give-backs go from one to the next, so that what else the
    machine does falls on all alike. The poll is put off meanwhile: `_cpu_share` measures it.
    """
    spent = dict.fromkeys(modules, 0.0)
    with ExitStack() as crowds:
        shares = {}
        for subject, module in modules.items():
            crowds.callback(setattr, module, "_POLL_S", module._POLL_S)
            module._POLL_S = 60.0
            crowd = _crowd(module, stops[subject], give_backs)
            shares[subject] = crowds.enter_context(crowd)
        began = _settle_down()
        for _ in range(give_backs):
            for subject, left in shares.items():
                left.pop().settle(None)
                ended = _settle_down()
                spent[subject] += ended - began
                began = ended
    return {subject: cpu / give_backs for subject, cpu in spent.items()}


def _cpu_share(module: Any, seconds: float) -> float:
    """The part of one core that the waiting threads take with their poll."""
    with _crowd(module, module.never, 0):
        time.sleep(0.3)
        cpu, wall = time.process_time(), time.perf_counter()
        time.sleep(seconds)
        return (time.process_time() - cpu) / (time.perf_counter() - wall)


def _way_back(module: Any, times: int) -> float:
    """Median seconds from the call of a give-back to the return of the `hold` that waited."""
    budget = module.RunBudget(10**9, 1)
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
    gave: list[float] = []
    for _ in range(times):
        blocker = budget.hold(1.0)
        go.release()
        time.sleep(0.002)
        gave.append(time.perf_counter())
        blocker.settle(None)
        done.acquire()
    waiter.join()
    return median(end - start for start, end in zip(gave, returned, strict=True))


def measure(rounds: int, give_backs: int, seconds: float, returns: int) -> dict[str, list[float]]:
    """CPU seconds, a share of one core, and seconds: one value per round and subject."""
    modules = {subject: load(name) for subject, name in SUBJECTS.items()}
    values: dict[str, list[float]] = {}

    def add(key: str, subject: str, value: float) -> None:
        values.setdefault(f"{key}/{subject}", []).append(value)

    kinds = {
        "wake-never": {subject: module.never for subject, module in modules.items()},
        "wake-python": dict.fromkeys(modules, _never_in_python),
    }
    for _ in range(rounds):
        for kind, stops in kinds.items():
            for subject, cpu in _cpu_per_give_back(modules, stops, give_backs).items():
                add(kind, subject, cpu)
        for subject, module in modules.items():
            add("idle", subject, _cpu_share(module, seconds))
            add("way-back", subject, _way_back(module, returns))
    return values
