"""Many threads settle one share, in every way there is: it is given back once."""

import gc
import sys
import threading
import time
from collections.abc import Callable

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, lock_is_free

THREADS, SHARES = 64, 100

type Settle = Callable[[bounds.Share], object]


def race(shares: list[bounds.Share], settle: Settle) -> int:
    """How often a settle failed."""
    start = threading.Barrier(THREADS)

    def settle_all() -> int:
        failed = 0
        for share in shares:
            start.wait(SOON)
            try:
                settle(share)
            except ZeroDivisionError:
                failed += 1
        return failed

    tasks = [Task(settle_all) for _ in range(THREADS)]
    for task in tasks:
        task.join(SOON)
    return sum(task.result() for task in tasks)


def counted(settle: Settle, counts: bool) -> None:
    """Shares of both bounds, which say themselves how often they were settled."""
    budget, spend = bounds.RunBudget(10**9, 10**9), bounds.DailySpend(1e9, lambda: "D", None)
    asks = {"deadline": None, "clock": time.monotonic, "stopping": bounds.never}
    race([budget.hold(0.5) for _ in range(SHARES)], settle)
    race([spend.admit(lambda: 0.5, **asks) for _ in range(SHARES)], settle)
    times = SHARES if counts else 0
    assert (budget.calls, budget.in_flight, budget.input_tokens) == (times, 0, 3 * times), budget
    assert spend.spent() == 0.25 * times
    assert budget._held_tokens == spend._held == bounds._Held()
    assert lock_is_free(budget) and lock_is_free(spend)


class Again:
    """A reply that settles, while it is read, the share that it settles."""

    cached = False

    def __init__(self, share: bounds.Share) -> None:
        self._share = share

    def __getattr__(self, name: str) -> float:
        self._share.settle(Reply(False, 100, 100.0))
        return {"input_tokens": 3, "cost": 0.25}[name]


class Dropped:
    """Garbage that settles a share when it is collected."""

    def __init__(self, share: bounds.Share) -> None:
        self._share, self._cycle = share, self

    def __del__(self) -> None:
        self._share.settle(None)


def drop_and_settle(share: bounds.Share) -> None:
    Dropped(share)
    if threading.get_ident() % 8 == 0:
        gc.collect(0)
    share.settle(None)


def look_and_settle(share: bounds.Share) -> None:
    give_back = share._give_back
    assert give_back is None or callable(give_back)
    share.settle(None)


def leave(share: bounds.Share) -> None:
    with share:
        pass


def check() -> str:
    sys.setswitchinterval(1e-5)
    reply = Reply(False, 3, 0.25)
    counted(lambda share: share.settle(reply), True)
    counted(lambda share: share.settle(Again(share)), True)
    for settle in (leave, look_and_settle, drop_and_settle):
        counted(settle, False)
    calls: list[object] = []
    race([bounds.Share(calls.append) for _ in range(SHARES)], drop_and_settle)
    assert calls == [None] * SHARES
    failed = race([bounds.Share(lambda _: 1 // 0) for _ in range(SHARES)], leave)
    assert failed == SHARES, failed
    return f"{THREADS} threads on each of {12 * SHARES:,} shares, settled in 7 ways: each once"
