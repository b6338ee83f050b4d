"""A process's side of an account: its calls that wait, run and end, whatever the store does."""

from __future__ import annotations

import contextlib
import itertools
import logging
import math
import threading
from collections.abc import Callable
from dataclasses import dataclass
from typing import Any, NoReturn, Protocol, cast

from korvane.engines.decision_bounds import _wait, never

from .driving import Bell, Driver
from .line import Line
from .records import (
    NANO,
    AccountError,
    AccountSilent,
    Answer,
    Books,
    Ending,
    Maxima,
    Opening,
    State,
    Store,
    Sums,
    nano,
)

logger = logging.getLogger(__name__)

_WRITE_S = 0.5  # between two tries to write what could not be written
_LAST_TRIES = 3
_LEAST_S = 0.02
_LONG_S = 10.0  # of a call that is woken when there is something to do


class Learner(Protocol):
    """Who wants to know what the account has learned."""

    def hear(self, maxima: Maxima, features: frozenset[str]) -> None: ...


@dataclass(eq=False, slots=True)
class Wish:
    """A call that asks for admission, as :meth:`DailySpend.admit` is asked; ``unknown_cost`` is
    what it counts, USD, where it is lost and nothing bounds it."""

    bound: Callable[[], float]
    deadline: float | None
    clock: Callable[[], float]
    stopping: Callable[[], bool]
    feature: str = ""
    unknown_cost: float | None = None
    learner: Learner | None = None


@dataclass(eq=False, slots=True)
class Row:
    """A call's row. ``held`` is what it counts where it is lost, in nano-dollars (None: all that
    will be left of the cap)."""

    id: str
    life: object  # of the account: a forked child has another, and the row is not its own
    feature: str
    held: int | None = None
    unbounded: bool = False
    sent: bool = False  # whether it may be open
    doubtful: bool = False  # whether a request without an answer may open it yet


