"""What the interpreter sees: the module's names, texts, signatures and ordinary Python manners."""

import copy
import dataclasses
import functools
import gc
import importlib.util
import inspect
import operator
import pickle
import re
import threading
import types
import typing
import weakref
from collections.abc import Callable
from pathlib import Path
from unittest import mock

import plain_bounds as model
import pytest
from support import Reply, Task, admit, outcome
from surface_texts import DOCS

from korvane.engines import decision_bounds as bounds

NAMES = [
    "annotations", "functools", "logging", "math", "threading", "Callable", "dataclass", "field",
    "Any", "Protocol", "logger", "_POLL_S", "DecisionError", "DecisionBudgetExceeded",
    "DecisionUnavailable", "DecisionTimeout", "DecisionStopped", "PaidReply", "never", "_nothing",
    "Share", "_Held", "_wait", "_Charges", "RequestRates", "RunBudget", "DailySpend",
]  # fmt: skip
CLASSES = ["Share", "_Held", "_Charges", "RequestRates", "RunBudget", "DailySpend"]
RECORDS = ["_Held", "_Charges", "RunBudget"]
OWN_CONDITION = type(bounds.RunBudget(1, 1)._changed)


def written(thing: object, prefix: str = "") -> list[str]:
    """The names of the functions that the source of the module or class spells out, in order."""
    return [
        name
        for name, value in vars(thing).items()
        if isinstance(value, types.FunctionType)
        and value.__code__.co_filename == model.__file__
        and value.__qualname__ == prefix + name
    ]


FUNCTIONS = written(model) + [
    f"{name}.{method}" for name in CLASSES for method in written(vars(model)[name], f"{name}.")
]


def find(module: types.ModuleType, path: str) -> typing.Any:
    return functools.reduce(lambda owner, name: vars(owner)[name], path.split("."), module)


def plain(text: object) -> str:
    """A text without what differs between any two modules: addresses and the module's name."""
    return re.sub(r" at 0x\w+", "", str(text)).replace("plain_bounds", bounds.__name__)


def make(module: typing.Any, name: str) -> typing.Any:
    arguments = {"RunBudget": (10, 800), "DailySpend": (10.0, lambda: "2031-05-01", None)}
    return getattr(module, name)(*arguments.get(name, ()))


def test_module() -> None:
    assert bounds.__name__ == "korvane.engines.decision_bounds"
    assert [name for name in vars(bounds) if not name.startswith("__")] == NAMES
    assert not hasattr(bounds, "__all__")
    for name in NAMES[:10]:
        assert getattr(bounds, name) is getattr(model, name)
    assert bounds.logger.name == bounds.__name__
    assert (bounds._POLL_S, type(bounds._POLL_S)) == (0.1, float)
    for package in ("korvane", "korvane.engines"):
        spec = importlib.util.find_spec(package)
        assert spec is not None and spec.origin is None, "the package is the host's to define"
    assert Path(bounds.__spec__.origin or "").parent.name == "engines"


@pytest.mark.parametrize("path", DOCS)
def test_documentation(path: str) -> None:
    assert (find(bounds, path) if path else bounds).__doc__ == DOCS[path]


@pytest.mark.parametrize("name", NAMES[12:17])
def test_errors(name: str) -> None:
    error, base = getattr(bounds, name), bounds.DecisionError
    assert error.__bases__ == ((RuntimeError,) if error is base else (base,))
    assert (error.__module__, error.__qualname__) == (bounds.__name__, name)
    assert str(error("why")) == "why" and error.__init__ is RuntimeError.__init__
    assert pickle.loads(pickle.dumps(error("why"))).args == ("why",)


def test_protocol() -> None:
    protocol = bounds.PaidReply
    assert protocol.__bases__ == (typing.Protocol,)
    assert typing.get_protocol_members(protocol) == {"cached", "input_tokens", "cost"}
    properties = [n for n, value in vars(protocol).items() if isinstance(value, property)]
    assert properties == ["cached", "input_tokens", "cost"]
    for name, returns in zip(properties, ("bool", "int", "float"), strict=True):
        member = vars(protocol)[name]
        assert member.fset is None and member.fget.__annotations__ == {"return": returns}
        assert getattr(type("Silent", (protocol,), {})(), name) is None
    with pytest.raises(TypeError):
        isinstance(Reply(), protocol)
    with pytest.raises(TypeError):
        protocol()


