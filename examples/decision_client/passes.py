"""A batch pass: many requests at once, each ending in an answer or in the reason why not."""

from __future__ import annotations

import functools
import time
from collections.abc import Callable, Sequence
from concurrent.futures import Future, ThreadPoolExecutor, wait
from dataclasses import dataclass
from enum import IntEnum

from decision_client.client import Client
from decision_client.wire import Reply, Request
from korvane.engines.decision_account import AccountError, CapReached
from korvane.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    DecisionStopped,
    DecisionTimeout,
    RunBudget,
)


class End(IntEnum):
    """How a call ended, or a run, whose exit status it is: of several ends the highest counts."""

    reason: str

    def __new__(cls, status: int, reason: str) -> End:
        end = int.__new__(cls, status)
        end._value_ = status
        end.reason = reason
        return end

    ANSWERED = 0, "everything was answered"
    FAILED = 1, "some requests failed"
    NOT_BEGUN = 2, "bad arguments, an unreadable file or nothing to answer"
    OUT_OF_BUDGET = 3, "the budget of the pass had no room for more calls"
    CAP_REACHED = 4, "the day's cap is reached"
    TIMED_OUT = 5, "a tool's call ran out of its deadline"
    LEDGER_FAILED = 6, "the ledger could not be opened, read or written"
    STOPPED = 130, "stopped by Ctrl-C"


# In the order in which they are tried: the first class that fits.
_ENDS: list[tuple[type[DecisionError], End]] = [
    (AccountError, End.LEDGER_FAILED),
    (CapReached, End.CAP_REACHED),
    (DecisionBudgetExceeded, End.OUT_OF_BUDGET),
    (DecisionTimeout, End.TIMED_OUT),
    (DecisionStopped, End.STOPPED),
    (DecisionError, End.FAILED),
]


@dataclass(frozen=True)
class Outcome:
    """How one call ended: with a reply, or with the message of its error."""

    request: Request
    end: End
    reply: Reply | None = None
    message: str = ""


class Pass:
    """Asks the paragraphs from a pool of ``workers`` threads, and tools' questions beside it."""

    def __init__(self, client: Client, budget: RunBudget, workers: int) -> None:
        self._client = client
        self._budget = budget
        self._workers = workers

    def run(
        self,
        paragraphs: Sequence[Request],
        questions: Sequence[Request],
        deadline_s: float,
        show: Callable[[int, int], None],
    ) -> tuple[list[Outcome], list[Outcome]]:
        """The outcomes of the paragraphs and of the questions. For ``show`` see :func:`watch`."""
        with (
            ThreadPoolExecutor(self._workers) as batch,
            # A tool's question has a thread of its own: it must not queue behind the pass.
            ThreadPoolExecutor(max(1, len(questions))) as tools,
        ):
            decided = [batch.submit(self._decide, request) for request in paragraphs]
            asked = [tools.submit(self._ask, request, deadline_s) for request in questions]
            outcomes = watch([*decided, *asked], show)
        return outcomes[: len(decided)], outcomes[len(decided) :]

    def _decide(self, request: Request) -> Outcome:
        return outcome_of(request, functools.partial(self._client.decide, request, self._budget))

    def _ask(self, request: Request, deadline_s: float) -> Outcome:
        deadline = time.monotonic() + deadline_s
        return outcome_of(request, functools.partial(self._client.ask, request, deadline))


def watch(
    calls: Sequence[Future[Outcome]], show: Callable[[int, int], None], every: float = 0.1
) -> list[Outcome]:
    """Their outcomes, once all have ended. ``show`` is told ever and again, in seconds, how many
    were answered and how many ended without; the calling thread is free for signals."""
    running = set(calls)
    ended: list[Outcome] = []
    show(0, 0)
    while running:
        done, running = wait(running, timeout=every)
        ended += [call.result() for call in done]
        answered = sum(outcome.end is End.ANSWERED for outcome in ended)
        show(answered, len(ended) - answered)
    return [call.result() for call in calls]


def outcome_of(request: Request, call: Callable[[], Reply]) -> Outcome:
    try:
        return Outcome(request, End.ANSWERED, reply=call())
    except DecisionError as error:
        return ended_by(error, request)


def ended_by(error: DecisionError, request: Request) -> Outcome:
    end = next(end for kind, end in _ENDS if isinstance(error, kind))
    return Outcome(request, end, message=str(error))
