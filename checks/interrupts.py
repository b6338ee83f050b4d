"""Ctrl-C and asynchronous exceptions, wherever they come: at once, and with nothing held."""

import signal
import statistics
import threading
import time
from collections.abc import Callable

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, lock_is_free
from support.interrupts import Full, Interrupt, raise_in

PROMPT = 0.1  # seconds
ROUNDS, MOST = 5, 50  # the machine may be busy in some: then there are more


def wait_on(condition: threading.Condition) -> None:
    with condition:
        condition.wait()


WAITS: dict[str, Callable[[Full], object]] = {
    "reserve": lambda at: at.budget.reserve(1),
    "hold": lambda at: at.budget.hold(1),
    "admit": lambda at: at.admit(),
    "admit until a deadline": lambda at: at.admit(deadline=time.monotonic() + SOON),
    "wait": lambda at: wait_on(at.budget._changed),
}
BLOCKS: dict[str, Callable[[Full], object]] = {
    "reserve": lambda at: at.budget.reserve(1),
    "release": lambda at: at.budget.release(1),
    "charge": lambda at: at.budget.charge(Reply()),
    "summary": lambda at: at.budget.summary(),
    "exhausted": lambda at: at.budget.exhausted(),
    "admit": lambda at: at.admit(),
    "spent": lambda at: at.spend.spent(),
    "count": lambda at: at.spend.charge(Reply()),
    "acquire": lambda at: at.budget._changed.acquire(),
    "acquire for a time": lambda at: at.spend._changed.acquire(timeout=SOON),
}


def sent_to(thread: threading.Thread, by_signal: bool) -> None:
    if by_signal:
        signal.pthread_kill(thread.ident or 0, signal.SIGINT)
    else:
        raise_in(thread)


def delay(at: Full, call: Callable[[Full], object], waits: bool, by_signal: bool) -> float:
    """From an exception to the end of the call that it is to end."""
    sent: list[float] = []
    entered = threading.Event()

    def send(target: threading.Thread) -> None:
        assert entered.wait(SOON)
        for _ in range(200):
            time.sleep(0.002)
            if at.waiters() or not waits:
                break
        time.sleep(0.01)
        sent.append(time.monotonic())
        sent_to(target, by_signal)

    def take() -> float:
        try:
            entered.set()
            call(at)
            while True:  # an interrupt that came too early
                time.sleep(0.001)
        except (Interrupt, KeyboardInterrupt):
            return time.monotonic() - sent[0]

    if by_signal:
        sender = Task(send, threading.current_thread())
        took = take()
    else:
        taker = Task(take)
        sender = Task(send, taker)
        took = taker.result()
    sender.result()
    return took


def usual_delay(name: str, call: Callable[[Full], object], by_signal: bool, how: str) -> float:
    took: list[float] = []
    prompt = PROMPT + (0 if by_signal else bounds._POLL_S)
    while len(took) < ROUNDS or min(took) >= prompt:
        assert len(took) < MOST, f"{name} {how}: {took}"
        at = Full()
        at.budget.should_stop = (lambda: False) if how == "asks" else bounds.never
        before, blocker = at.state(), Task(at.block) if how == "is blocked" else None
        assert blocker is None or at.inside.wait(SOON)
        took.append(delay(at, call, blocker is None, by_signal))
        at.leave.set()
        if blocker is not None:
            blocker.result()
        assert at.state() == before, f"{name}: {at.state()}"
        assert not at.waiters() and lock_is_free(at.budget) and lock_is_free(at.spend), name
    return statistics.median(took)


def promptly() -> tuple[float, float]:
    """The longest that Ctrl-C, and an asynchronous exception, usually take to end a call."""
    by_signal, by_thread = [], []
    for name, call in WAITS.items():
        for how in ("asks", "waits"):
            by_signal.append(usual_delay(name, call, True, how))
            if name != "wait":  # that one nothing else ends in plain Python either
                by_thread.append(usual_delay(name, call, False, how))
    for name, call in BLOCKS.items():
        by_signal.append(usual_delay(name, call, True, "is blocked"))
    return max(by_signal), max(by_thread)


def check() -> str:
    signal.signal(signal.SIGINT, signal.default_int_handler)
    by_signal, by_thread = (1000 * took for took in promptly())
    return (
        f"Ctrl-C in {by_signal:.0f} ms, asynchronous in {by_thread:.0f} ms at most, waiting or "
        f"blocked; {len(WAITS)} waits and {len(BLOCKS)} locks"
    )
