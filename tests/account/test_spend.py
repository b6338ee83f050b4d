"""A day's cap that is shared: a DailySpend to whoever uses it, whatever its store does."""

import math
import os
import signal
import sqlite3
import time
from contextlib import closing
from functools import partial
from pathlib import Path
from types import SimpleNamespace
from typing import Any

import pytest

import support
from korvane.engines import decision_bounds as bounds
from korvane.engines.decision_account import AccountError, SharedSpend, __main__, line
from support import Reply, Task, start, until

# As long as it takes, unless a test says otherwise.
admit = partial(support.admit, deadline=None, clock=time.monotonic, stopping=bounds.never)


def holds(spend: SharedSpend) -> tuple[int, float]:
    figures = spend.figures()
    return figures.in_flight, figures.held


def test_it_ends_calls_as_a_daily_spend_does(
    account: str, caplog: pytest.LogCaptureFixture
) -> None:
    def story(spend: bounds.DailySpend) -> list[str]:
        ends = []
        first = admit(spend, math.inf)
        for more in ({"deadline": 0.0}, {"deadline": 0.0, "stopping": lambda: True}):
            with pytest.raises((bounds.DecisionTimeout, bounds.DecisionStopped)) as end:
                admit(spend, 0.1, **more)
            ends.append(repr(end.value))
        first.settle(Reply(cost=0.25))
        with admit(spend, 0.75, deadline=0.0):  # room is not asked for the time
            ends.append(spend.spent())
        admit(spend, 0.1).settle(Reply(cost=0.75))
        spend.charge(Reply(cost=0.0125))
        for _ in range(2):
            with pytest.raises(bounds.DecisionBudgetExceeded) as end:
                admit(spend, 0.1)
            ends.append(str(end.value))
        return [*ends, [record.getMessage() for record in caplog.records]]

    today = time.strftime("%Y-%m-%d", time.gmtime())
    expected = story(bounds.DailySpend(1.0, lambda: today, None))
    caplog.clear()
    with SharedSpend(account, 1.0) as spend:
        assert story(spend) == expected


def test_all_who_open_it_share_it(account: str, caplog: pytest.LogCaptureFixture) -> None:
    with SharedSpend(account, 1.0, name="a") as one, SharedSpend(account, 2.0, name="b") as other:
        assert "cap is $1.00, and goes; this process was told $2.00" in caplog.text
        share = admit(one, 1.0)
        waiting = Task(admit, other, 0.1)
        until(lambda: other.figures().waiting)
        assert waiting.blocks() and holds(other) == (1, 1.0)
        assert __main__.main(["cap", account, "3"]) == "The cap is $3.00 from now on."
        with waiting.result():
            share.settle(Reply(cost=0.5))
            table = __main__.main(["show", account])
        assert other.spent() == 0.5 and other.figures().cap == 3.0
    paid, row = table.splitlines()[0], [line.split() for line in table.splitlines()[3:]]
    assert "paid $0.5000 of $3.00" in paid and "1 open calls hold $0.1000" in paid
    assert [line[:5] for line in row] == [
        ["a", "-", "paid", "1", "0.5000"],
        ["b", "-", "open", "1", "0.1000"],
    ]


def test_one_who_waits_asks_for_all(flaky: Any, spend: SharedSpend) -> None:
    share, count = admit(spend, 1.0), 40
    began = time.monotonic()
    waiting = [Task(admit, spend, 0.01) for _ in range(count)]
    until(lambda: spend._account.waiting == count)
    time.sleep(4 * line.ASK_S)
    asked = flaky.asked.count("admit") - 1
    # Each asks when it comes, unless others wait already.
    assert asked <= count + (time.monotonic() - began) / line.ASK_S + 1
    flaky.asked.clear()
    share.settle(Reply(cost=0.0))
    shares = [task.result() for task in waiting]
    assert flaky.asked.count("admit") <= count + 2
    for share in shares:
        share.settle(None)
    assert holds(spend) == (0, 0.0)


