"""A paid call on an account in a file, beside the same call with the module's bounds alone."""

from __future__ import annotations

import tempfile
import time

from cases import BOUNDLESS, ROAD, UNROLL, load, timer, world

from korvane.engines.decision_account import PaidCalls, SharedSpend

PAID = """\
with calls.call(size, feature, budget=budget) as call:
    call.settle(reply)"""
CALLS = 10  # of a slice, unrolled


def measure(quick: bool) -> dict[str, list[float]]:
    """Seconds of a call, slice by slice in turn."""
    values: dict[str, list[float]] = {"paid/account": [], "paid/alone": []}
    with (
        tempfile.TemporaryDirectory() as folder,
        SharedSpend(f"sqlite:///{folder}/spend.db", 1e6) as spend,
    ):
        alone = world(load("module"))
        names = {name: alone[name] for name in ("size", "feature", "reply")}
        names["calls"] = PaidCalls(spend, unknown_cost=0.01)
        names["budget"] = load("module").RunBudget(BOUNDLESS, BOUNDLESS)
        timers = {"paid/account": timer(PAID, names), "paid/alone": timer(ROAD, alone)}
        until = time.monotonic() + (2 if quick else 8)
        while time.monotonic() < until:
            for key, subject in timers.items():
                values[key].append(subject.timeit(CALLS) / CALLS / UNROLL)
    return values
