"""Measure everything side by side and write the report.

    run.py [--quick] [--output DIR]

Writes report.md, report.json, timings.json (readable by `pyperf stats` and `pyperf compare_to`),
ratios.svg and scaling.svg into DIR. Without arguments DIR is benchmarks/results, and the figures
in benchmarks/README.md are renewed too.
"""

from __future__ import annotations

import argparse
import json
import subprocess
import sys
import time
from collections import defaultdict
from collections.abc import Iterator
from pathlib import Path

import contention
import plot
import pyperf
import report
import rows
from cases import MODULE, ROOT, UNROLL, load
from yardsticks import limiters

HERE = Path(__file__).resolve().parent
RESULTS = HERE / "results"
QUICK_RESULTS = ROOT / "build" / "bench"
README = HERE / "README.md"


def _workers(quick: bool) -> Iterator[str]:
    """Fresh processes, so that no one layout of memory decides; kinds take turns."""
    for _ in range(1 if quick else 4):
        yield from ("timing", "contention", "waiting")
    for _ in range(1 if quick else 3):
        yield from ("traced:module", "traced:twin")
        for made in ("share", "budget"):
            yield from (f"resident:module:{made}", f"resident:twin:{made}")
    yield "imports"


def _measure(quick: bool) -> dict[str, rows.Values]:
    """The values of each kind of worker, those of its processes one after another."""
    kinds: dict[str, rows.Values] = defaultdict(lambda: defaultdict(list))
    for kind in _workers(quick):
        print(f"measuring: {kind}", file=sys.stderr, flush=True)
        command = [sys.executable, str(HERE / "worker.py"), kind, *["--quick"] * quick]
        done = subprocess.run(command, stdout=subprocess.PIPE, check=True)
        for key, more in json.loads(done.stdout).items():
            kinds[kind][key].extend(float(f"{value:.5g}") for value in more)
    return kinds


def _timings(values: rows.Values) -> pyperf.BenchmarkSuite:
    """The single-thread timings in pyperf's own format, without what it tells of the machine."""
    suite = []
    for key, samples in values.items():
        facts = {"name": key, "inner_loops": UNROLL, "unit": "second"}
        run = pyperf.Run(samples, metadata=facts, collect_metadata=False)
        suite.append(pyperf.Benchmark([run]))
    return pyperf.BenchmarkSuite(suite)


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.partition("\n")[0])
    parser.add_argument("--quick", action="store_true", help="under a minute, with a wide spread")
    parser.add_argument("--output", type=Path, metavar="DIR", help="where the report goes")
    options = parser.parse_args()
    output = options.output or (QUICK_RESULTS if options.quick else RESULTS)
    threads = contention.QUICK_THREADS if options.quick else contention.THREADS
    try:
        load(MODULE)
    except ImportError as error:
        print(f"bench: {MODULE} cannot be imported ({error}); build it first", file=sys.stderr)
        return 2

    began = time.monotonic()
    kinds = _measure(options.quick)
    values = {key: samples for kind in kinds.values() for key, samples in kind.items()}
    results = [rows.evaluate(row, values) for row in rows.rows(contention.QUICK_THREADS)]
    facts = report.about(time.monotonic() - began)
    figures = report.markdown(results, values, threads, limiters(), facts)

    output.mkdir(parents=True, exist_ok=True)
    (output / "report.md").write_text(figures)
    (output / "report.json").write_text(rows.as_json(results, values, facts))
    _timings(kinds["timing"]).dump(str(output / "timings.json"), replace=True)
    plot.ratios(results, output / "ratios.svg")
    plot.scaling(values, threads, output / "scaling.svg")
    if output == RESULTS:
        report.put_into(README, figures)
    print(figures)
    missed = sum(result.verdict == rows.Verdict.MISSED for result in results)
    print(f"{len(results)} rows, {missed} not reached; report in {output}", file=sys.stderr)
    return 0


if __name__ == "__main__":
    raise SystemExit(main())
