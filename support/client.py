"""One client on the module and one on its plain-Python model: every step that both take comes to
the same, numbers of every kind included, which keep their Python meaning.

No step blocks: whoever would wait for room is told to stop, or finds its deadline past.
"""

import functools
import math
import operator
import sys
import threading
from collections.abc import Callable, Iterable
from copy import deepcopy
from dataclasses import dataclass
from decimal import Decimal
from fractions import Fraction
from types import SimpleNamespace
from typing import Any
from unittest import mock

import plain_bounds as model

from korvane.engines import decision_bounds as bounds
from support import Reply, admit, outcome, state, stops_to_wait

type Step = tuple[Any, ...]  # the name of a method of Client, and its arguments


class Whole(int):
    """An int that adds in its own way."""

    def __add__(self, other: object) -> Any:
        return f"{int(self)} and {other}"


EDGES = [
    0, 1, 2, -1, 2**52 - 1, 2**52, -(2**52), -(2**52) - 1, 2**53, 2**53 + 1, 2**63 - 1, 2**63,
    -(2**63), -(2**63) - 1, 2**64, 10**40, 10**400, 0.0, -0.0, 0.1, 0.5, 1.0, 1e6, 1e16, 1e-7,
    1e308, 5e-324, math.inf, -math.inf, math.nan,
]  # fmt: skip
STRANGE = [
    True, False, None, "1", "x", b"", (), {}, [], 1j, Fraction(1, 3), Decimal("0.1"),
    Decimal("NaN"), Decimal("Infinity"), Whole(3), type("Float", (float,), {})(2.5),
]  # fmt: skip
FIELDS = [
    *(f"budget.{name}" for name in ("calls", "input_tokens", "cost", "cache_hits", "in_flight")),
    *(f"{tally}.{name}" for tally in ("budget._held_tokens", "spend._held")
      for name in ("holders", "amount", "unbounded")),
    "budget.max_tokens", "spend._cost", "rates._cost.per_byte", "rates._tokens.per_call",
]  # fmt: skip


def fail(*_: object) -> Any:
    raise ZeroDivisionError("own")


class AsksBack:
    """A reply, and whatever else a caller brings, that calls back into what asks it."""

    def __init__(self, client: "Client") -> None:
        self.client = client

    @property
    def cached(self) -> bool:
        return bool(self.client.report()) and False  # may be read twice

    @property
    def input_tokens(self) -> int:
        return self.client.budget.charge(Reply(False, 2, 0.25)) or 1

    @property
    def cost(self) -> float:
        self.client.budget.charge(Reply(cost=0.25))
        return self.client.spend.charge(Reply(cost=0.125)) or 0.5


class LetsGo(AsksBack):
    """One that lets go of the lock under which it is asked."""

    input_tokens = property(lambda self: self.client.let_go() or 1)
    cost = property(lambda self: self.client.let_go() or 0.5)


def interrupted(*_: object) -> Any:
    raise KeyboardInterrupt("own")


def unread(attribute: str) -> Any:
    values = {"cached": False, "input_tokens": 7, "cost": 0.5}
    return type("Unread", (), values | {attribute: property(interrupted)})()


BROKEN: list[Any] = [*map(unread, ("cached", "input_tokens", "cost")), object(), AsksBack, LetsGo]


@dataclass
class Learned:
    """A cost bound that is asked of the rates."""

    size: Any
    feature: str


def never_waits(m: Any, budget: Any, tokens: Any) -> Callable[[], bool]:
    """The stop that never comes where a reservation would not wait, or else `stops_to_wait`."""
    try:
        used, limit = budget.input_tokens, budget.max_tokens
        room = budget.exhausted() or budget._held_tokens.admits(tokens, used, limit)
    except (TypeError, ArithmeticError, ValueError):
        room = True  # the reservation fails just so
    return m.never if room else stops_to_wait()


