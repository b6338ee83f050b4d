"""What an unusual host does: odd times and amounts, callbacks that take the lock away."""

import threading
from decimal import Decimal
from types import ModuleType
from typing import Any

import pytest
from support import Reply, Task, admit, outcome, stops_to_wait

from korvane.engines import decision_bounds as bounds


class Index:
    def __init__(self, value: int) -> None:
        self.value = value

    def __index__(self) -> int:
        return self.value


class OddFloat(float):
    def __index__(self) -> int:
        raise AssertionError("a float is taken as it is")


class OddInt(int):
    pass


# Times far beyond 64 bits, of subclasses, of what has an index only, and what is none at all.
TIMES = (OddFloat(0.001), OddInt(0), True, False, Index(0), Index(2**70), 10**30, -(10**30), 2**40)
TIMES += (1e300, -1e300, float("inf"), float("nan"), -1, -1.0, -0.5, 9223372036.9, "x")
TIMES += (Decimal("0.001"), [])


def test_times(monkeypatch: pytest.MonkeyPatch) -> None:
    """As the interpreter's own condition takes them, wherever one comes in."""
    import plain_bounds as model

    def of_conditions(changed: Any, time: Any) -> list[str]:
        calls: list[tuple[Any, ...]] = [] if time is True else [(changed.wait, time)]
        calls += [(changed.notify, time)]
        calls += [(changed.acquire, blocking, time) for blocking in (True, False)]
        with changed:
            return [outcome(call, *args) for call, *args in calls]

    def of_waits(m: Any, time: Any) -> list[str]:
        spend = m.DailySpend(1.0, lambda: "D", None)
        spend._held.take(1.0)
        asks: list[dict[str, Any]] = [{"deadline": time}, {"deadline": time, "clock": lambda: time}]
        found = [outcome(admit, spend, 1.0, stopping=stops_to_wait(), **ask) for ask in asks]
        with monkeypatch.context() as patch:
            patch.setattr(m, "_POLL_S", time if time is not True else OddInt(0))
            return [*found, outcome(admit, spend, 1.0, deadline=None, stopping=stops_to_wait())]

    for time in TIMES:
        ours, theirs = bounds.RunBudget(1, 1)._changed, threading.Condition()
        assert of_conditions(ours, time) == of_conditions(theirs, time), repr(time)
        assert of_waits(bounds, time) == of_waits(model, time), repr(time)


def test_tally_that_fails_to_take(m: ModuleType) -> None:
    """Whatever it is, and whatever it did before."""

    class Tally:
        def admits(self, *_: object) -> bool:
            return True

        def take(self, _: object) -> None:
            budget.in_flight += 1
            raise LookupError

    budget = m.RunBudget(9, 9, _held_tokens=Tally())
    with pytest.raises(LookupError):
        budget.hold(1)
    assert budget.in_flight == 1


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


def test_give_back_replaced_after_the_admission(
    m: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A share's give-back is the one of its admission, and its class the one at its end."""
    spend = m.DailySpend(9.0, lambda: "D", None)
    share = admit(spend, 1.0)
    other = type("Other", (m.Share,), {})
    with admit(spend, lambda: monkeypatch.setattr(m, "Share", other) or 1.0) as made:
        assert type(made) is other
    spend._give_back = print
    share.settle(Reply(cost=0.5))
    assert (spend._held, spend._cost) == (m._Held(), 0.5)
