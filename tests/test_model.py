"""The module against its plain-Python model: any sequence of steps comes to the same on both.

No step blocks: whoever would wait for room is told to stop, or finds its deadline past.
"""

import functools
import math
import sys
from typing import Any

import plain_bounds as model
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from support import Reply, admit, never_waits, outcome, state, stops_to_wait

from korvane.engines import decision_bounds as bounds


def mostly(*usual: Any, rarely: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    """One of the usual values, but for one time in eight."""
    return st.integers(0, 7).flatmap(lambda n: rarely if n == 7 else st.sampled_from(usual))


def step(name: str, *arguments: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    return st.tuples(st.just(name), *arguments)


def rare(*values: Any) -> st.SearchStrategy[Any]:
    return st.sampled_from(values)


# So that most steps find a pass and a day that are alive: ends are rare, and a new pass begins.
calls = mostly(8, 20, math.inf, rarely=rare(0, 1))
limits = mostly(50, 100, 1e3, rarely=rare(0, 0.5))
tokens = mostly(1, 5.0, 12, 0.25, rarely=rare(0, -1.5, math.inf))
costs = mostly(0.1, 0.25, 1, 2.5, rarely=rare(0, 0.0, -0.5, math.inf))
paid = st.builds(Reply, mostly(False, rarely=st.just(0)), st.integers(0, 30), costs)
cached = st.builds(Reply, mostly(True, rarely=st.just([1])), st.integers(0, 30), costs)
broken = rare(object(), Reply(0, "many", 1.0), Reply(0, 1, "dear"), Reply(0, None, None))
replies = st.one_of(paid, paid, cached, mostly(Reply(), rarely=broken), broken)
endings = st.one_of(st.none(), replies, replies)
number, stop = st.integers(0, 9), mostly(False, rarely=st.just(True))
sizes, features = st.integers(-1, 300), st.sampled_from("abc")
STEPS = st.one_of(
    step("hold", tokens, stop), step("hold", tokens, stop), step("reserve", tokens, stop),
    step("end_call", number, endings), step("end_call", number, endings),
    step("charge", replies, tokens), step("release", tokens), step("report"),
    step("admit", costs, stop), step("admit", st.tuples(sizes, features), stop),
    step("end_paid", number, endings), step("end_paid", number, endings),
    step("charge_day", replies), step("learn", sizes, features, replies),
    step("ask", sizes, features), step("new_pass", calls, limits),
    step("turn_of_the_day", st.sampled_from("1234"),
         mostly(None, rarely=rare("x", "2.5", b"", KeyboardInterrupt, LookupError))),
)  # fmt: skip


class Client:
    """One side: a pass, an account, rates and the shares held, with what the caller brings."""

    def __init__(self, m: Any, cap: Any, kept: bool) -> None:
        self.m, self.day, self.broken = m, "1", None
        self.spend = m.DailySpend(cap, self.today, self.ledger if kept else None)
        self.budget, self.rates = m.RunBudget(20, 100), m.RequestRates()
        self.held: list[Any] = []
        self.admitted: list[Any] = []
        self.logged: list[object] = []

    def warning(self, *args: object, exc_info: bool = False) -> None:
        self.logged.append((args, exc_info and sys.exc_info()[0]))

    def today(self) -> str:
        if self.broken is LookupError:
            self.broken = None
            raise LookupError("no date")
        return self.day

    def ledger(self, day: str) -> Any:
        broken, self.broken = self.broken, None
        if broken is KeyboardInterrupt:
            raise KeyboardInterrupt
        return 0.5 * int(day) if broken is None else broken

    def hold(self, amount: Any, stop: bool) -> object:
        never = never_waits(self.m, self.budget, amount)
        self.budget.should_stop = (lambda: True) if stop else never
        self.held.append(self.budget.hold(amount))
        return self.budget.in_flight

    def reserve(self, amount: Any, stop: bool) -> object:
        self.budget.should_stop = (lambda: True) if stop else stops_to_wait()
        return self.budget.reserve(amount)

    def admit(self, bound: Any, stop: bool) -> object:
        ask = functools.partial(self.rates.cost, *bound) if isinstance(bound, tuple) else bound
        self.admitted.append(admit(self.spend, ask, stopping=lambda: stop))
        return self.spend._held.holders

    def end_call(self, number: int, reply: Any) -> object:
        if not self.held:
            self.hold(1, False)
        with self.held.pop(number % len(self.held)) as share:
            return share.settle(reply)

    def end_paid(self, number: int, reply: Any) -> object:
        if not self.admitted:
            self.admit(0.5, False)
        with self.admitted.pop(number % len(self.admitted)) as share:
            return share.settle(reply)

    def charge(self, reply: Any, amount: Any) -> object:
        return self.budget.charge(reply, amount)

    def release(self, amount: Any) -> object:
        return self.budget.release(amount)

    def report(self) -> object:
        return self.budget.exhausted(), self.budget.summary(), self.spend.spent()

    def charge_day(self, reply: Any) -> object:
        return self.spend.charge(reply)

    def learn(self, size: int, feature: str, reply: Any) -> object:
        return self.rates.learn(size, feature, reply)

    def ask(self, size: int, feature: str) -> object:
        return self.rates.cost(size, feature), self.rates.tokens(size)

    def new_pass(self, calls: Any, tokens: Any) -> None:
        self.budget, self.held = self.m.RunBudget(calls, tokens), []

    def turn_of_the_day(self, day: str, broken: Any) -> None:
        self.day, self.broken = day, broken

    def state(self) -> str:
        rates = self.rates
        learned = f"{rates._cost!r} {rates._tokens!r} {sorted(rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned} {self.logged}"


@settings(max_examples=120, deadline=None)
@given(
    mostly(12, 55.5, 100.0, rarely=rare(0)),
    st.booleans(),
    st.lists(STEPS, min_size=20, max_size=60),
)
def test_both_sides(cap: Any, kept: bool, steps: list[tuple[Any, ...]]) -> None:
    ours, theirs = sides = [Client(m, cap, kept) for m in (bounds, model)]
    with pytest.MonkeyPatch.context() as patch:
        for side in sides:
            patch.setattr(side.m, "logger", side)
        for name, *arguments in steps:
            one, other = (outcome(getattr(side, name), *arguments) for side in sides)
            assert one == other
            assert ours.state() == theirs.state()
