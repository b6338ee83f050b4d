"""The rows of the report: what is divided by what, and what the quotient must be."""

from __future__ import annotations

import json
import statistics
from collections.abc import Iterator
from dataclasses import dataclass
from enum import StrEnum

from cases import CASES, OPEN_FEW, OPEN_MANY
from yardsticks import LOCK

Values = dict[str, list[float]]


class Verdict(StrEnum):
    REACHED = "reached"
    CLOSE = "within the spread"
    MISSED = "not reached"
    NONE = ""


@dataclass(frozen=True)
class Row:
    """`over` divided by `under`, round by round; a row without `under` is a plain figure."""

    label: str
    over: str
    under: str | None = None
    at_least: float | None = None
    at_most: float | None = None
    unit: str = "s"

    @property
    def subject(self) -> str:
        """What is judged, the quotient's other half being what it is judged against."""
        subject_first = self.under is None or self.at_most is not None or self.unit == "/s"
        return self.over if subject_first else str(self.under)

    @property
    def against(self) -> str | None:
        return self.under if self.subject == self.over else self.over

    @property
    def target(self) -> str:
        if self.at_least is not None:
            return f"at least {self.at_least:g}x"
        if self.at_most is not None:
            return f"at most {self.at_most:g}x" if self.under else f"at most {shown(self.at_most)}"
        return ""


@dataclass(frozen=True)
class Result:
    row: Row
    median: float
    low: float
    high: float
    verdict: Verdict

    @property
    def text(self) -> str:
        if self.row.under is None:
            return f"{shown(self.median)} ({shown(self.low)} to {shown(self.high)})"
        return f"{self.median:.3g}x ({self.low:.3g} to {self.high:.3g})"


def shown(value: float, unit: str = "s") -> str:
    match unit:
        case "s":
            for scale, name in ((1, "s"), (1e3, "ms"), (1e6, "µs")):
                if value * scale >= 1:
                    return f"{value * scale:.3g} {name}"
            return f"{value * 1e9:.3g} ns"
        case "%":
            return f"{value * 100:.2g} %"
        case "B":
            return f"{value:,.0f} B"
        case "/s":
            return f"{value:,.0f}/s"
    raise ValueError(unit)


def spread(values: list[float]) -> tuple[float, float, float]:
    """Median and quartiles."""
    if len(values) == 1:
        return values[0], values[0], values[0]
    low, middle, high = statistics.quantiles(values, n=4, method="inclusive")
    return middle, low, high


def evaluate(row: Row, values: Values) -> Result:
    over = values[row.over]
    if row.under is not None:
        over = [a / b for a, b in zip(over, values[row.under], strict=True)]
    median, low, high = spread(over)
    verdict = Verdict.NONE
    if row.at_least is not None:
        verdict = _verdict(median >= row.at_least, high >= row.at_least)
    elif row.at_most is not None:
        verdict = _verdict(median <= row.at_most, low <= row.at_most)
    return Result(row, median, low, high, verdict)


def _verdict(reached: bool, close: bool) -> Verdict:
    return Verdict.REACHED if reached else Verdict.CLOSE if close else Verdict.MISSED


def _faster(label: str, key: str, factor: float, unit: str = "s") -> Row:
    return Row(label, f"{key}/twin", f"{key}/module", at_least=factor, unit=unit)


def rows(threads: tuple[int, ...]) -> Iterator[Row]:
    """Every row with a target, in the order of the report."""
    for case in CASES:
        yield _faster(case.label, case.key, case.at_least)
        if case.key == "guard":
            label = "the same against `with threading.Lock(): pass`"
            yield Row(label, LOCK, "guard/module", at_least=1)
    for count in threads:
        key = f"at once/{count}"
        yield Row(
            f"{count} threads, room for two calls, admissions a second",
            f"{key}/module",
            f"{key}/twin",
            at_least=5,
            unit="/s",
        )
    crowd = "CPU time of a give-back that makes no room, 200 threads waiting"
    yield _faster(f"{crowd}, `should_stop` left at `never`", "wake-never", 20)
    yield _faster(f"{crowd}, a Python stop predicate", "wake-python", 1.5)
    yield _faster("CPU share of 200 threads that just wait", "idle", 1, "%")
    yield _faster("give-back to the waiter's return, median", "way-back", 1)
    yield _faster("traced memory of an open share", "share memory", 4, "B")
    yield _faster("traced memory of a run budget", "budget memory", 3, "B")
    many, few = f"open/{OPEN_MANY}/module", f"open/{OPEN_FEW}/module"
    label = f"`hold(t).settle(reply)`, {OPEN_MANY:,} shares open against {OPEN_FEW}"
    yield Row(label, many, few, at_most=1.1)
    yield Row("import, beyond its standard-library modules", "import/module", at_most=0.003)


def as_json(results: list[Result], values: Values, about: dict[str, str]) -> str:
    table = [
        {
            "case": result.row.label,
            "over": result.row.over,
            "under": result.row.under,
            "median": result.median,
            "quartiles": [result.low, result.high],
            "target": result.row.target,
            "verdict": result.verdict,
        }
        for result in results
    ]
    return json.dumps({"about": about, "rows": table, "values": values}) + "\n"
