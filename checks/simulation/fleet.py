"""A fleet of a few processes for a few days in virtual time: the package's code, and an endpoint.

A second stands for a quarter of an hour: calls take up to a tenth of one, what is open for 0.6 s is
lost, clocks are off by seconds. So midnight is always near.
"""

from __future__ import annotations

import asyncio
import copy
import itertools
import math
import random
from collections import Counter
from dataclasses import dataclass
from typing import Any

from korvane.engines.decision_account import PaidCalls, SharedSpend
from korvane.engines.decision_account.line import ASK_S
from korvane.engines.decision_account.records import Answer, State, nano
from korvane.engines.decision_account.rules import day_of
from korvane.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    RunBudget,
    never,
)
from support import Reply

from .audit import Audit, Violation
from .network import LIMIT_S, Driver, Message, Network, Remote
from .world import START, Life, World

COST = 0.01  # of a call, USD, where nothing makes it dearer
PATIENCE = 0.6
DAY_S = 86_400.0


@dataclass(frozen=True)
class Plan:
    """What a run is: everything in it follows from its plan."""

    seed: int
    days: int
    processes: int
    workers: int  # of each process
    calls: int  # of each worker and day, at most
    cap: float
    calm: bool  # no trouble at all
    rough: float  # how likely a message has trouble
    own_clocks: bool  # each process dates its requests, and not the store
    troubles: tuple[tuple[str, int], ...]  # each with a seed


class Refused(Exception):
    """The endpoint's answer that nothing was paid."""


class Spend(SharedSpend):
    def __init__(self, store: Any, cap: float, name: str, patience: float, driver: Driver) -> None:
        self._start(store, cap, name, patience)
        self._driver = driver

    def _task(self) -> Any:
        return self._driver


class Process(Life):
    def __init__(self, fleet: Fleet, name: str, parent: Process | None = None) -> None:
        super().__init__(fleet.world, name)
        self.store = Remote(fleet.network.server, fleet.names)
        self.driver = Driver(self, fleet.network)
        self.spend = Spend(self.store, fleet.plan.cap, name, PATIENCE, self.driver)
        self.calls = PaidCalls(self.spend, unknown_cost=fleet.unknown_cost)
        self.budget = RunBudget(fleet.max_calls, fleet.max_tokens)
        self.stopped_at = math.inf
        self.admitted_at = self.settled_at = 0.0
        if parent is not None:
            self._inherit(parent)

    def _inherit(self, parent: Process) -> None:
        """Be what a fork of the parent is."""
        account = copy.copy(parent.spend._account)
        account.store = self.store
        account._refuse = self.spend._refuse
        self.spend._account = account
        self.heard = parent.heard
        self.calls.hear(parent.calls._maxima, frozenset(parent.calls._features))
        self.spend._forked()

    def stopping(self) -> bool:
        return self.world.now >= self.stopped_at

    @property
    def account(self) -> Any:
        return self.spend._account


class Call:
    """What the simulation knows of a call: what the account says must be the same."""

    id: str | None = None  # of its row, once it is admitted
    state = State.LOST  # how it ends
    billed = 0
    ended = False
    road: Any = None

    def __init__(self, process: Process, feature: str, deadline: float | None) -> None:
        self.process = process
        self.task = asyncio.current_task()
        self.feature = feature
        self.deadline = deadline
        self.began = process.world.now


