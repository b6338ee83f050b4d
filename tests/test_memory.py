"""Every allocation of every operation fails once, and nothing is left behind."""

import pytest

from support import memory


@pytest.mark.skipif(not memory.LIBRARY.exists(), reason="built with the tests")
def test_without_memory() -> None:
    memory.run(0, 4)  # with numbers in place, and with objects
