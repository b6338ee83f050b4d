"""Ctrl-C on the main thread: it ends what waits or is blocked, and nothing stays held or is lost.

The interrupt is pending before the call begins, and no bytecode runs between the two: it is the
call that has to see it once it sleeps.
"""

import _thread
import functools
import operator
import signal
import threading
from collections.abc import Callable, Iterator
from typing import Any

import pytest
from support import SOON, Reply, Task, admit, lock_is_free, state, until

from korvane.engines import decision_bounds as bounds


@pytest.fixture
def seen() -> Iterator[threading.Event]:
    """Set when the interrupt is delivered."""
    delivered = threading.Event()

    def interrupt(*_: object) -> None:
        delivered.set()
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGINT, interrupt)
    yield delivered
    signal.signal(signal.SIGINT, before)


def interrupted(call: Callable[..., Any], *args: Any) -> None:
    with pytest.raises(KeyboardInterrupt):
        list(map(operator.call, (_thread.interrupt_main, functools.partial(call, *args))))


def hold(bound: Any, until_then: Callable[[], object]) -> Task:
    """A thread that has the lock of `bound`."""
    inside: list[None] = []

    def work() -> None:
        with bound._changed:
            inside.append(None)
            until_then()

    task = Task(work)
    until(lambda: inside)
    return task


class Scene:
    """A pass and an account without room."""

    def __init__(self, stop: Callable[[], bool] = bounds.never) -> None:
        self.budget = bounds.RunBudget(9, 10, should_stop=stop)
        self.spend = bounds.DailySpend(10.0, "D".__str__, None)
        self.shares = self.budget.hold(10), admit(self.spend, 10.0)
        self.ask = functools.partial(
            self.spend.admit, float, deadline=None, clock=float, stopping=stop
        )

    def state(self) -> str:
        for bound in (self.budget, self.spend):
            assert lock_is_free(bound)
        return f"{state(self.budget)} {state(self.spend)}"


CALLS: list[Callable[[Scene], Callable[[], Any]]] = [
    lambda scene: functools.partial(scene.budget.reserve, 1),
    lambda scene: functools.partial(scene.budget.hold, 1),
    lambda scene: scene.ask,
]


@pytest.mark.parametrize("stop", [bounds.never, bool])
@pytest.mark.parametrize("call", CALLS)
def test_while_it_waits(
    call: Callable[..., Any], stop: Any, seen: threading.Event, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(bounds, "_POLL_S", 10 * SOON)
    scene = Scene(stop)
    before = scene.state()
    interrupted(call(scene))
    assert scene.state() == before
    with scene.budget._changed:
        interrupted(scene.budget._changed.wait)
        assert not lock_is_free(scene.budget)
    assert scene.state() == before


@pytest.mark.parametrize("call", [
    *CALLS,
    lambda scene: scene.budget._changed.acquire,
    lambda scene: functools.partial(scene.spend.charge, Reply()),
])  # fmt: skip
def test_while_another_thread_has_the_lock(call: Callable[..., Any], seen: threading.Event) -> None:
    scene = Scene()
    before = scene.state()
    tasks = [hold(bound, lambda: seen.wait(SOON)) for bound in (scene.budget, scene.spend)]
    interrupted(call(scene))
    for task in tasks:
        task.result()
    assert scene.state() == before


@pytest.mark.parametrize("reply", [None, Reply()])
def test_while_a_share_settles(reply: Any, seen: threading.Event) -> None:
    """It is given back all the same: nobody else would do it."""
    for number in (0, 1):
        scene = Scene()
        # Long enough for the settle to look for interrupts, if it did.
        task = hold((scene.budget, scene.spend)[number], lambda: seen.wait(0.2))
        interrupted(scene.shares[number].settle, reply)
        task.result()
        tally = (scene.budget._held_tokens, scene.spend._held)[number]
        assert tally == bounds._Held() and scene.budget.in_flight == number
        seen.clear()
