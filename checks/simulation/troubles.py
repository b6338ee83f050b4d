"""What can befall a fleet. Each says in plain words what it did, or None where there was nothing to
do it to."""

from __future__ import annotations

import copy
from functools import partial
from random import Random

from korvane.engines.decision_account.records import NANO, AccountError, AccountSilent, nano
from support import Reply

from .fleet import COST, Fleet, Process


def befall(fleet: Fleet) -> None:
    """Bring the troubles of its plan, each when its seed says."""
    for kind, seed in fleet.plan.troubles:
        draws = Random(seed)
        day = draws.randrange(fleet.plan.days)
        when = fleet.starts[day] + 0.8 * draws.random()
        fleet.world.call_at(when, partial(_strike, fleet, kind, draws, day))


def _strike(fleet: Fleet, kind: str, draws: Random, day: int) -> None:
    if (alive := fleet.alive()) and not fleet.over:
        done = TROUBLES[kind](fleet, draws, draws.choice(alive), day)
        if done is not None:
            fleet.world.say("TROUBLE", done)
            fleet.done[kind] += 1


def pause(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    seconds = draws.choice((0.1, 0.5, 2.0)) * (1 + draws.random())
    if draws.random() < 0.3 and day + 1 < fleet.plan.days:
        seconds = fleet.starts[day + 1] - fleet.world.now + 0.5 * draws.random()
    process.paused_until = fleet.world.now + seconds
    return f"{process.name} is paused for {seconds:.3f} s"


def kill(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    process.kill()
    fleet.network.dead.add(process.store.process)
    again = draws.random() < 0.7
    if again:
        fleet.begin(Process(fleet, process.name), day)
    return f"{process.name} is killed" + (" and started anew" if again else "")


def fork(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    child = Process(fleet, f"{process.name}'s child", process)
    fleet.begin(child, day)
    child.start(_meddle(fleet, process, child))
    return f"{process.name} is forked"


async def _meddle(fleet: Fleet, parent: Process, child: Process) -> None:
    """A child tries to end what its parent holds."""
    for call in [call for call in fleet.calls if call.process is parent and not call.ended]:
        if call.road is not None:
            road = copy.copy(call.road)
            road._account, road._calls, road._driver = child.account, child.calls, child.driver
            road._share = None
            child.account.withdraw(child.driver, road._row)
            road.settle(Reply(False, 10, 0.3 * COST))
            await road._leave(child.driver, None)


def interrupt(fleet: Fleet, draws: Random, process: Process, day: int) -> str | None:
    mine = [call for call in fleet.calls if call.process is process and not call.ended]
    if not mine or process.paused_until > fleet.world.now:
        return None
    call = draws.choice(mine)
    call.task.cancel()
    return f"{process.name} is interrupted in {call.id or 'a call that waits'}"


def stop(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    process.stopped_at = fleet.world.now
    return f"{process.name} is asked to stop"


def clock(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    bearer = fleet.network.bearer(process)
    bearer.clock_off = draws.uniform(-3, 3)
    fleet.world.call_later(1.5 * draws.random(), setattr, bearer, "clock_off", 0.0)
    return f"the clock of {bearer.name} is off by {bearer.clock_off:.3f} s"


def silence(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    seconds, network = draws.choice((0.1, 1.0, 1.0, 20_000.0)) * draws.random(), fleet.network
    network.silent_until = max(network.silent_until, fleet.world.now + seconds)
    network.mute = draws.random() < 0.5
    return f"the store is silent for {seconds:.3f} s" + ", but works" * network.mute


def refuse(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    seconds, network = draws.choice((0.1, 1.0)) * draws.random(), fleet.network
    network.refusing_until = fleet.world.now + seconds
    network.refusal = draws.choice((AccountSilent, AccountError))
    return f"the store is read-only for {seconds:.3f} s ({network.refusal.__name__})"


def restart(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    fleet.network.connection += 1
    return "the store is restarted"


def fail_over(fleet: Fleet, draws: Random, process: Process, day: int) -> str | None:
    if not fleet.saved:
        return None
    fleet.network.connection += 1
    fleet.audit.fail_over(fleet.saved)
    return "a failover forgets the admissions since the last settlement"


def dearer(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    fleet.cost = 50 * COST
    return "every call costs 50 times as much"


def set_cap(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    fleet.audit.cap = nano(fleet.plan.cap * draws.choice((0.5, 0.8, 1.5)))
    fleet.network.server.set_cap(fleet.audit.cap)
    fleet.save()
    return f"the cap is {fleet.audit.cap / NANO:.3f} USD now"


def prune(fleet: Fleet, draws: Random, process: Process, day: int) -> str:
    fleet.network.keep_time()
    count = fleet.network.server.prune(2)
    fleet.audit.step(pruning=True)
    fleet.save()
    return f"{count} calls of earlier days are pruned"


TROUBLES = {
    trouble.__name__: trouble
    for trouble in (
        *(pause, kill, fork, interrupt, stop, clock, silence, refuse, restart),
        *(fail_over, dearer, set_cap, prune),
    )
}
