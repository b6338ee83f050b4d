"""The module against its plain-Python model: a million calls with odd numbers, replies that lie and
callables that fail come to the same on both, after every one of them."""

import math
import random
from collections.abc import Iterator
from typing import Any

from support import Reply
from support.client import EDGES, FIELDS, STRANGE, AsksBack, Learned, LetsGo, fail, live, unread

OPERATIONS, LIFE = 1_000_000, 40  # operations in all, and on one pair of clients
USUAL: list[Any] = [0, 1, 2, 3, 5, 7, 20, 0.0, 0.1, 0.25, 1.0, 2.5, math.inf]
ODD = [*EDGES, *STRANGE]
BROKEN = [*map(unread, ("cached", "input_tokens", "cost")), object(), AsksBack, LetsGo]


class Chance(random.Random):
    """What a life is made of: how odd it is, and each of its steps."""

    def __init__(self, seed: int) -> None:
        super().__init__(seed)
        self.oddness = self.choice([0.0, 0.02, 0.2])

    def odd(self) -> bool:
        return self.random() < self.oddness

    def number(self, *usual: Any) -> Any:
        return self.choice(ODD if self.odd() else usual or USUAL)

    def reply(self) -> Any:
        if self.odd() and self.random() < 0.5:
            return self.choice(BROKEN)
        return Reply(
            self.choice([False, False, False, True, 0, "yes"]), self.number(), self.number()
        )

    def bound(self) -> Any:
        if self.random() < 0.3:
            return Learned(self.number(10), self.choice("ab"))
        return self.choice([fail, AsksBack, LetsGo]) if self.odd() else self.number()

    def end(self) -> str:
        return self.choice(["stop", "fail", "late", "let go"]) if self.random() < 0.1 else ""

    def ending(self) -> Any:
        return None if self.random() < 0.2 else self.reply()

    def steps(self) -> Iterator[tuple[Any, ...]]:
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
            "report": lambda: (),
            "turn_of_the_day": lambda: (
                self.choice("123"),
                self.choice(["x", "2.5", KeyboardInterrupt, fail]) if self.odd() else None,
            ),
        }
        if self.oddness:
            makes["assign"] = lambda: (self.choice(FIELDS), self.number(*USUAL, *ODD))
            makes["new_pass"] = lambda: ((self.number(3, 8, 10**9, 20.0, math.inf), self.number()),)
        often = ("hold", "admit", "end_call", "end_paid")
        for name in self.choices([*makes, *often, *often], k=LIFE):
            yield name, *makes[name]()


def check() -> str:
    for seed in range(OPERATIONS // LIFE):
        chance = Chance(seed)
        try:
            live(chance.number(10), chance.random() < 0.5, chance.random() < 0.1, chance.steps())
        except AssertionError as error:
            error.add_note(f"in life {seed}")
            raise
    return f"{OPERATIONS:,} operations on both sides, no difference"
