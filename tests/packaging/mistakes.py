"""Three mistakes, on the lines that say so: a type checker finds these and no other."""

from korvane.engines.decision_bounds import DailySpend, RunBudget, never

budget = RunBudget(max_calls="ten", max_tokens=100)  # mistake: no number
with budget.hold(1) as share:
    share.settle(0.5)  # mistake: no reply
spend = DailySpend(1.0, lambda: "2024-05-01", None)
spend.admit(float, stopping=never)  # mistake: neither deadline nor clock
