"""A fleet's days in virtual time, under one seed after the other: the rules' promise, to the nano.

`python -c "from checks.simulation import tell; tell(SEED)"` tells the story of a seed that fails.
"""

from __future__ import annotations

import logging
import os
import sys
from collections import Counter
from concurrent.futures import ProcessPoolExecutor
from dataclasses import replace

from .fleet import Fleet
from .plan import KINDS, Plan, plan, smaller
from .troubles import strike

# Some minutes on two cores; a tenth of it where every change waits for them.
DAYS = 10_000 if os.environ.get("CI") else 100_000
CHUNK = 50


def broken(of: Plan, story: list[str] | None = None) -> str | None:
    """What promise a plan breaks."""
    try:
        Fleet(of, strike, story).run()
    except Exception as error:
        return f"{type(error).__name__}: {error}"
    return None


def run(seeds: range) -> tuple[int, Counter[str], int | None]:
    """The days, what happened in them, and the first seed that breaks a promise."""
    logging.disable()
    days, done = 0, Counter[str]()
    for seed in seeds:
        fleet = Fleet(plan(seed), strike)
        try:
            fleet.run()
        except Exception:
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
            if (broken(found) or "").startswith(promise):
                return shrunk(found, promise)
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
