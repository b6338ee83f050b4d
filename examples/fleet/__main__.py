"""The program: a pass over the shipped texts by a fleet of processes under one cap."""

from __future__ import annotations

import argparse
import logging
import re
import signal
import sys
import threading
from collections.abc import Iterator, Sequence
from contextlib import ExitStack, contextmanager, suppress
from datetime import UTC, datetime, timedelta
from pathlib import Path
from types import FrameType
from typing import Any, NoReturn

from decision_client.endpoint import Behaviour, EmbeddedEndpoint
from decision_client.options import amount, count, positive, url
from decision_client.passes import End
from decision_client.report import ConsoleLog, print_line
from rich.console import Console

from fleet import report
from fleet.account import MICRO, Account, AccountError, AccountUnreachable, books, connect
from fleet.cluster import EngineError, FleetPass, existing, local
from fleet.member import Settings
from fleet.postgres import Server, ServerError

_BUILD = Path("build")
_TEXTS = Path(__file__).parent.parent / "texts"
_EPILOG = """\
exit status:
  0    the promise held, whatever was answered or refused
  1    the promise was broken, or some requests failed
  2    bad arguments, or something that the fleet needs is not there
  130  stopped by Ctrl-C

examples:
  %(prog)s --cap 0.30 --json
  %(prog)s --day 2026-03-01T23:59:58        midnight comes in mid-pass
  %(prog)s --account postgresql://fleet@db/accounts --scheduler tcp://10.0.0.1:8786 \\
      --endpoint https://models.example/decide
"""


class CannotBegin(Exception):
    """Bad arguments, or something that the fleet needs is not there; one line says which."""


def moment(text: str) -> datetime:
    with suppress(ValueError, OverflowError):
        start = datetime.fromisoformat(text)
        start = start.astimezone(UTC) if start.tzinfo else start.replace(tzinfo=UTC)
        return start + timedelta(days=1) - timedelta(days=1)  # the run may see the next day
    raise argparse.ArgumentTypeError(f"{text!r} is not a date YYYY-MM-DD")


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

    add("--cap", amount, 1.0, "USD", "what the fleet may pay on one UTC day")
    add("--slice", amount, 0.02, "USD", "what a process leases at a time, at least")
    add("--workers", positive, 4, "N", "worker processes")
    add("--threads", positive, 8, "N", "calls at once in each process")
    add("--calls", positive, 600, "N", "texts to decide")
    add("--max-calls", count, 1_000_000, "N", "paid calls of the pass")
    add("--max-tokens", count, 1_000_000_000, "N", "input tokens of the pass")
    add("--day", moment, None, "YYYY-MM-DD[Thh:mm:ss]", "pretend that the run starts then (UTC)")
    add("--latency", amount, 0.15, "S", "what a reply of the embedded endpoint takes")
    add("--endpoint", url, None, "URL", "an existing endpoint, in place of the embedded one")
    add("--account", str, None, "URL", "an existing PostgreSQL, in place of a throw-away one")
    add("--scheduler", str, None, "ADDRESS", "an existing Dask scheduler, with workers of its own")
    parser.add_argument("--json", action="store_true", help="print the result for programs")
    options = parser.parse_args(argv)
    if options.day and options.account:
        parser.error("--day moves the clock of a throw-away account only, not that of --account")
    return options


def main(argv: Sequence[str] | None = None) -> int:
    notes = Console(stderr=True)
    logging.basicConfig(level=logging.WARNING, handlers=[ConsoleLog(notes)])
    try:
        with ExitStack() as stack:
            return _run(_options(argv), notes, stack)
    except (CannotBegin, ServerError, AccountError, AccountUnreachable, EngineError) as error:
        print_line(notes, f"exit status {End.NOT_BEGUN:d}: {error}")
        return End.NOT_BEGUN


def _run(options: argparse.Namespace, notes: Console, stack: ExitStack) -> int:
    stop = stack.enter_context(_stop_on_interrupt())
    settings, endpoint = _settings(options, stack)
    engine = (
        existing(options.scheduler)
        if options.scheduler
        else local(options.workers, options.threads, _BUILD / "fleet")
    )
    client = stack.enter_context(engine)
    if options.day:
        seconds = (options.day - datetime.now(UTC)).total_seconds()
        with connect(settings.account) as connection:
            connection.execute(f"ALTER DATABASE account SET fleet.shift = '{seconds:.6f} seconds'")
    show = stack.enter_context(report.progress(notes))
    fleet = FleetPass(client, settings, max_calls=options.max_calls, max_tokens=options.max_tokens)
    outcomes = fleet.run(_texts(options.calls), stop, show)
    result = report.Result.of(
        books(settings.account, settings.fleet),
        outcomes,
        cap=settings.cap,
        billed=endpoint.billed if endpoint else None,
    )
    result.print(as_json=options.json)
    status, reason = result.end
    print_line(notes, f"exit status {status:d}: {reason}")
    return status


def _settings(
    options: argparse.Namespace, stack: ExitStack
) -> tuple[Settings, EmbeddedEndpoint | None]:
    """The account and the endpoint of the run, checked before anything is leased."""
    account = options.account
    if account is None:
        account = stack.enter_context(Server(_BUILD / "fleet")).new_database("account")
    endpoint = None
    if options.endpoint is None:
        behaviour = Behaviour(latency=options.latency, failures=0.05, stalls=0.0, seed=1)
        endpoint = stack.enter_context(EmbeddedEndpoint(behaviour))
    settings = Settings(
        account=account,
        endpoint=options.endpoint or (endpoint.url if endpoint else ""),
        cap=options.cap,
        slice=options.slice,
        threads=options.threads,
    )
    check = Account(account, f"{settings.fleet}/", round(options.cap * MICRO), settings.term)
    stack.callback(check.close)
    check.lease(0)
    return settings, endpoint


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
