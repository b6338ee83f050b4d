"""Eight threads ask a stand-in for a paid endpoint until ten cents are spent."""

import collections
import time
from concurrent.futures import ThreadPoolExecutor
from types import SimpleNamespace

from korvane.engines.decision_account import PaidCalls, SharedSpend
from korvane.engines.decision_bounds import DecisionError, RunBudget


def send(text: str) -> SimpleNamespace:
    time.sleep(0.01)  # your paid request goes here
    return SimpleNamespace(cached=False, input_tokens=12, cost=0.003)


def decide(text: str) -> str:
    try:
        with calls.call(len(text.encode()), "desk", budget=budget) as call:
            call.settle(send(text))
    except DecisionError as refusal:
        return str(refusal)
    return "answered"


# In memory; "sqlite:///spend.db" is a file that any number of processes share.
with SharedSpend("sqlite://", cap=0.10) as spend:  # USD a day
    calls = PaidCalls(spend, unknown_cost=0.05)  # learns what a call may cost
    budget = RunBudget(max_calls=500, max_tokens=200_000)  # of one batch pass
    with ThreadPoolExecutor(8) as threads:
        answers = threads.map(decide, ["Which desk is this letter for?"] * 100)
        for answer, times in collections.Counter(answers).items():
            print(times, answer)
    print(budget.summary())
