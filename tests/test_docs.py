"""What README and the pages of docs/ show is run, page by page, and shows what is said there."""

import os
import re
import subprocess
import sys
from doctest import ELLIPSIS
from pathlib import Path

import pytest
from sybil import Sybil
from sybil.parsers.markdown import PythonCodeBlockParser

ROOT = Path(__file__).parents[1]
PAGES = [ROOT / "README.md", *sorted((ROOT / "docs").glob("*.md"))]
SOURCES = ["benchmarks", "checks", "docs", "engines", "examples", "korvane", "model"]
SOURCES += ["support", "tests"]
SNIPPETS = Sybil([PythonCodeBlockParser(doctest_optionflags=ELLIPSIS)])


@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_every_snippet_runs(page: Path, tmp_path: Path, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.chdir(tmp_path)  # where the files that they name are made
    named = {"", "python", "console", "text"}  # what is not Python says so; "" closes a block
    assert set(re.findall(r"^ *```([^\n{]*)$", page.read_text(), re.MULTILINE)) <= named
    for example in SNIPPETS.parse(page).examples():
        example.evaluate()


def test_readme_quotes_the_quickstart_and_what_it_prints() -> None:
    program, readme = ROOT / "examples" / "quickstart.py", (ROOT / "README.md").read_text()
    assert f"```python\n{program.read_text()}```" in readme
    environment = os.environ | {"PYTHONPATH": os.environ["DECISION_BOUNDS_PATH"]}
    run = subprocess.run([sys.executable, program], env=environment, capture_output=True, text=True)
    assert run.returncode == 0, run.stderr
    assert f"```text\n{run.stderr}{run.stdout}```" in readme


def test_links_and_names_of_files_lead_somewhere() -> None:
    """Links of README and its like (Sphinx checks those among the pages), and files in `...`."""
    files = [*ROOT.glob("*"), *(file for folder in SOURCES for file in (ROOT / folder).rglob("*"))]
    known = "\n".join(f"/{file.relative_to(ROOT)}" for file in files) + "\n"
    for page in (file for file in files if file.suffix == ".md"):
        for target in re.findall(r"\]\(([^)#:]+)[^):]*\)", page.read_text()):
            assert (page.parent / target).exists(), f"{page.relative_to(ROOT)}: {target}"
        for name in re.findall(r"`([\w/.-]+\.(?:h|cpp|pyi|md))`", page.read_text()):
            assert f"/{name}\n" in known, f"{page.relative_to(ROOT)}: {name}"
