"""Exceptions that hit a thread from outside, and bounds at which it waits or is blocked."""

import ctypes
import threading
import time
from dataclasses import dataclass, field
from types import ModuleType
from typing import Any

from korvane.engines import decision_bounds as bounds
from support import SOON, admit, state


class Interrupt(BaseException):
    """From a signal handler, or from another thread."""


def raise_in(thread: threading.Thread) -> None:
    ident = ctypes.c_ulong(thread.ident or 0)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(ident, ctypes.py_object(Interrupt))


@dataclass
class Full:
    """Bounds without room, and whoever holds their locks."""

    m: ModuleType = bounds
    inside: threading.Event = field(default_factory=threading.Event)
    leave: threading.Event = field(default_factory=threading.Event)

    def __post_init__(self) -> None:
        m = self.m
        self.budget, self.rates = m.RunBudget(10, 10), m.RequestRates()
        self.spend = m.DailySpend(10.0, "D".__str__, None)  # nothing of Python's
        self.tokens, self.cost = self.budget.hold(10), admit(self.spend, 10.0)

    def admit(self, **asks: Any) -> object:
        return admit(self.spend, 1.0, **{"deadline": None, "clock": time.monotonic} | asks)

    def state(self) -> str:
        return f"{state(self.budget)} {state(self.spend)} {self.rates._features}"

    def linger(self) -> float:
        self.inside.set()
        assert self.leave.wait(SOON)
        return 1.0

    def block(self) -> None:
        with self.budget._changed, self.spend._changed:
            self.linger()

    def waiters(self) -> int:
        return sum(", 0)" not in repr(each._changed) for each in (self.budget, self.spend))
