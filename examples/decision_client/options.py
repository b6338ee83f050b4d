"""What a run may be told on the command line."""

from __future__ import annotations

import argparse
import math
from collections.abc import Callable, Sequence
from dataclasses import dataclass
from datetime import UTC, datetime
from pathlib import Path
from typing import NoReturn

import httpx
from platformdirs import user_state_path

_DESCRIPTION = """\
Ask a paid model endpoint which desk each paragraph of the given texts belongs to, from many threads
at once, inside the budget of the pass and the cap on what a day's calls may cost.
"""
_EPILOG = """\
how a run is bounded:
  Before a call is sent it holds what it may cost of the day's cap and what it may use of the
  pass's tokens, learned from the replies so far; the first call, of which nothing is known, runs
  alone. A call that finds no room waits for the calls in flight. The day's account starts from
  the ledger, so a second run goes on from what the first one spent. Equal paragraphs are paid
  once. Ctrl-C ends the pass when its calls in flight have ended, a second Ctrl-C at once.

exit status:
  0    everything was answered
  1    some requests failed, after all their attempts
  2    bad arguments or an unreadable file
  3    refused: the budget of the pass (--max-calls, --max-tokens) is used up
  4    refused: the day's cap (--cap) is reached
  5    a tool's call (--ask) ran out of its --deadline
  130  stopped by Ctrl-C
  Where several apply, the highest is given.

what an endpoint is asked and what it answers:
  POST {"feature": "paragraph", "text": "..."}     ("question" for --ask)
  200  {"decision": "...", "input_tokens": 57, "cost": 0.00214}     cost in USD
  429 and 5xx are attempted again; any other status is final.

examples:
  %(prog)s                        the texts that come with the example
  %(prog)s letters.txt --cap 0.05 --workers 4
  %(prog)s --ask "Who mends a leaking tap?" --deadline 2
  %(prog)s --ledger /tmp/try.sqlite3 --day 2026-03-01T23:59:59
"""


@dataclass(frozen=True)
class Options:
    """The command line, checked. Durations are in seconds, amounts in USD."""

    files: list[Path]
    ask: list[str]
    cap: float
    max_calls: int
    max_tokens: int
    deadline: float
    workers: int
    attempts: int
    timeout: float
    ledger: Path
    day: datetime | None
    endpoint: str | None
    latency: float
    failures: float
    stalls: float
    seed: int


class _Parser(argparse.ArgumentParser):
    def error(self, message: str) -> NoReturn:
        """One clear line rather than the whole usage before it."""
        self.exit(2, f"decision_client: {message} (--help lists the options)\n")


def parse(argv: Sequence[str] | None) -> Options:
    """The options of a run. Bad ones end the program with one line and status 2."""
    values = vars(_parser().parse_args(argv))
    if values["ledger"] is None:
        # Days that are only pretended stay out of the account of the real ones.
        name = "pretended.sqlite3" if values["day"] else "ledger.sqlite3"
        values["ledger"] = user_state_path("decision_client", appauthor=False) / name
    return Options(**values)


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(
        prog="python -m decision_client",
        description=_DESCRIPTION,
        epilog=_EPILOG,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        allow_abbrev=False,
    )
    add = parser.add_argument
    add("files", nargs="*", type=Path, metavar="FILE", help="texts (default: the example's own)")
    add(
        "--ask",
        action="append",
        default=[],
        metavar="TEXT",
        help="ask this as a tool does: no pass budget, but a deadline; may be repeated, and with"
        " FILEs it is asked while their pass runs",
    )

    add = parser.add_argument_group("bounds").add_argument
    add(
        "--cap",
        type=_amount,
        default=5.0,
        metavar="USD",
        help="what the paid calls of a UTC day may cost (default: %(default)s)",
    )
    add(
        "--max-calls",
        type=_count,
        default=500,
        metavar="N",
        help="paid calls of the pass (default: %(default)s)",
    )
    add(
        "--max-tokens",
        type=_count,
        default=100_000,
        metavar="N",
        help="input tokens of the pass (default: %(default)s)",
    )
    add(
        "--deadline",
        type=_amount,
        default=5.0,
        metavar="S",
        help="how long a tool's call may take (default: %(default)s)",
    )
    add(
        "--ledger",
        type=Path,
        metavar="PATH",
        help="SQLite file of what every paid call cost (default: in the user's state directory)",
    )
    add(
        "--day",
        type=_moment,
        metavar="YYYY-MM-DD[Thh:mm:ss]",
        help="pretend that the run starts on this UTC day, at this time; moves a run across"
        " midnight. Without --ledger it then uses a ledger for pretended days",
    )

    add = parser.add_argument_group("requests").add_argument
    add(
        "--workers",
        type=_positive,
        default=8,
        metavar="N",
        help="requests of the pass at once (default: %(default)s)",
    )
    add(
        "--attempts",
        type=_positive,
        default=4,
        metavar="N",
        help="attempts per request, each admitted anew (default: %(default)s)",
    )
    add(
        "--timeout",
        type=_amount,
        default=1.0,
        metavar="S",
        help="how long an attempt waits for its reply (default: %(default)s)",
    )
    add(
        "--endpoint",
        type=_url,
        metavar="URL",
        help="the endpoint (default: an embedded one on loopback)",
    )

    add = parser.add_argument_group("embedded endpoint").add_argument
    add(
        "--latency",
        type=_amount,
        default=0.15,
        metavar="S",
        help="what a reply takes, half of it more or less (default: %(default)s)",
    )
    add(
        "--failures",
        type=_share,
        default=0.08,
        metavar="SHARE",
        help="share of the attempts that it answers with 503 (default: %(default)s)",
    )
    add(
        "--stalls",
        type=_share,
        default=0.04,
        metavar="SHARE",
        help="share of the attempts that it bills and never answers (default: %(default)s)",
    )
    add(
        "--seed",
        type=int,
        default=1,
        metavar="N",
        help="decides which attempts these are (default: %(default)s)",
    )
    return parser


def _checked[T: (int, float)](
    convert: Callable[[str], T], fits: Callable[[T], bool], wanted: str
) -> Callable[[str], T]:
    def check(text: str) -> T:
        try:
            value = convert(text)
        except ValueError:
            value = None
        if value is None or not fits(value):
            raise argparse.ArgumentTypeError(f"{text!r} is not {wanted}")
        return value

    return check


_positive = _checked(int, lambda value: value > 0, "a whole number above 0")
_count = _checked(int, lambda value: value >= 0, "a whole number, 0 or more")
_amount = _checked(float, lambda value: 0 <= value < math.inf, "a number, 0 or more")
_share = _checked(float, lambda value: 0 <= value <= 1, "a number from 0 to 1")


def _url(text: str) -> str:
    try:
        url = httpx.URL(text)
    except httpx.InvalidURL:
        url = httpx.URL()
    if url.scheme not in ("http", "https") or not url.host:
        raise argparse.ArgumentTypeError(f"{text!r} is not an http or https address")
    return text


def _moment(text: str) -> datetime:
    try:
        moment = datetime.fromisoformat(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"{text!r} is not a date YYYY-MM-DD") from None
    return moment.astimezone(UTC) if moment.tzinfo else moment.replace(tzinfo=UTC)
