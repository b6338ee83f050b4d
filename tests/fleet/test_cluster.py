"""Passes of a fleet on Dask's workers and on a plain pool of processes; the program."""

import json
import math
import os
import pickle
import signal
import subprocess
import sys
import threading
from collections import Counter
from collections.abc import Iterator
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import pytest

from support import SOON, Task

pytest.importorskip("distributed", reason="the fleet's libraries are not installed")
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.passes import End
from fleet.__main__ import main
from fleet.account import MICRO, books
from fleet.cluster import FleetPass, FleetPlugin, Progress, local
from fleet.member import Settings
from fleet_support import Join, balanced

TEXTS = [f"the gate of garden {number} is stuck" for number in range(60)]


@pytest.fixture(scope="module")
def cluster(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Any]:
    with local(2, 4, tmp_path_factory.mktemp("cluster")) as client:
        yield client


@pytest.fixture
def endpoint() -> Iterator[EmbeddedEndpoint]:
    with EmbeddedEndpoint(Behaviour(latency=0.05, failures=0.1, stalls=0.0, seed=1)) as endpoint:
        yield endpoint


def ends(
    cluster: Any,
    settings: Settings,
    *,
    calls: int = 999,
    tokens: int = 99_999,
    show: Any = lambda now: None,
) -> Counter[End]:
    fleet = FleetPass(cluster, settings, max_calls=calls, max_tokens=tokens)
    return Counter(outcome.end for outcome in fleet.run(TEXTS, threading.Event(), show))


def what_is_known(dask_worker: Any) -> float:
    (plugin,) = (each for each in dask_worker.plugins.values() if isinstance(each, FleetPlugin))
    return plugin.member.status().rates.tokens(1)


def test_the_limits_of_a_pass_are_used_up_and_kept(
    cluster: Any, url: str, endpoint: EmbeddedEndpoint
) -> None:
    known = []

    def show(now: Progress) -> None:
        if now.ended and len(known) < 2:
            known.append(sorted(map(math.isfinite, cluster.run(what_is_known).values())))

    # Slow, so that calls are in flight whenever what is left is split anew.
    with EmbeddedEndpoint(Behaviour(latency=0.5, failures=0.0, stalls=0.0, seed=1)) as slow:
        settings = Settings(url, slow.url, cap=9.0, threads=4)
        found = ends(cluster, settings, calls=41, show=show)
    assert found == {End.ANSWERED: 41, End.OUT_OF_BUDGET: 19}
    assert known == [[False, True], [True, True]], "what one process learns, all know"
    for book in books(url):
        assert book.leased > book.handed_back == book.leased - book.paid, "handed back at the end"
    again = Settings(url, endpoint.url, cap=9.0, threads=4)
    one = books(url)[0].tokens // books(url)[0].calls
    answered = ends(cluster, again, tokens=20 * one)[End.ANSWERED]
    assert 20 <= answered <= 22, "each process's last call may pass its part of the tokens"
    assert balanced(url)


def test_two_coordinators_share_one_cap(cluster: Any, url: str, endpoint: EmbeddedEndpoint) -> None:
    passes = [Settings(url, endpoint.url, cap=0.12, slice=0.01, threads=4) for _ in range(2)]
    tasks = [Task(ends, cluster, settings) for settings in passes]
    found = sum((task.result() for task in tasks), Counter())
    assert set(found) == {End.ANSWERED, End.CAP_REACHED}
    paid, allowed = (
        sum(getattr(book, name) for book in books(url)) for name in ("paid", "dearest")
    )
    assert 120_000 <= paid <= 120_000 + allowed
    assert paid == round(endpoint.billed * MICRO)
    assert balanced(url)


def test_a_worker_that_dies_is_replaced_and_its_texts_are_decided(
    cluster: Any, url: str, endpoint: EmbeddedEndpoint
) -> None:
    settings = Settings(url, endpoint.url, cap=9.0, threads=4, term=1.0)
    killed, unread = [], 0

    def kill(now: Progress) -> None:
        nonlocal unread
        if now.ended > len(TEXTS) / 2 and not killed:
            busy = max(now.books, key=lambda book: book.calls)
            killed.append(busy.owner)
            os.kill(int(busy.owner.split("-")[-1]), signal.SIGKILL)
            unread = sum(book.calls for book in books(url)) - now.ended

    assert ends(cluster, settings, show=kill) == {End.ANSWERED: len(TEXTS)}
    (dead,) = (book for book in books(url) if book.owner in killed)
    lost = round(endpoint.billed * MICRO) - sum(book.paid for book in books(url))
    assert 0 <= lost <= 4 * dead.dearest
    again = sum(book.calls for book in books(url)) - len(TEXTS)
    assert 0 <= again <= unread + 4, "answers that were here already are not paid again"
    assert balanced(url)


