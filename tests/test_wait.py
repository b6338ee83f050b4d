"""Waiting for room: who is woken, by what, when, and what the condition is to the host."""

import copy
import functools
import math
import re
import sys
import threading
import weakref
from collections.abc import Callable
from contextlib import nullcontext
from decimal import Decimal
from fractions import Fraction
from types import ModuleType, SimpleNamespace
from typing import Any
from unittest import mock

import plain_bounds as model
import pytest

import support
from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, asleep, lock_is_free, outcome, stops_to_wait, until

admit = functools.partial(support.admit, deadline=None)  # waits as long as it takes


class Index:
    def __init__(self, value: int) -> None:
        self.value = value

    def __index__(self) -> int:
        return self.value


class OddFloat(float):
    def __index__(self) -> int:
        raise AssertionError("a float is taken as it is")


# Times far beyond 64 bits, of subclasses, of what has an index only, and what is none at all.
TIMES = [
    OddFloat(0.001), type("OddInt", (int,), {})(0), True, False, Index(0), Index(2**70), 10**30,
    -(10**30), 2**40, 1e300, -1e300, math.inf, math.nan, -1, -1.0, -0.5, 9223372036.9, "x",
    Decimal("0.001"), [],
]  # fmt: skip


def test_times(monkeypatch: pytest.MonkeyPatch) -> None:
    """As the interpreter's own condition takes them, wherever one comes in."""

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
            patch.setattr(m, "_POLL_S", time if time is not True else 0.0)
            return [*found, outcome(admit, spend, 1.0, deadline=None, stopping=stops_to_wait())]

    for m in (bounds, model):
        monkeypatch.setattr(m, "_POLL_S", 0.001)
    for time in TIMES:
        ours, theirs = bounds.RunBudget(1, 1)._changed, threading.Condition()
        assert of_conditions(ours, time) == of_conditions(theirs, time), repr(time)
        assert of_waits(bounds, time) == of_waits(model, time), repr(time)


@pytest.fixture
def long_poll(monkeypatch: pytest.MonkeyPatch) -> None:
    """A wait that nobody ends is a hang, not a slow success."""
    monkeypatch.setattr(bounds, "_POLL_S", 10 * SOON)


def settles(field: str, value: object) -> Callable[..., None]:
    """Who gives back makes the tests of the waiters, maybe, but on the fields as they are now."""

    def change(budget: Any, share: Any) -> None:
        setattr(budget, field, value)
        share.settle(None)

    return change


def raises_the_limit(budget: Any, _: Any) -> None:
    with budget._changed:
        budget.max_tokens = 20
        budget._changed.notify(4)


def another_without_room(budget: Any, _: Any) -> None:
    """On the same condition, whose own room tells nothing of that of `budget`."""
    budget._held_tokens.give_back(10)
    copy.replace(budget, _held_tokens=bounds._Held(2, 10)).release(0)


def stops(budget: Any, _: Any) -> None:
    """Whether there is room or not, and whether those that wait had a predicate or none."""
    budget.should_stop = lambda: True
    budget.release(0)


BROKEN = SimpleNamespace(admits=lambda *_: 1 / 0, give_back=lambda _: None)


