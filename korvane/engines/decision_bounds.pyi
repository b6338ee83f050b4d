"""The bounds a decision client keeps on what it pays: the errors that end a call, the budget of a
batch pass and the daily cost cap.

A paid call holds a :class:`Share` of each bound it counts against from the moment it is admitted
until it ends, and gives it back exactly once, whatever ends it: what it may cost of the day's cap,
and what it may use of its pass's tokens. A call is admitted only while what the settled calls used
plus what the admitted calls hold stays below the bound, so calls in flight at once cannot all pass
a check that each would pass alone. A call that the calls in flight leave no room for waits for one
of them to end: a tool's call no longer than its deadline, a batch pass's call until its pass
stops. It is refused only when what was settled fills the bound. A call is counted on the day it
settles (the ledger dates a paid reply when it is recorded), so a call admitted before midnight
holds its share of the new day.

What a call may cost is not known before its reply: :class:`RequestRates` holds it at the most one
paid call has cost so far. A feature's first call, before any reply of that feature has a cost,
holds the whole of what is left and runs alone. The cost of a reply includes its output, which
nothing bounds before it comes, so a call may cost more than the most any call cost before it:

    The settled spend of a day passes the cap by at most the cost of one call, plus what each call
    that costs more than the most an earlier call cost costs above that most. Such calls are the
    ones in flight when the most is raised: the calls admitted once a dearer reply has settled
    hold its cost. While no call costs more than the dearest earlier one, the day stops within one
    call of the cap.
"""

from __future__ import annotations

import functools
import logging
import math
import threading
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, Protocol

from typing_extensions import disjoint_base

logger = logging.getLogger(__name__)
_POLL_S = 0.1

class DecisionError(RuntimeError):
    """Raised when a decision call fails (after retries)."""

class DecisionBudgetExceeded(DecisionError):
    """Raised when a ``RunBudget`` or the daily cost cap would be exceeded by another call."""

class DecisionUnavailable(DecisionError):
    """Raised while the endpoint refuses requests: it is not asked until the window ends."""

class DecisionTimeout(DecisionError):
    """Raised when a call without a budget (a tool's) runs out of its deadline."""

class DecisionStopped(DecisionError):
    """Raised when the pass that a call belongs to has been asked to stop."""

class PaidReply(Protocol):
    """What a bound reads of a reply (a ``DecisionResult``)."""

    @property
    def cached(self) -> bool: ...
    @property
    def input_tokens(self) -> int: ...
    @property
    def cost(self) -> float: ...

def never() -> bool:
    """A stop that never comes."""

def _nothing(_reply: PaidReply | None) -> None:
    """Give back a share of nothing."""

@disjoint_base
class Share:
    """What one admitted call holds of a bound, given back exactly once: settled with the paid
    reply that ends the call, or released when it ends without one (on leaving the ``with`` block
    that holds it, whatever ended it: an error, a stop or an interrupt)."""

    _give_back: Callable[[PaidReply | None], None] | None

    def __init__(self, give_back: Callable[[PaidReply | None], None] = _nothing) -> None:
        """Create a share.

        Args:
            give_back: Gives the share back to its bound, counting the reply (None: not paid).
        """
    def settle(self, reply: PaidReply | None) -> None:
        """Give the share back, counting ``reply`` (None: the call was not paid); a share given
        back already is not given back again."""
    def __enter__(self) -> Share: ...
    def __exit__(self, *_exc: object) -> None: ...

@disjoint_base
@dataclass
class _Held:
    holders: int = 0
    amount: float = 0.0
    unbounded: int = 0

    def admits(self, share: float, used: float, limit: float) -> bool: ...
    def take(self, share: float) -> None: ...
    def give_back(self, share: float) -> None: ...

def _wait(
    changed: threading.Condition,
    stopping: Callable[[], bool],
    *,
    deadline: float | None = None,
    clock: Callable[[], float] | None = None,
) -> None: ...

@disjoint_base
@dataclass
class _Charges:
    per_byte: float = 0.0
    per_call: float = 0.0

    def bound(self, size: int) -> float: ...
    def learn(self, size: int, charge: float) -> None: ...

@disjoint_base
class RequestRates:
    _cost: _Charges
    _tokens: _Charges
    _features: set[str]

    def __init__(self) -> None: ...
    def cost(self, size: int, feature: str) -> float: ...
    def tokens(self, size: int) -> float: ...
    def learn(self, size: int, feature: str, reply: PaidReply) -> None: ...

