"""What a process may spend of the fleet's day: a `DailySpend` that holds only what was leased.

Its cap is the day's. A day starts with all of the cap spent but what this process has leased, and
every further lease is a credit: a charge of less than nothing. So whatever the other processes may
spend counts as spent here, and the module's own rule bounds what this process pays beyond its
leases: by one call. What it paid beyond one lease comes off the next.

A thread of its own keeps the lease: it asks for more ahead of need, renews it while calls run, and
hands back what an idle process has left. No call asks the account itself, so a thousand calls ask
no more often than one, and a call waits for room as long as it would wait in a `DailySpend`.
"""

from __future__ import annotations

import logging
import math
import threading
import time
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager, suppress
from dataclasses import dataclass, replace
from functools import partial

from fleet.account import MICRO, Account, AccountError, AccountUnreachable, Lease
from fleet.client import Calendar, PaidCall
from korvane.engines.decision_bounds import (
    DailySpend,
    DecisionStopped,
    DecisionTimeout,
    PaidReply,
    Share,
)

logger = logging.getLogger(__name__)

_POLL_S = 0.1
_RETRY_S = 0.2
_REFUSED_S = 1.0
_IDLE_S = 1.0
_NEVER = "before the first lease"


@dataclass(frozen=True)
class _Credit:
    cost: float
    cached: bool = False
    input_tokens: int = 0


