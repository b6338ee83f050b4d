"""The module against its plain-Python model: any sequence of steps comes to the same on both,
numbers of every kind included, which keep their Python meaning.

No step blocks: whoever would wait for room is told to stop, or finds its deadline past.
"""

import functools
import math
import sys
import threading
from collections.abc import Callable, Iterator
from copy import deepcopy
from dataclasses import dataclass
from decimal import Decimal
from fractions import Fraction
from types import ModuleType
from typing import Any

import plain_bounds as model
import pytest
from hypothesis import Phase, example, given, settings
from hypothesis import strategies as st
from support import Reply, admit, fields, never_waits, outcome, state, stops_to_wait

from korvane.engines import decision_bounds as bounds

pytestmark = pytest.mark.timeout(300)  # to make a failing example small may take a while
# All but the one that explains: it traces every line.
PHASES = [phase for phase in Phase if phase is not Phase.explain]


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
number = st.sampled_from(EDGES) | st.integers(-5, 50) | st.floats(-5, 50)
value = number | number | number | st.sampled_from(STRANGE)


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


def unread(attribute: str) -> Any:
    values = {"cached": False, "input_tokens": 7, "cost": 0.5}
    return type("Unread", (), values | {attribute: property(fail)})()


@dataclass
class Learned:
    """A cost bound that is asked of the rates."""

    size: Any
    feature: str


def one(*values: Any) -> st.SearchStrategy[Any]:
    return st.sampled_from(values)


