"""The decision client: every paid call is admitted before it is sent and counted when it ends.

An attempt holds two shares while it runs: what it may cost of the day's cap and, in a pass, what it
may use of the pass's budget. The cap comes first. While a call waits there it asks for its bound
anew, so that by the time it holds its tokens they too are bounded by the replies that it waited
for; and it takes none of the pass's call slots, which are refused rather than waited for.
"""

from __future__ import annotations

import functools
import math
import random
import threading
import time
from collections.abc import Callable

from decision_client.cache import AnswerCache
from decision_client.ledger import Ledger
from decision_client.stats import Stats
from decision_client.wire import AttemptFailed, Endpoint, Reply, ReplyUnread, Request
from korvane.engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    RequestRates,
    RunBudget,
    Share,
)

_FIRST_PAUSE_S = 0.1


class CapReached(DecisionBudgetExceeded):
    """The day's cap, not the budget of the pass, refused the call."""


class DecisionClient:
    """Asks one endpoint. Any number of threads may call :meth:`decide` and :meth:`ask`."""

    def __init__(
        self,
        endpoint: Endpoint,
        *,
        cap: float,
        today: Callable[[], str],
        ledger: Ledger,
        attempts: int,
        stop: threading.Event,
    ) -> None:
        self.stats = Stats()
        self._endpoint = endpoint
        self._today = today
        self._ledger = ledger
        self._attempts = attempts
        self._stop = stop
        self._cache = AnswerCache()
        self._rates = RequestRates()
        self._daily = DailySpend(cap, today, ledger.spent_since)

    def spent(self) -> float:
        """What today's paid calls cost so far, those of earlier runs included, USD."""
        return self._daily.spent()

    def decide(self, request: Request, budget: RunBudget) -> Reply:
        """A call of a batch pass: bounded by its pass and the day, free when asked before."""
        reply = self._cache.get(request, lambda: self._call(request, budget))
        if reply.cached:
            budget.charge(reply)
        return reply

    def ask(self, request: Request, deadline: float) -> Reply:
        """A tool's call: bounded by the day alone, and by a deadline on the monotonic clock."""
        return self._cache.get(request, lambda: self._call(request, None, deadline))

    def _call(
        self, request: Request, budget: RunBudget | None, deadline: float | None = None
    ) -> Reply:
        """Attempt the call until a reply is read, each attempt admitted anew."""
        unread = tried = 0
        reply: Reply | None = None
        try:
            while True:
                tried += 1
                try:
                    reply = self._attempt(request, budget, deadline)
                    return reply
                except AttemptFailed as failure:
                    lost = isinstance(failure, ReplyUnread)
                    unread += lost
                    self.stats.attempt_failed(unread=lost)
                    self._pause(tried, deadline, failure)
        finally:
            self._count_unread(request, unread, reply)

    def _attempt(self, request: Request, budget: RunBudget | None, deadline: float | None) -> Reply:
        with self._admit_today(request, deadline) as day, self._admit_pass(request, budget) as run:
            left = math.inf if deadline is None else deadline - time.monotonic()
            reply = self._endpoint.send(request, left)
            self._record(request, reply)
            day.settle(reply)
            run.settle(reply)
        self._rates.learn(request.size, request.feature, reply)
        return reply

    def _admit_today(self, request: Request, deadline: float | None) -> Share:
        with self.stats.admission():
            try:
                return self._daily.admit(
                    functools.partial(self._rates.cost, request.size, request.feature),
                    deadline=deadline,
                    clock=time.monotonic,
                    stopping=self._stop.is_set,
                )
            except DecisionBudgetExceeded as refusal:
                raise CapReached(str(refusal)) from refusal

    def _admit_pass(self, request: Request, budget: RunBudget | None) -> Share:
        """The call's share of its pass; a tool's call has none, so it holds a share of nothing."""
        if budget is None:
            return Share()
        with self.stats.admission():
            return budget.hold(self._rates.tokens(request.size))

    def _record(self, request: Request, reply: Reply) -> None:
        """Put a cost in the ledger, on the day that is about to count it.

        A day starts from the ledger, so it has to have started before the row is in there: a day
        that started after it, in the settlement, would count this cost twice. (A midnight between
        the two lines below does so still, and errs on the careful side.)
        """
        self._daily.spent()
        self._ledger.record(self._today(), request.feature, reply.input_tokens, reply.cost)

    def _count_unread(self, request: Request, unread: int, reply: Reply | None) -> None:
        """Count the attempts that were sent and never read at what they are likely to cost: as much
        as the attempt that was read, else the most that such a request has cost, where known."""
        estimate = reply.cost if reply else self._rates.cost(request.size, request.feature)
        if math.isinf(estimate):
            return
        lost = Reply("", reply.input_tokens if reply else 0, estimate)
        for _ in range(unread):
            self._record(request, lost)
            self._daily.charge(lost)

    def _pause(self, tried: int, deadline: float | None, failure: AttemptFailed) -> None:
        """Wait before the next attempt, or end the call where there is none."""
        if tried == self._attempts:
            raise failure
        seconds = _FIRST_PAUSE_S * 2 ** (tried - 1) * random.uniform(0.5, 1.5)
        if deadline is not None and time.monotonic() + seconds >= deadline:
            raise DecisionTimeout(f"no time is left to try again: {failure}") from failure
        if self._stop.wait(seconds):
            raise DecisionStopped("asked to stop between two attempts") from failure
