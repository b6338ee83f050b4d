"""Ctrl-C and asynchronous exceptions, wherever they come: at once, and with nothing held."""

import functools
import operator
import signal
import statistics
import threading
import time

from korvane.engines import decision_bounds as bounds
from support import SOON, Task, lock_is_free, until
from support.interrupts import BLOCKS, WAITS, Full, Interrupt, raise_in

PROMPT = 0.1  # seconds
ROUNDS, MOST = 5, 50  # the machine may be busy in some: then there are more


def delay(at: Full, name: str, how: str, by_signal: bool) -> float:
    """From an exception to the end of the call that it is to end."""
    call = (BLOCKS if how == "is blocked" else WAITS)[name](at)
    begun: list[None] = []
    sent: list[float] = []

    def send(target: threading.Thread) -> None:
        # No bytecode runs between the begin and the call: who sees the one is past the other.
        until(lambda: begun and (how == "is blocked" or at.waiters()))
        sent.append(time.monotonic())
        if by_signal:
            signal.pthread_kill(target.ident or 0, signal.SIGINT)
        else:
            raise_in(target)

    def take() -> float:
        try:
            list(map(operator.call, (functools.partial(begun.append, None), call)))
        except (Interrupt, KeyboardInterrupt):
            return time.monotonic() - sent[0]
        raise AssertionError("it came to an end by itself")

    if by_signal:
        Task(send, threading.current_thread())
        return take()
    taker = Task(take)
    send(taker)
    return taker.result()


def usual_delay(name: str, how: str, by_signal: bool) -> float:
    took: list[float] = []
    prompt = PROMPT + (0 if by_signal else bounds._POLL_S)
    while len(took) < ROUNDS or min(took) >= prompt:
        assert len(took) < MOST, f"{name} {how}: {took}"
        at = Full(how == "asks")
        before, blocker = at.state(), Task(at.block) if how == "is blocked" else None
        assert blocker is None or at.inside.wait(SOON)
        took.append(delay(at, name, how, by_signal))
        at.leave.set()
        if blocker is not None:
            blocker.result()
        assert at.state() == before, f"{name}: {at.state()}"
        assert not at.waiters() and lock_is_free(at.budget) and lock_is_free(at.spend), name
    return statistics.median(took)


def check() -> str:
    """The longest that Ctrl-C, and an asynchronous exception, usually take to end a call."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    waits = [(name, how) for name in WAITS for how in ("asks", "waits")]
    blocks = [(name, "is blocked") for name in BLOCKS]
    by_signal = 1000 * max(usual_delay(*which, True) for which in waits + blocks)
    by_thread = 1000 * max(usual_delay(*which, False) for which in waits)
    return (
        f"Ctrl-C in {by_signal:.0f} ms, asynchronous in {by_thread:.0f} ms at most, waiting or "
        f"blocked; {len(WAITS)} waits and {len(BLOCKS)} locks"
    )
