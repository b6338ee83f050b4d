"""The road of a paid call: one ``with`` block, in a thread or in a task."""

from __future__ import annotations

import functools
import math
import threading
from collections.abc import Callable
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Self

from korvane.engines.decision_bounds import (
    DecisionStopped,
    DecisionTimeout,
    PaidReply,
    RequestRates,
    RunBudget,
    Share,
    never,
)

from .account import Row, Wish
from .driving import THREAD, Driver, run
from .records import NANO, Maxima, State, reply_cost
from .spend import SharedSpend

_LOOK_S = 0.05  # between two looks at a budget that has no room


class PaidCalls:
    """The paid calls of a process: each is admitted to the day, then to its budget, settled with
    both, and learned from. What is learned is kept in the account, so that every process knows it.
    """

    def __init__(self, spend: SharedSpend, *, unknown_cost: float) -> None:
        """Make the road.

        Args:
            spend: The day's account.
            unknown_cost: USD that a lost call counts while nothing is known of its cost.
        """
        self.spend = spend
        self.unknown_cost = unknown_cost
        self.rates = RequestRates()
        self._maxima = Maxima()
        self._features: set[str] = set()
        self._lock = threading.Lock()

    def call(
        self,
        size: int,
        feature: str = "",
        *,
        budget: RunBudget | None = None,
        deadline: float | None = None,
        stopping: Callable[[], bool] = never,
        unpaid: tuple[type[BaseException], ...] = (),
    ) -> PaidCall:
        """A paid call, to be used once: ``with`` in a thread, ``async with`` in a task.

        The block is the request. It is entered once the call is admitted, and raises what
        :meth:`DailySpend.admit` and :meth:`RunBudget.hold` raise. Left by an error without a reply
        that was settled, the call counts what it held, for it may have been paid (Ctrl-C, a
        cancelled task, a time-out); left without an error, it counts nothing.

        Args:
            size: Of the request, bytes.
            feature: The kind of request.
            budget: Of the batch pass that it belongs to; its stop ends the waiting, too.
            deadline: When the waiting ends, on :func:`time.monotonic`.
            stopping: Whether the waiting is to end.
            unpaid: Errors which say that nothing was paid: it was never sent, or was refused.
        """
        return PaidCall(self, size, feature, budget, deadline, stopping, unpaid)

    def hear(self, maxima: Maxima, features: frozenset[str]) -> None:
        """Learn what a reply or the account says."""
        with self._lock:
            new = features - self._features
            raised = self._maxima.raised_to(maxima)
            if raised == self._maxima and not new:
                return
            self._maxima = raised
            self._features |= new
            taught = new or set(self._features)
        # Each maximum is taught as a reply that shows it, of a request of the size that does.
        cost = _Told(0, raised.cost_per_call), _size(raised.cost_per_call, raised.cost_per_byte)
        used = (
            _Told(raised.tokens_per_call, 0),
            _size(raised.tokens_per_call, raised.tokens_per_byte),
        )
        for feature in taught:
            for reply, size in (cost, used):
                self.rates.learn(size, feature, reply)


