"""The account of a day, to the digit and to the letter, so that the module and its model, which
other tests compare with each other, cannot go astray together."""

import logging
from types import ModuleType
from typing import Any

import pytest

from support import Reply, admit, lock_is_free, state

FAILED = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
CAPPED = (
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
    "tomorrow, cached answers are still used"
)
LATE = (
    "^the decision call ran out of its deadline while the calls in flight held the rest of the "
    "daily cost cap$"
)


def test_days(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    costs: dict[str, Any] = {"day D": 9.0, "day E": "2.5", "day G": None, "day H": "x"}
    day = ["D"]
    # A day's text is another object each time.
    spend = m.DailySpend(10, lambda: f"day {day[-1]}", lambda day: costs[day])
    assert state(spend) == f"_held={m._Held()!r} _day='' _cost=0.0 _capped=False"
    first, second = admit(spend, 0.5), admit(spend, 0.5)
    with pytest.raises(m.DecisionTimeout, match=LATE):
        admit(spend, 0.5)
    with pytest.raises(m.DecisionStopped, match=r"^the pass was asked to stop$"):
        admit(spend, 0.5, stopping=lambda: [0])
    third = admit(spend, 0.5, clock=lambda: day.append("E") or -0.01)  # midnight, while it waits
    assert (spend._day, spend._cost, spend._held) == ("day E", 2.5, m._Held(3, 1.5))
    first.settle(Reply(cost=0.75))
    second.settle(None)
    assert spend.spent() == 3.25
    for unread, error in (("F", KeyError), ("G", TypeError), ("H", ValueError)):
        day.append(unread)
        caplog.clear()
        assert [spend.spent() for _ in range(2)] == [0.0, 0.0]
        (r,) = caplog.records
        assert (r.levelno, r.msg, r.args) == (logging.WARNING, FAILED, (f"day {unread}",))
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
