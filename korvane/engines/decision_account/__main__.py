"""What an operator asks of an account: the day as a table, another cap, fewer rows."""

from __future__ import annotations

import argparse
from collections.abc import Sequence

from .records import NANO, AccountError, AccountSilent, State, Store, nano
from .stores import store_at


def main(arguments: Sequence[str] | None = None) -> str:
    """What to print. Ends the program where that cannot be had."""
    parser = argparse.ArgumentParser(
        prog="python -m korvane.engines.decision_account", description=__doc__
    )
    commands = parser.add_subparsers(dest="command", required=True, metavar="show|cap|prune")
    show = commands.add_parser("show", help="today's calls by name, feature and state")
    cap = commands.add_parser("cap", help="change the cap, from now on")
    prune = commands.add_parser("prune", help="delete the ended calls of older days")
    for command in (show, cap, prune):
        command.add_argument("url", help="sqlite:///FILE or postgresql://...")
    cap.add_argument("usd", type=float, help="what the paid calls of a day may cost")
    prune.add_argument("days", type=int, nargs="?", default=30, help="to keep, with today (30)")
    asked = parser.parse_args(arguments)
    store = store_at(asked.url)
    try:
        store.open(None)
        if asked.command == "show":
            return _table(store)
        if asked.command == "cap":
            store.set_cap(nano(asked.usd))
            return f"The cap is ${asked.usd:.2f} from now on."
        return f"{store.prune(max(asked.days, 2))} calls were deleted."
    except (AccountError, AccountSilent, ValueError) as error:
        parser.exit(1, f"{error}\n")
    finally:
        store.close()


def _table(store: Store) -> str:
    sums = store.look()
    lines = [
        f"paid ${sums.paid / NANO:.4f} of ${sums.cap / NANO:.2f} today (UTC), "
        f"${sums.lost / NANO:.4f} of it for lost calls; "
        f"{sums.holders} open calls hold ${sums.held / NANO:.4f}",
        "",
        f"{'name':16} {'feature':16} {'state':6} {'calls':>7} {'USD':>12} {'oldest':>10}",
    ]
    for name, feature, state, count, amount, unknown, age in store.table():
        usd = f"{(amount or 0) / NANO:.4f}" + ("+?" if unknown and state == State.OPEN else "")
        oldest = f"{age:,.0f} s" if state == State.OPEN else ""
        lines.append(
            f"{name or '-':16} {feature or '-':16} {State(state).name.lower():6} {count:7} "
            f"{usd:>12} {oldest:>10}"
        )
    return "\n".join(line.rstrip() for line in lines)


if __name__ == "__main__":
    print(main())
