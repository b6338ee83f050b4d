"""Lives at random of a client on the module and one on its model: see `support/client.py`."""

import math
import random
from collections.abc import Iterator
from typing import Any

from support import Reply
from support.client import (
    BROKEN,
    EDGES,
    FIELDS,
    STRANGE,
    AsksBack,
    Learned,
    LetsGo,
    Step,
    fail,
    live,
)  # fmt: skip

LENGTH = 40  # steps of a life
USUAL: list[Any] = [0, 1, 2, 3, 5, 7, 20, 0.0, 0.1, 0.25, 1.0, 2.5, math.inf]
ODD = [*EDGES, *STRANGE]


class Chance(random.Random):
    """What a life is made of: how odd it is, and each of its steps."""

    def __init__(self, seed: int) -> None:
        super().__init__(seed)
        self.oddness = self.choice([0.0, 0.02, 0.2, 0.6])

    def odd(self) -> bool:
        return self.random() < self.oddness

    def number(self, *usual: Any) -> Any:
        if not self.odd():
            return self.choice(usual or USUAL)
        return self.choice(ODD) if self.random() < 0.7 else self.uniform(-5, 50)

    def reply(self) -> Any:
        if self.odd() and self.random() < 0.5:
            return self.choice(BROKEN)
        cached = self.choice([False, False, False, True, 0, [1]])
        return Reply(cached, self.number(), self.number())

    def bound(self) -> Any:
        if self.random() < 0.3:
            return Learned(self.number(10), self.choice("ab"))
        return self.choice([fail, AsksBack, LetsGo]) if self.odd() else self.number()

    def end(self) -> str:
        return self.choice(["stop", "fail", "late", "let go"]) if self.random() < 0.1 else ""

    def ending(self) -> Any:
        return None if self.random() < 0.2 else self.reply()

    def failure(self) -> Any:
        failures = ["x", "2.5", b"", AsksBack, LetsGo, KeyboardInterrupt, fail]
        return self.choice(failures) if self.odd() else None

    def steps(self) -> Iterator[Step]:
        makes = {
            "hold": lambda: (self.number(), self.end()),
            "reserve": lambda: (self.number(), self.end()),
            "end_call": lambda: (self.randrange(10), self.ending()),
            "charge": lambda: (self.reply(), self.number()),
            "release": lambda: (self.number(),),
            "admit": lambda: (self.bound(), self.end()),
            "end_paid": lambda: (self.randrange(10), self.ending()),
            "charge_day": lambda: (self.reply(),),
            "learn": lambda: (self.number(10), self.choice("ab"), self.reply()),
            "ask": lambda: (self.number(10), self.choice("ab")),
            "tally": lambda: [self.number() for _ in range(3)],
            "record": lambda: [self.number(), self.number()],
            "wait": lambda: [self.number() for _ in range(3)],
            "report": lambda: (),
            "turn_of_the_day": lambda: (self.choice("123"), self.failure()),
        }
        if self.oddness:
            makes["assign"] = lambda: (self.choice(FIELDS), self.number(*USUAL, *ODD))
            makes["new_pass"] = lambda: (
                [self.number(3, 8, 10**9, 20.0, math.inf) for _ in range(self.randint(2, 7))],
            )
        often = ("hold", "admit", "end_call", "end_paid")
        for name in self.choices([*makes, *often, *often], k=LENGTH):
            yield name, *makes[name]()


def compare(seeds: range) -> None:
    """A life that tells the two apart is told without the steps that make no difference."""
    for seed in seeds:
        chance = Chance(seed)
        about = chance.number(10), chance.random() < 0.5, chance.random() < 0.2
        steps = list(chance.steps())
        try:
            live(*about, steps)
        except AssertionError:
            for step in steps[::-1]:
                fewer = [other for other in steps if other is not step]
                try:
                    live(*about, fewer)
                except AssertionError as still:
                    steps, difference = fewer, still
            difference.add_note("\n".join(map(str, [f"in life {seed}", about, *steps])))
            raise difference from None
