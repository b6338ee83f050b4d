"""What the interpreter sees: the module's names, texts, signatures and ordinary Python manners."""

import ast
import copy
import dataclasses
import functools
import gc
import importlib.util
import inspect
import operator
import pickle
import re
import sys
import traceback
import types
import typing
import weakref
from collections.abc import Callable
from decimal import Decimal
from pathlib import Path
from unittest import mock

import plain_bounds as model
import pytest

from korvane.engines import decision_bounds as bounds
from support import CLASSES, Money, Reply, Task, admit, outcome, written
from support.client import fail

NAMES = [name for name in vars(model) if not name.startswith("__")]
RECORDS = ["_Held", "_Charges", "RunBudget"]
FILE = "korvane/engines/decision_bounds.pyi"  # where a traceback finds its lines
STUB = ast.parse(Path(__file__).parents[1].joinpath(FILE).read_text())
FUNCTIONS = written(model) + [
    f"{name}.{method}" for name in CLASSES for method in written(vars(model)[name], f"{name}.")
]


def find(module: types.ModuleType, path: str) -> typing.Any:
    return functools.reduce(lambda owner, name: vars(owner)[name], path.split("."), module)


def plain(text: object) -> str:
    """A text without what differs between any two modules: addresses and the module's name."""
    return re.sub(r" at 0x\w+", "", str(text)).replace("plain_bounds", bounds.__name__)


def shown(function: typing.Any) -> list[str]:
    """All that a function shows of itself, but for its text and its code."""
    parts = operator.attrgetter(
        "__class__", "__name__", "__qualname__", "__module__", "__annotations__", "__kwdefaults__",
        "__defaults__", "__type_params__",
    )  # fmt: skip
    signature, hints = inspect.signature(function), typing.get_type_hints(function)
    return [plain(part) for part in (*parts(function), signature, hints)]


def make(module: typing.Any, name: str) -> typing.Any:
    arguments = {"RunBudget": (10, 800), "DailySpend": (10.0, lambda: "2031-05-01", None)}
    return getattr(module, name)(*arguments.get(name, ()))


def test_module() -> None:
    assert bounds.__name__ == "korvane.engines.decision_bounds"
    assert [name for name in vars(bounds) if not name.startswith("__")] == NAMES
    assert not hasattr(bounds, "__all__")
    for name in NAMES[:10]:  # what it imports
        assert getattr(bounds, name) is getattr(model, name)
    assert bounds.__builtins__ is model.__builtins__
    assert bounds.logger.name == bounds.__name__
    assert (bounds._POLL_S, type(bounds._POLL_S)) == (0.1, float)
    for package in ("korvane", "korvane.engines"):
        spec = importlib.util.find_spec(package)
        assert spec is not None and spec.origin is None, "the package is the host's to define"
    assert Path(bounds.__spec__.origin or "").parent.name == "engines"


def documented(node: typing.Any, ours: typing.Any, theirs: typing.Any) -> None:
    own = ast.get_docstring(node, clean=False)
    assert ours.__doc__ == (own or theirs.__doc__), node
    for member in getattr(node, "body", ()):
        if isinstance(member, ast.FunctionDef | ast.ClassDef):
            documented(member, vars(ours)[member.name], vars(theirs)[member.name])


def test_documentation() -> None:
    """As the stub has it, to the letter and the blank; what has no text there has none."""
    documented(STUB, bounds, model)


def test_errors_and_protocol() -> None:
    def shows(module: typing.Any) -> list[object]:
        found: list[object] = []
        for error in (getattr(module, name) for name in NAMES if name.startswith("Decision")):
            made = pickle.loads(pickle.dumps(error("why")))
            found += [error.__bases__, error.__module__, error.__qualname__, type(made), made]
            found.append(error.__init__ is RuntimeError.__init__)
        protocol = module.PaidReply
        members = [v for v in vars(protocol).values() if isinstance(v, property)]
        found += [(*shown(v.fget), v.fget(None), v.fset) for v in members]
        found += [outcome(protocol), outcome(isinstance, Reply(), protocol), protocol.__bases__]
        found.append(sorted(typing.get_protocol_members(protocol)))
        return [plain(each) for each in found]

    assert shows(bounds) == shows(model)


