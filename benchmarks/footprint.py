"""Memory of an open share and of a run budget, and the time of an import.

Memory is measured twice: as the growth of the process, which also sees what a native module takes
from the system's allocator directly, and as the interpreter traces it.
"""

from __future__ import annotations

import os
import subprocess
import sys
import tracemalloc
from pathlib import Path

from cases import BOUNDLESS, MODEL_DIR, SUBJECTS, load

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


def _resident() -> int:
    return int(Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def measure(quick: bool, subject: str, kind: str) -> dict[str, list[float]]:
    """In a process of its own for each kind: memory that was freed before would hide the growth."""
    module = load(subject)
    budget = module.RunBudget(BOUNDLESS, BOUNDLESS)
    make = {
        "share": lambda: budget.hold(100.0),
        "budget": lambda: module.RunBudget(BOUNDLESS, BOUNDLESS),
    }[kind]
    before = _resident()
    keep = [make() for _ in range(RESIDENT)]
    resident = (_resident() - before) / RESIDENT
    keep = [None] * TRACED
    tracemalloc.start()
    before = tracemalloc.get_traced_memory()[0]
    for i in range(TRACED):
        keep[i] = make()
    traced = (tracemalloc.get_traced_memory()[0] - before) / TRACED
    return {f"{kind} resident/{subject}": [resident], f"{kind} memory/{subject}": [traced]}


def measure_imports(quick: bool) -> dict[str, list[float]]:
    """Seconds of the first import in a fresh interpreter, compiled files being in place."""
    path = os.pathsep.join([os.environ.get("PYTHONPATH", ""), str(MODEL_DIR)])
    values: dict[str, list[float]] = {f"import/{subject}": [] for subject in SUBJECTS}
    for warm in range(6 if quick else 21):
        for subject, name in SUBJECTS.items():
            command = [sys.executable, "-c", IMPORT.format(name=name)]
            environment = {**os.environ, "PYTHONPATH": path}
            answer = subprocess.run(command, env=environment, check=True, capture_output=True)
            if warm:
                values[f"import/{subject}"].append(float(answer.stdout))
    return values
