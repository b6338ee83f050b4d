"""What a run shows: a display while it runs, tables when it has ended.

The display and the warnings share standard error: standard output has nothing but the results.
"""

from __future__ import annotations

import logging
import time
from collections import Counter
from collections.abc import Callable, Mapping, Sequence
from dataclasses import dataclass
from types import TracebackType
from typing import Any, Self

from rich.console import Console, Group
from rich.live import Live
from rich.progress import BarColumn, MofNCompleteColumn, Progress, TimeElapsedColumn
from rich.table import Table
from rich.text import Text

from decision_client.client import Stats
from decision_client.passes import End, Outcome
from korvane.engines.decision_account import Figures, SharedSpend
from korvane.engines.decision_bounds import RunBudget

_LINE_EVERY_S = 1.0


def print_line(console: Console, line: str) -> None:
    """Print text as it is: wrapped at words on a terminal, in one line elsewhere."""
    console.print(line, soft_wrap=not console.is_terminal, markup=False, highlight=False)


class ConsoleLog(logging.Handler):
    """Log records on the console, above a live display."""

    def __init__(self, console: Console) -> None:
        super().__init__(logging.WARNING)
        self.setFormatter(logging.Formatter("%(levelname)s %(name)s: %(message)s"))
        self._console = console

    def emit(self, record: logging.LogRecord) -> None:
        print_line(self._console, self.format(record))


class Display:
    """Shows a run from the outside: a live bar on a terminal, now and then a line elsewhere. The
    stats are this process's: without any where others make the calls."""

    def __init__(
        self,
        console: Console,
        total: int,
        budget: RunBudget,
        spend: SharedSpend,
        stats: Stats | None,
        stopping: Callable[[], bool],
    ) -> None:
        self._console = console
        self._total = total
        self._budget = budget
        self._spend = spend
        self._stats = stats
        self._stopping = stopping
        self._line_at = 0.0
        self._bar = Progress(BarColumn(None), MofNCompleteColumn(), TimeElapsedColumn())
        self._answered = self._bar.add_task("", total=total)
        self._live = Live(console=console, auto_refresh=False, transient=True)

    def __enter__(self) -> Self:
        if self._console.is_terminal:
            self._live.start()
        return self

    def __exit__(
        self,
        _kind: type[BaseException] | None,
        _error: BaseException | None,
        _traceback: TracebackType | None,
    ) -> None:
        self._live.stop()

    def show(self, answered: int, undone: int) -> None:
        """Show how many requests were answered, and how many ended without an answer."""
        if self._console.is_terminal:
            self._bar.update(self._answered, completed=answered)
            self._live.update(Group(self._bar, Text(self._state(undone))), refresh=True)
        elif (now := time.monotonic()) >= self._line_at:
            self._line_at = now + _LINE_EVERY_S
            line = f"{answered} of {self._total} answered: {self._state(undone)}"
            print_line(self._console, line)

    def _state(self, undone: int) -> str:
        budget, stats, day = self._budget, self._stats, self._spend.figures()
        parts = [
            f"{budget.calls} calls",
            f"{budget.cache_hits} cached",
            f"{budget.input_tokens} tokens",
            f"${budget.cost:.4f}",
            f"{budget.in_flight} in flight",
            f"${day.paid:.4f} of ${day.cap:.2f} today",
        ]
        if stats:
            parts += [f"{day.waiting} waiting", f"{stats.failed} failed attempts"]
        if not day.answers:
            parts.append("the ledger does not answer")
        if undone:
            parts.append(f"{undone} left undone")
        if self._stopping():
            parts.append("stopping once the calls in flight have ended")
        return ", ".join(parts)


@dataclass(frozen=True)
class Run:
    """What a run has come to."""

    decided: Sequence[Outcome]  # of the pass's paragraphs
    asked: Sequence[Outcome]  # of the tools' questions
    budget: RunBudget
    stats: Stats
    before: Figures
    after: Figures
    billed: float | None  # USD, by the embedded endpoint

    def end(self) -> End:
        end = max(outcome.end for outcome in [*self.decided, *self.asked])
        return max(end, End.LEDGER_FAILED) if self.after.unwritten else end

    def reason(self) -> str:
        end = self.end()
        if end is End.FAILED:  # by anything: the first failure's words tell by what
            words = (one.message for one in [*self.decided, *self.asked] if one.end is end)
            return f"{end.reason}: {next(words)}"
        return end.reason


def print_run(console: Console, run: Run) -> None:
    for question in run.asked:
        if question.reply:
            result = f"{question.reply.decision} (${question.reply.cost:.4f})"
        else:
            result = f"no answer: {question.message}"
        print_line(console, f"{question.request.text!r}: {result}")
    if run.decided:
        print_table(console, "The pass", run.budget.summary())
        print_table(console, "Its calls", _calls(run))
    print_table(console, "The day's account (UTC)", _account(run))


def _calls(run: Run) -> dict[str, str]:
    """What became of the pass's calls, and what its budget does not count."""
    ends = Counter(outcome.end for outcome in run.decided)
    undone = (f"{count}: {end.reason}" for end, count in sorted(ends.items()) if end)
    decisions = Counter(outcome.reply.decision for outcome in run.decided if outcome.reply)
    stats = run.stats
    return {
        "answered": f"{ends[End.ANSWERED]} of {len(run.decided)} paragraphs",
        "left undone": "; ".join(undone) or "none",
        "decisions": ", ".join(f"{name} {count}" for name, count in decisions.most_common()),
        "failed attempts": f"{stats.failed}, {stats.lost} of them sent and never read",
    }


def _account(run: Run) -> dict[str, str]:
    after = run.after
    rows = {
        "spent before": f"${run.before.paid:.4f}",
        "spent now": f"${after.paid:.4f} of ${after.cap:.2f}",
        "lost": f"${after.lost:.4f} of it, for calls whose reply was never read",
    }
    if run.billed is not None:
        rows["billed"] = f"${run.billed:.4f} to this run by the embedded endpoint"
    if after.in_flight:
        rows["held"] = f"${after.held:.4f} by {after.in_flight} calls in flight"
    if after.unwritten:
        rows["ledger"] = f"{after.unwritten} ended calls could not be written"
    return rows


def print_table(console: Console, title: str, rows: Mapping[str, Any]) -> None:
    table = Table(title=title, title_justify="left", show_header=False, box=None, padding=(0, 2))
    for name, value in rows.items():
        table.add_row(name, Text(str(value)))
    console.print(table)
    console.print()