@pytest.mark.parametrize("path", FUNCTIONS)
def test_function(path: str) -> None:
    ours, theirs = find(bounds, path), find(model, path)
    assert type(ours) is types.FunctionType
    assert (ours.__module__, ours.__qualname__) == (bounds.__name__, path)
    assert ours.__annotations__ == theirs.__annotations__
    assert plain(inspect.signature(ours)) == plain(inspect.signature(theirs))
    assert plain(typing.get_type_hints(ours)) == plain(typing.get_type_hints(theirs))


@pytest.mark.parametrize("path", FUNCTIONS)
def test_wrong_arguments(path: str) -> None:
    """Python's own words for them, whether the function or a bound method is called."""
    parameters = list(inspect.signature(find(model, path)).parameters.values())
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
        assert weakref.ref(thing)() is thing
        del thing.anything
        assert not hasattr(thing, "anything")
    spec = mock.create_autospec(ours, instance=True)
    for method in declared:
        if not method.startswith("__"):
            assert outcome(getattr(spec, method), unknown=1).startswith("TypeError")


@pytest.mark.parametrize("name", RECORDS)
def test_record(name: str) -> None:
    ours, theirs = getattr(bounds, name), getattr(model, name)

    names = [f.name for f in dataclasses.fields(theirs)]
    assert plain(dataclasses.fields(ours)) == plain(dataclasses.fields(theirs))
    assert repr(ours.__dataclass_params__) == repr(theirs.__dataclass_params__)
    assert ours.__match_args__ == tuple(names) == theirs.__match_args__
    assert ours.__hash__ is None and ours.__annotations__ == theirs.__annotations__
    assert {*vars(theirs)} - {*vars(ours)} <= {"__dict__", "__weakref__"}
    for field in names:
        assert plain(getattr(ours, field, None)) == plain(getattr(theirs, field, None))
    compared = [f.name for f in dataclasses.fields(theirs) if f.compare]
    values = range(1, len(compared) + 1)
    first = ours(*values)
    assert first == ours(*values) and repr(first) == plain(theirs(*values))
    assert first.__eq__(7) is NotImplemented and first != type("Sub", (ours,), {})(*values)
    for field in names:
        other = copy.replace(first, **{field: 77})
        assert getattr(other, field) == 77 and (first == other) is (field not in compared)
        setattr(other, field, getattr(first, field))
        assert first == other and all(getattr(first, n) is getattr(other, n) for n in names)
    changed = dataclasses.replace(first, **{names[0]: 99})
    assert [getattr(changed, n) for n in names] == [99, *(getattr(first, n) for n in names[1:])]
    shallow = copy.copy(first)
    assert shallow is not first and all(getattr(first, n) is getattr(shallow, n) for n in names)
    if name == "RunBudget":
        with pytest.raises(TypeError):
            dataclasses.asdict(first)  # no lock can be copied
    else:
        assert dataclasses.asdict(first) == {n: getattr(first, n) for n in names}
        for copied in (copy.deepcopy(first), pickle.loads(pickle.dumps(first))):
            assert copied == first and copied is not first
    assert outcome(copy.replace, first, no=1) == outcome(copy.replace, theirs(1, 2), no=1)


def compiled(function: typing.Any) -> list[object]:
    """All there is to a function that was compiled from text."""
    code = function.__code__
    cells = [cell.cell_contents for cell in function.__closure__ or ()]
    cells = [threading.Condition if cell is OWN_CONDITION else cell for cell in cells]
    shown = operator.attrgetter(
        "__name__", "__qualname__", "__module__", "__doc__", "__annotations__", "__kwdefaults__",
        "__defaults__", "__dict__", "__type_params__",
    )  # fmt: skip
    texts = [plain(part) for part in (*shown(function), *cells, inspect.signature(function))]
    wrapped = [compiled(function.__wrapped__)] if hasattr(function, "__wrapped__") else []
    return [code, code.co_qualname, code.co_filename, *texts, *wrapped]


