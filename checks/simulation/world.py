"""Virtual time: an event loop that waits by moving its clock, and what a process waits through."""

from __future__ import annotations

import asyncio
import random
from collections.abc import Coroutine
from typing import Any

from korvane.engines.decision_account.rules import day_of

START = 20_000 * 86_400.0  # midnight, of the account's clock


class World(asyncio.BaseEventLoop):
    """It has the time, the draws and, where it is asked for, the story of what happens."""

    def __init__(self, seed: int, story: list[str] | None = None) -> None:
        super().__init__()
        self._selector: Any = self
        self.now = 0.0
        self.random = random.Random(seed)
        self.story = story
        self.lives: list[Life] = []

    def time(self) -> float:
        return self.now

    def run(self, until: float) -> None:
        self.run_until_complete(asyncio.sleep(until - self.now))

    def end(self) -> None:
        for life in self.lives:
            life.kill()
        self.close()

    def day(self) -> str:
        return day_of(START + self.now)

    def say(self, who: str, what: str) -> None:
        if self.story is not None:
            self.story.append(f"{self.day()} +{self.now % 86_400:10.3f} s  {who:12} {what}")

    def call_exception_handler(self, context: dict[str, Any]) -> None:
        """What fails ends the run; what was dropped half-way is a dead process's."""
        if "handle" in context:
            raise context["exception"]

    # What a loop asks of the machine.

    def select(self, timeout: float) -> list[Any]:
        self.now += timeout
        return []

    def _process_events(self, events: list[Any]) -> None: ...
    def _write_to_self(self) -> None: ...


class Killed(BaseException):
    """Ends what a killed process was about to do."""


class Life:
    """A process, which may be paused or dead, and its tasks."""

    def __init__(self, world: World, name: str) -> None:
        self.world = world
        self.name = name
        self.dead = False
        self.paused_until = 0.0
        self.clock_off = 0.0
        self.heard = 0.0  # the dearest call that it was told of
        self.tasks: list[asyncio.Task[None]] = []
        world.lives.append(self)

    def start(self, work: Coroutine[Any, Any, None]) -> None:
        self.tasks.append(self.world.create_task(work))
        self.tasks[-1].add_done_callback(self._ended)

    def kill(self) -> None:
        self.dead = True
        for task in self.tasks:
            task.cancel()

    async def awake(self) -> None:
        while self.paused_until > self.world.now and not self.dead:
            await asyncio.sleep(self.paused_until - self.world.now)

    def _ended(self, task: asyncio.Task[None]) -> None:
        if not self.dead and not task.cancelled() and (error := task.exception()):
            raise error
