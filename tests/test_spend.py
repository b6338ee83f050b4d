"""The account of a day: its ledger, admission against the cap, settlement across midnight."""

import logging
import math
from collections.abc import Callable
from types import ModuleType
from typing import Any

import pytest
from support import Reply, lock_is_free, state

FAILED = "Could not read what the decision calls of %s cost; the daily cap counts from 0"
CAPPED = (
    "The daily decision cost cap is reached: $%.4f of $%.2f spent today (UTC); paid calls resume "
    "tomorrow, cached answers are still used"
)


class Host:
    """What the account asks of its caller, and how often."""

    def __init__(self, **ledger: Any) -> None:
        self.day, self.ledgers, self.asked = next(iter(ledger), "D"), ledger, []

    def today(self) -> str:
        self.asked.append("today")
        return self.day

    def ledger(self, day: str) -> Any:
        self.asked.append(day)
        found = self.ledgers[day]
        if isinstance(found, BaseException):
            raise found
        return found


def admit(spend: Any, bound: Any = 0.5, **asks: Any) -> Any:
    """Admitted, refused, or out of time: never a wait."""
    asks = {"deadline": 1.0, "clock": lambda: 1.0, "stopping": lambda: False} | asks
    return spend.admit(bound if callable(bound) else lambda: bound, **asks)


def warnings(caplog: pytest.LogCaptureFixture) -> list[tuple[str, object]]:
    records = [(r.msg, r.args) for r in caplog.records if r.levelno == logging.WARNING]
    caplog.clear()
    return records


