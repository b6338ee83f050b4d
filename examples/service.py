"""A web service on the account, for any server that forks, threads, or both.

    ACCOUNT=sqlite:///spend.db CAP=5 ENDPOINT=https://models.example/decide \\
        gunicorn --workers 4 --threads 8 --preload service:app

POST a text: the desk that it is for, or 429 once the day's cap is reached. GET: its figures.
"""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Iterable
from typing import Any

from decision_client.wire import UNPAID, Endpoint, Request

from korvane.engines.decision_account import CapReached, PaidCalls, SharedSpend
from korvane.engines.decision_bounds import DecisionError

_DEADLINE_S = 5.0

# Made before the fork where the server loads the program first: each process then opens the account
# at its first call, and dials the endpoint by itself.
spend = SharedSpend(os.environ["ACCOUNT"], float(os.environ["CAP"]), name="service", patience=30.0)
calls = PaidCalls(spend, unknown_cost=0.05)
endpoint = Endpoint(os.environ["ENDPOINT"], timeout=_DEADLINE_S)


def app(environ: dict[str, Any], start_response: Callable[..., object]) -> Iterable[bytes]:
    if environ["REQUEST_METHOD"] == "GET":
        status, answer, admission = "200 OK", _figures(), 0.0
    else:
        text = environ["wsgi.input"].read(int(environ.get("CONTENT_LENGTH") or 0))
        status, answer, admission = _decide(text.decode(errors="replace"))
    timing = f"admission;dur={admission * 1000:.3f}"
    start_response(status, [("Content-Type", "text/plain"), ("Server-Timing", timing)])
    return [answer.encode()]


def _decide(text: str) -> tuple[str, str, float]:
    """The status, the answer, and how long the call waited to be admitted."""
    request = Request("question", text)
    deadline = time.monotonic() + _DEADLINE_S
    try:
        with calls.call(request.size, request.feature, deadline=deadline, unpaid=UNPAID) as call:
            left = deadline - time.monotonic()
            reply = endpoint.send(request, left)
            call.settle(reply)
        return "200 OK", reply.decision, _DEADLINE_S - left
    except CapReached as refusal:
        return "429 Too Many Requests", str(refusal), 0.0
    except DecisionError as error:
        return "503 Service Unavailable", str(error), 0.0


def _figures() -> str:
    figures = vars(spend.figures())
    return "".join(f"decisions_{name} {value:g}\n" for name, value in figures.items())
