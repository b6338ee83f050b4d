"""An endpoint to try the client on: a model server on loopback that decides by keywords.

It behaves as a paid service does: it takes its time, bills by a price list, refuses some requests
(503, free of charge) and leaves some replies hanging for longer than a client waits, billed all the
same. What happens to the n-th attempt of a request depends on the seed alone, not on timing.
"""

from __future__ import annotations

import json
import math
import random
import sys
import threading
import traceback
from collections import Counter
from dataclasses import dataclass
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from typing import Self

_DESKS = {
    "repairs": ("broken", "leak", "repair", "crack", "loose", "rust", "stuck", "replace"),
    "billing": ("fee", "invoice", "paid", "charge", "refund", "deposit", "receipt", "bill"),
    "bookings": ("book", "reserve", "berth", "borrow", "loan", "slot", "plot", "waiting list"),
    "thanks": ("thank", "grateful", "pleased", "kind of"),
}
_BYTES_PER_TOKEN = 4
_STALL_S = 30.0


@dataclass(frozen=True)
class Price:
    """What a call of one feature costs, USD."""

    per_call: float
    per_token: float

    def of(self, tokens: int) -> float:
        return self.per_call + self.per_token * tokens


PRICES = {"paragraph": Price(0.001, 0.00002), "question": Price(0.004, 0.00002)}


@dataclass(frozen=True)
class Behaviour:
    """How well the service is doing."""

    latency: float
    failures: float
    stalls: float
    seed: int


def decide(text: str) -> str:
    """The desk whose words the text uses most, or the file for what concerns no desk."""
    lower = text.lower()
    hits = {desk: sum(lower.count(word) for word in words) for desk, words in _DESKS.items()}
    desk = max(hits, key=hits.__getitem__)
    return desk if hits[desk] else "file"


class EmbeddedEndpoint:
    """The server, running while its ``with`` block does."""

    def __init__(self, behaviour: Behaviour) -> None:
        self.billed = 0.0
        self._behaviour = behaviour
        self._attempts: Counter[str] = Counter()
        self._lock = threading.Lock()
        self._closing = threading.Event()
        self._server = _Server(self)
        self._thread = threading.Thread(
            target=self._server.serve_forever, kwargs={"poll_interval": 0.05}, daemon=True
        )

    @property
    def url(self) -> str:
        return f"http://127.0.0.1:{self._server.server_port}/decide"

    def __enter__(self) -> Self:
        self._thread.start()
        return self

    def __exit__(self, *_exc: object) -> None:
        self._closing.set()
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()

    def answer(self, body: bytes) -> tuple[int, dict[str, object]]:
        """The status and the answer to one attempt, after the time that it takes."""
        try:
            request = json.loads(body)
            feature, text = request["feature"], str(request["text"])
            price = PRICES[feature]
        except (ValueError, TypeError, LookupError) as error:
            return 400, {"error": f"not a request: {error!r}"}
        with self._lock:
            self._attempts[text] += 1
            dice = random.Random(f"{self._behaviour.seed}/{self._attempts[text]}/{text}")
        fate = dice.random()
        self._closing.wait(self._behaviour.latency * dice.uniform(0.5, 1.5))
        if fate < self._behaviour.failures:
            return 503, {"error": "overloaded"}
        tokens = math.ceil(len(body) / _BYTES_PER_TOKEN)
        cost = price.of(tokens)
        with self._lock:
            self.billed += cost
        if fate < self._behaviour.failures + self._behaviour.stalls:
            self._closing.wait(_STALL_S)
        return 200, {"decision": decide(text), "input_tokens": tokens, "cost": cost}


class _Server(ThreadingHTTPServer):
    daemon_threads = True
    block_on_close = False
    request_queue_size = 128

    def __init__(self, endpoint: EmbeddedEndpoint) -> None:
        super().__init__(("127.0.0.1", 0), _Handler)
        self.endpoint = endpoint

    def handle_error(self, request: object, client_address: object) -> None:
        """Report what is wrong here: a client that hung up before its reply is not."""
        if not isinstance(sys.exception(), OSError):
            traceback.print_exc()


class _Handler(BaseHTTPRequestHandler):
    server: _Server
    protocol_version = "HTTP/1.1"
    disable_nagle_algorithm = True

    def do_POST(self) -> None:
        body = self.rfile.read(int(self.headers.get("content-length", 0)))
        status, answer = self.server.endpoint.answer(body)
        content = json.dumps(answer).encode()
        self.send_response(status)
        self.send_header("content-type", "application/json")
        self.send_header("content-length", str(len(content)))
        self.end_headers()
        self.wfile.write(content)

    def log_message(self, format: str, *args: object) -> None:
        """The client reports what happened."""
