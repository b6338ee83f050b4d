"""The program: puts the parts of a run together, and takes them apart again."""

from __future__ import annotations

import logging
import os
import re
import signal
import sys
import threading
from collections.abc import Iterator, Sequence
from contextlib import closing, contextmanager
from pathlib import Path
from types import FrameType

from rich.console import Console

from decision_client import report
from decision_client.client import Client
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.options import BadOption, Options, parse
from decision_client.passes import End, Pass
from decision_client.wire import Endpoint, Request
from korvane.engines.decision_account import AccountError, AccountSilent, PaidCalls, SharedSpend
from korvane.engines.decision_bounds import RunBudget

SHIPPED = sorted(Path(__file__).parent.parent.glob("texts/*.txt"))


class NothingToAnswer(Exception):
    """The files cannot be read or hold no paragraph; the message says which and why."""


def main(argv: Sequence[str] | None = None) -> End:
    notes = Console(stderr=True)
    logging.basicConfig(level=logging.WARNING, handlers=[report.ConsoleLog(notes)])
    try:
        options = parse(argv)
        paragraphs = [Request("paragraph", text) for text in _read(options, notes)]
        spend = _open(options)
    except (BadOption, NothingToAnswer) as error:
        return _end(notes, End.NOT_BEGUN, str(error))
    except (AccountError, AccountSilent, OSError) as error:
        return _end(notes, End.LEDGER_FAILED, f"{error}; nothing was asked")
    except KeyboardInterrupt:
        return _end(notes, End.STOPPED, f"{End.STOPPED.reason}; nothing was asked")
    with spend:
        return _run(options, paragraphs, spend, notes)


def _open(options: Options) -> SharedSpend:
    """The account, which has this run's cap from now on."""
    spend = SharedSpend(options.ledger_url, options.cap)
    try:
        spend.set_cap(options.cap)
    except BaseException:
        spend.close()
        raise
    return spend


def _run(options: Options, paragraphs: list[Request], spend: SharedSpend, notes: Console) -> End:
    questions = [Request("question", text) for text in options.ask]
    before = spend.figures()
    calls = PaidCalls(spend, unknown_cost=options.unknown_cost)
    with stop_on_interrupt(notes) as stop, _endpoint(options) as (endpoint, embedded):
        client = Client(endpoint, calls, attempts=options.attempts, stop=stop)
        budget = RunBudget(options.max_calls, options.max_tokens, should_stop=stop.is_set)
        total = len(paragraphs) + len(questions)
        with report.Display(notes, total, budget, spend, client.stats, stop.is_set) as display:
            decided, asked = Pass(client, budget, options.workers).run(
                paragraphs, questions, options.deadline, display.show
            )
        spend.close()
    run = report.Run(
        decided=decided,
        asked=asked,
        budget=budget,
        stats=client.stats,
        before=before,
        after=spend.figures(),
        billed=embedded.billed if embedded else None,
    )
    results = Console()
    report.print_run(results, run)
    return _end(results, run.end(), run.reason())


def _end(console: Console, end: End, reason: str) -> End:
    """Say the exit status, which make for one does not pass on, and what it means here."""
    report.print_line(console, f"exit status {end}: {reason}")
    return end


def _read(options: Options, notes: Console) -> list[str]:
    # Questions alone are tools' calls: there is no pass then.
    files = options.files or ([] if options.ask else SHIPPED)
    paragraphs, empty = [], []
    for path in files:
        found = paragraphs_of(path)
        paragraphs += found
        if not found:
            empty.append(f"no paragraph in {path}")
    if not paragraphs and not options.ask:
        raise NothingToAnswer(f"nothing to answer: {', '.join(empty)}")
    for words in empty:
        report.print_line(notes, words)
    return paragraphs


def paragraphs_of(path: Path) -> list[str]:
    """The paragraphs of a file: runs of lines between blank ones, each as one line."""
    try:
        text = path.read_text(encoding="utf-8")
    except UnicodeDecodeError as error:
        raise NothingToAnswer(f"cannot read {path}: it is not UTF-8 text") from error
    except OSError as error:
        raise NothingToAnswer(f"cannot read {path}: {error.strerror}") from error
    return [" ".join(block.split()) for block in re.split(r"\n\s*\n", text) if block.strip()]


@contextmanager
def _endpoint(options: Options) -> Iterator[tuple[Endpoint, EmbeddedEndpoint | None]]:
    """The endpoint to ask, and the embedded one that answers where none was named."""
    if options.endpoint:
        with closing(Endpoint(options.endpoint, options.timeout)) as endpoint:
            yield endpoint, None
    else:
        behaviour = Behaviour(options.latency, options.failures, options.stalls, options.seed)
        with (
            EmbeddedEndpoint(behaviour) as embedded,
            closing(Endpoint(embedded.url, options.timeout)) as endpoint,
        ):
            yield endpoint, embedded


@contextmanager
def stop_on_interrupt(notes: Console) -> Iterator[threading.Event]:
    """An event that Ctrl-C sets. A second Ctrl-C ends the program at once."""
    stop = threading.Event()

    def interrupt(_signal: int, _frame: FrameType | None) -> None:
        if stop.is_set():
            notes.show_cursor()
            # Below the live display, which captures what is printed otherwise.
            print(f"\nexit status {End.STOPPED}: {End.STOPPED.reason}, twice", file=sys.__stderr__)
            os._exit(End.STOPPED)
        stop.set()

    previous = signal.signal(signal.SIGINT, interrupt)
    try:
        yield stop
    finally:
        signal.signal(signal.SIGINT, previous)


if __name__ == "__main__":
    sys.exit(main())
