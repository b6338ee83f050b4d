"""Processes of a fleet that are killed, that sleep, and that share nothing but the account."""

import json
import os
import pickle
import signal
import subprocess
import sys
from collections.abc import Callable, Iterator
from contextlib import ExitStack

import pytest
from support import SOON

pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from fleet.account import MICRO, Books, books
from fleet.member import Settings
from fleet_support import balanced, until

THREADS = 4
CAP = 200_000
# Asks until it is refused, from every thread, and says why.
_PROCESS = """
import itertools, json, sys, threading
from fleet import member
member.join(member.Settings(**json.loads(sys.argv[1])))
def run(number):
    for call in itertools.count():
        outcome = member.decide(f"text {call} of thread {number}")
        if outcome.end:
            return print(outcome.message, flush=True)
for number in range(int(sys.argv[2])):
    threading.Thread(target=run, args=(number,)).start()
"""

type Start = Callable[[str], subprocess.Popen[str]]


@pytest.fixture
def endpoint() -> Iterator[EmbeddedEndpoint]:
    with EmbeddedEndpoint(Behaviour(latency=0.05, failures=0.1, stalls=0.0, seed=1)) as endpoint:
        yield endpoint


@pytest.fixture
def start(url: str, endpoint: EmbeddedEndpoint) -> Iterator[Start]:
    """Starts a process of the fleet, and ends it with the test."""
    with ExitStack() as stack:

        def start(fleet: str) -> subprocess.Popen[str]:
            settings = {"account": url, "endpoint": endpoint.url, "cap": CAP / MICRO, "slice": 0.05}
            settings |= {"threads": THREADS, "term": 1.0, "fleet": fleet}
            process = stack.enter_context(
                subprocess.Popen(
                    [sys.executable, "-c", _PROCESS, json.dumps(settings), str(THREADS)],
                    env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
                    stdout=subprocess.PIPE,
                    stderr=subprocess.PIPE,
                    text=True,
                )
            )
            stack.callback(process.kill)
            return process

        yield start


def book(url: str, fleet: str) -> Books:
    return next(iter(books(url, fleet)))


def wait_for_calls(url: str, fleet: str) -> None:
    until(lambda: any(book.calls >= 2 * THREADS for book in books(url, fleet)))


def test_a_killed_process_costs_what_its_rows_prove(
    url: str, endpoint: EmbeddedEndpoint, start: Start
) -> None:
    victim = start("victim")
    wait_for_calls(url, "victim")
    victim.kill()
    victim.wait()
    out, _ = start("other").communicate(timeout=SOON)
    assert out.count("cap is reached") == THREADS
    dead, other = book(url, "victim"), book(url, "other")
    assert dead.handed_back > 0, "its lease returns"
    total = dead.paid + other.paid
    assert 0.99 * CAP <= total <= CAP + other.dearest
    lost = round(endpoint.billed * MICRO) - total
    assert 0 <= lost <= THREADS * dead.dearest, "the calls that were in flight, at most"
    assert balanced(url)


def test_a_process_that_slept_cannot_spend_what_others_were_given(
    url: str, endpoint: EmbeddedEndpoint, start: Start
) -> None:
    sleeper = start("sleeper")
    wait_for_calls(url, "sleeper")
    sleeper.send_signal(signal.SIGSTOP)
    asleep = book(url, "sleeper")
    out, _ = start("other").communicate(timeout=SOON)
    assert out.count("cap is reached") == THREADS
    sleeper.send_signal(signal.SIGCONT)
    out, err = sleeper.communicate(timeout=SOON)
    assert out.count("cap is reached") == THREADS
    assert "silent past its lease" in err
    awake, other = book(url, "sleeper"), book(url, "other")
    assert awake.calls - asleep.calls <= THREADS, "its calls in flight, and no other"
    total = awake.paid + other.paid
    assert total == round(endpoint.billed * MICRO)
    assert 0.99 * CAP <= total <= CAP + other.dearest + THREADS * awake.dearest
    assert balanced(url)


def test_a_pool_of_processes_hands_back_as_it_ends(url: str, endpoint: EmbeddedEndpoint) -> None:
    settings = Settings(url, endpoint.url, cap=1.0, slice=0.1)
    program = (
        "import pickle, sys; from fleet.pool import decide_all;"
        "settings = pickle.load(sys.stdin.buffer);"
        "outcomes = decide_all([str(number) for number in range(40)], settings, 4);"
        "sys.exit(max(outcome.end for outcome in outcomes))"
    )
    subprocess.run(
        [sys.executable, "-c", program],
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        input=pickle.dumps(settings),
        timeout=3 * SOON,
        check=True,
    )
    found = books(url)
    assert len(found) == 4
    assert sum(book.paid for book in found) == round(endpoint.billed * MICRO)
    for book in found:
        assert book.leased - book.handed_back == book.paid
    assert balanced(url)
