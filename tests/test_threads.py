"""Many threads on one bound: none sleeps when there is room, none is asked for twice."""

import functools

import support
from korvane.engines import decision_bounds as bounds
from support import Reply, Task

admit = functools.partial(support.admit, deadline=None)


def test_blocked_on_the_lock() -> None:
    """Whoever waits for the lock lets the others run: the one that holds it among them."""
    budget, spend = bounds.RunBudget(10, 10), bounds.DailySpend(10.0, lambda: "D", None)
    budget_share, spend_share = budget.hold(1), admit(spend, 1.0)
    ask = functools.partial(spend.admit, float, deadline=None, clock=float, stopping=bounds.never)
    with budget._changed, spend._changed:
        tasks = [Task(call) for call in (
            budget.summary, budget.exhausted, budget.release, budget.reserve, spend.spent, ask,
            functools.partial(budget.hold, 1),
            functools.partial(spend.charge, Reply(cost=1)),
            functools.partial(budget_share.settle, Reply()),
            functools.partial(spend_share.settle, Reply(cost=2)),
        )]  # fmt: skip
        assert all(task.blocks() for task in tasks)
    for task in tasks:
        task.result()
    assert (budget.calls, spend.spent(), spend._held.holders) == (1, 3.0, 1)
