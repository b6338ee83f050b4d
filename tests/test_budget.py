"""The budget of a pass: refusal, reservation, settlement, and what an error leaves behind."""

import gc
import math
import weakref
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from support import Reply, Task, lock_is_free, state, stops_to_wait


def raises(error: BaseException) -> Any:
    """A callable, or a property of a reply, that fails."""

    def fail(*_: object) -> Any:
        raise error

    return fail


def test_refusals(m: ModuleType) -> None:
    for limits, counts in (
        ((0, 800), "'cost_usd': 0.0, 'max_calls': 0, 'max_tokens': 800}"),
        ((5, 0), "'cost_usd': 0.0, 'max_calls': 5, 'max_tokens': 0}"),
        ((5, 0, 1, 0, 0.000012), "'cost_usd': 1.2e-05, 'max_calls': 5, 'max_tokens': 0}"),
        ((5, 0, 1, 0, 0.1 + 0.2), "'cost_usd': 0.3, 'max_calls': 5, 'max_tokens': 0}"),
    ):
        with pytest.raises(m.DecisionBudgetExceeded) as caught:
            m.RunBudget(*limits).hold(math.inf)
        assert str(caught.value).endswith(counts)
    budget = m.RunBudget(10, 800, 10, 640, 0.0421, 2)
    with pytest.raises(m.DecisionBudgetExceeded) as caught:
        budget.reserve()
    assert str(caught.value) == (
        "decision budget exhausted: {'calls': 10, 'cache_hits': 2, 'input_tokens': 640, "
        "'cost_usd': 0.0421, 'max_calls': 10, 'max_tokens': 800}"
    )
    budget.should_stop = lambda: True
    with pytest.raises(m.DecisionStopped, match=r"^the pass was asked to stop$"):
        budget.reserve()
    assert budget == m.RunBudget(10, 800, 10, 640, 0.0421, 2) and lock_is_free(budget)


def test_slots_are_never_waited_for(m: ModuleType) -> None:
    budget = m.RunBudget(2, 800)
    first, second = budget.hold(1.0), budget.hold(1.0)
    assert budget.exhausted() is True
    with pytest.raises(m.DecisionBudgetExceeded):
        budget.hold(1.0)
    first.settle(None)
    assert budget.exhausted() is False
    budget.hold(1.0)
    second.settle(Reply())
    with pytest.raises(m.DecisionBudgetExceeded):
        budget.hold(1.0)
    assert (budget.calls, budget.in_flight) == (1, 1)


def test_settlement(m: ModuleType) -> None:
    budget = m.RunBudget(10, 800)
    share = budget.hold(tokens=120.0)
    assert (budget.in_flight, repr(budget._held_tokens)) == (
        1,
        "_Held(holders=1, amount=120.0, unbounded=0)",
    )
    assert budget.summary() == m.RunBudget(10, 800).summary()
    share.settle(Reply(input_tokens=300, cost=0.002))
    assert budget == m.RunBudget(10, 800, 1, 300, 0.002) and budget._held_tokens == m._Held()
    with budget.hold(math.inf):
        assert budget._held_tokens == m._Held(1, 0.0, 1)
    assert budget == m.RunBudget(10, 800, 1, 300, 0.002) and budget._held_tokens == m._Held()
    budget.charge(Reply(cached=[1], input_tokens=raises, cost=raises), 5.0)
    budget.release()
    assert budget == m.RunBudget(10, 800, 1, 300, 0.002, 1, 0)
    budget.charge(result=Reply(input_tokens=1, cost=0.1), tokens=3.0)  # nothing was reserved
    assert budget == m.RunBudget(10, 800, 2, 301, 0.002 + 0.1, 1, 0)
    summary = budget.summary()
    summary.clear()
    assert list(budget.summary().items()) == [
        ("calls", 2), ("cache_hits", 1), ("input_tokens", 301), ("cost_usd", 0.102),
        ("max_calls", 10), ("max_tokens", 800),
    ]  # fmt: skip


def test_share_settled_with_a_cached_reply(m: ModuleType) -> None:
    budget = m.RunBudget(10, 800)
    with budget.hold(5.0) as share:
        share.settle(Reply(cached=True))
    assert budget == m.RunBudget(10, 800, cache_hits=1) and budget._held_tokens == m._Held()


@pytest.mark.parametrize("cost, shown", [
    (0.1 + 0.2, "0.3"), (0.0000015, "2e-06"), (0.0000004, "0.0"), (math.inf, "inf"), (3, "3"),
    (1e16, "1e+16"), (10**40, "1" + "0" * 40),
])  # fmt: skip
def test_rounding(m: ModuleType, cost: float, shown: str) -> None:
    assert repr(m.RunBudget(1, 1, cost=cost).summary()["cost_usd"]) == shown