def test_days(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    host = Host(D=2.0, E="2.5", F=LookupError("no ledger"), G=None, H="x", I=3, J=True)
    spend = m.DailySpend(10, host.today, host.ledger)
    assert (host.asked, state(spend)) == (
        [],
        "_held=_Held(holders=0, amount=0.0, unbounded=0) _day='' _cost=0.0 _capped=False",
    )
    share = admit(spend)
    assert (spend.spent(), host.asked) == (2.0, ["today", "D", "today"])
    for day, cost in zip("EDFGHIJ", (2.5, 2.0, 0.0, 0.0, 0.0, 3.0, 1.0), strict=True):
        host.day = day
        host.asked.clear()
        assert [repr(spend.spent()) for _ in range(3)] == [repr(cost)] * 3
        assert host.asked == ["today", day, "today", "today"]
        assert spend._held == m._Held(1, 0.5)
        failures = [(FAILED, (day,))] if day in "FGH" else []
        assert [r.exc_info is not None and r.exc_info[0] for r in caplog.records] == [
            {"F": LookupError, "G": TypeError, "H": ValueError}[day] for _ in failures
        ]
        assert warnings(caplog) == failures
    share.settle(None)
    assert spend._held == m._Held() and spend._cap == 10 and type(spend._cap) is int
    unkept = m.DailySpend(cap=1.0, today=host.today, ledger=None)
    assert (unkept.spent(), warnings(caplog)) == (0.0, [])


def test_midnight(m: ModuleType) -> None:
    host = Host(D=9.0, E=0.0)
    spend = m.DailySpend(10.0, host.today, host.ledger)
    first, second = admit(spend), admit(spend)
    with pytest.raises(m.DecisionTimeout):
        admit(spend)

    def midnight() -> float:
        host.day = "E"
        return 0.0

    third = admit(spend, clock=midnight)  # it comes while the call waits
    assert (spend._day, spend._cost, spend._held) == ("E", 0.0, m._Held(3, 1.5))
    first.settle(Reply(cost=0.7))
    assert spend.spent() == 0.7
    second.settle(None)
    host.day = "F"
    host.ledgers["F"] = 4.0
    host.asked.clear()
    third.settle(Reply(cached=True, cost=0.5))  # the first operation of the day
    assert host.asked == ["today", "F"]
    assert (spend.spent(), spend._held) == (4.5, m._Held())


def test_cap(m: ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    host = Host(D=12.5, E=0, F=11.999)
    spend = m.DailySpend(12, host.today, host.ledger)
    for day, cost in (("D", 12.5), ("E", 12), ("F", 11.999 + 1)):
        host.day = day
        while spend.spent() < 12:
            spend.charge(Reply(cached=True, cost=12 if day == "E" else 1))
        for _ in range(2):
            with pytest.raises(m.DecisionBudgetExceeded) as caught:
                admit(spend, bound=pytest.fail, stopping=pytest.fail, clock=pytest.fail)
            assert str(caught.value) == (
                f"the daily decision cost cap is reached: ${cost:.4f} of $12.00 spent today (UTC)"
            )
        assert warnings(caplog) == [(CAPPED, (cost, 12))] and spend._capped is True
    with pytest.raises(m.DecisionBudgetExceeded, match=r"\$0\.0000 of \$0\.00 "):
        admit(m.DailySpend(0, host.today, None))


def test_stop_and_deadline_are_asked_only_without_room(m: ModuleType) -> None:
    spend = m.DailySpend(10.0, lambda: "D", None)
    never_asked: dict[str, Callable[[], Any]] = {"clock": pytest.fail, "stopping": pytest.fail}
    with admit(spend, 9.0, **never_asked), admit(spend, 9.0, **never_asked):
        assert spend._held == m._Held(2, 18.0)
        with pytest.raises(m.DecisionTimeout):
            admit(spend)
        with pytest.raises(m.DecisionStopped):
            admit(spend, deadline=None, stopping=lambda: True)
        assert spend._held == m._Held(2, 18.0)
    with admit(spend, math.inf, **never_asked):
        for bound in (0.5, math.inf):
            with pytest.raises(m.DecisionTimeout):
                admit(spend, bound)
    with admit(spend, 0.0), pytest.raises(m.DecisionTimeout):
        admit(spend, math.inf)
    assert state(spend) == (
        "_held=_Held(holders=0, amount=0.0, unbounded=0) _day='D' _cost=0.0 _capped=False"
    )


def test_bound_is_asked_anew(m: ModuleType) -> None:
    spend = m.DailySpend(10.0, lambda: "D", None)
    bounds = iter([math.inf, 3.0])
    held = admit(spend, 1.0)

    def settle() -> float:
        held.settle(Reply(cost=2.0))
        return 0.0

    share = admit(spend, lambda: next(bounds), clock=settle)
    assert (share._give_back.args, spend._held, spend.spent()) == ((3.0,), m._Held(1, 3.0), 2.0)
    share.settle(None)
    assert spend._held == m._Held()


@pytest.mark.parametrize("error", [ZeroDivisionError("own"), KeyboardInterrupt("own")])
def test_errors_leave_nothing_held(m: ModuleType, error: BaseException) -> None:
    def fail(*_: object) -> Any:
        raise error

    class Broken:
        cost = property(fail)

    host = Host(D=KeyboardInterrupt("own"))
    spend = m.DailySpend(10.0, host.today, host.ledger)
    for call in (spend.spent, lambda: spend.charge(Reply()), lambda: admit(spend)):
        with pytest.raises(KeyboardInterrupt):
            call()
    assert (spend._day, spend._cost) == ("", 0.0) and lock_is_free(spend)
    host.ledgers["D"] = 1.0
    share = admit(spend, 9.5)
    before = state(spend)
    calls = [
        lambda: admit(spend, fail), lambda: admit(spend, clock=fail),
        lambda: admit(spend, stopping=fail), lambda: spend.charge(Broken()),
    ]  # fmt: skip
    for call in calls:
        with pytest.raises(type(error)) as caught:
            call()
        assert caught.value is error and state(spend) == before and lock_is_free(spend)
    for value in ("dear", None):
        with pytest.raises(TypeError):
            admit(spend, value)
        with pytest.raises(TypeError):
            spend.charge(Reply(cost=value))
    assert state(spend) == before
    share.settle(None)
    for reply, today in ((Broken(), host.today), (Reply(), fail)):
        share = admit(spend, 2.0)
        spend._today = today
        with pytest.raises(type(error)) as caught:
            share.settle(reply)
        assert caught.value is error and spend._held == m._Held() and lock_is_free(spend)
    for call in (spend.spent, lambda: spend.charge(Reply()), lambda: admit(spend)):
        with pytest.raises(type(error)):
            call()
    assert (spend._day, spend._cost, spend._held) == ("D", 1.0, m._Held())


def test_callbacks_into_the_account(m: ModuleType) -> None:
    """The lock is re-entrant: whoever is asked under it may ask back."""

    def today() -> str:
        asked.append(spend._day)
        return "D"

    def ledger(day: str) -> float:
        if len(asked) < 3:
            spend.charge(Reply(cost=0.5))  # starts the day itself, asking here again
        return 1.0

    class Nosy:
        cost = property(lambda self: admit(spend, 2.0).settle(Reply(cost=0.25)) or 4.0)

    asked: list[str] = []
    spend = m.DailySpend(10.0, today, ledger)
    assert spend.spent() == 1.0
    share = admit(spend, lambda: spend.spent() + 1.0)
    assert spend._held == m._Held(1, 2.0)
    share.settle(Nosy())
    assert spend._held == m._Held() and lock_is_free(spend)
