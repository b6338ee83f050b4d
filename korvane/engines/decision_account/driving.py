"""How a call waits: with its thread, or as a task of an event loop.

What a call does is written once, as coroutines that wait only through a driver. With a thread the
driver blocks, so that such a coroutine never suspends and :func:`run` ends it in one step.
"""

from __future__ import annotations

import asyncio
import contextlib
import threading
import time
from collections.abc import Callable, Coroutine
from concurrent.futures import Executor
from typing import Any, Protocol


class Bell(Protocol):
    """Wakes one waiting call; heard also by who listens only later."""

    def ring(self) -> None:
        """From any thread."""

    async def heard(self, seconds: float) -> None:
        """Wait for it, so long at most. It is silent again afterwards."""


class Driver(Protocol):
    def now(self) -> float:
        """A monotonic clock, seconds."""

    def bell(self) -> Bell: ...

    async def pause(self, seconds: float) -> None: ...

    async def ask[*A, T](self, request: Callable[[*A], T], *about: *A) -> T:
        """Carry out a request of a store."""

    def start(self, job: Callable[[Driver], Coroutine[Any, Any, None]]) -> None:
        """Run a job beside the calls."""


def run[T](work: Coroutine[Any, Any, T]) -> T:
    """Run what waits with its thread."""
    try:
        work.send(None)
    except StopIteration as end:
        value: T = end.value
        return value
    raise RuntimeError("a thread's call was suspended")


class Thread:
    """Waits with the calling thread."""

    def now(self) -> float:
        return time.monotonic()

    def bell(self) -> Bell:
        return _ThreadBell()

    async def pause(self, seconds: float) -> None:
        time.sleep(seconds)

    async def ask[*A, T](self, request: Callable[[*A], T], *about: *A) -> T:
        return request(*about)

    def start(self, job: Callable[[Driver], Coroutine[Any, Any, None]]) -> None:
        threading.Thread(target=lambda: run(job(self)), daemon=True).start()


class Task(Thread):
    """Waits as a task of the running loop; requests run in threads of the account's."""

    def __init__(self, requests: Executor) -> None:
        self._requests = requests
        self._loop = asyncio.get_running_loop()

    def bell(self) -> Bell:
        return _TaskBell(self._loop)

    async def pause(self, seconds: float) -> None:
        await asyncio.sleep(seconds)

    async def ask[*A, T](self, request: Callable[[*A], T], *about: *A) -> T:
        return await self._loop.run_in_executor(self._requests, request, *about)

    def start(self, job: Callable[[Driver], Coroutine[Any, Any, None]]) -> None:
        THREAD.start(job)


class _ThreadBell:
    def __init__(self) -> None:
        self._rung = threading.Event()

    def ring(self) -> None:
        self._rung.set()

    async def heard(self, seconds: float) -> None:
        self._rung.wait(seconds)
        self._rung.clear()


class _TaskBell:
    def __init__(self, loop: asyncio.AbstractEventLoop) -> None:
        self._loop = loop
        self._rung = asyncio.Event()

    def ring(self) -> None:
        with contextlib.suppress(RuntimeError):  # a closed loop, and who waited in it is gone
            self._loop.call_soon_threadsafe(self._rung.set)

    async def heard(self, seconds: float) -> None:
        late = self._loop.call_later(seconds, self._rung.set)
        try:
            await self._rung.wait()
        finally:
            late.cancel()
        self._rung.clear()


THREAD = Thread()
