"""What is held of a bound, the admission rule, and the wait step."""

import math
import threading
from types import ModuleType

import pytest
from support import SOON, Task


@pytest.mark.parametrize(
    "held, share, used, limit, admitted",
    [
        ([], 5.0, 0.0, 10.0, True),
        ([], math.inf, 0.0, 10.0, True),
        ([], 5.0, 10.0, 10.0, False),
        ([math.inf], 5.0, 0.0, math.inf, False),
        ([math.inf], math.inf, 0.0, 10.0, False),
        ([5.0], math.inf, 0.0, 100.0, False),
        ([5.0], -math.inf, 0.0, 100.0, False),
        ([5.0], 50.0, 0.0, 10.0, True),
        ([5.0], 1.0, 5.0, 10.0, False),
        ([5.0], 1e300, 1e300, math.inf, True),
    ],
)
def test_admission(
    m: ModuleType, held: list[float], share: float, used: float, limit: float, admitted: bool
) -> None:
    tally = m._Held()
    for amount in held:
        tally.take(amount)
    before = repr(tally)
    assert tally.admits(share, used, limit) is admitted
    assert tally.admits(share=share, used=used, limit=limit) is admitted
    assert repr(tally) == before


def test_give_backs(m: ModuleType) -> None:
    tally = m._Held()
    for _ in range(3):
        tally.take(0.1)
    assert repr(tally) == f"_Held(holders=3, amount={0.1 + 0.1 + 0.1}, unbounded=0)"
    for _ in range(3):
        tally.give_back(0.1)
    tally.give_back(3.0)
    assert repr(tally) == "_Held(holders=0, amount=0.0, unbounded=0)"
    tally = m._Held(2, 5.0, 0)
    tally.give_back(math.inf)
    assert repr(tally) == "_Held(holders=1, amount=5.0, unbounded=0)"
    tally.give_back(7.0)
    assert repr(tally) == "_Held(holders=0, amount=0.0, unbounded=0)"
    tally.take(math.inf)
    assert repr(tally) == "_Held(holders=1, amount=0.0, unbounded=1)"


class Room:
    """Any object that can be waited on."""

    def __init__(self) -> None:
        self.waits: list[float] = []

    def wait(self, timeout: float) -> None:
        self.waits.append(timeout)


@pytest.mark.parametrize(
    "deadline, now, slept",
    [
        (None, None, 0.1),
        (10.05, 10.0, 0.05),
        (15.0, 10.0, 0.1),
        (15.0, None, 0.1),
        (None, 10.0, 0.1),
    ],
)
def test_length_of_a_wait(
    m: ModuleType, deadline: float | None, now: float | None, slept: float
) -> None:
    room, asked = Room(), []

    def clock() -> float:
        asked.append("clock")
        return now

    assert m._wait(room, m.never, deadline=deadline, clock=clock if now else None) is None
    assert room.waits == [pytest.approx(slept, abs=1e-9)] and room.waits[0] <= 0.1
    assert len(asked) == (now is not None and deadline is not None)


def test_no_wait(m: ModuleType) -> None:
    room = Room()
    with pytest.raises(m.DecisionStopped, match=r"^the pass was asked to stop$"):
        m._wait(room, lambda: [0], deadline=0.0, clock=lambda: pytest.fail("asked"))
    late = (
        "^the decision call ran out of its deadline while the calls in flight held the rest of "
        "the daily cost cap$"
    )
    for now in (10.0, 10.5):
        with pytest.raises(m.DecisionTimeout, match=late):
            m._wait(room, m.never, deadline=10.0, clock=lambda now=now: now)
    with pytest.raises(TypeError):
        m._wait(room, m.never, 10.0, m.never)
    assert room.waits == []


def test_rebound_poll(m: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    room = Room()
    monkeypatch.setattr(m, "_POLL_S", 7)
    m._wait(room, m.never)
    monkeypatch.setattr(m, "_POLL_S", None)
    m._wait(room, m.never)
    monkeypatch.delattr(m, "_POLL_S")
    with pytest.raises(NameError, match="name '_POLL_S' is not defined"):
        m._wait(room, m.never)
    assert room.waits == [7, None]


def test_conditions(m: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(m, "_POLL_S", 3 * SOON)
    for changed in (
        m.RunBudget(1, 1)._changed,
        threading.Condition(),
        threading.Condition(threading.Lock()),
    ):
        with pytest.raises(RuntimeError, match="un-acquired"):
            m._wait(changed, m.never)
        held = threading.Event()

        def wait(changed: threading.Condition = changed, held: threading.Event = held) -> None:
            with changed:
                held.set()
                m._wait(changed, m.never)

        waiter = Task(wait)
        assert held.wait(SOON)
        with changed:  # free only once the waiter sleeps
            changed.notify()
        waiter.result()


def test_host_condition(m: ModuleType) -> None:
    """A bound's condition is the host's to use as any other."""
    changed = m.RunBudget(1, 1)._changed
    assert isinstance(changed, threading.Condition)
    for _ in range(3):
        assert changed.acquire()
    assert changed.wait(0.001) is False
    assert changed.wait_for(lambda: False, timeout=0.001) is False
    assert changed.wait_for(lambda: 7) == 7
    changed.notify_all()
    assert Task(changed.acquire, False).result() is False, "a wait takes the whole depth back"
    for _ in range(3):
        changed.release()
    for misuse in (changed.release, changed.wait, changed.notify, changed.notify_all):
        with pytest.raises(RuntimeError):
            misuse()
    assert Task(lambda: changed.acquire(timeout=1) and changed.release()).result() is None
