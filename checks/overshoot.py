"""Threads pay through both bounds and end each call in one of many ways, interrupted anywhere: no
bound is passed by more than the last admitted call, and nothing stays held."""

import functools
import logging
import math
import random
import signal
import sys
import time

from korvane.engines import decision_bounds as bounds
from support import Reply, Task, lock_is_free
from support.interrupts import Interrupt, raise_in

ADMISSIONS, THREADS = 1_000_000, 8
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
        with budget._changed, self.spend._changed:
            tally, paid = budget._held_tokens, self.spend._held
            assert budget.input_tokens + tally.amount < LIMIT + TOKENS, (budget, tally)
            assert tally.holders == budget.in_flight, (budget, tally)
            assert self.spend._cost + paid.amount < CAP + COST, (self.spend._cost, paid)
            assert tally.unbounded == 0 or tally.holders == 1, tally
            assert paid.unbounded == 0 or paid.holders == 1, paid


class Client:
    """Repeats `step` until it is told to finish, whatever interrupts it."""

    def __init__(self, wallet: Wallet, seed: int) -> None:
        self.wallet, self.chance = wallet, random.Random(seed)
        self.held: list[bounds.Share] = []
        self.admitted = self.sent = self.caught = 0
        self.ready, self.finished = -1, False

    def run(self) -> None:
        while True:
            try:
                self.ready = self.caught  # from here on the next one would be caught
                self.steps()
                return
            except Interrupt:
                self.caught += 1
            except BaseException:
                self.finished = True
                self.give_back()  # or the others would not come to an end
                raise

    def steps(self) -> None:
        # A loop of its own: the interpreter leaves a conditional jump back out of its `try`. Hence
        # no loop in a `with` either.
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
        patience = self.chance.choices([None, 0.0, 0.001], [18, 1, 1])[0]
        late = None if patience is None else time.monotonic() + patience
        stop = self.chance.random() < 0.1
        asks = {"deadline": late, "clock": time.monotonic, "stopping": lambda: stop}
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


def steer(clients: list[Client], others: list[Task]) -> None:
    """Interrupts one or the other, until there were as many admissions or one has failed."""
    chance = random.Random(0)
    while sum(client.admitted for client in clients) < ADMISSIONS:
        time.sleep(0.0005)
        number = chance.randrange(len(others))
        if not others[number].is_alive():
            break
        if clients[number].due():
            raise_in(others[number])
    for client in clients:
        client.finished = True


def check() -> str:
    logging.disable()
    sys.setswitchinterval(1e-5)
    wallet = Wallet()
    *clients, main = [Client(wallet, seed) for seed in range(THREADS)]

    def on_signal(*_: object) -> None:
        if main.due():
            raise Interrupt

    others = [Task(client.run) for client in clients]
    signal.signal(signal.SIGALRM, on_signal)
    steering = Task(steer, [*clients, main], others)
    signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
    try:
        main.run()
    finally:
        signal.setitimer(signal.ITIMER_REAL, 0)
    for task in (*others, steering):
        task.result()
    for budget in wallet.passes:
        assert (budget.in_flight, budget._held_tokens) == (0, NOTHING), budget
        assert budget.input_tokens < LIMIT + TOKENS and lock_is_free(budget), budget
    assert wallet.spend._held == NOTHING and lock_is_free(wallet.spend), wallet.spend._held
    admitted, caught = (
        sum(getattr(client, name) for client in (*clients, main)) for name in ("admitted", "caught")
    )
    return f"{admitted:,} admissions, 0 beyond the bound, {caught:,} of them interrupted"
