"""Programs that end, or fork, while threads are inside the module: each in a process of its own.

python -m support.busy KIND SEED CHILDREN
"""

import faulthandler
import functools
import math
import os
import random
import signal
import sys
import time
import warnings
from typing import Any

import support
from korvane.engines import decision_bounds as bounds
from support import Reply, Task, asleep, lock_is_free, until
from support.interrupts import interrupt

admit = functools.partial(support.admit, deadline=None, stopping=bounds.never)


def linger(answer: Any = 1.0) -> Any:
    time.sleep(0.002)
    return answer


class Slow(Reply):
    cost = property(lambda self: linger(), lambda self, _: None)


class Late:
    """Goes away with the interpreter lock free at times."""

    def __init__(self, times: int) -> None:
        self.times = times

    def __del__(self, sleep: Any = time.sleep) -> None:
        for _ in range(self.times):
            sleep(0.002)


class Crowd:
    """Bounds, and threads that wait on them, hold their locks and pay."""

    def __init__(self, chance: random.Random) -> None:
        self.chance, self.over = chance, False
        self.full, self.asked = bounds.RunBudget(100, 10), bounds.RunBudget(100, 10)
        self.asked.should_stop = lambda: False
        self.spent, self.spend = (
            bounds.DailySpend(limit, lambda: "D", None) for limit in (10.0, 1e9)
        )
        self.turning = bounds.DailySpend(10.0, lambda: "D", lambda day: linger())
        self.busy, self.rates = bounds.RunBudget(10**9, 10), bounds.RequestRates()
        self.shares = [self.full.hold(10), self.asked.hold(10), admit(self.spent, 10.0)]
        self.own, *self.untouched = (bounds.RunBudget(100, 10) for _ in range(3))
        calls = [
            (self.full.reserve, 1), (self.asked.hold, 1), (admit, self.spent, 1.0),
            (self.wait,), (self.hold,), (self.pay,), (self.turn,),
            (functools.partial(admit, stopping=lambda: linger(False)), self.spent, 1.0),
        ]  # fmt: skip
        self.tasks = [Task(*call) for call in calls * 3]

    def wait(self) -> None:
        with self.full._changed:
            self.full._changed.wait()

    def hold(self) -> None:
        while True:
            with self.full._changed, self.full._changed, self.spent._changed:
                linger()

    def pay(self) -> None:
        while True:
            with self.busy.hold(10), admit(self.spend, 0.9) as share:  # one at a time
                self.rates.learn(1, "a", Slow(False, 1))
                share.settle(Reply(False, 1, 1.0))

    def turn(self) -> None:
        while True:
            self.turning._day = ""
            self.turning.spent()

    def fork(self) -> bool:
        """Whether this is the child, which is to come to an end in time."""
        if os.fork() == 0:
            faulthandler.dump_traceback_later(60, exit=True)
            return True
        status = os.wait()[1]
        assert status == 0, f"a child ended with {status}"
        return False

    def forks(self, count: int) -> None:
        with self.own._changed, self.own._changed:
            for _ in range(count):
                time.sleep(0.01 * self.chance.random())
                if self.fork():
                    self.end_child()

    def fork_in_a_handler(self, count: int) -> None:
        """The child's only thread sleeps for room, until a thread of the handler's gives it."""
        sleeper, left, child = bounds.RunBudget(100, 10), [count], []
        bounds._POLL_S = 60.0
        held = sleeper.hold(10)

        def in_child() -> None:
            until(lambda: asleep(sleeper, 1))
            held.settle(None)

        def on_signal(*_: object) -> None:
            if self.fork():
                child.append(Task(in_child))
                return
            left[0] -= 1
            signal.setitimer(signal.ITIMER_REAL, 0.01 if left[0] else 0)
            if not left[0]:
                held.settle(None)

        signal.signal(signal.SIGALRM, on_signal)
        signal.setitimer(signal.ITIMER_REAL, 0.01)
        with self.own._changed, self.own._changed:
            sleeper.reserve(1)
            if child:
                self.end_child()

    def end_child(self) -> None:
        try:
            self.use()
        except BaseException:
            sys.excepthook(*sys.exc_info())
            os._exit(1)
        os._exit(0)

    def use(self) -> None:
        """What a child does: everything, on every object, with threads of its own."""
        assert self.own._changed._recursion_count() == 2 and not lock_is_free(self.own)
        self.own._changed.release()
        self.own._changed.release()
        # What the fork left is undone by whatever comes first: on each bound another step.
        assert lock_is_free(self.own) and asleep(self.asked, 0)
        first, second = (budget._changed for budget in self.untouched)
        assert Task(first.acquire).result() is True and first.acquire(blocking=False) is False
        with second:
            assert not second.wait(0.001)
        for budget in (self.full, self.asked, self.busy):
            budget.release(10)
            with budget.hold(1) as mine:
                mine.settle(Reply(False, 1, 1.0))
            with budget._changed:
                assert not budget._changed.wait(0.001)
        for share in self.shares:
            share.settle(None)
        for account in (self.spent, self.spend, self.turning):
            admit(account, 1.0).settle(Reply(False, 1, 1.0))
            assert account.spent() >= 1.0
        self.rates.learn(10, "b", Reply(False, 1, 1.0))
        assert self.rates.cost(10, "b") >= 1.0
        bounds._POLL_S = 60.0  # whom nobody wakes hangs
        admit_one = functools.partial(admit, self.spent)
        for bound, call in (
            (self.full, self.full.hold), (self.busy, self.busy.hold), (self.spent, admit_one)
        ):  # fmt: skip
            alone = call(math.inf)
            waiters = [Task(call, 1) for _ in range(2)]
            until(functools.partial(asleep, bound, 2))
            alone.settle(None)
            for waiter in waiters:
                waiter.result().settle(None)
        signal.signal(signal.SIGINT, signal.default_int_handler)
        self.full.hold(math.inf)
        interrupt(functools.partial(self.full.hold, 1))  # whatever thread is the main one now


def main(kind: str, seed: int, count: int) -> None:
    global crowd  # goes away as the program's own objects do
    warnings.simplefilter("ignore", DeprecationWarning)  # of forks with threads
    sys.setswitchinterval(1e-5)
    crowd = Crowd(random.Random(seed))
    match kind:
        case "exit":
            bounds._POLL_S = crowd.chance.choice([0.002, 0.1, 60.0])
            Task(bounds.Share(lambda _: Late(100)).settle, None)
            Task(bounds.RunBudget(1, 1, should_stop=functools.partial(Late, 100)).stopping)
            time.sleep(0.05 * crowd.chance.random())
            sys.late = Late(25)  # type: ignore[attr-defined]  # late in the exit
        case "main thread forks":
            crowd.forks(count)
        case "another thread forks":
            Task(crowd.forks, count).result()
        case "handler forks":
            crowd.fork_in_a_handler(count)
    assert all(task.is_alive() for task in crowd.tasks)


FORKS = ["main thread forks", "another thread forks", "handler forks"]


def run(kind: str, seed: int, children: int) -> None:
    support.run("-m", "support.busy", kind, str(seed), str(children))


if __name__ == "__main__":
    main(sys.argv[1], *map(int, sys.argv[2:]))
