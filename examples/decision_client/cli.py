"""The program: puts the parts of a run together, and takes them apart again."""

from __future__ import annotations

import logging
import signal
import sys
import threading
from collections.abc import Callable, Iterator, Sequence
from contextlib import closing, contextmanager
from datetime import UTC, datetime, timedelta
from types import FrameType

from rich.console import Console

from decision_client import report
from decision_client.client import DecisionClient
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.ledger import Ledger
from decision_client.options import Options, parse
from decision_client.passes import End, Pass
from decision_client.progress import ConsoleLog, Display
from decision_client.texts import UnreadableText, read_paragraphs, shipped_texts
from decision_client.wire import Endpoint, Request
from korvane.engines.decision_bounds import RunBudget


def main(argv: Sequence[str] | None = None) -> int:
    options = parse(argv)
    # Questions alone are tools' calls: there is no pass then.
    files = options.files or ([] if options.ask else shipped_texts())
    try:
        texts = [text for path in files for text in read_paragraphs(path)]
    except UnreadableText as error:
        print(f"decision_client: {error}", file=sys.stderr)
        return 2
    return _run(options, [Request("paragraph", text) for text in texts])


def _run(options: Options, paragraphs: list[Request]) -> End:
    questions = [Request("question", text) for text in options.ask]
    notes, results = Console(stderr=True), Console()
    logging.basicConfig(level=logging.WARNING, handlers=[ConsoleLog(notes)])
    today = _calendar(options.day)
    with (
        _stop_on_interrupt() as stop,
        closing(Ledger(options.ledger)) as ledger,
        _endpoint(options) as (endpoint, embedded),
    ):
        client = DecisionClient(
            endpoint,
            cap=options.cap,
            today=today,
            ledger=ledger,
            attempts=options.attempts,
            stop=stop,
        )
        budget = RunBudget(options.max_calls, options.max_tokens, should_stop=stop.is_set)
        before = report.Account(today(), client.spent())
        total = len(paragraphs) + len(questions)
        with Display(notes, total, budget, client.stats, stop.is_set) as display:
            decided, asked = Pass(client, budget, options.workers).run(
                paragraphs, questions, options.deadline, display.show
            )
        billed = embedded.billed if embedded else None
        after = report.Account(today(), client.spent())

    report.print_answers(results, asked)
    if paragraphs:
        report.print_summary(results, budget.summary(), decided, client.stats)
    report.print_account(results, before, after, options.cap, billed)
    end = max((outcome.end for outcome in [*decided, *asked]), default=End.ANSWERED)
    report.print_end(results, end, [*decided, *asked])
    return end


@contextmanager
def _endpoint(options: Options) -> Iterator[tuple[Endpoint, EmbeddedEndpoint | None]]:
    """The endpoint to ask, and the embedded one that answers where none was named."""
    if options.endpoint:
        with closing(Endpoint(options.endpoint, options.timeout, use_proxies=True)) as endpoint:
            yield endpoint, None
    else:
        behaviour = Behaviour(options.latency, options.failures, options.stalls, options.seed)
        with (
            EmbeddedEndpoint(behaviour) as embedded,
            closing(Endpoint(embedded.url, options.timeout, use_proxies=False)) as endpoint,
        ):
            yield endpoint, embedded


@contextmanager
def _stop_on_interrupt() -> Iterator[threading.Event]:
    """An event that Ctrl-C sets. A second Ctrl-C ends the program as if nobody handled it."""
    stop = threading.Event()

    def interrupt(_signal: int, _frame: FrameType | None) -> None:
        stop.set()
        signal.signal(signal.SIGINT, signal.SIG_DFL)

    previous = signal.signal(signal.SIGINT, interrupt)
    try:
        yield stop
    finally:
        signal.signal(signal.SIGINT, previous)


def _calendar(start: datetime | None) -> Callable[[], str]:
    """Gives today's UTC date, as if this moment were ``start``."""
    shift = start - datetime.now(UTC) if start else timedelta()
    return lambda: (datetime.now(UTC) + shift).date().isoformat()
