"""Operations find each other, and the module's names, the way Python does; step by step."""

import functools
import re
import threading
from collections.abc import Callable
from types import ModuleType, SimpleNamespace
from typing import Any

import plain_bounds as model
import pytest

from korvane.engines import decision_bounds as bounds
from support import CLASSES, outcome, stops_to_wait, written

STEPS = {name: written(getattr(model, name), f"{name}.") for name in CLASSES}


def show(value: object) -> str:
    if isinstance(value, threading.Condition):
        return "changed"
    if callable(value):
        value = getattr(value, "func", value)  # a partial's function
        return getattr(value, "__name__", type(value).__name__)
    return repr(value)


LOCKS = {"RequestRates._lock"}  # of the model


class Log(list[str]):
    """What was called, with what, in order, and which attributes were used."""

    def __init__(self) -> None:
        super().__init__()
        self.read: set[str] = set()  # which attributes; how often does not matter
        self.set: list[str] = []
        self.then: dict[str, Callable[[], None]] = {}  # what the first call of a name does last

    def traced(self, name: str, call: Callable[..., Any], unseen: int = 0) -> Callable[..., Any]:
        # To ask a class for its annotations would give it some: it would not be as it was made.
        @functools.wraps(call, ["__name__"], [])
        def traced(*args: object, **kwargs: object) -> object:
            # Native code has no traceback to hand to an __exit__.
            seen = args[unseen:3] if name.endswith("__exit__") else args[unseen:]
            texts = [show(arg) for arg in seen] + [f"{k}={show(v)}" for k, v in kwargs.items()]
            self.append(re.sub(r" at 0x\w+", "", f"{name}({', '.join(texts)})"))
            try:
                return call(*args, **kwargs)
            finally:
                self.then.pop(name, lambda: None)()

        return traced

    def watch(self, patch: pytest.MonkeyPatch, cls: type, use: str) -> None:
        """Tells which attributes of a class's instances are asked for, or set."""

        def read(thing: object, attribute: str) -> object:
            if not attribute.startswith("__"):
                self.read.add(f"{cls.__name__}.{attribute}")
            return object.__getattribute__(thing, attribute)

        def write(thing: object, attribute: str, value: object) -> None:
            self.set.append(f"{cls.__name__}.{attribute}")
            object.__setattr__(thing, attribute, value)

        name, method = {"read": ("__getattribute__", read), "set": ("__setattr__", write)}[use]
        patch.setattr(cls, name, method)

    def method(self, cls: type, name: str) -> Callable[..., Any]:
        return self.traced(f"{cls.__name__}.{name}", getattr(cls, name), unseen=1)

    def tally(self, m: ModuleType, tally: Any) -> Any:
        """Whatever it is, it can be asked what one of the module's can."""
        tally.kept = m._Held()
        for step in STEPS["_Held"]:
            setattr(tally, step, self.traced(step, getattr(tally.kept, step)))
        return tally

    def condition(self, base: type = threading.Condition) -> Any:
        """One of a subclass: of the interpreter's condition, or of the module's own."""
        names = ("__enter__", "__exit__", "wait", "notify_all")
        methods = {
            name: self.traced(f"Condition.{name}", getattr(base, name), unseen=1) for name in names
        }
        return type("Traced", (base,), methods)()

    def reply(self, cached: bool) -> object:
        values = {"cached": cached, "input_tokens": 7, "cost": 0.25}

        def read(name: str) -> property:
            return property(lambda _: self.append(f"reply.{name}") or values[name])

        members = {name: read(name) for name in values} | {"__repr__": lambda _: "reply"}
        return type("Reply", (), members)()


def pass_of_calls(m: ModuleType, log: Log, make: Callable[..., Any]) -> None:
    budget = make("RunBudget", 4, 20)
    budget.hold(1.0).settle(None)
    budget.should_stop = log.traced("should_stop", m.never)
    budget.hold(5.0).settle(log.reply(False))
    with budget.hold(tokens=m.math.inf) as share:
        share.settle(None)
    budget.hold(2).settle(log.reply(True))
    budget.charge(log.reply(True))
    log.append(f"{budget.exhausted()} {budget.summary()} {budget!r}")
    budget.should_stop = log.traced("should_stop", stops_to_wait())
    budget._held_tokens.take(m.math.inf)
    log.append(outcome(budget.reserve))
    waits = iter([False, False, True])
    budget.should_stop = log.traced("should_stop", lambda: next(waits))
    log.append(outcome(budget.hold, 1.0))
    budget.should_stop = m.never
    budget.in_flight = 4
    log.append(outcome(budget.reserve, tokens=3.0))


