"""A fleet's days in virtual time, under one seed after the other: the rules' promise, to the nano.

`python -c "from checks.simulation import tell; tell(SEED)"` tells the story of a seed that fails.
"""

from __future__ import annotations

import logging
import os
import random
import sys
from collections import Counter
from collections.abc import Iterator
from concurrent.futures import ProcessPoolExecutor
from dataclasses import replace

from .fleet import COST, Fleet, Plan
from .troubles import TROUBLES, befall

# Some minutes on two cores; a tenth of it where every change waits for them.
DAYS = 10_000 if os.environ.get("CI") else 100_000
CHUNK = 50


def plan(seed: int) -> Plan:
    draws = random.Random(seed)
    calm = draws.random() < 0.2
    days = draws.randint(2, 4)
    count = 0 if calm else draws.randint(0, 3 * days)
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
        troubles=tuple((draws.choice([*TROUBLES]), draws.randrange(2**32)) for _ in range(count)),
    )


def smaller(of: Plan) -> Iterator[Plan]:
    """The plans with less of one thing."""
    for name in ("days", "processes", "workers", "calls"):
        for less in range(1, getattr(of, name)):
            yield replace(of, **{name: less})
    for index in range(len(of.troubles)):
        yield replace(of, troubles=of.troubles[:index] + of.troubles[index + 1 :])
    if of.rough:
        yield replace(of, rough=0.0)


def broken(of: Plan, story: list[str] | None = None) -> tuple[str | None, Fleet]:
    """What promise a plan breaks, and its fleet."""
    fleet = Fleet(of, story)
    try:
        befall(fleet)
        fleet.run()
    except Exception as error:
        return f"{type(error).__name__}: {error}", fleet
    return None, fleet


def run(seeds: range) -> tuple[int, Counter[str], int | None]:
    """The days, what happened in them, and the first seed that breaks a promise."""
    logging.disable()
    days, done = 0, Counter[str]()
    for seed in seeds:
        failure, fleet = broken(plan(seed))
        if failure:
            return days, done, seed
        days += fleet.plan.days
        done += fleet.done
        done["calls"] += sum(call.id is not None for call in fleet.calls)
    return days, done, None


def shrunk(of: Plan, promise: str) -> Plan:
    """A plan that breaks the same promise, of which nothing can be left out."""
    for less in smaller(of):
        for seed in range(of.seed, of.seed + 50):
            found = replace(less, seed=seed)
            if (broken(found)[0] or "").startswith(promise):
                return shrunk(found, promise)
    return of


def tell(seed: int) -> None:
    logging.disable()
    first, _ = broken(plan(seed))
    if first is None:
        print(f"seed {seed} breaks no promise")
        return
    shortest = shrunk(plan(seed), ":".join(first.split(":")[:2]))
    story: list[str] = []
    last, _ = broken(shortest, story)
    print(f"seed {seed}: {first}\nas short as it gets: {shortest}", *story, last, sep="\n")


def check(days: int = DAYS) -> str:
    total, done = 0, Counter[str]()
    with ProcessPoolExecutor(os.process_cpu_count()) as pool:
        chunks = (range(first, first + CHUNK) for first in range(0, days // 3 + CHUNK, CHUNK))
        for ran, happened, failed in pool.map(run, chunks):
            total += ran
            done += happened
            if failed is not None:
                pool.shutdown(cancel_futures=True)
                sys.stdout = sys.stderr
                print(f"after {total:,} fleet-days:")
                tell(failed)
                raise SystemExit(1)
    calls = done.pop("calls")
    assert done.keys() == TROUBLES.keys(), done
    return f"{total:,} fleet-days: {calls:,} calls, {done.total():,} troubles: no promise broken"
