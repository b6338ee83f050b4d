"""The parts of the examples' decision client that need no run of the program."""

from __future__ import annotations

import io
import logging
import math
import threading
import time
from collections.abc import Sequence
from concurrent.futures import ThreadPoolExecutor
from typing import Any, cast

import pytest
from decision_client.client import Client
from decision_client.ledger import Calendar, Outbox, PaidCall
from decision_client.passes import Pass
from decision_client.report import ConsoleLog
from decision_client.wire import (
    AttemptFailed,
    CircuitBreaker,
    Endpoint,
    NotAsked,
    Reply,
    Request,
)
from rich.console import Console

from korvane.engines.decision_bounds import DailySpend, DecisionTimeout, RunBudget

DAY, NEXT_DAY = "2026-03-01", "2026-03-02"
QUESTION = Request("question", "Who mends a leak?")
REPLY = Reply("repairs", 8, 0.25)


class Books:
    """A ledger in memory, and the date that it is."""

    def __init__(self) -> None:
        self.day = DAY
        self.rows: list[PaidCall] = []

    def spent_since(self, day: str) -> float:
        return sum(row.cost for row in self.rows if row.day >= day)

    def record(self, calls: Sequence[PaidCall]) -> None:
        self.rows += calls

    def close(self) -> None: ...


class Script:
    """An endpoint that does as it is told, attempt by attempt, once it may."""

    def __init__(self, *fates: Reply | Exception) -> None:
        self.fates = list(fates)
        self.sent = threading.Semaphore(0)
        self.may_answer = threading.Event()
        self.may_answer.set()

    def send(self, _request: Request, _time_left: float = math.inf) -> Reply:
        self.sent.release()
        assert self.may_answer.wait(20)
        fate = self.fates.pop(0)
        if isinstance(fate, Exception):
            raise fate
        return fate


def made(endpoint: Script, books: Books | None = None) -> tuple[Client, DailySpend]:
    books = books or Books()
    calendar = Calendar(lambda: books.day)
    daily = DailySpend(5.0, calendar.today, books.spent_since)
    return Client(cast(Endpoint, endpoint), daily, books, calendar), daily


@pytest.mark.parametrize(
    ("owner", "name", "day"), [(Script, "send", NEXT_DAY), (Books, "record", DAY)]
)
def test_a_midnight_in_the_middle_of_a_call(
    monkeypatch: pytest.MonkeyPatch, owner: type, name: str, day: str
) -> None:
    """The ledger and the account have the reply on the same day, and once: on the new one where it
    was on its way at midnight, on the one that ends where it was being recorded."""
    books = Books()
    real = getattr(owner, name)

    def over_midnight(*arguments: Any) -> Any:
        books.day = NEXT_DAY
        return real(*arguments)

    client, daily = made(Script(REPLY), books)
    monkeypatch.setattr(owner, name, over_midnight)
    client.ask(QUESTION, math.inf)
    assert [row.day for row in books.rows] == [day]
    assert daily.spent() == books.spent_since(NEXT_DAY)


def test_the_date_does_change_under_load() -> None:
    days, asked = [DAY], threading.Event()

    def date() -> str:
        if threading.current_thread() is not threading.main_thread():
            asked.set()
        return days[-1]

    calendar = Calendar(date)

    def count_another() -> str:
        with calendar.standing_still() as day:
            return day

    with ThreadPoolExecutor(1) as pool, calendar.standing_still() as day:
        days.append(NEXT_DAY)
        later = pool.submit(count_another)
        asked.wait(5)  # for the date, having found the old one in use
        assert (day, calendar.today()) == (DAY, DAY)
    assert later.result() == NEXT_DAY


