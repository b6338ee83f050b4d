"""Processes that end, or fork, while threads are inside the module: none hangs or crashes."""

import os
from concurrent.futures import ThreadPoolExecutor

from support import busy

EXITS, CHILDREN = 50, 20  # children of each kind of parent


def check() -> str:
    kinds = ["exit"] * EXITS + busy.FORKS
    with ThreadPoolExecutor(os.process_cpu_count()) as pool:
        list(pool.map(busy.run, kinds, range(len(kinds)), [CHILDREN] * len(kinds)))
    return f"{EXITS} exits and {CHILDREN * len(busy.FORKS)} children of busy parents: none hangs"
