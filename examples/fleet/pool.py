"""The fleet on a pool of processes: nothing but an initializer."""

from concurrent.futures import ProcessPoolExecutor

from decision_client.passes import Outcome

from fleet.member import Settings, decide, join


def decide_all(texts: list[str], settings: Settings, processes: int) -> list[Outcome]:
    with ProcessPoolExecutor(processes, initializer=join, initargs=(settings,)) as pool:
        return list(pool.map(decide, texts))
