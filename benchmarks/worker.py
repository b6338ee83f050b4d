"""One fresh process of measurements: prints its values as JSON. Started by run.py."""

from __future__ import annotations

import json
import sys

import contention
import footprint
import timing
import waiting


def measure(kind: str, quick: bool) -> dict[str, list[float]]:
    name, _, rest = kind.partition(":")
    match name:
        case "timing":
            return timing.measure(rounds=12 if quick else 40)
        case "contention":
            if quick:
                return contention.measure(2, contention.QUICK_THREADS, seconds=0.1)
            return contention.measure(3, contention.THREADS, seconds=0.25)
        case "waiting":
            if quick:
                return waiting.measure(1, give_backs=5, seconds=0.5, returns=50)
            return waiting.measure(2, give_backs=20, seconds=1.0, returns=200)
        case "traced":
            return footprint.traced(rest)
        case "resident":
            subject, _, made = rest.partition(":")
            return footprint.resident(subject, made)
        case "imports":
            return footprint.imports(rounds=5 if quick else 20)
    raise SystemExit(f"no such measurement: {kind}")


if __name__ == "__main__":
    print(json.dumps(measure(sys.argv[1], "--quick" in sys.argv[2:])))
