"""Passes of a fleet on each of its engines; the program."""

import json
import os
import re
import signal
import threading
from collections import Counter
from collections.abc import Callable, Iterator
from concurrent.futures import ProcessPoolExecutor
from itertools import repeat
from multiprocessing import get_context
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

from support import Task, admit, start

pytest.importorskip("distributed", reason="the fleet's libraries are not installed")
import distributed
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.passes import End, Outcome
from decision_client.wire import Reply, Request
from fleet import coordinator, engine
from fleet.__main__ import main
from fleet.coordinator import FleetPass
from fleet.engine import Dask, existing, local
from fleet.member import Settings, decide
from fleet.report import Result

from korvane.engines.decision_account import Books, SharedSpend
from korvane.engines.decision_bounds import RunBudget

TEXTS = [f"the gate of garden {number} is stuck" for number in range(40)]
FAULTLESS = Behaviour(latency=0.0, failures=0.0, stalls=0.0, seed=1)
PATIENCE_S = 240


@pytest.fixture(scope="module")
def dask(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Dask]:
    with local(2, 4, tmp_path_factory.mktemp("cluster")) as dask:
        yield dask


class Run:
    """A pass of its own, on a thread of its own where two are to run."""

    def __init__(self, engine: Dask, settings: Settings, *, calls: int = 999) -> None:
        self.settings = settings
        self.stop = threading.Event()
        self.budget = RunBudget(calls, 99_999, should_stop=self.stop.is_set)
        self._pass = FleetPass(engine, settings, self.budget, self.stop)

    def __call__(self, show: Callable[[int], object] = bool) -> Counter[End]:
        self.outcomes = self._pass.run(TEXTS, lambda answered, undone: show(answered + undone))
        assert [outcome.request.text for outcome in self.outcomes] == TEXTS
        return Counter(outcome.end for outcome in self.outcomes)

    def result(self, billed: float | None) -> Result:
        with SharedSpend(self.settings.account, self.settings.cap) as spend:
            return Result(spend, self.settings.fleet, self.outcomes, billed)


def paid(result: Result) -> float:
    return sum(book.paid for book in result.processes)


def processes(dask: Dask) -> list[int]:
    return list(dask._client.run(os.getpid, on_error="ignore").values())


def test_a_pool_of_processes_as_it_is(account: str, endpoint: EmbeddedEndpoint) -> None:
    settings = Settings(account, endpoint.url, cap=0.03)
    requests = [Request("paragraph", text) for text in TEXTS]
    with ProcessPoolExecutor(2, get_context("forkserver")) as pool:
        answers = list(pool.map(decide, requests, repeat(settings)))
    assert {outcome.end for outcome, _ in answers} == {End.ANSWERED, End.CAP_REACHED}
    with SharedSpend(account, 0.03) as spend:
        result = Result(spend, settings.fleet, [], endpoint.billed)
    assert result.broken == ""
    assert paid(result) == pytest.approx(sum(used.cost for _, used in answers if used))


class InStep(EmbeddedEndpoint):
    """Answers the first attempt at once, and the others eight at a time."""

    eight = threading.Barrier(8)

    def answer(self, body: bytes) -> tuple[int, dict[str, object]]:
        if self.billed:
            self.eight.wait()
        return super().answer(body)


def test_as_many_calls_run_at_once_as_there_are_threads(dask: Dask, account: str) -> None:
    with InStep(FAULTLESS) as endpoint:
        run = Run(dask, Settings(account, endpoint.url, cap=9.0, timeout=PATIENCE_S), calls=33)
        assert run() == {End.ANSWERED: 33, End.OUT_OF_BUDGET: 7}


class Garbled(EmbeddedEndpoint):
    """Bills the first attempt of some texts, and answers it with what nobody can read. They are
    too few to be taken for an outage."""

    texts = TEXTS[::10]

    def answer(self, body: bytes) -> tuple[int, dict[str, object]]:
        status, answer = super().answer(body)
        text = json.loads(body)["text"]
        garbled = text in self.texts and self._attempts[text] == 1
        return (200, {}) if garbled else (status, answer)


