"""What a process and its store say to each other, and what a store is."""

from __future__ import annotations

import math
from collections.abc import Iterator, Sequence
from dataclasses import dataclass
from enum import IntEnum
from typing import Any, Protocol

from korvane.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    DecisionUnavailable,
    PaidReply,
)

NANO = 1_000_000_000
LIMIT_S = 1.0  # of a request, where nobody is in a greater hurry
# Whoever says more than a million dollars means "all there is"; thousands of them still add up.
_MOST = 1_000_000 * NANO


class AccountError(DecisionError):
    """Raised where an account cannot be used, and trying again would not help."""


class AccountSilent(DecisionUnavailable):
    """Raised where the store of an account does not answer now."""


class CapReached(DecisionBudgetExceeded):
    """Raised where the day's cap refuses a call, and not the budget of its pass."""


def nano(usd: float) -> int:
    """USD as whole nano-dollars: the nearest, but never nothing for something."""
    if math.isnan(usd) or usd < 0:
        raise ValueError(f"not an amount of USD: {usd!r}")
    if usd * NANO >= _MOST:
        return _MOST
    return max(round(usd * NANO), 1 if usd else 0)


def reply_cost(reply: PaidReply) -> int:
    """What a reply cost, in nano-dollars; ValueError or TypeError where it does not say."""
    if not 0 <= reply.cost < math.inf:
        raise ValueError(f"a reply cannot have cost {reply.cost!r} USD")
    return nano(reply.cost)


class State(IntEnum):
    """What becomes of a call. It only ever rises, whatever is sent twice or late."""

    OPEN = 0
    LOST = 1
    UNPAID = 2
    PAID = 3


@dataclass(frozen=True, slots=True)
class Opening:
    """A call that asks for admission. ``held`` is what it may cost, in nano-dollars (None: not
    known), ``cost`` what it counts if it is lost (None: all that is left of the cap)."""

    id: str
    held: int | None
    cost: int | None
    name: str
    feature: str
    patience: float  # seconds after which it has ended, if it is still open
    limit: float = math.inf  # seconds after which nobody waits for the answer any more


@dataclass(frozen=True, slots=True)
class Maxima:
    """The most that the paid replies came to, in USD and in input tokens."""

    cost_per_byte: float = 0.0
    cost_per_call: float = 0.0
    tokens_per_byte: float = 0.0
    tokens_per_call: int = 0

    @classmethod
    def of(cls, size: int, cost: float, tokens: float) -> Maxima:
        tokens = min(math.ceil(tokens), _MOST)
        return cls(cost / max(size, 1), cost, tokens / max(size, 1), tokens)

    def raised_to(self, other: Maxima) -> Maxima:
        return Maxima(
            max(self.cost_per_byte, other.cost_per_byte),
            max(self.cost_per_call, other.cost_per_call),
            max(self.tokens_per_byte, other.tokens_per_byte),
            max(self.tokens_per_call, other.tokens_per_call),
        )


@dataclass(frozen=True, slots=True)
class Ending:
    """How a call ended, and what is learned from its reply. ``cost`` is in nano-dollars."""

    id: str
    state: State
    cost: int
    name: str
    feature: str
    learned: Maxima | None = None


@dataclass(frozen=True, slots=True)
class Answer:
    """What an admission came to: ``state`` is None where there was no room. ``paid`` and ``cap``
    are those of ``today``, in nano-dollars."""

    state: State | None
    today: str
    paid: int
    cap: int
    maxima: Maxima


@dataclass(frozen=True, slots=True)
class Sums:
    """The account today, in nano-dollars; ``paid`` includes what is ``lost``."""

    cap: int
    holders: int
    held: int
    paid: int
    lost: int


@dataclass(frozen=True, slots=True)
class Books:
    """What the calls of one name came to on one day. Amounts are USD."""

    day: str
    name: str
    calls: int
    held: float  # in all, by one call after the other
    in_flight: float  # what is held by the calls that are open
    paid: float  # what was lost is in it
    lost: float  # of calls that never said how they ended
    dearest: float
    beyond: float  # what calls cost more than they held; all of a charge, which held nothing


class Store(Protocol):
    """Where the calls of an account are rows. A request is carried out as a whole or not at all,
    once however often it is sent, and raises :class:`AccountSilent` where the store has not
    answered within ``LIMIT_S``: it may have been carried out all the same. Any thread may call."""

    process: str  # names this process in its rows; another after a fork
    lanes: int  # how many requests at once are of use

    def open(self, cap: int | None) -> int:
        """Make the account (not where ``cap`` is None), or bring it up to date; its cap."""

    def admit(self, call: Opening) -> Answer: ...
    def settle(self, calls: Sequence[Ending]) -> None: ...
    def look(self) -> Sums: ...
    def known(self) -> tuple[Maxima, frozenset[str]]:
        """The maxima, and the features that have had a paid reply."""

    def books(self, days: int) -> list[Books]:
        """The books of so many days up to today."""

    def set_cap(self, cap: int) -> None: ...
    def prune(self, days: int) -> int:
        """Delete the ended calls of all but the last so many days; how many there were."""

    def table(self) -> Iterator[tuple[Any, ...]]:
        """Today's calls by name, feature and state: their number, what they count or hold (None:
        unknown), and the age of the oldest in seconds."""

    def forked(self) -> None:
        """Forget the parent's connections without closing them."""

    def close(self) -> None: ...
