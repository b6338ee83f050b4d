"""What a fleet's pass came to: a table, or JSON."""

from __future__ import annotations

import json
from collections import Counter
from collections.abc import Sequence

from decision_client.passes import End, Outcome
from decision_client.report import print_table
from rich.console import Console

from korvane.engines.decision_account import Books, SharedSpend

_DUST = 1e-9  # of sums
_REFUSALS = (End.OUT_OF_BUDGET, End.CAP_REACHED, End.STOPPED)


class Result:
    """What became of a pass; amounts in USD."""

    def __init__(
        self, spend: SharedSpend, fleet: str, outcomes: Sequence[Outcome], billed: float | None
    ) -> None:
        found = spend.books(days=2)
        self.processes = [book for book in found if book.name.startswith(f"{fleet}/")]
        # Of all who paid on the day of the pass; where midnight came, on the dearer one.
        days = {book.day for book in self.processes}
        by_day = ([book for book in found if book.day == day] for day in days)
        day = max(by_day, key=_paid, default=[])
        self.cap = spend.figures().cap
        self.billed = billed
        self.overshoot = max(0.0, _paid(day) - self.cap)
        # One call: the dearest of the day.
        self.allowed = max((book.dearest for book in day), default=0.0)
        # What calls cost more than any before them had: the cap cannot answer for that.
        self.dearer = sum(book.beyond for book in day)
        self.ends = Counter(outcome.end for outcome in outcomes)
        self._words = {outcome.end: outcome.message for outcome in outcomes}

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
        for end in (End.STOPPED, End.LEDGER_FAILED, End.FAILED):
            if self.ends[end]:
                return end, f"{end.reason}: {self._words[end]}"
        return 0, max(self.ends, default=End.ANSWERED).reason

    def fields(self) -> dict[str, object]:
        answered, refused = self.ends[End.ANSWERED], sum(self.ends[end] for end in _REFUSALS)
        processes = [
            {"leased": _usd(b.held), "paid": _usd(b.paid), "handed_back": _usd(b.held - b.paid)}
            for b in self.processes
        ]
        return {
            "cap": self.cap,
            "paid": _usd(_paid(self.processes)),
            "billed": None if self.billed is None else _usd(self.billed),
            "overshoot": _usd(self.overshoot),
            "allowed": _usd(self.allowed),
            "processes": processes,
            "refused": refused,
            "answered": answered,
            "failed": self.ends.total() - answered - refused,
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
        refused = (f"{self.ends[end]} {end.name.lower()}" for end in _REFUSALS if self.ends[end])
        fields["refused"] = ", ".join(refused)
        fields["promise"] = self.broken or "held"
        print_table(Console(), "The pass", fields)


def _paid(books: Sequence[Books]) -> float:
    return sum(book.paid for book in books)


def _usd(amount: float) -> float:
    return round(amount, 6)
