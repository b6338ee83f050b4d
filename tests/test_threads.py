"""Threads, greenlets and interpreters, on one bound or on one thread: none is in another's way."""

import weakref
from collections.abc import Callable
from types import ModuleType

import pytest

from support import Money, Task, admit, interpreters


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


def test_isolated_interpreters() -> None:
    """With a lock of their own, at the same time, made and gone while the others run."""
    for life in [Task(interpreters.live, 2) for _ in range(3)]:
        life.result()
