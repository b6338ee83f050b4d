"""Exceptions that hit a thread from outside, one at a time, and the threads that can take them."""

import ctypes
import random
import threading

from korvane.engines import decision_bounds as bounds


class Interrupt(BaseException):
    """From a signal handler, or from another thread."""


def raise_in(thread: threading.Thread) -> None:
    ident = ctypes.c_ulong(thread.ident or 0)
    ctypes.pythonapi.PyThreadState_SetAsyncExc(ident, ctypes.py_object(Interrupt))


class Worker(threading.Thread):
    """Repeats `step` until it is told to finish, whatever interrupts it."""

    def __init__(self, seed: int) -> None:
        super().__init__(daemon=True)
        self.chance = random.Random(seed)
        self.held: list[bounds.Share] = []
        self.admitted = self.sent = self.caught = 0
        self.ready, self.finished = -1, False

    def step(self) -> None:
        raise NotImplementedError

    def run(self) -> None:
        while True:
            try:
                self.ready = self.caught  # from here on the next one would be caught
                self.steps()
                return
            except Interrupt:
                self.caught += 1

    def steps(self) -> None:
        # A loop of its own: the interpreter leaves a conditional jump back out of its `try`.
        while not self.finished:
            self.step()
        self.give_back()  # or the others would wait for it

    def due(self) -> bool:
        """Whether another interrupt can be sent: only where the last one was caught."""
        if self.ready != self.sent or self.finished:
            return False
        self.sent += 1
        return True

    def take(self, admission: object, amount: object) -> bounds.Share:
        """Holds a share that no interrupt can lose: nothing of Python's runs between the admission
        and the list, while the assignment of a call's result can be interrupted."""
        self.held.extend(map(admission, (amount,)))  # type: ignore[arg-type, call-overload]
        self.admitted += 1
        return self.held[-1]

    def give_back(self) -> None:
        while self.held:
            self.held[-1].settle(None)
            self.held.pop()
