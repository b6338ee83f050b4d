"""A share: given back exactly once, whatever ends the call and whoever looks at it."""

import functools
import gc
import inspect
import weakref
from types import ModuleType

import pytest

from korvane.engines import decision_bounds as bounds
from support import Reply, admit, outcome
from support.client import fail


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


def test_share_whose_give_back_fails_or_asks_back(m: ModuleType) -> None:
    share = m.Share(fail)
    with pytest.raises(ZeroDivisionError) as caught, share:
        raise ValueError("the call")
    assert isinstance(caught.value.__context__, ValueError)
    share.settle(None)  # is not tried again
    calls: list[object] = []

    def settle_again(reply: object) -> None:
        share.settle(calls.append((reply, share._give_back)))

    with pytest.raises(KeyboardInterrupt), m.Share(settle_again) as share:
        raise KeyboardInterrupt
    assert calls == [(None, None)]


@pytest.mark.parametrize("settles", [0, 1])
def test_reply_that_drops_the_last_reference(m: ModuleType, settles: int) -> None:
    class Drop:
        cached = property(lambda self: owned.clear() or gc.collect(0) < 0)
        input_tokens, cost = 5, 0.5

    budget = m.RunBudget(10, 10)
    alive = weakref.ref(budget)
    owned = [budget.charge, budget.hold(1.0).settle]
    del budget
    owned.pop(settles)(Drop())
    assert alive() is None


def test_share_in_the_memory_of_another(m: ModuleType) -> None:
    budget = m.RunBudget(9, 99)
    alive = weakref.ref(budget.hold(1.0))
    share = budget.hold(1.0)
    assert alive() is None and gc.is_tracked(share)


def test_give_backs(m: ModuleType) -> None:
    budget, spend = m.RunBudget(10, 800), m.DailySpend(10.0, lambda: "D", None)
    give_back = budget.hold(5.0)._give_back
    assert (give_back.__name__, give_back.__doc__) == ("give_back", None)
    assert give_back.__qualname__ == "RunBudget.hold.<locals>.give_back"
    assert give_back.__annotations__ == {"reply": "PaidReply | None", "return": "None"}
    assert str(inspect.signature(give_back)) == "(reply: 'PaidReply | None') -> 'None'"
    assert len(give_back.__closure__) == 2
    for args, kwargs in (((), {}), ((1, 2), {}), ((), {"unknown": 1})):
        text = outcome(give_back, *args, **kwargs)
        assert text.startswith("TypeError: RunBudget.hold.<locals>.give_back() ")
    assert give_back(reply=None) is None and budget.in_flight == 0
    replaced, replies = budget.hold(5.0), []
    replaced.__dict__ = {"_give_back": replies.append}
    assert replaced.settle(7) is None and (replies, budget.in_flight) == ([7], 1)
    budget.charge = lambda *given: replies.append(given)
    assert budget.hold(5.0).settle(7) is None and (replies, budget.in_flight) == ([7, (7, 5.0)], 2)
    partial = admit(spend, 0.5)._give_back
    assert type(partial) is functools.partial and (partial.args, partial.keywords) == ((0.5,), {})
    assert partial.func == spend._give_back


def test_give_back_replaced_after_the_admission(
    m: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    """A share's give-back is the one of its admission, and its class the one at its end."""
    spend = m.DailySpend(9.0, lambda: "D", None)
    share, read = admit(spend, 1.0), admit(spend, 1.0)
    other = type("Other", (m.Share,), {})
    with admit(spend, lambda: monkeypatch.setattr(m, "Share", other) or 1.0) as made:
        assert type(made) is other
    spend._give_back = print
    share.settle(Reply(cost=0.5))
    assert (spend._held, spend._cost) == (m._Held(1, 1.0), 0.5)
    del spend._give_back
    admit(spend, 1.0)
    own = m.DailySpend._give_back
    settling = property(lambda spend: read.settle(None) or own.__get__(spend))
    monkeypatch.setattr(m.DailySpend, "_give_back", settling)
    outcome(getattr, read, "_give_back")  # it is settled, if not before, while it is looked at
    read.settle(None)
    assert spend._held == m._Held(1, 1.0)


def test_share_that_cannot_be_made(monkeypatch: pytest.MonkeyPatch) -> None:
    """Then nothing is held: nobody would give it back."""
    budget, spend = bounds.RunBudget(9, 9), bounds.DailySpend(9.0, lambda: "D", None)
    for owner, name in ((bounds, "Share"), (bounds.Share, "__init__")):
        with monkeypatch.context() as patch:
            patch.setattr(owner, name, fail)
            for hold in (budget.hold, functools.partial(admit, spend)):
                with pytest.raises(ZeroDivisionError):
                    hold(1.0)
    assert budget._held_tokens == spend._held == bounds._Held() and budget.in_flight == 0
