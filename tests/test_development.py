"""What the Makefile does in a place that is not its own: a path with a space, somebody's .venv."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

ROOT = Path(__file__).parents[1]
# A Python of .venv that runs programs, but with which the module cannot be built.
OTHER_PYTHON = '#!/bin/sh\n[ "$1" = -m ] && echo "$PYTHONPATH $2"\n'


def test_a_path_with_a_space_and_a_venv_of_another_python(tmp_path: Path) -> None:
    place = tmp_path / "a b"
    python = place / ".venv" / "bin" / "python"
    python.parent.mkdir(parents=True)
    python.write_text(OTHER_PYTHON)
    python.chmod(0o755)
    (python.parent / "cmake").symlink_to("/bin/true")
    shutil.copytree(ROOT / "scripts", place / "scripts")
    shutil.copy(ROOT / "Makefile", place)
    path = f"{Path(sys.executable).parent}:{os.environ['PATH']}"

    def make(*arguments: str) -> subprocess.CompletedProcess[str]:
        environment = os.environ | {"PATH": path, "MAKEFLAGS": "", "ARGS": ""}
        command = ["make", "-s", *arguments]
        return subprocess.run(command, cwd=place, env=environment, capture_output=True, text=True)

    programs = make("SETUP=@:", "demo", "fleet", "check").stdout.splitlines()
    assert [line.removeprefix(f"{place}/build:") for line in programs] == [
        "examples decision_client",
        "examples fleet",
        "tests:model:examples checks",
    ]
    [sentence, _status] = make("docs").stderr.splitlines()
    assert sentence.startswith("Please remove .venv")
    assert python.read_text() == OTHER_PYTHON
