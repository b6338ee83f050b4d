"""Every allocation of every operation fails once, C++'s included: the bounds are as they were, the
locks are free and nothing leaks; nor does anything where all goes well."""

import copy
import ctypes
import functools
import gc
import logging
import math
import sys
from collections.abc import Callable
from fractions import Fraction
from pathlib import Path
from typing import Any

import support
from korvane.engines import decision_bounds as bounds
from support import Reply, state

LIBRARY = Path(bounds.__file__).parents[2] / "failing_malloc.so"
NUMBERS: list[Any] = [3, 2.5, 2**70, True, Fraction(1, 3)]
REPEATS = 20
ALL = 1 << 40

type Operation = Callable[[], object]


class Scene:
    """Both bounds with a call in flight, and rates that know one feature."""

    def __init__(self, number: Any) -> None:
        self.number = number
        self.reply = Reply(False, number, number)
        self.budget = bounds.RunBudget(100, 2**80)
        self.spend = bounds.DailySpend(2.0**80, "D".__str__, None)
        self.rates = bounds.RequestRates()
        self.rates.learn(7, "known", Reply(False, 3, 0.5))
        self.rates._features.update("abc")  # the next one makes the set grow
        self.tokens = self.budget.hold(1)
        self.cost = self.spend.admit(lambda: 1.0, **self.asks())

    def asks(self, stopping: Any = bounds.never, late: bool = False) -> dict[str, Any]:
        return {"deadline": -1.0 if late else None, "clock": float, "stopping": stopping}

    def bound(self) -> Any:
        return functools.partial(abs, self.number)

    def but(self, **changes: Any) -> "Scene":
        """With attributes of its bounds replaced: `budget_calls=3`."""
        for name, value in changes.items():
            bound, field = map(sys.intern, name.split("_", 1))
            setattr(getattr(self, bound), field, value)
        return self

    def full(self) -> "Scene":
        """Without room: whoever comes waits until it is stopped, or late."""
        self.budget._held_tokens.take(math.inf)
        self.spend._held.take(math.inf)
        return self

    def exhausted(self) -> "Scene":
        return self.but(budget_max_calls=0, spend__cap=0.0)

    def alone(self) -> "Scene":
        self.tokens.settle(None)
        self.cost.settle(None)
        return self

    def held(self) -> tuple[object, ...]:
        tallies = self.budget._held_tokens.holders, self.spend._held.holders
        owed = [share._give_back is not None for share in (self.tokens, self.cost)]
        return self.budget.in_flight, *tallies, *owed

    def state(self) -> str:
        learned = (
            f"{self.rates._cost} {self.rates._tokens} {sorted(map(str, self.rates._features))}"
        )
        return f"{state(self.budget)} {state(self.spend)} {learned}"


P = functools.partial
# Admissions and answers: without memory, as if they had not been asked.
ADMISSIONS: dict[str, Callable[[Scene], Operation]] = {
    "reserve": lambda at: P(at.budget.reserve, at.number),
    "hold": lambda at: P(at.budget.hold, at.number),
    "hold, unknown": lambda at: P(at.alone().budget.hold, math.inf),
    "hold, exhausted": lambda at: P(at.exhausted().budget.hold, at.number),
    "hold, patched": lambda at: P(at.but(budget_release=float).budget.hold, at.number),
    "hold, stopped": lambda at: P(at.but(budget_should_stop=True.__bool__).budget.hold, 1),
    "hold, waits": lambda at: P(
        at.full().but(budget_should_stop=iter([False, False, True]).__next__).budget.hold, 1
    ),
    "admit": lambda at: P(at.spend.admit, at.bound(), **at.asks()),
    "admit, unknown": lambda at: P(at.alone().spend.admit, P(float, "inf"), **at.asks()),
    "admit, spent": lambda at: P(
        at.exhausted().but(spend__capped=True).spend.admit, at.bound(), **at.asks()
    ),
    "admit, late": lambda at: P(at.full().spend.admit, at.bound(), **at.asks(late=True)),
    "admit, waits": lambda at: P(
        at.full().spend.admit, at.bound(), **at.asks(iter([False, True]).__next__)
    ),
    "spent": lambda at: at.spend.spent,
    "summary": lambda at: at.budget.summary,
    "exhausted": lambda at: at.budget.exhausted,
    "stopping": lambda at: at.budget.stopping,
    "repr": lambda at: P(repr, at.budget),
    "equality": lambda at: P(at.budget.__eq__, copy.copy(at.budget)),
    "budget": lambda at: P(bounds.RunBudget, 10, at.number, cost=at.number),
    "account": lambda at: P(bounds.DailySpend, at.number, str, None),
    "rates": lambda at: bounds.RequestRates,
    "share": lambda at: bounds.Share,
    "cost": lambda at: P(at.rates.cost, at.number, "known"),
    "tokens": lambda at: P(at.rates.tokens, at.number),
    "attribute": lambda at: P(setattr, at.budget, "note", 1),
    "give-back": lambda at: P(getattr, at.tokens, "_give_back"),
    "give-back of the day": lambda at: P(getattr, at.cost, "_give_back"),
    "getstate": lambda at: at.budget.__getstate__,
}
# What ends a call, counts a reply or begins a day: without memory a reply may be counted in part,
# as where it cannot be read, but what a call held is held still or was given back.
ENDINGS: dict[str, Callable[[Scene], Operation]] = {
    "settle": lambda at: P(at.tokens.settle, at.reply),
    "settle unpaid": lambda at: P(at.tokens.settle, None),
    "settle cached": lambda at: P(at.tokens.settle, Reply(True, 1, 1.0)),
    "settle patched": lambda at: P(at.but(budget_release=float).tokens.settle, None),
    "leave": lambda at: at.tokens.__exit__,
    "settle the day's": lambda at: P(at.cost.settle, at.reply),
    "settle the day's unpaid": lambda at: P(at.cost.settle, None),
    "settle by itself": lambda at: P(bounds.Share(at.cost._give_back).settle, at.reply),
    "release": lambda at: P(at.budget.release, 1),
    "charge": lambda at: P(at.budget.charge, at.reply, 1),
    "charge cached": lambda at: P(at.budget.charge, Reply(True)),
    "count": lambda at: P(at.spend.charge, at.reply),
    "first of a day": lambda at: at.but(spend__day="", spend__ledger="".count).spend.spent,
    "ledger fails": lambda at: at.but(spend__day="", spend__ledger=float).spend.spent,
    "refusal": lambda at: P(at.exhausted().spend.admit, at.bound(), **at.asks()),
    "learn": lambda at: P(at.rates.learn, 7, "new", at.reply),
}
OPERATIONS = ADMISSIONS | ENDINGS


