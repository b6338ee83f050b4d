"""What `make wheel` leaves in dist/, installed and used as its users would."""

import email
import os
import re
import shutil
import subprocess
import sys
import tarfile
import textwrap
import venv
import zipfile
from pathlib import Path

import pytest

pytestmark = [pytest.mark.packaging, pytest.mark.timeout(3600)]

ROOT = Path(__file__).parents[2]
README = ROOT / "README.md"
PROGRAMS = Path(__file__).parent
ACCOUNT = "korvane/engines/decision_account"
NAME, MODULE = "korvane-decision-bounds", "korvane.engines.decision_bounds"


def dist(pattern: str) -> Path:
    [found] = ROOT.glob(pattern)
    return found


OWN = {"CMAKE_GENERATOR", "MYPYPATH", "PYTHONPATH", "VIRTUAL_ENV"}


class Environment:
    """A virtual environment, activated, that holds what a test installs and nothing of this one."""

    def __init__(self, at: Path) -> None:
        venv.create(at, symlinks=True)
        self.python = at / "bin" / "python"
        [self.site] = at.glob("lib/python*/site-packages")
        self.at = at

    def run(
        self, *command: str | Path, path: Path | None = None, **variables: str
    ) -> subprocess.CompletedProcess[str]:
        kept = {key: value for key, value in os.environ.items() if key not in OWN} | variables
        kept["PATH"] = f"{self.at / 'bin'}:{kept['PATH']}"
        if path is not None:
            kept["PYTHONPATH"] = str(path)
        return subprocess.run(command, env=kept, cwd=self.at, capture_output=True, text=True)

    def pip(self, *arguments: str | Path, **variables: str) -> subprocess.CompletedProcess[str]:
        pip = [sys.executable, "-m", "pip", "--disable-pip-version-check", "--python", self.python]
        return self.run(*pip, *arguments, **variables)

    def install(self, *packages: str | Path) -> None:
        done = self.pip("install", "-qq", *packages)
        assert done.returncode == 0, done.stderr

    def uninstall(self) -> None:
        assert self.pip("uninstall", "-qq", "-y", NAME).returncode == 0

    def files(self) -> set[str]:
        return {str(file.relative_to(self.site)) for file in self.site.rglob("*") if file.is_file()}


@pytest.fixture
def clean(tmp_path: Path) -> Environment:
    return Environment(tmp_path / "clean")


@pytest.fixture(scope="module")
def typed(tmp_path_factory: pytest.TempPathFactory) -> Environment:
    environment = Environment(tmp_path_factory.mktemp("typed"))
    environment.install(dist("dist/*.whl"), "--group", f"{ROOT / 'pyproject.toml'}:types")
    return environment


@pytest.mark.parametrize("package", ["dist/*.whl", "build/dist/*.whl", "dist/*.tar.gz", "."])
def test_a_package_brings_the_module_and_nothing_else(clean: Environment, package: str) -> None:
    clean.install(ROOT if package == "." else dist(package))
    used = clean.run(clean.python, PROGRAMS / "everything.py")
    assert used.returncode == 0, used.stderr
    shown = {
        re.sub(r"\.cpython-\w+-[\w-]+\.so$", ".so", file)
        for file in clean.files()
        if "__pycache__" not in file and ".dist-info/" not in file
    }
    module = {f"{MODULE.replace('.', '/')}{end}" for end in (".so", ".pyi")}
    account = {f"{ACCOUNT}/{file.name}" for file in (ROOT / ACCOUNT).glob("*.*")}
    assert shown == module | account | {"korvane/engines/py.typed"}
    clean.uninstall()
    assert not clean.files()


def test_what_a_package_says_of_itself() -> None:
    wheel = dist("dist/*.whl")
    with zipfile.ZipFile(wheel) as archive:
        [text] = (archive.read(name) for name in archive.namelist() if name.endswith("/METADATA"))
    metadata = email.message_from_bytes(text)
    newest = re.search(r"^## (\S+)", (ROOT / "CHANGELOG.md").read_text(), re.MULTILINE)
    assert newest is not None and metadata["Version"] == newest[1]
    # So that pip says in one line why it refuses another Python, and an index why it takes none.
    assert set(metadata["Requires-Python"].split(",")) == {">=3.13", "<3.14"}
    assert "Private :: Do Not Upload" in metadata.get_all("Classifier")
    # Nothing but the module is needed: a store of another kind is an extra.
    assert all(
        'extra == "postgresql"' in need.replace("'", '"')
        for need in metadata.get_all("Requires-Dist")
    )
    # What cibuildwheel's images, Debian 12's C library and Debian 13's allow.
    assert re.search(r"-cp313-cp313-manylinux_2_(28|34|38)_\w+\.whl$", wheel.name)
    with tarfile.open(dist("dist/*.tar.gz")) as archive:
        names = archive.getnames()
    assert not [name for name in names if "results" in name or "/build" in name or "/.ci" in name]


