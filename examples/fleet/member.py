"""One process of a fleet: its client, its leased part of the day, its part of the pass.

Nothing here knows what started the process. A pool's initializer, a cluster's plugin or a task
queue's hook calls :func:`join`; then any number of threads call :func:`decide`.
"""

from __future__ import annotations

import atexit
import math
import os
import socket
import sys
import threading
import time
import uuid
from dataclasses import dataclass, field
from functools import partial

from decision_client.passes import End, Outcome, outcome_of
from decision_client.wire import Endpoint, Request

from fleet.account import MICRO, Account
from fleet.client import LeasedClient
from fleet.leased import LeasedSpend
from korvane.engines.decision_bounds import RequestRates, RunBudget

_POLL_S = 0.01


@dataclass(frozen=True)
class Settings:
    """What every process of a fleet is told; amounts in USD, durations in seconds."""

    account: str
    endpoint: str
    cap: float
    slice: float = 0.01
    threads: int = 1
    #: The owner of every lease begins with it, so that the books of one fleet can be told apart.
    fleet: str = field(default_factory=lambda: uuid.uuid4().hex[:8])
    #: How long a silent process keeps its lease.
    term: float = 10.0
    timeout: float = 5.0
    attempts: int = 4


@dataclass(frozen=True)
class Part:
    """What one process may use of a pass: its own share of the limits, and what is known of the
    requests' cost when it begins. There is no other part after the `last` one."""

    calls: int
    tokens: int
    rates: RequestRates
    last: bool = False


@dataclass(frozen=True)
class Status:
    """What a coordinator looks at: whether calls wait for another part, and what is learned."""

    owner: str
    dry: bool
    rates: RequestRates


class Member:
    """This process, as the fleet sees it. Any number of threads call :meth:`decide`."""

    def __init__(self, settings: Settings, name: str) -> None:
        """Join the fleet; calls wait for the first part of a pass."""
        cap = round(settings.cap * MICRO)
        self.owner = f"{settings.fleet}/{name}"
        self._settings = settings
        self._spend = LeasedSpend(
            Account(settings.account, self.owner, cap, settings.term),
            cap,
            round(settings.slice * MICRO),
            threads=settings.threads,
        )
        self._endpoint = Endpoint(settings.endpoint, settings.timeout)
        self._stop = threading.Event()
        # Guards what follows.
        self._changed = threading.Condition()
        self._use(RequestRates())
        self._budget = RunBudget(0, 0)
        self._last = False
        self._waiting = 0

    def decide(self, text: str) -> Outcome:
        """A call of the pass. One that finds this process's part of the pass used up waits for
        another part."""
        request = Request("paragraph", text)
        while True:
            client, budget, last = self._next_part()
            outcome = outcome_of(request, partial(client.decide, request, budget))
            if outcome.end is not End.OUT_OF_BUDGET or last:
                return outcome

    def begin(self, part: Part) -> None:
        """Use `part` of the pass, the first one or in place of the one before."""
        with self._changed:
            if math.isinf(self._rates.tokens(1)):  # no reply yet: what others learned is welcome
                self._use(part.rates)
            self._budget = RunBudget(part.calls, part.tokens, should_stop=self._stop.is_set)
            self._last = part.last
            self._changed.notify_all()

    def withdraw(self) -> None:
        """Let this process's part end with the calls in flight, and wait for them."""
        budget = self._budget
        budget.max_calls = 0
        budget.summary()  # who found room before has taken it by now
        while budget.in_flight:
            time.sleep(_POLL_S)

    def status(self) -> Status:
        with self._changed:
            return Status(self.owner, self._waiting > 0, self._rates)

    def stop(self) -> None:
        """Let the calls in flight end and no other begin."""
        self._stop.set()
        with self._changed:
            self._changed.notify_all()

    def close(self) -> None:
        """Leave the fleet: let the calls in flight end and hand back what is left."""
        self.stop()
        self._spend.close()
        self._endpoint.close()

    def _use(self, rates: RequestRates) -> None:
        self._rates = rates
        self._client = LeasedClient(
            self._endpoint,
            self._spend,
            self._spend,
            self._spend.calendar,
            rates,
            self._settings.attempts,
            self._stop,
        )

    def _next_part(self) -> tuple[LeasedClient, RunBudget, bool]:
        """A part with room for a call, or the last one."""
        with self._changed:
            self._waiting += 1
            self._changed.wait_for(
                lambda: self._last or self._stop.is_set() or not self._budget.exhausted()
            )
            self._waiting -= 1
            return self._client, self._budget, self._last or self._stop.is_set()


_members: list[Member] = []


def join(settings: Settings, part: Part | None = None) -> None:
    """Make this process a member of a fleet, for as long as it lives. Without a `part`, the pass
    has no limits of its own: the day's cap is the only bound."""
    member = Member(settings, f"{socket.gethostname()}-{os.getpid()}")
    member.begin(part or Part(sys.maxsize, sys.maxsize, RequestRates(), last=True))
    _members.append(member)
    atexit.register(member.close)


def decide(text: str) -> Outcome:
    """A call of the fleet that this process has joined."""
    return _members[-1].decide(text)