@pytest.mark.parametrize("name", RECORDS)
def test_methods_of_records(name: str) -> None:
    """Those that the decorator writes, down to their code."""
    ours, theirs = getattr(bounds, name), getattr(model, name)
    for method in ("__init__", "__eq__", "__repr__"):
        assert compiled(getattr(ours, method)) == compiled(getattr(theirs, method))
    assert ours.__replace__ is theirs.__replace__

    def uses(cls: typing.Any) -> list[str]:
        values = range(len(cls.__match_args__))
        thing, other = cls(*values), cls(*values)
        fields = cls.__match_args__[:2]
        results = [outcome(cls, *values, **{fields[0]: 1}), outcome(cls, **{fields[1]: 1})]
        results.append(outcome(lambda: thing == other and thing != 1 and thing != cls(9, 9)))
        setattr(thing, fields[0], thing)
        results += [outcome(repr, thing), outcome(lambda: thing == thing and thing != other)]
        sub = dataclasses.make_dataclass("Sub", [("more", int, 7)], bases=(cls,))
        results += [outcome(repr, sub(*values)), outcome(inspect.signature, sub)]
        for field in fields:
            delattr(thing, field)
            delattr(other, field)
            results += [outcome(repr, thing), outcome(lambda: thing == other)]
        return [plain(result) for result in results]

    assert uses(ours) == uses(theirs)


def test_budgets_are_apart() -> None:
    first, second = bounds.RunBudget(10, 800), bounds.RunBudget(10, 800, should_stop=lambda: True)
    assert first == second and first.should_stop is bounds.never
    assert first._held_tokens is not second._held_tokens and first._changed is not second._changed
    match first, bounds._Held(1, 5.0):
        case bounds.RunBudget(10, 800, 0, in_flight=0), bounds._Held(1, 5.0, 0):
            pass
        case other:
            pytest.fail(f"{other} does not match")


def test_give_backs() -> None:
    budget, spend = make(bounds, "RunBudget"), make(bounds, "DailySpend")
    give_back = budget.hold(5.0)._give_back
    assert (give_back.__name__, give_back.__doc__) == ("give_back", None)
    assert give_back.__qualname__ == "RunBudget.hold.<locals>.give_back"
    assert give_back.__annotations__ == {"reply": "PaidReply | None", "return": "None"}
    assert str(inspect.signature(give_back)) == "(reply: 'PaidReply | None') -> 'None'"
    theirs = make(model, "RunBudget").hold(5.0)._give_back
    for args, kwargs in (((), {}), ((1, 2), {}), ((), {"unknown": 1})):
        assert outcome(give_back, *args, **kwargs) == outcome(theirs, *args, **kwargs)
    assert give_back(reply=None) is None and budget.in_flight == 0
    partial = admit(spend, 0.5)._give_back
    assert type(partial) is functools.partial and (partial.args, partial.keywords) == ((0.5,), {})
    assert partial.func == spend._give_back
    with pytest.raises(TypeError):
        spend.admit(lambda: 0.5, None, lambda: 0.0, bounds.never)


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


def test_patches_are_found(m: types.ModuleType) -> None:
    budget, spend = make(m, "RunBudget"), make(m, "DailySpend")
    for target in (m.RunBudget, budget):
        with mock.patch.object(target, "reserve") as reserve:
            budget.hold(7.0)
        assert reserve.call_args.args == (7.0,) and budget.in_flight == 0
    for target in (m.DailySpend, spend):
        with mock.patch.object(target, "_spent_since", return_value=4.5) as since:
            spend._day = "before"
            assert spend.spent() == 4.5
        since.assert_called_once_with("2031-05-01")
    budget.hold(7.0)
    assert "reserve" not in vars(budget) and budget.in_flight == 1 and spend.spent() == 4.5


@pytest.mark.parametrize(
    "name, field, tie",
    [
        ("Share", "_give_back", lambda share: share.settle),
        ("_Held", "amount", lambda tally: [tally]),
        ("_Charges", "per_byte", lambda charges: [charges]),
        ("RequestRates", "_features", lambda rates: [rates]),
        ("RequestRates", "_cost", lambda rates: rates.cost),
        ("RunBudget", "should_stop", lambda budget: budget.stopping),
        ("RunBudget", "_held_tokens", lambda budget: [budget]),
        ("RunBudget", "share", lambda budget: budget.hold(1.0)),
        ("RunBudget", "_changed", lambda budget: vars(budget._changed).update(owner=budget)),
        ("DailySpend", "_today", lambda spend: spend.spent),
        ("DailySpend", "share", lambda spend: admit(spend, 1.0)),
    ],
)
def test_cycles_are_collected(name: str, field: str, tie: Callable[..., object]) -> None:
    thing = make(bounds, name)
    if (tied := tie(thing)) is not None:
        setattr(thing, field, tied)
    alive = weakref.ref(thing)
    del thing, tied
    gc.collect()
    assert alive() is None
