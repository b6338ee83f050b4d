"""What one process may spend: its leases, from the first to what it hands back."""

import logging
import time
from collections.abc import Callable, Iterator
from contextlib import ExitStack, closing

import pytest

from support import Reply, Task

pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
from fleet.account import MICRO, Account, AccountError, books
from fleet.leased import LeasedSpend
from fleet.postgres import Server
from fleet_support import CAP, Join, balanced, paid, set_clock, until

from korvane.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionStopped,
    DecisionTimeout,
    Share,
    never,
)

type Spend = Callable[..., LeasedSpend]


@pytest.fixture
def spend() -> Iterator[Spend]:
    """Makes a process's account, and closes it in the end."""
    with ExitStack() as stack:

        def spend(url: str, owner: str, *, slice_: int = 100_000, cap: int = CAP, term: float = 9):
            account = Account(url, owner, cap, term)
            return stack.enter_context(closing(LeasedSpend(account, cap, slice_, threads=1)))

        yield spend


def admit(spend: LeasedSpend, micro: int, seconds: float | None = None, stopping=never) -> Share:
    deadline = None if seconds is None else time.monotonic() + seconds
    return spend.admit(
        lambda: micro / MICRO, deadline=deadline, clock=time.monotonic, stopping=stopping
    )


def settle(spend: LeasedSpend, share: Share, micro: int) -> None:
    """As a client does: the row, then the share, on one day."""
    with spend.calendar.standing_still() as day:
        spend.record([paid(day, micro)])
        share.settle(Reply(cost=micro / MICRO))


def call(spend: LeasedSpend, micro: int) -> None:
    settle(spend, admit(spend, micro), micro)


def test_a_spent_day_is_refused_once_and_asked_for_once_a_second(
    url: str, spend: Spend, caplog: pytest.LogCaptureFixture
) -> None:
    process = spend(url, "only")
    with caplog.at_level(logging.WARNING), pytest.raises(DecisionBudgetExceeded):
        while True:
            call(process, 30_000)
    (book,) = books(url)
    assert CAP <= book.paid < CAP + 30_000, "all of the cap is usable, and one call beyond it"
    begun = time.monotonic()
    for _ in range(1000):
        with pytest.raises(DecisionBudgetExceeded):
            admit(process, 1)
    again = books(url)[0].requests - book.requests
    assert again <= 2 + (time.monotonic() - begun)
    assert caplog.text.count("The daily decision cost cap is reached") == 1
    assert balanced(url)


def test_a_call_waits_while_another_process_may_still_hand_back(url: str, spend: Spend) -> None:
    holder, waiter = spend(url, "holder", slice_=CAP, term=999), spend(url, "waiter")
    call(holder, 500)
    with pytest.raises(DecisionTimeout):
        admit(waiter, 1, seconds=0.01)
    with pytest.raises(DecisionStopped):
        admit(waiter, 1, stopping=lambda: True)
    share = Task(admit, waiter, 1)
    settle(waiter, share.result(), 700)  # an idle process hands back what it does not use
    assert [book.handed_back for book in books(url)] == [CAP - 500, 0]
    assert balanced(url)


def test_a_lease_that_has_ended_admits_nothing(
    url: str, spend: Spend, join: Join, caplog: pytest.LogCaptureFixture
) -> None:
    process, other = spend(url, "slow", slice_=CAP, term=0.5), join(url, "other")
    call(process, 500)
    with process.line:  # it cannot renew
        until(lambda: other.lease(CAP).amount == CAP - 500)
        with pytest.raises(DecisionTimeout):
            admit(process, 1, seconds=0.01)
    with pytest.raises(DecisionTimeout):
        admit(process, 1, seconds=0.5)
    assert "silent past its lease" in caplog.text
    assert balanced(url)


def test_midnight(url: str, spend: Spend) -> None:
    set_clock(url, before_midnight=1.0)
    process = spend(url, "only", slice_=CAP, term=999)
    call(process, 400_000)
    across = admit(process, 300_000)
    old = process.calendar.today()
    until(lambda: process.calendar.today() != old)
    settle(process, across, 300_000)
    with pytest.raises(DecisionBudgetExceeded):
        while True:
            call(process, 50_000)
    before, after = books(url)
    assert before.day == old and before.paid == 400_000
    assert after.day > old and CAP <= after.paid <= CAP + 50_000
    assert balanced(url)


def test_without_its_server_nothing_is_admitted_or_lost(
    postgres: Server, url: str, spend: Spend
) -> None:
    process = spend(url, "only", slice_=5000)
    share = admit(process, 4000)
    postgres.stop()
    try:
        settling = Task(settle, process, share, 4000)
        with pytest.raises(DecisionTimeout):
            while True:
                admit(process, 4000, seconds=0.3)
        assert settling.is_alive(), "recorded before it settles"
    finally:
        postgres.start()
    settling.result()
    call(process, 4000)
    assert [(book.paid, book.calls) for book in books(url)] == [(8000, 2)]
    assert balanced(url)


def test_a_cap_that_differs_is_said_to_every_call(url: str, spend: Spend, join: Join) -> None:
    join(url, "other").lease(0)
    process = spend(url, "only", cap=CAP + 1)
    for _ in range(2):
        with pytest.raises(AccountError, match="the cap of"):
            admit(process, 1)
    assert balanced(url)