def test_without_a_compiler_one_sentence_says_so(clean: Environment) -> None:
    refused = clean.pip("install", ROOT, CXX="no-such-compiler")
    assert refused.returncode != 0 and clean.files() == set()
    assert "decision_bounds needs g++ 12 or clang++ 16, or newer; found none.\n" in refused.stderr


@pytest.mark.parametrize("program", ["everything.py", "mistakes.py"])
@pytest.mark.parametrize("checker", [["mypy", "--strict"], ["basedpyright"]], ids=lambda c: c[0])
def test_type_checkers_find_the_mistakes(
    typed: Environment, checker: list[str], program: str
) -> None:
    lines = (PROGRAMS / program).read_text().splitlines()
    wrong = {number for number, line in enumerate(lines, 1) if "# mistake: " in line}
    config = typed.at / "pyproject.toml"  # of the user's: none of ours is found
    config.write_text('[tool.basedpyright]\ntypeCheckingMode = "strict"\n')
    shutil.copy(PROGRAMS / program, typed.at)
    run = typed.run(typed.python, "-m", *checker, program)
    found = {int(line) for line in re.findall(r":(\d+)(?::\d+)?[: -]+error", run.stdout)}
    assert (found, run.returncode) == (wrong, bool(wrong)), run.stdout


def test_the_stub_says_what_the_module_is(typed: Environment) -> None:
    run = typed.run(typed.python, "-m", "mypy.stubtest", MODULE)
    assert run.returncode == 0, run.stdout


# How a host's own korvane may look, and where its two packages come from.
EXTEND = textwrap.dedent(re.findall(r"( +from pkgutil .*?)```", README.read_text(), re.DOTALL)[0])
HOSTS = {
    "namespace": {},
    "regular": {"korvane/__init__.py": "", "korvane/engines/__init__.py": ""},
    "extended": {"korvane/__init__.py": EXTEND, "korvane/engines/__init__.py": EXTEND},
}


def place_host(environment: Environment, kind: str, way: str, tmp_path: Path) -> Path | None:
    """Puts the host there; what its processes need on their path."""
    at = environment.site if way == "installed" else tmp_path / "host"
    for file, text in (HOSTS[kind] | {"korvane/engines/host.py": ""}).items():
        (at / file).parent.mkdir(parents=True, exist_ok=True)
        (at / file).write_text(text)
    if way == "editable":
        (environment.site / "host.pth").write_text(f"{at}\n")
    return at if way == "path" else None


def imports(environment: Environment, module: str, path: Path | None) -> bool:
    run = environment.run(environment.python, "-Bc", f"import {module}", path=path)
    assert run.returncode == 0 or f"No module named '{module}'" in run.stderr
    return run.returncode == 0


@pytest.mark.parametrize("way", ["installed", "path", "editable"])
@pytest.mark.parametrize("kind", HOSTS)
def test_beside_a_host_package(
    clean: Environment, typed: Environment, tmp_path: Path, kind: str, way: str
) -> None:
    path = place_host(clean, kind, way, tmp_path)
    before = clean.files()
    clean.install(dist("dist/*.whl"))
    assert imports(clean, "korvane.engines.host", path)
    assert imports(clean, MODULE, path) is (kind != "regular" or way == "installed")
    if way == "installed":
        mypy = ["-m", "mypy", "--strict", f"--python-executable={clean.python}"]
        checked = typed.run(typed.python, *mypy, PROGRAMS / "everything.py")
        assert checked.returncode == 0, checked.stdout
    clean.uninstall()
    assert clean.files() == before
    assert imports(clean, "korvane.engines.host", path) and not imports(clean, MODULE, path)


@pytest.mark.parametrize("kind", ["namespace", "regular"])
def test_within_a_host_package(clean: Environment, tmp_path: Path, kind: str) -> None:
    path = place_host(clean, kind, "path", tmp_path)
    assert path is not None
    before = set(path.rglob("*"))
    done = clean.run("cmake", "--install", ROOT / "build", "--prefix", path)
    assert done.returncode == 0, done.stderr
    assert imports(clean, "korvane.engines.host", path) and imports(clean, MODULE, path)
    for file in (ROOT / "build" / "install_manifest.txt").read_text().splitlines():
        Path(file).unlink()
    (path / ACCOUNT).rmdir()
    assert set(path.rglob("*")) == before
    assert not imports(clean, MODULE, path)
