"""The shared account: what it grants, refuses and proves, on a real PostgreSQL."""

import random
import uuid
from collections.abc import Callable
from typing import Any

import pytest
from support import together

pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
import psycopg
from fleet.account import Account, AccountUnreachable, books, connect
from fleet.client import PaidCall
from fleet.postgres import Server
from fleet_support import CAP, Join, balanced, new_account, paid

from korvane.engines.decision_bounds import DecisionError


def test_ten_processes_may_make_it_at_once(url: str, join: Join) -> None:
    together(10, lambda _: connect(url).close())
    assert join(url, "a").lease(5).amount == 5


def test_a_lease_grants_what_is_left_and_knows_when_all_is_paid(url: str, join: Join) -> None:
    a, b = join(url, "a"), join(url, "b")
    assert a.lease(700_000).amount == 700_000
    granted = b.lease(700_000)
    assert (granted.amount, granted.spent) == (300_000, False)
    b.record(paid(granted.day, 300_000))
    refused = b.lease(1)
    assert (refused.amount, refused.spent) == (300_000, False), "a has not paid yet"
    a.record(paid(granted.day, 100_000))
    assert a.hand_back(granted.day) == 100_000
    assert b.lease(900_000).amount == 900_000
    b.record(paid(granted.day, 600_500))  # beyond its lease, as a last call may be
    assert b.lease(1).spent and a.lease(1).spent
    assert balanced(url)


def test_what_a_silent_owner_has_not_paid_returns(url: str, join: Join) -> None:
    silent, other = join(url, "silent", term=0), join(url, "other")
    day = silent.lease(CAP // 2).day
    silent.record(paid(day, 1_000))
    assert silent.lease(CAP).amount == CAP, "who asks is not silent"
    assert other.lease(CAP).amount == CAP - 1_000
    silent.record(paid(day, 2_500))  # a call that was in flight: proven, and beyond its lease
    renewed = silent.lease(CAP)
    assert (renewed.amount, renewed.spent) == (1_000, False)
    other.hand_back(day)
    assert other.lease(CAP).amount == CAP - 1_000 - 2_500
    assert balanced(url)


def test_a_thousand_repetitions_leave_the_books_as_one_request_does(
    postgres: Server, join: Join
) -> None:
    asked: list[tuple[Any, ...]] = []
    echo = random.Random(2)

    class Repeating(Account):
        def _ask(self, query: str, values: Any) -> Any:
            answer = super()._ask(query, values)
            again = super()._ask(query, values)
            assert again is None or again[-2:] == answer[-2:]
            asked.append((super(), query, values))
            for account, *request in echo.choices(asked, k=10):
                account._ask(*request)  # an old request that comes late, after newer ones
            return answer

    def run(kind: type[Account]) -> str:
        url, dice = new_account(postgres, kind.__name__.lower()), random.Random(11)
        accounts = [join(url, owner, kind=kind) for owner in "abc"]
        for number in range(50):
            account, cost = dice.choice(accounts), dice.randrange(50_000)
            day = account.lease(dice.randrange(60_000)).day
            if dice.random() < 0.3:
                account.hand_back(day)
            else:
                row = PaidCall(day, "paragraph", 5, cost / 1e6, uuid.UUID(int=number))
                account.record(row)
        return url

    once, often = run(Account), run(Repeating)
    assert len(asked) == 100, "each repeated eleven times"
    assert books(once) == books(often)
    assert balanced(often)


def test_an_answer_that_is_lost_is_granted_once(url: str, join: Join) -> None:
    class Losing(Account):
        def _ask(self, query: str, values: Any) -> Any:
            answer = super()._ask(query, values)
            if losing:
                raise AccountUnreachable
            return answer

    def lose(ask: Callable[..., Any], *args: Any) -> None:
        losing.append(True)
        with pytest.raises(AccountUnreachable):
            ask(*args)
        losing.clear()

    losing: list[bool] = []
    account, other = join(url, "cut", kind=Losing), join(url, "other")
    day = account.lease(1_000).day
    row = paid(day, 4_000)
    lose(account.lease, 500_000)
    assert account.lease(7).amount == 501_000, "the request that was lost, and not another"
    lose(account.record, row)
    account.record(row)
    lose(account.hand_back, day)
    assert account.lease(7).amount == 4_000
    assert account.lease(7).amount == 4_007
    assert other.lease(CAP).amount == CAP - 4_007
    assert balanced(url)


def test_many_at_once_never_lease_more_than_the_cap(url: str, join: Join) -> None:
    def run(number: int) -> None:
        dice, account = random.Random(number), join(url, f"{number}", term=number % 2)
        for _ in range(40):
            lease = account.lease(dice.randrange(CAP // 3))
            account.record(paid(lease.day, dice.randrange(CAP // 100)))
            if dice.random() < 0.4:
                account.hand_back(lease.day)

    together(8, run)
    assert balanced(url)
    assert sum(book.calls for book in books(url)) == 320


def test_the_database_itself_refuses_what_must_never_be(url: str, join: Join) -> None:
    account = join(url, "a")
    account.record(paid(account.lease(CAP).day, 5))
    before = books(url)
    with connect(url) as connection:
        for statement in (
            "UPDATE fleet.day SET leased = cap + 1",
            "UPDATE fleet.day SET beyond = -1",
            "UPDATE fleet.lease SET amount = -1",
            "UPDATE fleet.lease SET amount = amount + 1, granted = granted + 1",
            "UPDATE fleet.paid SET cost = 4",
            "INSERT INTO fleet.paid SELECT gen_random_uuid(), day, owner, -1, 0 FROM fleet.lease",
            "DELETE FROM fleet.paid",
            "DELETE FROM fleet.lease",
        ):
            with pytest.raises(psycopg.Error):
                connection.execute(statement)
    assert books(url) == before and balanced(url)


def test_bad_input_leases_nothing(url: str, join: Join) -> None:
    join(url, "first").lease(5)
    wrong = url.replace("owner:", "owner:not-")
    for ask, words in (
        (lambda: join(url, "a", cap=CAP // 2).lease(5), r"is \$1.000000, not \$0.500000$"),
        (lambda: join(url, "a").lease(-5), r"negative: \$-0.000005$"),
        (lambda: connect(wrong), "password authentication failed"),
        (lambda: connect("postgresql://127.0.0.1:1/none"), "Connection refused"),
        (lambda: connect("nonsense"), "connection info string"),
    ):
        with pytest.raises(DecisionError, match=words) as raised:
            ask()
        assert "\n" not in str(raised.value)
    assert [book.owner for book in books(url)] == ["first"]
