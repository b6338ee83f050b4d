"""What a request may come to, learned from the paid replies."""

import math
from types import ModuleType

import pytest
from support import Reply, Task

from korvane.engines import decision_bounds


def test_charges(m: ModuleType) -> None:
    charges = m._Charges()
    assert [charges.bound(size) for size in (0, 1, 100)] == [0.0, 0.0, 0.0]
    charges.learn(200, 0.04)
    assert charges == m._Charges(per_byte=0.04 / 200, per_call=0.04)
    assert (charges.bound(100), charges.bound(400)) == (0.04, pytest.approx(0.08))
    charges.learn(size=10, charge=0.01)
    assert charges == m._Charges(0.001, 0.04) and charges.bound(size=100) == 0.1
    charges.learn(5, 0)
    assert charges == m._Charges(0.001, 0.04)
    for size in (0, -5):
        charges = m._Charges()
        charges.learn(size, 0.5)
        assert repr(charges) == "_Charges(per_byte=0.5, per_call=0.5)"
        assert (charges.bound(0), charges.bound(3)) == (0.5, 1.5)


def test_rates(m: ModuleType) -> None:
    rates = m.RequestRates()
    assert (rates.cost(1, "a"), rates.tokens(1)) == (math.inf, math.inf)
    assert rates.learn(200, "a", Reply(True, 50, 0.04)) is None  # whether cached is not asked
    assert (rates.cost(100, "a"), rates.cost(size=400, feature="a")) == (0.04, 0.08)
    assert rates.cost(100, "b") == math.inf
    assert (rates.tokens(100), rates.tokens(size=400)) == (50, 100)
    rates.learn(100, "b", Reply(False, 10, 0.01))
    assert (rates.cost(100, "b"), rates._features) == (0.04, {"a", "b"})
    rates._features = ["c"]
    assert (rates.cost(100, "a"), rates.cost(100, "c")) == (math.inf, 0.04)


def test_reply_that_cannot_be_learned(m: ModuleType) -> None:
    rates = m.RequestRates()
    for reply, error in ((object(), AttributeError), (Reply(cost="dear"), TypeError)):
        with pytest.raises(error):
            rates.learn(1, "a", reply)
    assert (rates._features, rates._cost, rates.cost(1, "a")) == ({"a"}, m._Charges(), 0.0)
    with pytest.raises(TypeError):
        rates.learn(1, "b", Reply(input_tokens=None, cost=2.0))
    assert (rates.cost(1, "b"), rates._tokens) == (2.0, m._Charges())
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        rates.learn(1, [], Reply())
    assert Task(rates.tokens, 5).result() == 0.0, "the lock is free"


def test_reentry() -> None:
    """What would hang on a plain lock is told."""
    rates = decision_bounds.RequestRates()
    asks = [
        lambda: rates.tokens(1),
        lambda: rates.cost(1, "a"),
        lambda: rates.learn(1, "a", Reply()),
    ]

    class Nosy:
        cost = property(lambda self: self.ask())

    class Feature(str):
        def __hash__(self) -> int:
            return self.ask()

    for ask in asks:
        for call in (
            lambda feature, reply: rates.learn(1, "a", reply),
            lambda feature, reply: rates.learn(1, feature, Reply()),
            lambda feature, reply: rates.cost(1, feature),
        ):
            feature, reply = Feature("b"), Nosy()
            feature.ask = reply.ask = ask
            with pytest.raises(RuntimeError, match="RequestRates"):
                call(feature, reply)
    assert (rates.cost(1, "a"), rates.cost(1, "b"), rates._cost) == (
        0.0,
        math.inf,
        decision_bounds._Charges(),
    )


def test_learning_is_whole(m: ModuleType) -> None:
    """Another thread sees a learned reply whole or not at all, and waits for it."""
    rates, seen = m.RequestRates(), []

    class Slow:
        input_tokens = 0

        @property
        def cost(self) -> float:
            seen.append(Task(rates.cost, 1, "a"))
            seen[0].join(0.05)
            return 3.0

    rates.learn(1, "a", Slow())
    assert seen[0].result() == 3.0
