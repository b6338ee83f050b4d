"""The lock that waiters sleep on, under every schedule of three threads with at most three switches
out of turn, and under random ones of six: no wake-up lost, no turn lost, nothing granted twice."""

import subprocess
from pathlib import Path

from korvane.engines import decision_bounds as bounds

PROGRAM = Path(bounds.__file__).parents[2] / "schedules"


def check() -> str:
    command = [PROGRAM, "thorough"]
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()
