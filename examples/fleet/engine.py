"""The engine: Dask, which can also tell its workers to stop, and whether any is left."""

from __future__ import annotations

import asyncio
import logging
import signal
from collections.abc import Callable, Iterator
from concurrent.futures import Future
from contextlib import contextmanager
from pathlib import Path
from typing import Any

import distributed

from fleet import member

_SILENCE_S = 10.0  # until a scheduler that says nothing is taken for gone

_dask: Any = distributed  # most of its functions have no types


class Dask:
    """The workers of a cluster, those that come later included. What a dead one was to run, the
    scheduler gives to another."""

    def __init__(self, client: Any) -> None:
        self._client = client
        # Of the whole cluster: a worker that has just died is about to come back.
        self.width = sum(client.nthreads().values())

    def submit[**P, T](self, call: Callable[P, T], /, *a: P.args, **kw: P.kwargs) -> Future[T]:
        """Its answer is fetched as soon as it is there: it would be lost with its worker, and paid
        again."""
        task = self._client.submit(call, *a, pure=False, **kw)  # equal texts are tasks of their own
        answer = self._client.gather(task, asynchronous=True)
        return asyncio.run_coroutine_threadsafe(answer, self._client.loop.asyncio_loop)

    def stop(self, settings: member.Settings) -> None:
        # From its own loop, where nobody waits for a worker that hangs.
        self._client.loop.add_callback(self._client.run, member.stop, settings, on_error="ignore")

    def is_gone(self) -> bool:
        try:
            return not self._client.sync(self._client.scheduler.ncores, callback_timeout=_SILENCE_S)
        except OSError:
            return True


@contextmanager
def existing(cluster: Any) -> Iterator[Dask]:
    """A cluster that is there, or the address of its scheduler; its workers have this package on
    their path. Raises OSError where nobody answers, or no worker comes."""
    with _dask.Client(cluster, timeout=_SILENCE_S) as client:
        client.wait_for_workers(1, timeout=_SILENCE_S)
        yield Dask(client)


@contextmanager
def local(workers: int, threads: int, directory: Path) -> Iterator[Dask]:
    """A scheduler and worker processes of this machine, for the length of the block."""
    # They inherit that it is ignored: Ctrl-C in the terminal is the coordinator's to handle.
    handler = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        cluster = _dask.LocalCluster(
            n_workers=workers,
            threads_per_worker=threads,
            dashboard_address="127.0.0.1:0",
            local_directory=str(directory),
            silence_logs=logging.CRITICAL,
        )
    finally:
        signal.signal(signal.SIGINT, handler)
    with cluster, existing(cluster) as dask:
        yield dask
