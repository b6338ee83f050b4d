"""What every store of an account does: the rules, whatever is sent twice, late or out of order."""

from __future__ import annotations

import functools
import math
from collections.abc import Callable
from typing import Any

import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

from korvane.engines import decision_bounds as bounds
from korvane.engines.decision_account import AccountError, Books
from korvane.engines.decision_account.records import NANO, Ending, Maxima, Opening, State, Sums
from support import Reply, admit, together

CAP = NANO
DAY_S = 86400
OPEN, LOST, UNPAID, PAID = State


def opening(id: str, held: int | None, cost: int | None = None, patience: float = 600) -> Opening:
    return Opening(id, held, held if cost is None else cost, "n", "desk", patience)


def ending(id: str, state: State, cost: int = 0, learned: Maxima | None = None) -> Ending:
    return Ending(id, state, cost, "n", "desk", learned)


def book(day: str, calls: int, *amounts: int, name: str = "n") -> Books:
    return Books(day, name, calls, *(amount / NANO for amount in amounts))


def test_the_rule(bench: Any) -> None:
    """Whoever finds less than the cap paid and held is admitted; an unknown amount alone."""
    store, other = bench.store, bench.other()
    admit = store.admit
    assert admit(opening("a", CAP - 1)).state is OPEN
    assert admit(opening("alone", None)).state is None
    assert other.admit(opening("b", CAP)).state is OPEN
    assert admit(opening("c", 0)).state is None
    assert store.look() == Sums(CAP, 2, 2 * CAP - 1, 0, 0)
    maxima = Maxima(1 / 3, 0.7, 1e-9, 2**53)
    unread = Ending("?", PAID, 1, "n", "unlearned")
    ends = [ending("a", UNPAID), ending("b", PAID, CAP - 2, maxima), unread]
    store.settle([*ends, ending("b2", PAID, 0, Maxima(0.1, 0.8, 0, 3))])
    # What is lower comes too late, and so does an admission: they change nothing.
    store.settle([ending("b", LOST), ending("b", UNPAID), ending("a", LOST)])
    assert admit(opening("a", 1)).state is UNPAID
    assert store.look() == Sums(CAP, 0, 0, CAP - 1, 0)
    assert other.known() == (Maxima(1 / 3, 0.8, 1e-9, 2**53), {"desk"})
    # An unknown amount holds all that is left, and counts it where nothing else is said.
    assert admit(opening("d", None)).state is OPEN
    answer = other.admit(opening("e", 1))
    assert (answer.state, answer.paid, answer.cap) == (None, CAP - 1, CAP)
    store.settle([ending("d", LOST)])
    assert store.look() == Sums(CAP, 0, 0, CAP, 1)
    # The cap changes for all at once, and the one told at the opening does not matter.
    other.set_cap(2 * CAP)
    assert other.open(CAP) == 2 * CAP
    assert admit(opening("é\n'\\", 2**53 + 1)).state is OPEN
    assert {(row[1], row[2], row[3], row[4], row[5]) for row in other.table()} == {
        ("desk", OPEN, 1, 2**53 + 1, 0),
        ("desk", LOST, 1, 1, 0),
        ("desk", UNPAID, 1, 0, 0),
        ("desk", PAID, 2, CAP - 2, 0),
        ("unlearned", PAID, 1, 1, 0),
    }


