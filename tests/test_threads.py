"""Many threads on one bound: none sleeps when there is room, none is asked for twice."""

import copy
import functools
import math
from collections.abc import Callable
from contextlib import nullcontext
from fractions import Fraction
from types import SimpleNamespace
from typing import Any

import pytest
import support
from support import SOON, Reply, Task, asleep, lock_is_free, together, until

from korvane.engines import decision_bounds as bounds


@pytest.fixture
def long_poll(monkeypatch: pytest.MonkeyPatch) -> None:
    """A wait that nobody ends is a hang, not a slow success."""
    monkeypatch.setattr(bounds, "_POLL_S", 10 * SOON)


admit = functools.partial(support.admit, deadline=None)


def test_racing_settles() -> None:
    calls: list[int] = []
    shares = [bounds.Share(calls.append) for _ in range(2000)]
    together(6, lambda number: [share.settle(number) for share in shares])
    assert len(calls) == len(shares)


def settles(field: str, value: object) -> Callable[..., None]:
    """Who gives back makes the tests of the waiters, maybe, but on the fields as they are now."""

    def change(budget: Any, share: Any) -> None:
        setattr(budget, field, value)
        share.settle(None)

    return change


def raises_the_limit(budget: Any, _: Any) -> None:
    with budget._changed:
        budget.max_tokens = 20
        budget._changed.notify(3)


BROKEN = SimpleNamespace(admits=lambda *_: 1 / 0, give_back=lambda _: None)


@pytest.mark.parametrize("wake, error", [
    (lambda budget, share: share.settle(None), None),
    (lambda budget, share: share.settle(Reply(input_tokens=3)), None),
    (lambda budget, share: share.settle(Reply(input_tokens=10)), bounds.DecisionBudgetExceeded),
    (lambda budget, share: share.settle(Reply(cached=True)), None),
    (lambda budget, share: budget.release(10), None),
    (lambda budget, share: budget.charge(Reply(), 10), None),
    (lambda budget, share: copy.replace(budget, calls=1).release(10), None),
    (raises_the_limit, None),
    (settles("max_tokens", Fraction(1, 3)), None),
    (settles("max_tokens", "x"), TypeError),
    (settles("max_calls", 1), bounds.DecisionBudgetExceeded),
    (settles("calls", 10**40), bounds.DecisionBudgetExceeded),
    (settles("_exhausted_locked", lambda: 1 / 0), ZeroDivisionError),
    (settles("_held_tokens", bounds._Held()), None),
    (settles("_held_tokens", BROKEN), ZeroDivisionError),
])  # fmt: skip
@pytest.mark.parametrize("predicate", [bounds.never, lambda: False])
def test_waiters_wake(
    long_poll: None, wake: Callable[..., Any], error: type[Exception] | None, predicate: Any
) -> None:
    """At once and all of them, whatever has changed while they slept."""
    budget = bounds.RunBudget(100, 10, should_stop=predicate)
    budget.reserve()
    share = budget.hold(10)
    waiters = [Task(budget.reserve, 0) for _ in range(3)]
    until(lambda: asleep(budget, 3))
    wake(budget, share)
    for waiter in waiters:
        with pytest.raises(error) if error else nullcontext():
            waiter.result()
    assert lock_is_free(budget)


def test_room_for_one(long_poll: None) -> None:
    """What is promised to a waiter counts for those behind it until it is back, and no longer."""
    budget = bounds.RunBudget(100, 10)
    admitted = [budget.hold(10)]
    tasks = [Task(lambda: admitted.append(budget.hold(10))) for _ in range(3)]
    until(lambda: asleep(budget, 3))
    for left in (2, 1, 0):
        admitted.pop().settle(None)
        until(lambda: admitted)
        assert asleep(budget, left)
    assert [task.result() for task in tasks] == [None] * 3


