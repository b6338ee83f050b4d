"""Replies that are lost on the way, half of them and all of them, and tasks that are cancelled."""

import asyncio
import random
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

from korvane.engines.decision_account import PaidCalls, SharedSpend
from korvane.engines.decision_bounds import DecisionBudgetExceeded, DecisionStopped, RunBudget
from support import Reply

CALLS, WORKERS = 3000, 32
CAP, COST = 5.0, 0.005  # USD; what is lost counts as much
SIZE = 100


class Refused(Exception):
    """The endpoint says that nothing was paid."""


class Road:
    """Calls of which the endpoint bills each that it takes, whether its reply arrives or not."""

    def __init__(self, lost: float) -> None:
        self.spend = SharedSpend("sqlite://", CAP)
        self.calls = PaidCalls(self.spend, unknown_cost=COST)
        self.budget = RunBudget(10**9, 10**9)
        self.billed = 0
        self.ends = Counter[str]()
        self._lost = lost

    def send(self) -> Reply:
        """Sent, billed, and read or not."""
        if random.random() < 0.2:
            raise Refused
        self.billed += 1
        if random.random() < self._lost:
            raise TimeoutError
        return Reply(False, 10, COST)

    def call(self, _: int) -> None:
        try:
            with self.calls.call(SIZE, "desk", budget=self.budget, unpaid=(Refused,)) as call:
                call.settle(self.send())
            self.ends["answered"] += 1
        except (Refused, TimeoutError, DecisionBudgetExceeded) as end:
            self.ends[type(end).__name__] += 1

    def check(self) -> str:
        figures = self.spend.figures()
        self.spend.close()
        assert figures.in_flight == figures.waiting == figures.unwritten == 0, figures
        assert CAP <= figures.paid < CAP + COST, figures
        assert abs(figures.paid - self.billed * COST) < 1e-6, (figures, self.billed)
        assert self.budget.in_flight == 0 and self.budget._held_tokens.holders == 0
        assert abs(self.budget.cost - figures.paid) < 1e-6, (self.budget, figures)
        assert self.ends["DecisionBudgetExceeded"], self.ends
        return f"${self.billed * COST:.3f}"


def threads(lost: float) -> str:
    road = Road(lost)
    with ThreadPoolExecutor(WORKERS) as pool:
        list(pool.map(road.call, range(CALLS)))
    return road.check()


async def tasks(lost: float) -> str:
    """A third of the tasks is cancelled, wherever it is."""
    road = Road(lost)

    async def call(number: int) -> None:
        try:
            async with road.calls.call(SIZE, "desk", budget=road.budget, unpaid=(Refused,)) as call:
                reply = road.send()
                await asyncio.sleep(random.uniform(0, 0.02))
                call.settle(reply)
        except (Refused, TimeoutError, DecisionBudgetExceeded, DecisionStopped) as end:
            road.ends[type(end).__name__] += 1

    async def cancel(task: asyncio.Task[None]) -> None:
        await asyncio.sleep(random.uniform(0, 0.3))
        task.cancel()

    jobs = [asyncio.create_task(call(number)) for number in range(CALLS)]
    cancels = [asyncio.create_task(cancel(job)) for job in jobs[::3]]
    await asyncio.gather(*jobs, *cancels, return_exceptions=True)
    while road.spend.figures().in_flight:  # until all cancelled admissions are withdrawn
        await asyncio.sleep(0.01)
    return road.check()


def check() -> str:
    billed = [threads(0.5), threads(1.0), asyncio.run(tasks(0.5))]
    return (
        f"of ${CAP:.2f}, billed {billed[0]} with half of the replies lost, {billed[1]} with all,"
        f" {billed[2]} by tasks of which a third is cancelled"
    )