@disjoint_base
@dataclass
class RunBudget:
    """Bounds one batch pass: its calls, its tokens and its stop. A paid call holds a call slot and
    the tokens it may use from :meth:`hold` until its share settles (:meth:`charge` or
    :meth:`release`); cache hits are free. Once ``should_stop`` says so, no call and no retry
    starts."""

    max_calls: int
    max_tokens: int
    calls: int = 0
    input_tokens: int = 0
    cost: float = 0.0
    cache_hits: int = 0
    in_flight: int = 0
    should_stop: Callable[[], bool] = field(default=never, repr=False, compare=False)
    _held_tokens: _Held = field(default_factory=_Held, repr=False, compare=False)
    _changed: threading.Condition = field(
        default_factory=threading.Condition, repr=False, compare=False
    )

    def stopping(self) -> bool:
        """Whether the pass has been asked to stop."""
    def exhausted(self) -> bool: ...
    def _exhausted_locked(self) -> bool: ...
    def reserve(self, tokens: float = 0.0) -> None:
        """Take a call slot and ``tokens`` before a network call, waiting while the calls in flight
        hold the rest of the tokens.

        Args:
            tokens: The most input tokens the call may use; ``math.inf`` when that is not known.

        Raises:
            DecisionBudgetExceeded: No call or no token is left.
            DecisionStopped: The pass is stopping, before or while the call waits.
        """
    def hold(self, tokens: float) -> Share:
        """:meth:`reserve` a call slot and ``tokens``, as a share that settles by :meth:`charge`
        with the paid reply, or by :meth:`release` without one."""
    def release(self, tokens: float = 0.0) -> None:
        """Give a reserved slot and its ``tokens`` back after a failed call."""
    def charge(self, result: PaidReply, tokens: float = 0.0) -> None:
        """Record a completed call (settling its reserved slot and ``tokens``) or a cache hit."""
    def summary(self) -> dict[str, Any]: ...
    def _summary_locked(self) -> dict[str, Any]: ...

@disjoint_base
class DailySpend:
    """What the paid calls of each UTC day cost against ``kelv.daily_cost_cap_usd``, and what the
    calls in flight hold of it. A day starts from what the ledger says it has cost so far. The calls
    in flight hold their shares across midnight: each is counted on the day it settles."""

    _cap: float
    _today: Callable[[], str]
    _ledger: Callable[[str], float] | None
    _changed: threading.Condition
    _held: _Held
    _day: str
    _cost: float
    _capped: bool

    def __init__(
        self, cap: float, today: Callable[[], str], ledger: Callable[[str], float] | None
    ) -> None:
        """Create the day's account.

        Args:
            cap: USD the paid calls of one UTC day may cost.
            today: Today's UTC date, ``YYYY-MM-DD``.
            ledger: What the paid calls since a date cost, USD; None: nothing is kept.
        """
    def spent(self) -> float:
        """What the paid calls of today cost so far, USD."""
    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Hold what a paid call may cost before it is made.

        Args:
            bound: The most the call may cost, USD (``math.inf`` when not known), asked again
                after each wait: a reply that settles meanwhile may bound it.
            deadline: When the call ends, on ``clock``; None: it waits until a call in flight
                ends or ``stopping`` says so.
            clock: The client's monotonic clock.
            stopping: Whether the pass the call belongs to is stopping.

        Returns:
            The share held: settled with the paid reply, it counts the reply's cost today.

        Raises:
            DecisionBudgetExceeded: Today's settled calls cost the cap (warned once a day).
            DecisionTimeout: The deadline passed while the calls in flight held the rest.
            DecisionStopped: The pass is stopping.
        """
    def charge(self, reply: PaidReply) -> None:
        """Count what ``reply`` cost today without a share: an attempt of a call that settled
        with another reply, sent and never read (the endpoint may bill it)."""
    def _give_back(self, held: float, reply: PaidReply | None) -> None:
        """Give back what a call held, and count what its paid ``reply`` cost today."""
    def _today_locked(self) -> float:
        """Today's spend; a new day starts from what the ledger says it has cost so far, and keeps
        the shares of the calls in flight, which it is charged when they settle."""
    def _spent_since(self, day: str) -> float: ...
