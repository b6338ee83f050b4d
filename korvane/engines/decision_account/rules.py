"""The rules of an account as statements that a store runs: the sections of ``rules.sql``."""

from __future__ import annotations

import functools
import math
import re
from abc import abstractmethod
from collections.abc import Iterator, Sequence
from datetime import UTC, datetime
from importlib.resources import files
from typing import Any

from .records import NANO, Answer, Books, Ending, Maxima, Opening, State, Store, Sums

VERSION = 1
_DAY_S = 86400
_NOTHING = dict.fromkeys(Maxima.__slots__)


def _sections() -> dict[str, list[str]]:
    text = files(__package__).joinpath("rules.sql").read_text()
    text = re.sub(r"--(?! section).*", "", text)
    parts = re.split(r"-- section: (.+)\n", text)[1:]
    return {
        name: [statement.strip() for statement in body.split(";") if statement.strip()]
        for name, body in zip(parts[::2], parts[1::2], strict=True)
    }


SECTIONS = _sections()
# What a request runs, where that is not the section of its name alone. Its answer is the rows of
# the one statement that asks.
_PARTS = {
    "admit": ["expire", "admit", "answer"],
    "settle": ["settle", "learn"],
    "look": ["expire", "look"],
    "table": ["expire", "table"],
    "books": ["expire", "books"],
}
REQUESTS = {
    name: [step for part in _PARTS.get(name, [name]) for step in SECTIONS[part]]
    for name in [*SECTIONS, *_PARTS]
}
# What follows a change of a call's row: the event, whether it concerns a row, what is done then.
TRIGGERS = [
    ("UPDATE", "OLD.state = 0", SECTIONS["uncount open"]),
    ("UPDATE", "OLD.state > 0", SECTIONS["uncount ended"]),
    ("UPDATE", "NEW.state = 0", SECTIONS["count open"]),
    ("UPDATE", "NEW.state > 0", SECTIONS["count ended"]),
    ("INSERT", "NEW.state = 0", SECTIONS["count open"]),
    ("INSERT", "NEW.state > 0", SECTIONS["count ended"]),
]


def day_of(seconds: float) -> str:
    """The UTC date of a time."""
    return _date(int(seconds // _DAY_S))


@functools.lru_cache(maxsize=16)
def _date(day: int) -> str:
    return datetime.fromtimestamp(day * _DAY_S, UTC).strftime("%Y-%m-%d")


class SqlStore(Store):
    """A store that runs the rules; a kind of it says how."""

    process: str

    @abstractmethod
    def _ask(self, request: str, *given: dict[str, Any], limit: float = math.inf) -> list[Any]:
        """Run a request for each set of parameters, in one transaction; the last rows of it."""

    def admit(self, call: Opening) -> Answer:
        state, today, paid, cap, *maxima = self._ask("admit", self._values(call), limit=call.limit)[
            0
        ]
        return Answer(None if state is None else State(state), today, paid, cap, Maxima(*maxima))

    def settle(self, calls: Sequence[Ending]) -> None:
        self._ask(
            "settle",
            *(
                self._values(call) | (_columns(call.learned) if call.learned else _NOTHING)
                for call in calls
            ),
        )

    def look(self) -> Sums:
        return Sums(*self._ask("look", {})[0])

    def known(self) -> tuple[Maxima, frozenset[str]]:
        rows = self._ask("known", {})
        features = frozenset(feature for *_, feature in rows if feature is not None)
        return Maxima(*rows[0][:-1]), features

    def books(self, days: int) -> list[Books]:
        return [
            Books(day, name, calls, *(amount / NANO for amount in amounts))
            for day, name, calls, *amounts in self._ask("books", {"days": days})
        ]

    def set_cap(self, cap: int) -> None:
        self._ask("set_cap", {"cap": cap})

    def prune(self, days: int) -> int:
        return int(self._ask("prune", {"days": days})[0][0])

    def table(self) -> Iterator[tuple[Any, ...]]:
        return iter(self._ask("table", {}))

    def _values(self, call: Opening | Ending) -> dict[str, Any]:
        return _columns(call) | {"process": self.process}


def _columns(record: Opening | Ending | Maxima) -> dict[str, Any]:
    return {
        name: getattr(record, name) for name in record.__slots__ if name not in ("learned", "limit")
    }
