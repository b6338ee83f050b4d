"""A life of an isolated interpreter, with a lock of its own: the module is imported, used by two
threads and dropped."""

import _interpreters
import sys
from typing import Any

CALLS = 2000

USE = f"""
import gc, logging, sys, threading, time, weakref
logging.disable()
sys.path[:] = {sys.path!r}
from korvane.engines import decision_bounds as bounds

class Reply:
    cached, input_tokens, cost = False, 1, 0.25

budget, rates = bounds.RunBudget({2 * CALLS}, 10**9), bounds.RequestRates()
spend = bounds.DailySpend(2.0, lambda: str(spend._day), lambda day: 0.0)
room = bounds.RunBudget(10**9, 10)  # for one of the two
asks = dict(deadline=None, clock=time.monotonic, stopping=bounds.never)

def pay():
    for _ in range({CALLS}):
        with budget.hold(rates.tokens(5)) as tokens, room.hold(10):
            tokens.settle(Reply)
            rates.learn(5, "a", Reply)
        try:
            with spend.admit(lambda: 0.25, **asks) as cost:
                cost.settle(Reply)
        except bounds.DecisionBudgetExceeded:
            spend._cost = 0.0

payers = [threading.Thread(target=pay) for _ in range(2)]
for payer in payers:
    payer.start()
for payer in payers:
    payer.join()
assert budget.calls == {2 * CALLS} and budget.exhausted(), budget
assert budget._held_tokens == room._held_tokens == spend._held == bounds._Held()
"""
DROP = """
import korvane.engines
gone = weakref.ref(bounds)
budget.myself = budget.share = budget.hold
del sys.modules[bounds.__name__], korvane.engines.decision_bounds
del bounds, budget, rates, spend, room, asks, Reply, pay, payers, payer
gc.collect()
assert gone() is None
"""


def live(rounds: int) -> None:
    for _ in range(rounds):
        interpreter = _interpreters.create("isolated")
        try:
            failure: Any = _interpreters.exec(interpreter, USE + DROP)
            assert failure is None, failure.errdisplay
        finally:
            _interpreters.destroy(interpreter)
