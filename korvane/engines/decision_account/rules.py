"""The rules of an account as statements that a store runs: the sections of ``rules.sql``."""

from __future__ import annotations

import functools
import re
from datetime import UTC, datetime
from importlib.resources import files

VERSION = 1
_DAY_S = 86400


def _sections() -> dict[str, list[str]]:
    text = files(__package__).joinpath("rules.sql").read_text()
    text = re.sub(r"--(?! section).*", "", text)
    parts = re.split(r"-- section: (.+)\n", text)[1:]
    return {
        name: [statement.strip() for statement in body.split(";") if statement.strip()]
        for name, body in zip(parts[::2], parts[1::2], strict=True)
    }


SECTIONS = _sections()


def day_of(seconds: float) -> str:
    """The UTC date of a time."""
    return _date(int(seconds // _DAY_S))


@functools.lru_cache(maxsize=16)
def _date(day: int) -> str:
    return datetime.fromtimestamp(day * _DAY_S, UTC).strftime("%Y-%m-%d")
