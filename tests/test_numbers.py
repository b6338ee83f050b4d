"""Numbers keep their Python meaning: whatever is put in, the module comes to what Python comes to.

Every example makes an object of the module and one of its model with the same strange numbers, does
the same to both, and compares results, errors and what is then held.
"""

import math
from collections.abc import Callable, Iterator
from copy import deepcopy
from decimal import Decimal
from fractions import Fraction
from types import ModuleType
from typing import Any

import plain_bounds as model
import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st
from support import Reply, admit, fields, never_waits, outcome, state, stops_to_wait

from korvane.engines import decision_bounds as bounds


class Whole(int):
    """An int that adds in its own way."""

    def __add__(self, other: object) -> Any:
        return f"{int(self)} and {other}"


EDGES = [
    0, 1, 2, -1, 2**52 - 1, 2**52, -(2**52), -(2**52) - 1, 2**53, 2**53 + 1, 2**63 - 1, 2**63,
    -(2**63), -(2**63) - 1, 2**64, 10**40, 10**400, 0.0, -0.0, 0.1, 0.5, 1.0, 1e6, 1e16, 1e-7,
    1e308, 5e-324, math.inf, -math.inf, math.nan,
]  # fmt: skip
STRANGE = [
    True, False, None, "1", "x", b"", (), {}, [], 1j, Fraction(1, 3), Decimal("0.1"),
    Decimal("NaN"), Decimal("Infinity"), Whole(3), type("Float", (float,), {})(2.5),
]  # fmt: skip
number = st.sampled_from(EDGES) | st.integers(-5, 50) | st.floats(-5, 50)
value = number | number | number | st.sampled_from(STRANGE)
Steps = Iterator[tuple[Any, ...]]
THOROUGH = settings(max_examples=400, deadline=None)


def same(steps: Callable[..., Steps], *values: Any) -> None:
    """What each call comes to. Each side has copies of its own: a list that is added to grows."""
    ours, theirs = (
        [outcome(call, *args) for call, *args in steps(m, *deepcopy(values))]
        for m in (bounds, model)
    )
    assert ours == theirs


@THOROUGH
@given(st.tuples(value, value, value), st.lists(st.tuples(value, value, value), max_size=4))
@example((0, 0.0, 0), [(10**400, 0, 1)])
@example((2**63 - 1, 1, 0), [(1, 0, 5), (0.5, 0, 5)])
def test_tally(start: tuple[Any, ...], uses: list[tuple[Any, ...]]) -> None:
    def steps(m: ModuleType, start: Any, uses: Any) -> Steps:
        tally = m._Held(*start)
        for share, used, limit in uses:
            yield from ((tally.admits, share, used, limit), (tally.take, share), (repr, tally))
        for share, used, _ in uses:
            yield from ((tally.give_back, share), (tally.give_back, used), (repr, tally))

    same(steps, start, uses)


@THOROUGH
@given(value, value, st.lists(st.tuples(value, value), max_size=4))
@example(0.0, 0.0, [(2**64, 1), (0, 10**400), (10**400, 0.5)])
@example(0.0, 2.0**53, [(1, 2**53 + 1)])
def test_charges(per_byte: Any, per_call: Any, uses: list[tuple[Any, Any]]) -> None:
    def steps(m: ModuleType, per_byte: Any, per_call: Any, uses: Any) -> Steps:
        charges, rates = m._Charges(per_byte, per_call), m.RequestRates()
        for size, charge in uses:
            yield from ((charges.bound, size), (charges.learn, size, charge), (repr, charges))
            yield rates.learn, size, "a", Reply(False, charge, per_call)
            yield from ((rates.cost, charge, "a"), (rates.tokens, charge))
        yield fields, rates, "_cost", "_tokens", "_features"

    same(steps, per_byte, per_call, uses)


@THOROUGH
@given(
    st.lists(value, min_size=2, max_size=7), st.lists(st.tuples(value, value, value), max_size=4)
)
@example([math.inf, 1e6, 2**63 - 1, 2**63 - 1, 0, 2**63 - 1], [(0, 1, 1)])
@example([2**53, 2**53, 2**52 - 1, 2**52 - 1, 0, 0, 2**52 - 1], [(2**52 - 1, 2**52 - 1, 1.0)] * 3)
@example([math.nan, 800], [(1, True, 1.0)])
@example([10**40, 10**40, 0, 2**62, 1e16], [(2**62, 2**62, 1.0), (2**62, 2**62, 1)])
def test_budget(start: list[Any], uses: list[tuple[Any, Any, Any]]) -> None:
    def steps(m: ModuleType, start: Any, uses: Any) -> Steps:
        holders = [used for _, used, _ in uses[:1]]
        budget = m.RunBudget(*start, _held_tokens=m._Held(*holders))
        for tokens, used, cost in uses:
            reply = Reply(False, used, cost)
            budget.should_stop = never_waits(m, budget, tokens)
            yield from ((lambda t=tokens, r=reply: budget.hold(t).settle(r),), (state, budget))
            budget.should_stop = stops_to_wait()
            yield from ((budget.reserve, used), (budget.release, tokens), (state, budget))
            yield from ((budget.charge, reply, used), (budget.charge, Reply(used), cost))
            yield from ((budget.exhausted,), (budget.summary,), (state, budget))

    same(steps, start, uses)


@THOROUGH
@given(value, value, st.lists(st.tuples(value, value), max_size=4))
@example(12, "2.5", [(0.5, 9.5)])
@example(10**400, 0, [(1, 1)])
@example(math.nan, 0, [(1, 1)])
def test_account(cap: Any, start: Any, uses: list[tuple[Any, Any]]) -> None:
    def steps(m: ModuleType, cap: Any, start: Any, uses: Any) -> Steps:
        spend = m.DailySpend(cap, lambda: "D", lambda day: start)

        def call(bound: Any, cost: Any) -> None:
            admit(spend, lambda: bound).settle(Reply(cost=cost))

        yield (spend.spent,)
        for bound, cost in uses:
            yield from ((call, bound, cost), (spend._held.take, bound), (state, spend))
            yield from ((call, cost, bound), (spend._give_back, bound, None), (state, spend))
            yield from ((spend.charge, Reply(cost=cost)), (spend.spent,), (state, spend))

    same(steps, cap, start, uses)


@THOROUGH
@given(value, value, value)
def test_wait(deadline: Any, now: Any, poll: Any) -> None:
    def steps(m: ModuleType, deadline: Any, now: Any, poll: Any) -> Steps:
        slept: list[Any] = []
        room = type("Room", (), {"wait": lambda self, timeout: slept.append(timeout)})()
        with pytest.MonkeyPatch.context() as patch:
            patch.setattr(m, "_POLL_S", poll)
            yield (lambda: m._wait(room, m.never, deadline=deadline, clock=lambda: now),)
        yield repr, slept

    same(steps, deadline, now, poll)
