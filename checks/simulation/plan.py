"""What a run is: everything in it follows from its plan."""

from __future__ import annotations

import random
from collections.abc import Iterator
from dataclasses import dataclass, replace

COST = 0.01  # of a call, USD, where nothing makes it dearer
KINDS = (
    *("pause", "kill", "fork", "interrupt", "stop", "clock", "silence", "refuse", "restart"),
    *("fail_over", "dearer", "set_cap", "prune"),
)


@dataclass(frozen=True)
class Trouble:
    kind: str
    day: int
    after: float
    seed: int


@dataclass(frozen=True)
class Plan:
    seed: int
    days: int
    processes: int
    workers: int  # of each process
    calls: int  # of each worker and day, at most
    cap: float
    calm: bool  # no trouble at all, and all calls cost the same
    rough: float  # how likely a message has trouble
    own_clocks: bool  # each process dates its requests, and not the store
    troubles: tuple[Trouble, ...]


def plan(seed: int) -> Plan:
    draws = random.Random(seed)
    calm = draws.random() < 0.2
    days = draws.randint(2, 4)

    def trouble() -> Trouble:
        day, after = draws.randrange(days), 0.8 * draws.random()
        return Trouble(draws.choice(KINDS), day, after, draws.randrange(2**32))

    return Plan(
        seed=seed,
        days=days,
        processes=draws.randint(1, 3),
        workers=draws.randint(1, 3),
        calls=16 if calm else draws.randint(3, 8),
        cap=COST * draws.randint(3, 30 if calm else 8) - draws.choice((0, 0.001)),
        calm=calm,
        rough=0.0 if calm else draws.choice((0.0, 0.03, 0.1)),
        own_clocks=draws.random() < 0.5,
        troubles=tuple(trouble() for _ in range(0 if calm else draws.randint(0, 3 * days))),
    )


def smaller(of: Plan) -> Iterator[Plan]:
    """The plans with less, those with least first."""
    if of.troubles:
        yield replace(of, troubles=())
    if of.rough:
        yield replace(of, rough=0.0)
    for days in range(1, of.days):
        rest = tuple(trouble for trouble in of.troubles if trouble.day < days)
        yield replace(of, days=days, troubles=rest)
    for name in ("processes", "workers", "calls"):
        for less in range(1, getattr(of, name)):
            yield replace(of, **{name: less})
    for index in range(len(of.troubles)):
        yield replace(of, troubles=of.troubles[:index] + of.troubles[index + 1 :])
