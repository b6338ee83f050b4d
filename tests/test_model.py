"""The module against its plain-Python model: any sequence of steps comes to the same on both."""

import math

import pytest

from support import Reply, lives
from support.client import Step, live

WHOLE = 2**52  # from here on an int is an object
EDGES: list[Step] = [
    ("new_pass", [math.inf, 1e6, 2**63 - 1, 2**63 - 1, 0, 2**63 - 1]), ("end_call", 0, Reply()),
    ("new_pass", [2 * WHOLE, 2 * WHOLE, WHOLE - 1, WHOLE - 1, 0, 0, WHOLE - 1]),
    *[("end_call", 0, Reply(False, WHOLE - 1, 1.0))] * 3,
    ("new_pass", [math.nan, 800]), ("end_call", 0, Reply(False, True, 1.0)),
    ("new_pass", [10**40, 10**40, 0, 2**62, 1e16]), ("reserve", 2**62, ""),
    *[("end_call", 0, Reply(False, 2**62, cost)) for cost in (1.0, 1)],
    *[("assign", f"rates._cost.{name}", 0.0) for name in ("per_byte", "per_call")],
    *[("record", *uses) for uses in ((2**64, 1), (0, 10**400), (10**400, 0.5))],
    ("assign", "rates._cost.per_call", 2.0 * WHOLE), ("record", 1, 2 * WHOLE + 1),
    ("assign", "rates._cost.per_byte", WHOLE // 2 + 1), ("record", 1, WHOLE // 2 - 1),
    *[("tally", *uses) for uses in ((10**400, 0, 1), (1, 2**63, 5), (1.5, 2**60, 5))],
]  # fmt: skip


def test_edges() -> None:
    live(12, False, False, EDGES)


@pytest.mark.parametrize("part", range(4))
def test_lives(part: int) -> None:
    lives.compare(range(part * 200, (part + 1) * 200))
