"""Threads pay through both bounds and end each call in one of many ways: no bound is passed by more
than the last admitted call, and nothing stays held."""

import functools
import logging
import math
import random
import signal
import sys
import threading
import time
from types import FrameType

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, together
from support.interrupts import Interrupt, raise_in

ADMISSIONS, ABANDONED, THREADS = 1_000_000, 100_000, 8
TOKENS, LIMIT = 7, 100  # what a call holds of a pass, and the pass's bound
COST, CAP = 1.0, 4.0  # the same of a day: half of the threads find room; sums of 16ths are exact
NOTHING = bounds._Held()


class Wallet:
    """An account whose day turns when it is spent, and passes one after the other."""

    def __init__(self) -> None:
        self.day = 0
        self.spend = bounds.DailySpend(CAP, lambda: str(self.day), lambda day: 0.0)
        self.chance = random.Random(0)
        self.passes: list[bounds.RunBudget] = []
        self.next_pass()

    def next_pass(self) -> None:
        budget = bounds.RunBudget(10**9, LIMIT)
        if len(self.passes) % 2:
            budget.should_stop = lambda: self.chance.random() < 0.02
        self.passes.append(budget)

    def look(self, budget: bounds.RunBudget) -> None:
        with budget._changed:
            tally = budget._held_tokens
            assert budget.input_tokens + tally.amount < LIMIT + TOKENS, (budget, tally)
            assert tally.holders == budget.in_flight, (budget, tally)
            assert tally.unbounded == 0 or tally.holders == 1, tally
        with self.spend._changed:
            tally = self.spend._held
            assert self.spend._cost + tally.amount < CAP + COST, (self.spend._cost, tally)
            assert tally.unbounded == 0 or tally.holders == 1, tally


class Client(threading.Thread):
    """Repeats `step` until it is told to finish, whatever interrupts it."""

    def __init__(self, wallet: Wallet, seed: int) -> None:
        super().__init__(daemon=True)
        self.wallet, self.chance = wallet, random.Random(seed)
        self.held: list[bounds.Share] = []
        self.admitted = self.sent = self.caught = 0
        self.ready, self.finished = -1, False
        self.failure: BaseException | None = None

    def run(self) -> None:
        while True:
            try:
                self.ready = self.caught  # from here on the next one would be caught
                self.steps()
                return
            except Interrupt:
                self.caught += 1
            except BaseException as failure:
                self.failure, self.finished = failure, True

    def steps(self) -> None:
        # A loop of its own: the interpreter leaves a conditional jump back out of its `try`.
        while not self.finished:
            self.step()
        self.give_back()  # or the others would wait for it

    def due(self) -> bool:
        """Whether another interrupt can be sent: only where the last one was caught."""
        if self.ready != self.sent or self.finished:
            return False
        self.sent += 1
        return True

    def take(self, admission: object, amount: object) -> bounds.Share:
        """Holds a share that no interrupt can lose: nothing of Python's runs between the admission
        and the list, while the assignment of a call's result can be interrupted."""
        self.held.extend(map(admission, (amount,)))  # type: ignore[arg-type, call-overload]
        self.admitted += 1
        return self.held[-1]

    def give_back(self) -> None:
        while self.held:
            self.held[-1].settle(None)
            self.held.pop()

    def admission(self) -> object:
        """One of the day's, that waits as long as it must or gives up where it would wait."""
        wait = self.chance.random()
        if wait < 0.8:
            asks = {"deadline": None, "clock": time.monotonic, "stopping": bounds.never}
        elif wait < 0.9:
            late = time.monotonic() + self.chance.choice([0.0, 0.001])
            asks = {"deadline": late, "clock": time.monotonic, "stopping": bounds.never}
        else:
            asks = {"deadline": None, "clock": time.monotonic, "stopping": lambda: True}
        return functools.partial(self.wallet.spend.admit, **asks)

    def step(self) -> None:
        self.give_back()  # what an interrupt left
        budget, chance = self.wallet.passes[-1], self.chance
        unknown = chance.random() < 0.01
        try:
            cost = self.take(self.admission(), lambda: math.inf if unknown else COST)
            tokens = self.take(budget.hold, math.inf if unknown else TOKENS)
            self.wallet.look(budget)
            with cost, tokens:
                if chance.random() < 0.2:
                    time.sleep(0)  # the others come while this call is in flight
                ending = chance.random()
                if ending < 0.5:
                    reply = Reply(False, chance.randrange(TOKENS + 1), chance.randrange(17) / 16)
                    tokens.settle(reply)
                    cost.settle(reply)
                elif ending < 0.55:
                    tokens.settle(Reply(cached=True))
                elif ending < 0.65:
                    raise LookupError
        except (LookupError, bounds.DecisionStopped, bounds.DecisionTimeout):
            pass
        except bounds.DecisionBudgetExceeded:
            self.wallet.day += 1
            if budget.exhausted():
                self.wallet.next_pass()