def test_a_circuit_breaker() -> None:
    """Five failures close the road for a window; one call tries it; failing doubles the window."""
    now = 0.0
    breaker = CircuitBreaker(lambda: now)

    def fail() -> None:
        with pytest.raises(AttemptFailed), breaker.attempt():
            raise AttemptFailed("503")

    def answer() -> None:
        with breaker.attempt():
            pass

    def refused() -> float:
        with pytest.raises(NotAsked, match=r"the endpoint is unavailable \(503\)") as refusal:
            answer()
        return refusal.value.wait_s

    for step in [fail] * 4 + [answer] + [fail] * 4:
        step()
    with pytest.raises(AttemptFailed), breaker.attempt():
        fail()
        assert refused() == 0.5
        now = 0.25
        raise AttemptFailed("503")
    assert refused() == 0.25, "an attempt that was under way is no trial"

    now = 0.5
    with pytest.raises(AttemptFailed), breaker.attempt():
        assert refused() == 0.5, "one call tries, the others do not"
        raise AttemptFailed("503")
    assert refused() == 1.0
    now = 1.5
    answer()
    answer()


def test_a_short_outage_is_waited_out_and_a_long_one_is_not() -> None:
    short, long = (Script(NotAsked("down", wait_s), REPLY) for wait_s in (0.0, 5.0))
    assert made(short)[0].ask(QUESTION, math.inf) == REPLY
    with pytest.raises(NotAsked):
        made(long)[0].ask(QUESTION, math.inf)
    assert long.fates == [REPLY]


def test_a_tool_waits_no_longer_than_its_deadline() -> None:
    """Neither for an equal call nor, as nothing is known of the cost, for one that runs alone."""
    endpoint = Script(REPLY)
    endpoint.may_answer.clear()
    client, _ = made(endpoint)
    with ThreadPoolExecutor(1) as pool:
        first = pool.submit(client.ask, QUESTION, math.inf)
        assert endpoint.sent.acquire(timeout=20)
        with pytest.raises(DecisionTimeout, match="no time is left to wait for the same call"):
            client.ask(QUESTION, time.monotonic())
        with pytest.raises(DecisionTimeout, match="while the calls in flight held the rest"):
            client.ask(Request("question", "Who lends a ladder?"), time.monotonic())
        endpoint.may_answer.set()
        assert not first.result().cached
    assert client.ask(QUESTION, math.inf).cached


def test_what_is_refused_is_no_progress() -> None:
    client, _ = made(Script())
    shown: list[tuple[int, int]] = []
    texts = [Request("paragraph", str(number)) for number in range(9)]
    Pass(client, RunBudget(0, 0), 2).run(texts, [], 1.0, lambda *state: shown.append(state))
    assert shown[-1] == (0, 9)


@pytest.mark.parametrize("terminal", [True, False])
def test_a_warning_wraps_at_words_on_a_terminal_only(terminal: bool) -> None:
    out = io.StringIO()
    words = "The daily decision cost cap is reached: paid calls resume tomorrow, " * 3
    record = logging.LogRecord("a.name", logging.WARNING, "", 0, words.strip(), None, None)
    ConsoleLog(Console(file=out, force_terminal=terminal, width=60)).handle(record)
    lines = out.getvalue().splitlines()
    assert " ".join(" ".join(lines).split()) == f"WARNING a.name: {words.strip()}"
    assert (len(lines) > 1) == terminal and (max(map(len, lines)) <= 60) == terminal


def test_a_ledger_for_several_hosts(postgres: Any) -> None:
    """Hosts that start together make one table; a row whose answer was lost stays one row."""
    url = postgres.new_database("several_hosts")
    call = PaidCall(DAY, "question", 8, 0.25)
    with ThreadPoolExecutor(8) as pool:
        ledgers = list(pool.map(Outbox.open, [url] * 8))
    for ledger in ledgers:
        ledger.record([call])
    first = ledgers[0]
    assert [first.spent_since(DAY), first.spent_since(NEXT_DAY)] == [0.25, 0]
    postgres.stop()
    with pytest.raises(Exception, match="couldn't get a connection"):
        first.spent_since(DAY)
    postgres.start()
    for ledger in ledgers:
        ledger.close()
    told = f"{DAY} could not be read and was counted from $0"
    assert [ledger.trouble for ledger in ledgers] == [told, *[""] * 7]
