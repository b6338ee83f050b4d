"""Eight threads ask a stand-in for a paid endpoint until ten cents are spent."""

import collections
import functools
import time
import types
from concurrent.futures import ThreadPoolExecutor

from korvane.engines.decision_bounds import DailySpend, DecisionError, RequestRates, RunBudget

rates = RequestRates()  # learns from the replies what a request may cost
spend = DailySpend(0.10, lambda: time.strftime("%Y-%m-%d", time.gmtime()), None)  # USD a day
budget = RunBudget(max_calls=500, max_tokens=200_000)  # of one batch pass


def decide(text: str) -> str:
    size, stop = len(text.encode()), budget.stopping
    most = functools.partial(rates.cost, size, "decide")
    try:
        with (
            spend.admit(most, deadline=None, clock=time.monotonic, stopping=stop) as cost,
            budget.hold(rates.tokens(size)) as tokens,
        ):
            time.sleep(0.01)  # your paid request goes here
            reply = types.SimpleNamespace(cached=False, input_tokens=12, cost=0.003)
            cost.settle(reply)
            tokens.settle(reply)  # not reached? leaving the block gives both shares back
    except DecisionError as refusal:
        return str(refusal)
    rates.learn(size, "decide", reply)
    return "answered"


with ThreadPoolExecutor(8) as threads:
    answers = threads.map(decide, ["Which desk is this letter for?"] * 100)
    for answer, times in collections.Counter(answers).items():
        print(times, answer)
print(budget.summary())