class Account:
    """The lock guards what is kept, and is held for moments only: never over a request, nor over a
    callable of the caller's. A coroutine of an account waits through its driver alone."""

    def __init__(
        self,
        store: Store,
        cap: float,
        name: str,
        patience: float,
        refuse: Callable[[Answer], NoReturn],
    ) -> None:
        self.store = store
        self._told_cap = nano(cap)
        self.seen = Sums(self._told_cap, 0, 0, 0, 0)
        self._name = name
        self._patience = patience
        self._refuse = refuse
        self._opened = False
        self.closed = False
        self._begin_life()

    def _begin_life(self) -> None:
        self._life = object()
        self._lock = threading.Lock()
        self._line = Line()
        self._numbers = itertools.count()
        self._kept: dict[str, Ending] = {}
        self._writing = False
        self._silent = False

    def forked(self) -> None:
        """In the child: what the parent holds, waits for and could not write is the parent's."""
        self.store.forked()
        self._begin_life()

    @property
    def waiting(self) -> int:
        return len(self._line)

    @property
    def unwritten(self) -> int:
        return len(self._kept)

    async def open(self, how: Driver) -> None:
        """Make the account or go by the one that is there. Where the store does not answer now, the
        first call that finds it does this."""
        with contextlib.suppress(AccountSilent):
            await self._ask(how, self.store.look)

    async def admit(self, how: Driver, wish: Wish) -> Row:
        """Open a row, waiting while the open ones of all processes hold the rest of the cap. Ends
        as :meth:`DailySpend.admit` does. A call that is not admitted, whatever ends it, leaves no
        open row for longer than the store is silent."""
        row = self._new_row(wish)
        place: Bell | None = None
        answered = False
        if self._line:
            place = self._join(how, self._line.rings)
        try:
            while True:
                if place is None or self._line.seconds_left(place, how.now()) <= 0:
                    rings = self._line.rings
                    if place is not None:
                        self._line.asks(how.now())
                    answer = await self._try(how, wish, row, place)
                    if answer is not None and answer.state is State.OPEN:
                        answered = True
                        return row
                    if answer is not None and answer.state is not None:
                        # It was lost before its admission was heard of: another takes its place.
                        self.withdraw(how, row)
                        row = self._new_row(wish)
                        continue
                    if answer is not None and answer.paid >= answer.cap:
                        self._line.refused(answer, how.now())
                        answered = True
                        self._refuse(answer)
                    if place is None:
                        place = self._join(how, rings)
                    elif row.unbounded:
                        self._line.step_back(place)
                pause = min(_pause(wish), max(0.0, self._line.seconds_left(place, how.now())))
                await place.heard(pause)
        except BaseException:
            self.withdraw(how, row)
            raise
        finally:
            if place is not None:
                self._line.leave(place, answered)

    async def end(
        self, how: Driver, row: Row, state: State, cost: int = 0, learned: Maxima | None = None
    ) -> None:
        """Write how a call ended. A store that fails is told later, and keeps the row open until
        then."""
        if row.life is not self._life:
            return
        await self._write(how, Ending(row.id, state, cost, self._name, row.feature, learned))

    async def count(self, how: Driver, cost: int) -> None:
        """Write a paid call that was never admitted."""
        row = Row(self._new_id(), self._life, "")
        await self.end(how, row, State.PAID, cost)

    async def look(self, how: Driver) -> Sums:
        """The account today. What was `seen` last stays, where the store does not answer then."""
        self.seen = await self._ask(how, self.store.look)
        return self.seen

    async def books(self, how: Driver, days: int) -> list[Books]:
        return await self._ask(how, self.store.books, days)

    async def set_cap(self, how: Driver, cap: float) -> None:
        if (await self.look(how)).cap != nano(cap):
            await self._ask(how, self.store.set_cap, nano(cap))
            logger.warning("The account's cap is $%.2f from now on", cap)

    async def close(self, how: Driver) -> None:
        """Write what is kept, for the last times, and say what could not be written."""
        if self.closed:
            return
        for tries_left in reversed(range(_LAST_TRIES)):
            if not self._kept or await self._write_kept(how):
                with contextlib.suppress(Exception):
                    await self.look(how)
                break
            if tries_left:
                await how.pause(_WRITE_S)
        self.closed = True
        if kept := list(self._kept.values()):
            paid = sum(ending.cost for ending in kept if ending.state is State.PAID)
            logger.warning(
                "%d calls that cost $%.4f could not be written to the account; "
                "it counts them as lost, at what they held",
                len(kept),
                paid / NANO,
            )
        self.store.close()

    def _new_id(self) -> str:
        return f"{self.store.process}-{next(self._numbers)}"

    def _new_row(self, wish: Wish) -> Row:
        return Row(self._new_id(), self._life, wish.feature)

    def _join(self, how: Driver, rings: int) -> Bell:
        place = how.bell()
        self._line.join(place, how.now(), rings)
        return place

    async def _try(self, how: Driver, wish: Wish, row: Row, place: Bell | None) -> Answer | None:
        """Ask for admission once; None where the store does not answer."""
        if place is not None and (refusal := self._line.refusal(how.now())):
            return refusal
        held = wish.bound()
        try:
            if math.isinf(held) and wish.learner is not None:
                wish.learner.hear(*await self._ask(how, self.store.known))
                held = wish.bound()
            unknown = None if wish.unknown_cost is None else nano(wish.unknown_cost)
            row.unbounded = math.isinf(held)
            amount = None if row.unbounded else nano(held)
            row.held = unknown if amount is None else amount
            opening = Opening(
                row.id, amount, row.held, self._name, wish.feature, self._patience, _limit(wish)
            )
            row.sent = True
            answer = await self._ask(how, self.store.admit, opening)
        except AccountSilent:
            row.doubtful = True
            return None
        row.sent = row.doubtful or answer.state is not None
        if row.held is None:
            row.held = answer.cap - answer.paid
        if wish.learner is not None:
            wish.learner.hear(answer.maxima, frozenset())
        return answer

    def withdraw(self, how: Driver, row: Row) -> None:
        """See to it that a row that may be open is not, nor comes to be."""
        if row.sent and row.life is self._life:
            self._keep(how, Ending(row.id, State.UNPAID, 0, self._name, row.feature))

    async def _write(self, how: Driver, ending: Ending) -> None:
        if self.closed:
            raise AccountError("the account is closed")
        try:
            await self._ask(how, self.store.settle, [ending])
        except Exception as error:
            self._keep(how, ending)
            if not isinstance(error, AccountSilent):
                logger.warning("%s; a call that ended is written later", error)
        except BaseException:
            self._keep(how, ending)
            raise
        finally:
            self._line.ring()

    def _keep(self, how: Driver, ending: Ending) -> None:
        """Write it later, and beside whatever the caller does now."""
        with self._lock:
            self._kept[ending.id] = ending
            begin, self._writing = not self._writing, True
        if begin:
            how.start(self._keep_writing)

    async def _keep_writing(self, how: Driver) -> None:
        life = self._life
        while not await self._write_kept(how) and life is self._life and not self.closed:
            await how.pause(_WRITE_S)

    async def _write_kept(self, how: Driver) -> bool:
        """Whether nothing is kept any more."""
        with self._lock:
            kept = list(self._kept.values())
        try:
            await self._ask(how, self.store.settle, kept)
        except Exception:
            return False
        with self._lock:
            for ending in kept:
                if self._kept.get(ending.id) is ending:
                    del self._kept[ending.id]
            self._writing = bool(self._kept)
            written = not self._kept
        self._line.ring()
        return written

    async def _ask[*A, T](self, how: Driver, request: Callable[[*A], T], *about: *A) -> T:
        if self.closed:
            raise AccountError("the account is closed")
        try:
            if not self._opened:
                cap = await how.ask(self.store.open, self._told_cap)
                self._opened = True
                self._compare(cap)
            answer = await how.ask(request, *about)
        except AccountSilent as error:
            if not self._silent:
                self._silent = True
                logger.warning("%s; calls wait until it does", error)
            raise
        self._silent = False
        return answer

    def _compare(self, cap: int) -> None:
        if cap != self._told_cap:
            logger.warning(
                "The account's cap is $%.2f, and goes; this process was told $%.2f",
                cap / NANO,
                self._told_cap / NANO,
            )


class _Pause:
    """Takes the place of a condition, to learn how long the module would wait on one."""

    seconds = 0.0

    def wait(self, seconds: float) -> None:
        self.seconds = seconds


def _limit(wish: Wish) -> float:
    """How long a call may ask. Also one without any time left finds room that is there."""
    return math.inf if wish.deadline is None else max(_LEAST_S, wish.deadline - wish.clock())


def _pause(wish: Wish) -> float:
    """How long a call may sleep before it looks at its stop and its deadline again. Raises what a
    waiting call raises when either has come."""
    pause = _Pause()
    _wait(cast(Any, pause), wish.stopping, deadline=wish.deadline, clock=wish.clock)
    if wish.stopping is not never:
        return pause.seconds
    # What never stops has nothing to look at: thousands that wait cost nothing meanwhile.
    return _LONG_S if wish.deadline is None else min(_LONG_S, wish.deadline - wish.clock())
