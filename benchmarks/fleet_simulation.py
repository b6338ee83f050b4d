"""What a fleet of any size asks of its account: leases as discrete events, beside what one
PostgreSQL row grants on this machine.

    make bench-fleet                   tables on standard output, pictures in docs/
    make bench-fleet ARGS=--measure    measures the row anew, in place of the record

A process pays at a steady rate, asks for a slice when less than half of one is left, and stands
still while it has none. The account serves one request after the other. Of the calls themselves
only the last of each process matters: it may pass the lease by any part of its cost.
"""

from __future__ import annotations

import argparse
import heapq
import json
import random
import tempfile
import threading
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).parents[1]
RECORD = Path(__file__).with_name("results") / "fleet.json"
PICTURES = ROOT / "docs"
CALL_USD = 0.002
CALL_S = 1.0
THREADS = 8
LINK_S = 0.001
PAY_RATE = THREADS * CALL_USD / CALL_S  # USD a second, of one process

PROCESSES = (4, 16, 64, 256, 1024, 4096, 10_000)
CAPS = (0.05, 50.0, 5000.0)
SLICES = (1, 4, 16, 64, 256, 1024)  # in calls


@dataclass
class Process:
    left: float = 0.0
    since: float = 0.0
    granted: float = 0.0
    stalled: float = 0.0
    refused: bool = False

    def spend(self, now: float, rate: float) -> None:
        """Let the time since the last look pass."""
        wanted = (now - self.since) * rate
        self.stalled += max(0.0, wanted - self.left) / rate if not self.refused else 0.0
        self.left, self.since = max(0.0, self.left - wanted), now


@dataclass(frozen=True)
class Outcome:
    """What became of one day; shares are of the cap or of the time."""

    seconds: float
    leases: int
    asked_a_second: float
    stalled: float
    in_leases: float
    overshoot: float


def simulate(processes: int, cap: float, slice_usd: float, account_s: float) -> Outcome:
    """A day whose work is never done before its cap is spent."""
    dice = random.Random(f"{processes}/{cap}/{slice_usd}")
    fleet = [Process() for _ in range(processes)]
    # Each process has its own pace, and begins within the first second.
    paces = [PAY_RATE * dice.uniform(0.8, 1.2) for _ in fleet]
    events = [(dice.random(), index) for index in range(processes)]
    heapq.heapify(events)
    free, account_free_at, leases, refused_at, waiting = cap, 0.0, 0, 0.0, processes
    in_leases = 0.0
    while events and waiting:
        asked, index = heapq.heappop(events)
        account_free_at = max(account_free_at, asked + LINK_S / 2) + account_s
        answered = account_free_at + LINK_S / 2
        leases += 1
        grant = min(slice_usd, free)
        free -= grant
        process = fleet[index]
        process.spend(answered, paces[index])
        process.left += grant
        process.granted += grant
        if grant < slice_usd:
            if not refused_at:
                refused_at = answered
                for other, pace in zip(fleet, paces, strict=True):
                    in_leases += max(0.0, other.left - (answered - other.since) * pace)
            process.refused = True
            waiting -= 1
            continue
        half = max(0.0, process.left - slice_usd / 2) / paces[index]
        heapq.heappush(events, (answered + half, index))
    end = max(one.since + one.left / pace for one, pace in zip(fleet, paces, strict=True))
    paid_beyond = sum(dice.random() * CALL_USD for one in fleet if one.granted)
    return Outcome(
        seconds=end,
        leases=leases,
        asked_a_second=leases / account_free_at,
        stalled=sum(one.stalled for one in fleet) / (processes * account_free_at),
        in_leases=in_leases / cap,
        overshoot=paid_beyond / cap,
    )


def measure(seconds: float = 2.0, rounds: int = 3) -> dict[str, dict[str, float]]:
    """Requests a second of one durable PostgreSQL, by kind and connections: the best of some
    rounds, since what else runs on the machine can only take away."""
    from fleet.account import Account
    from fleet.client import PaidCall
    from fleet.postgres import Server

    def hammer(url: str, number: int, kind: str, done: list[int]) -> None:
        account = Account(url, f"{kind}/{number}", 10**12, 60.0)
        day, until = account.lease(0).day, time.monotonic() + seconds
        while time.monotonic() < until:
            if kind == "leases":
                account.lease(1)
            else:
                account.record(PaidCall(day, "paragraph", 5, CALL_USD))
            done[number] += 1
        account.close()

    best: dict[str, dict[str, float]] = {"leases": {}, "paid calls": {}}
    with tempfile.TemporaryDirectory() as folder, Server(Path(folder), durable=True) as server:
        url = server.new_database("account")
        for kind, rates in best.items():
            for connections in (1, 4, 16, 64):
                for _ in range(rounds):
                    done = [0] * connections
                    threads = [
                        threading.Thread(target=hammer, args=(url, number, kind, done))
                        for number in range(connections)
                    ]
                    began = time.monotonic()
                    for thread in threads:
                        thread.start()
                    for thread in threads:
                        thread.join()
                    rate = sum(done) / (time.monotonic() - began)
                    rates[str(connections)] = max(round(rate), rates.get(str(connections), 0))
    return best