def test_many_ask_at_once(bench: Any) -> None:
    """Room for five is given to five, whichever way they come. Whoever comes to his turn when the
    store is closed opens nothing anew."""
    stores = [bench.store, bench.other()]
    for turn in range(10):

        def ask(number: int, turn: int = turn) -> list[str]:
            ids = [f"{turn}-{number}-{call}" for call in range(5)]
            store = stores[number % 2]
            return [id for id in ids if store.admit(opening(id, CAP // 5)).state is OPEN]

        admitted = [id for ids in together(6, ask) for id in ids]
        assert len(admitted) == 5
        stores[0].settle([ending(id, UNPAID) for id in admitted])
    assert stores[1].look() == Sums(CAP, 0, 0, 0, 0)
    stores[0].close()
    with pytest.raises(AccountError, match=r"^the account is closed$"):
        stores[0].look()


def test_time(bench: Any) -> None:
    store, noon = bench.store, bench.now
    midnight = noon + DAY_S / 2
    # A call that is open past its end is lost, on the day of its end.
    store.admit(opening("a", 300, 200, patience=DAY_S / 2 - 1))
    store.admit(opening("b", 40, patience=DAY_S / 2))
    bench.go(midnight - 1)
    assert store.look() == Sums(CAP, 1, 40, 200, 200)
    bench.go(midnight + 5)
    assert store.look() == Sums(CAP, 0, 0, 40, 40)
    assert store.books(2) == [
        book("2024-10-04", 1, 300, 0, 200, 200, 200, 0),
        book("2024-10-05", 1, 40, 0, 40, 40, 40, 0),
    ]
    # It is corrected where it was counted: `a` yesterday, `b` today.
    store.settle([ending("a", PAID, 250), ending("b", PAID, 45)])
    assert store.look() == Sums(CAP, 0, 0, 45, 0)
    # What is open holds across midnight, and counts on the day on which it settles.
    store.admit(opening("c", CAP - 45, patience=2 * DAY_S))
    assert store.admit(opening("d", 1)).state is None
    bench.go(midnight + DAY_S)
    assert store.admit(opening("d", 1, CAP)).state is OPEN
    store.settle([ending("c", PAID, 9)])
    assert store.look() == Sums(CAP, 1, 1, 9, 0)
    # A clock that goes back frees nothing: what is paid on a later day is paid.
    store.settle([Ending("e", PAID, CAP - 9, "charged", "")])
    assert store.books(2) == [
        book("2024-10-05", 1, 40, 0, 45, 0, 45, 5),
        book("2024-10-06", 1, 0, 0, CAP - 9, 0, CAP - 9, CAP - 9, name="charged"),
        book("2024-10-06", 2, CAP - 44, 1, 9, 0, 9, 0),
    ]
    bench.go(midnight + 5)
    assert store.admit(opening("f", 1)).paid == CAP
    # What has ended goes, but for the days that are kept; what is open never goes.
    bench.go(midnight + DAY_S)
    assert store.prune(3) == 0
    assert store.prune(2) == 1
    bench.go(midnight + 3 * DAY_S)
    store.admit(opening("g", 5))
    assert store.prune(1) == 4
    assert store.look() == Sums(CAP, 1, 5, 0, 0)


UNIT = 2**-9  # USD: whole nano-dollars, and exact in binary
amounts = st.integers(0, 8)
steps = st.one_of(
    st.tuples(st.just("admit"), st.one_of(st.none(), amounts)),
    st.tuples(st.just("settle"), st.one_of(st.none(), amounts)),
    st.tuples(st.just("charge"), amounts),
    st.tuples(st.just("repeat"), st.integers(0, 30)),
    st.tuples(st.just("midnight"), st.none()),
)


def nano(units: int) -> int:
    return round(units * UNIT * NANO)


@settings(
    max_examples=30, deadline=None, suppress_health_check=[HealthCheck.function_scoped_fixture]
)
@given(st.lists(steps, max_size=30))
def test_any_steps_come_to_what_the_module_says(
    bench: Any, taken: list[tuple[str, int | None]]
) -> None:
    store = bench.store
    cap = 10
    bench.go(bench.now + 3 * DAY_S)
    store.set_cap(nano(cap))
    store.prune(1)
    day = [0]
    spend = bounds.DailySpend(cap * UNIT, lambda: f"day {day[0]}", None)
    running: list[tuple[str, bounds.Share]] = []
    said: list[Callable[[], object]] = []
    for number, (step, units) in enumerate(taken):
        id = f"{bench.now}-{number}"
        if step == "midnight":
            day[0] += 1
            bench.go(bench.now + DAY_S)
        elif step == "repeat" and said:
            said[(units or 0) % len(said)]()
        elif step == "charge":
            assert units is not None
            spend.charge(Reply(cost=units * UNIT))
            said.append(functools.partial(store.settle, [ending(id, PAID, nano(units))]))
            said[-1]()
        elif step == "settle" and running:
            id, share = running.pop((units or 0) % len(running))
            share.settle(None if units is None else Reply(cost=units * UNIT))
            end = ending(id, UNPAID) if units is None else ending(id, PAID, nano(units))
            said.append(functools.partial(store.settle, [end]))
            said[-1]()
        elif step == "admit":
            held = None if units is None else nano(units)
            request = functools.partial(store.admit, opening(id, held, 0, patience=1e9))
            answer = request()
            try:
                share = admit(spend, math.inf if units is None else units * UNIT)
            except bounds.DecisionBudgetExceeded:
                assert answer.state is None and answer.paid >= answer.cap
            except bounds.DecisionTimeout:
                assert answer.state is None and answer.paid < answer.cap
            else:
                assert answer.state is OPEN
                running.append((id, share))
                said.append(request)
        sums = store.look()
        assert sums.paid / NANO == spend.spent()
        assert sums.holders == len(running)
    store.settle([ending(id, UNPAID) for id, _ in running])


def test_a_batch_is_carried_out_as_a_whole(bench: Any) -> None:
    """And what cannot be written is nobody's trouble but its own: no amount is too large."""
    store = bench.store
    ends = [ending("a", PAID, 1), ending("b", PAID, 2)]
    with pytest.raises(Exception):  # noqa: B017
        store.settle([*ends, ending("c", PAID, -3)])
    assert store.look().paid == 0
    store.settle([*ends, ending("c", PAID, 3, Maxima.of(0, 1e300, 10**30))])
    assert store.look().paid == 6
