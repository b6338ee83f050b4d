"""Time per operation of every single-thread statement, all subjects interleaved.

pyperf's own runner times one subject after another, minutes apart. On a shared machine that puts
the noise of different minutes on the two sides of a ratio, so here one short round goes through
all subjects in a new order, those of one case side by side, and a ratio is taken within a round.
"""

from __future__ import annotations

import random
from collections.abc import Iterable
from itertools import groupby
from timeit import Timer

import pyperf
from cases import CASES, MODULE, OPEN_FEW, OPEN_MANY, TWIN, UNROLL, load, timer, world
from yardsticks import FLOOR, limiters

SUBJECTS = {"module": MODULE, "twin": TWIN}
SLICE_S = 0.004


def _timers() -> dict[str, Timer]:
    timers = {}
    for subject, name in SUBJECTS.items():
        module = load(name)
        for case in CASES:
            timers[f"{case.key}/{subject}"] = _timer(case.statement, world(module))
        for shares in (OPEN_FEW, OPEN_MANY):
            names = world(module, shares)
            timers[f"open/{shares}/{subject}"] = _timer(CASES[0].statement, names)
    for yardstick in (*FLOOR, *limiters()):
        timers[yardstick.key] = _timer(yardstick.statement, yardstick.names)
    return timers


def _timer(statement: str, names: dict[str, object]) -> Timer:
    return timer(statement, names, pyperf.perf_counter)


def _loops(subject: Timer) -> int:
    """As many loops as fill a slice."""
    loops = 10
    while (elapsed := subject.timeit(loops)) < SLICE_S / 4:
        loops *= 3
    return max(1, round(loops * SLICE_S / elapsed))


def measure(rounds: int) -> dict[str, list[float]]:
    """Seconds per operation, one value per round and subject."""
    timers = _timers()
    loops = {key: _loops(subject) for key, subject in timers.items()}
    values: dict[str, list[float]] = {key: [] for key in timers}
    for _ in range(rounds):
        for key in _in_new_order(timers):
            values[key].append(timers[key].timeit(loops[key]) / loops[key] / UNROLL)
    return values


def _in_new_order(keys: Iterable[str]) -> list[str]:
    cases = [list(group) for _, group in groupby(sorted(keys), lambda key: key.partition("/")[0])]
    for case in cases:
        random.shuffle(case)
    random.shuffle(cases)
    return [key for case in cases for key in case]
