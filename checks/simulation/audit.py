"""What must hold of a simulated account: after every request, and of every call at the end."""

from __future__ import annotations

import sqlite3
from collections import Counter
from typing import Any, NamedTuple

from korvane.engines.decision_account.records import Ending, State


class Violation(AssertionError):
    """A promise that was broken; its text begins with which."""


class Row(NamedTuple):
    id: str
    state: int
    day: str
    held: int | None
    cost: int
    feature: str
    last_day: str


_ROWS = "SELECT id, state, day, held, cost, feature, last_day FROM calls"


class Audit:
    """What a day may come to is known to the nano-dollar. Each admission finds, on every day from
    its own on, less than the cap paid and held: so after it the day comes to no more than `cap - 1`
    and what the call holds. From then on a day grows by what a call costs above what it held, and
    by calls that were written without an admission: charges, and those that a failover forgot.
    """

    def __init__(self, connection: sqlite3.Connection, cap: int) -> None:
        self.cap = cap
        self.rows: dict[str, Row] = {}
        self.open: dict[str, Row] = {}
        self.days: Counter[str] = Counter()  # what is paid, by the rows
        self.told: dict[str, Ending] = {}  # the settlements that were carried out
        self.forgotten: dict[str, Row] = {}
        self._connection = connection
        self._changes = -1
        self._today = ""
        self._seen: set[tuple[Any, ...]] = set()
        self._lost: Counter[str] = Counter()
        self._admissions: list[tuple[str, int]] = []  # the day, and what it leaves allowed
        self._allowed: dict[str, int] = {}
        self._pruned: dict[str, Row] = {}

    def full(self, since: str) -> bool:
        return any(paid >= self.cap for day, paid in self.days.items() if day >= since)

    def step(self, today: str = "", pruning: bool = False) -> None:
        """Look at what a request of a day has changed."""
        self._today = today
        changes = self._connection.total_changes
        if changes == self._changes:
            return
        self._changes = changes
        gone = self._read()
        for row in gone:
            _demand(pruning and row.state, "lost", f"the row {row.id} is gone")
            self._pruned[row.id] = row
        self._weigh()

    def fail_over(self, saved: bytes) -> None:
        """Go on from what was saved with the last settlement."""
        self._connection.deserialize(saved)
        before = self.rows
        self.rows, self.open, self._seen = {}, {}, set()
        self.days.clear()
        self._lost.clear()
        self._read(again=True)
        self.forgotten |= {id: row for id, row in before.items() if id not in self.rows}
        self._weigh()

    def _read(self, again: bool = False) -> list[Row]:
        """Take note of what has changed; the rows that are gone."""
        seen = set(self._connection.execute(_ROWS))
        new, gone = seen - self._seen, {row[0]: Row(*row) for row in self._seen - seen}
        self._seen = seen
        # A row that ended makes the room which the same request may have given away.
        for row in sorted((Row(*row) for row in new), key=lambda row: (row.state == 0, row.id)):
            old = gone.pop(row.id, None)
            if not again:
                self._change(old, row)
            self._tally(old, row)
        for row in gone.values():
            self._tally(row, None)
        return list(gone.values())

    def _tally(self, old: Row | None, new: Row | None) -> None:
        for row, sign in ((old, -1), (new, 1)):
            if row is None:
                continue
            if row.state:
                self.days[row.day] += sign * row.cost
                if row.state == State.LOST:
                    self._lost[row.day] += sign * row.cost
            elif sign > 0:
                self.open[row.id] = row
            else:
                del self.open[row.id]
        if new is not None:
            self.rows[new.id] = new
        elif old is not None:
            del self.rows[old.id]

    def _change(self, old: Row | None, row: Row) -> None:
        if row.state == State.OPEN:
            _demand(old is None, "state", f"{row.id} was open or ended, and is open anew")
            self._admissions.append((row.day, self.cap - 1 + row.cost))
            for day in self._allowed:
                if day >= row.day:
                    self._allowed[day] = self.cap - 1 + row.cost
            return
        if row.state == State.UNPAID:
            _demand(row.cost == 0, "sums", f"{row.id} is unpaid and counts {row.cost}")
        above = row.cost
        if old is not None:
            _demand(
                row.state > old.state, "state", f"{row.id} went from {old.state} to {row.state}"
            )
            ends = self._today if row.id in self.told else row.last_day
            if old.state == State.OPEN:
                day = max(old.day, ends)
                _demand(row.day == day, "day", f"{row.id} ended on {day} and counts on {row.day}")
            if old.state == State.LOST:
                _demand(row.day == old.day, "day", f"{row.id} is corrected on another day")
            if row.state == State.LOST:
                _demand(row.cost == old.cost, "sums", f"{row.id} is lost, and not at what it held")
            above -= old.cost
        elif row.cost:
            known = self.forgotten.get(row.id)
            _demand(known or not row.feature, "lost", f"{row.id} counts and was never admitted")
        if old is None and row.state == State.LOST:
            _demand(row.cost == self.forgotten[row.id].cost, "sums", f"{row.id} held another cost")
        if above > 0:
            self._allowed[row.day] = self._allowance(row.day) + above

    def _allowance(self, day: str) -> int:
        if day not in self._allowed:
            bases = (base for began, base in reversed(self._admissions) if began <= day)
            self._allowed[day] = next(bases, 0)
        return self._allowed[day]

    def _weigh(self) -> None:
        holds = self.open.values()
        for day in self.days.keys() | {row.day for row in holds}:
            paid = self.days[day]
            most = paid + sum(row.cost for row in holds if row.day <= day)
            allowed = self._allowance(day)
            text = f"{day}: {paid} paid, {most} with what is held, of {allowed}"
            _demand(most <= allowed, "cap", text)
        bounded = [row.held for row in holds if row.held is not None]
        unbounded = len(holds) - len(bounded)
        _demand(not unbounded or len(holds) == 1, "alone", f"what is unknown is not alone: {holds}")
        run = self._connection.execute
        said = run("SELECT holders, held, unbounded FROM account").fetchone()
        _demand(said == (len(holds), sum(bounded), unbounded), "sums", f"{said} of {holds}")
        days = {day: (paid, lost) for day, paid, lost in run("SELECT day, paid, lost FROM days")}
        for day in days.keys() | self.days.keys():
            true = self.days[day], self._lost[day]
            said = days.get(day, (0, 0))
            _demand(said == true, "sums", f"{day} is said to have {said}, and has {true}")

    def finish(self, calls: list[Any], doubled: set[str], dead: set[str]) -> None:
        """Every call is counted once, at what it was billed or held."""
        rows = self._pruned | self.rows
        for call in calls:
            if call.id is None:
                continue
            row, told = rows.pop(call.id, None), self.told.get(call.id)
            if told is None:
                _demand(call.process.dead, "lost", f"the end of {call.id} was never written")
                fine = row is None if call.id in self.forgotten else True
                fine = fine or (row is not None and row.state == State.LOST)
                _demand(fine, "lost", f"{call.id} of a dead process is {row}")
                continue
            _demand(row is not None, "lost", f"{call.id} ended and has no row")
            _demand(row.state == call.state, "lost", f"{call.id} ended as {call.state!r}: {row}")
            if call.state != State.LOST:
                _demand(row.cost == call.billed, "billed", f"{call.billed} was billed for {row}")
        for row in rows.values():
            spared = row.state == State.UNPAID or not row.feature
            given_up = row.state == State.LOST and (
                row.id in doubled or row.id.rpartition("-")[0] in dead
            )
            _demand(spared or given_up, "lost", f"nobody made the call {row}")


def _demand(holds: object, promise: str, text: str) -> None:
    if not holds:
        raise Violation(f"{promise}: {text}")
