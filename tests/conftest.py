"""Puts the built module and its plain-Python model on the path; what one test base runs on both."""

import os
import sys
from pathlib import Path
from types import ModuleType

import pytest

TESTS = Path(__file__).parent
BUILD = os.environ.get("DECISION_BOUNDS_PATH") or str(TESTS.parent / "build")
sys.path[:0] = [BUILD, str(TESTS), str(TESTS / "model")]
os.environ["DECISION_BOUNDS_PATH"] = BUILD  # for the tests that run a program of their own

import plain_bounds  # noqa: E402

from korvane.engines import decision_bounds  # noqa: E402


@pytest.fixture(params=[decision_bounds, plain_bounds], ids=["native", "model"])
def m(request: pytest.FixtureRequest) -> ModuleType:
    """The module under test: what a test says of the one must be true of the other."""
    return request.param
