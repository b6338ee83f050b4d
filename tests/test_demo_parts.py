"""The parts of the examples' decision client that need no run of the program."""

from __future__ import annotations

import math
import threading
import time
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from contextlib import closing
from typing import Any

import pytest
from decision_client import wire
from decision_client.client import Client
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.passes import End, Pass

from korvane.engines import decision_bounds as bounds
from korvane.engines.decision_account import PaidCalls, SharedSpend
from support import Task

QUESTION = wire.Request("question", "Who mends a leak?")
REPLY = wire.Reply("repairs", 8, 0.25)
UNKNOWN = 0.5  # what a lost call counts


class Script:
    """An endpoint that does as it is told, attempt by attempt, once it may."""

    def __init__(self, *fates: wire.Reply | Exception) -> None:
        self.fates = list(fates)
        self.sent = threading.Semaphore(0)
        self.may_answer, self.stop = threading.Event(), threading.Event()
        self.may_answer.set()

    def send(self, _request: wire.Request, _time_left: float = math.inf) -> wire.Reply:
        self.sent.release()
        assert self.may_answer.wait(20)
        fate = self.fates.pop(0)
        if isinstance(fate, Exception):
            raise fate
        return fate


@pytest.fixture
def spend() -> Iterator[SharedSpend]:
    with SharedSpend("sqlite://", 50.0) as spend:
        yield spend


def made(endpoint: Any, spend: SharedSpend, attempts: int = 4) -> Client:
    calls = PaidCalls(spend, unknown_cost=UNKNOWN)
    return Client(endpoint, calls, attempts=attempts, stop=getattr(endpoint, "stop", None))


class Told(EmbeddedEndpoint):
    """Gives each request one answer; without one it hangs up."""

    def __init__(self, status: int, told: object) -> None:
        super().__init__(Behaviour(0.0, 0.0, 0.0, 0))
        self.told = status, told
        self.asked = 0

    def answer(self, body: bytes) -> Any:
        self.asked += 1
        if not self.told[0]:
            raise OSError
        return self.told


ANSWER = {"decision": "file", "input_tokens": 5, "cost": 0.25}


@pytest.mark.parametrize(
    ("status", "told", "error", "words"),
    [
        (0, None, wire.ReplyUnread, "no reply was read: Server disconnected"),
        (200, ANSWER | {"cost": math.nan}, wire.ReplyUnread, "makes no sense"),
        (200, ANSWER | {"cost": -0.25}, wire.ReplyUnread, "makes no sense"),
        (200, ANSWER | {"input_tokens": -5}, wire.ReplyUnread, "makes no sense"),
        (200, [], wire.ReplyUnread, "makes no sense"),
        (429, {}, wire.NotServed, "answered 429"),
        (503, {}, wire.NotServed, "answered 503"),
        (401, {}, wire.Rejected, "rejected the request: 401"),
    ],
)
def test_an_answer_that_is_none(
    spend: SharedSpend, status: int, told: object, error: type[bounds.DecisionError], words: str
) -> None:
    """What may be billed counts, attempt by attempt, though nothing was answered; an attempt that
    was answered with an error does not. Whoever asks again is not told what came of it before."""
    attempts, lost = 1 if error is wire.Rejected else 2, error is wire.ReplyUnread
    with Told(status, told) as server, closing(wire.Endpoint(server.url, 20.0)) as endpoint:
        client, budget = made(endpoint, spend, attempts=2), bounds.RunBudget(10, 1000)
        for times in (1, 2):
            with pytest.raises(error, match=words):
                client.decide(QUESTION, budget)
            assert server.asked == times * attempts
            assert spend.spent() == budget.cost == server.asked * UNKNOWN * lost
        assert (budget.calls, budget.in_flight) == (server.asked * lost, 0)
        assert client.stats.lost == server.asked * lost
    spent = spend.spent()
    unreached = pytest.raises(wire.NotServed, match="reached")
    with closing(wire.Endpoint(server.url, 20.0)) as endpoint, unreached:
        made(endpoint, spend, attempts=1).ask(QUESTION, math.inf)
    assert (spend.figures().in_flight, spend.spent()) == (0, spent)