def day_of_calls(m: ModuleType, log: Log, make: Callable[..., Any]) -> None:
    def admit(bound: Callable[[], float], stopping: Callable[[], bool] = m.never) -> Any:
        asks = {"clock": lambda: 0.0, "stopping": stopping}
        named = {name: log.traced(name, ask) for name, ask in asks.items()}
        return spend.admit(log.traced("bound", bound), deadline=0.05, **named)

    spend = make("DailySpend", 4.0, log.traced("today", lambda: "D"), log.traced("ledger", len))
    share = admit(lambda: 1.5)
    share.settle(log.reply(False))
    with admit(lambda: m.math.inf):
        log.append(f"{spend.spent()}")
    spend._held.take(m.math.inf)
    log.append(outcome(admit, lambda: 1.0, stops_to_wait()))
    spend._held.give_back(m.math.inf)
    log.append(f"{spend.spent()}")
    while spend.spent() < 4.0:
        spend.charge(log.reply(True))
    log += [outcome(admit, lambda: 1.0) for _ in range(2)]


def learned(m: ModuleType, log: Log, make: Callable[..., Any]) -> None:
    rates = make("RequestRates")
    log.append(repr((rates.cost(5, "a"), rates.tokens(5))))
    rates.learn(10, "a", log.reply(False))
    log.append(repr((rates.cost(5, "a"), rates.cost(5, "b"), rates.tokens(size=5))))


def trace(m: ModuleType, run: Callable[..., None], how: str) -> Log:
    """The steps of `run` where every method is replaced in one of the ways Python offers."""
    log = Log()
    with pytest.MonkeyPatch.context() as patch:
        for name, steps in STEPS.items():
            cls = getattr(m, name)
            methods = {step: log.method(cls, step) for step in steps}
            if how == "in subclasses":
                patch.setattr(m, name, type(name, (cls,), methods))
            elif how == f"in {name}":
                for step, method in methods.items():
                    patch.setattr(cls, step, method)
            elif how.startswith("where attributes are ") and name != "Share":
                log.watch(patch, cls, how.split()[-1])

        def make(name: str, *args: object, **kwargs: object) -> object:
            cls = getattr(m, name)
            if name == "RunBudget":
                kwargs["_held_tokens"] = m._Held()
            thing = cls(*args, **kwargs)

            def replace() -> None:
                for step in STEPS[name]:
                    setattr(thing, step, log.method(cls, step).__get__(thing))

            def replace_on_the_way() -> None:
                replace()
                for use in ("read", "set"):
                    log.watch(patch, cls, use)

            if how == "in the instance":
                replace()
            elif how.startswith("after "):
                log.then[how.removeprefix("after ")] = replace_on_the_way
            elif how == "in the module":
                for step in ("_wait", "Share", "DecisionStopped", "DecisionBudgetExceeded"):
                    patch.setattr(m, step, log.traced(step, getattr(m, step)))
                logger = SimpleNamespace(warning=log.traced("warning", print))
                patch.setattr(m, "logger", logger)
            elif how == "in the condition" and hasattr(thing, "_changed"):
                thing._changed = log.condition(type(thing._changed))
            elif how == "in its condition" and hasattr(thing, "_changed"):
                for step in ("wait", "notify_all"):
                    method = log.traced(f"Condition.{step}", getattr(thing._changed, step))
                    setattr(thing._changed, step, method)
            elif "tally" in how and name != "RequestRates":
                field = "_held" if name == "DailySpend" else "_held_tokens"
                tally = m._Held() if how == "in its tally" else SimpleNamespace()
                setattr(thing, field, log.tally(m, tally))
            return thing

        run(m, log, make)
    return log


WAYS = [
    "not at all", "in subclasses", "in the instance", "in the module", "in the condition",
    "in its condition", "in the tally", "in its tally",
    "where attributes are read", "where attributes are set",
]  # fmt: skip
OF_ITS_OWN = {
    pass_of_calls: ["in RunBudget", "in _Held", "in Share", "after should_stop"],
    day_of_calls: [
        *("in DailySpend", "in _Held", "in Share"),
        *("after today", "after ledger", "after bound", "after stopping", "after clock"),
    ],
    learned: ["in RequestRates", "in _Charges"],
}


@pytest.mark.parametrize(
    "run, how", [(run, how) for run, ways in OF_ITS_OWN.items() for how in WAYS + ways]
)
def test_steps(run: Callable[..., None], how: str, capsys: pytest.CaptureFixture[str]) -> None:
    ours, theirs = trace(bounds, run, how), trace(model, run, how)
    # Whether a share was settled with a cached reply may be remembered or read once more.
    assert [s for s in ours if s != "reply.cached"] == [s for s in theirs if s != "reply.cached"]
    assert ours.read == theirs.read - LOCKS
    assert sorted(ours.set) == sorted(name for name in theirs.set if name not in LOCKS)
