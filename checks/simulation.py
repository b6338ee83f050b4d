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

from .simulated_fleet import COST, Fleet, Plan, Trouble

DAYS = 20_000
CHUNK = 50
KINDS = (
    "pause",
    "kill",
    "fork",
    "interrupt",
    "interrupt",
    "clock",
    "silence",
    "refusing",
    "restart",
    "failover",
    "dear",
    "cap",
    "prune",
    "stop",
)


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
        cap=COST * draws.randint(3, 8) - draws.choice((0, 0.001)),
        rough=0.0 if calm else draws.choice((0.0, 0.03, 0.1)),
        own_clocks=draws.random() < 0.5,
        varied=not calm,
        troubles=tuple(
            Trouble(
                draws.choice(KINDS),
                draws.randrange(days),
                0.8 * draws.random(),
                draws.randrange(2**32),
            )
            for _ in range(count)
        ),
    )


def broken(of: Plan, story: list[str] | None = None) -> str | None:
    """What promise a plan breaks."""
    try:
        Fleet(of, story).run()
    except Exception as error:
        return f"{type(error).__name__}: {error}"
    return None


def run(seeds: range) -> tuple[int, Counter[str], int | None]:
    """The days, what happened in them, and the first seed that breaks a promise."""
    logging.disable()
    days, done = 0, Counter[str]()
    for seed in seeds:
        fleet = Fleet(plan(seed))
        try:
            fleet.run()
        except Exception:
            return days, done, seed
        days += fleet.plan.days
        done += fleet.done
        done["calls"] += sum(call.entered for call in fleet.calls)
    return days, done, None


def smaller(of: Plan) -> Iterator[Plan]:
    for index in range(len(of.troubles)):
        yield replace(of, troubles=of.troubles[:index] + of.troubles[index + 1 :])
    if of.days > 1:
        rest = tuple(trouble for trouble in of.troubles if trouble.day < of.days - 1)
        yield replace(of, days=of.days - 1, troubles=rest)
    for name in ("processes", "workers", "calls"):
        if getattr(of, name) > 1:
            yield replace(of, **{name: getattr(of, name) - 1})
    if of.rough:
        yield replace(of, rough=0.0)


def shrunk(of: Plan, promise: str) -> Plan:
    """A plan that breaks the same promise and of which nothing can be left out."""
    while True:
        for less in smaller(of):
            for seed in range(of.seed, of.seed + 20):
                found = replace(less, seed=seed)
                if (broken(found) or "").startswith(promise):
                    of = found
                    break
            else:
                continue
            break
        else:
            return of


def tell(seed: int) -> None:
    logging.disable()
    first = broken(plan(seed))
    if first is None:
        print(f"seed {seed} breaks no promise")
        return
    promise = ":".join(first.split(":")[:2])
    shortest = shrunk(plan(seed), promise)
    story: list[str] = []
    last = broken(shortest, story)
    print(f"seed {seed}: {first}\nas short as it gets: {shortest}", *story, last, sep="\n")


def check(days: int = DAYS) -> str:
    total, done = 0, Counter[str]()
    with ProcessPoolExecutor(os.process_cpu_count()) as pool:
        seeds = range(0, days // 3 + CHUNK, CHUNK)
        for ran, happened, failed in pool.map(
            run, (range(first, first + CHUNK) for first in seeds)
        ):
            total += ran
            done += happened
            if failed is not None:
                pool.shutdown(cancel_futures=True)
                sys.stdout = sys.stderr
                print(f"after {total:,} fleet-days:")
                tell(failed)
                raise SystemExit(1)
    calls = done.pop("calls")
    assert done.keys() == set(KINDS), done
    return f"{total:,} fleet-days: {calls:,} calls, {done.total():,} troubles: no promise broken"
