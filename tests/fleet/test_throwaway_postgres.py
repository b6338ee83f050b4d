"""The throw-away server of the demo and the tests."""

import signal
import socket
from pathlib import Path

import pytest

from support import SOON, start

pytest.importorskip("psycopg", reason="the fleet's libraries are not installed")
from throwaway_postgres import Server

_HOLD = """
import sys
from pathlib import Path
from throwaway_postgres import Server
with Server(Path(sys.argv[1])) as server:
    print(server.url, flush=True)
    sys.stdin.read()
"""


def test_it_ends_with_the_process_that_started_it(postgres: Server, tmp_path: Path) -> None:
    holder = start("-c", _HOLD, tmp_path)
    host, port = holder.stdout.readline().split("@")[1].split("/")[0].split(":")
    with socket.create_connection((host, int(port)), SOON) as connection:
        holder.send_signal(signal.SIGKILL)
        holder.communicate(timeout=SOON)
        connection.settimeout(SOON)
        assert connection.recv(1) == b""
