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


_ROWS = "SELECT id, state, day, held, cost, feature, day_of(ends) FROM calls"
# What the account says of itself and its days, each with what its rows come to.
_SUMS = {
    "SELECT holders, held, unbounded FROM account": (
        "SELECT count(*), coalesce(sum(held), 0), count(*) - count(held) FROM calls WHERE state = 0"
    ),
    "SELECT * FROM days WHERE paid != 0 OR lost != 0 ORDER BY day": (
        "SELECT day, sum(cost), sum(CASE WHEN state = 1 THEN cost ELSE 0 END)"
        " FROM calls WHERE state > 0 GROUP BY day HAVING sum(cost) ORDER BY day"
    ),
}


class Audit:
    """What a day may come to is known to the nano-dollar. Each admission finds, on every day from
    its own on, less than the cap paid and held: so after it the day comes to no more than `cap - 1`
    and what the call holds. From then on a day grows by what a call costs above what it held, and
    by calls that were written without an admission: charges, and those that a failover forgot.
    """

    def __init__(self, connection: sqlite3.Connection, cap: int) -> None:
        self.cap = cap
        self.rows: dict[str, Row] = {}
        self.open: list[Row] = []
        self.days: Counter[str] = Counter()  # what is paid, by the rows
        self.told: dict[str, Ending] = {}  # the settlements that were carried out
        self.forgotten: dict[str, Row] = {}
        self._connection = connection
        self._changes = -1
        self._today = ""
        self._admissions: list[tuple[str, int]] = []  # the day, and what it leaves allowed
        self._allowed: dict[str, int] = {}
        self._pruned: dict[str, Row] = {}

    def full(self, since: str) -> bool:
        return any(paid >= self.cap for day, paid in self.days.items() if day >= since)

    def step(self, today: str = "", pruning: bool = False) -> None:
        """Look at what a request of a day has changed."""
        changes, self._today = self._connection.total_changes, today
        if changes == self._changes:
            return
        self._changes, before = changes, self.rows
        self._read()
        # A row that ended makes the room which the same request may have given away.
        for row in sorted(self.rows.values(), key=lambda row: (row.state == 0, row.id)):
            if row != (old := before.get(row.id)):
                self._change(old, row)
        for row in [before[id] for id in before.keys() - self.rows.keys()]:
            _demand(pruning and row.state, "lost", f"the row {row.id} is gone")
            self._pruned[row.id] = row
        self._weigh()

    def fail_over(self, saved: bytes) -> None:
        """Go on from what was saved with the last settlement."""
        self._connection.deserialize(saved)
        before = self.rows
        self._read()
        self.forgotten |= {id: row for id, row in before.items() if id not in self.rows}
        self._weigh()

    def _read(self) -> None:
        self.rows = {row[0]: Row(*row) for row in self._connection.execute(_ROWS)}
        self.open = [row for row in self.rows.values() if row.state == State.OPEN]
        self.days.clear()
        for row in self.rows.values():
            if row.state:
                self.days[row.day] += row.cost

    def _change(self, old: Row | None, row: Row) -> None:
        if row.state == State.OPEN:
            _demand(old is None, "state", f"{row.id} was open or ended, and is open anew")
            self._admissions.append((row.day, self.cap - 1 + row.cost))
            for day in self._allowed:
                if day >= row.day:
                    self._allowed[day] = self.cap - 1 + row.cost
            return
        held = self.forgotten.get(row.id) if old is None else old
        if old is not None:
            _demand(row.state > old.state, "state", f"{old} became {row}")
            ends = self._today if row.id in self.told else row.last_day
            day = old.day if old.state == State.LOST else max(old.day, ends)
            _demand(row.day == day, "day", f"{row} counts on another day than {day}")
        if row.state == State.UNPAID:
            _demand(row.cost == 0, "sums", f"{row} is unpaid")
        if row.state == State.LOST:
            _demand(held and row.cost == held.cost, "sums", f"{row} did not hold that: {held}")
        if row.state == State.PAID:
            _demand(held or not row.feature, "lost", f"{row} was never admitted")
        above = row.cost - (old.cost if old is not None else 0)
        if above > 0:
            self._allowed[row.day] = self._allowance(row.day) + above

    def _allowance(self, day: str) -> int:
        if day not in self._allowed:
            bases = (base for began, base in reversed(self._admissions) if began <= day)
            self._allowed[day] = next(bases, 0)
        return self._allowed[day]

    def _weigh(self) -> None:
        for day in self.days.keys() | {row.day for row in self.open}:
            paid, allowed = self.days[day], self._allowance(day)
            most = paid + sum(row.cost for row in self.open if row.day <= day)
            text = f"{day}: {paid} paid, {most} with what is held, of {allowed}"
            _demand(most <= allowed, "cap", text)
        alone = len(self.open) == 1 or all(row.held is not None for row in self.open)
        _demand(alone, "alone", f"what is unknown is not alone: {self.open}")
        for says, come_to in _SUMS.items():
            said, true = (self._connection.execute(text).fetchall() for text in (says, come_to))
            _demand(said == true, "sums", f"it says {said}, and has {true}")

    def finish(self, calls: list[Any], doubled: set[str], dead: set[str]) -> None:
        """Every call is counted once, at what it was billed or held."""
        rows = self._pruned | self.rows
        for call in calls:
            if call.id is None:
                continue
            row, told = rows.pop(call.id, None), call.id in self.told
            if told:
                fine = row is not None and row.state == call.state
                fine = fine and (row.state == State.LOST or row.cost == call.billed)
            else:
                fine = call.process.dead and (row is None or row.state == State.LOST)
                fine = fine and (row is not None or call.id in self.forgotten)
            text = f"{call.id} of {call.process.name} ended as {call.state!r}, billed {call.billed}"
            _demand(fine, "lost", f"{text}; its row is {row}")
        for row in rows.values():
            given_up = row.id in doubled or row.id.rpartition("-")[0] in dead
            spared = row.state == State.UNPAID or not row.feature
            _demand(spared or (row.state == State.LOST and given_up), "lost", f"nobody made {row}")


def _demand(holds: object, promise: str, text: str) -> None:
    if not holds:
        raise Violation(f"{promise}: {text}")
