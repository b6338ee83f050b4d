"""`python -m checks [NAME[=NUMBER]...]`: runs the checks of the module, or those named, a line for
each. A number says how much some of them do."""

import subprocess
import sys
import time

CHECKS = [
    *("overshoot", "once", "interrupts", "exits", "memory", "differential", "schedules", "races"),
    *("interpreters", "lost", "simulation", "tree", "fleet"),
]
PATIENCE = 1800.0  # seconds for one check; only a hang takes so long


def run(name: str, number: str) -> bool:
    """Each in a process of its own: some are there to crash it."""
    program = f"from checks import {name}; print({name}.check({number}))"
    began = time.monotonic()
    try:
        done = subprocess.run(
            [sys.executable, "-X", "faulthandler", "-c", program],
            capture_output=True,
            text=True,
            timeout=None if number else PATIENCE,
        )
        passed = done.returncode == 0
        figure = done.stdout.strip() if passed else f"FAILED (exit status {done.returncode})"
        report = done.stderr
    except subprocess.TimeoutExpired as late:
        passed, figure = False, f"FAILED: not done after {PATIENCE:.0f} s"
        report = (late.stderr or b"").decode()
    print(f"{name:13} {figure:90} {time.monotonic() - began:4.0f} s", flush=True)
    if not passed:
        print(report, end="", file=sys.stderr, flush=True)
    return passed


def main() -> int:
    asked = [argument.partition("=") for argument in sys.argv[1:] or CHECKS]
    for name, equals, number in asked:
        if name not in CHECKS or (equals and not number.isdigit()):
            print(f"checks: no check is called {name}; there are {', '.join(CHECKS)}")
            return 2
    return 0 if all([run(name, number) for name, _, number in asked]) else 1


if __name__ == "__main__":
    sys.exit(main())