@pytest.mark.parametrize("path", FUNCTIONS)
def test_function(path: str) -> None:
    """Python's own in all that can be asked of it, and in its words for wrong arguments, whether
    the function or a bound method is called."""
    ours, theirs = find(bounds, path), find(model, path)
    assert shown(ours) == shown(theirs) and ours.__annotations__ == theirs.__annotations__
    assert ours.__code__.co_filename == FILE
    assert ours.__globals__ is vars(bounds) and ours.__builtins__ is theirs.__builtins__
    parameters = list(inspect.signature(theirs).parameters.values())
    names = [p.name for p in parameters if p.kind is p.POSITIONAL_OR_KEYWORD]
    owner, _, method = path.rpartition(".")

    def calls(module: types.ModuleType) -> list[str]:
        values = [make(module, owner) if name == "self" else None for name in names]
        targets = [find(module, path)]
        if owner:
            targets.append(getattr(make(module, owner), method))
        attempts = [
            ((*values, *values, None, None), {}),
            ((), {}),
            (values[:1], {}),
            ((), dict(zip(names[1:], values[1:], strict=True))),
            (values, {"unknown": 1}),
            (values, {names[-1] if names else "unknown": 1}),
            ((), {"unknown": 1, "_": 2}),
            ((), {"deadline": 1}),
        ]
        return [outcome(target, *a, **kwargs) for target in targets for a, kwargs in attempts]

    assert calls(bounds) == calls(model)


@pytest.mark.parametrize("name", CLASSES)
def test_class(name: str) -> None:
    ours, theirs = getattr(bounds, name), getattr(model, name)
    assert (ours.__module__, ours.__qualname__) == (bounds.__name__, name)
    assert ours.__bases__ == (object,)
    declared = written(theirs, f"{name}.")
    assert [member for member in vars(ours) if member in declared] == declared
    assert plain(inspect.signature(ours)) == plain(inspect.signature(theirs))
    assert plain(typing.get_type_hints(ours)) == plain(typing.get_type_hints(theirs))
    assert outcome(ours, *[1] * 12) == outcome(theirs, *[1] * 12)
    assert outcome(ours, unknown=1) == outcome(theirs, unknown=1)
    for cls in (ours, type("Sub", (ours,), {})):
        thing = make(types.SimpleNamespace(**{name: cls}), name)
        thing.anything = 1
        assert type(thing) is cls and vars(thing)["anything"] == 1
        assert copy.copy(thing).anything == 1
        alive = weakref.ref(thing)
        assert alive() is thing
        del thing.anything
        assert not hasattr(thing, "anything")
        del thing
        assert alive() is None
    spec = mock.create_autospec(ours, instance=True)
    for method in declared:
        if not method.startswith("__"):
            assert outcome(getattr(spec, method), unknown=1).startswith("TypeError")