def mostly(*usual: Any, rarely: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    """One of the usual values, but for one time in eight."""
    return st.integers(0, 7).flatmap(lambda n: rarely if n == 7 else one(*usual))


def step(name: str, *arguments: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    return st.tuples(st.just(name), *arguments)


def steps(tokens: Any, used: Any, costs: Any, sizes: Any, limits: Any) -> st.SearchStrategy[Any]:
    paid = st.builds(Reply, mostly(False, rarely=st.just(0)), used, costs)
    cached = st.builds(Reply, mostly(True, rarely=st.just([1])), used, costs)
    broken = one(
        *map(unread, ("cached", "input_tokens", "cost")), AsksBack, LetsGo,
        object(), Reply(0, "many", 1.0), Reply(0, 1, "dear"), Reply(0, None, None),
    )  # fmt: skip
    replies = st.one_of(paid, paid, cached, mostly(Reply(), Reply(), AsksBack, rarely=broken))
    endings = st.one_of(st.none(), replies, replies)
    share, end = st.integers(0, 9), mostly("", rarely=one("stop", "fail", "late", "let go"))
    features, days = one("a", "b", "c"), one("1", "2", "3", "4")
    bound = st.one_of(
        costs, costs, st.builds(Learned, sizes, features), one(fail, AsksBack, LetsGo)
    )
    failures = "x", "2.5", b"", AsksBack, LetsGo, KeyboardInterrupt, fail
    return st.lists(
        st.one_of(
            step("hold", tokens, end), step("hold", tokens, end), step("reserve", tokens, end),
            step("end_call", share, endings), step("end_call", share, endings),
            step("charge", replies, tokens), step("release", tokens), step("report"),
            step("admit", bound, end), step("admit", bound, end),
            step("end_paid", share, endings), step("end_paid", share, endings),
            step("charge_day", replies), step("learn", sizes, features, replies),
            step("ask", sizes, features), step("new_pass", limits),
            step("turn_of_the_day", days, st.none() | one(*failures)),
        ), min_size=20, max_size=60,
    )  # fmt: skip


# Most steps find a pass and a day that are alive: ends are rare, and a new pass begins.
USUAL = steps(
    tokens=mostly(1, 5.0, 12, 0.25, rarely=one(0, -1.5, math.inf)),
    used=st.integers(0, 30),
    costs=mostly(0.1, 0.25, 1, 2.5, rarely=one(0, 0.0, -0.5, math.inf)),
    sizes=st.integers(-1, 300),
    limits=st.tuples(
        mostly(8, 20, math.inf, rarely=one(0, 1)), mostly(50, 100, 1e3, rarely=one(0, 0.5))
    ),
)
ODD = steps(value, value, value, value, st.lists(value, min_size=2, max_size=7))


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

    def report(self) -> object:
        return self.budget.exhausted(), self.budget.summary(), self.spend.spent()

    def state(self) -> str:
        rates = self.rates
        owned = [bound._changed._is_owned() for bound in (self.budget, self.spend)]
        learned = f"{rates._cost!r} {rates._tokens!r} {sorted(rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned} {self.logged} {owned}"


Steps = list[tuple[Any, ...]]
how = st.tuples(st.booleans(), mostly(False, False, True, rarely=st.just(True)))


def both_sides(cap: Any, how: tuple[bool, bool], steps: Steps) -> None:
    # Each side has copies of its own: a list that is added to grows.
    ours, theirs = sides = [Client(m, deepcopy(cap), *how) for m in (bounds, model)]
    with pytest.MonkeyPatch.context() as patch:
        for side in sides:
            patch.setattr(side.m, "logger", side)
        for name, *arguments in steps:
            one, other = (outcome(getattr(side, name), *deepcopy(arguments)) for side in sides)
            assert one == other
            assert ours.state() == theirs.state()


@settings(max_examples=120, deadline=None, phases=PHASES)
@given(mostly(12, 55.5, 100.0, rarely=st.just(0)), how, USUAL)
def test_both_sides(cap: Any, how: tuple[bool, bool], steps: Steps) -> None:
    both_sides(cap, how, steps)


@settings(max_examples=150, deadline=None, phases=PHASES)
@given(value, how, ODD)
@example(12, (False, False), [
    ("new_pass", [math.inf, 1e6, 2**63 - 1, 2**63 - 1, 0, 2**63 - 1]), ("end_call", 0, Reply()),
    ("new_pass", [2**53, 2**53, 2**52 - 1, 2**52 - 1, 0, 0, 2**52 - 1]),
    *[("end_call", 0, Reply(False, 2**52 - 1, 1.0))] * 3,
    ("new_pass", [math.nan, 800]), ("end_call", 0, Reply(False, True, 1.0)),
    ("new_pass", [10**40, 10**40, 0, 2**62, 1e16]), ("reserve", 2**62, ""),
    *[("end_call", 0, Reply(False, 2**62, cost)) for cost in (1.0, 1)],
])  # fmt: skip
def test_odd_numbers(cap: Any, how: tuple[bool, bool], steps: Steps) -> None:
    both_sides(cap, how, steps)


Calls = Iterator[tuple[Any, ...]]
THOROUGH = settings(max_examples=400, deadline=None, phases=PHASES)


def same(calls: Callable[..., Calls], *values: Any) -> None:
    ours, theirs = (
        [outcome(call, *args) for call, *args in calls(m, *deepcopy(values))]
        for m in (bounds, model)
    )
    assert ours == theirs


@THOROUGH
@given(st.tuples(value, value, value), st.lists(st.tuples(value, value, value), max_size=4))
@example((0, 0.0, 0), [(10**400, 0, 1)])
@example((2**63 - 1, 1, 0), [(1, 0, 5), (0.5, 0, 5)])
@example((2, 2**60, 0), [(1.5, 0, 5)])
def test_tally(start: tuple[Any, ...], uses: list[tuple[Any, ...]]) -> None:
    def calls(m: ModuleType, start: Any, uses: Any) -> Calls:
        tally, budget = m._Held(*start), m.RunBudget(9, 9, _held_tokens=m._Held(*start))
        for share, used, limit in uses:
            yield from ((tally.admits, share, used, limit), (tally.take, share), (repr, tally))
        for share, used, _ in uses:
            yield from ((tally.give_back, share), (tally.give_back, used), (repr, tally))
            yield from ((budget.release, share), (repr, budget._held_tokens))

    same(calls, start, uses)


@THOROUGH
@given(value, value, st.lists(st.tuples(value, value), max_size=4))
@example(0.0, 0.0, [(2**64, 1), (0, 10**400), (10**400, 0.5)])
@example(0.0, 2.0**53, [(1, 2**53 + 1)])
@example(2**51 + 1, 0, [(1, 2**51 - 1)])
def test_charges(per_byte: Any, per_call: Any, uses: list[tuple[Any, Any]]) -> None:
    def calls(m: ModuleType, per_byte: Any, per_call: Any, uses: Any) -> Calls:
        charges, rates = m._Charges(per_byte, per_call), m.RequestRates()
        rates._tokens = m._Charges(per_byte, per_call)
        for size, charge in uses:
            yield from ((charges.bound, size), (charges.learn, size, charge), (repr, charges))
            yield rates.learn, size, "a", Reply(False, charge, per_call)
            yield from ((rates.cost, charge, "a"), (rates.tokens, charge))
        yield fields, rates, "_cost", "_tokens", "_features"

    same(calls, per_byte, per_call, uses)


@THOROUGH
@given(value, value, value)
def test_wait(deadline: Any, now: Any, poll: Any) -> None:
    def calls(m: ModuleType, deadline: Any, now: Any, poll: Any) -> Calls:
        slept: list[Any] = []
        room = type("Room", (), {"wait": lambda self, timeout: slept.append(timeout)})()
        with pytest.MonkeyPatch.context() as patch:
            patch.setattr(m, "_POLL_S", poll)
            yield (lambda: m._wait(room, m.never, deadline=deadline, clock=lambda: now),)
        yield repr, slept

    same(calls, deadline, now, poll)