def test_a_circuit_breaker() -> None:
    """Five failures close the road for a window; one call tries it; failing doubles the window."""
    now = 0.0
    breaker = wire.CircuitBreaker(lambda: now)

    def fail() -> None:
        with pytest.raises(wire.AttemptFailed), breaker.attempt():
            raise wire.AttemptFailed("503")

    def answer() -> None:
        with breaker.attempt():
            pass

    def refused() -> float:
        with pytest.raises(wire.NotAsked, match=r"the endpoint is unavailable \(503\)") as refusal:
            answer()
        return refusal.value.wait_s

    for step in [fail] * 4 + [answer] + [fail] * 4:
        step()
    with pytest.raises(wire.AttemptFailed), breaker.attempt():
        fail()
        assert refused() == 0.5
        now = 0.25
        raise wire.AttemptFailed("503")
    assert refused() == 0.25, "an attempt that was under way is no trial"

    now = 0.5
    with pytest.raises(wire.AttemptFailed), breaker.attempt():
        assert refused() == 0.5, "one call tries, the others do not"
        raise wire.AttemptFailed("503")
    assert refused() == 1.0
    now = 1.5
    answer()
    answer()
    for step in [fail] * 5:
        step()
    assert refused() == 0.5, "an answer ends the window that had grown"


def test_a_short_outage_is_waited_out_and_a_long_one_is_not(spend: SharedSpend) -> None:
    short, long = (Script(wire.NotAsked("down", wait_s), REPLY) for wait_s in (0.0, 5.0))
    assert made(short, spend).ask(QUESTION, math.inf) == REPLY
    with pytest.raises(wire.NotAsked):
        made(long, spend).ask(QUESTION, math.inf)
    assert (long.fates, spend.spent()) == ([REPLY], REPLY.cost)


def test_an_answer_is_paid_once_and_a_tool_ends_in_time(spend: SharedSpend) -> None:
    """Who asks for what is under way is answered with it. At its deadline, or at a stop, a tool
    waits neither for that nor, as nothing is known of the cost, for a call that runs alone; and
    nothing is tried again after it."""
    down, budget = wire.NotServed("503"), bounds.RunBudget(9, 99)
    endpoint = Script(REPLY, down, down, REPLY)
    endpoint.may_answer.clear()
    client = made(endpoint, spend)
    ladder = wire.Request("question", "Who lends a ladder?")
    with ThreadPoolExecutor(2) as pool:
        replies = [pool.submit(client.decide, QUESTION, budget) for _ in range(2)]
        assert endpoint.sent.acquire(timeout=20)
        with pytest.raises(bounds.DecisionTimeout, match="left to wait for the same call"):
            client.ask(QUESTION, time.monotonic())
        with pytest.raises(bounds.DecisionTimeout, match="while the calls in flight held the rest"):
            client.ask(ladder, time.monotonic())
        endpoint.stop.set()
        with pytest.raises(bounds.DecisionStopped, match="the pass was asked to stop"):
            client.ask(ladder, math.inf)
        endpoint.stop.clear()
        endpoint.may_answer.set()
        assert sorted(reply.result().cached for reply in replies) == [False, True]
    assert client.ask(QUESTION, -math.inf).cached
    with pytest.raises(bounds.DecisionTimeout, match="no time is left to try again: 503"):
        client.ask(ladder, time.monotonic())
    endpoint.stop.set()
    with pytest.raises(bounds.DecisionStopped, match="asked to stop between two attempts"):
        client.ask(ladder, math.inf)
    assert (budget.calls, budget.cache_hits) == (1, 1)
    assert (endpoint.fates, spend.spent()) == ([REPLY], REPLY.cost)


def test_a_refusal_says_by_which_bound_and_is_no_progress(spend: SharedSpend) -> None:
    shown: list[tuple[int, int]] = []
    texts = [wire.Request("paragraph", str(number)) for number in range(9)]
    endpoint, budget = Script(*[REPLY] * 9), bounds.RunBudget(2, 1000)
    client = made(endpoint, spend)

    def ends() -> list[End]:
        run = Pass(client, budget, 1).run(texts, [], 1.0, lambda *state: shown.append(state))
        return [outcome.end for outcome in run[0]]

    assert ends() == [End.ANSWERED] * 2 + [End.OUT_OF_BUDGET] * 7
    assert shown[-1] == (2, 7)

    budget = bounds.RunBudget(9, 1000)
    with budget.hold(math.inf):  # a pass that only the client's stop ends
        endpoint.stop.set()
        assert Task(ends).result() == [End.ANSWERED] * 2 + [End.STOPPED] * 7
    endpoint.stop.clear()
    assert spend.figures().held == 0
    spend.set_cap(spend.spent() + REPLY.cost)
    budget = bounds.RunBudget(9, 1000)
    assert ends() == [End.ANSWERED] * 3 + [End.CAP_REACHED] * 6
    assert (shown[-1], budget.cache_hits) == ((3, 6), 2)

    spend.close()
    assert ends() == [End.ANSWERED] * 3 + [End.LEDGER_FAILED] * 6
