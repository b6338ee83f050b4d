"""A fleet of a few processes for a few days in virtual time: the package's code, and its troubles.

Everything follows from a plan. A second stands for a quarter of an hour: calls take up to a tenth
of one, what is open for 0.6 s is lost, clocks are off by seconds. So midnight is always near.
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
from korvane.engines.decision_account.account import Wish
from korvane.engines.decision_account.line import ASK_S
from korvane.engines.decision_account.records import (
    NANO,
    AccountError,
    AccountSilent,
    Answer,
    State,
    nano,
)
from korvane.engines.decision_account.rules import day_of
from korvane.engines.decision_bounds import (
    DecisionBudgetExceeded,
    DecisionError,
    RunBudget,
)

from .audit import Audit, Violation
from .virtual import BARE, LIMIT_S, START, Driver, Life, Message, Network, Remote, Task, World

PATIENCE = 0.6
COST = 0.01
DAY_S = 86_400.0


@dataclass(frozen=True)
class Trouble:
    kind: str
    day: int
    after: float
    seed: int


@dataclass(frozen=True)
class Plan:
    seed: int
    days: int
    processes: int
    workers: int  # of each process
    calls: int  # of each worker and day, at most
    cap: float
    rough: float  # how likely a message has trouble
    own_clocks: bool  # each process dates its requests, and not the store
    varied: bool  # calls cost less than the dearest, and end in all ways
    troubles: tuple[Trouble, ...]

    @property
    def calm(self) -> bool:
        return not (self.rough or self.troubles or self.varied)


@dataclass
class Reply:
    cost: float
    cached: bool = False
    input_tokens: int = 10


class Refused(Exception):
    """The endpoint's answer that nothing was paid."""


class Spend(SharedSpend):
    def __init__(self, store: Remote, cap: float, name: str, driver: Driver) -> None:
        self._start(store, cap, name, PATIENCE)
        self._driver = driver

    def _task(self) -> Any:
        return self._driver


class Process(Life):
    def __init__(self, fleet: Fleet, name: str, parent: Process | None = None) -> None:
        super().__init__(fleet.world, name, Remote(fleet.network.server, fleet.names))
        self.driver = Driver(self, fleet.network)
        self.spend = Spend(self.store, fleet.plan.cap, name, self.driver)
        self.calls = PaidCalls(self.spend, unknown_cost=fleet.unknown_cost)
        self.budget = RunBudget(fleet.max_calls, fleet.max_tokens)
        self.stopped_at = math.inf
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
    entered = False
    ended = False
    road: Any = None

    def __init__(self, process: Process, task: Task, feature: str, deadline: float | None) -> None:
        self.process = process
        self.task = task
        self.feature = feature
        self.deadline = deadline
        self.began = process.world.now


