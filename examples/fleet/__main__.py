"""The program: a pass over the shipped texts by a fleet of processes under one cap."""

from __future__ import annotations

import argparse
import logging
import sys
import tempfile
from collections.abc import Sequence
from contextlib import ExitStack
from itertools import cycle, islice
from pathlib import Path
from typing import Any

from decision_client.__main__ import SHIPPED, paragraphs_of, stop_on_interrupt
from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.options import BadOption, Parser, amount, positive, url
from decision_client.passes import End
from decision_client.report import ConsoleLog, Display, print_line
from distributed.comm.addressing import resolve_address
from rich.console import Console
from throwaway_postgres import Server, ServerError

from fleet.coordinator import FleetPass
from fleet.engine import existing, local
from fleet.member import Settings
from fleet.report import Result
from korvane.engines.decision_account import SharedSpend
from korvane.engines.decision_bounds import DecisionError, RunBudget

_EPILOG = """\
exit status: 0 the promise held; 1 it was broken, or some requests failed; 2 bad arguments, or
something that the fleet needs is not there; 6 the account failed; 130 stopped by Ctrl-C
"""


def _options(argv: Sequence[str] | None) -> argparse.Namespace:
    parser = Parser(prog="python -m fleet", description=__doc__, epilog=_EPILOG, allow_abbrev=False)

    def add(name: str, kind: Any, default: Any, metavar: str, words: str) -> None:
        words += "" if default is None else " (default: %(default)s)"
        parser.add_argument(name, type=kind, default=default, metavar=metavar, help=words)

    add("--cap", amount, 1.0, "USD", "what the paid calls of a UTC day may cost, of all fleets")
    add("--workers", positive, 4, "N", "worker processes")
    add("--threads", positive, 8, "N", "calls at once in each process")
    add("--calls", positive, 600, "N", "texts to decide")
    add("--endpoint", url, None, "URL", "an existing one, not the embedded one")
    add("--scheduler", resolve_address, None, "ADDRESS", "an existing one, with its workers")
    place = parser.add_mutually_exclusive_group()
    place.add_argument("--account", metavar="URL", help="an existing one, not a new one in SQLite")
    place.add_argument("--postgres", action="store_true", help="a new account in PostgreSQL")
    parser.add_argument("--json", action="store_true", help="print the result for programs")
    return parser.parse_args(argv)


def main(argv: Sequence[str] | None = None) -> int:
    notes = Console(stderr=True)
    logging.basicConfig(level=logging.WARNING, handlers=[ConsoleLog(notes)])
    try:
        with ExitStack() as stack:
            status, reason = _run(_options(argv), notes, stack)
    except (BadOption, DecisionError, OSError, ServerError) as error:
        status, reason = End.NOT_BEGUN, str(error)
    print_line(notes, f"exit status {status:d}: {reason}")
    return status


def _run(options: argparse.Namespace, notes: Console, stack: ExitStack) -> tuple[int, str]:
    stop = stack.enter_context(stop_on_interrupt(notes))
    folder = Path(stack.enter_context(tempfile.TemporaryDirectory()))
    account = options.account or f"sqlite:///{folder}/spend.db"
    if options.postgres:
        account = stack.enter_context(Server(folder)).url
    spend = stack.enter_context(SharedSpend(account, options.cap, name="coordinator"))
    spend.spent()  # raises what is wrong with it before anything is begun
    behaviour = Behaviour(latency=0.15, failures=0.05, stalls=0.0, seed=1)
    embedded = stack.enter_context(EmbeddedEndpoint(behaviour))
    settings = Settings(account, options.endpoint or embedded.url, options.cap)
    ours = local(options.workers, options.threads, folder)
    engine = stack.enter_context(existing(options.scheduler) if options.scheduler else ours)
    budget = RunBudget(sys.maxsize, sys.maxsize, should_stop=stop.is_set)
    with Display(notes, options.calls, budget, spend, None, stop.is_set) as display:
        batch = FleetPass(engine, settings, budget, stop)
        outcomes = batch.run(_texts(options.calls), display.show)
    billed = None if options.endpoint else embedded.billed
    result = Result(spend, settings.fleet, outcomes, billed)
    result.print(as_json=options.json)
    return result.end


def _texts(count: int) -> list[str]:
    """As many different texts: the shipped paragraphs, over and over, each with a number."""
    paragraphs = cycle(text for path in SHIPPED for text in paragraphs_of(path))
    return [f"{text} ({number})" for number, text in enumerate(islice(paragraphs, count))]


if __name__ == "__main__":
    sys.exit(main())
