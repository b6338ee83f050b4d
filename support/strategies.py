"""Numbers of every kind, and calls that come to the same on the module and on its model."""

from collections.abc import Callable, Iterator
from copy import deepcopy
from typing import Any

import plain_bounds as model
from hypothesis import Phase, settings
from hypothesis import strategies as st

from korvane.engines import decision_bounds as bounds
from support import outcome
from support.client import EDGES, STRANGE

# All but the one that explains: it traces every line.
PHASES = [phase for phase in Phase if phase is not Phase.explain]
THOROUGH = settings(max_examples=400, deadline=None, phases=PHASES)
number = st.sampled_from(EDGES) | st.integers(-5, 50) | st.floats(-5, 50)
value = number | number | number | st.sampled_from(STRANGE)
Calls = Iterator[tuple[Any, ...]]


def same(calls: Callable[..., Calls], *values: Any) -> None:
    ours, theirs = (
        [outcome(call, *args) for call, *args in calls(m, *deepcopy(values))]
        for m in (bounds, model)
    )
    assert ours == theirs
