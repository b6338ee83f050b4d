"""What stands beside the module in the same rounds: the interpreter's floor and other limiters.

None of the limiters is like for like: the report says in what way.
"""

from __future__ import annotations

import gc
import operator
import threading
from typing import Any, NamedTuple

import anyio
import limits
import pyrate_limiter
from cases import Reply
from limits.storage import MemoryStorage
from limits.strategies import FixedWindowRateLimiter


class Yardstick(NamedTuple):
    key: str
    label: str
    statement: str
    names: dict[str, Any]


def _nothing() -> None:
    return None


LOCK = "with threading.Lock(): pass"
FLOOR = (
    Yardstick("lock", "`with threading.Lock(): pass`", LOCK, {"threading": threading}),
    Yardstick(
        "semaphore",
        "`threading.BoundedSemaphore`, hold and release: counts holders only",
        "with semaphore: pass",
        {"semaphore": threading.BoundedSemaphore(100)},
    ),
    Yardstick("call", "an empty builtin call", "empty()", {"empty": gc.isenabled}),
    Yardstick(
        "read",
        "an attribute read within a builtin call",
        "read(reply)",
        {"read": operator.attrgetter("cost"), "reply": Reply()},
    ),
    Yardstick(
        "object", "an object made within one", "make(nothing)", {"make": iter, "nothing": ()}
    ),
    Yardstick(
        "callback",
        "an empty Python function called within one",
        "call(function)",
        {"call": operator.call, "function": _nothing},
    ),
)


def limiters() -> tuple[Yardstick, ...]:
    """Well-known limiters, each made to hold one call and to give it back."""

    async def capacity_limiter() -> anyio.CapacityLimiter:
        return anyio.CapacityLimiter(100)

    item, storage = limits.parse("1000000000/day"), MemoryStorage()
    fixed = FixedWindowRateLimiter(storage)
    day = pyrate_limiter.Rate(10**9, pyrate_limiter.Duration.DAY)
    bucket = pyrate_limiter.InMemoryBucket([day])
    return (
        Yardstick(
            "limits",
            "limits, `hit` and `decr`: counts calls in a window of time; cannot wait; its storage "
            "takes the give-back",
            "limiter.hit(item, 'call'); storage.decr(key)",
            {"limiter": fixed, "item": item, "storage": storage, "key": item.key_for("call")},
        ),
        Yardstick(
            "pyrate-limiter",
            "pyrate-limiter, `try_acquire` and `flush`: counts calls in a sliding window; has no "
            "give-back of one call, so the one held is flushed",
            "limiter.try_acquire('call'); bucket.flush()",
            {"limiter": pyrate_limiter.Limiter(bucket), "bucket": bucket},
        ),
        Yardstick(
            "anyio",
            "anyio, `CapacityLimiter`: a real hold and release, of one event loop, without a lock",
            "limiter.acquire_on_behalf_of_nowait(call); limiter.release_on_behalf_of(call)",
            {"limiter": anyio.run(capacity_limiter), "call": object()},
        ),
    )