def is_free(bound: bounds.RunBudget | bounds.DailySpend) -> bool:
    """Whether no thread has the lock of `bound`, this one included."""
    free = not bound._changed._is_owned() and bound._changed.acquire(blocking=False)
    if free:
        bound._changed.release()
    return free


def pay() -> tuple[int, int]:
    wallet = Wallet()
    main, *others = clients = [Client(wallet, seed) for seed in range(THREADS)]

    def on_signal(number: int, frame: FrameType | None) -> None:
        if main.due():
            raise Interrupt

    def steer() -> None:
        chance = random.Random(0)
        try:
            while sum(client.admitted for client in clients) < ADMISSIONS:
                time.sleep(0.0005)
                if any(client.failure for client in clients):
                    return
                client = chance.choice(others)
                if client.due():
                    raise_in(client)
        finally:
            for client in clients:
                client.finished = True

    signal.signal(signal.SIGALRM, on_signal)
    for client in others:
        client.start()
    steering = Task(steer)
    signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
    main.run()
    signal.setitimer(signal.ITIMER_REAL, 0)
    steering.result()
    for client in others:
        client.join(SOON)
    for client in clients:
        if client.failure is not None:
            raise client.failure
    assert not any(client.is_alive() for client in others), "a client hangs"
    for budget in wallet.passes:
        assert (budget.in_flight, budget._held_tokens) == (0, NOTHING), (
            budget,
            budget._held_tokens,
        )
        assert budget.input_tokens < LIMIT + TOKENS and is_free(budget), budget
    assert wallet.spend._held == NOTHING and is_free(wallet.spend), wallet.spend._held
    return sum(client.admitted for client in clients), sum(client.caught for client in clients)


def abandon() -> int:
    """Waits that end in a stop, a deadline or an error, and leave nothing behind."""
    bounds._POLL_S, poll = 1e-5, bounds._POLL_S
    budget, spend = bounds.RunBudget(10, 10), bounds.DailySpend(1.0, lambda: "D", None)
    mine = threading.local()
    share = budget.hold(10)
    budget.should_stop = lambda: next(mine.answers)
    paid = spend.admit(lambda: 1.0, deadline=None, clock=time.monotonic, stopping=bounds.never)

    def wait(number: int) -> None:
        chance = random.Random(number)
        for _ in range(ABANDONED // THREADS):
            ends = chance.choice([[False, True], [False]])  # a stop, or StopIteration
            try:
                if chance.random() < 0.5:
                    mine.answers = iter([False, *ends])
                    budget.reserve(1)
                else:
                    clock = iter([0.0, chance.choice([0.0, 2.0])]).__next__
                    spend.admit(float, deadline=1.0, clock=clock, stopping=iter(ends).__next__)
                raise AssertionError("admitted without room")
            except (StopIteration, bounds.DecisionStopped, bounds.DecisionTimeout):
                pass

    before = repr((budget, budget._held_tokens, spend._held))
    together(THREADS, wait)
    assert repr((budget, budget._held_tokens, spend._held)) == before
    for bound in (budget, spend):
        assert not len(bound._changed._waiters) and is_free(bound)
    share.settle(None)
    paid.settle(None)
    assert (budget._held_tokens, spend._held) == (NOTHING, NOTHING)
    bounds._POLL_S = poll
    return ABANDONED


def check() -> str:
    logging.disable()
    sys.setswitchinterval(1e-5)
    admitted, interrupts = pay()
    waits = abandon()
    return (
        f"{admitted:,} admissions, 0 beyond the bound, {interrupts:,} of them interrupted; "
        f"{waits:,} waits abandoned"
    )
