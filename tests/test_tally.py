"""What the calls of a bound hold, where the tally is a host's, or goes while it is asked."""

from types import ModuleType

import pytest

from support import outcome, stops_to_wait


def test_tally_that_goes_while_it_is_asked(m: ModuleType) -> None:
    """It answers all the same: what is asked is kept until it has."""

    class Goes:
        def __bool__(self) -> bool:
            budget._held_tokens = m._Held()
            return False

    for full in (True, False):
        budget = m.RunBudget(9, 5, should_stop=stops_to_wait())
        budget._held_tokens = m._Held(1, 5.0 if full else 4.0, Goes())
        assert outcome(budget.reserve, 1).startswith("DecisionStopped") is full
        assert budget._held_tokens == (m._Held() if full else m._Held(1, 1.0))


def test_tally_whose_take_is_replaced_while_it_is_asked(m: ModuleType) -> None:
    """The share is taken with what is there by then."""
    taken: list[object] = []

    class Replaces:
        def __bool__(self) -> bool:
            budget._held_tokens.take = taken.append
            return False

    budget = m.RunBudget(9, 5, _held_tokens=m._Held(0, 0.0, Replaces()))
    budget.reserve(1)
    assert (taken, budget.in_flight, budget._held_tokens.holders) == ([1], 1, 0)


def test_tally_that_fails_to_take(m: ModuleType) -> None:
    """Whatever it is, and whatever it did before."""

    class Tally:
        def admits(self, *_: object) -> bool:
            return True

        def take(self, _: object) -> None:
            budget.in_flight += 1
            raise LookupError

    budget = m.RunBudget(9, 9, _held_tokens=Tally())
    with pytest.raises(LookupError):
        budget.hold(1)
    assert budget.in_flight == 1
