"""A batch of many threads on one account, killed again and again in mid-flight and started anew."""

import os
import random
import subprocess
import sys
import tempfile
import time
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from korvane.engines.decision_account import PaidCalls, SharedSpend
from korvane.engines.decision_bounds import DecisionBudgetExceeded
from support import Reply, until

KILLS, THREADS = 50, 32
CAP, DEAREST = 12.0, 0.01  # USD; every life loses up to THREADS calls
SIZE = 100


class Bill:
    """What the endpoint has billed: a file that survives whoever it bills."""

    def __init__(self, path: Path) -> None:
        self._file = os.open(path, os.O_CREAT | os.O_APPEND | os.O_RDWR)

    def add(self, cost: float) -> None:
        os.write(self._file, f"{cost:.4f}\n".encode())

    def calls(self) -> int:
        return os.fstat(self._file).st_size // len("0.0000\n")

    def usd(self) -> float:
        return sum(map(float, os.pread(self._file, 1 << 24, 0).split()))


def live(url: str, path: str) -> None:
    """A life: calls until the cap is reached. The first of all is the dearest."""
    spend, bill = SharedSpend(url, CAP), Bill(Path(path))
    calls = PaidCalls(spend, unknown_cost=DEAREST)

    def ask() -> None:
        while True:
            with calls.call(SIZE, "desk") as call:
                cost = DEAREST if not bill.calls() else random.choice((0.002, 0.005, DEAREST))
                bill.add(cost)
                time.sleep(random.uniform(0, 0.01))
                call.settle(Reply(False, 10, cost))

    with ThreadPoolExecutor(THREADS) as threads:
        ends = [threads.submit(ask).exception() for _ in range(THREADS)]
    assert all(isinstance(end, DecisionBudgetExceeded) for end in ends), ends
    spend.close()


def begin_and_kill(program: str, bill: Bill) -> None:
    enough = bill.calls() + random.randint(1, 2 * THREADS)
    life = subprocess.Popen([sys.executable, "-c", program])
    until(lambda: bill.calls() >= enough or life.poll() is not None)
    assert life.poll() is None, "the cap was reached too early"
    life.kill()
    life.wait()


def check() -> str:
    with tempfile.TemporaryDirectory() as folder:
        url, path = f"sqlite:///{folder}/spend.db", Path(folder, "bill")
        bill = Bill(path)
        program = f"from checks import killed; killed.live({url!r}, {str(path)!r})"
        for _ in range(KILLS):
            begin_and_kill(program, bill)
        subprocess.run([sys.executable, "-c", program], check=True, stderr=subprocess.DEVNULL)
        with SharedSpend(url, CAP) as spend:
            figures = spend.figures()
    billed = bill.usd()
    assert figures.in_flight == 0 and figures.held == 0, figures
    assert CAP <= figures.paid < CAP + DEAREST, figures
    assert figures.paid - figures.lost <= billed <= figures.paid + 1e-9, (billed, figures)
    return (
        f"{KILLS} kills of {THREADS} threads: ${billed:.4f} billed of ${CAP:.2f},"
        f" ${figures.paid:.4f} counted, ${figures.lost:.4f} of it for lost calls"
    )
