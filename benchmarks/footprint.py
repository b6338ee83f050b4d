"""Memory of an open share and of a run budget, and the time of an import.

Memory is measured twice: as the interpreter traces it, and as the growth of the process, which
also sees what a native module takes from the system's allocator directly.
"""

from __future__ import annotations

import os
import subprocess
import sys
import tracemalloc
from collections.abc import Callable
from pathlib import Path
from typing import Any

from cases import MODULE, TWIN, TWIN_DIR, load

SUBJECTS = {"module": MODULE, "twin": TWIN}
TRACED = 2_000
RESIDENT = 50_000

# The standard-library modules that the module is meant to import; anything further counts.
IMPORT = """
import __future__, collections.abc, dataclasses, functools, importlib, logging, math, threading
import time, typing
began = time.perf_counter()
importlib.import_module({name!r})
print(time.perf_counter() - began)
"""


def _traced() -> int:
    return tracemalloc.get_traced_memory()[0]


def _resident() -> int:
    pages = int(Path("/proc/self/statm").read_text().split()[1])
    return pages * os.sysconf("SC_PAGE_SIZE")


def _each(make: Callable[[], Any], count: int, measure: Callable[[], int]) -> float:
    keep = [make() for _ in range(count)]  # warms caches and fills the slots of the list
    for i in range(count):
        keep[i] = None
    before = measure()
    for i in range(count):
        keep[i] = make()
    return (measure() - before) / count


def _makers(subject: str) -> dict[str, Callable[[], Any]]:
    module = load(SUBJECTS[subject])
    budget = module.RunBudget(10**12, 10**12)
    limit = 10**6
    return {
        "share": lambda: budget.hold(100.0),
        "budget": lambda: module.RunBudget(limit, limit),
    }


def traced(subject: str) -> dict[str, list[float]]:
    values = {}
    for key, make in _makers(subject).items():
        tracemalloc.start()
        values[f"{key} memory/{subject}"] = [_each(make, TRACED, _traced)]
        tracemalloc.stop()
    return values


def resident(subject: str, kind: str) -> dict[str, list[float]]:
    """In a process of its own for each kind: memory that was freed before would hide the growth."""
    make = _makers(subject)[kind]
    before = _resident()
    keep = [make() for _ in range(RESIDENT)]
    grown = (_resident() - before) / len(keep)
    return {f"{kind} resident/{subject}": [grown]}


def imports(rounds: int) -> dict[str, list[float]]:
    """Seconds of the first import in a fresh interpreter, compiled files being in place."""
    path = os.pathsep.join([*os.environ.get("PYTHONPATH", "").split(os.pathsep), str(TWIN_DIR)])
    values: dict[str, list[float]] = {f"import/{subject}": [] for subject in SUBJECTS}
    for warm in range(rounds + 1):
        for subject, name in SUBJECTS.items():
            answer = subprocess.run(
                [sys.executable, "-c", IMPORT.format(name=name)],
                env={**os.environ, "PYTHONPATH": path},
                check=True,
                capture_output=True,
                text=True,
            )
            if warm:
                values[f"import/{subject}"].append(float(answer.stdout))
    return values
