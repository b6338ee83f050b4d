"""Ctrl-C and asynchronous exceptions, wherever they come: at once, and with nothing held."""

import signal
import statistics
import threading
import time
from collections.abc import Callable
from typing import Any

import plain_bounds as model

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, admit, lock_is_free, outcome
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


def settle_under_way() -> None:
    """An interrupt while a settle is blocked on the lock: it comes once the share is given back."""
    for settle in ("tokens", "cost"):
        at = Full()
        blocker, main = Task(at.block), threading.current_thread()
        assert at.inside.wait(SOON)

        def interrupt(at: Full = at, main: threading.Thread = main) -> None:
            time.sleep(0.02)
            sent_to(main, True)
            time.sleep(0.1)
            at.leave.set()

        task = Task(interrupt)
        try:
            getattr(at, settle).settle(Reply(False, 3, 1.0))
            task.result()
            raise AssertionError("the interrupt is gone")
        except KeyboardInterrupt:
            pass
        blocker.result()
        task.result()
        tally = at.budget._held_tokens if settle == "tokens" else at.spend._held
        assert tally == bounds._Held(), f"{settle}: {tally}"
        assert at.budget.input_tokens + at.spend._cost == (3 if settle == "tokens" else 1.0)


class Interrupting:
    """A reply, or a feature, that is interrupted while it is read."""

    def __init__(self, name: str) -> None:
        self._name = name

    def __getattr__(self, name: str) -> Any:
        if name == self._name:
            interrupted()
        return {"cached": False, "input_tokens": 3, "cost": 0.5}[name]

    def __hash__(self) -> int:
        interrupted()
        return 1


def interrupted(*_: object) -> Any:
    signal.raise_signal(signal.SIGINT)
    return 0.5


class Later:
    """A stop predicate that is interrupted when it is asked again."""

    asked = False

    def __call__(self) -> Any:
        if self.asked:
            interrupted()
        self.asked = True
        return False


INSIDE: dict[str, Callable[[Full], object]] = {
    "stop at first": lambda at: setattr(at.budget, "should_stop", interrupted) or at.budget.hold(1),
    "stop of a wait": lambda at: setattr(at.budget, "should_stop", Later()) or at.budget.reserve(1),
    "stop of the day": lambda at: at.admit(stopping=interrupted),
    "clock": lambda at: at.admit(deadline=1.0, clock=interrupted),
    "bound": lambda at: admit(at.spend, interrupted),
    "today of an admission": lambda at: setattr(at.spend, "_today", interrupted) or at.admit(),
    "today of a settle": lambda at: (
        setattr(at.spend, "_today", interrupted) or at.cost.settle(Reply(False, 1, 0.5))
    ),
    "today": lambda at: setattr(at.spend, "_today", interrupted) or at.spend.spent(),
    "ledger": lambda at: admit(at.m.DailySpend(1.0, lambda: "E", interrupted), 1.0),
    **{
        f"{name} of a {kind} reply": lambda at, end=end, name=name: end(at, Interrupting(name))
        for name in ("cached", "input_tokens", "cost")
        for kind, end in {
            "settled": lambda at, reply: at.tokens.settle(reply),
            "day's": lambda at, reply: at.cost.settle(reply),
            "charged": lambda at, reply: at.budget.charge(reply, 1),
            "counted": lambda at, reply: at.spend.charge(reply),
            "learned": lambda at, reply: at.rates.learn(10, "a", reply),
        }.items()
    },
    "feature": lambda at: at.rates.cost(1, Interrupting("")),
    "new feature": lambda at: at.rates.learn(1, Interrupting(""), Reply()),
    "give-back": lambda at: at.m.Share(interrupted).settle(None),
}


def from_inside() -> int:
    """A callable that is interrupted ends the operation as it does in plain Python."""
    for name, call in INSIDE.items():
        ours, theirs = Full(bounds), Full(model)
        results = [outcome(call, at) for at in (ours, theirs)]
        assert results[0] == results[1], f"{name}: {results}"
        assert ours.state() == theirs.state(), f"{name}: {ours.state()}, {theirs.state()}"
        assert lock_is_free(ours.budget) and lock_is_free(ours.spend), name
        Task(ours.rates.tokens, 1).result()
    return len(INSIDE)


def check() -> str:
    signal.signal(signal.SIGINT, signal.default_int_handler)
    inside = from_inside()
    settle_under_way()
    by_signal, by_thread = (1000 * took for took in promptly())
    return (
        f"Ctrl-C in {by_signal:.0f} ms, asynchronous in {by_thread:.0f} ms at most, waiting or "
        f"blocked; {inside} callables"
    )
