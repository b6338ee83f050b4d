"""A pass over many texts. Its budget is kept here, exactly: a share is held around each task that
is handed out, and settled with the answer."""

from __future__ import annotations

import math
import threading
import time
from collections.abc import Callable, Sequence
from concurrent.futures import FIRST_COMPLETED, Future, ThreadPoolExecutor, wait
from dataclasses import dataclass, replace
from functools import partial

from decision_client.passes import End, Outcome, ended_by, watch
from decision_client.wire import Reply, Request

from fleet.engine import Dask
from fleet.member import Settings, decide
from korvane.engines.decision_bounds import DecisionError, RequestRates, RunBudget

_LOOK_S = 0.5
_GONE_S = 30.0  # without any process: longer than it takes to start one again
_GRACE_S = 5.0  # beside the time that a call may take


@dataclass
class FleetPass:
    """One pass. Two may share an engine, an account, or both."""

    engine: Dask
    settings: Settings
    budget: RunBudget
    stop: threading.Event  # once set no call begins, and those in flight have their time

    def __post_init__(self) -> None:
        self._rates = RequestRates()
        self._first = threading.Lock()
        self._given_up: Future[tuple[Outcome, Reply | None]] = Future()
        self._alive_at = time.monotonic()

    def run(self, texts: Sequence[str], show: Callable[[int, int], None]) -> list[Outcome]:
        """Their outcomes, in their order. As many are handed out as the engine has threads."""
        with ThreadPoolExecutor(self.engine.width) as threads:
            calls = [threads.submit(self._decide, Request("paragraph", text)) for text in texts]
            try:
                return watch(calls, partial(self._look, show), _LOOK_S)
            except BaseException:
                self.stop.set()
                self._give_up("the pass was ended")
                raise

    def _look(self, show: Callable[[int, int], None], answered: int, undone: int) -> None:
        """Show how far it is, and end what would be waited for in vain."""
        show(answered, undone)
        now = time.monotonic()
        if self.stop.is_set():
            self.engine.stop(self.settings)  # each time: a process may have come since
            if now > self._alive_at + self.settings.timeout + _GRACE_S:
                self._give_up("stopped, and what was in flight does not end")
        elif not self.engine.is_gone():
            self._alive_at = now
        elif now > self._alive_at + _GONE_S:
            self._give_up("no process of the engine is left")

    def _give_up(self, words: str) -> None:
        if not self._given_up.done():
            self._given_up.set_exception(RuntimeError(words))

    def _decide(self, request: Request) -> Outcome:
        # Whoever asks for an unknown amount waits until nobody else holds any. So nobody does, but
        # for one after the other until there is a reply to learn from.
        with self._first:
            if math.isinf(self._rates.tokens(request.size)):
                return self._paid(request)
        return self._paid(request)

    def _paid(self, request: Request) -> Outcome:
        """A text that was paid without an answer, or may have been, is handed out again, as another
        call."""
        outcome = Outcome(request, End.FAILED)
        for _ in range(self.settings.attempts):
            tokens = self._rates.tokens(request.size)
            try:
                with self.budget.hold(tokens) as share:
                    outcome, used = self._ask(request, tokens)
                    if used is not None:
                        share.settle(used)
            except DecisionError as error:
                return ended_by(error, request)
            if outcome.reply is not None:
                self._rates.learn(request.size, request.feature, outcome.reply)
            if used is None or outcome.reply is not None or self._given_up.done():
                break
        return replace(outcome, end=End.FAILED) if outcome.end is End.OUT_OF_BUDGET else outcome

    def _ask(self, request: Request, tokens: float) -> tuple[Outcome, Reply | None]:
        """What a process answers; where it died, that the call may have been paid."""
        try:
            if self._given_up.done():
                self._given_up.result()
            task = self.engine.submit(decide, request, self.settings)
            done = wait([task, self._given_up], return_when=FIRST_COMPLETED).done
            return (task if task in done else self._given_up).result()
        except Exception as error:  # whatever the engine makes of it
            end = End.STOPPED if self.stop.is_set() else End.FAILED
            used = Reply("", int(min(tokens, request.size)), 0.0)
            return Outcome(request, end, message=str(error) or repr(error)), used
