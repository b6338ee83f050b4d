"""Install the named dependency groups of pyproject.toml into the running virtual environment.

What was installed is kept beside it, so that a call that finds nothing changed asks no index.
"""

import subprocess
import sys
import tomllib
from pathlib import Path


def main(names: list[str]) -> int:
    pyproject = tomllib.loads(Path("pyproject.toml").read_text())
    groups: dict[str, list[str]] = (
        pyproject["project"]["optional-dependencies"] | pyproject["dependency-groups"]
    )
    wanted = {Path(sys.prefix, f"installed-{name}.txt"): groups[name] for name in names}
    texts = {stamp: "\n".join(requirements) for stamp, requirements in wanted.items()}
    stale = [stamp for stamp in texts if not stamp.exists() or stamp.read_text() != texts[stamp]]
    if not stale:
        return 0
    requirements = sorted({requirement for stamp in stale for requirement in wanted[stamp]})
    print(f"Installing {', '.join(requirements)} into .venv.", file=sys.stderr)
    pip = [sys.executable, "-m", "pip", "install", "-qq", "--disable-pip-version-check"]
    status = subprocess.call([*pip, *requirements])
    if status == 0:
        for stamp in stale:
            stamp.write_text(texts[stamp])
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