class Fleet:
    def __init__(self, plan: Plan, story: list[str] | None = None) -> None:
        self.plan = plan
        self.world = World(plan.seed, story)
        self.network = Network(self.world, plan.rough, plan.own_clocks)
        self.network.observe = self._observe
        self.network.open(nano(plan.cap))
        self.audit = Audit(self.network.server._connection, nano(plan.cap))
        self.names = (f"p{number}" for number in itertools.count())
        self.calls: list[Call] = []
        self.doubled: set[str] = set()
        self.done = Counter[str]()
        draws, varied = random.Random(plan.seed), not plan.calm
        self.unknown_cost = COST * draws.choice((0.2, 1, 1, 5)) if varied else COST
        self.max_calls = draws.choice((3, 10**6)) if varied else 10**6
        self.max_tokens = draws.choice((80, 10**9)) if varied else 10**9
        self.cost = COST
        self.over = False
        self.saved = b""
        kinds = {kind for kind, _ in plan.troubles}
        self._keeps, self._stops = "fail_over" in kinds, "stop" in kinds
        self._full_at = self._held_at = 0.0
        self.starts = [
            day * DAY_S + draws.choice((-0.4, -0.1, -0.02, 40_000.0))
            for day in range(1, plan.days + 1)
        ]
        self.processes: list[Process] = []
        for number in range(plan.processes):
            self.begin(Process(self, f"desk {number}"), 0)

    def run(self) -> None:
        try:
            self._run()
        finally:
            self.world.end()

    def _run(self) -> None:
        if self.plan.calm:
            for start in self.starts:
                self.world.call_at(start, self._watch, start + 5)
        self.world.run(self.starts[-1] + 2)
        troubled = [process.paused_until for process in self.processes]
        self.world.run(max(self.world.now, self.network.silent_until, *troubled))
        self.over = True
        self.network.heal()
        for process in self.processes:
            process.clock_off = 0.0
        self.world.say("all troubles", "end")
        self.world.run(self.world.now + 2 * PATIENCE + 8)
        self._check_ends("a call")
        for process in self.alive():
            process.start(process.account.close(process.driver))
        self.world.run(self.world.now + 5)
        self._check_ends("a close")
        for process in self.alive():
            if count := process.account.unwritten:
                raise Violation(f"lost: {process.name} leaves {count} unwritten")
            self._check_budget(process)
        self.network.keep_time(2 * DAY_S)
        self.network.server.look()
        self.audit.step()
        self._check_learned()
        dead = {process.store.process for process in self.processes if process.dead}
        self.audit.finish(self.calls, self.doubled, dead)

    # The calls.

    def begin(self, process: Process, day: int) -> None:
        self.processes.append(process)
        for _ in range(self.plan.workers):
            process.start(self._work(process, day))

    def alive(self) -> list[Process]:
        return [process for process in self.processes if not process.dead]

    async def _work(self, process: Process, first: int) -> None:
        for start in self.starts[first:]:
            if start > self.world.now:
                late = 0.05 * self.world.random.random()
                await process.driver.pause(start - self.world.now + late)
            for _ in range(self.plan.calls):
                if self.over or process.stopping() or not await self._call(process):
                    break

    async def _call(self, process: Process) -> bool:
        """Whether the day goes on."""
        draw, now, varied = self.world.random.random, self.world.now, not self.plan.calm
        deadline = now + 0.4 * draw() if varied and draw() < 0.3 else None
        call = Call(process, "ab"[draw() < 0.2], deadline)
        self.calls.append(call)
        try:
            if varied and draw() < 0.03:
                await process.account.count(process.driver, nano(0.1 * COST))
            else:
                await self._paid(call, int(50 + 100 * draw()) if varied else 100)
        except DecisionBudgetExceeded as error:
            if self.plan.calm and not self.audit.full(day_of(START + now - 2 * ASK_S)):
                raise Violation(f"room: {process.name} is refused: {error}") from error
            self.world.say(process.name, "is refused")
            return False
        except (DecisionError, Refused, TimeoutError, ValueError, asyncio.CancelledError) as error:
            self.world.say(process.name, f"gets {error!r}")
        finally:
            call.ended = True
        self._check_deadline(call)
        return True

    async def _paid(self, call: Call, size: int) -> None:
        process = call.process
        heard = process.heard
        async with process.calls.call(
            size,
            call.feature,
            budget=process.budget,
            deadline=call.deadline,
            stopping=process.stopping if self._stops else never,
            unpaid=(Refused,),
        ) as road:
            call.road, row = road, road._row
            call.id = row.id
            self.world.say(process.name, f"{call.id} is admitted")
            if not row.unbounded and row.held < nano(heard):
                raise Violation(f"learned: {row} holds less than the ${heard} it had heard of")
            reply = await self._ask_endpoint(call, size)
            if reply is not None:
                road.settle(reply)

    async def _ask_endpoint(self, call: Call, size: int) -> Reply | None:
        """None where nothing was to be asked."""
        draw, pause = self.world.random.random, call.process.driver.pause
        latency, way, cost = 0.005 + 0.1 * draw(), 1.0, self.cost * draw()
        if not self.plan.calm:
            way = draw()
            if draw() < 0.03:
                latency += 2 * PATIENCE
        if way < 0.1:
            if way < 0.03:
                await pause(latency)
            call.state = State.UNPAID
            if way < 0.03:
                raise Refused
            return None if way < 0.06 else Reply(True, 10, cost)
        call.billed = nano(cost)
        self.world.say(call.process.name, f"{call.id} is billed {call.billed}")
        await pause(latency)
        if way < 0.16:
            raise TimeoutError("the reply is lost")
        if way < 0.18:
            return Reply(False, 10, math.nan)
        call.state = State.PAID
        return Reply(False, 5 + size // 20, cost)

    # The checks that take time into account.

    def _observe(self, message: Message, answer: Any) -> None:
        settles = message.request.__name__ == "settle"
        if settles:
            self.audit.told |= {ending.id: ending for ending in message.about[0]}
            message.life.settled_at = self.world.now
        elif isinstance(answer, Answer):
            if message.again:
                self.doubled.add(message.about[0].id)
            if answer.state is State.OPEN:
                message.life.admitted_at = self.world.now
        self.audit.step(self.network.today)
        if settles:
            self.save()
        if self.plan.calm:
            self._look()

    def save(self) -> None:
        """What a failover goes on from."""
        self.audit.step()
        if self._keeps:
            self.saved = self.network.server._connection.serialize()

    def _look(self) -> None:
        """Note when there was no room: for a call, and for one that has to be alone."""
        rows, paid = self.audit.open, self.audit.days[self.world.day()]
        full = paid + sum(row.cost for row in rows) >= self.audit.cap
        if full or any(row.held is None for row in rows):
            self._full_at = self.world.now
        if full or rows:
            self._held_at = self.world.now

    def _watch(self, until: float) -> None:
        """Nobody waits beside room for longer than it takes to ask: to ask at once where something
        was given back in the process, and after those who have to be alone."""
        now, known = self.world.now, self._features()
        self._look()
        waiting = [call for call in self.calls if not call.ended and call.id is None]
        for call in waiting:
            process = call.process
            alone = [one for one in waiting if one.process is process and one.feature not in known]
            no_room_at = self._held_at if call in alone else self._full_at
            since = max(no_room_at, process.admitted_at, call.began)
            left = since + (1 + len(alone)) * (ASK_S + 0.015) + 0.015 - now
            if not alone and process.settled_at > since:
                left = min(left, process.settled_at + 0.02 - now)
            if left < 0:
                raise Violation(f"room: {process.name} waits {now - since:.3f} s beside room")
        if now < until:
            self.world.call_later(ASK_S / 3, self._watch, until)

    def _features(self) -> set[str]:
        found = self.network.server._connection.execute("SELECT feature FROM features")
        return {feature for (feature,) in found}

    def _check_deadline(self, call: Call) -> None:
        disturbed = max(call.process.paused_until, self.network.silent_until - 5) >= call.began
        late = self.world.now - min(call.deadline or math.inf, call.process.stopped_at)
        if call.id is None and not disturbed and late > 3 * LIMIT_S:
            raise Violation(f"time: {call.process.name} waits {late:.3f} s too long")

    def _check_learned(self) -> None:
        """What the account was told that a call cost, it knows."""
        run = self.network.server._connection.execute
        dearest = run("SELECT cost_per_call FROM account").fetchone()[0]
        features = self._features()
        for call in self.calls:
            told = call.state is State.PAID and call.id in self.audit.told
            if told and (call.billed > nano(dearest) or call.feature not in features):
                raise Violation(f"learned: ${dearest}, {features} are known, not {call.id}")

    def _check_ends(self, what: str) -> None:
        for process in self.alive():
            if not all(task.done() for task in process.tasks):
                raise Violation(f"time: {what} never ends in {process.name}")

    def _check_budget(self, process: Process) -> None:
        ends = (State.PAID, State.LOST)
        mine = [call for call in self.calls if call.process is process and call.road is not None]
        counted = sum(call.state in ends for call in mine)
        found = process.budget.calls, process.budget.in_flight
        if found != (counted, 0):
            raise Violation(f"budget: {process.name} counts {found}, and made {counted} calls")