def test_room_that_comes_while_a_call_asks_is_asked_for_at_once(
    flaky: Any, spend: SharedSpend, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(line, "ASK_S", 1000.0)
    share, ask = admit(spend, 1.0), flaky._store.admit

    def slowly(call: Any) -> Any:
        answer = ask(call)
        share.settle(None)
        return answer

    flaky._store.admit = slowly
    Task(admit, spend, 0.5).result().settle(None)


@pytest.mark.parametrize("fault", ["down", "deaf"])
def test_a_store_that_fails_costs_no_call_and_no_cent(
    flaky: Any, spend: SharedSpend, fault: str, caplog: pytest.LogCaptureFixture
) -> None:
    paid, unpaid = admit(spend, 0.5), admit(spend, 0.25)
    setattr(flaky, fault, True)
    paid.settle(Reply(cost=0.125))
    unpaid.settle(None)
    assert spend._account.unwritten == 2
    for ending, error in (
        ({"deadline": time.monotonic() + 0.1}, bounds.DecisionTimeout),
        ({"stopping": lambda: True}, bounds.DecisionStopped),
    ):
        with pytest.raises(error):
            admit(spend, 0.0, **ending)
    waiting = Task(admit, spend, 0.5)
    assert waiting.blocks() and caplog.text.count("calls wait until it does") == 1
    setattr(flaky, fault, False)
    waiting.result().settle(Reply(cost=0.25))
    until(lambda: not spend._account.unwritten)
    assert (spend.spent(), holds(spend)) == (0.375, (0, 0.0))


def test_what_cannot_be_written_is_said_when_it_closes(
    flaky: Any, caplog: pytest.LogCaptureFixture
) -> None:
    spend = SharedSpend("sqlite://", 1.0)
    share = admit(spend, 0.5)
    flaky.down = True
    share.settle(Reply(cost=0.25))
    spend.close()
    assert "1 calls that cost $0.2500 could not be written" in caplog.text
    with pytest.raises(AccountError, match=r"^the account is closed$"):
        admit(spend, 0.1)


def test_a_reply_without_a_cost_counts_what_was_held(spend: SharedSpend) -> None:
    for number, cost in enumerate([-1.0, math.nan, math.inf, "1", None]):
        with pytest.raises((ValueError, TypeError)):
            admit(spend, 0.125).settle(SimpleNamespace(cost=cost))
        assert (spend.spent(), holds(spend)) == (0.125 * (number + 1), (0, 0.0))
    assert spend.figures().lost == 0.625
    admit(spend, 0.1).settle(Reply(cost=1e-12))  # never nothing for something
    assert spend.spent() == 0.625000001
    admit(spend, 0.1).settle(Reply(cost=1e30))
    with pytest.raises(bounds.DecisionBudgetExceeded):
        admit(spend, 0.1)


def stopped(account: str) -> Any:
    """A process that holds a call and is put to sleep."""
    program = f"""
import time
from korvane.engines.decision_account import SharedSpend
from korvane.engines.decision_bounds import never
spend = SharedSpend({account!r}, 1.0)
share = spend.admit(lambda: 1.5, deadline=None, clock=time.monotonic, stopping=never)
print("held", flush=True)
time.sleep(60)
"""
    process = start("-c", program)
    assert process.stdout.readline() == "held\n"
    process.send_signal(signal.SIGSTOP)
    return process


def test_calls_of_a_dead_process_end_at_once_and_of_a_stopped_one_do_not(account: str) -> None:
    with stopped(account) as process, SharedSpend(account, 1.0) as spend:
        with pytest.raises(bounds.DecisionTimeout):
            admit(spend, 0.1, deadline=time.monotonic() + 2 * line.ASK_S)
        process.kill()
        process.wait()
        with pytest.raises(bounds.DecisionBudgetExceeded):
            admit(spend, 0.1)
        assert (spend.spent(), spend.figures().lost) == (1.5, 1.5)


@pytest.mark.parametrize("kind", [None, "account", "url"], ids=["memory", "file", "postgresql"])
def test_a_forked_child_has_an_account_of_its_own(
    kind: str | None, request: pytest.FixtureRequest
) -> None:
    url = request.getfixturevalue(kind) if kind else "sqlite://"
    with SharedSpend(url, 1.0) as spend:
        store = spend._account.store
        process = store.process

        def servers() -> set[int]:
            return {connection.backend_pid for connection in getattr(store, "_idle", [])}

        share, parents = admit(spend, 0.5), servers()
        if (pid := os.fork()) == 0:
            try:
                share.settle(None)  # the parent's to say
                admit(spend, 0.25).settle(Reply(cost=0.25))
                kept = admit(spend, 0.125)
                apart = store.process != process and parents.isdisjoint(servers())
                os._exit(0 if kept and apart and holds(spend) == (2, 0.625) else 1)
            finally:
                os._exit(2)
        assert os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1]) == 0
        share.settle(Reply(cost=0.5))
        # What is in memory the child has a copy of.
        spent = 0.75 if kind else 0.5
        assert (spend.spent(), servers(), store.process) == (spent, parents, process)


def test_what_is_no_account_is_refused_in_a_sentence(
    tmp_path: Path, monkeypatch: pytest.MonkeyPatch
) -> None:
    def why(path: Path | str) -> str:
        with pytest.raises(AccountError) as error:
            SharedSpend(f"sqlite:///{path}", 1.0).close()
        return str(error.value)

    text, other, newer = tmp_path / "text", tmp_path / "other.db", tmp_path / "newer.db"
    text.write_text("not a database, and long enough to be seen as none" * 20)
    with closing(sqlite3.connect(other)) as connection, connection:
        connection.execute("CREATE TABLE theirs (x)")
    SharedSpend(f"sqlite:///{newer}", 1.0).close()
    with closing(sqlite3.connect(newer)) as connection, connection:
        connection.execute("UPDATE account SET version = 99")
    assert "no account" in why(text)
    assert "another program's database" in why(other)
    assert "newer version" in why(newer)
    assert "no such folder" in why(tmp_path / "none" / "spend.db")
    monkeypatch.setattr(os, "access", lambda path, mode: False)
    assert "read-only" in why(newer)
    monkeypatch.setattr("korvane.engines.decision_account.sqlite._file_system", lambda path: "nfs4")
    assert "network drive (nfs4)" in why(tmp_path / "spend.db")
    with pytest.raises(SystemExit):
        __main__.main(["show", f"sqlite:///{tmp_path}/absent.db"])
    assert not (tmp_path / "absent.db").exists()
