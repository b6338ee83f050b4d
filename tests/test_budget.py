"""The budget of a pass, to the digit and to the letter, so that the module and its model, which
other tests compare with each other, cannot go astray together."""

import math
import threading
from types import ModuleType
from typing import Any
from unittest import mock

import plain_bounds as model
import pytest

from korvane.engines import decision_bounds as bounds
from support import Reply, Task, admit, lock_is_free

SUMMARY = ("calls", "cache_hits", "input_tokens", "cost_usd", "max_calls", "max_tokens")


def test_pass(m: ModuleType) -> None:
    def refused(budget: Any, *counts: float) -> None:
        with pytest.raises(m.DecisionBudgetExceeded) as caught:
            budget.hold(math.inf)
        text = f"decision budget exhausted: {dict(zip(SUMMARY, counts, strict=True))}"
        assert str(caught.value) == text and budget.exhausted() is True

    refused(m.RunBudget(5, 0), 0, 0, 0, 0.0, 5, 0)
    refused(m.RunBudget(10, 800, 10, 640, 0.0421, 2), 10, 2, 640, 0.0421, 10, 800)
    budget = m.RunBudget(2, 800, cost=0.1 + 0.2)
    share, other = budget.hold(tokens=120.0), budget.hold(3)
    assert budget == m.RunBudget(2, 800, cost=0.1 + 0.2, in_flight=2)
    assert budget._held_tokens == m._Held(2, 123.0)
    refused(budget, 0, 0, 0, 0.3, 2, 800)  # a slot is never waited for
    other.settle(None)
    share.settle(Reply(input_tokens=300, cost=0.002))
    with budget.hold(5.0) as share:
        share.settle(Reply(cached=True))  # counted, and not held for the rest of the pass
    assert budget == m.RunBudget(2, 800, 1, 300, 0.1 + 0.2 + 0.002, 1)
    budget.charge(result=Reply(input_tokens=500, cost=1), tokens=3.0)  # nothing was reserved
    refused(budget, 2, 1, 800, 1.302, 2, 800)
    budget.should_stop = lambda: [1]
    with pytest.raises(m.DecisionStopped, match=r"^the pass was asked to stop$"):
        budget.reserve()
    assert budget._held_tokens == m._Held() and lock_is_free(budget)


def test_stop_predicate_that_makes_room(m: ModuleType) -> None:
    """The lock is re-entrant: who is asked under it may ask back, and give back."""
    asked: list[object] = []

    def should_stop() -> bool:
        asked.append((budget.exhausted(), budget.summary()["calls"]))
        if len(asked) == 2:  # where the reservation would wait
            budget.release(100.0)
        return len(asked) > 3

    budget = m.RunBudget(10, 100, should_stop=should_stop)
    budget._held_tokens.take(100.0)
    budget.reserve(3.0)
    assert asked == [(False, 0)] * 2 and budget._held_tokens == m._Held(1, 3.0)
    assert lock_is_free(budget)


def test_refusal_whose_making_replaces_the_condition(
    m: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """What an operation holds is its own, also while the error it ends with is made."""

    class Refusal(Exception):
        def __init__(self, text: str) -> None:
            super().__init__(text)
            budget._changed = threading.Condition()

    monkeypatch.setattr(m, "DecisionBudgetExceeded", Refusal)
    budget = m.RunBudget(0, 9)
    changed = budget._changed
    for call in (budget.reserve, lambda: budget.hold(1)):
        with pytest.raises(Refusal):
            call()
    for condition in (changed, budget._changed):
        assert Task(condition.acquire, False).result() is True


@pytest.mark.parametrize("text", ["a\0b", "\ud800", "é"])
def test_texts_of_refusals(m: ModuleType, text: str) -> None:
    """They are the interpreter's, whatever stands in them."""

    class Limit(int):
        def __repr__(self) -> str:
            return text

    class Cap(float):
        def __format__(self, _: str) -> str:
            return text

    with pytest.raises(m.DecisionBudgetExceeded) as refused:
        m.RunBudget(Limit(0), 9).reserve()
    assert refused.value.args[0].endswith(f"'max_calls': {text}, 'max_tokens': 9}}")
    with pytest.raises(m.DecisionBudgetExceeded) as refused:
        admit(m.DailySpend(Cap(0), lambda: "D", None), 1.0)
    assert refused.value.args[0].endswith(f"of ${text} spent today (UTC)")


def test_budgets_are_apart() -> None:
    first, second = bounds.RunBudget(10, 800), bounds.RunBudget(10, 800, should_stop=lambda: True)
    assert first == second and first.should_stop is bounds.never
    assert first._held_tokens is not second._held_tokens and first._changed is not second._changed
    with mock.patch.object(bounds, "_Held", None), mock.patch.object(bounds, "never", None):
        assert repr(bounds.RunBudget(1, 1)._held_tokens) == repr(model._Held())
