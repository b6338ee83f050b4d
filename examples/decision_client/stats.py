"""What a run shows that no bound counts: the attempts that failed and the waiting for room."""

from __future__ import annotations

import threading
import time
from collections.abc import Iterator
from contextlib import contextmanager

_NOTICED_S = 0.005


class Stats:
    """Counters for the display, changed under one lock and read without it."""

    def __init__(self) -> None:
        self.failed = 0
        self.unread = 0
        self.waiting = 0
        self.waited = 0
        self.waited_s = 0.0
        self._lock = threading.Lock()

    def attempt_failed(self, *, unread: bool) -> None:
        with self._lock:
            self.failed += 1
            self.unread += unread

    @contextmanager
    def admission(self) -> Iterator[None]:
        """Time an admission: one that took a moment has waited for room."""
        begun = time.monotonic()
        with self._lock:
            self.waiting += 1
        try:
            yield
        finally:
            seconds = time.monotonic() - begun
            with self._lock:
                self.waiting -= 1
                if seconds > _NOTICED_S:
                    self.waited += 1
                    self.waited_s += seconds
