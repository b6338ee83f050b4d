"""What the caller brings may fail, ask back, wait or drop the object: all of it ends well."""

import functools
import gc
import re
import weakref
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from support import SOON, Money, Reply, Task, admit, lock_is_free

from korvane.engines import decision_bounds


def fail(*_: object) -> Any:
    raise ERROR


ERROR = ZeroDivisionError("own")


def test_share_whose_give_back_fails_or_asks_back(m: ModuleType) -> None:
    share = m.Share(fail)
    with pytest.raises(ZeroDivisionError) as caught, share:
        raise ValueError("the call")
    assert caught.value is ERROR and isinstance(ERROR.__context__, ValueError)
    share.settle(None)  # is not tried again
    calls: list[object] = []

    def settle_again(reply: object) -> None:
        share.settle(calls.append((reply, share._give_back)))

    with pytest.raises(KeyboardInterrupt), m.Share(settle_again) as share:
        raise KeyboardInterrupt
    assert calls == [(None, None)]


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


def test_callbacks_into_the_rates() -> None:
    """What would hang on a plain lock is told."""
    rates = decision_bounds.RequestRates()
    asks = ((rates.tokens,), (rates.cost, "a"), (rates.learn, "a", Reply()))
    for ask, *args in asks:
        again = functools.partial(ask, 1, *args)
        reply = type("Nosy", (), {"cost": property(lambda self, again=again: again())})()
        feature = type("Feature", (str,), {"__hash__": lambda self, again=again: again()})("b")
        calls = ((rates.cost, feature), (rates.learn, feature, Reply()), (rates.learn, "a", reply))
        for call, *args in calls:
            with pytest.raises(RuntimeError, match="RequestRates"):
                call(1, *args)
    assert (rates.cost(1, "a"), rates._features) == (0.0, {"a"})


def test_learning_is_whole(m: ModuleType) -> None:
    """Another thread sees a learned reply whole or not at all, and waits for it."""
    rates, seen = m.RequestRates(), []

    class Slow:
        input_tokens = 0

        @property
        def cost(self) -> float:
            seen.append(Task(rates.cost, 1, "a"))
            return 3.0 if seen[0].blocks() else 0.0

    rates.learn(1, "a", Slow())
    assert seen[0].result() == 3.0


@pytest.mark.parametrize("settles", [0, 1])
def test_reply_that_drops_the_last_reference(m: ModuleType, settles: int) -> None:
    class Drop:
        cached = property(lambda self: owned.clear() or gc.collect() < 0)
        input_tokens, cost = 5, 0.5

    budget = m.RunBudget(10, 10)
    alive = weakref.ref(budget)
    owned = [budget.charge, budget.hold(1.0).settle]
    del budget
    owned.pop(settles)(Drop())
    assert alive() is None


def test_share_in_the_memory_of_another(m: ModuleType) -> None:
    budget = m.RunBudget(9, 99)
    alive = weakref.ref(budget.hold(1.0))
    share = budget.hold(1.0)
    assert alive() is None and share is not None


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


def test_greenlets_that_switch_inside_each_other(m: ModuleType) -> None:
    """Each call owns what is its own, in whatever order they end."""
    greenlet = pytest.importorskip("greenlet")
    main, greenlet = greenlet.getcurrent(), greenlet.greenlet
    first, second = (m.DailySpend(10, lambda: "2031-05-01", None) for _ in range(2))
    second.spent()
    second._cost = Money(7)
    alive = [weakref.ref(second._cost)]

    def bound(switch: Callable[[], object]) -> Money:
        switch()
        alive.append(weakref.ref(made := Money(1)))
        return made

    def switch_to_first() -> None:
        del second._cost  # the admission that runs is the only one that has it
        first_call.switch()

    second_call = greenlet(lambda: admit(second, lambda: bound(switch_to_first)).settle(None))
    first_call = greenlet(lambda: admit(first, lambda: bound(second_call.switch)).settle(None))
    first_call.switch()
    assert [number() is not None for number in alive] == [True, False]
    second_call.switch()
    assert not any(number() for number in alive)
    crowd = [greenlet(m.RunBudget(1, 1, should_stop=main.switch).reserve) for _ in range(1100)]
    for each in crowd:
        each.switch()
    assert [each.switch(False) for each in crowd] == [None] * len(crowd)
