"""What a fleet's pass shows: a line while it runs, a table or JSON when it has ended."""

from __future__ import annotations

import json
import time
from collections import Counter, defaultdict
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass
from decimal import Decimal

from decision_client.passes import End, Outcome
from decision_client.report import print_line
from rich.console import Console
from rich.table import Table

from fleet.account import MICRO, Books
from fleet.cluster import Progress

_LINE_EVERY_S = 1.0


@contextmanager
def progress(console: Console) -> Iterator[Callable[[Progress], None]]:
    """Shows a pass: one live line on a terminal, now and then a line elsewhere."""
    shown = time.monotonic()

    def show(now: Progress) -> None:
        nonlocal shown
        parts = " ".join(f"{_left(book):.4f}" for book in now.books if book.leased)
        paid = sum(book.paid for book in now.books) / MICRO
        line = f"{now.ended}/{now.total} ended, ${paid:.4f} paid, leased and unspent: {parts}"
        if console.is_terminal:
            status.update(line)
        elif time.monotonic() - shown > _LINE_EVERY_S:
            shown = time.monotonic()
            print_line(console, line)

    with console.status("starting") as status:
        yield show


def _left(book: Books) -> Decimal:
    return max(Decimal(0), book.leased - book.handed_back - book.paid) / MICRO


@dataclass(frozen=True)
class Result:
    """What became of a pass; amounts in USD."""

    cap: float
    paid: float
    billed: float | None
    overshoot: float
    allowed: float
    processes: Sequence[Books]
    ends: Counter[End]

    @classmethod
    def of(
        cls,
        books: Sequence[Books],
        outcomes: Sequence[Outcome],
        *,
        cap: float,
        billed: float | None,
    ) -> Result:
        """Judge a pass by the account's books. A run across midnight spends two days' caps."""
        paid: defaultdict[str, Decimal] = defaultdict(Decimal)
        for book in books:
            paid[book.day] += book.paid
        over = sum(max(Decimal(0), day - round(cap * MICRO)) for day in paid.values())
        allowed = sum(book.dearest for book in books)
        return cls(
            cap=cap,
            paid=_usd(sum(paid.values())),
            billed=None if billed is None else round(billed, 6),
            overshoot=_usd(over),
            allowed=_usd(allowed),
            processes=[book for book in books if book.leased or book.calls],
            ends=Counter(outcome.end for outcome in outcomes),
        )

    @property
    def broken(self) -> str:
        """What was promised and is not so, if anything."""
        if self.overshoot > self.allowed:
            return "the cap was passed by more than a call of each process"
        if self.billed not in (None, self.paid):
            return "the endpoint billed calls that no process lived to record"
        return ""

    @property
    def end(self) -> tuple[int, str]:
        """The exit status and its reason. To be refused at the cap is no failure here."""
        if self.broken:
            return 1, self.broken
        for end in (End.STOPPED, End.FAILED):
            if self.ends[end]:
                return end, end.reason
        return 0, max(self.ends, default=End.ANSWERED).reason

    def print(self, *, as_json: bool) -> None:
        if as_json:
            print(json.dumps(self._fields()))
        else:
            self._print_tables(Console())

    def _fields(self) -> dict[str, object]:
        return {
            "cap": self.cap,
            "paid": self.paid,
            "billed": self.billed,
            "overshoot": self.overshoot,
            "allowed": self.allowed,
            "processes": [
                {
                    "leased": _usd(book.leased),
                    "paid": _usd(book.paid),
                    "handed_back": _usd(book.handed_back),
                }
                for book in self.processes
            ],
            "refused": self.ends.total() - self.ends[End.ANSWERED],
            "answered": self.ends[End.ANSWERED],
        }

    def _print_tables(self, console: Console) -> None:
        table = Table("process", "day", box=None, title="by process")
        for column in ("leased", "paid", "handed back", "calls", "round trips"):
            table.add_column(column, justify="right")
        for book in self.processes:
            amounts = (_usd(book.leased), _usd(book.paid), _usd(book.handed_back))
            counts = (book.calls, book.calls + book.requests)
            name = book.owner.split("/")[-1]
            table.add_row(name, book.day, *(f"${usd:.6f}" for usd in amounts), *map(str, counts))
        console.print(table)
        whole = Table(box=None, title="over all", show_header=False)
        billed = "unknown" if self.billed is None else f"${self.billed:.6f}"
        for name, value in {
            "paid": f"${self.paid:.6f}",
            "billed": f"{billed} by the endpoint",
            "cap": f"${self.cap:.6f} a day",
            "overshoot": f"${self.overshoot:.6f}, allowed ${self.allowed:.6f}: "
            "a call of each process",
            "calls": ", ".join(f"{n} {end.name.lower()}" for end, n in sorted(self.ends.items())),
            "promise": self.broken or "held",
        }.items():
            whole.add_row(name, value)
        console.print(whole)


def _usd(micro: Decimal | int) -> float:
    return float(round(Decimal(micro) / MICRO, 6))