def test_lost_replies_are_paid_calls_of_the_pass(dask: Dask, account: str) -> None:
    with Garbled(FAULTLESS) as endpoint:
        settings = Settings(account, endpoint.url, cap=9.0, timeout=PATIENCE_S)
        run = Run(dask, settings, calls=len(TEXTS + endpoint.texts))
        assert run() == {End.ANSWERED: len(TEXTS)}
        result = run.result(endpoint.billed)
    assert run.budget.calls == len(TEXTS + endpoint.texts)
    assert run.budget.cost == pytest.approx(paid(result))
    assert result.broken == "" and sum(book.lost for book in result.processes) > 0


def test_four_coordinators_at_once_share_one_cap(
    dask: Dask, account: str, endpoint: EmbeddedEndpoint
) -> None:
    runs = [Run(dask, Settings(account, endpoint.url, cap=0.1)) for _ in range(4)]
    tasks = [Task(run) for run in runs]
    for task in tasks:
        task.join(PATIENCE_S)
        assert set(task.result()) == {End.ANSWERED, End.CAP_REACHED}
    results = [run.result(None) for run in runs]
    assert sum(map(paid, results)) == pytest.approx(endpoint.billed)
    for result in results:
        assert result.overshoot == pytest.approx(endpoint.billed - 0.1)
        assert 0 <= result.overshoot <= result.allowed
        assert result.broken == ""


def test_a_worker_that_dies_is_replaced_and_its_texts_are_decided(
    dask: Dask, account: str, endpoint: EmbeddedEndpoint
) -> None:
    run = Run(dask, Settings(account, endpoint.url, cap=9.0, patience=5.0))
    killed: list[int] = []

    def kill(ended: int) -> None:
        """In mid-pass, and again where nothing is left to do: no answer is lost with it."""
        while len(killed) < (ended > 10) + (ended == len(TEXTS)):
            for process in [one for one in processes(dask) if one not in killed][:1]:
                os.kill(process, signal.SIGKILL)
                killed.append(process)

    assert run(kill) == {End.ANSWERED: len(TEXTS)}
    assert len(killed) == 2
    assert run.result(endpoint.billed).broken == ""
    assert run.budget.calls <= len(TEXTS) + 8