def test_a_pass_that_fails_leaves_its_workers_free(
    cluster: Any, url: str, endpoint: EmbeddedEndpoint, join: Join
) -> None:
    def fail(after: int) -> None:
        def show(now: Progress) -> None:
            if sum(book.paid for book in now.books) >= after:
                raise KeyboardInterrupt

        settings = Settings(url, endpoint.url, cap=9.0, slice=0.01, threads=4)
        with pytest.raises(KeyboardInterrupt):
            ends(cluster, settings, show=show)

    fail(after=4000)  # with calls in flight
    found = books(url)
    paid = round(endpoint.billed * MICRO)
    assert sum(book.paid for book in found) == paid
    assert all(book.leased - book.handed_back == book.paid for book in found)
    other = join(url, "other", cap=9_000_000)
    day = other.lease(9_000_000 - paid - 30_000).day
    fail(after=30_000)  # with calls that wait for what the other may still hand back
    other.hand_back(day)
    settings = Settings(url, endpoint.url, cap=9.0, threads=4)
    assert Task(ends, cluster, settings).result() == {End.ANSWERED: len(TEXTS)}
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


@contextmanager
def started(folder: Path, arguments: str) -> Iterator[subprocess.Popen[str]]:
    with subprocess.Popen(
        [sys.executable, "-m", "fleet", *arguments.split()],
        cwd=folder,
        env={**os.environ, "PYTHONPATH": os.pathsep.join(sys.path)},
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
        text=True,
        process_group=0,
    ) as run:
        try:
            yield run
        finally:
            run.kill()


def test_the_program_prints_its_figures(postgres: Any, tmp_path: Path) -> None:
    with started(tmp_path, "--json --cap 0.05 --workers 2 --threads 4 --calls 40") as run:
        out, err = run.communicate(timeout=5 * SOON)
    assert run.returncode == 0, err
    figures = json.loads(out)
    names = "cap paid billed overshoot allowed processes refused answered"
    assert figures.keys() == set(names.split())
    assert figures["paid"] == figures["billed"] >= figures["cap"] == 0.05
    assert figures["paid"] - 0.05 == pytest.approx(figures["overshoot"])
    assert figures["overshoot"] <= figures["allowed"]
    assert figures["refused"] + figures["answered"] == 40
    assert len(figures["processes"]) == 2
    for process in figures["processes"]:
        assert process.keys() == {"leased", "paid", "handed_back"}
    assert err.endswith("exit status 0: the day's cap is reached\n")


def test_ctrl_c_ends_with_the_summary(url: str, tmp_path: Path) -> None:
    with started(tmp_path, f"--account {url} --workers 1 --threads 2 --calls 400") as run:
        while "ended" not in run.stderr.readline():
            assert run.poll() is None
        os.killpg(run.pid, signal.SIGINT)  # the terminal tells every process
        out, err = run.communicate(timeout=3 * SOON)
    assert run.returncode == 130
    assert "promise    held" in out and "stopped" in out
    assert err.endswith("exit status 130: stopped by Ctrl-C\n")


def test_bad_input_is_one_line(
    postgres: Any,
    monkeypatch: pytest.MonkeyPatch,
    tmp_path: Path,
    capsys: pytest.CaptureFixture[str],
) -> None:
    monkeypatch.chdir(tmp_path)
    monkeypatch.setenv("COLUMNS", "999")
    for arguments, words in (
        ("--slice -1", "argument --slice: '-1' is not a number, 0 or more"),
        ("--account postgresql://127.0.0.1:1/x", "the account does not answer: "),
        ("--day 2026-03-01 --account x", "--day moves the clock of a throw-away"),
        ("--scheduler nowhere", "no scheduler answers at nowhere: "),
    ):
        assert main(arguments.split()) == 2
        out, err = capsys.readouterr()
        assert out == "" and err.count("\n") == 1
        assert err.startswith(f"exit status 2: {words}")
