"""A tree of accounts in virtual time: regions, each with an account whose cap is a call of the
parent's. Some lose their link for longer than a slice has patience, some are killed."""

from __future__ import annotations

import contextlib
import itertools
import logging
from typing import Any

from korvane.engines.decision_account import AccountSilent, CapReached, PaidCalls
from korvane.engines.decision_account.account import Wish
from korvane.engines.decision_account.records import NANO, State, Sums, nano
from korvane.engines.decision_bounds import DecisionTimeout, never
from support import Reply

from .simulation.fleet import Spend
from .simulation.network import Driver, Network, Remote
from .simulation.world import Life, World

REGIONS, PROCESSES = 64, 10_000  # each with a call in flight
CAP, SLICE, COST = 502.0, 5.0, 0.07  # USD
PATIENCE = 1800.0


class Client(Life):
    """A process's way to an account."""

    def __init__(self, world: World, name: str, network: Network) -> None:
        super().__init__(world, name)
        self.store = Remote(network.server, (f"{name} {n}" for n in itertools.count()))
        self.driver = Driver(self, network)
        self.spend = Spend(self.store, CAP, name, PATIENCE, self.driver)

    async def __call__(self, request: str, *about: Any) -> Any:
        while True:
            with contextlib.suppress(AccountSilent):
                return await getattr(self.spend._account, request)(self.driver, *about)
            await self.driver.pause(10.0)


class Region:
    """The feeder of an account, and the processes that spend it."""

    def __init__(self, world: World, name: str, root: Network, processes: int) -> None:
        self.billed = 0
        self.over = False
        self.link = Network(world, 0.0, False, root)
        account = Network(world, 0.0, False)
        account.open(0)
        self.clients = self._parent, self._own = [
            Client(world, name, network) for network in (self.link, account)
        ]
        self._calls = PaidCalls(self._own.spend, unknown_cost=COST)
        self._own.start(self._feed())
        for _ in range(processes):
            self._own.start(self._spend())

    async def _feed(self) -> None:
        pause, now = self._own.driver.pause, self._own.driver.now
        with contextlib.suppress(CapReached):
            while True:
                try:
                    slice_ = await self._parent("admit", Wish(lambda: SLICE, now(), now, never))
                except DecisionTimeout:
                    await pause(10.0)
                    continue
                parent: Sums = await self._parent("look")
                # The last slice is larger than what is left: it is not spent any further.
                over = max(0, parent.paid + parent.held - parent.cap)
                before = (await self._own("look")).paid
                cap = before + max(0, nano(SLICE) - over)
                await self._own("set_cap", cap / NANO)
                while (await self._own("look")).paid < cap:
                    await pause(10.0)
                await self._own("set_cap", 0.0)
                while (spent := await self._own("look")).holders:
                    await pause(10.0)
                await self._parent("end", slice_, State.PAID, spent.paid - before)
        self.over = True

    async def _spend(self) -> None:
        while not self.over:
            try:
                async with self._calls.call(100, "desk") as call:
                    self.billed += nano(COST)
                    await self._own.driver.pause(2.0)
                    call.settle(Reply(False, 10, COST))
            except CapReached:  # of the slice
                await self._own.driver.pause(600.0)


def grow(cut_off: int, killed: int) -> str:
    world = World(1)
    root = Network(world, 0.0, False)
    root.open(nano(CAP))
    shares = [PROCESSES * n // REGIONS for n in range(REGIONS + 1)]
    regions = [
        Region(world, f"region {n}", root, shares[n + 1] - shares[n]) for n in range(REGIONS)
    ]
    for region in regions[:cut_off]:
        when = 600 * world.random.random()
        world.call_later(when, setattr, region.link, "silent_until", 2 * PATIENCE)
    for region in regions[cut_off : cut_off + killed]:
        when = 1200 * world.random.random()
        for client in region.clients:
            world.call_later(when, client.kill)
    try:
        world.run(6 * PATIENCE)
    finally:
        world.end()
    parent, billed = root.server.look(), sum(region.billed for region in regions) / NANO
    counted = parent.paid / NANO
    assert parent.holders == 0 and counted >= CAP, parent
    assert billed <= counted <= CAP + REGIONS * COST, (billed, parent)
    assert counted - billed <= killed * SLICE, (billed, parent)
    return f"${billed:,.2f} billed and ${counted:,.2f} counted of ${CAP:,.0f}"


def check() -> str:
    logging.disable()
    return (
        f"{PROCESSES:,} processes in {REGIONS} regions: {grow(0, 0)};"
        f" {grow(8, 8)} where 8 lose their link and 8 are killed"
    )
