"""Replies that are lost on the way, tasks that are cancelled, processes that are killed in
mid-flight again and again: each of their calls counts once, at what it held."""

import asyncio
import os
import random
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from contextlib import suppress
from pathlib import Path
from typing import Any

from korvane.engines.decision_account import CapReached, PaidCalls, SharedSpend
from korvane.engines.decision_bounds import RunBudget
from support import Reply, until

KILLS, CALLERS = 50, 32
CAP, COST = 5.0, 0.00125  # USD; what is lost counts as much


class Refused(Exception):
    """The endpoint says that nothing was paid."""


class Bill:
    """What the endpoint has billed: a file, of a byte for each call, that survives whoever pays."""

    def __init__(self, path: Path) -> None:
        self._file = os.open(path, os.O_CREAT | os.O_APPEND | os.O_RDWR)

    def add(self) -> None:
        os.write(self._file, b"$")

    @property
    def calls(self) -> int:
        return os.fstat(self._file).st_size


class Life:
    """Callers that go on until the cap is reached, at an endpoint that bills each call which it
    takes, whether its reply arrives or not."""

    def __init__(self, url: str, bill: Bill, lost: float) -> None:
        self.spend = SharedSpend(url, CAP)
        self._calls = PaidCalls(self.spend, unknown_cost=COST)
        self._budget = RunBudget(10**9, 10**9)
        self._bill = bill
        self._lost = lost

    def threads(self) -> None:
        def ask() -> None:
            while True:
                with suppress(Refused, TimeoutError), self._call() as call:
                    reply = self._send()
                    time.sleep(random.uniform(0, 0.01))
                    call.settle(reply)

        with ThreadPoolExecutor(CALLERS) as pool:
            asking = [pool.submit(ask) for _ in range(CALLERS)]
        ends = [caller.exception() for caller in asking]
        assert all(isinstance(end, CapReached) for end in ends), ends

    async def tasks(self) -> None:
        """They are cancelled now and then, wherever they are."""

        async def ask() -> None:
            while True:
                with suppress(Refused, TimeoutError, asyncio.CancelledError):
                    async with self._call() as call:
                        reply = self._send()
                        await asyncio.sleep(random.uniform(0, 0.01))
                        call.settle(reply)

        tasks = [asyncio.create_task(ask()) for _ in range(CALLERS)]
        while asking := [task for task in tasks if not task.done()]:
            await asyncio.sleep(random.uniform(0, 0.01))
            random.choice(asking).cancel()
        ends = [task.exception() for task in tasks]
        assert all(isinstance(end, CapReached) for end in ends), ends

    def check(self) -> str:
        """What was billed; all of it is counted, and nothing else."""
        until(lambda: not self.spend.figures().unwritten)  # what was cancelled
        figures, billed = self.spend.figures(), self._bill.calls * COST
        self.spend.close()
        assert figures.in_flight == figures.waiting == 0, figures
        assert CAP - 1e-9 <= figures.paid < CAP + COST, figures
        assert abs(figures.paid - billed) < 1e-6, (figures, billed)
        assert self._budget.in_flight == 0 and self._budget._held_tokens.holders == 0
        assert abs(self._budget.cost - figures.paid) < 1e-6, (self._budget, figures)
        return f"${billed:.3f}"

    def _call(self) -> Any:
        return self._calls.call(100, "desk", budget=self._budget, unpaid=(Refused,))

    def _send(self) -> Reply:
        """Sent, billed, and answered or not."""
        if random.random() < 0.2:
            raise Refused
        self._bill.add()
        if random.random() < self._lost:
            raise TimeoutError
        return Reply(False, 10, COST)


def begin_and_kill(program: str, bill: Bill) -> None:
    enough = bill.calls + random.randint(1, CALLERS)
    life = subprocess.Popen([sys.executable, "-c", program])
    until(lambda: bill.calls >= enough or life.poll() is not None)
    assert life.poll() is None, "the cap was reached too early"
    life.kill()
    life.wait()


def killed(folder: str) -> str:
    url, path = f"sqlite:///{folder}/spend.db", f"{folder}/killed"
    bill = Bill(Path(path))
    program = f"from checks.lost import *; Life({url!r}, Bill({path!r}), 0.0).threads()"
    for _ in range(KILLS):
        begin_and_kill(program, bill)
    subprocess.run([sys.executable, "-c", program], check=True, stderr=subprocess.DEVNULL)
    with SharedSpend(url, CAP) as spend:
        figures = spend.figures()
    billed = bill.calls * COST
    assert figures.in_flight == figures.held == 0, figures
    assert CAP - 1e-9 <= figures.paid < CAP + COST, figures
    assert figures.paid - figures.lost - 1e-9 <= billed <= figures.paid + 1e-9, (billed, figures)
    return f"${billed:.3f} and ${figures.lost:.3f} for lost calls with {KILLS} kills"


def check() -> str:
    with tempfile.TemporaryDirectory() as folder:
        half, all_lost, tasks = (
            Life("sqlite://", Bill(Path(folder, name)), lost)
            for name, lost in (("half", 0.5), ("all", 1.0), ("tasks", 0.5))
        )
        half.threads()
        all_lost.threads()
        asyncio.run(tasks.tasks())
        return (
            f"of ${CAP:.2f}, billed {half.check()} with half of the replies lost,"
            f" {all_lost.check()} with all, {tasks.check()} by tasks that are cancelled,"
            f" {killed(folder)}"
        )
