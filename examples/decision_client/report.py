"""What a run ends with: the questions' answers, the summary of the pass, and why it ended."""

from __future__ import annotations

from collections import Counter
from collections.abc import Iterable, Mapping, Sequence
from dataclasses import dataclass
from typing import Any

from rich.console import Console
from rich.table import Table
from rich.text import Text

from decision_client.passes import End, Outcome
from decision_client.stats import Stats


@dataclass(frozen=True)
class Account:
    """The day's account at one end of a run, USD."""

    day: str
    spent: float


def print_answers(console: Console, questions: Iterable[Outcome]) -> None:
    for question in questions:
        if question.reply:
            result = f"{question.reply.decision} (${question.reply.cost:.4f})"
        else:
            result = f"no answer, {question.end.reason}: {question.message}"
        line = f"{question.request.text!r}: {result}"
        console.print(line, soft_wrap=True, markup=False, highlight=False)


def print_summary(
    console: Console, summary: Mapping[str, Any], paragraphs: Sequence[Outcome], stats: Stats
) -> None:
    """The pass's summary as its budget gives it, and what it does not count."""
    ends = Counter(outcome.end for outcome in paragraphs)
    decisions = Counter(outcome.reply.decision for outcome in paragraphs if outcome.reply)
    _print_table(console, "The pass", summary)
    _print_table(
        console,
        "Its calls",
        {
            "answered": f"{ends[End.ANSWERED]} of {len(paragraphs)} paragraphs",
            "left undone": _left_undone(ends),
            "decisions": ", ".join(f"{name} {count}" for name, count in decisions.most_common()),
            "failed attempts": f"{stats.failed}, {stats.unread} of them sent and never read",
            "waited for room": f"{stats.waited} times, {stats.waited_s:.1f} s in all",
        },
    )


def print_account(
    console: Console, before: Account, after: Account, cap: float, billed: float | None
) -> None:
    rows = {
        "spent before": f"${before.spent:.4f} on {before.day}",
        "spent now": f"${after.spent:.4f} on {after.day}, of ${cap:.2f}",
    }
    if billed is not None:
        rows["billed"] = f"${billed:.4f} by the embedded endpoint"
    _print_table(console, "The day's account (UTC)", rows)


def print_end(console: Console, end: End, outcomes: Iterable[Outcome]) -> None:
    """Why the run ended, in the words of the first call that ended so."""
    words = next((outcome.message for outcome in outcomes if outcome.end is end), "")
    line = f"Ended: {end.reason}" + (f" ({words})" if words else "") + "."
    console.print(line, soft_wrap=True, markup=False, highlight=False)


def _left_undone(ends: Counter[End]) -> str:
    causes = (f"{count}: {end.reason}" for end, count in sorted(ends.items()) if end)
    return "; ".join(causes) or "none"


def _print_table(console: Console, title: str, rows: Mapping[str, Any]) -> None:
    table = Table(title=title, title_justify="left", show_header=False, box=None, padding=(0, 2))
    for name, value in rows.items():
        table.add_row(name, Text(str(value)))
    console.print(table)
    console.print()
