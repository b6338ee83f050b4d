"""The web service under gunicorn, forked from a process that has opened the account already."""

import os
import socket
import subprocess
import sys
from collections import Counter
from concurrent.futures import ThreadPoolExecutor

import httpx
import pytest

pytest.importorskip("gunicorn", reason="the fleet's libraries are not installed")
from decision_client.endpoint import EmbeddedEndpoint

from korvane.engines.decision_account import SharedSpend

CAP, CALLS, CALLERS = 0.5, 200, 32


def test_four_processes_of_eight_threads_pay_the_cap_and_one_call(
    account: str, endpoint: EmbeddedEndpoint
) -> None:
    environment = {"PYTHONPATH": os.pathsep.join(sys.path), "ACCOUNT": account, "CAP": str(CAP)}
    with socket.create_server(("127.0.0.1", 0), backlog=CALLERS) as listener:
        url, file = f"http://127.0.0.1:{listener.getsockname()[1]}", listener.fileno()
        options = ["--workers=4", "--threads=8", "--preload", f"--bind=fd://{file}"]
        server = subprocess.Popen(
            [sys.executable, "-m", "gunicorn", *options, "--log-level=warning", "service:app"],
            env=os.environ | environment | {"ENDPOINT": endpoint.url},
            pass_fds=[file],
        )
    try:
        with httpx.Client(timeout=None, limits=httpx.Limits(max_connections=CALLERS)) as http:
            assert "decisions_cap 0.5\n" in http.get(url).text

            def ask(number: int) -> httpx.Response:
                return http.post(url, content=f"the gate of garden {number} is stuck")

            with ThreadPoolExecutor(CALLERS) as callers:
                replies = list(callers.map(ask, range(CALLS)))
        statuses = Counter(reply.status_code for reply in replies)
        with SharedSpend(account, CAP) as spend:
            figures, [book] = spend.figures(), spend.books()
    finally:
        server.terminate()
        server.wait()
    assert set(statuses) <= {200, 429, 503} and statuses[429], statuses
    assert figures.paid == pytest.approx(endpoint.billed)
    assert CAP <= figures.paid <= CAP + book.dearest
    assert figures.lost == figures.in_flight == 0
    timings = [reply.headers["server-timing"] for reply in replies if reply.status_code == 200]
    waits = sorted(float(timing.rpartition("=")[2]) for timing in timings)
    p99 = waits[len(waits) * 99 // 100]
    print(f"p99 of admission: {p99:.1f} ms, with {figures.paid:.4f} USD paid as billed")
