"""What the tests and the checks share: replies, threads whose hang is a failure, outcomes."""

import functools
import operator
import os
import re
import subprocess
import sys
import threading
import time
import types
from collections.abc import Callable
from dataclasses import dataclass
from fractions import Fraction
from pathlib import Path
from typing import Any

import plain_bounds

CLASSES = ["Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"]
SOON = 60.0  # only a hang takes so long, however busy the machine is


@dataclass
class Reply:
    cached: Any = False
    input_tokens: Any = 0
    cost: Any = 0.0


def until(reached: Callable[[], object]) -> None:
    """Lets the other threads run until a state is reached; if it never is, fails."""
    end = time.monotonic() + SOON
    while not reached():
        assert time.monotonic() < end, "it never comes"
        time.sleep(0.0005)


class Money(Fraction):
    """A number that is seen to be alive or gone."""


class Task(threading.Thread):
    """A call on a thread of its own; `result()` is the call's, or fails if it has not ended."""

    def __init__(self, work: Callable[..., Any], *args: Any) -> None:
        super().__init__(daemon=True)
        self._work = functools.partial(work, *args)
        self._begun: list[None] = []
        self._value: Any = self  # not there yet
        self._error: BaseException | None = None
        self.start()

    def run(self) -> None:
        # No bytecode runs between the two: whoever sees that it has begun, and that it goes on,
        # sees a native call that has let go of the interpreter.
        begin = functools.partial(self._begun.append, None)
        try:
            _, self._value = map(operator.call, (begin, self._work))
        except BaseException as error:
            self._error = error

    def blocks(self) -> bool:
        """Whether the call, once begun, lets others run before it ends."""
        until(lambda: self._begun)
        return self._value is self and self._error is None

    def result(self) -> Any:
        self.join(SOON)
        assert not self.is_alive(), f"{self._work} hangs"
        if self._error is not None:
            raise self._error
        return self._value


def together(count: int, work: Callable[[int], Any]) -> list[Any]:
    """The results of `work(0)` to `work(count - 1)`, started at one moment and often switched."""
    start, interval = threading.Barrier(count), sys.getswitchinterval()

    def run(number: int) -> Any:
        start.wait(SOON)
        return work(number)

    sys.setswitchinterval(1e-6)
    try:
        tasks = [Task(run, number) for number in range(count)]
        return [task.result() for task in tasks]
    finally:
        sys.setswitchinterval(interval)


def run(*arguments: str, **environment: str) -> str:
    """What an interpreter of its own prints; anything but a silent, successful end fails."""
    done = subprocess.run(
        [sys.executable, "-X", "faulthandler", *arguments],
        env=os.environ | {"PYTHONPATH": os.pathsep.join(sys.path)} | environment,
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=5 * SOON,
    )
    assert (done.returncode, done.stderr) == (0, ""), f"{arguments}: {done}"
    return done.stdout


def start(*arguments: str | Path, **options: Any) -> "subprocess.Popen[str]":
    """An interpreter of its own that is talked to while it runs."""
    environment = {"PYTHONPATH": os.pathsep.join(sys.path), "COLUMNS": "999"}
    return subprocess.Popen(
        [sys.executable, *arguments],
        env=os.environ | environment,
        stdin=subprocess.PIPE,
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        **options,
    )


def asleep(bound: Any, count: int) -> bool:
    """Whether so many threads sleep on the condition of `bound`, as it says itself."""
    return len(bound._changed._waiters) == count


def lock_is_free(bound: Any) -> bool:
    """Whether another thread can take the lock of `bound` at once."""

    def take() -> bool:
        taken = bound._changed.acquire(blocking=False)
        if taken:
            bound._changed.release()
        return taken

    return Task(take).result()


def written(thing: Any, prefix: str = "") -> list[str]:
    """The names of the functions that the text of the model or a class of it defines, in order."""
    return [
        name
        for name, value in vars(thing).items()
        if isinstance(value, types.FunctionType)
        and value.__qualname__ == prefix + name
        and value.__code__.co_filename == plain_bounds.__file__
    ]


def outcome(call: Callable[..., Any], *args: Any, **kwargs: Any) -> str:
    """What a call came to, in a form that can be compared between the module and its model."""
    try:
        text = f"returned {call(*args, **kwargs)!r}"
    except BaseException as error:
        text = f"{type(error).__name__}: {error}"
    text = text.replace("plain_bounds", "korvane.engines.decision_bounds")
    return re.sub(r" at 0x\w+", "", text)


def stops_to_wait() -> Callable[[], bool]:
    """A stop predicate that lets a reservation start and ends it where it would have to wait."""
    answers = iter([False])
    return lambda: next(answers, True)


def admit(spend: Any, bound: Any, **asks: Any) -> Any:
    """Admitted or refused, never left waiting: where there is no room the deadline has passed."""
    asks = {"deadline": 0.0, "clock": lambda: 0.0, "stopping": lambda: False} | asks
    return spend.admit(bound if callable(bound) else lambda: bound, **asks)


def fields(thing: Any, *names: str) -> str:
    return " ".join(f"{name}={getattr(thing, name)!r}" for name in names)


def state(thing: Any) -> str:
    """All that a bound counts."""
    if hasattr(thing, "_held_tokens"):
        return f"{thing!r} {thing._held_tokens!r}"
    return fields(thing, "_held", "_day", "_cost", "_capped")
