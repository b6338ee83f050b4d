"""A program that uses all that the module offers: type checkers read it, and it runs."""

import threading
import time
from collections.abc import Callable
from dataclasses import dataclass, replace
from functools import partial
from typing import Any, assert_type

from korvane.engines.decision_account import Figures, PaidCalls, SharedSpend
from korvane.engines.decision_bounds import (
    DailySpend,
    DecisionBudgetExceeded,
    DecisionError,
    DecisionStopped,
    DecisionTimeout,
    DecisionUnavailable,
    PaidReply,
    RequestRates,
    RunBudget,
    Share,
    never,
)


@dataclass(frozen=True)
class Reply:
    cached: bool = False
    input_tokens: int = 10
    cost: float = 0.5


class Pass(RunBudget):
    """A budget of the host's own."""

    def left(self) -> int:
        return self.max_calls - self.calls - self.in_flight


def refusal(call: Callable[[], object]) -> type[DecisionError]:
    try:
        call()
    except (DecisionBudgetExceeded, DecisionStopped, DecisionTimeout) as error:
        return type(error)
    return DecisionUnavailable


reply: PaidReply = Reply()
stop = threading.Event()
rates = RequestRates()
budget = Pass(4, max_tokens=100, should_stop=stop.is_set)
spend = DailySpend(1.0, lambda: "2024-05-01", ledger=lambda day: 0.125)
admit = partial(spend.admit, clock=time.monotonic, stopping=budget.stopping)

with admit(partial(rates.cost, 5, "tag"), deadline=None) as cost, budget.hold(1.5) as tokens:
    assert_type(tokens, Share)
    late = refusal(partial(admit, float, deadline=0.0))
    cost.settle(reply)
    tokens.settle(reply)
rates.learn(5, "tag", reply)
budget.reserve(rates.tokens(5))
budget.charge(reply, rates.tokens(5))
budget.reserve()
budget.release()
budget.charge(Reply(cached=True))
spend.charge(reply)
full = refusal(partial(admit, float, deadline=None))
stop.set()
stopped = refusal(partial(budget.hold, tokens=1))
Share(give_back=lambda reply: None).settle(None)

assert_type(budget.summary(), dict[str, Any])
assert_type(replace(budget, cost=0), Pass)
assert (late, full, stopped) == (DecisionTimeout, DecisionBudgetExceeded, DecisionStopped)
assert (budget.left(), budget.cache_hits, budget.input_tokens, budget.cost) == (2, 1, 20, 1.0)
assert not budget.exhausted() and budget.max_tokens == 100 and not never()
assert_type(spend.spent() + rates.cost(5, "tag"), float)
assert (spend.spent(), rates.cost(5, "tag")) == (1.125, 0.5)

with SharedSpend("sqlite://", 1.0, name="host", patience=60.0) as shared:
    daily: DailySpend = shared
    calls = PaidCalls(shared, unknown_cost=0.01)
    with calls.call(5, "tag", budget=RunBudget(1, 9), unpaid=(ConnectionError,)) as call:
        call.settle(reply)
    assert_type(shared.figures(), Figures)
    assert (daily.spent(), calls.rates.cost(5, "tag")) == (0.5, 0.5)
