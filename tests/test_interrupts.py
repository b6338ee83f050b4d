"""Ctrl-C on the main thread: it ends what waits or is blocked, and nothing stays held or is lost.

The interrupt is pending before the call begins, and no bytecode runs between the two: it is the
call that has to see it once it sleeps.
"""

import _thread
import functools
import operator
import signal
import threading
from collections.abc import Callable
from typing import Any

import pytest

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, lock_is_free, until
from support.interrupts import Full, Interrupt, raise_in


def interrupted(at: Full, call: Callable[..., Any], *args: Any) -> None:
    """By the end of the call at the latest; who blocks it leaves once the interrupt is seen."""

    def handler(*_: object) -> None:
        at.leave.set()
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGINT, handler)
    with pytest.raises(KeyboardInterrupt):
        list(map(operator.call, (_thread.interrupt_main, functools.partial(call, *args))))
    signal.signal(signal.SIGINT, before)
    for bound in (at.budget, at.spend):  # once whoever blocked it has left
        until(lambda bound=bound: lock_is_free(bound) is not bound._changed._is_owned())


def calls(at: Full) -> list[Callable[[], Any]]:
    asks = {"deadline": None, "clock": float, "stopping": at.budget.should_stop}
    admit = functools.partial(at.spend.admit, float, **asks)
    return [admit, *(functools.partial(call, 1) for call in (at.budget.reserve, at.budget.hold))]


@pytest.mark.parametrize("stop", [bounds.never, bool])
@pytest.mark.parametrize("number", range(3))
def test_while_it_waits(number: int, stop: Any, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bounds, "_POLL_S", 10 * SOON)
    at = Full()
    at.budget.should_stop = stop
    before = at.state()
    interrupted(at, calls(at)[number])
    assert at.state() == before and at.waiters() == 0


@pytest.mark.parametrize("number", range(3))
def test_from_another_thread(number: int, monkeypatch: pytest.MonkeyPatch) -> None:
    """An exception that is sent to a thread ends its wait, though nothing of Python's runs."""
    monkeypatch.setattr(bounds, "_POLL_S", 0.001)
    at = Full()
    before, waiter = at.state(), Task(calls(at)[number])
    until(at.waiters)
    raise_in(waiter)
    with pytest.raises(Interrupt):
        waiter.result()
    assert at.state() == before and at.waiters() == 0


@pytest.mark.parametrize("number", range(5))
def test_while_another_thread_has_the_lock(number: int) -> None:
    at = Full()
    more = [at.budget._changed.acquire, functools.partial(at.spend.charge, Reply())]
    before, blocker = at.state(), Task(at.block)
    assert at.inside.wait(SOON)
    interrupted(at, [*calls(at), *more][number])
    blocker.result()
    assert at.state() == before


@pytest.mark.parametrize("reply", [None, Reply()])
@pytest.mark.parametrize("share", ["tokens", "cost"])
def test_while_a_share_settles(share: str, reply: Any) -> None:
    """It is given back all the same: nobody else would do it."""
    at = Full()
    blocker = Task(at.block)
    assert at.inside.wait(SOON)
    # Long enough for the settle to look for interrupts, if it did.
    threading.Timer(0.2, at.leave.set).start()
    interrupted(at, getattr(at, share).settle, reply)
    blocker.result()
    tally = at.budget._held_tokens if share == "tokens" else at.spend._held
    assert tally == bounds._Held()


def test_while_the_host_waits() -> None:
    at = Full()
    with at.budget._changed:
        interrupted(at, at.budget._changed.wait)
        assert at.budget._changed._is_owned()
