"""Programs that end, or fork, while threads are inside the module."""

import subprocess
import sys

PATIENCE = 300  # seconds; only a hang takes so long

_BUSY = """
import faulthandler, math, os, random, signal, sys, threading, time, warnings
from korvane.engines import decision_bounds as bounds

warnings.simplefilter("ignore", DeprecationWarning)  # of forks with threads
chance = random.Random(int(sys.argv[1]))
sys.setswitchinterval(1e-5)

class Reply:
    cached, input_tokens, cost = False, 1, 1.0

class Slow(Reply):
    cost = property(lambda self: linger())

class Lingering:
    def __del__(self, sleep=time.sleep):
        for _ in range(100):
            sleep(0.002)

def linger(answer=1.0):
    time.sleep(0.002)
    return answer

def on_a_thread(work, *args):
    thread = threading.Thread(target=work, args=args, daemon=True)
    thread.start()
    return thread

def admit(spend, bound=float, stopping=bounds.never):
    return spend.admit(bound, deadline=None, clock=time.monotonic, stopping=stopping)

def wait():
    with full._changed:
        full._changed.wait()

def hold():
    while True:
        with full._changed, spent._changed:
            linger()

def pay():
    while True:
        with busy.hold(5), admit(spend, lambda: 0.9) as share:
            rates.learn(1, "a", Slow())
            share.settle(Reply())

def turn():
    while True:
        turning._day = ""
        turning.spent()

full, asked = bounds.RunBudget(100, 10), bounds.RunBudget(100, 10, should_stop=lambda: False)
spent, spend = (bounds.DailySpend(limit, lambda: "D", None) for limit in (10.0, 1e9))
turning = bounds.DailySpend(10.0, lambda: "D", lambda day: linger())
busy, rates = bounds.RunBudget(10**9, 10**9), bounds.RequestRates()
shares = [full.hold(10), asked.hold(10), admit(spent, lambda: 10.0)]

for _ in range(3):
    for call in (
        (full.reserve, 1), (asked.hold, 1), (admit, spent), (wait,), (hold,), (pay,), (turn,),
        (admit, spent, lambda: 1.0, lambda: linger(False)),
    ):
        on_a_thread(*call)
"""

EXIT = f"""{_BUSY}
class Late:
    def __del__(self, sleep=time.sleep):
        sleep(0.05)  # with the interpreter lock free

bounds._POLL_S = chance.choice([0.002, 0.1, 60.0])
on_a_thread(bounds.Share(lambda _: Lingering()).settle, None)
on_a_thread(bounds.RunBudget(1, 1, should_stop=Lingering).stopping)
time.sleep(0.05 * chance.random())
sys.late = Late()  # goes away late in the exit
"""

# What a child does: everything, on every object, with threads of its own.
_CHILD = """
def use():
    for budget in (full, asked, busy):
        budget.release(10)
        with budget.hold(1) as mine:
            mine.settle(Reply)
        with budget._changed:
            assert not budget._changed.wait(0.001)
    for share in shares:
        share.settle(None)
    for account in (spent, spend, turning):
        admit(account).settle(Reply)
        assert account.spent() >= 1.0
    rates.learn(10, "b", Reply)
    assert rates.cost(10, "b") >= 1.0
    bounds._POLL_S = 60.0  # whom nobody wakes hangs
    for bound, give_back, call in (
        (full, full.release, full.reserve),
        (spent, lambda held: spent._give_back(held, None), lambda _: admit(spent)),
    ):
        tally = full._held_tokens if bound is full else spent._held
        tally.take(math.inf)
        waiters = [on_a_thread(call, 1) for _ in range(2)]
        while "2)" not in repr(bound._changed):
            time.sleep(0.001)
        give_back(math.inf)
        for waiter in waiters:
            waiter.join()

def reap():
    status = os.wait()[1]
    if status != 0:
        print(f"a child ended with {status}", file=sys.stderr)
        os._exit(1)

def fork():
    if os.fork() == 0:
        faulthandler.dump_traceback_later(60, exit=True)
        try:
            use()
        except BaseException:
            sys.excepthook(*sys.exc_info())
            os._exit(1)
        os._exit(0)
    reap()

def forks():
    for _ in range(COUNT):
        time.sleep(0.01 * chance.random())
        fork()
"""
FORKS = {
    "the main thread": "forks()",
    "another thread": "on_a_thread(forks).join()",
    # The child's only thread is one that sleeps for room, until the handler's own thread gives it.
    "a signal handler": """
sleeper, left = bounds.RunBudget(100, 10), [COUNT]
bounds._POLL_S = 60.0

def in_child():
    while ", 1)" not in repr(sleeper._changed):
        time.sleep(0.001)
    held.settle(None)

def on_signal(*_):
    if os.fork() == 0:
        faulthandler.dump_traceback_later(60, exit=True)
        child.append(on_a_thread(in_child))
        return
    reap()
    left[0] -= 1
    if left[0] == 0:
        held.settle(None)
    else:
        signal.setitimer(signal.ITIMER_REAL, 0.01)

child, held = [], sleeper.hold(10)
signal.signal(signal.SIGALRM, on_signal)
signal.setitimer(signal.ITIMER_REAL, 0.01)
sleeper.reserve(1)
if child:
    use()
    os._exit(0)
""",
}


def children(fork: str, count: int) -> str:
    """A parent of so many, one after the other."""
    return (_BUSY + _CHILD + FORKS[fork]).replace("COUNT", str(count))


def run(program: str, seed: int) -> None:
    ended = subprocess.run(
        [sys.executable, "-X", "faulthandler", "-c", program, str(seed)],
        stdin=subprocess.DEVNULL,
        capture_output=True,
        text=True,
        timeout=PATIENCE,
    )
    assert (ended.returncode, ended.stderr) == (0, ""), (seed, ended.returncode, ended.stderr)