class LeasedSpend(DailySpend):
    """The day's account of one process, and its client's ledger.

    Two locks, taken in this order: `line`, for one request to the account at a time together with
    what its answer changes here; and `_news`, which guards every field below it.
    """

    def __init__(self, account: Account, cap: int, slice_: int, *, threads: int) -> None:
        """Create the account of this process; nothing is leased before the first call.

        Args:
            cap: What the fleet may pay on one day, micro-dollars.
            slice_: What is leased at a time; more where the threads' calls need more.
            threads: How many calls of this process run at once.
        """
        self.calendar = _LeasedDay(self)
        super().__init__(cap / MICRO, self.calendar.today, self.spent_since)
        self._account = account
        self._cap_usd = cap / MICRO
        self._slice = slice_
        self._threads = threads
        self.line = threading.RLock()
        self._unwritten: list[PaidCall] = []
        self._down_since = math.inf
        self._news = threading.Condition()
        self.lease = Lease(_NEVER, 0, 0.0, spent=False)
        self._good_until = -math.inf
        self._renew_at = -math.inf
        self._ask_after = -math.inf
        self._calls = 0
        self._last_call = -math.inf
        self._dearest = 0.0
        self._refusal: AccountError | None = None
        self._wanted = threading.Event()
        self._closing = threading.Event()
        self._keeper = threading.Thread(target=self._keep, name="lease keeper", daemon=True)
        self._keeper.start()

    def admit(
        self,
        bound: Callable[[], float],
        *,
        deadline: float | None,
        clock: Callable[[], float],
        stopping: Callable[[], bool],
    ) -> Share:
        """Hold what a paid call may cost, of what this process has leased."""
        with self._news:
            self._calls += 1
            try:
                while (share := self._admit_now(bound, clock)) is None:
                    self._wanted.set()
                    if stopping():
                        raise DecisionStopped("the pass was asked to stop")
                    left = math.inf if deadline is None else deadline - clock()
                    if left <= 0:
                        raise DecisionTimeout("the call ran out of its deadline without a lease")
                    self._news.wait(min(_POLL_S, left))
            except BaseException:
                self._calls -= 1
                self._news.notify_all()
                raise
        return Share(partial(self._end_call, share))

    def _admit_now(self, bound: Callable[[], float], clock: Callable[[], float]) -> Share | None:
        """The share of a call that need not wait. The one place where the day is refused: all of
        it is paid, not only what this process has leased."""
        if self._refusal:
            raise AccountError(str(self._refusal))
        now = time.monotonic()
        if now >= self._good_until:
            return None
        if self.spent() >= self._cap_usd and not (self.lease.spent and now < self._ask_after):
            return None
        try:
            return super().admit(bound, deadline=None, clock=clock, stopping=_at_once)
        except DecisionStopped:
            return None  # the calls in flight hold what is left

    def _end_call(self, share: Share, reply: PaidReply | None) -> None:
        try:
            share.settle(reply)
        finally:  # a call that is over keeps no lease alive
            with self._news:
                self._calls -= 1
                self._last_call = time.monotonic()
                self._news.notify_all()
        with self._news:
            if reply is not None:
                self._dearest = max(self._dearest, reply.cost)
            if self._low():
                self._wanted.set()

    # What a client asks of its ledger.

    def spent_since(self, day: str) -> float:
        """What counts as spent when a day starts: all but what this process has leased."""
        lease = self.lease
        return self._cap_usd - (lease.amount / MICRO if lease.day == day else 0.0)

    def record(self, calls: Sequence[PaidCall]) -> None:
        """Write paid calls down, before they are counted.

        While the account does not answer this waits for it, for no longer than a lease is good:
        after that nothing is admitted anyway, and the rows are kept to be written later.
        """
        with self.line:
            self._unwritten += calls
            try:
                while not self._write():
                    down_for = time.monotonic() - self._down_since
                    if down_for > self._account.term or self._closing.wait(_RETRY_S):
                        return
            except AccountError as error:
                self._refuse(error)

    def close(self) -> None:
        """Write what is unwritten and hand back what is left. Whoever closes lets no other call
        begin; those in flight end first, for as long as a lease is good."""
        with self._news:
            self._news.wait_for(lambda: not self._calls, self._account.term)
        self._closing.set()
        self._wanted.set()
        self._keeper.join()
        with self.line, suppress(AccountUnreachable, AccountError):
            self._hand_back()
        self._account.close()
        if self._unwritten:
            cost = sum(call.cost for call in self._unwritten)
            rows = len(self._unwritten)
            logger.warning("Lost from the account: %d paid calls, $%.6f", rows, cost)

    # The keeper.

    def _keep(self) -> None:
        complained = False
        while not self._closing.is_set():
            self._wanted.wait(_POLL_S)
            self._wanted.clear()
            try:
                self._look_after()
                complained = False
            except AccountUnreachable as error:
                if not complained:
                    logger.warning("No lease can be had: %s; calls wait", error)
                complained = True
                self._closing.wait(_RETRY_S)
            except AccountError as error:
                self._refuse(error)

    def _refuse(self, error: AccountError) -> None:
        """Admit nothing more: what the account refuses it would refuse again."""
        with self._news:
            self._refusal = error
            self._news.notify_all()

    def _look_after(self) -> None:
        """Do what is due: ask for more, renew, or hand back."""
        with self._news:
            now = time.monotonic()
            idle = not self._calls and now - self._last_call > _IDLE_S
            if idle:
                if self._cap_usd - self.spent() < 1 / MICRO:
                    return
                # From here on no call is admitted on what is about to be handed back.
                self._good_until = -math.inf
            else:
                wish = self._wish() if self._low() and now >= self._ask_after else 0
                if not wish and (now < self._renew_at or not self._calls):
                    return
        with self.line:
            if idle:
                self._hand_back()
            else:
                self._extend(wish)

    def _low(self) -> bool:
        return self._cap_usd - self.spent() < self._wish() / MICRO / 2

    def _wish(self) -> int:
        """A slice: half of one is enough for every thread to hold the dearest call."""
        return max(1, self._slice, math.ceil(2 * self._threads * self._dearest * MICRO))

    def _extend(self, wish: int) -> None:
        if not self._write():
            return
        asked = time.monotonic()
        before = self.lease
        lease = self._account.lease(wish)
        with self._news:
            if lease.day != before.day:
                before = replace(lease, amount=0)
            self._set(lease)
            self._renew_at = asked + lease.seconds / 2
            self._good_until = asked + lease.seconds
            if wish and lease.amount < before.amount + wish:
                self._ask_after = asked + _REFUSED_S
            self._news.notify_all()
        if lease.amount < before.amount:
            logger.warning(
                "This process was silent past its lease of $%.4f: what it had not paid, $%.4f, "
                "went back to the account",
                before.amount / MICRO,
                (before.amount - lease.amount) / MICRO,
            )

    def _hand_back(self) -> None:
        if not self._write() or self.lease.day == _NEVER:
            return
        with self._news:
            self._good_until = self._renew_at = -math.inf
        amount = self._account.hand_back(self.lease.day)
        with self._news:
            self._set(replace(self.lease, amount=amount))

    def _set(self, lease: Lease) -> None:
        """Let `lease` be what this process may spend; it says how much, not how much more."""
        before, self.lease = self.lease, lease
        if lease.day != before.day:
            self._ask_after = -math.inf
            self.spent()  # the day starts now, from `spent_since`
        elif lease.amount != before.amount:
            super().charge(_Credit((before.amount - lease.amount) / MICRO))

    def _write(self) -> bool:
        """Offer the rows that are not written yet; whether all are now."""
        try:
            while self._unwritten:
                self._account.record(self._unwritten[0])
                del self._unwritten[0]
        except AccountUnreachable as error:
            if self._down_since == math.inf:
                self._down_since = time.monotonic()
                logger.warning("A paid call cannot be recorded: %s; retrying", error)
            return False
        self._down_since = math.inf
        return True


class _LeasedDay(Calendar):
    """The day of the lease: the account's clock decides, not this machine's."""

    def __init__(self, spend: LeasedSpend) -> None:
        self._spend = spend

    def today(self) -> str:
        return self._spend.lease.day

    @contextmanager
    def standing_still(self) -> Iterator[str]:
        """The date, for a block that records a paid call and counts it: no lease comes between."""
        with self._spend.line:
            yield self._spend.lease.day


def _at_once() -> bool:
    """Stops an admission that would wait: a call waits for more than its `DailySpend` knows."""
    return True
