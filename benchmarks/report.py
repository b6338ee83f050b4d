"""The report in Markdown: what was measured, whether it is enough, and how far the floor is."""

from __future__ import annotations

import os
import platform
import re
from collections.abc import Iterable
from pathlib import Path
from statistics import median

from cases import CASES
from gate import toolchain
from rows import Result, Values, shown, spread
from yardsticks import FLOOR, Yardstick

BEGIN, END = "<!-- figures of one run: begin -->", "<!-- figures of one run: end -->"
NUMBERS = ("no", "one", "two", "three", "four", "five", "six", "seven", "eight")


def machine() -> str:
    """The machine in words: enough to judge the figures, nothing that names it."""
    cores = os.cpu_count() or 1
    count = NUMBERS[cores] if cores < len(NUMBERS) else str(cores)
    cpu = Path("/proc/cpuinfo")
    virtual = cpu.exists() and re.search(r"^flags.*\bhypervisor\b", cpu.read_text(), re.M)
    kind = "virtual machine" if virtual else "machine"
    family = {"x86_64": "64-bit x86", "aarch64": "64-bit Arm"}
    return f"{count}-core {kind}, {family.get(platform.machine(), platform.machine())}"


def about(seconds: float) -> dict[str, str]:
    return {
        "machine": machine(),
        "toolchain": toolchain(),
        "system": platform.system(),
        "duration": f"{seconds:.0f} s",
    }


def _table(head: Iterable[str], body: Iterable[Iterable[str]]) -> str:
    lines = [list(head), *(list(line) for line in body)]
    lines.insert(1, ["---"] * len(lines[0]))
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def _middle(values: Values, key: str, unit: str = "s") -> str:
    return shown(median(values[key]), unit)


def _targets(results: list[Result], values: Values) -> str:
    head = ("case", "measured (quartiles)", "target", "", "module", "against")
    body = []
    for result in results:
        row = result.row
        subject = _middle(values, row.subject, row.unit)
        against = _middle(values, row.against, row.unit) if row.against else ""
        body.append((row.label, result.text, row.target, result.verdict, subject, against))
    return _table(head, body)


def _contention(values: Values, threads: tuple[int, ...]) -> str:
    subjects = {"module": "module", "twin": "plain Python", "semaphore": "`BoundedSemaphore(2)`"}
    kinds = {"at once": "no time", "sends": "one system call"}
    body = [
        (what, str(count), *(_middle(values, f"{kind}/{count}/{s}", "/s") for s in subjects))
        for kind, what in kinds.items()
        for count in threads
    ]
    return _table(("the call takes", "threads", *subjects.values()), body)


def _yardsticks(values: Values, yardsticks: Iterable[Yardstick]) -> str:
    body = []
    for yardstick in yardsticks:
        pairs = zip(values[yardstick.key], values["guard/module"], strict=True)
        ratio = spread([theirs / ours for theirs, ours in pairs])[0]
        time = _middle(values, yardstick.key)
        body.append((yardstick.label, time, f"{ratio:.2f}x", yardstick.note))
    head = ("beside it", "time", "of the module's guarded call", "how far it is alike")
    return _table(head, body)


def _floors(values: Values) -> str:
    call = median(values["call"])
    read, allocation, callback = (
        max(0.0, median(values[key]) - call) for key in ("read", "allocation", "callback")
    )
    body = []
    for case in CASES:
        floor = (
            case.calls * call
            + case.reads * read
            + case.allocations * allocation
            + case.callbacks * callback
        )
        ours = median(values[f"{case.key}/module"])
        made_of = (case.calls, case.reads, case.allocations, case.callbacks)
        body.append(
            (
                case.label,
                *(str(n) if n else "" for n in made_of),
                shown(floor),
                shown(ours),
                f"{ours / floor:.2f}x",
            )
        )
    head = ("case", "calls", "reads", "objects", "callbacks", "floor", "module", "of the floor")
    parts = (
        f"One call {shown(call)}, one attribute read {shown(read)}, one object "
        f"{shown(allocation)}, one Python callback {shown(callback)}."
    )
    return f"{_table(head, body)}\n\n{parts}"


def _resident(values: Values) -> str:
    body = [
        (f"one {what}", *(_middle(values, f"{key} resident/{s}", "B") for s in ("module", "twin")))
        for key, what in (("share", "open share"), ("budget", "run budget"))
    ]
    return _table(("growth of the process for", "module", "plain Python"), body)


def markdown(
    results: list[Result],
    values: Values,
    threads: tuple[int, ...],
    limiters: tuple[Yardstick, ...],
    facts: dict[str, str],
) -> str:
    parts = [
        f"Measured on a {facts['machine']} ({facts['system']}), with {facts['toolchain']}.",
        _targets(results, values),
        "Threads that share one bound with room for two calls at a time, admissions a second:",
        _contention(values, threads),
        "The interpreter's floor and other limiters, in the same rounds:",
        _yardsticks(values, (*FLOOR, *limiters)),
        "How far each case is from the sum of the interpreter's parts that it cannot do without:",
        _floors(values),
        "Memory as the system sees it, with what the interpreter does not trace:",
        _resident(values),
    ]
    return "\n\n".join(parts) + "\n"


def put_into(readme: Path, figures: str) -> None:
    """Replace what stands between the markers."""
    text = readme.read_text()
    before, rest = text.split(BEGIN)
    after = rest.split(END)[1]
    readme.write_text(f"{before}{BEGIN}\n\n{figures}\n{END}{after}")
