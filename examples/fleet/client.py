"""The client of a fleet's process: the example's, on the day that the process leased."""

from __future__ import annotations

import functools
import math
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass, field
from typing import Protocol, cast
from uuid import UUID, uuid4

from decision_client.client import Client
from decision_client.wire import Endpoint, Reply, ReplyUnread, Request

from korvane.engines.decision_account import CapReached, PaidCalls
from korvane.engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    RequestRates,
    RunBudget,
)


@dataclass(frozen=True)
class PaidCall:
    """A row of the ledger. By its identity it is one row, also where it is recorded twice."""

    day: str
    feature: str
    input_tokens: int
    cost: float
    id: UUID = field(default_factory=uuid4)


class Ledger(Protocol):
    """Where paid calls are recorded before they are counted."""

    def record(self, calls: Sequence[PaidCall]) -> None: ...


class LeasedClient(Client):
    """The example's client whose attempts are admitted to what this process leased."""

    def __init__(
        self,
        endpoint: Endpoint,
        daily: DailySpend,
        ledger: Ledger,
        calendar: Calendar,
        rates: RequestRates,
        attempts: int,
        stop: threading.Event,
    ) -> None:
        super().__init__(endpoint, cast(PaidCalls, None), attempts=attempts, stop=stop)
        self._daily = daily
        self._ledger = ledger
        self._calendar = calendar
        self._rates = rates

    def _attempt(self, request: Request, budget: RunBudget | None, deadline: float | None) -> Reply:
        assert budget is not None
        most = functools.partial(self._rates.cost, request.size, request.feature)
        try:
            day = self._daily.admit(
                most, deadline=deadline, clock=time.monotonic, stopping=self._stop.is_set
            )
        except DecisionBudgetExceeded as refusal:
            raise CapReached(str(refusal)) from refusal
        try:
            with day, budget.hold(self._rates.tokens(request.size)) as run:
                reply = self._endpoint.send(request)
                self._count(request, reply, day.settle)
                run.settle(reply)
        except ReplyUnread:
            if (most_likely := most()) < math.inf:
                self._count(request, Reply("", 0, most_likely), self._daily.charge)
            raise
        self._rates.learn(request.size, request.feature, reply)
        return reply

    def _count(self, request: Request, reply: Reply, count: Callable[[Reply], None]) -> None:
        """Record what a reply cost, then count it, on one and the same day."""
        with self._calendar.standing_still() as day:
            self._daily.spent()
            self._ledger.record([PaidCall(day, request.feature, reply.input_tokens, reply.cost)])
            count(reply)


class Calendar:
    """Today's UTC date, which stands still while a reply is recorded and counted.

    The ledger dates a row when it is recorded, the account counts it on the day of its settlement.
    A midnight between the two would count it on one day and date it on the other, or twice on the
    new one, which starts from the ledger.
    """

    def __init__(self, date: Callable[[], str]) -> None:
        self._date = date
        self._changed = threading.Condition()
        self._day = ""
        self._counting = 0

    def today(self) -> str:
        with self._changed:
            return self._today_locked()

    @contextmanager
    def standing_still(self) -> Iterator[str]:
        """The date that :meth:`today` gives throughout the block."""
        with self._changed:
            # After midnight those who come later wait, so that the date does change.
            self._changed.wait_for(lambda: not self._counting or self._day == self._date())
            day = self._today_locked()
            self._counting += 1
        try:
            yield day
        finally:
            with self._changed:
                self._counting -= 1
                self._changed.notify_all()

    def _today_locked(self) -> str:
        if not self._counting:
            self._day = self._date()
        return self._day
