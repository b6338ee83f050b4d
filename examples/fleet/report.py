"""What a fleet's pass shows: a line while it runs, a table or JSON when it has ended."""

from __future__ import annotations

import json
import time
from collections import Counter
from collections.abc import Callable, Iterator, Sequence
from contextlib import contextmanager
from dataclasses import dataclass

from decision_client.passes import End, Outcome
from decision_client.report import print_line
from rich.console import Console
from rich.table import Table

from korvane.engines.decision_account import Books, SharedSpend

_LINE_EVERY_S = 1.0
_DUST = 1e-9  # of sums


@contextmanager
def progress(console: Console, spend: SharedSpend, total: int) -> Iterator[Callable[[int], None]]:
    """Shows a pass: one live line on a terminal, now and then a line elsewhere."""
    shown = time.monotonic()

    def show(ended: int) -> None:
        nonlocal shown
        now = spend.figures()
        line = (
            f"{ended}/{total} ended, ${now.paid:.4f} of ${now.cap:.2f} paid today by all, "
            f"{now.in_flight} calls in flight hold ${now.held:.4f}"
        ) + ("" if now.answers else "; the account does not answer")
        if console.is_terminal:
            status.update(line)
        elif time.monotonic() - shown > _LINE_EVERY_S:
            shown = time.monotonic()
            print_line(console, line)

    with console.status("starting") as status:
        yield show


@dataclass(frozen=True)
class Result:
    """What became of a pass; amounts in USD."""

    cap: float
    billed: float | None
    processes: Sequence[Books]  # of the pass
    day: Sequence[Books]  # of all who paid on its day
    ends: Counter[End]

    @classmethod
    def of(
        cls, spend: SharedSpend, fleet: str, outcomes: Sequence[Outcome], billed: float | None
    ) -> Result:
        """Judge a pass by the account's books; where midnight came, by the dearer day's."""
        found = spend.books(days=2)
        own = [book for book in found if book.name.startswith(f"{fleet}/")]
        days = [[book for book in found if book.day == day] for day in {book.day for book in own}]
        return cls(
            cap=spend.figures().cap,
            billed=billed,
            processes=own,
            day=max(days, key=_paid, default=[]),
            ends=Counter(outcome.end for outcome in outcomes),
        )

    @property
    def paid(self) -> float:
        """By the pass. Calls that never said how they ended are in it at what they held."""
        return _paid(self.processes)

    @property
    def overshoot(self) -> float:
        """By how much the day's account passed the cap, whoever paid."""
        return max(0.0, _paid(self.day) - self.cap)

    @property
    def allowed(self) -> float:
        """One call: the dearest of the day."""
        return max((book.dearest for book in self.day), default=0.0)

    @property
    def beyond(self) -> float:
        """What calls cost more than any before them had: for that the cap cannot answer."""
        return sum(book.beyond for book in self.day)

    @property
    def broken(self) -> str:
        """What was promised and is not so, if anything."""
        if self.overshoot > self.allowed + self.beyond + _DUST:
            return "the cap was passed by more than one call"
        lost = sum(book.lost for book in self.processes)
        if self.billed is not None and not -_DUST <= self.paid - self.billed <= lost + _DUST:
            return "what was billed is not what was paid"
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
        answered, failed = self.ends[End.ANSWERED], self.ends[End.FAILED]
        return {
            "cap": self.cap,
            "paid": round(self.paid, 6),
            "billed": None if self.billed is None else round(self.billed, 6),
            "overshoot": round(self.overshoot, 6),
            "allowed": round(self.allowed, 6),
            "processes": [
                {
                    "leased": round(book.held, 6),
                    "paid": round(book.paid, 6),
                    "handed_back": round(book.held - book.paid, 6),
                }
                for book in self.processes
            ],
            "refused": self.ends.total() - answered - failed,
            "answered": answered,
            "failed": failed,
        }

    def _print_tables(self, console: Console) -> None:
        table = Table("process", "day", box=None, title="by process")
        for column in ("calls", "held", "paid", "for lost calls"):
            table.add_column(column, justify="right")
        for book in self.processes:
            amounts = (f"${usd:.6f}" for usd in (book.held, book.paid, book.lost))
            table.add_row(book.name.split("/")[-1], book.day, str(book.calls), *amounts)
        console.print(table)
        whole = Table(box=None, title="over all", show_header=False)
        billed = "unknown" if self.billed is None else f"${self.billed:.6f}"
        for name, value in {
            "paid": f"${self.paid:.6f}",
            "billed": f"{billed} by the endpoint",
            "cap": f"${self.cap:.6f} a day",
            "overshoot": f"${self.overshoot:.6f}, allowed ${self.allowed:.6f}: one call",
            "beyond": f"${self.beyond:.6f}: what calls cost more than any before them",
            "calls": ", ".join(f"{n} {end.name.lower()}" for end, n in sorted(self.ends.items())),
            "promise": self.broken or "held",
        }.items():
            whole.add_row(name, value)
        console.print(whole)


def _paid(books: Sequence[Books]) -> float:
    return sum(book.paid for book in books)
