"""The decision client of the examples, run as a program."""

from __future__ import annotations

import re
import signal
import sqlite3
import threading
import time
from collections.abc import Iterator
from contextlib import closing
from dataclasses import dataclass
from pathlib import Path

import pytest
from decision_client.__main__ import main
from decision_client.endpoint import Behaviour, EmbeddedEndpoint

from korvane.engines.decision_account import PaidCalls, SharedSpend, sqlite
from support import start

TIMEOUT_S = 50
# What keeps a run short and the same each time, unless a test says otherwise.
CALM = ["--latency=0.01", "--failures=0", "--stalls=0"]
STOPPING = "stopping once the calls in flight have ended"
COST = 0.003


@dataclass(frozen=True)
class Run:
    """What a finished run showed."""

    status: int
    out: str
    err: str

    def row(self, name: str) -> str:
        match = re.search(rf"^ *{name} {{2,}}(.*?) *$", self.out, re.MULTILINE)
        assert match, f"no row {name!r} in:\n{self.out}\n{self.err}"
        return match[1]

    def usd(self, name: str) -> float:
        return float(self.row(name).split()[0].lstrip("$"))

    @property
    def reason(self) -> str:
        return self.out.splitlines()[-1]


@dataclass
class Program:
    """Runs the client on an account of its own, with whatever texts a test writes."""

    folder: Path
    ledger: Path
    shown: pytest.CaptureFixture[str]
    log: pytest.LogCaptureFixture

    def text(self, *paragraphs: str) -> str:
        path = self.folder / "text.txt"
        path.write_text("\n\n".join(paragraphs))
        return str(path)

    def run(self, *arguments: str) -> Run:
        self.log.clear()
        status = main([f"--ledger={self.ledger}", *arguments])
        out, err = self.shown.readouterr()
        return Run(status, out, err + self.log.text)


@pytest.fixture
def program(
    tmp_path: Path,
    capsys: pytest.CaptureFixture[str],
    caplog: pytest.LogCaptureFixture,
    monkeypatch: pytest.MonkeyPatch,
) -> Program:
    if (left := 86400 - time.time() % 86400) < 20:
        time.sleep(left)  # a test's runs are on one day
    monkeypatch.setenv("COLUMNS", "200")
    return Program(tmp_path, tmp_path / "account.sqlite3", capsys, caplog)


class Gate(EmbeddedEndpoint):
    """An endpoint that lets its callers wait."""

    def __init__(self) -> None:
        super().__init__(Behaviour(0.0, 0.0, 0.0, 0))
        self.asked, self.open = threading.Event(), threading.Event()

    def answer(self, body: bytes) -> tuple[int, dict[str, object]]:
        self.asked.set()
        assert self.open.wait(TIMEOUT_S)
        return 200, {"decision": "file", "input_tokens": 5, "cost": COST}


@pytest.fixture
def gate() -> Iterator[Gate]:
    with Gate() as gate:
        yield gate
        gate.open.set()


def numbered(count: int) -> list[str]:
    return [f"Letter {number}: the tap by the shed has a leak." for number in range(count)]


def test_as_shipped_and_a_second_run_goes_on_from_the_first(program: Program) -> None:
    """The defaults: failures, a stalled reply and repeated paragraphs, and all is answered."""
    first = program.run()
    assert first.status == 0, first.err
    assert first.row("answered") == "62 of 62 paragraphs"
    failed, lost = map(int, re.findall(r"\d+", first.row("failed attempts")))
    assert failed > lost > 0
    assert int(first.row("calls")) + int(first.row("cache_hits")) == 62 + lost
    assert int(first.row("cache_hits")) == 19
    assert first.reason == "exit status 0: everything was answered"
    assert "WARNING" not in first.err
    assert first.usd("spent before") == 0
    assert first.usd("spent now") == pytest.approx(first.usd("cost_usd"), abs=1e-4)
    assert first.usd("billed") < first.usd("spent now") < first.usd("billed") + first.usd("lost")

    second = program.run(
        *(*CALM, "--cap=0.10", "--ask=Who mends a leak?", program.text("A loan.", "A loan."))
    )
    assert second.status == 0, second.err
    assert re.search(r"'Who mends a leak\?': repairs \(\$0\.00\d\d\)", second.out)
    assert (second.row("calls"), second.row("cache_hits")) == ("1", "1")
    assert second.usd("spent before") == first.usd("spent now")
    both = first.usd("spent now") + second.usd("billed")
    assert second.usd("spent now") == pytest.approx(both, abs=1.1e-4)
    assert second.row("spent now").endswith("of $0.10"), "the cap is the last run's"


