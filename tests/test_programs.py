"""Whole programs: a fork under load, exits, the module's own end."""

import os
import subprocess
import sys

import pytest
from support import SOON

PREAMBLE = """
import _thread, functools, math, operator, os, signal, sys, threading, time, warnings
sys.path.insert(0, os.environ["DECISION_BOUNDS_PATH"])
from korvane.engines import decision_bounds as bounds

class Reply:
    cached, input_tokens, cost = False, 1, 1.0

def on_a_thread(work, *args):
    thread = threading.Thread(target=work, args=args, daemon=True)
    thread.start()
    return thread

def admit(spend, bound=float, stopping=bounds.never):
    return spend.admit(bound, deadline=None, clock=time.monotonic, stopping=stopping)

inside, leave = threading.Semaphore(0), threading.Event()

def linger(result=None):
    if threading.current_thread() is not threading.main_thread():
        inside.release()
        leave.wait(10)
    return result

def await_waiters(bound, count):
    while int(repr(bound._changed).rpartition(", ")[2].rstrip(")>")) < count:
        time.sleep(0.0005)

def hold(bound):
    with bound._changed:
        linger()

spend = bounds.DailySpend(10.0, lambda: "D", None)
slow = bounds.DailySpend(10.0, lambda: "D", lambda day: linger(2.0))
"""


def run(program: str, **environment: str) -> str:
    """What the program prints; anything but a silent, successful end fails."""
    done = subprocess.run(
        [sys.executable, "-c", PREAMBLE + program],
        env=os.environ | environment,
        capture_output=True,
        text=True,
        timeout=2 * SOON,
    )
    assert done.returncode == 0 and not done.stderr, done.stderr  # told whole
    return done.stdout


CHILD = """
warnings.simplefilter("ignore", DeprecationWarning)
signal.signal(signal.SIGINT, signal.default_int_handler)
sys.setswitchinterval(1000)  # a thread runs until it blocks
bounds._POLL_S = 60.0

class Slow(Reply):
    cost = property(lambda self: linger(1.0))

full, held, charged, promised = (bounds.RunBudget(1000, 10) for _ in range(4))
rates = bounds.RequestRates()
share, today = promised.hold(10), admit(spend, lambda: 10.0)
full.reserve(10)
for _ in range(2):
    on_a_thread(full.reserve, 1)
    on_a_thread(admit, spend)
    on_a_thread(promised.reserve, 10)
for call in ((hold, held), (charged.charge, Slow()), (slow.spent,), (rates.learn, 10, "a", Slow())):
    on_a_thread(*call)
for _ in range(4):
    assert inside.acquire(timeout=10)
for bound in (full, spend, promised):
    await_waiters(bound, 2)

def ends(thread):
    thread.join(3)
    assert not thread.is_alive()

def goes_on():
    try:
        list(map(operator.call, (_thread.interrupt_main, functools.partial(full.reserve, 1))))
        assert False, "not interrupted"
    except KeyboardInterrupt:
        leave.set()
    promised.reserve(10)
    waiter = on_a_thread(promised.reserve, 1)
    await_waiters(promised, 1)
    promised.release(10)
    ends(waiter)
    for budget in (full, held, charged):
        budget.release(10)
        with budget.hold(1) as mine:
            mine.settle(Reply)
        with budget._changed:
            assert not budget._changed.wait(0.01)
            budget._changed.notify_all()
        ends(on_a_thread(budget.reserve, 1))
    today.settle(Reply)
    for account in (spend, slow):
        admit(account).settle(Reply)
        assert account.spent() >= 1.0
    rates.learn(10, "b", Reply)
    assert rates.cost(10, "b") >= 1.0
    spend._held.take(math.inf)
    waiter = on_a_thread(admit, spend)
    await_waiters(spend, 1)
    spend._give_back(math.inf, None)
    ends(waiter)

statuses = []
def fork():
    share.settle(None)  # promises its room to a waiter that cannot run before the fork
    child = os.fork()
    if child == 0:
        signal.alarm(10)
        try:
            goes_on()
        except BaseException:
            sys.excepthook(*sys.exc_info())
            os._exit(1)
        os._exit(0)
    statuses.append(os.waitpid(child, 0)[1])
"""


@pytest.mark.parametrize("fork", ["fork()", "on_a_thread(fork).join(10)"])
def test_fork_under_load(fork: str) -> None:
    """Other threads wait, hold a lock, or are in the middle of a callable: the child goes on, and
    its one thread, which may not have been the main one, is interrupted as that would be."""
    run(
        CHILD
        + fork
        + """
assert statuses == [0]
leave.set()
full.release(10)
today.settle(None)
"""
    )


def test_exit_while_daemon_threads_wait() -> None:
    """They come back from their waits, or go on, while the interpreter goes down."""
    for _ in range(3):
        run("""
sys.setswitchinterval(1e-5)

class Late:
    def __del__(self, sleep=time.sleep):
        sleep(0.1)  # with the interpreter lock free

class Lingering:
    def __del__(self, sleep=time.sleep):
        while True:
            sleep(0.002)

def wait():
    with budgets[0]._changed:
        budgets[0]._changed.wait()

def work():
    while True:
        with busy.hold(5), admit(spare, lambda: 0.9) as share:
            rates.learn(1, "a", Reply)
            share.settle(None)

budgets = [bounds.RunBudget(100, 1), bounds.RunBudget(100, 1, should_stop=lambda: False)]
for bound in budgets:
    bound.reserve(1)
admit(spend, lambda: 10.0)
busy, rates = bounds.RunBudget(10**9, 8), bounds.RequestRates()
spare, locked = bounds.DailySpend(1.0, lambda: "D", None), bounds.RunBudget(100, 1)
locked._changed.acquire()
bounds._POLL_S = 0.002
for _ in range(5):
    for call in (
        (budgets[0].reserve, 1), (budgets[1].reserve, 1), (admit, spend), (locked.hold, 1),
        (admit, spend, lambda: 1.0, lambda: False), (wait,), (work,), (work,),
    ):
        on_a_thread(*call)
on_a_thread(bounds.Share(lambda _: Lingering()).settle, None)
on_a_thread(bounds.RunBudget(1, 1, should_stop=Lingering).stopping)
await_waiters(budgets[0], 6)
for bound in (budgets[1], spend):
    await_waiters(bound, 1)
sys.late = Late()  # goes away late in the exit
""")


def test_collected_with_its_objects() -> None:
    """The collector takes the module, its classes and their instances in any order."""
    program = """
import gc, weakref
import korvane.engines
budget = bounds.RunBudget(9, 9)
budget.shares = [budget.hold(0.5), bounds.Share(budget.release), admit(spend)]
for _ in range(3):
    budget.hold(0.5).settle(None)
budget.me, gone = budget, weakref.ref(bounds)
del sys.modules[bounds.__name__], korvane.engines.decision_bounds
del budget, spend, slow, admit, bounds
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
budget = bounds.RunBudget(10, 10)
budget.should_stop = budget.stopping
too_deep(lambda: budget.reserve(1))
slow._today = slow.spent
too_deep(slow.spent)
def bound():
    return admit(spend, bound)
too_deep(bound)
for each in (budget, slow, spend):
    thread = on_a_thread(each._changed.acquire)
    thread.join(5)
    assert not thread.is_alive()
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
