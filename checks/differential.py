"""The module against its plain-Python model: a million calls with odd numbers, replies that lie and
callables that fail come to the same on both, after every one of them."""

import logging
import math
import random
from collections.abc import Callable
from decimal import Decimal
from fractions import Fraction
from types import ModuleType
from typing import Any

import plain_bounds as model
from support import Reply, admit, never_waits, outcome, state

from korvane.engines import decision_bounds as bounds

OPERATIONS, LIFE = 1_000_000, 40  # operations in all, and on one pair of clients


class Whole(int):
    pass


class Real(float):
    pass


USUAL: list[Any] = [0, 1, 2, 3, 5, 7, 20, 0.0, 0.1, 0.25, 1.0, 2.5, math.inf]
ODD: list[Any] = [
    *(True, False, -1, -0.5, -0.0, 10**40, -(10**40), 2**63 - 1, -(2**63), 2**63, 2**53 + 1, 1e308),
    *(-math.inf, math.nan, 5e-324, Fraction(1, 3), Fraction(6, 2), Decimal("0.1"), Decimal(3)),
    *(Whole(3), Real(0.5), 1j, "1", None, b"2"),
]


class Records(logging.Handler):
    def __init__(self) -> None:
        super().__init__()
        self.seen: list[str] = []

    def emit(self, record: logging.LogRecord) -> None:
        error = record.exc_info and record.exc_info[0]
        self.seen.append(repr((record.getMessage(), record.args, error)))


class Client:
    """One side: a pass, an account and rates, made and used as `chance` says."""

    def __init__(self, m: ModuleType, seed: int) -> None:
        self.m, self.chance = m, random.Random(seed)
        self.oddness = self.chance.choice([0.0, 0.02, 0.2])
        self.day = "1"
        limits = [self.chance.choice([3, 8, 10**9, 20.0, math.inf]), self.number(50)]
        self.budget = m.RunBudget(*limits)
        ledger = self.ledger if self.chance.random() < 0.5 else None
        self.spend = m.DailySpend(self.number(10), self.today, ledger)
        self.rates, self.shares = m.RequestRates(), []
        self.records = Records()

    def number(self, usual: Any = None) -> Any:
        if self.chance.random() < self.oddness:
            return self.chance.choice(ODD)
        return self.chance.choice(USUAL) if usual is None else usual

    def flag(self) -> Any:
        return self.chance.choice([False, False, False, True, 0, "yes"])

    def reply(self) -> Any:
        kind = self.chance.random()
        if kind < 0.2:
            return None
        if kind < 0.2 + self.oddness / 4:
            return object()
        return Reply(self.flag(), self.number(), self.number())

    def today(self) -> Any:
        if self.chance.random() < 0.02:
            raise LookupError("no date")
        return self.day

    def ledger(self, day: str) -> Any:
        if self.chance.random() < 0.1:
            raise KeyboardInterrupt
        return self.number(float(day) / 4)

    def hold(self) -> object:
        tokens = self.number()
        self.budget.should_stop = self.m.never
        self.budget.should_stop = never_waits(self.m, self.budget, tokens)
        self.shares.append(self.budget.hold(tokens))
        return self.budget.in_flight

    def reserve(self) -> object:
        tokens = self.number()
        self.budget.should_stop = never_waits(self.m, self.budget, tokens)
        return self.budget.reserve(tokens)

    def admit(self) -> object:
        size, feature = self.number(10), self.chance.choice("ab")
        bound = self.number() if self.chance.random() < 0.7 else None
        stop = self.flag()
        self.shares.append(
            admit(
                self.spend,
                lambda: self.rates.cost(size, feature) if bound is None else bound,
                stopping=lambda: stop,
            )
        )
        return self.shares[-1]._give_back.args

    def end(self) -> object:
        if not self.shares:
            return None
        number = self.chance.randrange(len(self.shares))
        share = self.shares.pop(number) if self.chance.random() < 0.8 else self.shares[number]
        reply = self.reply()
        if self.chance.random() < 0.5:
            return share.settle(reply)
        with share:
            return share.settle(reply) if self.chance.random() < 0.5 else None

    def charge(self) -> object:
        return self.budget.charge(self.reply(), self.number())

    def release(self) -> object:
        return self.budget.release(self.number())

    def count(self) -> object:
        return self.spend.charge(self.reply())

    def learn(self) -> object:
        return self.rates.learn(self.number(10), self.chance.choice("ab"), self.reply())

    def ask(self) -> object:
        size = self.number(10)
        return self.rates.cost(size, self.chance.choice("ab")), self.rates.tokens(size)

    def report(self) -> object:
        return self.budget.exhausted(), self.budget.summary(), self.spend.spent()

    def turn(self) -> object:
        self.day = self.chance.choice("123")
        return self.spend.spent()

    def assign(self) -> None:
        """Fields are anybody's to write."""
        if self.chance.random() < self.oddness:
            names = ["calls", "input_tokens", "cost", "cache_hits", "in_flight", "max_tokens"]
            setattr(self.budget, self.chance.choice(names), self.number())
        if self.chance.random() < self.oddness:
            tally = self.chance.choice([self.budget._held_tokens, self.spend._held])
            setattr(tally, self.chance.choice(["holders", "amount", "unbounded"]), self.number())

    def held(self) -> str:
        return f"{self.budget.in_flight!r} {self.budget._held_tokens!r} {self.spend._held!r}"

    def state(self) -> str:
        learned = f"{self.rates._cost} {self.rates._tokens} {sorted(self.rates._features)}"
        return f"{state(self.budget)} {state(self.spend)} {learned} {len(self.records.seen)}"


ADMISSIONS = Client.hold, Client.reserve, Client.admit
STEPS: list[Callable[[Client], object]] = [
    *[Client.hold, Client.admit, Client.end, Client.end] * 2,
    *(Client.reserve, Client.charge, Client.release, Client.count, Client.learn, Client.ask),
    *(Client.report, Client.turn, Client.assign),
]


def live(seed: int) -> None:
    sides = [Client(m, seed) for m in (bounds, model)]
    for side in sides:
        side.m.logger.handlers[:] = [side.records]
    steps = random.Random(seed).choices(STEPS, k=LIFE)
    for number, step in enumerate(steps):
        before = sides[0].held()
        ours, theirs = (f"{outcome(step, side)}; {side.state()}" for side in sides)
        story = f"life {seed}, step {number}, {step.__name__}:\n{ours}\n{theirs}"
        assert ours == theirs, story
        if step in ADMISSIONS and not ours.startswith("returned"):
            assert sides[0].held() == before, f"{story}\n{before} was held"
    assert sides[0].records.seen == sides[1].records.seen, f"life {seed}"


def check() -> str:
    for m in (bounds, model):
        m.logger.propagate = False
    for seed in range(OPERATIONS // LIFE):
        live(seed)
    return f"{OPERATIONS:,} operations on both sides, no difference"