class PaidCall:
    """One paid call: the target of a ``with`` or ``async with`` block, made by
    :meth:`PaidCalls.call`."""

    def __init__(
        self,
        calls: PaidCalls,
        size: int,
        feature: str,
        budget: RunBudget | None,
        deadline: float | None,
        stopping: Callable[[], bool],
        unpaid: tuple[type[BaseException], ...],
    ) -> None:
        self._calls = calls
        self._account = calls.spend._account
        self._size = size
        self._feature = feature
        self._budget = budget
        self._deadline = deadline
        self._stopping = stopping
        self._unpaid = unpaid
        self._driver: Driver | None = None
        self._row: Row | None = None
        self._share: Share | None = None
        self._tokens = 0.0
        self._end: _End | None = None
        self._ended = False

    def settle(self, reply: PaidReply) -> None:
        """Count the reply; once. It is in the account before this returns, or, in an ``async with``
        block, before that is left.

        Raises:
            ValueError, TypeError, AttributeError: The reply does not say what it cost, and the call
                counts what it held; or what it used, and the call counts its cost.
        """
        if self._end is not None:
            return
        trouble: Exception | None = None
        try:
            self._end = self._read(reply)
        except Exception as error:
            trouble, self._end = error, self._end or self._lost()
        if self._driver is THREAD:
            run(self._finish(THREAD))
        if trouble is not None:
            raise trouble

    def __enter__(self) -> Self:
        run(self._begin(THREAD))
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        run(self._leave(THREAD, kind))

    async def __aenter__(self) -> Self:
        await self._begin(self._calls.spend._task())
        return self

    async def __aexit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        assert self._driver is not None
        await self._leave(self._driver, kind)

    async def _begin(self, how: Driver) -> None:
        if self._driver is not None:
            raise RuntimeError("a paid call is made once")
        self._driver = how
        calls = self._calls
        self._row = await self._account.admit(
            how,
            Wish(
                functools.partial(calls.rates.cost, self._size, self._feature),
                self._deadline,
                how.now,
                self._is_stopping,
                self._feature,
                calls.unknown_cost,
                calls,
            ),
        )
        try:
            if self._budget is not None:
                self._share = await self._hold(how, self._budget)
        except BaseException:
            self._account.withdraw(how, self._row)
            raise

    async def _hold(self, how: Driver, budget: RunBudget) -> Share:
        """Hold a slot and tokens of the pass. The budget's own condition knows its own stop alone,
        so only a thread that nothing else ends waits on it."""
        on_its_own = how is THREAD and self._deadline is None and self._stopping is never
        while True:
            self._tokens = self._calls.rates.tokens(self._size)
            if on_its_own:
                return budget.hold(self._tokens)
            if (share := _hold_now(budget, self._tokens)) is not None:
                return share
            if self._stopping():
                raise DecisionStopped("the pass was asked to stop")
            left = math.inf if self._deadline is None else self._deadline - how.now()
            if left <= 0:
                raise DecisionTimeout(
                    "the decision call ran out of its deadline while the calls in flight held the "
                    "rest of its pass's tokens"
                )
            await how.pause(min(_LOOK_S, left))

    def _read(self, reply: PaidReply) -> _End:
        if reply.cached:
            return _End(State.UNPAID, 0, reply)
        cost = reply_cost(reply)
        used = reply.input_tokens
        if not 0 <= used < math.inf:
            self._end = _End(State.PAID, cost, _Told(self._tokens_at_stake(), cost / NANO))
            raise ValueError(f"a reply cannot have used {used!r} input tokens")
        return _End(State.PAID, cost, reply, Maxima.of(self._size, cost / NANO, used))

    def _lost(self) -> _End:
        cost = self._row.held if self._row is not None and self._row.held is not None else 0
        return _End(State.LOST, cost, _Told(self._tokens_at_stake(), cost / NANO))

    def _tokens_at_stake(self) -> int:
        """No more tokens than bytes, where nothing else is known."""
        return int(min(self._tokens, self._size))

    async def _leave(self, how: Driver, kind: type[BaseException] | None) -> None:
        if self._end is None:
            spared = kind is None or issubclass(kind, self._unpaid)
            self._end = _End(State.UNPAID, 0, None) if spared else self._lost()
        await self._finish(how)

    async def _finish(self, how: Driver) -> None:
        end, self._ended, ended = self._end, True, self._ended
        if ended or end is None or self._row is None:
            return
        try:
            await self._account.end(how, self._row, end.state, end.cost, end.learned)
        finally:
            if self._share is not None and self._budget is not None:
                await _settle(how, self._budget, self._share, end.reply)
        if end.learned is not None:
            self._calls.hear(end.learned, frozenset([self._feature]))

    def _is_stopping(self) -> bool:
        return self._stopping() or (self._budget is not None and self._budget.stopping())


@dataclass(frozen=True, slots=True)
class _End:
    """How a call ends: in the account, for its budget, and for the rates."""

    state: State
    cost: int  # nano-dollars
    reply: PaidReply | None
    learned: Maxima | None = None


@dataclass(frozen=True, slots=True)
class _Told:
    """What is counted in place of a reply."""

    input_tokens: int
    cost: float
    cached: bool = False


def _hold_now(budget: RunBudget, tokens: float) -> Share | None:
    """What ``hold`` says, unless it would wait: None then, or where the lock is taken."""
    if not budget._changed.acquire(blocking=False):
        return None
    try:
        waits = not (
            budget.stopping()
            or budget._exhausted_locked()
            or budget._held_tokens.admits(tokens, budget.input_tokens, budget.max_tokens)
        )
        return None if waits else budget.hold(tokens)
    finally:
        budget._changed.release()


async def _settle(how: Driver, budget: RunBudget, share: Share, reply: PaidReply | None) -> None:
    """Settle the share of a pass. A task does not wait for the lock unless it is cancelled."""
    locked = False
    try:
        while how is not THREAD and not (locked := budget._changed.acquire(blocking=False)):
            await how.pause(_LOOK_S / 10)
    finally:
        share.settle(reply)
        if locked:
            budget._changed.release()


def _size(charge: float, per_byte: float) -> Any:
    return charge / per_byte if per_byte else math.inf
