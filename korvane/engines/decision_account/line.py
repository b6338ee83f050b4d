"""The calls of a process that wait for room, of which one asks the store on behalf of all."""

from __future__ import annotations

import math
import threading
from collections import deque

from .driving import Bell
from .records import Answer

ASK_S = 0.05  # between two requests, where nothing was given back in this process


class Line:
    """The first in line asks: at once where room was given back here or the one before found some,
    else every ``ASK_S``. Who finds none for an unknown amount lets the next one ask, for whom there
    may be some. The lock guards everything, and is held for moments only."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._places: deque[Bell] = deque()
        self._ask_at = 0.0
        self._refusal: Answer | None = None
        self._refused_until = 0.0
        self.rings = 0

    def __len__(self) -> int:
        return len(self._places)

    def join(self, place: Bell, now: float, rings: int) -> None:
        """Stand at the end. ``rings`` is how often it had rung when the caller found no room, or
        came: room that was given back since is asked for at once."""
        with self._lock:
            if not self._places:
                self._ask_at = now + ASK_S if rings == self.rings else 0.0
            self._places.append(place)

    def leave(self, place: Bell, found_room: bool) -> None:
        """Go. Where one found room, the next may find some as well."""
        with self._lock:
            first = self._places[0] is place
            self._places.remove(place)
            if first:
                self._call_first(at_once=found_room)

    def seconds_left(self, place: Bell, now: float) -> float:
        """How long until it is this one's turn to ask; infinite for whoever is not the first."""
        with self._lock:
            return self._ask_at - now if self._places[0] is place else math.inf

    def asks(self, now: float) -> None:
        """The first is about to ask. What is given back from now on makes it ask again."""
        with self._lock:
            self._ask_at = now + ASK_S

    def step_back(self, place: Bell) -> None:
        """Let the next one ask when it is time; it wakes to learn when that is."""
        with self._lock:
            if self._places[0] is place:
                self._places.rotate(-1)
                self._places[0].ring()

    def ring(self) -> None:
        """Something was given back here."""
        with self._lock:
            self.rings += 1
            self._call_first(at_once=True)

    def refused(self, answer: Answer, now: float) -> None:
        """The cap is reached, for all who stand here."""
        with self._lock:
            self._refusal, self._refused_until = answer, now + ASK_S

    def refusal(self, now: float) -> Answer | None:
        with self._lock:
            return self._refusal if now < self._refused_until else None

    def _call_first(self, at_once: bool) -> None:
        if at_once:
            self._ask_at = 0.0
        if self._places:
            self._places[0].ring()
