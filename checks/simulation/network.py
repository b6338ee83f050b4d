"""The requests of a fleet as messages to a real SQLite account, and the troubles of both."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from dataclasses import dataclass, replace
from typing import Any

from korvane.engines.decision_account import sqlite
from korvane.engines.decision_account.records import AccountSilent
from korvane.engines.decision_account.rules import day_of
from korvane.engines.decision_account.sqlite import SqliteStore

from .virtual import Life, Task, World

LIMIT_S = 0.25  # of a request


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
        self.dead: set[str] = set()
        self._world = world
        self._own_clocks = own_clocks
        self._connection = 0
        self._now = world.now

    def open(self, cap: int) -> None:
        """Make the account. Where processes date their requests they share a machine, whose kernel
        knows which of them are dead."""
        self.server.open(cap)
        if self._own_clocks:
            self.server._path = "virtual"
            sqlite._is_dead = lambda path: path.split("-")[1].removesuffix(".alive") in self.dead

    @property
    def today(self) -> str:
        """Of the request that was carried out last."""
        return day_of(self._now)

    def date(self, now: float) -> None:
        """Let it be so late for the account."""
        self._now = now

    def _off(self, life: Life) -> float:
        return life.clock_off if self._own_clocks else self.clock_off

    def stride(self, seconds: float) -> float:
        """Through hours without a store time goes in long strides: nothing else happens."""
        left = self.silent_until - self._world.now
        return max(seconds, 0.3 * left) if left > 10 else seconds

    def heal(self) -> None:
        self.refusing_until = self.clock_off = self.rough = 0.0

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
        delay = self._delay(trouble)
        self._world.at(now + delay, self._arrive, message)
        if delay > LIMIT_S:
            self._give_up(message)

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
            self.date(self._world.now + self._off(message.life))
            self.server.process = message.process
            answer = message.request(*message.about)
            if world.story is not None:
                world.say(message.life.name, _told(message, answer))
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


def _told(message: Message, answer: Any) -> str:
    """What was asked and answered, in words; amounts are nano-dollars."""
    what, again = message.request.__name__, ", sent twice" * message.again
    if what == "settle":
        ends = [f"{end.id} as {end.state.name}, {end.cost}" for end in message.about[0]]
        return f"settles {'; '.join(ends)}{again}"
    if what == "admit":
        call = message.about[0]
        state = "no room" if answer.state is None else answer.state.name
        return f"asks to hold {call.held} for {call.id}{again}: {state} ({answer.paid} paid)"
    return what + again
