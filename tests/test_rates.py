"""What a request may cost and use, learned from the paid replies."""

import functools
from types import ModuleType

import pytest

from korvane.engines import decision_bounds as bounds
from support import Reply, Task


def test_callbacks_into_the_rates() -> None:
    """What would hang on a plain lock is told."""
    rates = bounds.RequestRates()
    asks = ((rates.tokens,), (rates.cost, "a"), (rates.learn, "a", Reply()))
    for ask, *args in asks:
        again = functools.partial(ask, 1, *args)
        reply = type("Nosy", (), {"cost": property(lambda self, again=again: again())})()
        feature = type("Feature", (str,), {"__hash__": lambda self, again=again: again()})("b")
        calls = ((rates.cost, feature), (rates.learn, feature, Reply()), (rates.learn, "a", reply))
        for call, *args in calls:
            with pytest.raises(RuntimeError, match="RequestRates"):
                call(1, *args)
    assert (rates.cost(1, "a"), rates._features) == (0.0, {"a"})


def test_learning_is_whole(m: ModuleType) -> None:
    """Another thread sees a learned reply whole or not at all, and waits for it."""
    rates, seen = m.RequestRates(), []

    class Slow:
        input_tokens = 0

        @property
        def cost(self) -> float:
            seen.append(Task(rates.cost, 1, "a"))
            return 3.0 if seen[0].blocks() else 0.0

    rates.learn(1, "a", Slow())
    assert seen[0].result() == 3.0
