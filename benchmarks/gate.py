"""Instructions per operation of the single-thread road cases, compared with recorded counts.

    gate.py            fails where a case takes over 5 % more instructions than recorded
    gate.py --record   records the counts of this toolchain anew

Time depends on what else the machine does; the count of instructions does not. valgrind counts
those of a whole process, so each case is the difference of two processes that differ only in how
often they run it: start-up and import cancel.
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

from cases import BY_KEY, MODULE, ROAD_CASES, UNROLL, load, timer, world

RECORDS = Path(__file__).with_name("recorded_instructions.json")
ALLOWED_GROWTH = 0.05
# Statements in the shorter process: enough for the interpreter to have specialised them.
WARM = 100
COUNTED = 1_000

Counts = dict[str, float]


def run(loops: dict[str, int]) -> None:
    """What valgrind watches."""
    module = load(MODULE)
    for key, count in loops.items():
        timer(BY_KEY[key].statement, world(module)).timeit(count)


VALGRIND = ("valgrind", "--tool=callgrind", f"--callgrind-out-file={os.devnull}")


def _start(loops: dict[str, int], cache: str, watcher: tuple[str, ...] = ()) -> str:
    command = [*watcher, sys.executable, "-S", __file__, f"--run={json.dumps(loops)}"]
    # A small fixed environment: its size moves the stack, and hashes order sets. Compiled files
    # are this gate's own, lest one process compiles what another finds.
    environment = {
        "PYTHONHASHSEED": "0",
        "PYTHONPATH": os.environ.get("PYTHONPATH", ""),
        "PYTHONPYCACHEPREFIX": cache,
    }
    done = subprocess.run(command, env=environment, capture_output=True, text=True)
    if done.returncode:
        raise SystemExit(f"bench-gate: a run of the cases failed:\n{done.stderr}")
    return done.stderr


def _instructions(loops: dict[str, int], cache: str) -> int:
    collected = re.search(r"Collected : (\d+)", _start(loops, cache, VALGRIND))
    if not collected:
        raise SystemExit("bench-gate: valgrind told no count of instructions")
    return int(collected[1])


def measure() -> Counts:
    """Instructions per operation of each road case."""
    warm = dict.fromkeys(ROAD_CASES, WARM)
    runs = [warm, *({**warm, key: WARM + COUNTED} for key in ROAD_CASES)]
    with (
        tempfile.TemporaryDirectory() as cache,
        ThreadPoolExecutor(max_workers=os.cpu_count()) as pool,
    ):
        _start(warm, cache)
        base, *counted = pool.map(lambda loops: _instructions(loops, cache), runs)
    return {
        key: round((count - base) / (COUNTED * UNROLL), 1)
        for key, count in zip(ROAD_CASES, counted, strict=True)
    }


def _module_build() -> str:
    """Compiler and build type of the module, as its CMake tree tells them."""
    path = Path(str(load(MODULE).__file__)).resolve()
    for tree in path.parents:
        if (cache := tree / "CMakeCache.txt").exists():
            found = re.search(r"^CMAKE_BUILD_TYPE:\w+=(.*)$", cache.read_text(), re.M)
            compiler = next(tree.glob("CMakeFiles/*/CMakeCXXCompiler.cmake")).read_text()
            name, version = (
                re.search(rf'^set\(CMAKE_CXX_COMPILER_{field} "(.*)"\)$', compiler, re.M)
                for field in ("ID", "VERSION")
            )
            parts = (name and name[1], version and version[1], found and found[1])
            return " ".join(part or "unknown" for part in parts)
    return "built elsewhere"


def toolchain() -> str:
    """All that decides how many instructions the same source takes."""
    profiled = "--enable-optimizations" in (sysconfig.get_config_var("CONFIG_ARGS") or "")
    shared = sysconfig.get_config_var("Py_ENABLE_SHARED")
    return ", ".join(
        (
            f"{platform.python_implementation()} {platform.python_version()}",
            platform.python_compiler().replace("[", "").replace("]", ""),
            f"{'profiled' if profiled else 'plain'} {'shared' if shared else 'static'} build",
            f"module {_module_build()}",
            platform.machine(),
        )
    )


def compare(counts: Counts, recorded: Counts) -> bool:
    """Print each case beside its record; true where none has grown too much."""
    fits = True
    for key, count in counts.items():
        before = recorded[key]
        growth = count / before - 1
        grown = growth > ALLOWED_GROWTH
        fits = fits and not grown
        verdict = "too many" if grown else "ok"
        print(f"{key:8} {count:10.1f} {before:12.1f} recorded {growth:+8.1%}  {verdict}")
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
    records = json.loads(RECORDS.read_text()) if RECORDS.exists() else {}
    print(f"Instructions per operation ({tools})")
    if not options.record and tools in records:
        return 0 if compare(counts, records[tools]) else 1
    for key, count in counts.items():
        print(f"{key:8} {count:10.1f}")
    if options.record:
        records[tools] = counts
        RECORDS.write_text(json.dumps(records, indent=2, sort_keys=True) + "\n")
        print("Recorded.")
    else:
        print("Nothing is recorded for this toolchain, so nothing was compared (--record does).")
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