class Fleet:
    def __init__(self, plan: Plan, story: list[str] | None = None) -> None:
        self.plan = plan
        self.world = World(plan.seed, story)
        self.network = Network(self.world, plan.rough, plan.own_clocks)
        self.network.observe = self._observe
        self.network.server.open(nano(plan.cap))
        self.audit = Audit(self.network.server._connection, nano(plan.cap))
        self.names = (f"p{number}" for number in itertools.count())
        self.calls: list[Call] = []
        self.doubled: set[str] = set()
        self.done = Counter[str]()
        draws = random.Random(plan.seed)
        self.unknown_cost = COST * draws.choice((0.2, 1, 1, 5)) if plan.varied else COST
        self.max_calls = draws.choice((3, 10**6)) if plan.varied else 10**6
        self.max_tokens = draws.choice((80, 10**9)) if plan.varied else 10**9
        self._dearer = 1
        self._over = False
        self._saved = b""
        self._admitted = 0
        self._starts = [
            START + day * DAY_S + draws.choice((-0.4, -0.1, -0.02, 40_000.0))
            for day in range(1, plan.days + 1)
        ]
        self._processes: list[Process] = []
        for number in range(plan.processes):
            self._begin(f"desk {number}", 0)
        for trouble in plan.troubles:
            self.world.at(self._starts[trouble.day] + trouble.after, self._strike, trouble)

    def run(self) -> None:
        try:
            self._run()
        finally:
            for process in self._processes:
                self._end(process)

    def _run(self) -> None:
        if self.plan.calm:
            for start in self._starts:
                self.world.at(start, self._watch, 0, self._admitted, start + 5)
        self.world.run(self._starts[-1] + 2)
        troubled = [process.paused_until for process in self._processes]
        self.world.run(max(self.world.now, self.network.silent_until, *troubled))
        self._heal()
        self.world.run(self.world.now + 2 * PATIENCE + 8)
        self._check_ends("time: a call never ends")
        for process in self._alive():
            Task(process, process.account.close(process.driver))
        self.world.run(self.world.now + 5)
        self._check_ends("time: a close never ends")
        for process in self._alive():
            if process.account.unwritten:
                raise Violation(
                    f"lost: {process.name} leaves {process.account.unwritten} unwritten"
                )
            self._check_budget(process)
        self.network._now = self.world.now + 2 * DAY_S
        self.network.server.look()
        self.audit.step()
        self._check_learned()
        dead = {process.store.process for process in self._processes if process.dead}
        self.audit.finish(self.calls, self.doubled, dead)

    # The calls.

    def _begin(self, name: str, day: int) -> None:
        process = Process(self, name)
        self._processes.append(process)
        for _ in range(self.plan.workers):
            Task(process, self._work(process, day))

    def _end(self, process: Process) -> None:
        process.dead = True
        for task in process.tasks:
            task.drop()

    def _alive(self) -> list[Process]:
        return [process for process in self._processes if not process.dead]

    async def _work(self, process: Process, first: int) -> None:
        for start in self._starts[first:]:
            if start > self.world.now:
                await process.driver.pause(
                    start - self.world.now + 0.05 * self.world.random.random()
                )
            for _ in range(self.plan.calls):
                if self._over or process.stopping() or not await self._call(process):
                    break

    async def _call(self, process: Process) -> bool:
        """Whether the day goes on."""
        draw, now = self.world.random.random, self.world.now
        deadline = now + 0.4 * draw() if self.plan.varied and draw() < 0.3 else None
        way = draw() if self.plan.varied else 1.0
        feature = BARE if way < 0.1 else "ab"[draw() < 0.2]
        call = Call(process, self.world.running, feature, deadline)
        self.calls.append(call)
        try:
            if way < 0.03:
                await process.account.count(process.driver, nano(0.1 * COST))
            elif way < 0.1:
                await self._bare(call)
            else:
                await self._paid(call)
        except DecisionBudgetExceeded as error:
            if self.plan.calm and not self.audit.full(day_of(self.world.now - 1)):
                raise Violation(f"room: {process.name} is refused: {error}") from error
            self.world.say(process.name, "is refused")
            return False
        except (DecisionError, Refused, TimeoutError, ValueError) as error:
            self.world.say(process.name, f"gets {error!r}")
        except (KeyboardInterrupt, asyncio.CancelledError) as error:
            self.world.say(process.name, f"was interrupted by {error!r}")
        finally:
            call.ended = True
        self._check_deadline(call)
        return True

    async def _paid(self, call: Call) -> None:
        process = call.process
        async with process.calls.call(
            100,
            call.feature,
            budget=process.budget,
            deadline=call.deadline,
            stopping=process.stopping,
            unpaid=(Refused,),
        ) as road:
            call.road = road
            self._enter(call, road._row)
            reply = await self._ask_endpoint(call)
            if reply is not None:
                road.settle(reply)

    async def _bare(self, call: Call) -> None:
        """As `SharedSpend.admit` and its share."""
        process = call.process
        account, how = process.account, process.driver
        most = math.inf if self.world.random.random() < 0.2 else COST
        wish = Wish(lambda: most, call.deadline, how.now, process.stopping, call.feature)
        row = await account.admit(how, wish)
        self._enter(call, row)
        try:
            await self._ask_endpoint(call)
        finally:
            await account.end(how, row, call.state, call.billed)

    def _enter(self, call: Call, row: Any) -> None:
        call.id, call.entered = row.id, True
        self.world.say(call.process.name, f"{row.id} is admitted")

    async def _ask_endpoint(self, call: Call) -> Reply | None:
        """None where nothing was to be asked."""
        draw, pause = self.world.random.random, call.process.driver.pause
        latency, way, cost = 0.005 + 0.1 * draw(), 1.0, COST * self._dearer
        if self.plan.varied:
            way, cost = draw(), cost * draw()
            if draw() < 0.03:
                latency += 2 * PATIENCE
        if way < 0.03:
            call.state = State.UNPAID
            return None
        if way < 0.06:
            await pause(latency)
            call.state = State.UNPAID
            raise Refused
        if way < 0.1:
            call.state = State.UNPAID
            return Reply(cost, cached=True)
        call.billed = nano(cost)
        self.world.say(call.process.name, f"{call.id} is billed {call.billed}")
        await pause(latency)
        if way < 0.16:
            raise TimeoutError("the reply is lost")
        if way < 0.18 and call.road is not None:
            return Reply(math.nan)
        call.state = State.PAID
        return Reply(cost)

    # The checks that take time into account.

    def _observe(self, message: Message, answer: Any) -> None:
        what = message.request.__name__
        if what == "admit":
            call = message.about[0]
            if message.again:
                self.doubled.add(call.id)
            if call.feature != BARE and call.held is not None and call.held < nano(message.heard):
                raise Violation(f"learned: {call.id} holds {call.held}, known are {message.heard}")
        if what == "settle":
            for ending in message.about[0]:
                self.audit.told[ending.id] = ending
        if isinstance(answer, Answer) and answer.state is State.OPEN:
            self._admitted += 1
        self.audit.step()
        if what == "settle":
            self._save()

    def _save(self) -> None:
        if any(trouble.kind == "failover" for trouble in self.plan.troubles):
            self._saved = self.network.server._connection.serialize()

    def _watch(self, since: int, admitted: int, until: float) -> None:
        """Nobody waits beside room for longer than it takes each who waits to ask."""
        waiting = [call for call in self.calls if not (call.entered or call.ended)]
        today = day_of(self.world.now)
        holders, held, unbounded, known = self._sums()
        room = self.audit.days.get(today, 0) + held < self.audit.cap and not unbounded
        wanted = any(call.feature in known or not holders for call in waiting)
        since = since + 1 if room and wanted and admitted == self._admitted else 0
        if since > 2 + len(waiting):
            raise Violation(f"room: {len(waiting)} calls wait beside room")
        if self.world.now < until:
            self.world.at(self.world.now + ASK_S, self._watch, since, self._admitted, until)

    def _sums(self) -> tuple[int, int, int, set[str]]:
        run = self.network.server._connection.execute
        sums = run("SELECT holders, held, unbounded FROM account").fetchone()
        return (*sums, {feature for (feature,) in run("SELECT feature FROM features")})

    def _check_deadline(self, call: Call) -> None:
        undisturbed = (
            call.process.paused_until < call.began and self.network.silent_until < call.began + 5
        )
        late = self.world.now - min(call.deadline or math.inf, call.process.stopped_at)
        if not call.entered and undisturbed and late > 3 * LIMIT_S:
            raise Violation(f"time: {call.process.name} waits {late:.3f} s too long")

    def _check_learned(self) -> None:
        """What the account was told that a call cost, it knows."""
        run = self.network.server._connection.execute
        dearest = run("SELECT cost_per_call FROM account").fetchone()[0]
        features = self._sums()[3]
        for call in self.calls:
            if call.road is None or call.state is not State.PAID or call.id not in self.audit.told:
                continue
            if call.billed > nano(dearest) or call.feature not in features:
                raise Violation(f"learned: ${dearest}, {features} are known, not {call.id}")

    def _check_ends(self, text: str) -> None:
        for process in self._alive():
            for task in process.tasks:
                if task.error is not None:
                    raise task.error
                if not task.ended:
                    raise Violation(f"{text} in {process.name}")

    def _check_budget(self, process: Process) -> None:
        ends = (State.PAID, State.LOST)
        mine = [call for call in self.calls if call.process is process and call.road is not None]
        counted = sum(call.state in ends for call in mine)
        found = process.budget.calls, process.budget.in_flight
        if found != (counted, 0):
            raise Violation(f"budget: {process.name} counts {found}, and made {counted} calls")

    # The troubles.

    def _strike(self, trouble: Trouble) -> None:
        alive = self._alive()
        draws = random.Random(trouble.seed)
        if alive and not self._over:
            process = draws.choice(alive)
            about = getattr(self, f"_{trouble.kind}")(draws, process, trouble.day)
            if about is not None:
                self.world.say("TROUBLE", about)
                self.done[trouble.kind] += 1

    def _heal(self) -> None:
        self._over = True
        network = self.network
        network.refusing_until = network.clock_off = network.rough = 0.0
        for process in self._processes:
            process.clock_off = 0.0
        self.world.say("all troubles", "end")

    def _pause(self, draws: random.Random, process: Process, day: int) -> str:
        seconds = draws.choice((0.1, 0.5, 2.0)) * (1 + draws.random())
        if draws.random() < 0.3 and day + 1 < self.plan.days:
            seconds = self._starts[day + 1] - self.world.now + 0.5 * draws.random()
        process.paused_until = self.world.now + seconds
        return f"{process.name} is paused for {seconds:.3f} s"

    def _kill(self, draws: random.Random, process: Process, day: int) -> str:
        self._end(process)
        again = draws.random() < 0.7
        if again:
            self._begin(process.name, day)
        return f"{process.name} is killed" + (" and started anew" if again else "")

    def _fork(self, draws: random.Random, process: Process, day: int) -> str:
        child = Process(self, process.name + "'s child", process)
        self._processes.append(child)
        Task(child, self._meddle(process, child))
        Task(child, self._work(child, day))
        return f"{process.name} is forked"

    async def _meddle(self, parent: Process, child: Process) -> None:
        """A child tries to end what its parent holds."""
        for call in [call for call in self.calls if call.process is parent and not call.ended]:
            if call.road is not None:
                road = copy.copy(call.road)
                road._account, road._calls, road._driver = child.account, child.calls, child.driver
                road._share = None
                child.account.withdraw(child.driver, road._row)
                road.settle(Reply(0.3 * COST))
                await road._leave(child.driver, None)

    def _interrupt(self, draws: random.Random, process: Process, day: int) -> str | None:
        running = [call for call in self.calls if not (call.ended or call.process.dead)]
        running = [call for call in running if call.process.paused_until < self.world.now]
        if not running:
            return None
        call = draws.choice(running)
        error = draws.choice((KeyboardInterrupt(), asyncio.CancelledError()))
        self.world.at(self.world.now, call.task.interrupt, error)
        return f"{call.process.name} is interrupted in {call.id or 'a call that waits'}"

    def _clock(self, draws: random.Random, process: Process, day: int) -> str:
        off = draws.uniform(-3, 3)
        bearer = process if self.plan.own_clocks else self.network
        bearer.clock_off = off
        self.world.at(self.world.now + 1.5 * draws.random(), setattr, bearer, "clock_off", 0.0)
        return f"the clock of {getattr(bearer, 'name', 'the store')} is off by {off:.3f} s"

    def _silence(self, draws: random.Random, process: Process, day: int) -> str:
        seconds = draws.choice((0.1, 1.0, 1.0, 20_000.0)) * draws.random()
        self.network.silent_until = max(self.network.silent_until, self.world.now + seconds)
        self.network.mute = draws.random() < 0.5
        return f"the store is silent for {seconds:.3f} s" + " but works" * self.network.mute

    def _refusing(self, draws: random.Random, process: Process, day: int) -> str:
        seconds = draws.choice((0.1, 1.0)) * draws.random()
        self.network.refusing_until = self.world.now + seconds
        self.network.refusal = draws.choice((AccountSilent, AccountError))
        return f"the store is read-only for {seconds:.3f} s ({self.network.refusal.__name__})"

    def _restart(self, draws: random.Random, process: Process, day: int) -> str:
        self.network.restart()
        return "the store is restarted"

    def _failover(self, draws: random.Random, process: Process, day: int) -> str | None:
        if not self._saved:
            return None
        self.network.restart()
        self.audit.fail_over(self._saved)
        return "a failover forgets the admissions since the last settlement"

    def _dear(self, draws: random.Random, process: Process, day: int) -> str:
        self._dearer = 50
        return "every call costs 50 times as much"

    def _cap(self, draws: random.Random, process: Process, day: int) -> str:
        self.audit.cap = nano(self.plan.cap * draws.choice((0.5, 0.8, 1.5)))
        self.network.server.set_cap(self.audit.cap)
        self.audit.step()
        self._save()
        return f"the cap is {self.audit.cap / NANO:.3f} USD now"

    def _prune(self, draws: random.Random, process: Process, day: int) -> str:
        self.network._now = self.world.now
        count = self.network.server.prune(2)
        self.audit.step(pruning=True)
        self._save()
        return f"{count} calls of earlier days are pruned"

    def _stop(self, draws: random.Random, process: Process, day: int) -> str:
        process.stopped_at = self.world.now
        return f"{process.name} is asked to stop"
