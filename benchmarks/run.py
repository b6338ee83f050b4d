"""Measure everything side by side and write the report.

    run.py [--quick] [--free-threaded PYTHON]

The report is results/report.md, or build/bench/report.md of a quick run; build/bench/values.json
has the values of all rounds.
"""

from __future__ import annotations

import argparse
import json
import os
import subprocess
import sys
from collections import defaultdict
from collections.abc import Iterator
from pathlib import Path

import contention
import report
from cases import ROOT, SUBJECTS
from yardsticks import limiters

HERE = Path(__file__).resolve().parent
OUTPUT = ROOT / "build" / "bench"
FREE_THREADED_BUILD = ROOT / "build-free-threaded"


def _workers(quick: bool) -> Iterator[str]:
    """Fresh processes, so that no one layout of memory decides; kinds take turns."""
    for _ in range(1 if quick else 4):
        yield from ("timing.measure", "contention.measure", "waiting.measure")
        yield "waiting.measure_crowd"
    for _ in range(1 if quick else 3):
        for subject in SUBJECTS:
            yield from (f"footprint.measure:{subject}:{made}" for made in ("share", "budget"))
    yield "account.measure"
    yield "footprint.measure_imports"


def _run(quick: bool, kind: str, python: str, environment: dict[str, str]) -> report.Values:
    print(f"measuring: {kind}", file=sys.stderr, flush=True)
    command = [python, str(HERE / "worker.py"), kind, *["--quick"] * quick]
    answer = subprocess.run(command, stdout=subprocess.PIPE, env=environment, check=True)
    values: report.Values = json.loads(answer.stdout)
    return values


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--quick", action="store_true", help="under a minute, with a wide spread")
    parser.add_argument(
        "--free-threaded",
        metavar="PYTHON",
        help="an interpreter without a global lock, for which build-free-threaded/ was built",
    )
    options = parser.parse_args()
    runs = [(kind, sys.executable, {**os.environ}) for kind in _workers(options.quick)]
    if options.free_threaded:
        free = {**os.environ, "PYTHON_GIL": "0", "PYTHONPATH": str(FREE_THREADED_BUILD)}
        runs.append(("contention.measure_cores", options.free_threaded, free))
    for python, environment in {python: environment for _, python, environment in runs}.items():
        command = [python, "-c", f"import {SUBJECTS['module']}"]
        try:
            subprocess.run(command, env=environment, check=True, capture_output=True)
        except (OSError, subprocess.CalledProcessError):
            print(f"bench: {python} cannot import the module; build it first", file=sys.stderr)
            return 2

    values: report.Values = defaultdict(list)
    for kind, python, environment in runs:
        for key, more in _run(options.quick, kind, python, environment).items():
            values[key].extend(float(f"{value:.5g}") for value in more)
    threads = contention.QUICK_THREADS if options.quick else contention.THREADS
    table = [row.cells(values) for row in report.rows(bool(options.free_threaded))]
    figures = report.markdown(table, values, threads, limiters())
    OUTPUT.mkdir(parents=True, exist_ok=True)
    path = (OUTPUT if options.quick else HERE / "results") / "report.md"
    path.write_text(figures)
    (OUTPUT / "values.json").write_text(json.dumps(values))
    print(figures)
    missed = sum(verdict == "not reached" for *_, verdict, _, _ in table)
    print(f"{len(table)} rows, {missed} not reached; report in {path}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
