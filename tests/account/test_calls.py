"""The road of a paid call, in threads and in tasks."""

import asyncio
import threading
import time
from collections.abc import Awaitable, Callable
from types import SimpleNamespace
from typing import Any

import pytest

from korvane.engines import decision_bounds as bounds
from korvane.engines.decision_account import PaidCall, PaidCalls, SharedSpend
from support import Reply, Task, admit, until

SIZE = 100


class Refused(Exception):
    """The endpoint says that nothing was paid."""


class World:
    """Calls on an account, of a pass of 1,000 tokens."""

    def __init__(self, spend: SharedSpend) -> None:
        self.spend = spend
        self.calls = PaidCalls(spend, unknown_cost=0.0625)
        self.budget = bounds.RunBudget(100, 1000)

    def call(self, feature: str = "desk", **more: Any) -> PaidCall:
        return self.calls.call(SIZE, feature, budget=self.budget, unpaid=(Refused,), **more)

    def counts(self) -> tuple[float, float, float, int]:
        """Paid, lost, what the pass counts; and that nothing is held any more."""
        figures, budget = self.spend.figures(), self.budget
        assert figures.in_flight == figures.waiting == budget.in_flight == 0
        assert budget._held_tokens.holders == 0
        return figures.paid, figures.lost, budget.cost, budget.input_tokens


@pytest.fixture
def world(spend: SharedSpend) -> World:
    return World(spend)


def sync(call: PaidCall, body: Callable[[PaidCall], None]) -> None:
    with call:
        body(call)


def task(call: PaidCall, body: Callable[[PaidCall], None]) -> None:
    async def run() -> None:
        async with call:
            body(call)

    asyncio.run(run())


@pytest.mark.parametrize("block", [sync, task])
def test_every_way_out_of_the_block_is_counted_once(world: World, block: Any) -> None:
    def fails(error: BaseException) -> Callable[[PaidCall], None]:
        def body(call: PaidCall) -> None:
            raise error

        return body

    def settles(reply: Any) -> Callable[[PaidCall], None]:
        return lambda call: call.settle(reply)

    def settles_and_fails(call: PaidCall) -> None:
        call.settle(Reply(False, 10, 0.03125))
        call.settle(Reply(False, 10, 0.5))
        raise KeyboardInterrupt

    steps: list[tuple[Any, type[BaseException] | None, tuple[float, float, float, int]]] = [
        # While nothing is known a lost call counts the unknown cost, and a token for each byte.
        (fails(TimeoutError()), TimeoutError, (0.0625, 0.0625, 0.0625, 100)),
        (settles(Reply(True, 50, 1.0)), None, (0.0625, 0.0625, 0.0625, 100)),
        (settles(Reply(False, 10, 0.03125)), None, (0.09375, 0.0625, 0.09375, 110)),
        (fails(Refused()), Refused, (0.09375, 0.0625, 0.09375, 110)),
        (lambda call: None, None, (0.09375, 0.0625, 0.09375, 110)),
        # Now it counts what it held: the most that such a request has cost.
        (fails(KeyboardInterrupt()), KeyboardInterrupt, (0.125, 0.09375, 0.125, 120)),
        (settles_and_fails, KeyboardInterrupt, (0.15625, 0.09375, 0.15625, 130)),
        (settles(SimpleNamespace(cached=False)), AttributeError, (0.1875, 0.125, 0.1875, 140)),
        # What it cost is known.
        (settles(Reply(False, -1, 0.5)), ValueError, (0.6875, 0.125, 0.6875, 150)),
    ]
    for number, (body, error, counts) in enumerate(steps):
        try:
            block(world.call(), body)
        except BaseException as raised:
            assert type(raised) is error, number
        else:
            assert error is None, number
        assert world.counts() == counts, number
    assert world.budget.cache_hits == 1 and world.calls.rates.cost(SIZE, "desk") == 0.03125
    with pytest.raises(RuntimeError, match="once"), (again := world.call()), again:
        pass


