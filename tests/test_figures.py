"""Worked figures, to the digit and to the letter: so that the module and its model, which every
other test compares with each other, cannot go astray together."""

import logging
import math
from types import ModuleType
from typing import Any

import pytest
from support import Reply, admit, lock_is_free, state

SUMMARY = ("calls", "cache_hits", "input_tokens", "cost_usd", "max_calls", "max_tokens")
FAILED = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
CAPPED = (
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
    "tomorrow, cached answers are still used"
)
STOPPED = "^the pass was asked to stop$"
LATE = (
    "^the decision call ran out of its deadline while the calls in flight held the rest of the "
    "daily cost cap$"
)


@pytest.mark.parametrize("steps", ["s", "ssx", "esx", "xs", "bx", "ex"])
def test_share_is_given_back_once(m: ModuleType, steps: str) -> None:
    calls: list[str] = []
    share = m.Share(give_back=lambda reply: calls.append(reply or "-"))
    uses = {
        "s": lambda: share.settle(reply="r"),
        "x": lambda: share.__exit__(None, None, None),
        "b": lambda: share.__exit__(),
        "e": lambda: None if share.__enter__() is share else pytest.fail("not itself"),
    }
    assert [uses[step]() for step in steps] == [None] * len(steps)
    assert calls == ["r" if steps.lstrip("e").startswith("s") else "-"] and share._give_back is None


def test_shares_of_nothing(m: ModuleType) -> None:
    assert m.Share()._give_back is m._nothing and m.never() is False
    with pytest.raises(TypeError, match="object is not callable"):
        m.Share(0).settle(None)
    for share in (m.Share(), m.Share(None)):
        assert share.settle(Reply()) is None and share._give_back is None


def test_pass(m: ModuleType) -> None:
    def refused(budget: Any, *counts: float) -> None:
        with pytest.raises(m.DecisionBudgetExceeded) as caught:
            budget.hold(math.inf)
        text = f"decision budget exhausted: {dict(zip(SUMMARY, counts, strict=True))}"
        assert str(caught.value) == text and budget.exhausted() is True

    refused(m.RunBudget(5, 0), 0, 0, 0, 0.0, 5, 0)
    refused(m.RunBudget(10, 800, 10, 640, 0.0421, 2), 10, 2, 640, 0.0421, 10, 800)
    budget = m.RunBudget(2, 800, cost=0.1 + 0.2)
    share, other = budget.hold(tokens=120.0), budget.hold(3)
    assert budget == m.RunBudget(2, 800, cost=0.1 + 0.2, in_flight=2)
    assert budget._held_tokens == m._Held(2, 123.0)
    refused(budget, 0, 0, 0, 0.3, 2, 800)  # a slot is never waited for
    other.settle(None)
    share.settle(Reply(input_tokens=300, cost=0.002))
    with budget.hold(5.0) as share:
        share.settle(Reply(cached=True))  # counted, and not held for the rest of the pass
    assert budget == m.RunBudget(2, 800, 1, 300, 0.1 + 0.2 + 0.002, 1)
    budget.charge(result=Reply(input_tokens=500, cost=1), tokens=3.0)  # nothing was reserved
    refused(budget, 2, 1, 800, 1.302, 2, 800)
    budget.should_stop = lambda: [1]
    with pytest.raises(m.DecisionStopped, match=STOPPED):
        budget.reserve()
    assert budget._held_tokens == m._Held() and lock_is_free(budget)


def test_days(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    costs: dict[str, Any] = {"D": 9.0, "E": "2.5", "G": None, "H": "x"}
    day = ["D"]
    spend = m.DailySpend(10, lambda: day[-1], lambda day: costs[day])
    assert state(spend) == f"_held={m._Held()!r} _day='' _cost=0.0 _capped=False"
    first, second = admit(spend, 0.5), admit(spend, 0.5)
    with pytest.raises(m.DecisionTimeout, match=LATE):
        admit(spend, 0.5)
    with pytest.raises(m.DecisionStopped, match=STOPPED):
        admit(spend, 0.5, stopping=lambda: [0])
    third = admit(spend, 0.5, clock=lambda: day.append("E") or -0.01)  # midnight, while it waits
    assert (spend._day, spend._cost, spend._held) == ("E", 2.5, m._Held(3, 1.5))
    first.settle(Reply(cost=0.75))
    second.settle(None)
    assert spend.spent() == 3.25
    for unread, error in (("F", KeyError), ("G", TypeError), ("H", ValueError)):
        day.append(unread)
        caplog.clear()
        assert [spend.spent() for _ in range(2)] == [0.0, 0.0]
        (r,) = caplog.records
        assert (r.levelno, r.msg, r.args) == (logging.WARNING, FAILED, (unread,))
        assert r.exc_info[0] is error
    day.append("D")
    third.settle(Reply(cached=True, cost=0.5))  # the first operation of the day
    assert (spend.spent(), spend._held) == (9.5, m._Held())


def test_cap(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    class Free(logging.Handler):
        def emit(self, record: logging.LogRecord) -> None:
            assert lock_is_free(spend), "the warning holds the account up"

    m.logger.addHandler(handler := Free())
    days = ["D"]
    spend = m.DailySpend(12, lambda: days[-1], {"D": 12.5, "E": 0}.__getitem__)
    for day, cost, text in (("D", 12.5, "12.5000"), ("E", 12, "12.0000")):
        caplog.clear()
        days.append(day)
        while spend.spent() < 12:
            spend.charge(Reply(cached=True, cost=3))
        for _ in range(2):
            with pytest.raises(m.DecisionBudgetExceeded) as caught:
                admit(spend, pytest.fail, stopping=pytest.fail, clock=pytest.fail)
            cap = f"the daily decision cost cap is reached: ${text} of $12.00 spent today (UTC)"
            assert str(caught.value) == cap and spend._capped is True
        assert [(r.msg, r.args) for r in caplog.records] == [(CAPPED, (cost, 12))]
    m.logger.removeHandler(handler)