def tables(measured: dict[str, dict[str, float]]) -> None:
    row = max(measured["leases"].values())
    print("| connections |", " | ".join(measured["leases"]), "|")
    print("|---|" + "---|" * len(measured["leases"]))
    for kind, rates in measured.items():
        print(f"| {kind} a second |", " | ".join(f"{rate:,}" for rate in rates.values()), "|")
    print(
        "\nLeases a second that a fleet needs, by calls a slice; in bold what is beyond one row:\n"
    )
    print("| processes |", " | ".join(f"{calls:,}" for calls in SLICES), "|")
    print("|---|" + "---|" * len(SLICES))
    for processes in PROCESSES:
        needs = [processes * PAY_RATE / (calls * CALL_USD) for calls in SLICES]
        texts = [f"{need:,.0f}" if need >= 10 else f"{need:.2g}" for need in needs]
        cells = [
            f"**{text}**" if need > row else text for text, need in zip(texts, needs, strict=True)
        ]
        print(f"| {processes:,} |", " | ".join(cells), "|")
    print("| one row grants |", " | ".join([f"{row:,}"] * len(SLICES)), "|")
    print("\nA day with slices of 16 calls, on one row:\n")
    print("| processes | cap | leases | without a lease | leased at the first refusal | beyond |")
    print("|---|---|---|---|---|---|")
    for processes in (4, 64, 1024, 10_000):
        for cap in CAPS:
            day = simulate(processes, cap, 16 * CALL_USD, 1 / row)
            print(
                f"| {processes:,} | ${cap:,g} | {day.leases:,} | {day.stalled:.1%} |"
                f" {day.in_leases:.1%} | {day.overshoot:.2%} |"
            )


def pictures(row: float) -> None:
    import matplotlib
    from matplotlib.figure import Figure

    matplotlib.rcParams.update(
        {"svg.hashsalt": "decision-bounds", "svg.fonttype": "none", "font.size": 9}
    )
    colours = ("#9ecae1", "#6baed6", "#4292c6", "#2171b5", "#08519c", "#08306b")

    figure = Figure(figsize=(9, 3.6), layout="constrained")
    need, still = figure.subplots(1, 2, sharex=True)
    for calls, colour in zip(SLICES, colours, strict=True):
        size = calls * CALL_USD
        rates = [processes * PAY_RATE / size for processes in PROCESSES]
        need.plot(PROCESSES, rates, "o-", color=colour)
        # A day of fifty slices for each process, whatever its cap: long enough to be steady.
        days = [simulate(count, 50 * count * size, size, 1 / row) for count in PROCESSES[:6]]
        still.plot(
            PROCESSES[:6],
            [100 * day.stalled for day in days],
            "o-",
            color=colour,
            label=f"{calls:,}",
        )
    need.axhline(row, color="#d1793b")
    need.text(4, row * 1.3, f"one row: {row:g} a second", color="#d1793b")
    need.set_yscale("log")
    need.set_ylabel("leases a second that are needed")
    still.legend(frameon=False, title="calls a slice")
    still.set_ylabel("% of the time without a lease, on one row")

    slices = Figure(figsize=(9, 3.6), layout="constrained")
    stranded, over = slices.subplots(1, 2, sharex=True)
    cap = 50.0
    for processes, colour in zip(PROCESSES[:6], colours, strict=True):
        days = [simulate(processes, cap, calls * CALL_USD, 0.0) for calls in SLICES]
        stranded.plot(SLICES, [100 * day.in_leases for day in days], "o-", color=colour)
        shares = [100 * day.overshoot for day in days]
        over.plot(SLICES, shares, "o-", color=colour, label=f"{processes:,} processes")
    stranded.set_ylabel(f"% of a ${cap:g} cap in leases at the first refusal")
    over.set_ylabel(f"% of a ${cap:g} cap paid beyond it")
    over.legend(frameon=False)
    panels = {
        need: "processes",
        still: "processes",
        stranded: "calls a slice",
        over: "calls a slice",
    }
    for axes, label in panels.items():
        axes.set_xscale("log")
        axes.set_xlabel(label)
        axes.grid(True, alpha=0.3)
        axes.spines[["top", "right"]].set_visible(False)
    for name, drawn in (("need", figure), ("slices", slices)):
        drawn.savefig(PICTURES / f"fleet-{name}.svg", metadata={"Date": None})


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--measure", action="store_true", help="measure the row on this machine")
    if parser.parse_args().measure:
        from fleet.postgres import ServerError

        try:
            RECORD.write_text(json.dumps(measure(), indent=2) + "\n")
        except ServerError as error:
            parser.exit(1, f"fleet_simulation: {error}\n")
    measured = json.loads(RECORD.read_text())
    tables(measured)
    pictures(max(measured["leases"].values()))


if __name__ == "__main__":
    main()
