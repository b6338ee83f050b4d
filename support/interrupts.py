"""Exceptions that hit a thread from outside, and bounds at which it waits or is blocked."""

import _thread
import ctypes
import operator
import threading
import time
from collections.abc import Callable
from functools import partial

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, admit, state


class Interrupt(BaseException):
    """From a signal handler, or from another thread."""


def interrupt(call: Callable[[], object]) -> None:
    """With Ctrl-C, pending before the call begins; no bytecode runs between the two, so that it is
    the call that has to see it."""
    try:
        list(map(operator.call, (_thread.interrupt_main, call)))
    except KeyboardInterrupt:
        return
    raise AssertionError("an interrupt is lost")


def raise_in(thread: threading.Thread) -> None:
    ident = ctypes.c_ulong(thread.ident or 0)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(ident, ctypes.py_object(Interrupt))


class Full:
    """Bounds without room, and whoever holds their locks. Nothing of Python's is asked but, where
    it `asks`, a stop predicate."""

    def __init__(self, asks: bool = False) -> None:
        self.inside, self.leave = threading.Event(), threading.Event()
        self.budget = bounds.RunBudget(10, 10, should_stop=bool if asks else bounds.never)
        self.spend = bounds.DailySpend(10.0, "D".__str__, None)
        self.tokens, self.cost = self.budget.hold(10), admit(self.spend, 10.0)

    def admit(self, deadline: float | None = None) -> Callable[[], object]:
        asks = {"clock": time.monotonic, "stopping": self.budget.should_stop}
        return partial(self.spend.admit, float, deadline=deadline, **asks)

    def state(self) -> str:
        return f"{state(self.budget)} {state(self.spend)}"

    def block(self) -> None:
        with self.budget._changed, self.spend._changed:
            self.inside.set()
            assert self.leave.wait(SOON)

    def waiters(self) -> int:
        return sum(len(each._changed._waiters) for each in (self.budget, self.spend))


# Calls without a bytecode of their own.
type Calls = dict[str, Callable[[Full], Callable[[], object]]]

WAITS: Calls = {
    "reserve": lambda at: partial(at.budget.reserve, 1),
    "hold": lambda at: partial(at.budget.hold, 1),
    "admit": lambda at: at.admit(),
    "admit until a deadline": lambda at: at.admit(deadline=time.monotonic() + SOON),
}
# What blocks where another thread has the lock.
BLOCKS: Calls = WAITS | {
    "release": lambda at: partial(at.budget.release, 1),
    "charge": lambda at: partial(at.budget.charge, Reply()),
    "summary": lambda at: at.budget.summary,
    "exhausted": lambda at: at.budget.exhausted,
    "spent": lambda at: at.spend.spent,
    "count": lambda at: partial(at.spend.charge, Reply()),
    "acquire": lambda at: at.budget._changed.acquire,
    "acquire for a time": lambda at: partial(at.spend._changed.acquire, timeout=SOON),
}
