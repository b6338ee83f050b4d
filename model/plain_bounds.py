"""The bounds in plain Python: the semantics of the native module in one page.

It is the model of the stateful tests and the baseline of the benchmarks, so it stays what a careful
author would write by hand: no caching, no cleverness. Docstrings and texts that only the surface
test compares are left to the native module's stub.
"""

from __future__ import annotations

import functools
import logging
import math
import threading
from collections.abc import Callable
from dataclasses import dataclass, field
from typing import Any, Protocol

logger = logging.getLogger(__name__)
_POLL_S = 0.1


class DecisionError(RuntimeError):
    pass


class DecisionBudgetExceeded(DecisionError):
    pass


class DecisionUnavailable(DecisionError):
    pass


class DecisionTimeout(DecisionError):
    pass


class DecisionStopped(DecisionError):
    pass


class PaidReply(Protocol):
    @property
    def cached(self) -> bool: ...
    @property
    def input_tokens(self) -> int: ...
    @property
    def cost(self) -> float: ...


def never() -> bool:
    return False


def _nothing(_reply: PaidReply | None) -> None:
    return None


class Share:
    def __init__(self, give_back: Callable[[PaidReply | None], None] = _nothing) -> None:
        self._give_back: Callable[[PaidReply | None], None] | None = give_back

    def settle(self, reply: PaidReply | None) -> None:
        # One statement, but two bytecodes that a thread switch can fall between: a lock-free
        # exchange is what the native share has and plain Python has not.
        give_back, self._give_back = self._give_back, None
        if give_back is not None:
            give_back(reply)

    def __enter__(self) -> Share:
        return self

    def __exit__(self, *_exc: object) -> None:
        self.settle(None)


@dataclass
class _Held:
    holders: int = 0
    amount: float = 0.0
    unbounded: int = 0

    def admits(self, share: float, used: float, limit: float) -> bool:
        if self.unbounded:
            return False
        if math.isinf(share) and self.holders:
            return False
        return used + self.amount < limit

    # What can fail is computed before anything is set: an error leaves the tally as it was.

    def take(self, share: float) -> None:
        holders = self.holders
        holders += 1
        if math.isinf(share):
            unbounded = self.unbounded
            unbounded += 1
            self.holders, self.unbounded = holders, unbounded
        else:
            amount = self.amount
            amount += share
            self.holders, self.amount = holders, amount

    def give_back(self, share: float) -> None:
        holders = max(0, self.holders - 1)
        if math.isinf(share):
            self.holders, self.unbounded = holders, max(0, self.unbounded - 1)
            if not holders:
                self.amount = 0.0
        else:
            amount = max(0.0, self.amount - share)
            self.holders, self.amount = holders, amount if holders else 0.0


def _wait(
    changed: threading.Condition,
    stopping: Callable[[], bool],
    *,
    deadline: float | None = None,
    clock: Callable[[], float] | None = None,
) -> None:
    if stopping():
        raise DecisionStopped("the pass was asked to stop")
    timeout = _POLL_S
    if deadline is not None and clock is not None:
        left = deadline - clock()
        if left <= 0:
            raise DecisionTimeout(
                "the decision call ran out of its deadline while the calls in flight held the "
                "rest of the daily cost cap"
            )
        timeout = min(timeout, left)
    changed.wait(timeout)


@dataclass
class _Charges:
    per_byte: float = 0.0
    per_call: float = 0.0

    def bound(self, size: int) -> float:
        return max(self.per_byte * size, self.per_call)

    def learn(self, size: int, charge: float) -> None:
        self.per_byte = max(self.per_byte, charge / max(size, 1))
        self.per_call = max(self.per_call, charge)


class RequestRates:
    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._cost = _Charges()
        self._tokens = _Charges()
        self._features: set[str] = set()

    def cost(self, size: int, feature: str) -> float:
        with self._lock:
            return self._cost.bound(size) if feature in self._features else math.inf

    def tokens(self, size: int) -> float:
        with self._lock:
            return self._tokens.bound(size) if self._features else math.inf

    def learn(self, size: int, feature: str, reply: PaidReply) -> None:
        with self._lock:
            self._features.add(feature)
            self._cost.learn(size, reply.cost)
            self._tokens.learn(size, reply.input_tokens)


