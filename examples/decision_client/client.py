"""The decision client: every paid call is admitted before it is sent and counted when it ends.

An attempt holds two shares while it runs: what it may cost of the day's cap and, in a pass, what it
may use of the pass's budget. The cap comes first. While a call waits there it asks for its bound
anew, so that by the time it holds its tokens they too are bounded by the replies that it waited
for; and it takes none of the pass's call slots, which are refused rather than waited for.
"""

from __future__ import annotations

import functools
import math
import threading
import time
from collections.abc import Callable, Iterator
from concurrent.futures import Future
from contextlib import contextmanager
from dataclasses import replace

import tenacity

from decision_client.ledger import Calendar, Ledger, PaidCall
from decision_client.wire import AttemptFailed, Endpoint, NotAsked, Reply, ReplyUnread, Request
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
_LONGEST_PAUSE_S = 1.0
_NOTICED_S = 0.005


class CapReached(DecisionBudgetExceeded):
    """The day's cap, not the budget of the pass, refused the call."""


class Stats:
    """What a run shows that no bound counts, changed under one lock and read without it."""

    def __init__(self) -> None:
        self.counted = 0.0
        self.failed = 0
        self.unread = 0
        self.waiting = 0
        self.waited = 0
        self.waited_s = 0.0
        self._lock = threading.Lock()

    def call_counted(self, cost: float) -> None:
        with self._lock:
            self.counted += cost

    def attempt_failed(self, *, unread: bool) -> None:
        with self._lock:
            self.failed += 1
            self.unread += unread

    @contextmanager
    def admission(self) -> Iterator[None]:
        """Time an admission: one that took a moment has waited for room."""
        begun = time.monotonic()
        with self._lock:
            self.waiting += 1
        try:
            yield
        finally:
            seconds = time.monotonic() - begun
            with self._lock:
                self.waiting -= 1
                if seconds > _NOTICED_S:
                    self.waited += 1
                    self.waited_s += seconds


class Client:
    """Asks one endpoint, inside the bounds that it is given. Any number of threads may call
    :meth:`decide` and :meth:`ask`."""

    def __init__(
        self,
        endpoint: Endpoint,
        daily: DailySpend,
        ledger: Ledger,
        calendar: Calendar,
        *,
        rates: RequestRates | None = None,
        attempts: int = 4,
        stop: threading.Event | None = None,
    ) -> None:
        """Create a client.

        Args:
            daily: The day's account, which has its date from ``calendar``.
            ledger: Takes every paid call before it is counted.
            rates: What is known of the requests' cost, from earlier replies for example.
            attempts: The most attempts per call, each admitted anew.
            stop: Ends the waiting for room and for the next attempt.
        """
        self.stats = Stats()
        self._endpoint = endpoint
        self._daily = daily
        self._ledger = ledger
        self._calendar = calendar
        self._rates = rates or RequestRates()
        self._attempts = attempts
        self._stop = stop or threading.Event()
        self._answers = _Answers()

    def decide(self, request: Request, budget: RunBudget) -> Reply:
        """A call of a batch pass: bounded by its pass and the day, free when asked before."""
        reply = self._answers.get(request, lambda: self._call(request, budget, None), None)
        if reply.cached:
            budget.charge(reply)
        return reply

    def ask(self, request: Request, deadline: float) -> Reply:
        """A tool's call: bounded by the day alone, and by a deadline on the monotonic clock."""
        return self._answers.get(request, lambda: self._call(request, None, deadline), deadline)

    def _call(self, request: Request, budget: RunBudget | None, deadline: float | None) -> Reply:
        """Attempt the call until a reply is read, each attempt admitted anew."""
        reply, unread = None, 0

        def note(tried: tenacity.RetryCallState) -> None:
            nonlocal unread
            if isinstance(failure := _failure(tried), AttemptFailed):
                lost = isinstance(failure, ReplyUnread)
                unread += lost
                self.stats.attempt_failed(unread=lost)

        try:
            reply = tenacity.Retrying(
                retry=tenacity.retry_if_exception(_is_worth_repeating),
                stop=tenacity.stop_after_attempt(self._attempts),
                wait=_pause,
                after=note,
                before_sleep=functools.partial(_keep_deadline, deadline),
                sleep=self._sleep,
                reraise=True,
            )(self._attempt, request, budget, deadline)
            return reply
        finally:
            self._count_unread(request, unread, reply)

    def _attempt(self, request: Request, budget: RunBudget | None, deadline: float | None) -> Reply:
        with self._admit_today(request, deadline) as day, self._admit_pass(request, budget) as run:
            left = math.inf if deadline is None else deadline - time.monotonic()
            reply = self._endpoint.send(request, left)
            self._count(request, reply, day.settle)
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

    def _count(self, request: Request, reply: Reply, count: Callable[[Reply], None]) -> None:
        """Record what a reply cost, then count it, on one and the same day.

        A day starts from the ledger, so it has to have started before the row is in there: a day
        that started after it, as the reply is counted, would count it twice.
        """
        with self._calendar.standing_still() as day:
            self._daily.spent()
            self._ledger.record([PaidCall(day, request.feature, reply.input_tokens, reply.cost)])
            count(reply)
        self.stats.call_counted(reply.cost)

    def _count_unread(self, request: Request, unread: int, reply: Reply | None) -> None:
        """Count the attempts that were sent and never read at what they are likely to cost: as much
        as the attempt that was read, else the most that such a request has cost, where known."""
        estimate = reply.cost if reply else self._rates.cost(request.size, request.feature)
        if math.isinf(estimate):
            return
        lost = Reply("", reply.input_tokens if reply else 0, estimate)
        for _ in range(unread):
            self._count(request, lost, self._daily.charge)

    def _sleep(self, seconds: float) -> None:
        if self._stop.wait(seconds):
            raise DecisionStopped("asked to stop between two attempts")


