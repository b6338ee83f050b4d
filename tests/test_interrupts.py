"""Ctrl-C ends what waits or is blocked on the main thread; nothing stays held or is lost."""

import signal
import threading
from collections.abc import Callable
from functools import partial
from typing import Any

import pytest

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, lock_is_free, until
from support.interrupts import BLOCKS, WAITS, Full, Interrupt, interrupt, raise_in


def interrupted(at: Full, call: Callable[..., Any], *args: Any) -> None:
    """By the end of the call at the latest; who blocks it leaves once the interrupt is seen."""

    def handler(*_: object) -> None:
        at.leave.set()
        raise KeyboardInterrupt

    before = signal.signal(signal.SIGINT, handler)
    interrupt(partial(call, *args))
    signal.signal(signal.SIGINT, before)
    for bound in (at.budget, at.spend):  # once whoever blocked it has left
        until(lambda bound=bound: lock_is_free(bound) is not bound._changed._is_owned())


def blocked() -> tuple[Full, Task]:
    """Bounds whose locks another thread has."""
    at = Full()
    blocker = Task(at.block)
    assert at.inside.wait(SOON)
    return at, blocker


@pytest.mark.parametrize("asks", [False, True])
@pytest.mark.parametrize("name", WAITS)
def test_while_it_waits(name: str, asks: bool, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(bounds, "_POLL_S", 10 * SOON)
    at = Full(asks)
    before = at.state()
    interrupted(at, WAITS[name](at))
    assert at.state() == before and at.waiters() == 0


@pytest.mark.parametrize("name", WAITS)
def test_from_another_thread(name: str, monkeypatch: pytest.MonkeyPatch) -> None:
    """An exception that is sent to a thread ends its wait, though nothing of Python's runs."""
    monkeypatch.setattr(bounds, "_POLL_S", 0.001)
    at = Full()
    before, waiter = at.state(), Task(WAITS[name](at))
    until(at.waiters)
    raise_in(waiter)
    with pytest.raises(Interrupt):
        waiter.result()
    assert at.state() == before and at.waiters() == 0


@pytest.mark.parametrize("name", BLOCKS)
def test_while_another_thread_has_the_lock(name: str) -> None:
    at, blocker = blocked()
    before = at.state()
    interrupted(at, BLOCKS[name](at))
    blocker.result()
    assert at.state() == before


@pytest.mark.parametrize("reply", [None, Reply()])
@pytest.mark.parametrize("share", ["tokens", "cost"])
def test_while_a_share_settles(share: str, reply: Any) -> None:
    """It is given back all the same: nobody else would do it."""
    at, blocker = blocked()
    # Long enough for the settle to look for interrupts, if it did.
    threading.Timer(0.2, at.leave.set).start()
    interrupted(at, getattr(at, share).settle, reply)
    blocker.result()
    tally = at.budget._held_tokens if share == "tokens" else at.spend._held
    assert tally == bounds._Held()


def test_while_the_host_waits() -> None:
    """A condition of its own on the same lock has it back as well, whoever has it meanwhile."""
    at = Full()
    changed = at.budget._changed
    with changed, changed:
        interrupted(at, changed.wait)
        assert changed._recursion_count() == 2
        at.leave.clear()
        depth, blocker = changed._release_save(), Task(at.block)
        assert at.inside.wait(SOON)
        threading.Timer(0.2, at.leave.set).start()
        interrupted(at, changed._acquire_restore, depth)
        assert changed._recursion_count() == 2
        blocker.result()
