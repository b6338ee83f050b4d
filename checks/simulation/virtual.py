"""Virtual time, and tasks that wait in it through a driver."""

from __future__ import annotations

import contextlib
import heapq
import itertools
import random
import types
from collections.abc import Callable, Coroutine, Generator
from functools import partial
from typing import TYPE_CHECKING, Any

from korvane.engines.decision_account.records import Answer
from korvane.engines.decision_account.rules import day_of

if TYPE_CHECKING:
    from .network import Network, Remote

BARE = "bare"  # the feature of calls which nobody learns from
START = 20_000 * 86_400.0

type Arm = Callable[["Task", int], object]


class World:
    """The time, what is to happen when, and, where it is asked for, the story of it."""

    def __init__(self, seed: int, story: list[str] | None = None) -> None:
        self.now = START
        self.random = random.Random(seed)
        self.story = story
        self.running: Task | None = None
        self._next: list[tuple[float, int, Callable[..., object], tuple[Any, ...]]] = []
        self._numbers = itertools.count()

    def at(self, when: float, work: Callable[..., object], *about: Any) -> None:
        heapq.heappush(self._next, (max(when, self.now), next(self._numbers), work, about))

    def run(self, until: float) -> None:
        while self._next and self._next[0][0] <= until:
            self.now, _, work, about = heapq.heappop(self._next)
            work(*about)
        self.now = until

    def say(self, who: str, what: str) -> None:
        if self.story is not None:
            time = self.now % 86_400
            self.story.append(f"{day_of(self.now)} +{time:10.3f} s  {who:12} {what}")


class Killed(BaseException):
    """Ends what a killed process was about to do."""


class Life:
    """What can happen to a process as a whole."""

    def __init__(self, world: World, name: str, store: Remote) -> None:
        self.world = world
        self.name = name
        self.store = store
        self.dead = False
        self.paused_until = 0.0
        self.clock_off = 0.0
        self.heard = 0.0
        self.tasks: list[Task] = []


@types.coroutine
def suspend(arm: Arm) -> Generator[Arm, Any, Any]:
    return (yield arm)


class Task:
    """A coroutine of a process. Each time it waits it has another number, so that of several things
    that would wake it only the first does."""

    def __init__(self, life: Life, work: Coroutine[Any, Any, None]) -> None:
        self._life = life
        self._work = work
        self._number = 0
        self.error: BaseException | None = None
        self.ended = False
        life.tasks.append(self)
        life.world.at(life.world.now, self.wake, 0)

    def wake(self, number: int, value: Any = None, error: BaseException | None = None) -> None:
        life = self._life
        if number != self._number or life.dead:
            return
        if life.paused_until > life.world.now:
            life.world.at(life.paused_until, self.wake, number, value, error)
            return
        self._number += 1
        life.world.running = self
        try:
            arm = self._work.send(value) if error is None else self._work.throw(error)
        except StopIteration:
            self.ended = True
        except BaseException as failure:
            self.ended, self.error = True, failure
        else:
            arm(self, self._number)

    def interrupt(self, error: BaseException) -> None:
        """End what it waits for now."""
        if not self.ended and self._number:
            self.wake(self._number, error=error)

    def drop(self) -> None:
        """Let go of it without a further step: its process is dead."""
        with contextlib.suppress(BaseException):
            self._work.close()


class Bell:
    def __init__(self, world: World, strides: Callable[[float], float]) -> None:
        self._world = world
        self._strides = strides
        self._rung = False
        self._waits: tuple[Task, int] | None = None

    def ring(self) -> None:
        self._rung = True
        if self._waits is not None:
            task, number = self._waits
            self._world.at(self._world.now, task.wake, number)

    async def heard(self, seconds: float) -> None:
        if not self._rung:
            await suspend(partial(self._arm, self._strides(seconds)))
        self._rung, self._waits = False, None

    def _arm(self, seconds: float, task: Task, number: int) -> None:
        self._waits = task, number
        self._world.at(self._world.now + seconds, task.wake, number)


class Driver:
    """Drives the calls of one process."""

    def __init__(self, life: Life, network: Network) -> None:
        self._life = life
        self._world = life.world
        self._network = network

    def now(self) -> float:
        return self._world.now

    def bell(self) -> Bell:
        return Bell(self._world, self._network.stride)

    async def pause(self, seconds: float) -> None:
        if self._life.dead:
            raise Killed
        await suspend(partial(self._sleep, self._network.stride(seconds)))

    def _sleep(self, seconds: float, task: Task, number: int) -> None:
        self._world.at(self._world.now + seconds, task.wake, number)

    async def ask(self, request: Callable[..., Any], *about: Any) -> Any:
        if self._life.dead:
            raise Killed
        answer = await suspend(partial(self._network.send, self._life, request, about))
        if isinstance(answer, Answer) and about[0].feature != BARE:
            self._life.heard = max(self._life.heard, answer.maxima.cost_per_call)
        return answer

    def start(self, job: Callable[[Driver], Coroutine[Any, Any, None]]) -> None:
        if not self._life.dead:
            Task(self._life, job(self))