def test_a_pass_ends_where_its_workers_do(account: str, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(coordinator, "_GONE_S", 0.5)
    slow = Behaviour(latency=PATIENCE_S, failures=0.0, stalls=0.0, seed=1)
    # In threads: no process has to be started, and the last one leaves at once.
    cluster: Any = distributed.LocalCluster(
        n_workers=1, threads_per_worker=4, processes=False, dashboard_address=None
    )
    with cluster, existing(cluster.scheduler_address) as dask, EmbeddedEndpoint(slow) as endpoint:
        run = Run(dask, Settings(account, endpoint.url, cap=9.0))
        assert run(lambda ended: cluster.scale(0)) == {End.FAILED: len(TEXTS)}
    assert run.result(None).end == (1, "some requests failed: no process of the engine is left")


def test_one_stop_ends_a_pass_whose_worker_hangs(
    dask: Dask, account: str, endpoint: EmbeddedEndpoint, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(coordinator, "_GRACE_S", 0.5)
    run = Run(dask, Settings(account, endpoint.url, cap=9.0, timeout=0.5))
    asleep = processes(dask)

    def hang(ended: int) -> None:
        if ended and not run.stop.is_set():
            for process in asleep:
                os.kill(process, signal.SIGSTOP)
            run.stop.set()

    try:
        ends = run(hang)
    finally:
        for process in asleep:
            os.kill(process, signal.SIGCONT)
    assert ends[End.STOPPED] and set(ends) <= {End.STOPPED, End.ANSWERED}


def test_a_stop_reaches_calls_that_wait_for_room(
    dask: Dask, account: str, endpoint: EmbeddedEndpoint
) -> None:
    run = Run(dask, Settings(account, endpoint.url, cap=0.01, timeout=PATIENCE_S))
    with SharedSpend(account, 0.01) as other, admit(other, 9.0):
        assert run(lambda _: run.budget.in_flight and run.stop.set()) == {End.STOPPED: len(TEXTS)}


def test_the_report_of_a_broken_promise() -> None:
    def result(paid: float, billed: float, *, beyond: float = 0.0, ends: Any = ()) -> Result:
        book = Books("2026-03-01", "it/a", 3, 1.2, 0.03, paid, 0.02, 0.05, beyond)
        other = Books("2026-03-01", "another/a", 3, 1.2, 0.1, 0.4, 0.0, 0.01, 0.0)
        before = Books("2026-02-28", "another/a", 3, 1.2, 0.1, 1.4, 0.0, 0.09, 0.1)
        spend: Any = SimpleNamespace(
            books=lambda days: [before, book, other], figures=lambda: SimpleNamespace(cap=1.0)
        )
        outcomes = [Outcome(Request("paragraph", ""), end, message=end.name) for end in ends]
        return Result(spend, "it", outcomes, billed)

    assert result(0.6, 0.6).end == result(0.64, 0.63).end == (0, End.ANSWERED.reason)
    assert result(0.66, 0.66).end == (1, "the cap was passed by more than one call")
    assert result(0.66, 0.66, beyond=0.02).broken == ""
    assert result(0.6, 0.59).broken == result(0.6, 0.62).broken == ""
    for billed in (0.57, 0.64):
        assert result(0.6, billed).end == (1, "what was billed is not what was paid")
    ends = [End.FAILED, End.LEDGER_FAILED, End.CAP_REACHED, End.OUT_OF_BUDGET, End.ANSWERED]
    failed = result(0.6, 0.6, ends=ends)
    assert failed.end == (6, f"{End.LEDGER_FAILED.reason}: LEDGER_FAILED")
    assert failed.fields().items() >= {"answered": 1, "refused": 2, "failed": 2}.items()
    with SharedSpend("sqlite://", 1.0, name="it/b") as spend:
        admit(spend, 0.1).settle(Reply("", 1, cost=1.5))
        dearer = Result(spend, "it", [], 1.5)
    assert dearer.dearer == pytest.approx(1.4) and dearer.broken == ""


def test_a_cluster_an_endpoint_and_an_account_that_are_there(
    dask: Dask, account: str, endpoint: EmbeddedEndpoint, capsys: pytest.CaptureFixture[str]
) -> None:
    scheduler = dask._client.cluster.scheduler_address
    places = f"--scheduler {scheduler} --endpoint {endpoint.url} --account {account}"
    assert main(f"{places} --json --cap 0.04 --calls 40".split()) == 0
    out, err = capsys.readouterr()
    figures = json.loads(out)
    names = "cap paid billed overshoot allowed processes refused answered failed"
    assert figures.keys() == set(names.split())
    assert figures["billed"] is None and figures["cap"] == 0.04
    assert figures["paid"] == pytest.approx(endpoint.billed)
    assert 0 <= figures["overshoot"] <= figures["allowed"] < 0.01
    assert figures["refused"] + figures["answered"] == 40
    assert err.splitlines()[-1].startswith("exit status 0: the day's cap is reached"), err


def test_one_ctrl_c_ends_with_the_summary(tmp_path: Path) -> None:
    """Of a program that starts all it needs. The terminal tells every process, and no worker heeds
    it: what was in flight is answered."""
    options = ["--workers=1", "--threads=2", "--calls=4000"]
    with start("-m", "fleet", *options, cwd=tmp_path, process_group=0) as run:
        while " 2 in flight" not in (line := run.stderr.readline()):
            assert line, "it ended"
        os.killpg(run.pid, signal.SIGINT)
        out, err = run.communicate(timeout=PATIENCE_S)
    assert run.returncode == 130, err
    rows = dict(re.findall(r"^ +(\w+) +(.*\S)", out, re.MULTILINE))
    assert rows["promise"] == "held" and "stopped" in rows["refused"]
    assert rows["paid"] == rows["billed"] and "$0.000000 of it lost" in out, out
    assert "Traceback" not in err, err
    assert err.splitlines()[-1].startswith("exit status 130: stopped by Ctrl-C")


def test_bad_input_is_one_line(
    monkeypatch: pytest.MonkeyPatch, capsys: pytest.CaptureFixture[str]
) -> None:
    monkeypatch.setattr(engine, "_SILENCE_S", 0.1)
    for arguments, words in (
        ("--cap -1", "argument --cap: '-1' is not a number, 0 or more"),
        ("--scheduler nonsense", "argument --scheduler: invalid "),
        ("--scheduler 127.0.0.1:1", "Timed out trying to connect to tcp://127.0.0.1:1 "),
        ("--account postgresql://127.0.0.1:1/x", "the account 127.0.0.1/x does not answer: "),
    ):
        assert main(arguments.split()) == 2
        out, err = capsys.readouterr()
        assert out == "" and err.count("\n") == 1
        assert err.startswith(f"exit status 2: {words}"), err