def _failure(tried: tenacity.RetryCallState) -> BaseException | None:
    return tried.outcome.exception() if tried.outcome else None


def _is_worth_repeating(failure: BaseException) -> bool:
    """A short outage is waited out; while a longer one lasts, calls fail at once."""
    if isinstance(failure, NotAsked):
        return failure.wait_s <= _LONGEST_PAUSE_S
    return isinstance(failure, AttemptFailed)


_backoff = tenacity.wait_exponential(_FIRST_PAUSE_S) + tenacity.wait_random(0, _FIRST_PAUSE_S)


def _pause(tried: tenacity.RetryCallState) -> float:
    failure = _failure(tried)
    return failure.wait_s if isinstance(failure, NotAsked) else _backoff(tried)


def _keep_deadline(deadline: float | None, tried: tenacity.RetryCallState) -> None:
    if deadline is not None and time.monotonic() + tried.upcoming_sleep >= deadline:
        failure = _failure(tried)
        raise DecisionTimeout(f"no time is left to try again: {failure}") from failure


class _Answers:
    """The answers so far: an equal request is paid once, also when it is asked again meanwhile.

    Who asks for what another thread is calling for waits for it, no longer than its own deadline,
    and shares how it ends: caches that others made know no deadline, and would have each of them
    try a call again that has just failed. The lock guards the table only, never a call.
    """

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._answers: dict[Request, Future[Reply]] = {}

    def get(self, request: Request, call: Callable[[], Reply], deadline: float | None) -> Reply:
        """The known answer as a cached reply, else what ``call`` answers. A call that failed is
        forgotten, so that whoever asks next may try again."""
        with self._lock:
            answer = self._answers.get(request)
            if first := answer is None:
                answer = self._answers[request] = Future()
        if not first:
            left = None if deadline is None else max(0.0, deadline - time.monotonic())
            try:
                return replace(answer.result(left), cached=True)
            except TimeoutError:
                raise DecisionTimeout("no time is left to wait for the same call") from None
        try:
            reply = call()
        except BaseException as error:
            with self._lock:
                del self._answers[request]
            answer.set_exception(error)
            raise
        answer.set_result(reply)
        return reply