def test_what_one_learns_the_others_know(world: World, spend: SharedSpend) -> None:
    sync(world.call("desk"), lambda call: call.settle(Reply(False, 30, 0.25)))
    other = World(spend)
    for feature, known in (("desk", True), ("summary", False)):
        with other.calls.call(2 * SIZE, feature):
            assert (spend.figures().held == 0.5) == known
    assert other.calls.rates.tokens(2 * SIZE) == 60
    # A dearer reply is known from the next admission on.
    sync(world.call("desk"), lambda call: call.settle(Reply(False, 30, 0.375)))
    with other.call("desk"):
        assert other.calls.rates.cost(SIZE, "desk") == 0.375


def test_the_pass_refuses_stops_and_times_out_with_nothing_held(world: World) -> None:
    sync(world.call(), lambda call: call.settle(Reply(False, 100, 0.25)))
    stop = threading.Event()
    world.budget = bounds.RunBudget(1, 1000, should_stop=stop.is_set)
    with world.call(), pytest.raises(bounds.DecisionBudgetExceeded, match="exhausted"):
        sync(world.call(), lambda call: None)
    world.budget = bounds.RunBudget(10, 1000, should_stop=stop.is_set)
    with world.budget.hold(1000):
        with pytest.raises(bounds.DecisionTimeout, match="pass's tokens"):
            sync(world.call(deadline=time.monotonic() + 0.01), lambda call: None)
        waiting = Task(sync, world.call(), lambda call: None)
        until(lambda: len(world.budget._changed._waiters))
        stop.set()
        with pytest.raises(bounds.DecisionStopped):
            waiting.result()
    stop.clear()
    assert world.counts() == (0.25, 0.0, 0.0, 0)
    # The stop of the pass ends the waiting for the day as well.
    with admit(world.spend, 9.0):
        stop.set()
        with pytest.raises(bounds.DecisionStopped):
            sync(world.call(), lambda call: None)


@pytest.mark.parametrize("bound", ["day", "pass"])
def test_tasks_wait_end_and_hold_nothing(world: World, flaky: Any, bound: str) -> None:
    """Of tasks that wait: one has a deadline, one is cancelled, one gets in. The loop goes on."""
    sync(world.call(), lambda call: call.settle(Reply(False, 100, 0.25)))

    async def enter(**more: Any) -> str:
        async with world.call(**more) as call:
            call.settle(Reply(False, 100, 0.25))
        return "admitted"

    async def run() -> None:
        tasks: list[Awaitable[str]] = [asyncio.create_task(enter()) for _ in range(3)]
        late = asyncio.create_task(enter(deadline=time.monotonic() + 0.1))
        with pytest.raises(bounds.DecisionTimeout):
            await late
        cancelled = tasks.pop()
        cancelled.cancel()
        assert not any(task.done() for task in tasks)
        share.settle(None)
        async with asyncio.timeout(30):
            assert await asyncio.gather(*tasks) == ["admitted"] * 2
        assert cancelled.cancelled()

    share = admit(world.spend, 9.0) if bound == "day" else world.budget.hold(1000)
    asyncio.run(run())
    until(lambda: not world.spend._account.unwritten)
    assert world.counts() == (0.75, 0.0, 0.75, 300)


def test_a_store_that_hangs_does_not_block_the_loop(world: World, flaky: Any) -> None:
    hangs = threading.Event()

    def slow(*about: Any) -> Any:
        assert hangs.wait(30)
        return admit(*about)

    admit = flaky._store.admit
    flaky._store.admit = slow

    async def run() -> None:
        async def enter() -> None:
            async with world.call() as call:
                call.settle(Reply(False, 10, 0.25))

        entering, cancelled = (asyncio.create_task(enter()) for _ in range(2))
        for _ in range(100):
            await asyncio.sleep(0)
        cancelled.cancel()
        with pytest.raises(asyncio.CancelledError):
            await cancelled
        assert not entering.done()
        hangs.set()
        await entering

    asyncio.run(run())
    until(lambda: not world.spend._account.unwritten and not world.spend.figures().in_flight)
    assert world.counts() == (0.25, 0.0, 0.25, 10)
