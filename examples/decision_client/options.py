"""The command line: one row per option."""

from __future__ import annotations

import argparse
import sys
from collections.abc import Callable, Sequence
from contextlib import suppress
from dataclasses import dataclass, field, fields
from functools import partial
from itertools import groupby
from pathlib import Path
from typing import Any, NoReturn

import httpx
from platformdirs import user_state_path

from decision_client.passes import End

_DESCRIPTION = """\
Ask a paid model endpoint which desk each paragraph of the given texts belongs to, from many threads
at once, inside the budget of the pass and the cap on what a day's calls may cost.
"""
_EPILOG = """\
how a run is bounded:
  Before a call is sent it holds what it may cost of the day's cap and what it may use of the
  pass's tokens, learned from the replies so far; the first call, of which nothing is known, runs
  alone. A call that finds no room waits for the calls in flight. The ledger is an account that any
  number of runs share, at once or one after the other: a second run goes on from what the first
  one spent and learned. A call whose reply is never read counts as much as it held. Equal
  paragraphs are paid once. Ctrl-C ends the pass when its calls in flight have ended, a second
  Ctrl-C at once.

exit status (where several apply, the highest):
{statuses}

what an endpoint is asked and what it answers:
  POST {{"feature": "paragraph", "text": "..."}}     ("question" for --ask)
  200  {{"decision": "...", "input_tokens": 57, "cost": 0.00214}}     cost in USD
  429 and 5xx are attempted again; any other status is final. An endpoint that fails several times
  in a row is left alone for a while, then one call tries it.

examples:
  %(prog)s                        the texts that come with the example
  %(prog)s letters.txt --cap 0.05 --workers 4
  %(prog)s --ask "Who mends a leaking tap?" --deadline 2
  %(prog)s --ledger /tmp/try.sqlite3 --cap 0.10
"""
_DAY_S = 86_400


def _within[T: (int, float)](kind: type[T], low: T, high: float, wanted: str) -> Callable[[str], T]:
    def convert(text: str) -> T:
        with suppress(ValueError):
            if low <= (value := kind(text)) <= high:
                return value
        raise argparse.ArgumentTypeError(f"{text!r} is not {wanted}")

    return convert


count = _within(int, 0, sys.maxsize, "a whole number, 0 or more")
positive = _within(int, 1, sys.maxsize, "a whole number above 0")
amount = _within(float, 0, sys.float_info.max, "a number, 0 or more")
seconds = _within(float, 0, _DAY_S, "a number from 0 to 86400")
share = _within(float, 0, 1, "a number from 0 to 1")


def url(text: str) -> str:
    with suppress(httpx.InvalidURL, ValueError):
        address = httpx.URL(text)
        if address.scheme in ("http", "https") and address.host.encode("idna"):
            return text
    raise argparse.ArgumentTypeError(f"{text!r} is not an http or https address")


def _option(group: str, kind: Any, default: Any, metavar: str, words: str) -> Any:
    if default is not None:
        words += " (default: %(default)s)"
    argument = {"type": kind, "metavar": metavar, "help": words}
    return field(default=default, metadata={"group": group, "argument": argument})


_bound = partial(_option, "bounds")
_request = partial(_option, "requests")
_embedded = partial(_option, "embedded endpoint")


@dataclass(frozen=True)
class Options:
    """The command line, checked. Durations are in seconds, amounts in USD."""

    files: list[Path]
    ask: list[str]

    cap: float = _bound(
        amount,
        5.0,
        "USD",
        "what the paid calls of a UTC day may cost, from now on and for all who share it",
    )
    max_calls: int = _bound(count, 500, "N", "paid calls of the pass")
    max_tokens: int = _bound(count, 100_000, "N", "input tokens of the pass")
    deadline: float = _bound(seconds, 5.0, "S", "how long a tool's call may take")
    unknown_cost: float = _bound(
        amount,
        0.01,
        "USD",
        "what a call whose reply is lost counts while no reply has shown a cost",
    )
    ledger: str | None = _bound(
        str,
        None,
        "PLACE",
        "the account of what the day's calls cost: an SQLite file (default: one in the user's state"
        " directory) for one machine, or postgresql://USER@HOST/DATABASE for many",
    )

    workers: int = _request(positive, 8, "N", "requests of the pass at once")
    attempts: int = _request(positive, 4, "N", "attempts per request, each admitted anew")
    timeout: float = _request(seconds, 1.0, "S", "how long an attempt waits for its reply")
    endpoint: str | None = _request(
        url, None, "URL", "the endpoint (default: an embedded one on loopback)"
    )

    latency: float = _embedded(seconds, 0.15, "S", "what a reply takes, half of it more or less")
    failures: float = _embedded(share, 0.08, "SHARE", "of the attempts: answered with 503")
    stalls: float = _embedded(share, 0.04, "SHARE", "of the attempts: billed, never answered")
    seed: int = _embedded(int, 1, "N", "decides which attempts these are")

    @property
    def ledger_url(self) -> str:
        if self.ledger is None:
            state = user_state_path("decision_client", appauthor=False, ensure_exists=True)
            return f"sqlite:///{state / 'account.sqlite3'}"
        return self.ledger if "://" in self.ledger else f"sqlite:///{Path(self.ledger).absolute()}"


class Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        """Give the reason in one line rather than the whole usage before it."""
        raise BadOption(f"{message} (--help lists the options)")


class BadOption(Exception):
    """The command line cannot be understood; the message says why."""


def parse(argv: Sequence[str] | None) -> Options:
    """The options of a run."""
    statuses = "\n".join(f"  {end:<4} {end.reason}" for end in End)
    parser = Parser(
        prog="python -m decision_client",
        description=_DESCRIPTION,
        epilog=_EPILOG.format(statuses=statuses),
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    parser.add_argument(
        "files", nargs="*", type=Path, metavar="FILE", help="texts (default: the example's own)"
    )
    parser.add_argument(
        "--ask",
        action="append",
        default=[],
        metavar="TEXT",
        help="ask this as a tool does: no pass budget, but a deadline; may be repeated, and with"
        " FILEs it is asked while their pass runs",
    )
    rows = [row for row in fields(Options) if row.metadata]
    for title, group in groupby(rows, key=lambda row: row.metadata["group"]):
        add = parser.add_argument_group(title).add_argument
        for row in group:
            name = "--" + row.name.replace("_", "-")
            add(name, default=row.default, **row.metadata["argument"])
    return Options(**vars(parser.parse_args(argv)))
