"""Threads pay while others look at the same objects, patch them, replace their dicts and collect
garbage: nothing crashes, and every payment is counted. Meant for interpreters without a global lock
above all, where every line of this runs at once with every other."""

import gc
import sys
import time
from collections.abc import Callable

from korvane.engines import decision_bounds as bounds
from support import Reply, Task, admit

PAYMENTS, PAYERS = 100_000, 3


class Stage:
    def __init__(self) -> None:
        self.budget = bounds.RunBudget(10**9, 10**12)
        self.room = bounds.RunBudget(10**9, 10)  # for one payer at a time
        self.spend = bounds.DailySpend(1e9, "D".__str__, None)
        self.rates = bounds.RequestRates()
        self.shares: list[bounds.Share] = []
        self.over = False

    def pay(self) -> None:
        reply = Reply(False, 1, 0.25)
        for _ in range(PAYMENTS):
            with self.room.hold(10), self.budget.hold(self.rates.tokens(1)) as tokens:
                tokens.settle(reply)
            with admit(self.spend, 0.5) as cost:
                self.shares[:] = [cost]
                cost.settle(reply)
            self.rates.learn(1, "a", reply)

    def settle_and_look(self) -> None:
        """The getter of a give-back, and a settle, of whatever is being settled."""
        for share in self.shares[:]:
            give_back = share._give_back
            assert give_back is None or callable(give_back)
            with share:
                pass

    def look(self) -> None:
        repr((self.budget, self.room.summary(), vars(self.spend), self.rates.cost(1, "a")))
        assert self.budget._held_tokens.holders <= PAYERS
        assert self.room.in_flight <= 1 and not self.room.exhausted()

    def assign(self) -> None:
        for limit in (10**9, 2**70, 1e9):  # a number in place, and one that is an object
            self.budget.max_calls = self.room.max_calls = limit
        self.budget.should_stop = lambda: False
        self.budget.should_stop = bounds.never

    def patch(self) -> None:
        self.budget.note = self.room.note = self.spend.note = 1
        self.budget.release = bounds.RunBudget.release.__get__(self.budget)
        del self.budget.release, self.room.note
        if sys._is_gil_enabled():  # else this crashes in a class of Python's as well
            for bound in (self.budget, self.room, self.spend):
                bound.__dict__ = {"note": bound}

    def patch_classes(self) -> None:
        for kind in (bounds.RunBudget, bounds.DailySpend, bounds.Share, bounds._Held):
            kind.note = 1
            del kind.note
        settle = bounds.Share.settle
        bounds.Share.settle = lambda share, reply: settle(share, reply)
        bounds.Share.settle = settle

    def wait(self) -> None:
        for bound in (self.room, self.spend):
            with bound._changed:
                bound._changed.wait(1e-6)
                bound._changed.notify_all()

    def collect(self) -> None:
        gc.collect(0)
        time.sleep(0.0001)

    def disturb(self, how: Callable[[], None]) -> int:
        times = 0
        while not self.over:
            how()
            times += 1
        return times


def check() -> str:
    stage = Stage()
    sys.setswitchinterval(1e-5)
    others = [Task(stage.disturb, how) for how in (
        stage.settle_and_look, stage.look, stage.assign, stage.patch, stage.patch_classes,
        stage.wait, stage.collect,
    )]  # fmt: skip
    payers = [Task(stage.pay) for _ in range(PAYERS)]
    for payer in payers:
        payer.join()
    stage.over = True
    for payer in payers:
        payer.result()
    assert stage.budget.calls == PAYMENTS * PAYERS, stage.budget
    for tally in (stage.budget._held_tokens, stage.room._held_tokens, stage.spend._held):
        assert tally == bounds._Held(), tally
    times = sum(other.result() for other in others)
    return f"{times:,} looks and patches between {PAYMENTS * PAYERS:,} payments"
