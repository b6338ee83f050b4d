"""Numbers keep their Python meaning: whatever is put in, the module comes to what Python comes to.

Every example makes an object of the module and one of its model with the same strange numbers, does
the same to both, and compares results, errors and what is then held.
"""

import math
from collections.abc import Callable
from copy import deepcopy
from decimal import Decimal
from fractions import Fraction
from types import ModuleType
from typing import Any

import plain_bounds as model
from hypothesis import example, given, settings
from hypothesis import strategies as st
from support import Reply, fields, never_waits, outcome, state, stops_to_wait

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
THOROUGH = settings(max_examples=400, deadline=None)


def same(steps: Callable[..., list[str]], *values: Any) -> None:
    """Each side gets copies of its own: a list that is added to in place grows."""
    assert steps(bounds, *deepcopy(values)) == steps(model, *deepcopy(values))


@THOROUGH
@given(st.tuples(value, value, value), st.lists(st.tuples(value, value, value), max_size=4))
@example((0, 0.0, 0), [(10**400, 0, 1)])
@example((2**63 - 1, 1, 0), [(1, 0, 5), (0.5, 0, 5)])
def test_tally(start: tuple[Any, ...], uses: list[tuple[Any, ...]]) -> None:
    def steps(m: ModuleType, start: Any, uses: Any) -> list[str]:
        tally, log = m._Held(*start), []
        for share, used, limit in uses:
            log += [
                outcome(tally.admits, share, used, limit),
                outcome(tally.take, share),
                repr(tally),
            ]
        for share, used, _ in uses:
            log += [outcome(tally.give_back, share), outcome(tally.give_back, used), repr(tally)]
        return log

    same(steps, start, uses)


@THOROUGH
@given(value, value, st.lists(st.tuples(value, value), max_size=4))
@example(0.0, 0.0, [(2**64, 1), (0, 10**400), (10**400, 0.5)])
def test_charges(per_byte: Any, per_call: Any, uses: list[tuple[Any, Any]]) -> None:
    def steps(m: ModuleType, per_byte: Any, per_call: Any, uses: Any) -> list[str]:
        charges, rates, log = m._Charges(per_byte, per_call), m.RequestRates(), []
        for size, charge in uses:
            log += [
                outcome(charges.bound, size),
                outcome(charges.learn, size, charge),
                repr(charges),
            ]
            log.append(outcome(rates.learn, size, "a", Reply(False, charge, per_call)))
            log += [outcome(rates.cost, charge, "a"), outcome(rates.tokens, charge)]
        return [*log, fields(rates, "_cost", "_tokens", "_features")]

    same(steps, per_byte, per_call, uses)


@THOROUGH
@given(
    st.lists(value, min_size=2, max_size=7), st.lists(st.tuples(value, value, value), max_size=4)
)
@example([math.inf, 1e6, 2**63 - 1, 2**63 - 1, 0, 2**63 - 1], [(0, 1, 1)])
@example([2**53, 2**53, 2**52 - 1, 2**52 - 1, 0, 0, 2**52 - 1], [(2**52 - 1, 2**52 - 1, 1.0)] * 3)
@example([10**40, 10**40, 0, 2**62, 1e16], [(2**62, 2**62, 1.0), (2**62, 2**62, 1)])
def test_budget(start: list[Any], uses: list[tuple[Any, Any, Any]]) -> None:
    def steps(m: ModuleType, start: Any, uses: Any) -> list[str]:
        budget, log = m.RunBudget(*start), []
        for tokens, used, cost in uses:
            reply = Reply(False, used, cost)
            budget.should_stop = never_waits(m, budget, tokens)
            log += [outcome(lambda t=tokens, r=reply: budget.hold(t).settle(r)), state(budget)]
            budget.should_stop = stops_to_wait()
            log += [outcome(budget.reserve, used), outcome(budget.release, tokens), state(budget)]
            log += [outcome(budget.charge, reply, used), outcome(budget.charge, Reply(used), cost)]
            log += [outcome(budget.exhausted), outcome(budget.summary), state(budget)]
        return log

    same(steps, start, uses)


@THOROUGH
@given(value, value, st.lists(st.tuples(value, value), max_size=4))
@example(12, "2.5", [(0.5, 9.5)])
@example(10**400, 0, [(1, 1)])
@example(math.nan, 0, [(1, 1)])
def test_account(cap: Any, start: Any, uses: list[tuple[Any, Any]]) -> None:
    def steps(m: ModuleType, cap: Any, start: Any, uses: Any) -> list[str]:
        spend, log = (
            m.DailySpend(cap, lambda: "D", lambda day: start),
            [outcome(lambda: spend.spent())],
        )

        def admit(bound: Any, cost: Any) -> None:
            asks = {"deadline": -1.0, "clock": lambda: 0.0, "stopping": m.never}
            spend.admit(lambda: bound, **asks).settle(Reply(cost=cost))

        for bound, cost in uses:
            log += [outcome(admit, bound, cost), outcome(spend._held.take, bound), state(spend)]
            log += [
                outcome(admit, cost, bound),
                outcome(spend._give_back, bound, None),
                state(spend),
            ]
            log += [outcome(spend.charge, Reply(cost=cost)), outcome(spend.spent), state(spend)]
        return log

    same(steps, cap, start, uses)


@THOROUGH
@given(value, value, value)
def test_wait(deadline: Any, now: Any, poll: Any) -> None:
    def steps(m: ModuleType) -> list[str]:
        slept: list[Any] = []
        changed = type("Room", (), {"wait": lambda self, timeout: slept.append(timeout)})()
        old, m._POLL_S = m._POLL_S, poll
        try:
            log = [outcome(m._wait, changed, m.never, deadline=deadline, clock=lambda: now)]
        finally:
            m._POLL_S = old
        return [*log, repr(slept)]

    same(steps)
