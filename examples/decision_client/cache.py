"""The answers so far: an equal request is paid once, also when it is asked again meanwhile."""

from __future__ import annotations

import threading
from collections.abc import Callable
from concurrent.futures import Future
from dataclasses import replace

from decision_client.wire import Reply, Request


class AnswerCache:
    """Answers by request. The lock guards the table only, never a call."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._answers: dict[Request, Future[Reply]] = {}

    def get(self, request: Request, call: Callable[[], Reply]) -> Reply:
        """The known answer as a cached reply, else what ``call`` answers.

        Threads that ask for what another one is calling for wait for it and share how it ends; a
        call that failed is forgotten, so that whoever asks next may try again.
        """
        with self._lock:
            answer = self._answers.get(request)
            first = answer is None
            if answer is None:
                answer = self._answers[request] = Future()
        if not first:
            return replace(answer.result(), cached=True)
        try:
            reply = call()
        except BaseException as error:
            with self._lock:
                del self._answers[request]
            answer.set_exception(error)
            raise
        answer.set_result(reply)
        return reply
