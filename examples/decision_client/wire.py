"""What goes over the wire: a request, the endpoint's reply, and how an attempt can fail.

The failures differ in what they may have cost. An attempt that never reached the endpoint, or that
was answered with an error, is free; one whose reply was never read may be billed.
"""

from __future__ import annotations

import json
import math
import threading
import time
from collections.abc import Callable, Iterator
from contextlib import contextmanager
from dataclasses import dataclass
from functools import cached_property

import httpx

from korvane.engines.decision_bounds import DecisionError, DecisionUnavailable

_SENT_AND_LOST = (
    httpx.ReadTimeout,
    httpx.ReadError,
    httpx.RemoteProtocolError,
    httpx.DecodingError,
)
_HERE = ("127.0.0.1", "::1", "localhost")
_REPEATED = 5
_WINDOW_S = 0.5
_LONGEST_WINDOW_S = 30.0


@dataclass(frozen=True)
class Request:
    """One question to the endpoint. Equal requests have equal answers."""

    feature: str
    text: str

    @cached_property
    def body(self) -> bytes:
        return json.dumps({"feature": self.feature, "text": self.text}).encode()

    @property
    def size(self) -> int:
        return len(self.body)


@dataclass(frozen=True)
class Reply:
    """The endpoint's answer, and what the bounds count of it."""

    decision: str
    input_tokens: int
    cost: float
    cached: bool = False


class AttemptFailed(DecisionError):
    """An attempt that is worth repeating."""


class ReplyUnread(AttemptFailed):
    """It was sent, and its reply was never read: it may be billed."""


class NotServed(AttemptFailed):
    """It never reached the endpoint, or was answered with a passing error."""


class Rejected(DecisionError):
    """The endpoint will not answer such a request."""


class NotAsked(DecisionUnavailable):
    """The endpoint failed repeatedly; in ``wait_s`` seconds one call may try it."""

    def __init__(self, message: str, wait_s: float) -> None:
        super().__init__(message)
        self.wait_s = wait_s


UNPAID = (NotServed, Rejected, NotAsked)  # whatever else ends an attempt, it may be billed


class CircuitBreaker:
    """Refuses attempts for a window once several failed in a row, then lets a single one try.
    A trial that fails doubles the window; any answer ends it."""

    def __init__(self, clock: Callable[[], float] = time.monotonic) -> None:
        self._clock = clock
        self._lock = threading.Lock()
        self._failures = 0
        self._words = ""
        self._window_s = _WINDOW_S
        self._refused_until = -math.inf

    @contextmanager
    def attempt(self) -> Iterator[None]:
        """Make an attempt in the block, unless it is refused."""
        with self._lock:
            trial = self._admit_locked()
        failure = None
        try:
            yield
        except AttemptFailed as error:
            failure = error
            raise
        finally:
            with self._lock:
                self._learn_locked(failure, trial)

    def _admit_locked(self) -> bool:
        """Whether the attempt is a trial, where it is not refused."""
        now = self._clock()
        if now < self._refused_until:
            wait = self._refused_until - now
            raise NotAsked(f"the endpoint is unavailable ({self._words})", wait)
        trial = self._failures >= _REPEATED
        if trial:
            self._refused_until = now + self._window_s  # for those who come meanwhile
        return trial

    def _learn_locked(self, failure: AttemptFailed | None, trial: bool) -> None:
        if failure is None:
            self._failures = 0
            self._window_s = _WINDOW_S
            self._refused_until = -math.inf
            return
        self._failures += 1
        self._words = str(failure)
        if trial:
            self._window_s = min(2 * self._window_s, _LONGEST_WINDOW_S)
        if trial or self._failures == _REPEATED:
            self._refused_until = self._clock() + self._window_s


class Endpoint:
    """A model endpoint, asked over HTTP."""

    def __init__(self, url: str, timeout: float) -> None:
        self._url = url
        self._timeout = timeout
        # The environment's proxy is not asked for this machine: it would look at home.
        self._http = httpx.Client(trust_env=httpx.URL(url).host not in _HERE)
        self._breaker = CircuitBreaker()

    def close(self) -> None:
        self._http.close()

    def send(self, request: Request, time_left: float = math.inf) -> Reply:
        """Make one attempt, which may take the endpoint's time-out or the ``time_left``."""
        with self._breaker.attempt():
            return self._attempt(request, max(0.001, min(self._timeout, time_left)))

    def _attempt(self, request: Request, timeout: float) -> Reply:
        headers = {"content-type": "application/json"}
        try:
            response = self._http.post(
                self._url, content=request.body, headers=headers, timeout=timeout
            )
        except _SENT_AND_LOST as error:
            raise ReplyUnread(f"no reply was read: {error or type(error).__name__}") from error
        except httpx.TransportError as error:
            raise NotServed(f"the endpoint cannot be reached: {error}") from error
        if response.status_code == httpx.codes.TOO_MANY_REQUESTS or response.is_server_error:
            raise NotServed(f"the endpoint answered {response.status_code}")
        if not response.is_success:
            raise Rejected(f"the endpoint rejected the request: {response.status_code}")
        return _read_reply(response)


def _read_reply(response: httpx.Response) -> Reply:
    """The reply, with nothing in it that would spoil an account (a cost that is not a number)."""
    try:
        answer = response.json()
        reply = Reply(str(answer["decision"]), int(answer["input_tokens"]), float(answer["cost"]))
    except (ValueError, TypeError, LookupError, OverflowError) as error:
        raise ReplyUnread(f"the endpoint's reply makes no sense: {error!r}") from error
    if reply.input_tokens < 0 or not 0 <= reply.cost < math.inf:
        raise ReplyUnread(f"the endpoint's reply makes no sense: {reply}")
    return reply
