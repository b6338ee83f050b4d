"""Whole programs: exits and forks under load, the module's own end, a deep stack."""

import sysconfig

import pytest

from support import busy, run

PREAMBLE = """
import functools, signal, sys, time
from support import Task, admit

Task(__import__, "korvane.engines.decision_bounds").result()
from korvane.engines import decision_bounds as bounds

budget, spend = bounds.RunBudget(10, 10), bounds.DailySpend(10.0, lambda: "D", None)
"""


def run_program(program: str, **environment: str) -> str:
    return run("-c", PREAMBLE + program, **environment)


@pytest.mark.parametrize("kind", ["exit", *busy.FORKS])
def test_ends_and_forks_while_threads_are_inside(kind: str) -> None:
    busy.run(kind, seed=3, children=4)


def test_main_thread_is_open_to_interrupts() -> None:
    """It is not the one that imported the module."""
    run_program("""
from support.interrupts import interrupt

bounds._POLL_S = 600.0
budget.reserve(10)
signal.alarm(60)
interrupt(functools.partial(budget.reserve, 1))
""")


@pytest.mark.skipif(
    sysconfig.get_config_var("Py_GIL_DISABLED") == 1,
    reason="what code has for a constant, as the module's functions are, is kept for good there",
)
def test_collected_with_its_objects() -> None:
    """The collector takes the module, its classes and their instances in any order."""
    program = """
import gc, weakref
import korvane.engines
budget.shares = [budget.hold(0.5), bounds.Share(budget.release), admit(spend, 0.5)]
for _ in range(3):
    budget.hold(0.5).settle(None)
budget.me, gone = budget, weakref.ref(bounds)
del sys.modules[bounds.__name__], korvane.engines.decision_bounds
del budget, spend, admit, bounds
gc.collect()
print(gone())
"""
    assert run_program(program, PYTHONMALLOC="debug") == "None\n"


def test_endless_recursion_and_long_chains() -> None:
    """The one is told, the others are taken apart without a deep stack."""
    run_program("""
def too_deep(call):
    try:
        call()
    except RecursionError:
        return
    sys.exit(f"{call} came back")

def chain(length):
    share = bounds.Share()
    for _ in range(length):
        share = bounds.Share(share.settle)
    return share

too_deep(lambda: chain(100_000).settle(None))
chain(1_100).settle(None)  # which took nothing of the depth for good
budget.should_stop = budget.stopping
too_deep(lambda: budget.reserve(1))
def bound():
    return admit(spend, bound)
too_deep(bound)
spend._today = spend.spent
too_deep(spend.spent)
for each in (budget, spend):
    Task(each._changed.acquire).result()
for wrap in (
    bounds.Share,
    lambda inner: bounds.Share(bounds.Share(inner).settle),
    bounds._Held,
    bounds._Charges,
    lambda inner: bounds.RunBudget(1, 1, should_stop=inner),
    lambda inner: bounds.DailySpend(inner, None, None),
):
    nested = None
    for _ in range(50_000):
        nested = wrap(nested)
    del nested
""")


def test_constructor_that_was_replaced_and_deleted() -> None:
    """It leaves `object`'s behind, which makes an instance, or says that it cannot."""
    run_program("""
paid = type("Paid", (), {"cached": False, "input_tokens": 1, "cost": 0.5})
for name, use in (
    ("Share", lambda share: share.settle(None)),
    ("RequestRates", lambda rates: rates.learn(1, "a", paid)),
    ("_Held", lambda held: held.take(1)),
):
    cls = getattr(bounds, name)
    cls.__new__ = lambda cls: object.__new__(cls)
    del cls.__new__
    for made in (cls, type("Sub", (cls,), {})):
        use(made())
""")


PATCHES = {
    "gevent": "from gevent import monkey; monkey.patch_all()",
    "eventlet": "import eventlet; eventlet.monkey_patch()",
}
COOPERATIVE = """
import copy, plain_bounds
from types import SimpleNamespace

def asked(answer):
    time.sleep(0.02)
    return answer

def lives(m):
    paid = SimpleNamespace(cached=False, input_tokens=3, cost=1.0)
    slow = type("Slow", (), {"cost": 1.0, "input_tokens": property(lambda _: asked(3))})()
    pass_, days, tokens = m.RunBudget(99, 100), [], []
    day = m.DailySpend(10.0, lambda: "D", lambda day: days.append(day) or asked(5.0))
    rates = copy.copy(m.RequestRates())

    def call():
        with pass_.hold(100) as share:
            asked(None)
            share.settle(paid)

    calls = [lambda: rates.learn(1, "a", slow), lambda: tokens.append(rates.tokens(2))]
    calls += [day.spent, lambda: day.charge(paid), call, call, call]
    for task in [Task(call) for call in calls]:
        task.result()
    return pass_.summary(), days, day.spent(), tokens, rates.cost(2, "a")

assert lives(bounds) == lives(plain_bounds), (lives(bounds), lives(plain_bounds))
"""


@pytest.mark.parametrize("patched", ["before", "after"])
@pytest.mark.parametrize("library", PATCHES)
def test_threads_that_are_greenlets(library: str, patched: str) -> None:
    """By a monkey patch, whether it comes before the import or after: none holds the others up."""
    pytest.importorskip(library)
    parts = (PATCHES[library] + "\n", PREAMBLE)[:: 1 if patched == "before" else -1]
    run("-c", "".join(parts) + COOPERATIVE, PYTHONWARNINGS="ignore")


def test_class_that_was_patched_for_good() -> None:
    """More often than the interpreter tells its versions apart, and to see its objects go."""
    run_program("""
released, unsettled, release = [], [], bounds.RunBudget.release
for number in range(1001):
    bounds.RunBudget.note = number
    budget.hold(0.5).settle(None)
bounds.RunBudget.release = lambda budget, tokens: released.append(tokens)
budget.hold(0.5).settle(None)
assert released == [0.5] and budget.in_flight == 1
bounds.RunBudget.release = release
budget.release(0.5)
bounds.Share.__del__ = lambda share: unsettled.append(share)
for _ in range(3):  # whatever memory they lie in
    budget.hold(0.5)
    unsettled.pop().settle(None)
assert budget.in_flight == 0
""")
