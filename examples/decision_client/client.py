"""The decision client: retries, a cache and a stop around paid calls.

Each attempt is a paid call of its own: admitted to the day and to its pass before it is sent, and
counted however it ends, also where it was sent and its reply was never read.
"""

from __future__ import annotations

import functools
import math
import threading
import time
from collections.abc import Callable
from concurrent.futures import Future
from dataclasses import replace

import tenacity

from decision_client.wire import UNPAID, AttemptFailed, Endpoint, NotAsked, Reply, Request
from korvane.engines.decision_account import PaidCalls
from korvane.engines.decision_bounds import DecisionStopped, DecisionTimeout, RunBudget

_FIRST_PAUSE_S = 0.1
_LONGEST_PAUSE_S = 1.0


class Stats:
    """What a run shows that no bound counts, changed under one lock and read without it."""

    def __init__(self) -> None:
        self.failed = 0
        self.lost = 0
        self._lock = threading.Lock()

    def attempt_failed(self, failure: AttemptFailed) -> None:
        with self._lock:
            self.failed += 1
            self.lost += not isinstance(failure, UNPAID)


class Client:
    """Asks one endpoint, inside the bounds that it is given. Any number of threads may call
    :meth:`decide` and :meth:`ask`."""

    def __init__(
        self,
        endpoint: Endpoint,
        calls: PaidCalls,
        *,
        attempts: int = 4,
        stop: threading.Event | None = None,
    ) -> None:
        """Create a client.

        Args:
            calls: The paid calls of this process.
            attempts: The most attempts per request, each admitted anew.
            stop: Ends the waiting for room and for the next attempt.
        """
        self.stats = Stats()
        self._endpoint = endpoint
        self._calls = calls
        self._attempts = attempts
        self.stop = stop or threading.Event()
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
        """Attempt the call until a reply is read."""
        return tenacity.Retrying(
            retry=tenacity.retry_if_exception(_is_worth_repeating),
            stop=tenacity.stop_after_attempt(self._attempts),
            wait=_pause,
            after=self._note,
            before_sleep=functools.partial(_keep_deadline, deadline),
            sleep=self._sleep,
            reraise=True,
        )(self._attempt, request, budget, deadline)

    def _attempt(self, request: Request, budget: RunBudget | None, deadline: float | None) -> Reply:
        with self._calls.call(
            request.size,
            request.feature,
            budget=budget,
            deadline=deadline,
            stopping=self.stop.is_set,
            unpaid=UNPAID,
        ) as call:
            left = math.inf if deadline is None else deadline - time.monotonic()
            reply = self._endpoint.send(request, left)
            call.settle(reply)
        return reply

    def _note(self, tried: tenacity.RetryCallState) -> None:
        if isinstance(failure := _failure(tried), AttemptFailed):
            self.stats.attempt_failed(failure)

    def _sleep(self, seconds: float) -> None:
        if self.stop.wait(seconds):
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
