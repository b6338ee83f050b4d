"""Virtual time: tasks that wait through a driver, and requests that are messages to a store."""

from __future__ import annotations

import contextlib
import heapq
import itertools
import random
import types
from collections.abc import Callable, Coroutine, Generator, Iterator
from dataclasses import dataclass, replace
from functools import partial
from typing import Any

from korvane.engines.decision_account.records import AccountSilent, Answer
from korvane.engines.decision_account.rules import day_of
from korvane.engines.decision_account.sqlite import SqliteStore

LIMIT_S = 0.25  # of a request
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


class Remote:
    """The store as a process sees it. Its requests are the server's own."""

    lanes = 4

    def __init__(self, server: SqliteStore, processes: Iterator[str]) -> None:
        self.server = server
        self._processes = processes
        self.process = next(processes)

    def __getattr__(self, name: str) -> Any:
        return getattr(self.server, name)

    def forked(self) -> None:
        self.process = next(self._processes)

    def close(self) -> None:
        pass


@dataclass(slots=True)
class Message:
    life: Life
    process: str
    request: Callable[..., Any]
    about: tuple[Any, ...]
    task: Task
    number: int
    connection: int
    sent: float
    heard: float  # the dearest call that this process had heard of
    again: bool = False  # it was carried out or answered before


class Network:
    """Carries requests and answers, and has the troubles of the store."""

    def __init__(self, world: World, rough: float, own_clocks: bool) -> None:
        self.rough = rough  # how likely a message has trouble
        self.clock_off = 0.0
        self.silent_until = 0.0
        self.mute = False  # a silent store carries out what it is asked all the same
        self.refusing_until = 0.0
        self.refusal: type[Exception] = AccountSilent
        self.server = SqliteStore("", clock=lambda: self._now)
        self.observe: Callable[[Message, Any], None] = lambda message, answer: None
        self._world = world
        self._own_clocks = own_clocks
        self._connection = 0
        self._now = world.now

    def time(self, life: Life) -> float:
        """By the clock that dates what this process asks."""
        return self._world.now + (life.clock_off if self._own_clocks else self.clock_off)

    def stride(self, seconds: float) -> float:
        """Through hours without a store time goes in long strides: nothing else happens."""
        left = self.silent_until - self._world.now
        return max(seconds, 0.3 * left) if left > 10 else seconds

    def restart(self) -> None:
        """What is on its way is lost."""
        self._connection += 1

    def send(
        self, life: Life, request: Any, about: tuple[Any, ...], task: Task, number: int
    ) -> None:
        now, draw = self._world.now, self._world.random.random
        process, connection = life.store.process, self._connection
        message = Message(life, process, request, about, task, number, connection, now, life.heard)
        trouble = draw() if self.rough and draw() < self.rough else 1.0
        if trouble < 0.3:
            self._world.say(life.name, f"{request.__name__} is lost")
            self._give_up(message)
            return
        if trouble < 0.6:
            self._world.at(now + self._late(), self._arrive, replace(message, again=True))
        self._world.at(now + self._delay(trouble), self._arrive, message)

    def _delay(self, trouble: float) -> float:
        return self._late() if trouble < 0.8 else 0.0002 + 0.002 * self._world.random.random()

    def _late(self) -> float:
        return 0.8 * self._world.random.random() ** 3

    def _give_up(self, message: Message) -> None:
        world = self._world
        wait = self.stride(max(message.sent + LIMIT_S - world.now, 0.0))
        world.at(world.now + wait, message.task.wake, message.number, None, AccountSilent("late"))

    def _arrive(self, message: Message) -> None:
        world, answer = self._world, None
        silent = world.now < self.silent_until
        if message.connection != self._connection or (silent and not self.mute):
            self._give_up(message)
            return
        error: Exception | None = None
        if world.now < self.refusing_until:
            error = self.refusal("read-only")
        else:
            self._now = self.time(message.life)
            self.server.process = message.process
            try:
                answer = message.request(*message.about)
            except Exception as failure:
                error = failure
            if world.story is not None:
                again = " again" if message.again else ""
                asked = f"{message.request.__name__}{message.about}{again}"
                world.say(message.life.name, f"{asked}: {answer if error is None else error!r}")
            self.observe(message, answer)
        trouble = world.random.random() if world.random.random() < self.rough else 1.0
        if silent or trouble < 0.3:
            world.say(message.life.name, "its answer is lost")
            self._give_up(message)
            return
        when = world.now + self._delay(trouble)
        if when > message.sent + LIMIT_S:
            self._give_up(message)
        else:
            world.at(when, message.task.wake, message.number, answer, error)