@pytest.mark.parametrize("name", RECORDS)
def test_record(name: str) -> None:
    """What the decorator makes: its attributes, what its methods show, and their use."""
    ours, theirs = getattr(bounds, name), getattr(model, name)
    names = theirs.__match_args__
    assert plain(dataclasses.fields(ours)) == plain(dataclasses.fields(theirs))
    assert repr(ours.__dataclass_params__) == repr(theirs.__dataclass_params__)
    assert ours.__match_args__ == names and ours.__annotations__ == theirs.__annotations__
    assert ours.__hash__ is None and ours.__replace__ is theirs.__replace__
    # The last is what a copy leaves in a class.
    assert {*vars(theirs)} - {*vars(ours)} <= {"__dict__", "__weakref__", "__slotnames__"}
    for method in ("__init__", "__eq__", "__repr__"):
        assert shown(getattr(ours, method)) == shown(getattr(theirs, method))

    def uses(cls: typing.Any) -> list[str]:
        log: list[object] = [getattr(cls, field, None) for field in names]
        values = range(1, 1 + sum(field.compare for field in dataclasses.fields(cls)))
        thing, other, sub = cls(*values), cls(*values), type("Sub", (cls,), {})
        log += [thing, thing == other, thing.__eq__(7), thing == sub(*values), sub(*values)]
        odd = cls(*[Decimal("NaN")] * len(values))  # which is not equal to itself
        log += [operator.eq(odd, odd), odd == copy.copy(odd)]
        given = [cls(*[value] * len(names)) for value in (mock.ANY, None)]
        log += [getattr(made, field) for made in given for field in names]
        order: list[str] = []
        type("Sub", (cls,), {"__setattr__": lambda _, name, value: order.append(name)})(*values)
        log.append(order)
        more = dataclasses.make_dataclass("More", [("more", int, 7)], bases=(cls,))
        log += [more(*values), inspect.signature(more), outcome(copy.replace, thing, no=1)]
        log += [outcome(cls, *values, **{names[0]: 1}), outcome(cls, **{names[1]: 1})]
        for field in names:
            other = copy.replace(thing, **{field: 77})
            log += [getattr(other, field), thing == other]
            setattr(other, field, getattr(thing, field))
            log.append(thing == other)
            delattr(other, field)
            log += [outcome(repr, other), outcome(lambda o=other: o == thing)]
        named = {field: getattr(thing, field) for field in names} | {names[0]: 55, "added": 5}
        other.__dict__ = named
        log += [other, other.added, {*vars(other)} - {*names}, len(named) - len(names)]
        shallow = copy.copy(thing)
        log += [getattr(shallow, field) is getattr(thing, field) for field in names]
        for way in (copy.deepcopy, dataclasses.asdict, lambda t: pickle.loads(pickle.dumps(t))):
            log.append(outcome(way, thing).partition("cannot")[0])  # no lock can be copied
        thing.__init__(*[thing] * len(names))
        return [plain(result) for result in [*log, thing]]

    assert uses(ours) == uses(theirs)


def test_errors_tell_where(m: types.ModuleType, caplog: pytest.LogCaptureFixture) -> None:
    """The function that was called stands in the traceback, before what it called itself."""

    def told(call: Callable[[], object]) -> list[str]:
        with pytest.raises((m.DecisionError, ZeroDivisionError)) as caught:
            try:
                raise ValueError
            except ValueError:
                call()
        assert isinstance(caught.value.__context__, ValueError)
        return [entry.name for entry in caught.traceback if entry.name != "<lambda>"][1:]

    unread = type("Unread", (), {"cached": property(fail)})()
    full, stops = m.RunBudget(0, 0), m.RunBudget(1, 1, should_stop=fail)
    assert told(lambda: full.hold(1.0))[0] == "hold"
    assert told(full.reserve)[0] == "reserve"  # by its default
    for call, name in ((stops.reserve, "reserve"), (lambda: m.Share(fail).__exit__(), "__exit__")):
        names = told(call)
        assert (names[0], names[-1]) == (name, "fail")
    assert told(lambda: m.RunBudget(1, 1).hold(1.0).settle(unread))[-1] == "fail"
    assert m.DailySpend(1, lambda: "2031-05-01", lambda day: None).spent() == 0
    assert sys.exception() is None, "it is still being handled"
    (logged,) = caplog.records
    assert [f.f_code.co_name for f, _ in traceback.walk_tb(logged.exc_info[2])] == ["_spent_since"]
    lets_go = m.DailySpend(1, lambda: fail(lets_go._changed.release()), None)
    with pytest.raises(RuntimeError, match="un-acquired") as caught:
        lets_go.spent()
    assert isinstance(caught.value.__context__, ZeroDivisionError)


