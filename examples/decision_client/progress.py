"""The display while a pass runs: a live bar on a terminal, now and then a line elsewhere.

It and the warnings share standard error, so that standard output has nothing but the results.
"""

from __future__ import annotations

import logging
import time
from collections.abc import Callable
from types import TracebackType
from typing import Self

from rich.console import Console
from rich.live import Live
from rich.progress_bar import ProgressBar
from rich.table import Table

from decision_client.stats import Stats
from korvane.engines.decision_bounds import RunBudget

_LINE_EVERY_S = 1.0
_BAR_WIDTH = 60


class ConsoleLog(logging.Handler):
    """Log records on the console, above a live display, unwrapped."""

    def __init__(self, console: Console) -> None:
        super().__init__(logging.WARNING)
        self.setFormatter(logging.Formatter("%(levelname)s %(name)s: %(message)s"))
        self._console = console

    def emit(self, record: logging.LogRecord) -> None:
        self._console.print(self.format(record), soft_wrap=True, markup=False, highlight=False)


class Display:
    """Shows a pass from the outside: what its budget has counted and what is under way."""

    def __init__(
        self,
        console: Console,
        total: int,
        budget: RunBudget,
        stats: Stats,
        stopping: Callable[[], bool],
    ) -> None:
        self._console = console
        self._total = total
        self._budget = budget
        self._stats = stats
        self._stopping = stopping
        self._line_at = 0.0
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

    def show(self, done: int) -> None:
        state = f"{done} of {self._total}: {self._state()}"
        if self._console.is_terminal:
            rows = Table.grid()
            rows.add_row(ProgressBar(total=self._total, completed=done, width=_BAR_WIDTH))
            rows.add_row(state)
            self._live.update(rows, refresh=True)
        elif (now := time.monotonic()) >= self._line_at:
            self._line_at = now + _LINE_EVERY_S
            self._console.print(state, soft_wrap=True, highlight=False)

    def _state(self) -> str:
        budget, stats = self._budget, self._stats
        parts = [
            f"{budget.calls} calls",
            f"{budget.cache_hits} cached",
            f"{budget.input_tokens} tokens",
            f"${budget.cost:.4f}",
            f"{budget.in_flight} in flight",
            f"{stats.waiting} waiting",
            f"{stats.failed} failed attempts",
        ]
        if self._stopping():
            parts.append("stopping once the calls in flight have ended")
        return ", ".join(parts)
