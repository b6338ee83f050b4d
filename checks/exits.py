"""Processes that end, or fork, while threads are inside the module: none hangs or crashes."""

import os
from concurrent.futures import ThreadPoolExecutor

from support import busy

EXITS, CHILDREN = 50, 20  # children of each kind of parent


def check() -> str:
    programs = [busy.EXIT] * EXITS + [busy.children(fork, CHILDREN) for fork in busy.FORKS]
    with ThreadPoolExecutor(os.process_cpu_count()) as pool:
        list(pool.map(busy.run, programs, range(len(programs))))
    return f"{EXITS} exits and {CHILDREN * len(busy.FORKS)} children of busy parents: none hangs"