def test_the_cap_holds_where_replies_are_lost(program: Program) -> None:
    """By the endpoint's bill; and answers that were paid for are still used."""
    letters = numbered(30)
    run = program.run(
        *("--cap=0.03", "--workers=32", "--stalls=0.5", "--failures=0", "--latency=0.01"),
        *("--timeout=0.2", "--attempts=8", program.text(*letters, *letters)),
    )
    assert (run.status, run.err.count("The daily decision cost cap is reached")) == (4, 1), run.out
    assert run.reason == "exit status 4: the day's cap is reached"
    assert run.usd("lost") > 0
    assert run.usd("billed") <= run.usd("spent now") <= 0.03 + 0.01
    assert run.usd("spent now") >= 0.03
    answered = int(run.row("answered").split()[0])
    assert run.row("left undone") == f"{60 - answered}: the day's cap is reached"
    assert int(run.row("cache_hits")) == answered / 2


@pytest.mark.parametrize("times", [1, 2])
def test_interrupted(program: Program, gate: Gate, times: int) -> None:
    """The first Ctrl-C waits for the call in flight; the second does not, and it counts as lost."""
    options = [f"--ledger={program.ledger}", f"--endpoint={gate.url}", "--timeout=50"]
    process = start("-m", "decision_client", *options, program.text(*numbered(3)))
    assert gate.asked.wait(TIMEOUT_S)
    process.send_signal(signal.SIGINT)
    assert process.stderr and any(STOPPING in line for line in process.stderr)
    if times == 1:
        gate.open.set()
    else:
        process.send_signal(signal.SIGINT)
    out, err = process.communicate(timeout=TIMEOUT_S)
    run = Run(process.returncode, out, err)
    assert run.status == 130, run.err
    with SharedSpend(f"sqlite:///{program.ledger}", 5.0) as spend:
        if times == 1:
            assert run.reason == "exit status 130: stopped by Ctrl-C"
            assert run.row("left undone") == "2: stopped by Ctrl-C"
            assert run.usd("spent now") == spend.spent() == COST
        else:
            assert "exit status 130: stopped by Ctrl-C, twice" in run.err
            with PaidCalls(spend, unknown_cost=1.0).call(1):
                assert spend.figures().lost == 0.01


def test_a_ledger_that_cannot_be_written(
    program: Program, gate: Gate, monkeypatch: pytest.MonkeyPatch
) -> None:
    """Somebody locks it while a call is under way, and does not let go."""
    with closing(sqlite3.connect(program.ledger, check_same_thread=False)) as holder:

        def lock(body: bytes) -> tuple[int, dict[str, object]]:
            holder.execute("BEGIN IMMEDIATE")
            monkeypatch.setattr(sqlite, "LIMIT_S", 0.1)
            return 200, {"decision": "file", "input_tokens": 5, "cost": COST}

        monkeypatch.setattr(gate, "answer", lock)
        run = program.run(f"--endpoint={gate.url}", "--timeout=50", program.text("A leak."))
    assert run.row("answered") == "1 of 1 paragraphs"
    assert run.row("ledger") == "1 ended calls could not be written"
    assert run.reason == "exit status 6: the ledger could not be opened, read or written"


def test_one_line_for_what_cannot_be_run(program: Program, monkeypatch: pytest.MonkeyPatch) -> None:
    """Nothing is paid then: what cannot be recorded is not asked."""
    monkeypatch.setattr(sqlite, "LIMIT_S", 0.1)
    binary = program.folder / "photo.txt"
    binary.write_bytes(b"\xff\xd8\xff\xe0")
    empty = program.text("  ", "")
    locked = program.folder / "locked.sqlite3"
    holder = sqlite3.connect(locked)
    holder.execute("BEGIN EXCLUSIVE")
    cases: list[tuple[int, str, str]] = [
        (2, "missing.txt", "cannot read missing.txt: No such file or directory"),
        (2, str(program.folder), "Is a directory"),
        (2, str(binary), "it is not UTF-8 text"),
        (2, empty, f"nothing to answer: no paragraph in {empty}"),
        (2, "--cap=-1", "--cap: '-1' is not a number, 0 or more"),
        (2, "--latency=1e300", "--latency: '1e300' is not a number from 0 to 86400"),
        (2, "--workers=0", "--workers: '0' is not a whole number above 0"),
        (2, "--endpoint=localhost", "is not an http or https address"),
        (2, "--endpoint=http://a..b/", "is not an http or https address"),
        (2, "--no-such", "unrecognized arguments: --no-such"),
        (6, f"--ledger={program.folder}", "cannot be written: unable to open database file"),
        (6, "--ledger=mysql://there", "not the URL of an account: 'mysql://there'"),
        (6, f"--ledger={locked}", "does not answer: database is locked; nothing was asked"),
    ]
    with closing(holder):
        for status, argument, words in cases:
            run = program.run(argument)
            told = [line for line in run.err.splitlines() if not line.startswith("WARNING")]
            assert (run.status, run.out, len(told)) == (status, "", 1), run
            assert told[0].startswith(f"exit status {status}: ") and words in told[0]
