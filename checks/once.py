"""Many threads settle one share, in every way there is: it is given back once."""

import contextlib
import gc
import sys
import threading
from collections.abc import Callable

from korvane.engines import decision_bounds as bounds
from support import SOON, Reply, Task, admit, lock_is_free

THREADS, SHARES = 64, 100
REPLY = Reply(False, 3, 0.25)

type Settle = Callable[[bounds.Share], object]


def race(shares: list[bounds.Share], settle: Settle) -> None:
    start = threading.Barrier(THREADS)

    def settle_all() -> None:
        for share in shares:
            start.wait(SOON)
            with contextlib.suppress(ZeroDivisionError):
                settle(share)

    tasks = [Task(settle_all) for _ in range(THREADS)]
    for task in tasks:
        task.result()


class Again:
    """A reply that settles, while it is read, the share that it settles."""

    cached = False

    def __init__(self, share: bounds.Share) -> None:
        self._share = share

    def __getattr__(self, name: str) -> float:
        self._share.settle(Reply(False, 100, 100.0))
        return getattr(REPLY, name)


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


# Each with the replies that it counts of a share.
WAYS: list[tuple[Settle, int]] = [
    (lambda share: share.settle(REPLY), 1), (lambda share: share.settle(Again(share)), 1),
    (leave, 0), (look_and_settle, 0), (drop_and_settle, 0),
]  # fmt: skip


def check() -> str:
    sys.setswitchinterval(1e-5)
    for settle, counts in WAYS:
        budget, spend = bounds.RunBudget(10**9, 10**9), bounds.DailySpend(1e9, lambda: "D", None)
        race([budget.hold(0.5) for _ in range(SHARES)], settle)
        race([admit(spend, 0.5) for _ in range(SHARES)], settle)
        times = SHARES * counts
        assert (budget.calls, budget.in_flight, budget.input_tokens) == (times, 0, 3 * times)
        assert spend.spent() == 0.25 * times
        assert budget._held_tokens == spend._held == bounds._Held()
        assert lock_is_free(budget) and lock_is_free(spend)
    calls: list[object] = []
    race([bounds.Share(calls.append) for _ in range(SHARES)], drop_and_settle)
    race([bounds.Share(lambda _: calls.append(None) or 1 / 0) for _ in range(SHARES)], leave)
    assert calls == [None] * (2 * SHARES)
    return f"{THREADS} threads on each of {12 * SHARES:,} shares, settled in 7 ways: each once"
