"""Time per operation of every single-thread statement, all subjects interleaved.

To time one subject after another would put the noise of different minutes on the two sides of a
ratio. So one short round goes through all subjects in a new order, those of one case side by side,
and a ratio is taken within a round.
"""

from __future__ import annotations

import random
from itertools import groupby
from timeit import Timer

from cases import BY_KEY, CASES, SUBJECTS, UNROLL, load, timer, world
from yardsticks import FLOOR, limiters

SLICE_S = 0.004
# The same statement with few and with many shares open, compared with itself.
OPEN_FEW, OPEN_MANY = 10, 100_000


def _timers() -> dict[str, Timer]:
    timers = {}
    for subject in SUBJECTS:
        module = load(subject)
        for case in CASES:
            timers[f"{case.key}/{subject}"] = timer(case.statement, world(module))
    for shares in (OPEN_FEW, OPEN_MANY):
        names = world(load("module"), shares)
        timers[f"open/{shares}"] = timer(BY_KEY["settle"].statement, names)
    for yardstick in (*FLOOR, *limiters()):
        timers[yardstick.key] = timer(yardstick.statement, yardstick.names)
    return timers


def _loops(subject: Timer) -> int:
    """As many loops as fill a slice."""
    loops = 10
    while (elapsed := subject.timeit(loops)) < SLICE_S / 4:
        loops *= 3
    return max(1, round(loops * SLICE_S / elapsed))


def measure(quick: bool) -> dict[str, list[float]]:
    """Seconds per operation, one value per round and subject, and each round's floors."""
    timers = _timers()
    loops = {key: _loops(subject) for key, subject in timers.items()}
    values: dict[str, list[float]] = {key: [] for key in timers}
    groups = [list(keys) for _, keys in groupby(sorted(timers), lambda key: key.split("/")[0])]
    for _ in range(12 if quick else 40):
        random.shuffle(groups)
        for keys in groups:
            random.shuffle(keys)
            for key in keys:
                values[key].append(timers[key].timeit(loops[key]) / loops[key] / UNROLL)
    call, *others = (values[key] for key in ("call", "read", "object", "callback"))
    parts = [call, *([max(0.0, a - b) for a, b in zip(o, call, strict=True)] for o in others)]
    for case in CASES:
        if case.floor:
            values[f"{case.key}/floor"] = [
                sum(count * part for count, part in zip(case.floor, round_, strict=True))
                for round_ in zip(*parts, strict=True)
            ]
    return values
