"""Instructions per operation of the road's cases, compared with recorded counts.

    gate.py            fails where a case takes over 5 % more instructions than recorded
    gate.py --record   records the counts of this toolchain anew

Time depends on what else the machine does; the count of instructions does not. On a toolchain
without a record, the module's count as a part of the plain-Python model's is compared with the
records of the others.

valgrind counts those of a whole process, so each count is the difference of two processes that
differ only in how often they run the case: start-up and import cancel.
"""

from __future__ import annotations

import argparse
import json
import os
import platform
import re
import shutil
import subprocess
import sys
import sysconfig
import tempfile
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

from cases import BY_KEY, ROAD_CASES, SUBJECTS, UNROLL, load, timer, world

RECORDS = Path(__file__).with_name("recorded_instructions.json")
ALLOWED_GROWTH = 0.05
ALLOWED_ELSEWHERE = 0.15
# Statements in the shorter process: enough for the interpreter to have specialised them.
WARM = 50
COUNTED = 400

Counts = dict[str, float]


def run(loops: dict[str, int]) -> None:
    """What valgrind watches: statements by "case/subject"."""
    for name, count in loops.items():
        key, subject = name.split("/")
        timer(BY_KEY[key].statement, world(load(subject))).timeit(count)


def _instructions(loops: dict[str, int], cache: str) -> int:
    valgrind = ["valgrind", "--tool=callgrind", f"--callgrind-out-file={os.devnull}"]
    command = [*valgrind, sys.executable, "-S", __file__, f"--run={json.dumps(loops)}"]
    # A small fixed environment: its size moves the stack, and hashes order sets. Compiled files
    # are this gate's own, lest one process compiles what another finds.
    environment = {
        "PYTHONHASHSEED": "0",
        "PYTHONPATH": os.environ.get("PYTHONPATH", ""),
        "PYTHONPYCACHEPREFIX": cache,
    }
    done = subprocess.run(command, env=environment, capture_output=True, text=True)
    collected = re.search(r"Collected : (\d+)", done.stderr)
    if done.returncode or not collected:
        raise SystemExit(f"bench-gate: a run of the cases failed:\n{done.stderr}")
    return int(collected[1])


def measure() -> Counts:
    """Instructions per operation, by "case/subject"."""
    names = [f"{key}/{subject}" for subject in SUBJECTS for key in ROAD_CASES]
    runs = [{name: WARM + more} for name in names for more in (0, COUNTED)]
    with (
        tempfile.TemporaryDirectory() as cache,
        ThreadPoolExecutor(max_workers=os.cpu_count()) as pool,
    ):
        for subject in SUBJECTS:  # compiles, so that none of the others has to
            _instructions({f"settle/{subject}": 1}, cache)
        totals = list(pool.map(lambda loops: _instructions(loops, cache), runs))
    return {
        name: round((more - less) / (COUNTED * UNROLL), 1)
        for name, less, more in zip(names, totals[::2], totals[1::2], strict=True)
    }


def _module_build() -> str:
    """Compiler and build type of the module, as its CMake tree tells them."""
    for tree in Path(str(load("module").__file__)).resolve().parents:
        if (cache := tree / "CMakeCache.txt").exists():
            told = cache.read_text()
            told += next(tree.glob("CMakeFiles/*/CMakeCXXCompiler.cmake")).read_text()
            parts = (
                re.search(rf'{name}[=" ]+([^"\n]+)"?\)?$', told, re.M)
                for name in ("CXX_COMPILER_ID", "CXX_COMPILER_VERSION", "CMAKE_BUILD_TYPE:STRING")
            )
            return " ".join(part[1] if part else "unknown" for part in parts)
    return "built elsewhere"


def toolchain() -> str:
    """All that decides how many instructions the same source takes."""
    profiled = "--enable-optimizations" in (sysconfig.get_config_var("CONFIG_ARGS") or "")
    shared = sysconfig.get_config_var("Py_ENABLE_SHARED")
    python = f"{platform.python_implementation()} {platform.python_version()}"
    compiler = platform.python_compiler().strip("[]")
    build = f"{'profiled' if profiled else 'plain'} {'shared' if shared else 'static'} build"
    return f"{python}, {compiler}, {build}, module {_module_build()}, {platform.machine()}"


def compare(counts: Counts, records: dict[str, Counts], tools: str) -> bool:
    """Print each case beside what is expected; true where none takes too many."""
    fits = True
    for key in ROAD_CASES:
        module, model = counts[f"{key}/module"], counts[f"{key}/model"]
        if tools in records:
            expected, allowed = records[tools][f"{key}/module"], ALLOWED_GROWTH
        else:
            parts = [other[f"{key}/module"] / other[f"{key}/model"] for other in records.values()]
            expected, allowed = max(parts) * model, ALLOWED_ELSEWHERE
        growth = module / expected - 1
        verdict = "ok" if growth <= allowed else "too many"
        fits = fits and growth <= allowed
        print(f"{key:8} {module:8.1f} ({module / model:.1%} of the model's)", end="")
        print(f" {expected:10.1f} expected {growth:+8.1%}  {verdict}")
    return fits


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--record", action="store_true", help="record the counts anew")
    parser.add_argument("--run", type=json.loads, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.run:
        run(options.run)
        return 0
    if not shutil.which("valgrind"):
        print("bench-gate: valgrind is needed to count instructions and was not found")
        return 2

    counts, tools = measure(), toolchain()
    records = json.loads(RECORDS.read_text())
    print(f"Instructions per operation ({tools})")
    if options.record:
        records[tools] = counts
        RECORDS.write_text(json.dumps(records, indent=2, sort_keys=True) + "\n")
    elif tools not in records:
        print("No record of this toolchain: expected is the same part of the model's as elsewhere.")
    return 0 if compare(counts, records, tools) else 1


if __name__ == "__main__":
    raise SystemExit(main())
