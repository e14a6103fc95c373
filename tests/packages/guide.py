"""The files and commands that docs/integration.md shows, and which of the commands the tests ran."""
from __future__ import annotations

import re
import textwrap
from pathlib import Path

from debianroot import Booted, DebianRoot

GUIDE = Path(__file__).resolve().parents[2] / "docs/integration.md"
typed: set[str] = set()


def blocks() -> list[str]:
    """The indented blocks."""
    found = re.findall(r"(?:(?<=\n\n)|^)((?:(?: {4,}.*)?\n)+)", GUIDE.read_text(), flags=re.MULTILINE)
    return [textwrap.dedent(block).strip("\n") + "\n" for block in found if block.strip()]


def files() -> dict[str, str]:
    """By the path that the first line names."""
    shown = {}
    for block in blocks():
        first, _, text = block.partition("\n")
        if path := re.fullmatch(r"(?:# |<!-- )(/\S+)(?: -->)?", first):
            shown[path[1]] = text
    return shown


def commands() -> set[str]:
    return {line for block in blocks() if not block.startswith(("#", "<!--")) for line in block.splitlines() if line}


def type_in(system: DebianRoot | Booted, line: str, folder: str = "/") -> str:
    """Runs a line of the guide."""
    typed.add(line)
    return system.run("/bin/sh", "-c", f"cd {folder} && {line}").stdout