@dataclass
class RunBudget:
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
        return bool(self.should_stop())

    def exhausted(self) -> bool:
        with self._changed:
            return self._exhausted_locked()

    def _exhausted_locked(self) -> bool:
        return self.calls + self.in_flight >= self.max_calls or self.input_tokens >= self.max_tokens

    def reserve(self, tokens: float = 0.0) -> None:
        if self.stopping():
            raise DecisionStopped("the pass was asked to stop")
        with self._changed:
            while True:
                if self._exhausted_locked():
                    raise DecisionBudgetExceeded(
                        f"decision budget exhausted: {self._summary_locked()}"
                    )
                if self._held_tokens.admits(tokens, self.input_tokens, self.max_tokens):
                    self.in_flight += 1
                    try:
                        self._held_tokens.take(tokens)
                    except BaseException:
                        self.in_flight = max(0, self.in_flight - 1)
                        raise
                    return
                _wait(self._changed, self.stopping)

    def hold(self, tokens: float) -> Share:
        self.reserve(tokens)

        def give_back(reply: PaidReply | None) -> None:
            if reply is None:
                self.release(tokens)
                return
            self.charge(reply, tokens)
            # Another charge than this class's may take replies that say nothing of it.
            if getattr(reply, "cached", False):
                self.release(tokens)

        return Share(give_back)

    def release(self, tokens: float = 0.0) -> None:
        with self._changed:
            self.in_flight = max(0, self.in_flight - 1)
            self._held_tokens.give_back(tokens)
            self._changed.notify_all()

    def charge(self, result: PaidReply, tokens: float = 0.0) -> None:
        with self._changed:
            if result.cached:
                self.cache_hits += 1
                return
            self.in_flight = max(0, self.in_flight - 1)
            self._held_tokens.give_back(tokens)
            self.calls += 1
            used = result.input_tokens
            self.input_tokens += used
            cost = result.cost
            self.cost += cost
            self._changed.notify_all()

    def summary(self) -> dict[str, Any]:
        with self._changed:
            return self._summary_locked()

    def _summary_locked(self) -> dict[str, Any]:
        return {
            "calls": self.calls,
            "cache_hits": self.cache_hits,
            "input_tokens": self.input_tokens,
            "cost_usd": round(self.cost, 6),
            "max_calls": self.max_calls,
            "max_tokens": self.max_tokens,
        }


class DailySpend:
    def __init__(
        self, cap: float, today: Callable[[], str], ledger: Callable[[str], float] | None
    ) -> None:
        self._cap = cap
        self._today = today
        self._ledger = ledger
        self._changed = threading.Condition()
        self._held = _Held()
        self._day = ""
        self._cost = 0.0
        self._capped = False

    def spent(self) -> float:
        with self._changed:
            return self._today_locked()

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        with self._changed:
            while (cost := self._today_locked()) < self._cap:
                held = bound()
                if self._held.admits(held, cost, self._cap):
                    self._held.take(held)
                    return Share(functools.partial(self._give_back, held))
                _wait(self._changed, stopping, deadline=deadline, clock=clock)
            first, self._capped = not self._capped, True
        if first:
            logger.warning(
                "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid "
                "calls resume tomorrow, cached answers are still used",
                cost,
                self._cap,
            )
        raise DecisionBudgetExceeded(
            f"the daily decision cost cap is reached: ${cost:.4f} of ${self._cap:.2f} spent "
            "today (UTC)"
        )

    def charge(self, reply: PaidReply) -> None:
        with self._changed:
            self._today_locked()
            cost = reply.cost
            self._cost += cost
            self._changed.notify_all()

    def _give_back(self, held: float, reply: PaidReply | None) -> None:
        with self._changed:
            try:
                if reply is not None:
                    self._today_locked()
                    cost = reply.cost
                    self._cost += cost
            finally:
                self._held.give_back(held)
                self._changed.notify_all()

    def _today_locked(self) -> float:
        today = self._today()
        if today != self._day:
            start = self._spent_since(today)
            self._day, self._cost, self._capped = today, start, False
        return self._cost

    def _spent_since(self, day: str) -> float:
        if self._ledger is None:
            return 0.0
        try:
            return float(self._ledger(day))
        except Exception:
            logger.warning(
                "Could not read what the decision calls of %s cost; the daily cap counts from 0",
                day,
                exc_info=True,
            )
            return 0.0
