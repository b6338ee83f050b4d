"""Whole programs: exits and forks under load, the module's own end, a deep stack."""

import os
import subprocess
import sys
from pathlib import Path

import plain_bounds
import pytest

from support import SOON, busy

MODEL = str(Path(plain_bounds.__file__).parent)
PREAMBLE = """
import _thread, functools, operator, os, signal, sys, threading, time, warnings
sys.path.insert(0, os.environ["DECISION_BOUNDS_PATH"])

def on_a_thread(work, *args):
    thread = threading.Thread(target=work, args=args, daemon=True)
    thread.start()
    return thread

on_a_thread(__import__, "korvane.engines.decision_bounds").join()
from korvane.engines import decision_bounds as bounds

def ends(thread):
    thread.join(60)
    assert not thread.is_alive()

def admit(spend, bound=float):
    return spend.admit(bound, deadline=None, clock=time.monotonic, stopping=bounds.never)

budget, spend = bounds.RunBudget(10, 10), bounds.DailySpend(10.0, lambda: "D", None)
"""


def run(program: str, first: str = "", **environment: str) -> str:
    """What the program prints; anything but a silent, successful end fails."""
    done = subprocess.run(
        [sys.executable, "-c", first + PREAMBLE + program],
        env=os.environ | environment,
        capture_output=True,
        text=True,
        timeout=2 * SOON,
    )
    assert done.returncode == 0 and not done.stderr, done.stderr  # told whole
    return done.stdout


@pytest.mark.parametrize("program", [busy.EXIT, *(busy.children(fork, 3) for fork in busy.FORKS)])
def test_ends_and_forks_while_threads_are_inside(
    program: str, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setenv("PYTHONPATH", os.environ["DECISION_BOUNDS_PATH"])
    busy.run(program, seed=3)


INTERRUPTED = """
warnings.simplefilter("ignore", DeprecationWarning)
signal.signal(signal.SIGINT, signal.default_int_handler)
bounds._POLL_S = 600.0
budget.reserve(10)

def interrupted():
    signal.alarm(60)
    try:
        list(map(operator.call, (_thread.interrupt_main, functools.partial(budget.reserve, 1))))
    except KeyboardInterrupt:
        statuses.append(0)

def fork():
    if os.fork() != 0:
        return statuses.append(os.wait()[1])
    try:
        interrupted()
    finally:
        os._exit(0 if statuses else 1)

statuses = []
"""


@pytest.mark.parametrize("how", ["interrupted()", "fork()", "on_a_thread(fork).join()"])
def test_main_thread_is_open_to_interrupts(how: str) -> None:
    """It is not the one that imported the module; a child's may not have been its parent's."""
    run(f"{INTERRUPTED}{how}\nassert statuses == [0]")


def test_collected_with_its_objects() -> None:
    """The collector takes the module, its classes and their instances in any order."""
    program = """
import gc, weakref
import korvane.engines
budget.shares = [budget.hold(0.5), bounds.Share(budget.release), admit(spend)]
for _ in range(3):
    budget.hold(0.5).settle(None)
budget.me, gone = budget, weakref.ref(bounds)
del sys.modules[bounds.__name__], korvane.engines.decision_bounds
del budget, spend, admit, bounds
gc.collect()
print(gone())
"""
    assert run(program, PYTHONMALLOC="debug") == "None\n"


def test_endless_recursion_and_long_chains() -> None:
    """The one is told, the others are taken apart without a deep stack."""
    run("""
def too_deep(call):
    try:
        call()
    except RecursionError:
        return
    sys.exit(f"{call} came back")

share = bounds.Share()
for _ in range(100_000):
    share = bounds.Share(share.settle)
too_deep(lambda: share.settle(None))
budget.should_stop = budget.stopping
too_deep(lambda: budget.reserve(1))
def bound():
    return admit(spend, bound)
too_deep(bound)
spend._today = spend.spent
too_deep(spend.spent)
for each in (budget, spend):
    ends(on_a_thread(each._changed.acquire))
for wrap in (
    bounds.Share,
    lambda inner: bounds.Share(bounds.Share(inner).settle),
    bounds._Held,
    bounds._Charges,
    lambda inner: bounds.RunBudget(1, 1, should_stop=inner),
    lambda inner: bounds.DailySpend(inner, None, None),
):
    nested = None
    for _ in range(100_000):
        nested = wrap(nested)
    del nested
""")


def test_constructor_that_was_replaced_and_deleted() -> None:
    """It leaves `object`'s behind, which makes an instance, or says that it cannot."""
    run("""
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
    for thread in [on_a_thread(call) for call in calls]:
        thread.join()
    return pass_.summary(), days, day.spent(), tokens, rates.cost(2, "a")

assert lives(bounds) == lives(plain_bounds), (lives(bounds), lives(plain_bounds))
"""


@pytest.mark.parametrize("patched", ["before", "after"])
@pytest.mark.parametrize("library", PATCHES)
def test_threads_that_are_greenlets(library: str, patched: str) -> None:
    """By a monkey patch, whether it comes before the import or after: none holds the others up."""
    pytest.importorskip(library)
    patch, quiet = PATCHES[library] + "\n", {"PYTHONWARNINGS": "ignore", "PYTHONPATH": MODEL}
    if patched == "before":
        run(COOPERATIVE, first=patch, **quiet)
    else:
        run(patch + COOPERATIVE, **quiet)


def test_class_that_was_patched_for_good() -> None:
    """More often than the interpreter tells its versions apart, and to see its objects go."""
    run("""
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
