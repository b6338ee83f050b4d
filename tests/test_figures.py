"""The worked figures: what each operation comes to, to the digit and to the letter."""

import logging
import math
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from support import Reply, admit, lock_is_free, state

FAILED = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
CAPPED = (
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
    "tomorrow, cached answers are still used"
)
SUMMARY = ("calls", "cache_hits", "input_tokens", "cost_usd", "max_calls", "max_tokens")
STOPPED = r"^the pass was asked to stop$"
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
    for share in (m.Share(), m.Share(None), m.Share(0), m.Share("")):
        if share._give_back in (0, ""):
            with pytest.raises(TypeError, match="object is not callable"):
                share.settle(None)
        assert share.settle(Reply()) is None and share._give_back is None


def test_tally(m: ModuleType) -> None:
    for held, share, used, limit, admitted in (
        ([], math.inf, 0.0, 10.0, True),
        ([], 5.0, 10.0, 10.0, False),
        ([math.inf], 5.0, 0.0, math.inf, False),
        ([5.0], math.inf, 0.0, 100.0, False),
        ([5.0], -math.inf, 0.0, 100.0, False),
        ([5.0], 50.0, 0.0, 10.0, True),
        ([5.0], 1.0, 5.0, 10.0, False),
        ([5.0], 1e300, 1e300, math.inf, True),
    ):
        tally = m._Held()
        for amount in held:
            tally.take(amount)
        assert tally.admits(share=share, used=used, limit=limit) is admitted, (held, share)
    tally = m._Held()
    for _ in range(3):
        tally.take(0.1)
    assert repr(tally) == f"_Held(holders=3, amount={0.1 + 0.1 + 0.1}, unbounded=0)"
    for give_back in (0.1, 0.1, 0.1, math.inf, 3.0):
        tally.give_back(give_back)
        assert tally.holders or repr(tally) == "_Held(holders=0, amount=0.0, unbounded=0)"
    tally = m._Held(2, 5.0, 0)
    tally.give_back(math.inf)
    assert repr(tally) == "_Held(holders=1, amount=5.0, unbounded=0)"


def test_wait(m: ModuleType) -> None:
    waits: list[float] = []
    room = type("Room", (), {"wait": lambda self, timeout: waits.append(timeout)})()
    for deadline, now in ((None, 5.0), (15.0, None), (15.0, 10.0), (10.25, 10.1875)):
        m._wait(room, m.never, deadline=deadline, clock=now and (lambda now=now: now))
    assert waits == [0.1, 0.1, 0.1, 0.0625]
    with pytest.raises(m.DecisionStopped, match=STOPPED):
        m._wait(room, lambda: [0], deadline=0.0, clock=pytest.fail)
    for past in (5.0, 4.0):
        with pytest.raises(m.DecisionTimeout, match=LATE):
            m._wait(room, m.never, deadline=past, clock=lambda: 5.0)
    assert len(waits) == 4


def test_rates(m: ModuleType) -> None:
    rates = m.RequestRates()
    assert (rates.cost(1, "a"), rates.tokens(1)) == (math.inf, math.inf)
    assert rates.learn(200, "a", Reply(True, 50, 0.04)) is None  # whether cached is not asked
    assert (rates.cost(100, "a"), rates.cost(size=400, feature="a")) == (0.04, 0.08)
    assert (rates.tokens(100), rates.tokens(size=400)) == (50, 100)
    assert rates.cost(100, "b") == math.inf
    rates.learn(10, "b", Reply(False, 0, 0.01))
    assert (rates.cost(100, "a"), rates.cost(100, "b")) == (0.1, 0.1)
    assert rates._cost == m._Charges(per_byte=0.001, per_call=0.04)
    for size in (0, -5):
        charges = m._Charges()
        charges.learn(size, 0.5)
        assert [charges.bound(n) for n in (0, 1, 3)] == [0.5, 0.5, 1.5]
    rates = m.RequestRates()
    for reply, error in ((object(), AttributeError), (Reply(cost="dear"), TypeError)):
        with pytest.raises(error):
            rates.learn(1, "a", reply)
    assert (rates._features, rates._cost, rates.cost(1, "a")) == ({"a"}, m._Charges(), 0.0)


@pytest.mark.parametrize(
    "fields, counts",
    [
        ((5, 0), (0, 0, 0, 0.0, 5, 0)),
        ((1, 800, True), (True, 0, 0, 0.0, 1, 800)),
        ((10, 800, 10, 640, 0.0421, 2), (10, 2, 640, 0.0421, 10, 800)),
        ((1, 800, 0, 0, 0.000012, 0, 1), (0, 0, 0, 1.2e-05, 1, 800)),
    ],
)
def test_refusal(m: ModuleType, fields: tuple[float, ...], counts: tuple[float, ...]) -> None:
    budget = m.RunBudget(*fields)
    assert budget.exhausted() is True
    text = f"decision budget exhausted: {dict(zip(SUMMARY, counts, strict=True))}"
    for call in (budget.reserve, lambda: budget.hold(math.inf)):
        with pytest.raises(m.DecisionBudgetExceeded) as caught:
            call()
        assert str(caught.value) == text
    budget.should_stop = lambda: [1]
    assert budget.stopping() is True
    with pytest.raises(m.DecisionStopped, match=STOPPED):
        budget.reserve()
    assert budget == m.RunBudget(*fields) and lock_is_free(budget)


