"""A share is given back exactly once, whatever ends the call that holds it."""

from types import ModuleType

import pytest
from support import Reply, together

from korvane.engines import decision_bounds

REPLY = Reply(cost=0.5)


@pytest.mark.parametrize(
    "steps, counted",
    [
        (["settle"], [REPLY]),
        (["settle", "settle", "exit"], [REPLY]),
        (["exit", "settle"], [None]),
        (["exit bare", "exit"], [None]),
        (["enter", "settle", "exit"], [REPLY]),
    ],
)
def test_given_back_once(m: ModuleType, steps: list[str], counted: list[object]) -> None:
    calls: list[object] = []
    share = m.Share(give_back=calls.append)
    for step in steps:
        match step:
            case "settle":
                assert share.settle(reply=REPLY) is None
            case "enter":
                assert share.__enter__() is share
            case "exit":
                assert share.__exit__(None, None, None) is None
            case "exit bare":
                assert share.__exit__() is None
    assert calls == counted and share._give_back is None


def test_block_left_by_an_error(m: ModuleType) -> None:
    calls: list[object] = []
    with pytest.raises(KeyboardInterrupt), m.Share(calls.append) as share:
        raise KeyboardInterrupt
    assert calls == [None] and share._give_back is None
    with m.Share(calls.append) as share:
        share.settle(REPLY)
    assert calls == [None, REPLY]


def test_shares_of_nothing(m: ModuleType) -> None:
    assert m.Share()._give_back is m._nothing
    for share in (m.Share(), m.Share(None), m.Share(give_back=m._nothing)):
        assert share.settle(REPLY) is None and share._give_back is None


def test_give_back_that_fails(m: ModuleType) -> None:
    calls: list[object] = []

    def fail(reply: object) -> None:
        calls.append(reply)
        raise LookupError(reply)

    share = m.Share(fail)
    with pytest.raises(LookupError) as caught, share:
        raise ValueError("the call")
    assert isinstance(caught.value.__context__, ValueError)
    share.settle(REPLY)
    assert calls == [None]
    share = m.Share(0)  # not callable, not None
    with pytest.raises(TypeError, match="'int' object is not callable"):
        share.settle(None)
    assert share._give_back is None


def test_give_back_that_meets_its_share(m: ModuleType) -> None:
    calls: list[object] = []
    share = m.Share()

    def settle_again(reply: object) -> None:
        calls.append((reply, share._give_back))
        share.settle(reply)

    share._give_back = settle_again
    share.settle(REPLY)
    assert calls == [(REPLY, None)]

    class Last:
        """A give-back that goes away while it runs."""

        def __call__(self, reply: object) -> None:
            shares.clear()
            calls.append(reply)

    shares = [m.Share(Last())]
    shares[0].settle(None)
    assert calls[1:] == [None]


def test_settle_of_a_subclass(m: ModuleType) -> None:
    calls: list[object] = []

    class Noted(m.Share):
        def settle(self, reply: object) -> None:
            calls.append("noted")
            super().settle(reply)

    with Noted(calls.append):
        pass
    share = m.Share(calls.append)
    share.settle = lambda reply: calls.append(("replaced", reply))
    with share:
        pass
    assert calls == ["noted", None, ("replaced", None)]


def test_racing_settles() -> None:
    calls: list[int] = []
    shares = [decision_bounds.Share(calls.append) for _ in range(2000)]

    def settle_all(number: int) -> None:
        for share in shares:
            share.settle(number)

    together(6, settle_all)
    assert len(calls) == len(shares)