@pytest.mark.parametrize("wake, error", [
    (lambda budget, share: share.settle(None), None),
    (lambda budget, share: share.settle(Reply(input_tokens=3)), None),
    (lambda budget, share: share.settle(Reply(input_tokens=10)), bounds.DecisionBudgetExceeded),
    (lambda budget, share: share.settle(Reply(cached=True)), None),
    (lambda budget, share: budget.release(10), None),
    (lambda budget, share: budget.charge(Reply(), 10), None),
    (lambda budget, share: copy.replace(budget, calls=1).release(10), None),
    (another_without_room, None),
    (stops, bounds.DecisionStopped),
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
    share, changed = budget.hold(10), budget._changed

    def wait() -> bool:
        with changed:
            return changed.wait()

    host, waiters = Task(wait), [Task(budget.reserve, 0) for _ in range(3)]
    until(lambda: asleep(budget, 4))
    wake(budget, share)
    assert host.result() is True
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
        with budget._changed:
            admitted.pop().settle(None)
            budget.release(0)
            assert asleep(budget, left)
        until(lambda: admitted)
    assert [task.result() for task in tasks] == [None] * 3
    admitted.pop().settle(None)
    alone, waiter = budget.hold(math.inf), Task(budget.hold, 1)
    until(lambda: asleep(budget, 1))
    with budget._changed:
        budget.release(0)
        assert asleep(budget, 1)
    alone.settle(None)
    waiter.result()


def test_admission_that_waits(long_poll: None) -> None:
    """Whatever settles wakes it, and it asks for its bound, and its stop, anew."""
    spend, bound = bounds.DailySpend(10.0, lambda: "D", None), [math.inf]
    share, stop = admit(spend, 1.0), []
    waiter = Task(admit, spend, lambda: bound[0])
    until(lambda: asleep(spend, 1))
    bound[0] = 4.0
    share.settle(Reply(cost=0.5))
    assert waiter.result()._give_back.args == (4.0,)
    assert (spend._held, spend._cost) == (bounds._Held(1, 4.0), 0.5)
    waiter = Task(functools.partial(admit, spend, math.inf, stopping=lambda: bool(stop)))
    until(lambda: asleep(spend, 1))
    stop.append(True)
    spend.charge(Reply(cost=0.25))
    with pytest.raises(bounds.DecisionStopped):
        waiter.result()
    waiter = Task(admit, spend, math.inf)
    until(lambda: asleep(spend, 1))
    spend.charge(Reply(cost=9.25))
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


@pytest.mark.parametrize("make", [lambda changed: changed, lambda _: threading.Condition()])
@pytest.mark.parametrize("wait", ["reserve", "admit"])
def test_a_long_wait_keeps_no_more_than_a_short_one(
    wait: str, make: Callable[..., threading.Condition], monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(bounds, "_POLL_S", 1e-6)
    limit, counts = Fraction(10), []

    def stop() -> bool:
        counts.append(sys.getrefcount(limit))
        return len(counts) > 20

    budget, spend = (
        bounds.RunBudget(9, limit, should_stop=stop),
        bounds.DailySpend(limit, str, None),
    )
    for bound, tally in ((budget, budget._held_tokens), (spend, spend._held)):
        bound._changed = make(bound._changed)
        tally.take(math.inf)
    with pytest.raises(bounds.DecisionStopped):
        budget.reserve(1) if wait == "reserve" else admit(spend, 1, deadline=None, stopping=stop)
    assert len({*counts[2:]}) == 1, counts


def test_condition_of_a_bound(m: ModuleType) -> None:
    """It is the host's to use as any other."""
    changed = m.DailySpend(1, str, None)._changed
    assert isinstance(changed, m.threading.Condition)
    for misuse in (changed.release, changed.wait, changed.notify, changed.notify_all):
        with pytest.raises(RuntimeError):
            misuse()
    with pytest.raises(RuntimeError, match="un-acquired"):
        m._wait(changed, m.never)
    with changed, changed:
        assert changed.acquire(timeout=SOON) is True
        shown = r"<Condition\(<locked \S+ object owner=\d+ count=3 at 0x\w+>, 0\)>"
        assert re.fullmatch(shown, repr(changed))
        assert changed._lock._recursion_count() == 3
        assert changed.wait(0.001) is False
        assert changed.wait_for(lambda: 0, timeout=0.001) == 0
        assert changed.wait_for(lambda: 7) == 7
        changed.notify(2)
        assert Task(changed.acquire, False).result() is False, "a wait takes the whole depth back"
        changed.release()
    with changed._lock:
        assert Task(changed.acquire, False).result() is False and len(changed._waiters) == 0
    assert Task(lambda: changed.acquire(timeout=1) and changed.release()).result() is None
    assert "<unlocked " in repr(changed) and changed._lock._recursion_count() == 0
    Task(changed.acquire).result()
    changed._at_fork_reinit()
    assert changed.acquire(blocking=False) is True
    told: list[object] = []
    alive = weakref.ref(m.DailySpend(1, str, None)._changed, told.append)
    assert told == [alive]
    for name in ("RLock", "Lock", "_allocate_lock"):  # one is enough: its threads are others
        with mock.patch.object(threading, name, mock.Mock):
            assert type(m.RunBudget(1, 1)._changed) is threading.Condition
