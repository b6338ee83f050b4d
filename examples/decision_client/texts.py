"""The paragraphs of text files."""

from __future__ import annotations

import re
from pathlib import Path

SHIPPED = Path(__file__).parent.parent / "texts"


class UnreadableText(Exception):
    """A file that is not there, may not be read or is not text; the message says which and why."""


def shipped_texts() -> list[Path]:
    return sorted(SHIPPED.glob("*.txt"))


def read_paragraphs(path: Path) -> list[str]:
    """The paragraphs of one UTF-8 file: runs of lines between blank ones, each as one line."""
    try:
        text = path.read_text(encoding="utf-8")
    except UnicodeDecodeError as error:
        raise UnreadableText(f"cannot read {path}: it is not UTF-8 text") from error
    except OSError as error:
        raise UnreadableText(f"cannot read {path}: {error.strerror}") from error
    return [" ".join(block.split()) for block in re.split(r"\n\s*\n", text) if block.strip()]
