"""A process of a fleet: opens the account at its first call, whatever started it."""

from __future__ import annotations

import atexit
import functools
import os
import socket
import sys
import threading
import uuid
from dataclasses import dataclass, field

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
    patience: float = 30.0  # a call counts as lost after so long: more than its endpoint takes
    timeout: float = 5.0
    attempts: int = 4


_lock = threading.Lock()


@functools.cache
def _open(settings: Settings) -> Client:
    name = f"{settings.fleet}/{socket.gethostname()}-{os.getpid()}"
    spend = SharedSpend(settings.account, settings.cap, name=name, patience=settings.patience)
    atexit.register(spend.close)
    endpoint = Endpoint(settings.endpoint, settings.timeout)
    return Client(endpoint, PaidCalls(spend, unknown_cost=0.05), attempts=settings.attempts)


def _client(settings: Settings) -> Client:
    """The client of this process, made once."""
    with _lock:
        return _open(settings)


def decide(request: Request, settings: Settings) -> tuple[Outcome, Reply | None]:
    """What an engine runs, in any thread: how a text ended, and what it used, one paid call at
    most. Where that was lost, whoever handed the text out knows whether there is room for another.
    """
    client = _client(settings)
    task = RunBudget(1, sys.maxsize, should_stop=client.stop.is_set)
    outcome = outcome_of(request, functools.partial(client.decide, request, task))
    used = Reply("", task.input_tokens, task.cost) if task.calls else outcome.reply
    return outcome, used


def stop(settings: Settings) -> None:
    """Let the calls in flight end here and no other begin."""
    _client(settings).stop.set()
