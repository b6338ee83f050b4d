"""The module against its plain-Python model: any sequence of steps comes to the same on both.

No step blocks: whoever would wait for room is told to stop, or finds its deadline past.
"""

import math
import sys
import threading
from typing import Any

import plain_bounds as model
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st
from support import Reply, admit, never_waits, outcome, state, stops_to_wait

from korvane.engines import decision_bounds as bounds


def fail(*_: object) -> Any:
    raise ZeroDivisionError("own")


class AsksBack:
    """A reply, and whatever else a caller brings, that calls back into what asks it."""

    def __init__(self, client: "Client") -> None:
        self.client = client

    cached = property(lambda self: self.client.report() and None)  # may be read twice
    input_tokens = property(lambda self: self.client.budget.charge(Reply(False, 2, 0.25)) or 1)
    cost = property(
        lambda self: (
            self.client.budget.charge(Reply(cost=0.25))
            or self.client.spend.charge(Reply(cost=0.125))
            or 0.5
        )
    )


def unread(attribute: str) -> Any:
    values = {"cached": False, "input_tokens": 7, "cost": 0.5}
    return type("Unread", (), values | {attribute: property(fail)})()


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
broken = rare(
    *map(unread, ("cached", "input_tokens", "cost")), AsksBack, AsksBack,
    object(), Reply(0, "many", 1.0), Reply(0, 1, "dear"), Reply(0, None, None),
)  # fmt: skip
replies = st.one_of(paid, paid, cached, mostly(Reply(), Reply(), AsksBack, rarely=broken))
endings = st.one_of(st.none(), replies, replies)
number, end = st.integers(0, 9), mostly("", rarely=rare("stop", "fail at once", "fail later"))
sizes, features = st.integers(-1, 300), st.sampled_from("abc")
bounds_asked = st.one_of(costs, costs, st.tuples(sizes, features), rare(fail, AsksBack))
STEPS = st.one_of(
    step("hold", tokens, end), step("hold", tokens, end), step("reserve", tokens, end),
    step("end_call", number, endings), step("end_call", number, endings),
    step("charge", replies, tokens), step("release", tokens), step("report"),
    step("admit", bounds_asked, end), step("admit", bounds_asked, end),
    step("end_paid", number, endings), step("end_paid", number, endings),
    step("charge_day", replies), step("learn", sizes, features, replies),
    step("ask", sizes, features), step("new_pass", calls, limits),
    step("turn_of_the_day", st.sampled_from("1234"), rare(
        None, None, None, None, "x", "2.5", b"", AsksBack, KeyboardInterrupt, fail
    )),
)  # fmt: skip


class Client:
    """One side: a pass, an account, rates and the shares held, with what the caller brings."""

    def __init__(self, m: Any, cap: Any, kept: bool, foreign: bool) -> None:
        self.m, self.day, self.broken, self.foreign = m, "1", None, foreign
        self.spend = m.DailySpend(cap, self.today, self.ledger if kept else None)
        self.rates, self.held, self.admitted, self.logged = m.RequestRates(), [], [], []
        self.new_pass(20, 100)

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
        if broken is AsksBack:
            return self.spend.charge(Reply(cost=0.5)) or 1.5
        return 0.5 * int(day) if broken is None else broken

    def hold(self, amount: Any, end: str) -> object:
        self.budget.should_stop = self.stop(end) or never_waits(self.m, self.budget, amount)
        self.held.append(self.budget.hold(amount))
        return self.budget.in_flight

    def reserve(self, amount: Any, end: str) -> object:
        self.budget.should_stop = self.stop(end) or stops_to_wait()
        return self.budget.reserve(amount)

    def stop(self, end: str) -> Any:
        goes_on = iter([False])
        return {
            "stop": lambda: True,
            "fail at once": fail,
            "fail later": lambda: next(goes_on, None) is None and fail(),
        }.get(end)

    def admit(self, bound: Any, end: str) -> object:
        ends = {"stop": {"stopping": lambda: [1]}, "fail at once": {"stopping": fail},
                "fail later": {"clock": fail}}  # fmt: skip
        ask = {tuple: lambda: self.rates.cost(*bound), type: lambda: self.spend.spent() + 1.0}
        self.admitted.append(admit(self.spend, ask.get(type(bound), bound), **ends.get(end, {})))
        return self.spend._held.holders

    def end_call(self, number: int, reply: Any) -> object:
        if not self.held:
            self.hold(1, "")
        with self.held.pop(number % len(self.held)) as share:
            return share.settle(self.given(reply))

    def end_paid(self, number: int, reply: Any) -> object:
        if not self.admitted:
            self.admit(0.5, "")
        with self.admitted.pop(number % len(self.admitted)) as share:
            return share.settle(self.given(reply))

    def given(self, reply: Any) -> Any:
        return reply(self) if reply is AsksBack else reply

    def charge(self, reply: Any, amount: Any) -> object:
        return self.budget.charge(self.given(reply), amount)

    def release(self, amount: Any) -> object:
        return self.budget.release(amount)

    def report(self) -> object:
        return self.budget.exhausted(), self.budget.summary(), self.spend.spent()

    def charge_day(self, reply: Any) -> object:
        return self.spend.charge(self.given(reply))

    def learn(self, size: int, feature: str, reply: Any) -> object:
        return self.rates.learn(size, feature, self.given(reply))

    def ask(self, size: int, feature: str) -> object:
        return self.rates.cost(size, feature), self.rates.tokens(size)

    def new_pass(self, calls: Any, tokens: Any) -> None:
        self.budget, self.held = self.m.RunBudget(calls, tokens), []
        if self.foreign:  # the conditions are used through their methods
            self.budget._changed, self.spend._changed = threading.Condition(), threading.Condition()

    def turn_of_the_day(self, day: str, broken: Any) -> None:
        self.day, self.broken = day, broken

    def state(self) -> str:
        rates = self.rates
        owned = [bound._changed._is_owned() for bound in (self.budget, self.spend)]
        learned = f"{rates._cost!r} {rates._tokens!r} {sorted(rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned} {self.logged} {owned}"


@settings(max_examples=120, deadline=None)
@given(
    mostly(12, 55.5, 100.0, rarely=rare(0)),
    st.tuples(st.booleans(), mostly(False, False, True, rarely=rare(True))),
    st.lists(STEPS, min_size=20, max_size=60),
)
def test_both_sides(cap: Any, how: tuple[bool, bool], steps: list[tuple[Any, ...]]) -> None:
    ours, theirs = sides = [Client(m, cap, *how) for m in (bounds, model)]
    with pytest.MonkeyPatch.context() as patch:
        for side in sides:
            patch.setattr(side.m, "logger", side)
        for name, *arguments in steps:
            one, other = (outcome(getattr(side, name), *arguments) for side in sides)
            assert one == other
            assert ours.state() == theirs.state()
