"""The single-thread cases: one statement each, run with the module and with its plain-Python model.

Nothing here needs a package from outside the standard library, because the instruction gate runs
these statements under valgrind, where every import is paid fifty times over.
"""

from __future__ import annotations

import importlib
import itertools
import sys
import threading
import time
from decimal import Decimal
from pathlib import Path
from timeit import Timer
from types import ModuleType
from typing import Any, NamedTuple

ROOT = Path(__file__).resolve().parent.parent
MODEL_DIR = ROOT / "model"
SUBJECTS = {"module": "korvane.engines.decision_bounds", "model": "plain_bounds"}

# Statements stand this often in the timed loop, so that the loop itself is not what is measured.
UNROLL = 10
BOUNDLESS = 10**15


class Reply:
    """What a client's reply looks like to the bounds: three plain attributes."""

    def __init__(self, *, cached: bool = False, input_tokens: int = 50, cost: Any = 0.001):
        self.cached = cached
        self.input_tokens = input_tokens
        self.cost = cost


class FailingReply:
    cached, input_tokens = False, 50

    @property
    def cost(self) -> float:
        raise ValueError("no cost")


class Dollars(float):
    """A number that is no plain one."""


class Case(NamedTuple):
    key: str
    label: str
    at_least: float  # how many times faster than the model it must be
    statement: str
    floor: tuple[int, ...] = ()  # calls, attribute reads, objects made and callbacks that it needs


ADMIT = "spend.admit(bound, deadline=None, clock=clock, stopping=never)"
BUSY = ADMIT.replace("spend", "busy")
ROAD = f"""\
tokens = rates.tokens(size)
with {ADMIT} as dollars, budget.hold(tokens) as share:
    share.settle(reply)
    dollars.settle(reply)
rates.learn(size, feature, reply)"""


def _plain(key: str, at_least: float, statement: str, *floor: int) -> Case:
    label = f"`{statement.replace(ADMIT, 'spend.admit(bound, ...)')}`"
    return Case(key, label, at_least, statement, floor)


def _raises(key: str, label: str, statement: str, at_least: float = 1) -> Case:
    return Case(key, label, at_least, f"try: {statement}\nexcept Exception: pass")


def _settles(key: str, label: str, at_least: float) -> Case:
    reply = f"{key}_reply" if key in ("decimal", "dollars") else "reply"
    budget = "budget" if key == "dollars" else key
    return Case(key, f"settling, {label}", at_least, f"{budget}.hold(t).settle({reply})")


CASES = (
    _plain("settle", 20, "budget.hold(t).settle(reply)"),
    _plain("guard", 12, "with budget.hold(t) as share: share.settle(reply)", 4, 3, 1, 0),
    _plain("release", 12, "with budget.hold(t): pass"),
    _plain("hit", 7, "budget.charge(hit)"),
    _plain("admit", 8, f"with {ADMIT} as share: share.settle(reply)", 5, 1, 1, 3),
    Case(
        "road", "the whole road: tokens, admit, hold, two settles, learn", 9.5, ROAD, (11, 6, 2, 3)
    ),
    _plain("cost", 6, "rates.cost(size, feature)"),
    _plain("tokens", 6, "rates.tokens(size)"),
    _plain("spent", 6, "spend.spent()"),
    _settles("bare", "a subclass that overrides nothing", 16),
    _settles("replaced", "a subclass that overrides `_exhausted_locked`", 4),
    _settles("counting", "a subclass that overrides `charge`", 4),
    _settles("foreign", "a `threading.Condition` that was given", 4),
    _settles("decimal", "a `Decimal` cost", 7),
    _settles("dollars", "a cost that is a subclass of `float`", 10),
    Case("first", "a day's first call, which reads the ledger", 1, "new_day.spent()"),
    Case("summary", "`budget.summary()`", 1, "budget.summary()"),
    Case("repr", "`repr(budget)`", 1, "repr(budget)"),
    _raises("stop", "`DecisionStopped` of a budget's `reserve`", "stopped.reserve(t)"),
    _raises("stop hold", "`DecisionStopped` of a budget's `hold`", "stopped.hold(t)"),
    _raises("stop day", "`DecisionStopped` of a day", BUSY.replace("never", "stop")),
    _raises("timeout", "`DecisionTimeout`", BUSY.replace("None", "0.0")),
    _raises("full", "a pass's refusal", "full.hold(t)"),
    _raises("capped", "a day's refusal", ADMIT.replace("spend", "capped"), 2),
    _raises("failing", "a reply's own error, of a budget", "budget.hold(t).settle(failing)"),
    _raises("failing day", "a reply's own error, of a day", f"{ADMIT}.settle(failing)"),
)
BY_KEY = {case.key: case for case in CASES}
ROAD_CASES = ("settle", "guard", "admit", "road")


def load(subject: str) -> ModuleType:
    """The module under test (found through PYTHONPATH) or its model."""
    if subject == "model" and str(MODEL_DIR) not in sys.path:
        sys.path.append(str(MODEL_DIR))
    return importlib.import_module(SUBJECTS[subject])


def world(module: Any, open_shares: int = 0) -> dict[str, Any]:
    """The names that the statements use, with bounds that never fill, and some that are full."""
    module.logger.disabled = True
    rates, never, clock = module.RequestRates(), module.never, time.monotonic
    size, feature, t = 400, "triage", 100.0
    reply, hit, failing = Reply(), Reply(cached=True), FailingReply()
    rates.learn(size, feature, reply)
    days = itertools.cycle(("2031-05-17", "2031-05-18"))

    def today() -> str:
        return "2031-05-17"

    def bound() -> Any:
        return rates.cost(size, feature)

    def stop() -> bool:
        return True

    class Bare(module.RunBudget):
        pass

    class Replaced(module.RunBudget):
        def _exhausted_locked(self) -> Any:
            return super()._exhausted_locked() or self.cost >= BOUNDLESS

    class Counting(module.RunBudget):
        def charge(self, result: Any, tokens: float = 0.0) -> None:
            super().charge(result, tokens)

    budget = module.RunBudget(BOUNDLESS, BOUNDLESS)
    bare, replaced, counting = (cls(BOUNDLESS, BOUNDLESS) for cls in (Bare, Replaced, Counting))
    foreign = module.RunBudget(BOUNDLESS, BOUNDLESS, _changed=threading.Condition())
    decimal = module.RunBudget(BOUNDLESS, BOUNDLESS, cost=Decimal(0))
    decimal_reply, dollars_reply = Reply(cost=Decimal("0.001")), Reply(cost=Dollars(0.001))
    full = module.RunBudget(0, BOUNDLESS)
    stopped = module.RunBudget(BOUNDLESS, BOUNDLESS, should_stop=stop)
    spend = module.DailySpend(float(BOUNDLESS), today, None)
    new_day = module.DailySpend(float(BOUNDLESS), lambda: next(days), lambda day: 0.0)
    capped = module.DailySpend(0.0, today, None)
    busy = module.DailySpend(0.5, today, None)
    holds = busy.admit(lambda: 1.0, deadline=None, clock=clock, stopping=never)
    shares = [budget.hold(t) for _ in range(open_shares)]
    return locals()


def timer(statement: str, names: dict[str, Any]) -> Timer:
    """A timer of the unrolled statement whose names are all local variables, as in a client."""
    setup = "\n".join(f"{name} = names[{name!r}]" for name in names) or "pass"
    return Timer("\n".join([statement] * UNROLL), setup, globals={"names": names})
