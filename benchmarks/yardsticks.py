"""What stands beside the module in the same rounds: the interpreter's floor and other limiters.

None of the limiters is like for like; `note` says in what way, and the report prints it.
"""

from __future__ import annotations

import gc
import operator
import threading
from dataclasses import dataclass, field
from typing import Any

import anyio
import limits
import pyrate_limiter
from cases import Reply
from limits.storage import MemoryStorage
from limits.strategies import FixedWindowRateLimiter


@dataclass(frozen=True)
class Yardstick:
    key: str
    label: str
    statement: str
    note: str
    names: dict[str, Any] = field(default_factory=dict)


def _nothing() -> None:
    return None


LOCK = "lock"
FLOOR = (
    Yardstick(
        LOCK,
        "`with threading.Lock(): pass`",
        "with threading.Lock(): pass",
        "makes, takes and gives back a lock; counts nothing",
        {"threading": threading},
    ),
    Yardstick(
        "lock-made",
        "`with lock: pass`",
        "with lock: pass",
        "the same with a lock made beforehand",
        {"lock": threading.Lock()},
    ),
    Yardstick(
        "semaphore",
        "`threading.BoundedSemaphore`, hold and release",
        "with semaphore: pass",
        "counts holders only: no amounts, no stop, no reply",
        {"semaphore": threading.BoundedSemaphore(100)},
    ),
    Yardstick(
        "call",
        "an empty builtin call",
        "empty()",
        "the least that any method of a native type costs",
        {"empty": gc.isenabled},
    ),
    Yardstick(
        "read",
        "an attribute read from native code",
        "read(reply)",
        "within one builtin call",
        {"read": operator.attrgetter("cost"), "reply": Reply()},
    ),
    Yardstick(
        "allocation",
        "a small object made and dropped",
        "make(nothing)",
        "within one builtin call",
        {"make": iter, "nothing": ()},
    ),
    Yardstick(
        "callback",
        "an empty Python function called from native code",
        "call(function)",
        "within one builtin call",
        {"call": operator.call, "function": _nothing},
    ),
)


def limiters() -> tuple[Yardstick, ...]:
    """Well-known limiters, each made to hold one call and to give it back."""

    async def capacity_limiter() -> anyio.CapacityLimiter:
        return anyio.CapacityLimiter(100)

    item = limits.parse("1000000000/day")
    storage = MemoryStorage()
    bucket = pyrate_limiter.InMemoryBucket(
        [pyrate_limiter.Rate(10**9, pyrate_limiter.Duration.DAY)]
    )
    return (
        Yardstick(
            "limits",
            "limits: `hit`, then `decr`",
            "limiter.hit(item, 'call'); storage.decr(key)",
            "counts calls in a time window; thread-safe; cannot wait; the give-back goes to its "
            "storage, and a reply changes nothing",
            {
                "limiter": FixedWindowRateLimiter(storage),
                "item": item,
                "storage": storage,
                "key": item.key_for("call"),
            },
        ),
        Yardstick(
            "pyrate-limiter",
            "pyrate-limiter: `try_acquire`, then `flush`",
            "limiter.try_acquire('call'); bucket.flush()",
            "counts calls in a sliding window; thread-safe; has no give-back of one call, so the "
            "one call held is flushed",
            {"limiter": pyrate_limiter.Limiter(bucket), "bucket": bucket},
        ),
        Yardstick(
            "anyio",
            "anyio: `CapacityLimiter`, acquire and release",
            "limiter.acquire_on_behalf_of_nowait(call); limiter.release_on_behalf_of(call)",
            "a real hold and release, but of one event loop: it takes no lock and must not be used "
            "from several threads",
            {"limiter": anyio.run(capacity_limiter), "call": object()},
        ),
    )
