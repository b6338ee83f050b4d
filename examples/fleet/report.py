"""What a fleet's pass shows: a line now and then, a table or JSON when it has ended."""

from __future__ import annotations

import json
from collections import Counter
from collections.abc import Sequence
from dataclasses import dataclass

from decision_client.passes import End, Outcome
from decision_client.report import print_line, print_table
from rich.console import Console

from korvane.engines.decision_account import Books, SharedSpend

_DUST = 1e-9  # of sums


def print_progress(console: Console, spend: SharedSpend, total: int, ended: int) -> None:
    now = spend.figures()
    line = (
        f"{ended}/{total} ended, ${now.paid:.4f} of ${now.cap:.2f} paid today by all, "
        f"{now.in_flight} calls in flight hold ${now.held:.4f}"
    )
    print_line(console, line if now.answers else f"{line}; the account does not answer")


@dataclass(frozen=True)
class Result:
    """What became of a pass; amounts in USD."""

    cap: float
    billed: float | None
    processes: Sequence[Books]  # of the pass
    day: Sequence[Books]  # of all who paid on its day; where midnight came, on the dearer one
    ends: Counter[End]

    @classmethod
    def of(
        cls, spend: SharedSpend, fleet: str, outcomes: Sequence[Outcome], billed: float | None
    ) -> Result:
        found = spend.books(days=2)
        own = [book for book in found if book.name.startswith(f"{fleet}/")]
        days = [[book for book in found if book.day == day] for day in {book.day for book in own}]
        ends = Counter(outcome.end for outcome in outcomes)
        return cls(spend.figures().cap, billed, own, max(days, key=_paid, default=[]), ends)

    @property
    def overshoot(self) -> float:
        return max(0.0, _paid(self.day) - self.cap)

    @property
    def allowed(self) -> float:
        """One call: the dearest of the day."""
        return max((book.dearest for book in self.day), default=0.0)

    @property
    def dearer(self) -> float:
        """What calls cost more than any before them had: the cap cannot answer for that."""
        return sum(book.beyond for book in self.day)

    @property
    def broken(self) -> str:
        """What was promised and is not so, if anything. Of the calls of the dead, those that are
        open still or count what they held, nobody knows whether they were billed."""
        if self.overshoot > self.allowed + self.dearer + _DUST:
            return "the cap was passed by more than one call"
        least = _paid(self.processes) - sum(book.lost for book in self.processes)
        most = _paid(self.processes) + sum(book.in_flight for book in self.processes)
        if self.billed is None or least - _DUST <= self.billed <= most + _DUST:
            return ""
        return "what was billed is not what was paid"

    @property
    def end(self) -> tuple[int, str]:
        """The exit status and its reason. To be refused at the cap is no failure here."""
        if self.broken:
            return 1, self.broken
        for end in (End.STOPPED, End.FAILED):
            if self.ends[end]:
                return end, end.reason
        return 0, max(self.ends, default=End.ANSWERED).reason

    def fields(self) -> dict[str, object]:
        answered, failed = self.ends[End.ANSWERED], self.ends[End.FAILED]
        return {
            "cap": self.cap,
            "paid": _usd(_paid(self.processes)),
            "billed": None if self.billed is None else _usd(self.billed),
            "overshoot": _usd(self.overshoot),
            "allowed": _usd(self.allowed),
            "processes": [
                {
                    "leased": _usd(book.held),
                    "paid": _usd(book.paid),
                    "handed_back": _usd(book.held - book.paid),
                }
                for book in self.processes
            ],
            "refused": self.ends.total() - answered - failed,
            "answered": answered,
            "failed": failed,
        }

    def print(self, *, as_json: bool) -> None:
        fields = self.fields()
        if as_json:
            return print(json.dumps(fields))
        fields["dearer"] = f"${self.dearer:.6f}: what calls cost beyond what they held"
        fields["processes"] = "\n".join(
            f"{book.name}: {book.calls} calls, ${book.paid:.6f} paid, ${book.lost:.6f} of it lost"
            for book in self.processes
        )
        refused = self.ends.keys() - {End.ANSWERED, End.FAILED}
        fields["refused"] = ", ".join(f"{self.ends[end]} {end.name.lower()}" for end in refused)
        fields["promise"] = self.broken or "held"
        print_table(Console(), "The pass", fields)


def _paid(books: Sequence[Books]) -> float:
    return sum(book.paid for book in books)


def _usd(amount: float) -> float:
    return round(amount, 6)