@pytest.mark.parametrize("bound", ["budget", "spend"])
def test_no_room_but_a_stop(long_poll: None, bound: str) -> None:
    """Every give-back asks the stop predicates of those that wait, whether it made room or not."""
    stop: list[bool] = []
    if bound == "budget":
        budget: Any = bounds.RunBudget(9, 10, should_stop=lambda: bool(stop))
        hold = budget.hold
    else:
        budget = bounds.DailySpend(10.0, lambda: "D", None)
        hold = functools.partial(admit, budget, stopping=lambda: bool(stop))
    share, _ = hold(5), hold(20)
    waiter = Task(hold, 1)
    until(lambda: asleep(budget, 1))
    stop.append(True)
    share.settle(None)
    with pytest.raises(bounds.DecisionStopped):
        waiter.result()


def test_host_waits_on_the_condition(long_poll: None) -> None:
    budget = bounds.RunBudget(10, 10)
    share = budget.hold(10)

    def wait() -> bool:
        with budget._changed:
            return budget._changed.wait_for(lambda: budget.in_flight == 0)

    waiter = Task(wait)
    until(lambda: asleep(budget, 1))
    share.settle(None)
    assert waiter.result() is True


def test_admission_that_waits(long_poll: None) -> None:
    """Whatever settles wakes it, and it asks for its bound anew."""
    spend, bound = bounds.DailySpend(10.0, lambda: "D", None), [math.inf]
    share = admit(spend, 1.0)
    waiter = Task(admit, spend, lambda: bound[0])
    until(lambda: asleep(spend, 1))
    bound[0] = 4.0
    share.settle(Reply(cost=0.5))
    assert waiter.result()._give_back.args == (4.0,)
    assert (spend._held, spend._cost) == (bounds._Held(1, 4.0), 0.5)
    waiter = Task(admit, spend, math.inf)
    until(lambda: asleep(spend, 1))
    spend.charge(Reply(cost=9.5))
    with pytest.raises(bounds.DecisionBudgetExceeded, match=r"\$10\.0000 of \$10\.00"):
        waiter.result()
    assert (spend._held, spend._capped) == (bounds._Held(1, 4.0), True)


def test_deadline_cuts_the_last_sleep_short(long_poll: None) -> None:
    spend, now = bounds.DailySpend(10.0, lambda: "D", None), iter([0.0, 0.01])
    admit(spend, 10.0)
    late = Task(functools.partial(admit, spend, 1.0, deadline=0.01, clock=lambda: next(now)))
    with pytest.raises(bounds.DecisionTimeout):
        late.result()
    assert [*now] == []


def test_blocked_on_the_lock() -> None:
    """Whoever waits for the lock lets the others run: the one that holds it among them."""
    budget, spend = bounds.RunBudget(10, 10), bounds.DailySpend(10.0, lambda: "D", None)
    budget_share, spend_share = budget.hold(1), admit(spend, 1.0)
    ask = functools.partial(spend.admit, float, deadline=None, clock=float, stopping=bounds.never)
    with budget._changed, spend._changed:
        tasks = [Task(call) for call in (
            budget.summary, budget.exhausted, budget.release, budget.reserve, spend.spent, ask,
            functools.partial(budget.hold, 1),
            functools.partial(spend.charge, Reply(cost=1)),
            functools.partial(budget_share.settle, Reply()),
            functools.partial(spend_share.settle, Reply(cost=2)),
        )]  # fmt: skip
        assert all(task.blocks() for task in tasks)
    for task in tasks:
        task.result()
    assert (budget.calls, spend.spent(), spend._held.holders) == (1, 3.0, 1)


def test_one_ledger_read_and_one_warning_a_day(caplog: pytest.LogCaptureFixture) -> None:
    asked: list[str] = []

    def ledger(day: str) -> float:
        asked.append(day)
        until(lambda: len(tasks) == 16)
        assert sum(task.blocks() for task in tasks) == 16
        raise LookupError(day)

    days = ["D"]
    spend = bounds.DailySpend(0.0, lambda: days[-1], ledger)
    ask = functools.partial(spend.admit, float, deadline=None, clock=float, stopping=bounds.never)
    for _ in range(2):
        tasks: list[Task] = []
        for _ in range(16):
            tasks.append(Task(ask))
        for task in tasks:
            with pytest.raises(bounds.DecisionBudgetExceeded, match="is reached"):
                task.result()
        days.append("E")
    assert asked == ["D", "E"]
    assert [record.args for record in caplog.records] == [("D",), (0.0, 0.0), ("E",), (0.0, 0.0)]
