"""Isolated interpreters, each with a lock of its own: the module is imported, used and dropped in
each while others, the main one among them, use theirs."""

from support import Task, interpreters

THREADS, ROUNDS = 4, 10


def check() -> str:
    lives = [Task(interpreters.live, ROUNDS) for _ in range(THREADS)]
    while any(life.is_alive() for life in lives):
        exec(interpreters.USE, {})
    for life in lives:
        life.result()
    return f"{THREADS * ROUNDS} isolated interpreters, {THREADS} at a time, beside the main one"
