"""The module against its plain-Python model: any sequence of steps comes to the same on both."""

import math
from typing import Any

import pytest
from hypothesis import example, given, settings
from hypothesis import strategies as st

from support import Reply
from support.client import FIELDS, AsksBack, Learned, LetsGo, fail, live, unread
from support.strategies import PHASES, value

pytestmark = pytest.mark.timeout(900)  # to make a failing example small may take a while


def one(*values: Any) -> st.SearchStrategy[Any]:
    return st.sampled_from(values)


def mostly(*usual: Any, rarely: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    """One of the usual values, but for one time in eight."""
    return st.integers(0, 7).flatmap(lambda n: rarely if n == 7 else one(*usual))


def step(name: str, *arguments: st.SearchStrategy[Any]) -> st.SearchStrategy[Any]:
    return st.tuples(st.just(name), *arguments)


def steps(tokens: Any, used: Any, costs: Any, sizes: Any, limits: Any) -> st.SearchStrategy[Any]:
    paid = st.builds(Reply, mostly(False, rarely=st.just(0)), used, costs)
    cached = st.builds(Reply, mostly(True, rarely=st.just([1])), used, costs)
    broken = one(
        *map(unread, ("cached", "input_tokens", "cost")), AsksBack, LetsGo,
        object(), Reply(0, "many", 1.0), Reply(0, 1, "dear"), Reply(0, None, None),
    )  # fmt: skip
    replies = st.one_of(paid, paid, cached, mostly(Reply(), Reply(), AsksBack, rarely=broken))
    endings = st.one_of(st.none(), replies, replies)
    share, end = st.integers(0, 9), mostly("", rarely=one("stop", "fail", "late", "let go"))
    features, days = one("a", "b", "c"), one("1", "2", "3", "4")
    bound = st.one_of(
        costs, costs, st.builds(Learned, sizes, features), one(fail, AsksBack, LetsGo)
    )
    failures = "x", "2.5", b"", AsksBack, LetsGo, KeyboardInterrupt, fail
    assigned = [step("assign", one(*FIELDS), value)] if tokens is value else []
    return st.lists(
        st.one_of(
            step("hold", tokens, end), step("hold", tokens, end), step("reserve", tokens, end),
            step("end_call", share, endings), step("end_call", share, endings),
            step("charge", replies, tokens), step("release", tokens), step("report"),
            step("admit", bound, end), step("admit", bound, end),
            step("end_paid", share, endings), step("end_paid", share, endings),
            step("charge_day", replies), step("learn", sizes, features, replies),
            step("ask", sizes, features), step("new_pass", limits), *assigned,
            step("turn_of_the_day", days, st.none() | one(*failures)),
        ), min_size=20, max_size=60,
    )  # fmt: skip


# Most steps find a pass and a day that are alive: ends are rare, and a new pass begins.
USUAL = steps(
    tokens=mostly(1, 5.0, 12, 0.25, rarely=one(0, -1.5, math.inf)),
    used=st.integers(0, 30),
    costs=mostly(0.1, 0.25, 1, 2.5, rarely=one(0, 0.0, -0.5, math.inf)),
    sizes=st.integers(-1, 300),
    limits=st.tuples(
        mostly(8, 20, math.inf, rarely=one(0, 1)), mostly(50, 100, 1e3, rarely=one(0, 0.5))
    ),
)
ODD = steps(value, value, value, value, st.lists(value, min_size=2, max_size=7))


Steps = list[tuple[Any, ...]]
foreign = mostly(False, False, True, rarely=st.just(True))


@settings(max_examples=120, deadline=None, phases=PHASES)
@given(mostly(12, 55.5, 100.0, rarely=st.just(0)), st.booleans(), foreign, USUAL)
def test_both_sides(cap: Any, kept: bool, foreign: bool, steps: Steps) -> None:
    live(cap, kept, foreign, steps)


@settings(max_examples=150, deadline=None, phases=PHASES)
@given(value, st.booleans(), foreign, ODD)
@example(12, False, False, [
    ("new_pass", [math.inf, 1e6, 2**63 - 1, 2**63 - 1, 0, 2**63 - 1]), ("end_call", 0, Reply()),
    ("new_pass", [2**53, 2**53, 2**52 - 1, 2**52 - 1, 0, 0, 2**52 - 1]),
    *[("end_call", 0, Reply(False, 2**52 - 1, 1.0))] * 3,
    ("new_pass", [math.nan, 800]), ("end_call", 0, Reply(False, True, 1.0)),
    ("new_pass", [10**40, 10**40, 0, 2**62, 1e16]), ("reserve", 2**62, ""),
    *[("end_call", 0, Reply(False, 2**62, cost)) for cost in (1.0, 1)],
])  # fmt: skip
def test_odd_numbers(cap: Any, kept: bool, foreign: bool, steps: Steps) -> None:
    live(cap, kept, foreign, steps)