def test_defaults_replaced_while_they_are_used(m: types.ModuleType) -> None:
    reserve, lived = m.RunBudget.reserve, []

    def stop() -> bool:
        reserve.__defaults__ = (0.0,)
        return lived.append(default() is not None)

    budget = m.RunBudget(9, 9, should_stop=stop)
    reserve.__defaults__ = (Money(1),)
    default = weakref.ref(reserve.__defaults__[0])
    budget.reserve()
    assert lived == [True] and default() is None and budget._held_tokens.amount == 1


@pytest.mark.parametrize("name", CLASSES)
def test_half_made_instances(name: str) -> None:
    """No field, a field too few or a field that makes no sense ends in an ordinary error."""
    samples = {
        "Share": lambda thing: [thing.settle(None), thing.__exit__()],
        "_Held": lambda thing: [thing.admits(1.0, 0.0, 9.0), thing.take(1.0), thing.give_back(1.0)],
        "_Charges": lambda thing: [thing.bound(3), thing.learn(3, 0.5)],
        "RequestRates": lambda thing: [
            thing.learn(3, "a", Reply(input_tokens=1)), thing.cost(3, "a"), thing.tokens(3)
        ],
        "RunBudget": lambda thing: [
            thing.exhausted(), thing.reserve(1.0), thing.hold(1.0).settle(Reply()), thing.summary()
        ],
        "DailySpend": lambda thing: [
            thing.spent(), thing.charge(Reply(cost=1.0)),
            admit(thing, 1.0).settle(Reply()),
        ],
    }  # fmt: skip
    fields = [field for field in vars(make(model, name)) if field != "_lock"]

    def runs(module: types.ModuleType) -> list[str]:
        unmade = getattr(module, name).__new__(getattr(module, name))
        results = [outcome(samples[name], unmade).partition(":")[0]]
        for field in fields:
            thing = make(module, name)
            delattr(thing, field)
            results += [outcome(samples[name], thing), outcome(delattr, thing, field)]
            results.append(outcome(getattr, thing, field))
            for value in (None, "x", -1, 2.5, [], int, lambda: "1", lambda day: 3):
                thing = make(module, name)
                setattr(thing, field, value)
                assert outcome(getattr, thing, field) == outcome(lambda v=value: v)
                results.append(f"{field}={value}: {outcome(samples[name], thing)}")
        return [plain(result) for result in results]

    assert Task(runs, bounds).result() == Task(runs, model).result()


def test_names_that_run_python_are_not_asked(m: types.ModuleType) -> None:
    class Name(str):
        def __hash__(self) -> int:
            asked.append(self)
            return 7

    asked: list[str] = []
    budget = m.RunBudget(9, 9)
    vars(budget)[Name("own")] = vars(budget._held_tokens)[Name("own")] = None
    asked.clear()
    budget.hold(1.0).settle(Reply())
    assert (budget.calls, budget.in_flight, asked) == (1, 0, [])


@pytest.mark.parametrize("name", CLASSES)
def test_cycles_are_collected(name: str) -> None:
    """Through any of its fields, its dict, a method, a share of it or its condition."""
    fields = [field for field in vars(make(model, name)) if field != "_lock"]
    ties = [lambda thing, field=field: setattr(thing, field, [thing]) for field in fields]
    ties.append(lambda thing: vars(thing).update(method=thing.__eq__))
    if name in ("RunBudget", "DailySpend"):
        hold = bounds.RunBudget.hold if name == "RunBudget" else admit
        ties.append(lambda thing: vars(thing).update(share=hold(thing, 1.0)))
        ties.append(lambda thing: vars(thing._changed).update(owner=thing))
    gc.freeze()  # none but what is made from here on
    for tie in ties:
        thing = make(bounds, name)
        tie(thing)
        alive = weakref.ref(thing)
        del thing
        gc.collect()
        assert alive() is None
    gc.unfreeze()
