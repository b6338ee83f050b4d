"""The program: a pass over the shipped texts by a fleet of processes under one cap."""

from __future__ import annotations

import argparse
import logging
import re
import signal
import sys
import tempfile
import threading
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager
from pathlib import Path
from types import FrameType
from typing import Any, NoReturn

from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.options import amount, count, positive, url
from decision_client.passes import End
from decision_client.report import ConsoleLog, print_line
from rich.console import Console

from fleet import report
from fleet.coordinator import FleetPass
from fleet.engines import Dask, Engine, EngineError, Pool, existing, local
from fleet.member import Settings
from korvane.engines.decision_account import AccountError, AccountSilent, SharedSpend
from korvane.engines.decision_bounds import RunBudget

_BUILD = Path("build", "fleet")
_TEXTS = Path(__file__).parent.parent / "texts"
_EPILOG = """\
exit status:
  0    the promise held, whatever was answered or refused
  1    the promise was broken, or some requests failed
  2    bad arguments, or something that the fleet needs is not there
  130  stopped by Ctrl-C

examples:
  %(prog)s --cap 0.30 --json
  %(prog)s --postgres
  %(prog)s --account postgresql://fleet@db/accounts --scheduler tcp://10.0.0.1:8786 \\
      --endpoint https://models.example/decide
"""


class CannotBegin(Exception):
    """Bad arguments; one line says which."""


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        raise CannotBegin(f"{message} (--help lists the options)")


def _options(argv: Sequence[str] | None) -> argparse.Namespace:
    parser = _Parser(
        prog="python -m fleet",
        description=__doc__,
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )

    def add(name: str, kind: Any, default: Any, metavar: str, words: str) -> None:
        words += "" if default is None else " (default: %(default)s)"
        parser.add_argument(name, type=kind, default=default, metavar=metavar, help=words)

    add("--cap", amount, 1.0, "USD", "what the paid calls of a UTC day may cost, of all fleets")
    add("--workers", positive, 4, "N", "worker processes")
    add("--threads", positive, 8, "N", "calls at once in each process")
    add("--calls", positive, 600, "N", "texts to decide")
    add("--max-calls", count, 1_000_000, "N", "paid calls of the pass")
    add("--max-tokens", count, 1_000_000_000, "N", "input tokens of the pass")
    add("--latency", amount, 0.15, "S", "what a reply of the embedded endpoint takes")
    add("--endpoint", url, None, "URL", "an existing endpoint, in place of the embedded one")
    add("--account", str, None, "URL", "an existing account, in place of a new one in SQLite")
    add("--scheduler", str, None, "ADDRESS", "an existing Dask scheduler, with workers of its own")
    for name, words in {
        "--postgres": "a new account in a throw-away PostgreSQL",
        "--pool": "a pool of processes in place of Dask, of one thread each",
        "--json": "print the result for programs",
    }.items():
        parser.add_argument(name, action="store_true", help=words)
    return parser.parse_args(argv)


def main(argv: Sequence[str] | None = None) -> int:
    notes = Console(stderr=True)
    logging.basicConfig(level=logging.WARNING, handlers=[ConsoleLog(notes)])
    try:
        with ExitStack() as stack:
            return _run(_options(argv), notes, stack)
    except (CannotBegin, AccountError, AccountSilent, EngineError) as error:
        print_line(notes, f"exit status {End.NOT_BEGUN:d}: {error}")
        return End.NOT_BEGUN


def _run(options: argparse.Namespace, notes: Console, stack: ExitStack) -> int:
    stop = stack.enter_context(_stop_on_interrupt())
    account = options.account or stack.enter_context(_new_account(options.postgres))
    spend = stack.enter_context(SharedSpend(account, options.cap, name="coordinator"))
    spend.spent()  # raises what is wrong with it before anything is begun
    endpoint = None
    if options.endpoint is None:
        behaviour = Behaviour(latency=options.latency, failures=0.05, stalls=0.0, seed=1)
        endpoint = stack.enter_context(EmbeddedEndpoint(behaviour))
    settings = Settings(account, endpoint.url if endpoint else options.endpoint, options.cap)
    engine, width = stack.enter_context(_engine(options))
    budget = RunBudget(options.max_calls, options.max_tokens, should_stop=stop.is_set)
    with report.progress(notes, spend, options.calls) as show:
        fleet = FleetPass(engine, settings, budget, stop)
        outcomes = fleet.run(_texts(options.calls), width, show)
    billed = endpoint.billed if endpoint else None
    result = report.Result.of(spend, settings.fleet, outcomes, billed)
    result.print(as_json=options.json)
    status, reason = result.end
    print_line(notes, f"exit status {status:d}: {reason}")
    return status


@contextmanager
def _new_account(postgres: bool) -> Iterator[str]:
    _BUILD.mkdir(parents=True, exist_ok=True)
    if postgres:
        from throwaway_postgres import Server, ServerError

        try:
            with Server(_BUILD) as server:
                yield server.url
        except ServerError as error:
            raise EngineError(str(error)) from error
    else:
        with tempfile.TemporaryDirectory(dir=_BUILD) as folder:
            yield f"sqlite:///{Path(folder).absolute()}/spend.db"


@contextmanager
def _engine(options: argparse.Namespace) -> Iterator[tuple[Engine, int]]:
    if options.pool:
        with Pool(options.workers) as pool:
            yield pool, options.workers
    elif options.scheduler:
        with existing(options.scheduler) as client:
            yield Dask(client), sum(client.nthreads().values())
    else:
        with local(options.workers, options.threads, _BUILD) as client:
            yield Dask(client), options.workers * options.threads


@contextmanager
def _stop_on_interrupt() -> Iterator[threading.Event]:
    """An event that Ctrl-C sets. A second Ctrl-C ends the program at once."""
    stop = threading.Event()

    def interrupt(_signal: int, _frame: FrameType | None) -> None:
        stop.set()
        signal.signal(signal.SIGINT, signal.SIG_DFL)

    previous = signal.signal(signal.SIGINT, interrupt)
    try:
        yield stop
    finally:
        signal.signal(signal.SIGINT, previous)


def _texts(count: int) -> list[str]:
    """As many different texts: the shipped paragraphs, over and over, each with a number."""
    whole = "\n\n".join(path.read_text(encoding="utf-8") for path in sorted(_TEXTS.glob("*.txt")))
    paragraphs = [" ".join(block.split()) for block in re.split(r"\n\s*\n", whole) if block.strip()]
    return [f"{paragraphs[index % len(paragraphs)]} ({index})" for index in range(count)]


if __name__ == "__main__":
    sys.exit(main())
