"""The module against its plain-Python model: any sequence of calls comes to the same on both.

The machine never blocks: whoever would wait for room is told to stop, or finds its deadline past.
"""

import logging
import math
from collections.abc import Callable
from typing import Any

import plain_bounds as model
from hypothesis import settings
from hypothesis import strategies as st
from hypothesis.stateful import RuleBasedStateMachine, initialize, invariant, rule
from support import Reply, never_waits, outcome, state, stops_to_wait

from korvane.engines import decision_bounds as bounds

tokens = st.sampled_from([0, 0.0, 1, 5.0, 40, math.inf])
costs = st.sampled_from([0, 0.0, 0.1, 0.25, 1, 3.5, math.inf])
replies = st.builds(Reply, st.sampled_from([False, False, True]), st.integers(0, 30), costs)
broken = st.sampled_from(
    [object(), Reply(0, "many", 1.0), Reply(0, 1, "dear"), Reply(0, None, None)]
)
endings = st.none() | replies | replies | broken
sizes, features = st.integers(-1, 300), st.sampled_from(["a", "b", "c"])


class Records(logging.Handler):
    def emit(self, record: logging.LogRecord) -> None:
        error = record.exc_info and record.exc_info[0]
        self.seen.append((record.levelname, record.getMessage(), error))

    def __init__(self) -> None:
        super().__init__()
        self.seen: list[object] = []


class Client:
    """One side: a pass, an account, rates and the shares held, with what the caller brings."""

    def __init__(self, m: Any, limits: tuple[Any, Any], cap: Any, kept: bool) -> None:
        self.m, self.day, self.broken, self.stop = m, "1", None, False
        self.budget = m.RunBudget(*limits)
        self.spend = m.DailySpend(cap, self.today, self.ledger if kept else None)
        self.rates, self.shares = m.RequestRates(), []

    def today(self) -> str:
        if self.broken == "today":
            raise LookupError("no date")
        return self.day

    def ledger(self, day: str) -> Any:
        if self.broken == "interrupt":
            raise KeyboardInterrupt
        return 0.5 * int(day) if self.broken is None else self.broken

    def hold(self, amount: Any) -> object:
        never = never_waits(self.m, self.budget, amount)
        self.budget.should_stop = (lambda: True) if self.stop else never
        self.shares.append(self.budget.hold(amount))
        return self.budget.in_flight

    def reserve(self, amount: Any) -> object:
        self.budget.should_stop = (lambda: True) if self.stop else stops_to_wait()
        return self.budget.reserve(amount)

    def admit(self, bound: Callable[["Client"], float]) -> object:
        asks = {"deadline": 1.0, "clock": lambda: 1.0, "stopping": lambda: self.stop}
        self.shares.append(self.spend.admit(lambda: bound(self), **asks))
        return self.shares[-1]._give_back.args

    def end(self, number: int, reply: Any) -> object:
        if not self.shares:
            return None
        with self.shares[number % len(self.shares)] as share:
            return share.settle(reply)

    def state(self) -> str:
        rates = self.rates
        learned = f"{rates._cost!r} {rates._tokens!r} {sorted(rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned}"


class BothSides(RuleBasedStateMachine):
    @initialize(
        limits=st.tuples(st.sampled_from([0, 3, 8, math.inf]), st.sampled_from([0, 20, 100, 1e3])),
        cap=st.sampled_from([0, 2, 5.5, 100.0]),
        kept=st.booleans(),
    )
    def start(self, limits: tuple[Any, Any], cap: Any, kept: bool) -> None:
        self.sides = [Client(m, limits, cap, kept) for m in (bounds, model)]
        self.records = Records(), Records()
        for records, m in zip(self.records, (bounds, model), strict=True):
            m.logger.addHandler(records)

    def teardown(self) -> None:
        for records, m in zip(getattr(self, "records", ()), (bounds, model), strict=False):
            m.logger.removeHandler(records)

    def both(self, call: Callable[[Client], object]) -> None:
        ours, theirs = (outcome(call, side) for side in self.sides)
        assert ours == theirs

    @invariant()
    def same(self) -> None:
        ours, theirs = (side.state() for side in self.sides)
        assert ours == theirs
        assert self.records[0].seen == self.records[1].seen

    @rule(amount=tokens)
    def hold(self, amount: Any) -> None:
        self.both(lambda side: side.hold(amount))

    @rule(amount=tokens)
    def reserve(self, amount: Any) -> None:
        self.both(lambda side: side.reserve(amount))

    @rule(bound=costs)
    def admit(self, bound: Any) -> None:
        self.both(lambda side: side.admit(lambda _: bound))

    @rule(size=sizes, feature=features)
    def admit_learned(self, size: int, feature: str) -> None:
        self.both(lambda side: side.admit(lambda client: client.rates.cost(size, feature)))

    @rule(number=st.integers(0, 9), reply=endings)
    def end(self, number: int, reply: Any) -> None:
        self.both(lambda side: side.end(number, reply))

    @rule(reply=replies | broken, amount=tokens)
    def charge_pass(self, reply: Any, amount: Any) -> None:
        self.both(lambda side: side.budget.charge(reply, amount))

    @rule(amount=tokens)
    def release(self, amount: Any) -> None:
        self.both(lambda side: side.budget.release(amount))

    @rule()
    def report(self) -> None:
        self.both(lambda side: (side.budget.exhausted(), side.budget.summary(), side.spend.spent()))

    @rule(reply=replies | broken)
    def charge_day(self, reply: Any) -> None:
        self.both(lambda side: side.spend.charge(reply))

    @rule(size=sizes, feature=features, reply=replies | broken)
    def learn(self, size: int, feature: str, reply: Any) -> None:
        self.both(lambda side: side.rates.learn(size, feature, reply))

    @rule(size=sizes, feature=features)
    def ask(self, size: int, feature: str) -> None:
        self.both(lambda side: (side.rates.cost(size, feature), side.rates.tokens(size)))

    @rule(day=st.sampled_from("1234"), broken=st.sampled_from([None, None, "x", "2.5", b"", "today",
                                                               "interrupt"]))  # fmt: skip
    def turn_of_the_day(self, day: str, broken: Any) -> None:
        for side in self.sides:
            side.day, side.broken = day, broken

    @rule(stop=st.booleans())
    def ask_to_stop(self, stop: bool) -> None:
        for side in self.sides:
            side.stop = stop


TestBothSides = BothSides.TestCase
TestBothSides.settings = settings(max_examples=120, stateful_step_count=40, deadline=None)
