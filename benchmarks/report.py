"""The report in Markdown: what was measured, whether it is enough, and how far the floor is."""

from __future__ import annotations

import os
import platform
import statistics
from collections.abc import Iterable, Iterator
from pathlib import Path
from statistics import median
from typing import NamedTuple

from cases import BY_KEY, CASES, SUBJECTS
from contention import CALLS, CORES, QUICK_THREADS
from gate import toolchain
from timing import OPEN_FEW, OPEN_MANY
from waiting import CROWD
from yardsticks import FLOOR, Yardstick

Values = dict[str, list[float]]


class Row(NamedTuple):
    """The module's values divided by others', round by round, or the other way round where less is
    better; without others, plain figures."""

    label: str
    ours: str
    theirs: str | None
    target: float
    at_most: bool = False
    less_is_better: bool = False
    unit: str = "s"

    def cells(self, values: Values) -> tuple[str, ...]:
        """The row of the table; the fourth cell is the verdict."""
        ours = measured = values[self.ours]
        theirs = values[self.theirs] if self.theirs else [1.0] * len(ours)
        if self.theirs:
            pairs = list(zip(ours, theirs, strict=True))
            measured = [b / a if self.less_is_better else a / b for a, b in pairs]
        low, middle, high = quartiles(measured)
        reached = middle <= self.target if self.at_most else middle >= self.target
        close = low <= self.target if self.at_most else high >= self.target

        def tell(value: float) -> str:
            return f"{value:.3g}x" if self.theirs else shown(value, self.unit)

        return (
            self.label,
            f"{tell(middle)} ({tell(low)} to {tell(high)})",
            f"at {'most' if self.at_most else 'least'} {tell(self.target)}",
            "reached" if reached else "within the spread" if close else "not reached",
            shown(median(ours), self.unit),
            shown(median(theirs), self.unit) if self.theirs else "",
        )


def shown(value: float, unit: str) -> str:
    if unit == "s":
        for scale, name in ((1, "s"), (1e3, "ms"), (1e6, "µs")):
            if value * scale >= 1:
                return f"{value * scale:.3g} {name}"
        return f"{value * 1e9:.3g} ns"
    return f"{value:.1%}" if unit == "%" else f"{value:,.0f}{unit}"


def quartiles(values: list[float]) -> list[float]:
    return statistics.quantiles(values * 2, n=4, method="inclusive")


def _faster(label: str, key: str, target: float, unit: str = "s") -> Row:
    return Row(label, f"{key}/module", f"{key}/model", target, less_is_better=True, unit=unit)


def _more(label: str, key: str, target: float) -> Row:
    return Row(label, f"{key}/module", f"{key}/model", target, unit="/s")


def rows(free_threaded: bool) -> Iterator[Row]:
    for case in CASES:
        yield _faster(case.label, case.key, case.at_least)
    label = "`with budget.hold(t) as share: ...` against `with threading.Lock(): pass`"
    yield Row(label, "guard/module", "lock", 1, less_is_better=True)
    for key, most in (("guard", 2), ("admit", 1.8), ("road", 2)):
        label = f"{BY_KEY[key].label}, against its floor"
        yield Row(label, f"{key}/module", f"{key}/floor", most, at_most=True)
    for count in QUICK_THREADS:
        yield _more(f"{count} threads, room for two calls, admissions", f"at once/{count}", 5)
    if free_threaded:
        own = f"{CORES} threads without a global lock, a budget for each, admissions"
        yield _more(own, f"own/{CORES}", 1)
        many, one = f"own/{CORES}/module", "own/1/module"
        yield Row(
            f"the same against one thread, on {CORES} cores", many, one, 0.75 * CORES, unit="/s"
        )
    crowd = "CPU time of a give-back that makes no room, 200 threads waiting"
    yield _faster(f"{crowd}, `should_stop` left at `never`", "wake-never", 20)
    yield _faster(f"{crowd}, a Python stop predicate", "wake-python", 1.5)
    yield _faster("CPU share of 200 threads that just wait", "idle", 1, "%")
    many = f"{CROWD:,} threads that ask a Python stop predicate"
    yield _faster(f"{many}: time to start them", "crowd start", 1)
    yield _faster(f"{many}: CPU share while they wait", "crowd idle", 1, "%")
    yield _faster(f"{many}: lateness of another thread, mean", "crowd late", 1)
    yield _faster(f"{many}: time to end by the stop", "crowd drain", 1)
    yield _faster("give-back to the waiter's return, median", "way-back", 1)
    yield _faster("traced memory of an open share", "share memory", 4, " B")
    yield _faster("traced memory of a run budget", "budget memory", 3, " B")
    yield _faster("growth of the process for an open share", "share resident", 4, " B")
    yield _faster("growth of the process for a run budget", "budget resident", 2.5, " B")
    label = "a paid call on an account in a file, against the whole road without one"
    yield Row(label, "paid/account", "paid/alone", 500, at_most=True)
    label = f"`hold(t).settle(reply)`, {OPEN_MANY:,} shares open against {OPEN_FEW}"
    yield Row(label, f"open/{OPEN_MANY}", f"open/{OPEN_FEW}", 1.1, at_most=True)
    yield Row("import, without its standard-library modules", "import/module", None, 0.003, True)


def _table(head: Iterable[str], body: Iterable[Iterable[str]]) -> str:
    lines = [list(head), *(list(line) for line in body)]
    lines.insert(1, ["---"] * len(lines[0]))
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def _contention(values: Values, threads: tuple[int, ...]) -> str:
    body = [
        (what, str(n), *(shown(median(values[f"{kind}/{n}/{s}"]), "/s") for s in SUBJECTS))
        for kind, what in CALLS.items()
        for n in threads
    ]
    return _table(("the call takes", "threads", "module", "plain Python"), body)


def _against(values: Values, key: str, other: str) -> tuple[str, str]:
    ratio = median(a / b for a, b in zip(values[key], values[other], strict=True))
    return shown(median(values[key]), "s"), f"{ratio:.2f}x"


def markdown(
    table: list[tuple[str, ...]],
    values: Values,
    threads: tuple[int, ...],
    yardsticks: tuple[Yardstick, ...],
) -> str:
    # Enough of the machine to judge the figures, nothing that names it.
    cpu = Path("/proc/cpuinfo")
    virtual = "virtual " if cpu.exists() and " hypervisor " in cpu.read_text() else ""
    machine = f"a {virtual}machine of {os.cpu_count()} cores ({platform.system()})"
    beside = [
        (yardstick.label, *_against(values, yardstick.key, "guard/module"))
        for yardstick in (*FLOOR, *yardsticks)
    ]
    parts = [
        f"Measured on {machine}, with {toolchain()}.",
        _table(("case", "measured (quartiles)", "target", "", "module", "against"), table),
        "Threads that share one bound with room for two calls at a time, admissions a second:",
        _contention(values, threads),
        "The interpreter's floor and other limiters, in the same rounds:",
        _table(("beside it", "time", "of the guarded call"), beside),
    ]
    return "\n\n".join(parts) + "\n"
