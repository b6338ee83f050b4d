"""A day's cap that any number of processes spend together."""

from __future__ import annotations

import contextlib
import functools
import os
import threading
import time
import weakref
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass
from types import TracebackType
from typing import NoReturn, Self

from korvane.engines.decision_bounds import DailySpend, DecisionBudgetExceeded, PaidReply, Share

from .account import Account, Row, Wish
from .driving import THREAD, Task, run
from .records import (
    NANO,
    AccountSilent,
    Answer,
    Books,
    CapReached,
    Maxima,
    State,
    Store,
    nano,
    reply_cost,
)
from .stores import store_at


@dataclass(frozen=True)
class Figures:
    """What a dashboard shows of an account. Amounts are USD."""

    cap: float
    paid: float  # today, by all; what was lost is in it
    held: float  # by the open calls of all, as far as their cost has a bound
    in_flight: int  # open calls of all
    lost: float  # today, of calls that never said how they ended
    waiting: int  # calls of this process that wait for room
    unwritten: int  # ended calls of this process that the store has not taken yet
    answers: bool  # whether the store does; else what all share is what it said last


class SharedSpend(DailySpend):
    """A day's cap that is spent by every process that opens the same account.

    A call is a row of the account: open while it runs, then paid, unpaid or lost. It is admitted as
    :class:`DailySpend` admits, by what all processes paid today and what their open calls hold. One
    that is still open when its patience is over counts as lost, that is as paid at what it held; a
    settlement that comes late corrects it. So whatever dies, is paused or loses its way, what all
    of them pay in a day passes the cap by one call at most, as long as no call costs more than it
    held.

    A settled call is in the account before ``settle`` returns, except where the store fails: then
    its row goes on holding, and is written once the store is back. Meanwhile no call is admitted.
    Any thread may use it, and so may a forked child.
    """

    _changed: threading.Condition
    _cap: float
    _cost: float
    _day: str

    def __init__(self, url: str, cap: float, *, name: str = "", patience: float = 600.0) -> None:
        """Open the account, or make it.

        Args:
            url: ``sqlite:///FILE`` (with a fourth slash where the path is absolute), ``sqlite://``
                for an account in memory, or ``postgresql://...``.
            cap: USD that the paid calls of one UTC day may cost. An account that is there already
                goes by its own.
            name: What this process is called where the account is shown.
            patience: Seconds after which an open call counts as lost: longer than calls take.

        Raises:
            AccountError: The account cannot be used.
        """
        self._start(store_at(url), cap, name, patience)
        try:
            run(self._account.open(THREAD))
        except BaseException:
            self._account.store.close()
            raise

    def _start(self, store: Store, cap: float, name: str, patience: float) -> None:
        self._seen = Answer(None, "", 0, nano(cap), Maxima())
        super().__init__(cap, lambda: self._seen.today, lambda day: self._seen.paid / NANO)
        self._account = Account(store, cap, name, patience, self._refuse)
        self._threads: ThreadPoolExecutor | None = None
        _spends.add(self)

    def spent(self) -> float:
        """What the paid calls of all processes cost today, USD."""
        return run(self._account.look(THREAD)).paid / NANO

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """As :meth:`DailySpend.admit`: the share is a row of the account.

        A call whose cost has no bound holds all that is left of the cap, and counts it if it is
        lost. While the store does not answer a call waits, no longer than its deadline or its stop.
        """
        wish = Wish(bound, deadline, clock, stopping)
        row = run(self._account.admit(THREAD, wish))
        return Share(functools.partial(self._settle_row, row))

    def charge(self, reply: PaidReply) -> None:
        """Count what ``reply`` cost today without a share."""
        run(self._account.count(THREAD, reply_cost(reply)))

    def figures(self) -> Figures:
        """What a dashboard shows: of all processes, and of this one. After :meth:`close` it is
        what was seen last."""
        account = self._account
        answers = False
        with contextlib.suppress(AccountSilent):
            if not account.closed:
                run(account.look(THREAD))
                answers = True
        sums = account.seen
        return Figures(
            cap=sums.cap / NANO,
            paid=sums.paid / NANO,
            held=sums.held / NANO,
            in_flight=sums.holders,
            lost=sums.lost / NANO,
            waiting=account.waiting,
            unwritten=account.unwritten,
            answers=answers,
        )

    def books(self, days: int = 1) -> list[Books]:
        """The account by day and by name, for so many days up to today. It reads every row of
        them: ask at the end of a run, not while it goes on.

        Raises:
            AccountSilent: The store does not answer now.
        """
        return run(self._account.books(THREAD, days))

    def set_cap(self, cap: float) -> None:
        """Change the account's cap, for all its processes and at once.

        Raises:
            AccountSilent: The store does not answer now.
        """
        run(self._account.set_cap(THREAD, cap))

    def close(self) -> None:
        """Write what is unwritten, and warn in one line of what could not be."""
        run(self._account.close(THREAD))
        if self._threads is not None:
            self._threads.shutdown(wait=False)

    def __enter__(self) -> Self:
        return self

    def __exit__(
        self,
        kind: type[BaseException] | None,
        error: BaseException | None,
        trace: TracebackType | None,
    ) -> None:
        self.close()

    def _settle_row(self, row: Row, reply: PaidReply | None) -> None:
        state, cost = (State.UNPAID, 0) if reply is None else (State.LOST, row.held or 0)
        try:
            if reply is not None:
                state, cost = State.PAID, reply_cost(reply)
        finally:
            run(self._account.end(THREAD, row, state, cost))

    def _task(self) -> Task:
        """The driver of a task of the running loop, whose requests run in threads of this one's."""
        if self._threads is None:
            self._threads = ThreadPoolExecutor(self._account.store.lanes, "decision_account")
        return Task(self._threads)

    def _refuse(self, answer: Answer) -> NoReturn:
        """Refuse as the module does, in its words, with its warning once a day."""
        with self._changed:
            self._seen = answer
            self._cap = answer.cap / NANO
            if self._day == answer.today:
                self._cost = answer.paid / NANO
            try:
                super().admit(float, deadline=None, clock=time.monotonic, stopping=bool)
            except DecisionBudgetExceeded as refusal:
                raise CapReached(str(refusal)) from None
        raise AssertionError("the module admits what the account refuses")

    def _forked(self) -> None:
        self._account.forked()
        self._threads = None


_spends: weakref.WeakSet[SharedSpend] = weakref.WeakSet()


def _after_fork() -> None:
    for spend in list(_spends):
        spend._forked()


os.register_at_fork(after_in_child=_after_fork)