def drained() -> list[object]:
    """What the interpreter, and the module, keep of freed objects for the next ones, in use."""
    budget = bounds.RunBudget(1000, 10)
    return [
        [budget.hold(0) for _ in range(80)],
        [float(number) for number in range(100)],
        [({}, []) for _ in range(80)],
        [tuple(range(size)) for size in range(1, 7) for _ in range(20)],
    ]


def attempt(operation: Operation) -> str:
    try:
        operation()
    except BaseException as error:
        return type(error).__name__
    return "done"


class Memory:
    """What the preloaded library offers."""

    def __init__(self) -> None:
        library = ctypes.PyDLL(str(LIBRARY))
        self.call = library.call_without_memory
        self.call.restype = ctypes.py_object
        self.call.argtypes = [ctypes.py_object, ctypes.c_long, ctypes.c_long]
        self.live, self.any_failed = library.live_blocks, library.any_failed


def starve(memory: Memory, name: str, number: Any) -> int:
    """Each allocation of an operation, alone and with all that come after it, fails once."""
    ended, failed = Scene(number), 0
    usual = attempt(OPERATIONS[name](ended))
    for count in (1, ALL):
        for first in range(1, 1000):
            scene = Scene(number)
            operation = OPERATIONS[name](scene)
            before, held, kept = scene.state(), scene.held(), drained()
            came_to = attempt(P(memory.call, operation, first, count))
            if not memory.any_failed():
                break
            del kept
            failed += 1
            now = scene.state()
            story = f"{name} {number}, {count} from {first}: {came_to}\n    {before}\n    {now}"
            assert came_to in (usual, "MemoryError"), story
            if came_to != "MemoryError":
                assert now == ended.state(), story
            elif name in ADMISSIONS:
                assert now == before, story
            assert scene.held() in (held, ended.held()), f"{story} {held} {scene.held()}"
            owned = [bound._changed._is_owned() for bound in (scene.budget, scene.spend)]
            assert owned == [False, False], story
    return failed


def references() -> int:
    return sum(map(sys.getrefcount, gc.get_objects()))


def leaks(memory: Memory, work: Callable[[], object]) -> None:
    """Done again and again, it leaves no block and no reference behind."""
    for _ in range(4):  # the first ones fill what is kept for the next
        gc.collect()
        before = memory.live(), references()
        work()
        gc.collect()
        left = memory.live() - before[0], references() - before[1]
        if left == (0, 0):
            return
    raise AssertionError(f"{left} blocks and references are left")


def main(texts: list[str]) -> int:
    logging.disable()
    bounds._POLL_S = 0.0
    numbers = [NUMBERS[int(text)] for text in texts]
    memory, failed, problems = Memory(), 0, 0

    def starve_all(name: str) -> int:
        return sum(starve(memory, name, number) for number in numbers)

    def repeat(name: str) -> None:
        for number in numbers * REPEATS:
            attempt(OPERATIONS[name](Scene(number)))

    for name in OPERATIONS:
        try:
            failed += starve_all(name)
            leaks(memory, P(starve_all, name))
            leaks(memory, P(repeat, name))
        except AssertionError as error:
            problems += 1
            print(f"{name}: {error}", file=sys.stderr)
    print(f"{failed:,} allocations of {len(OPERATIONS)} operations failed once; 0 blocks are left")
    return 1 if problems else 0


def run(*numbers: int) -> str:
    """What a process comes to in which the library is preloaded; which of the numbers it uses."""
    arguments = "-m", "support.memory", *map(str, numbers)
    return support.run(*arguments, LD_PRELOAD=str(LIBRARY), PYTHONMALLOC="malloc").strip()


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
