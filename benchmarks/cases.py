"""The single-thread cases: one statement each, run with the module and with its plain-Python twin.

Nothing here needs a package from outside the standard library, because the instruction gate runs
these statements under valgrind, where every import is paid fifty times over.
"""

from __future__ import annotations

import importlib
import sys
import time
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path
from timeit import Timer
from types import ModuleType
from typing import Any

ROOT = Path(__file__).resolve().parent.parent
MODULE = "korvane.engines.decision_bounds"
TWIN = "plain_bounds"
TWIN_DIR = ROOT / "model"

# Statements stand this often in the timed loop, so that the loop itself is not what is measured.
UNROLL = 10
BOUNDLESS = 10**15
DAY = "2031-05-17"


class Reply:
    """What a client's reply looks like to the bounds: three plain attributes."""

    def __init__(self, *, cached: bool = False, input_tokens: int = 50, cost: float = 0.001):
        self.cached = cached
        self.input_tokens = input_tokens
        self.cost = cost


@dataclass(frozen=True)
class Case:
    """A statement, how much faster than the twin it must be, and what its floor is made of."""

    key: str
    statement: str
    at_least: float
    calls: int
    reads: int = 0
    allocations: int = 0
    callbacks: int = 0

    @property
    def label(self) -> str:
        if "\n" in self.statement:
            return "the whole road: tokens, admit, hold, two settles, learn"
        return f"`{self.statement.replace(ADMIT, 'spend.admit(bound, ...)')}`"


ADMIT = "spend.admit(bound, deadline=None, clock=clock, stopping=never)"
CASES = (
    Case("settle", "budget.hold(t).settle(reply)", 16, calls=2, reads=3, allocations=1),
    Case(
        "guard",
        "with budget.hold(t) as share: share.settle(reply)",
        12,
        calls=4,
        reads=3,
        allocations=1,
    ),
    Case("release", "with budget.hold(t): pass", 12, calls=3, allocations=1),
    Case("hit", "budget.charge(hit)", 7, calls=1, reads=1),
    Case(
        "admit",
        f"with {ADMIT} as share: share.settle(reply)",
        8,
        calls=5,
        reads=1,
        allocations=1,
        callbacks=3,
    ),
    Case(
        "road",
        f"""\
tokens = rates.tokens(size)
with {ADMIT} as dollars, budget.hold(tokens) as share:
    share.settle(reply)
    dollars.settle(reply)
rates.learn(size, feature, reply)""",
        9,
        calls=11,
        reads=6,
        allocations=2,
        callbacks=3,
    ),
    Case("cost", "rates.cost(size, feature)", 6, calls=1),
    Case("tokens", "rates.tokens(size)", 6, calls=1),
    Case("spent", "spend.spent()", 6, calls=1, callbacks=1),
)
BY_KEY = {case.key: case for case in CASES}
# The same statement with few and with many shares open, compared with itself.
OPEN_FEW, OPEN_MANY = 10, 100_000
ROAD_CASES = ("settle", "guard", "admit", "road")


def load(name: str) -> ModuleType:
    """The module under test (found through PYTHONPATH) or its twin."""
    if name == TWIN and str(TWIN_DIR) not in sys.path:
        sys.path.append(str(TWIN_DIR))
    return importlib.import_module(name)


def world(module: Any, open_shares: int = 0) -> dict[str, Any]:
    """The names that the statements use, with bounds that never fill."""
    rates = module.RequestRates()
    size, feature, reply = 400, "triage", Reply()
    rates.learn(size, feature, reply)
    budget = module.RunBudget(BOUNDLESS, BOUNDLESS)

    def today() -> str:
        return DAY

    def bound() -> Any:
        return rates.cost(size, feature)

    return {
        "budget": budget,
        "spend": module.DailySpend(float(BOUNDLESS), today, None),
        "rates": rates,
        "bound": bound,
        "clock": time.monotonic,
        "never": module.never,
        "reply": reply,
        "hit": Reply(cached=True),
        "t": 100.0,
        "size": size,
        "feature": feature,
        "open_shares": [budget.hold(100.0) for _ in range(open_shares)],
    }


def timer(
    statement: str, names: dict[str, Any], clock: Callable[[], float] = time.perf_counter
) -> Timer:
    """A timer of the unrolled statement whose names are all local variables, as in a client."""
    setup = "\n".join(f"{name} = names[{name!r}]" for name in names) or "pass"
    body = "\n".join([statement] * UNROLL)
    return Timer(body, setup, timer=clock, globals={"names": names})
