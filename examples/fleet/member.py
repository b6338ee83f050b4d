"""A process of a fleet: opens the account at its first call, whatever started it."""

from __future__ import annotations

import atexit
import functools
import os
import signal
import socket
import sys
import threading
import uuid
from dataclasses import dataclass, field
from multiprocessing.synchronize import Event
from typing import cast

from decision_client.client import Client
from decision_client.passes import Outcome, outcome_of
from decision_client.wire import Endpoint, Reply, Request

from korvane.engines.decision_account import PaidCalls, SharedSpend
from korvane.engines.decision_bounds import RunBudget


@dataclass(frozen=True)
class Settings:
    """What every process of a fleet is told; amounts in USD, durations in seconds."""

    account: str
    endpoint: str
    cap: float
    #: The name of every process begins with it, so that the books of one pass can be told apart.
    fleet: str = field(default_factory=lambda: uuid.uuid4().hex[:8])
    unknown_cost: float = 0.05
    #: A call counts as lost after so long: more than its endpoint takes.
    patience: float = 30.0
    timeout: float = 5.0
    attempts: int = 4


@dataclass(frozen=True)
class Answer:
    """How a text ended, and what it used of its pass: at most one paid call."""

    outcome: Outcome
    used: Reply | None


class Member:
    """This process, in one fleet. Any number of threads call :meth:`decide`."""

    def __init__(self, settings: Settings) -> None:
        self.stop = _stop_of_all or threading.Event()
        name = f"{settings.fleet}/{socket.gethostname()}-{os.getpid()}"
        self._spend = SharedSpend(
            settings.account, settings.cap, name=name, patience=settings.patience
        )
        self._client = Client(
            Endpoint(settings.endpoint, settings.timeout),
            PaidCalls(self._spend, unknown_cost=settings.unknown_cost),
            attempts=settings.attempts,
            stop=self.stop,
        )
        atexit.register(self._spend.close)

    def decide(self, request: Request) -> Answer:
        """Attempt the call until it is answered, or was paid and its reply lost: whether there is
        room for one more, the coordinator knows."""
        task = RunBudget(1, sys.maxsize, should_stop=self.stop.is_set)
        outcome = outcome_of(request, functools.partial(self._client.decide, request, task))
        used = Reply("", task.input_tokens, task.cost) if task.calls else outcome.reply
        return Answer(outcome, used)


_lock = threading.Lock()
_members: dict[Settings, Member] = {}
_stop_of_all: threading.Event | None = None


def member(settings: Settings) -> Member:
    with _lock:
        if settings not in _members:
            _members[settings] = Member(settings)
        return _members[settings]


def decide(request: Request, settings: Settings) -> Answer:
    """What an engine runs."""
    return member(settings).decide(request)


def stop(settings: Settings) -> None:
    """Let the calls in flight end here and no other begin."""
    member(settings).stop.set()


def join(stop: Event) -> None:
    """Make this process one of a pool, whose coordinator handles Ctrl-C and stops all of it."""
    global _stop_of_all
    signal.signal(signal.SIGINT, signal.SIG_IGN)
    _stop_of_all = cast(threading.Event, stop)