class Client:
    """One side: a pass, an account, rates and the shares held, with what the caller brings."""

    def __init__(self, m: Any, cap: Any, kept: bool, foreign: bool) -> None:
        self.m, self.day, self.broken, self.foreign = m, "1", None, foreign
        self.spend = m.DailySpend(cap, self.today, self.ledger if kept else None)
        self.rates, self.held, self.admitted, self.logged = m.RequestRates(), [], [], []
        self.new_pass((20, 100))

    def warning(self, *args: object, exc_info: bool = False) -> None:
        self.logged.append((args, exc_info and sys.exc_info()[0]))

    def today(self) -> str:
        if self.broken is fail:
            self.broken = fail()
        return self.day

    def ledger(self, day: str) -> Any:
        broken, self.broken = self.broken, None
        if broken is KeyboardInterrupt:
            raise KeyboardInterrupt
        if broken in (AsksBack, LetsGo):
            return self.let_go() if broken is LetsGo else self.spend.charge(Reply(cost=0.5)) or 1.5
        return 0.5 * int(day) if broken is None else broken

    def stop(self, end: str) -> Any:
        """Where a reservation would wait, but for the first two."""
        goes_on, later = iter([False]), {"late": fail, "let go": self.let_go}
        if end in later:
            return lambda: next(goes_on, None) is None and later[end]()
        return {"stop": lambda: True, "fail": fail}.get(end)

    def let_go(self) -> None:
        for bound in (self.budget, self.spend):
            if bound._changed._is_owned():
                bound._changed.release()

    def given(self, reply: Any) -> Any:
        return reply(self) if reply in (AsksBack, LetsGo) else reply

    def hold(self, amount: Any, end: str) -> object:
        self.budget.should_stop = self.stop(end) or never_waits(self.m, self.budget, amount)
        self.held.append(self.budget.hold(amount))
        return self.budget.in_flight

    def reserve(self, amount: Any, end: str) -> object:
        self.budget.should_stop = self.stop(end) or stops_to_wait()
        return self.budget.reserve(amount)

    def end_call(self, number: int, reply: Any) -> object:
        if not self.held:
            self.hold(1, "")
        with self.held.pop(number % len(self.held)) as share:
            return share.settle(self.given(reply))

    def charge(self, reply: Any, amount: Any) -> object:
        return self.budget.charge(self.given(reply), amount)

    def release(self, amount: Any) -> object:
        return self.budget.release(amount)

    def new_pass(self, limits: Any) -> None:
        self.budget, self.held = self.m.RunBudget(*limits), []
        if self.foreign:  # the conditions are used through their methods
            self.budget._changed, self.spend._changed = threading.Condition(), threading.Condition()

    def admit(self, bound: Any, end: str) -> object:
        ends = {"stop": {"stopping": lambda: [1]}, "fail": {"stopping": fail},
                "late": {"clock": fail}, "let go": {"stopping": self.let_go}}  # fmt: skip
        if isinstance(bound, Learned):
            bound = functools.partial(self.rates.cost, bound.size, bound.feature)
        elif bound in (AsksBack, LetsGo):
            back = self.let_go if bound is LetsGo else self.spend.spent
            bound = lambda: (back() or 0.0) + 1.0  # noqa: E731
        self.admitted.append(admit(self.spend, bound, **ends.get(end, {})))
        return self.spend._held.holders

    def end_paid(self, number: int, reply: Any) -> object:
        if not self.admitted:
            self.admit(0.5, "")
        with self.admitted.pop(number % len(self.admitted)) as share:
            return share.settle(self.given(reply))

    def charge_day(self, reply: Any) -> object:
        return self.spend.charge(self.given(reply))

    def turn_of_the_day(self, day: str, broken: Any) -> None:
        self.day, self.broken = day, broken

    def learn(self, size: Any, feature: str, reply: Any) -> object:
        return self.rates.learn(size, feature, self.given(reply))

    def ask(self, size: Any, feature: str) -> object:
        return self.rates.cost(size, feature), self.rates.tokens(size)

    def tally(self, share: Any, used: Any, limit: Any) -> object:
        """The budget's own, asked as anybody may."""
        tally = self.budget._held_tokens
        calls = (tally.admits, share, used, limit), (tally.take, share), (tally.give_back, used)
        return [outcome(call, *args) for call, *args in calls]

    def record(self, size: Any, charge: Any) -> object:
        record = self.rates._cost
        return [outcome(record.bound, size), outcome(record.learn, size, charge)]

    def wait(self, deadline: Any, now: Any, poll: Any) -> object:
        """With a time between two looks that is read once the stop was asked."""
        slept: list[Any] = []
        room = SimpleNamespace(wait=lambda timeout: slept.append(timeout))
        with mock.patch.object(self.m, "_POLL_S", 0.1):
            stopping = functools.partial(setattr, self.m, "_POLL_S", poll)
            self.m._wait(room, stopping, deadline=deadline, clock=lambda: now)
        return slept

    def assign(self, field: str, value: Any) -> None:
        """Fields are anybody's to write."""
        owner, _, name = field.rpartition(".")
        setattr(operator.attrgetter(owner)(self), name, value)

    def report(self) -> object:
        return self.budget.exhausted(), self.budget.summary(), self.spend.spent()

    def state(self) -> str:
        rates = self.rates
        owned = [bound._changed._is_owned() for bound in (self.budget, self.spend)]
        learned = f"{rates._cost!r} {rates._tokens!r} {sorted(rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned} {self.logged} {owned}"


def live(cap: Any, kept: bool, foreign: bool, steps: Iterable[Step]) -> None:
    """Each side has copies of its own: a list that is added to grows."""
    sides = [Client(m, deepcopy(cap), kept, foreign) for m in (bounds, model)]
    with (
        mock.patch.object(bounds, "logger", sides[0]),
        mock.patch.object(model, "logger", sides[1]),
    ):
        for name, *arguments in steps:
            ours, theirs = (
                f"{outcome(getattr(side, name), *deepcopy(arguments))}\n{side.state()}"
                for side in sides
            )
            assert ours == theirs, f"{name} {arguments}:\n{ours}\n{theirs}"
