"""What goes over the wire: a request, the endpoint's reply, and how an attempt can fail.

The failures differ in what they may have cost. An attempt that never reached the endpoint, or that
the endpoint refused, is free; one that was sent and whose reply was never read may be billed.
"""

from __future__ import annotations

import json
import math
from dataclasses import dataclass
from functools import cached_property

import httpx

from korvane.engines.decision_bounds import DecisionError

_SENT_AND_LOST = (
    httpx.ReadTimeout,
    httpx.ReadError,
    httpx.RemoteProtocolError,
    httpx.DecodingError,
)


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
    """An attempt that is worth repeating and cost nothing."""


class ReplyUnread(AttemptFailed):
    """An attempt that was sent and whose reply was never read: it may be billed."""


class Endpoint:
    """A model endpoint, asked over HTTP."""

    def __init__(self, url: str, timeout: float, *, use_proxies: bool) -> None:
        self._url = url
        self._timeout = timeout
        self._http = httpx.Client(trust_env=use_proxies)

    def close(self) -> None:
        self._http.close()

    def send(self, request: Request, time_left: float = math.inf) -> Reply:
        """Make one attempt, which may take the endpoint's time-out or the ``time_left``."""
        try:
            response = self._http.post(
                self._url,
                content=request.body,
                headers={"content-type": "application/json"},
                timeout=max(0.001, min(self._timeout, time_left)),
            )
        except _SENT_AND_LOST as error:
            raise ReplyUnread(f"no reply was read: {error or type(error).__name__}") from error
        except httpx.TransportError as error:
            raise AttemptFailed(f"the endpoint cannot be reached: {error}") from error
        if response.status_code == httpx.codes.TOO_MANY_REQUESTS or response.is_server_error:
            raise AttemptFailed(f"the endpoint answered {response.status_code}")
        if not response.is_success:
            raise DecisionError(f"the endpoint rejected the request: {response.status_code}")
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