class Broken(Reply):
    """A reply of which one attribute cannot be read."""

    def __init__(self, attribute: str) -> None:
        super().__init__(input_tokens=7, cost=0.5)
        self.broken = attribute

    def __getattribute__(self, name: str) -> Any:
        return (
            object.__getattribute__(self, name)
            if name != object.__getattribute__(self, "broken")
            else 1 / 0
        )


@pytest.mark.parametrize("error", [ZeroDivisionError("own"), KeyboardInterrupt()])
def test_errors_leave_nothing_held(m: ModuleType, error: BaseException) -> None:
    budget = m.RunBudget(10, 10, should_stop=raises(error))
    for call in (budget.reserve, budget.stopping, lambda: budget.hold(1.0)):
        with pytest.raises(type(error)) as caught:
            call()
        assert caught.value is error
    assert budget == m.RunBudget(10, 10) and budget._held_tokens == m._Held()
    answers = iter([lambda: False])
    budget.should_stop = lambda: next(answers, raises(error))()
    budget._held_tokens.take(10.0)
    with pytest.raises(type(error)):
        budget.hold(1.0)  # no room, and the predicate fails where it would wait
    assert state(budget) == state(m.RunBudget(10, 10, _held_tokens=m._Held(1, 10.0)))
    assert lock_is_free(budget)
    with pytest.raises(TypeError):
        m.RunBudget(10, 10, should_stop=None).hold(1.0)


@pytest.mark.parametrize(
    "attribute, counted, held",
    [
        ("cached", (0, 0), (1, 5.0, 0)),
        ("input_tokens", (1, 0), (0, 0.0, 0)),
        ("cost", (1, 7), (0, 0.0, 0)),
    ],
)
def test_charge_that_fails_midway(
    m: ModuleType, attribute: str, counted: tuple[int, int], held: tuple[int, float, int]
) -> None:
    def left(settle: Callable[[Any, Any], object], error: type[BaseException]) -> None:
        budget = m.RunBudget(10, 800)
        share = budget.hold(5.0)
        with pytest.raises(error):
            settle(budget, share)
        assert budget == m.RunBudget(10, 800, *counted, in_flight=held[0])
        assert budget._held_tokens == m._Held(*held) and lock_is_free(budget)
        share.settle(None)

    left(lambda budget, share: share.settle(Broken(attribute)), ZeroDivisionError)
    left(lambda budget, share: budget.charge(Broken(attribute), 5.0), ZeroDivisionError)
    if attribute != "cached":
        strange = Reply(**({"input_tokens": 7} | {attribute: "x"}))
        left(lambda budget, share: share.settle(strange), TypeError)


def test_callbacks_into_the_budget(m: ModuleType) -> None:
    """The lock is re-entrant: whoever is asked under it may ask back."""
    asked: list[object] = []

    def should_stop() -> bool:
        asked.append((budget.exhausted(), budget.summary()["calls"]))
        if len(asked) == 2:  # the first question where the reservation would wait
            budget.release(100.0)
        return len(asked) > 3

    class Nosy:
        cached = False

        @property
        def input_tokens(self) -> int:
            budget.charge(Reply(cached=True))
            return budget.in_flight

        @property
        def cost(self) -> float:
            budget.hold(1.0).settle(None)
            return 0.5

    budget = m.RunBudget(10, 100, should_stop=should_stop)
    budget._held_tokens.take(100.0)
    budget.reserve(3.0)
    assert asked == [(False, 0)] * 2 and budget._held_tokens == m._Held(1, 3.0)
    budget.charge(Nosy(), 3.0)
    assert budget == m.RunBudget(10, 100, 1, 0, 0.5, 1, 0)
    assert budget._held_tokens == m._Held() and lock_is_free(budget)


@pytest.mark.parametrize("settle", [
    lambda owned, reply: owned.pop().settle(reply), lambda owned, reply: owned.pop(0).charge(reply)
])  # fmt: skip
def test_reply_that_drops_the_last_reference(
    m: ModuleType, settle: Callable[[list[Any], object], object]
) -> None:
    class Drop:
        cached = property(lambda self: owned.clear() or gc.collect() < 0)
        input_tokens = 5
        cost = 0.5

    budget = m.RunBudget(10, 10)
    alive = weakref.ref(budget)
    owned = [budget, budget.hold(1.0)]
    del budget
    settle(owned, Drop())
    assert alive() is None


def test_foreign_tally_and_condition(m: ModuleType) -> None:
    """The fields are ordinary: what is put there is what is used."""
    changed = m.threading.Condition()
    budget = m.RunBudget(10, 10, _changed=changed, should_stop=stops_to_wait())
    tally = budget._held_tokens = m._Held(unbounded=1)
    with pytest.raises(m.DecisionStopped):
        budget.reserve()
    tally.unbounded = 0
    budget.should_stop = m.never
    with changed:
        budget.reserve(4.0)
        assert Task(changed.acquire, False).result() is False
    assert (tally.holders, tally.amount) == (1, 4.0) and lock_is_free(budget)
