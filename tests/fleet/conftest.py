"""What each test of the fleet has of its own: an endpoint."""

from collections.abc import Iterator

import pytest

pytest.importorskip("distributed", reason="the fleet's libraries are not installed")
from decision_client.endpoint import Behaviour, EmbeddedEndpoint


@pytest.fixture
def endpoint() -> Iterator[EmbeddedEndpoint]:
    with EmbeddedEndpoint(Behaviour(latency=0.02, failures=0.1, stalls=0.0, seed=1)) as endpoint:
        yield endpoint