def test_pass(m: ModuleType) -> None:
    budget = m.RunBudget(2, 800)
    share, other = budget.hold(tokens=120.0), budget.hold(3)
    assert budget == m.RunBudget(2, 800, in_flight=2)
    assert budget._held_tokens == m._Held(2, 123.0)
    with pytest.raises(m.DecisionBudgetExceeded):  # a slot is never waited for
        budget.reserve()
    other.settle(None)
    share.settle(Reply(input_tokens=300, cost=0.002))
    assert budget == m.RunBudget(2, 800, 1, 300, 0.002) and budget._held_tokens == m._Held()
    with budget.hold(math.inf):
        assert budget._held_tokens == m._Held(1, 0.0, 1) and budget.exhausted()
    with budget.hold(5.0) as share:
        share.settle(Reply(cached=True))  # counted, and not held for the rest of the pass
    assert budget == m.RunBudget(2, 800, 1, 300, 0.002, 1) and budget._held_tokens == m._Held()
    budget.release()
    budget.charge(type("Hit", (), {"cached": [1]}), 5.0)
    budget.charge(result=Reply(input_tokens=1, cost=0.1), tokens=3.0)  # nothing was reserved
    assert budget == m.RunBudget(2, 800, 2, 301, 0.002 + 0.1, 2)
    budget.summary().clear()
    counts = zip(SUMMARY, (2, 2, 301, 0.102, 2, 800), strict=True)
    assert list(budget.summary().items()) == list(counts)


def test_rounding(m: ModuleType) -> None:
    costs = [0.1 + 0.2, 1.5e-6, 4e-7, math.inf, 3, 1e16]
    rounded = [m.RunBudget(1, 1, cost=cost).summary()["cost_usd"] for cost in costs]
    assert repr(rounded) == "[0.3, 2e-06, 0.0, inf, 3, 1e+16]"


def test_days(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    costs: dict[str, Any] = {"D": 2.0, "E": "2.5", "G": None, "H": "x", "I": True}
    asked: list[str] = []

    def ledger(day: str) -> Any:
        asked.append(day)
        return costs[day]

    spend = m.DailySpend(cap=10, today=lambda: asked.append("today") or day, ledger=ledger)
    assert asked == [] and type(spend._cap) is int
    assert state(spend) == f"_held={m._Held()!r} _day='' _cost=0.0 _capped=False"
    day = "D"
    share = admit(spend, 0.5)
    failures = {"F": KeyError, "G": TypeError, "H": ValueError}
    for day, cost in (("E", 2.5), ("D", 2.0), ("F", 0.0), ("G", 0.0), ("H", 0.0), ("I", 1.0)):
        asked.clear(), caplog.clear()
        assert [repr(spend.spent()) for _ in range(3)] == [repr(cost)] * 3
        assert asked == ["today", day, "today", "today"] and spend._held == m._Held(1, 0.5)
        assert [(r.levelno, r.msg, r.args, r.exc_info[0]) for r in caplog.records] == [
            (logging.WARNING, FAILED, (day,), failures[day]) for _ in range(day in failures)
        ]
    share.settle(None)
    assert spend._held == m._Held() and asked == ["today", "I", "today", "today"]


def test_midnight(m: ModuleType) -> None:
    day, ledger = ["D"], {"D": 9.0, "E": 0.0, "F": 4.0}
    spend = m.DailySpend(10.0, lambda: day[-1], ledger.__getitem__)
    first, second = admit(spend, 0.5), admit(spend, 0.5)
    with pytest.raises(m.DecisionTimeout, match=LATE):
        admit(spend, 0.5)
    third = admit(spend, 0.5, clock=lambda: day.append("E") or -0.01)  # midnight, while it waits
    assert (spend._day, spend._cost, spend._held) == ("E", 0.0, m._Held(3, 1.5))
    first.settle(Reply(cost=0.7))
    second.settle(None)
    assert spend.spent() == 0.7
    day.append("F")
    third.settle(Reply(cached=True, cost=0.5))  # the first operation of the day
    assert (spend.spent(), spend._held) == (4.5, m._Held())


def test_cap(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    def refused(spend: Any, spent: str) -> None:
        with pytest.raises(m.DecisionBudgetExceeded) as caught:
            admit(spend, pytest.fail, stopping=pytest.fail, clock=pytest.fail)
        assert str(caught.value) == f"the daily decision cost cap is reached: {spent} today (UTC)"
        assert spend._capped is True

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
            refused(spend, f"${text} of $12.00 spent")
        assert [(r.msg, r.args) for r in caplog.records] == [(CAPPED, (cost, 12))]
    spend = m.DailySpend(0, lambda: "D", None)
    refused(spend, "$0.0000 of $0.00 spent")
    m.logger.removeHandler(handler)


def test_stop_and_deadline_are_asked_only_without_room(m: ModuleType) -> None:
    spend = m.DailySpend(10.0, lambda: "D", None)
    never_asked: dict[str, Callable[[], Any]] = {"clock": pytest.fail, "stopping": pytest.fail}
    with admit(spend, 9.0, **never_asked), admit(spend, 9.0, **never_asked):
        assert spend._held == m._Held(2, 18.0)
        with pytest.raises(m.DecisionStopped, match=STOPPED):
            admit(spend, 0.0, deadline=None, stopping=lambda: [0])
    with admit(spend, math.inf, **never_asked), pytest.raises(m.DecisionTimeout):
        admit(spend, 0.5)
    with admit(spend, 0.0, **never_asked), pytest.raises(m.DecisionTimeout):
        admit(spend, math.inf)
    bounds, held = iter([math.inf, 3.0]), admit(spend, 1.0)
    clock = lambda: held.settle(Reply(cost=2.0)) or -0.01  # noqa: E731
    share = admit(spend, lambda: next(bounds), clock=clock)  # asked anew once there is room
    assert (share._give_back.args, spend._held, spend.spent()) == ((3.0,), m._Held(1, 3.0), 2.0)
