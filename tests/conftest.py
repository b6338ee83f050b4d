"""Puts the built module on the path; what one test base runs on the module and on its model."""

import os
import signal
import sys
from collections.abc import Iterator
from pathlib import Path
from types import ModuleType
from typing import Any

import pytest

# Set as well for the tests that run a program of their own.
sys.path.insert(
    0, os.environ.setdefault("DECISION_BOUNDS_PATH", str(Path(__file__).parents[1] / "build"))
)

import plain_bounds

from korvane.engines import decision_bounds

# Some tests send it; what a shell starts in the background begins with Ctrl-C ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)


@pytest.fixture(params=[decision_bounds, plain_bounds], ids=["native", "model"])
def m(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test: what a test says of the one must be true of the other."""
    return request.param


@pytest.fixture
def account(tmp_path: Path) -> str:
    return f"sqlite:///{tmp_path}/spend.db"


@pytest.fixture(scope="session")
def postgres(tmp_path_factory: pytest.TempPathFactory) -> Iterator[Any]:
    """A PostgreSQL of the tests' own: each makes a database there, and may stop and start it."""
    pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
    from throwaway_postgres import Server, ServerError

    try:
        server = Server(tmp_path_factory.mktemp("postgres"))
    except ServerError as error:
        if os.environ.get("CI"):
            raise
        pytest.skip(str(error))
    with server:
        yield server
