"""What a request may cost and use, learned from the paid replies."""

import functools

import pytest

from korvane.engines import decision_bounds as bounds
from support import Reply


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
