"""The requests of a fleet as messages to a real SQLite account, and the troubles of both."""

from __future__ import annotations

import asyncio
from collections.abc import Callable, Coroutine, Iterator
from dataclasses import dataclass, replace
from typing import Any

from korvane.engines.decision_account import driving, sqlite
from korvane.engines.decision_account.records import AccountSilent, Answer
from korvane.engines.decision_account.rules import day_of
from korvane.engines.decision_account.sqlite import SqliteStore

from .world import START, Killed, Life, World

LIMIT_S = 0.25  # of a request


class Remote:
    """The store as a process sees it. Its requests are the server's own."""

    def __init__(self, server: SqliteStore, processes: Iterator[str]) -> None:
        self._server = server
        self._processes = processes
        self.forked()

    def __getattr__(self, name: str) -> Any:
        return getattr(self._server, name)

    def forked(self) -> None:
        self.process = next(self._processes)

    def close(self) -> None: ...


@dataclass(slots=True)
class Message:
    life: Any
    process: str
    request: Callable[..., Any]
    about: tuple[Any, ...]
    answer: asyncio.Future[Any]
    connection: int
    sent: float
    again: bool = False  # it was carried out or answered before


class Network:
    """Carries requests and answers, and has the troubles of the store."""

    def __init__(
        self, world: World, rough: float, own_clocks: bool, root: Network | None = None
    ) -> None:
        """Make a store, or another way to that of `root`."""
        self.name = "the store"
        self.rough = rough  # how likely a message has trouble
        self.clock_off = 0.0
        self.silent_until = 0.0
        self.mute = False  # a silent store carries out what it is asked all the same
        self.refusing_until = 0.0
        self.refusal: type[Exception] = AccountSilent
        self.connection = 0  # of another one, what is on its way is lost
        self.server = root.server if root else SqliteStore("", clock=lambda: self.date)
        self.date = START  # of the request that is carried out
        self.observe: Callable[[Message, Any], None] = lambda message, answer: None
        self.dead: set[str] = set()
        self._world = world
        self._own_clocks = own_clocks
        self._root = root or self

    def open(self, cap: int) -> None:
        """Make the account. Where processes date their requests they share a machine, whose kernel
        knows which of them are dead."""
        self.server.open(cap)
        if self._own_clocks:
            self.server._path = "virtual"
            sqlite._is_dead = lambda path: path.split("-")[1].removesuffix(".alive") in self.dead

    @property
    def today(self) -> str:
        return day_of(self.date)

    def keep_time(self, off: float = 0.0) -> None:
        """Let it be as late for the account as it is by a clock that is so far off."""
        self._root.date = START + self._world.now + off

    def bearer(self, life: Any) -> Any:
        """Whose clock dates a request."""
        return life if self._own_clocks else self

    def stride(self, seconds: float) -> float:
        """Through hours without a store time goes in long strides: nothing else happens."""
        left = self.silent_until - self._world.now
        return max(seconds, 0.3 * left) if left > 10 else seconds

    def heal(self) -> None:
        self.refusing_until = self.clock_off = self.rough = 0.0

    def send(self, life: Any, request: Any, about: tuple[Any, ...]) -> asyncio.Future[Any]:
        world, draw = self._world, self._world.random.random
        answer, process = world.create_future(), life.store.process
        message = Message(life, process, request, about, answer, self.connection, world.now)
        trouble = draw() if self.rough and draw() < self.rough else 1.0
        if trouble < 0.3:
            world.say(life.name, f"{request.__name__} is lost")
            self._give_up(message)
            return answer
        if trouble < 0.6:
            world.call_later(self._late(), self._arrive, replace(message, again=True))
        world.call_later(delay := self._delay(trouble), self._arrive, message)
        if delay > LIMIT_S:
            self._give_up(message)
        return answer

    def _delay(self, trouble: float) -> float:
        return self._late() if trouble < 0.8 else 0.0002 + 0.002 * self._world.random.random()

    def _late(self) -> float:
        return 0.8 * self._world.random.random() ** 3

    def _give_up(self, message: Message) -> None:
        wait = self.stride(max(message.sent + LIMIT_S - self._world.now, 0.0))
        self._world.call_later(wait, self._answer, message, AccountSilent("late"))

    def _answer(self, message: Message, answer: Any) -> None:
        if message.answer.done():
            return
        if isinstance(answer, Exception):
            message.answer.set_exception(answer)
        else:
            message.answer.set_result(answer)

    def _arrive(self, message: Message) -> None:
        world, life, draw = self._world, message.life, self._world.random.random
        silent = world.now < self.silent_until
        if message.connection != self.connection or (silent and not self.mute):
            self._give_up(message)
            return
        if world.now < self.refusing_until:
            answer: Any = self.refusal("read-only")
        else:
            self.keep_time(self.bearer(life).clock_off)
            self.server.process = message.process
            answer = message.request(*message.about)
            if world.story is not None:
                again = ", sent twice" * message.again
                world.say(life.name, f"{message.request.__name__} {message.about}{again}: {answer}")
            self.observe(message, answer)
        trouble = draw() if draw() < self.rough else 1.0
        delay = self._delay(trouble)
        if silent or trouble < 0.3 or world.now + delay > message.sent + LIMIT_S:
            world.say(life.name, "its answer is lost")
            self._give_up(message)
        else:
            world.call_later(delay, self._answer, message, answer)


class Driver(driving.Task):
    """Drives the calls of a process as its tasks."""

    def __init__(self, life: Life, network: Network) -> None:
        self._loop = life.world
        self._life = life
        self._network = network

    def now(self) -> float:
        return self._loop.time()

    def bell(self) -> driving.Bell:
        return Bell(self)

    async def pause(self, seconds: float) -> None:
        await self.wait(super().pause, self._network.stride(seconds))

    async def ask(self, request: Callable[..., Any], *about: Any) -> Any:
        answer = await self.wait(self._network.send, self._life, request, about)
        if isinstance(answer, Answer):  # heard by a process that is awake
            self._life.heard = max(self._life.heard, answer.maxima.cost_per_call)
        return answer

    def start(self, job: Callable[[driving.Driver], Coroutine[Any, Any, None]]) -> None:
        if not self._life.dead:
            self._life.start(job(self))

    async def wait(self, what: Callable[..., Any], *about: Any) -> Any:
        if self._life.dead:
            raise Killed
        try:
            return await what(*about)
        finally:
            await self._life.awake()

    def stride(self, seconds: float) -> float:
        return self._network.stride(seconds)


class Bell(driving._TaskBell):
    def __init__(self, driver: Driver) -> None:
        super().__init__(driver._loop)
        self._driver = driver

    async def heard(self, seconds: float) -> None:
        await self._driver.wait(super().heard, self._driver.stride(seconds))
