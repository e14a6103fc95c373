"""The golden walks: the objects of each model, as printed by snmpwalk -On -Oe -OU, from walks.txt."""
from __future__ import annotations

import fnmatch
import re
from pathlib import Path
from typing import NamedTuple

FILE = Path(__file__).with_suffix(".txt")
BASE = "1.3.6.1.4.1.52717.3"
CELL = re.compile(r'"(?:[^"\\]|\\["\\])*"|-?\d+')


class Variable(NamedTuple):
    oid: str
    type: str  # INTEGER, Gauge32 or STRING
    value: str

    @property
    def cell(self) -> str:
        return '"' + re.sub(r'(["\\])', r"\\\1", self.value) + '"' if self.type == "STRING" else self.value

    def __str__(self) -> str:
        """As snmpwalk prints it."""
        return f".{self.oid} = " + (f"{self.type}: " if self.cell != '""' else "") + self.cell


def read_all(text: str) -> dict[str, list[Variable]]:
    """Name of the walk to its variables, in order. The text explains its form."""
    found: dict[str, dict[tuple[int, ...], Variable]] = {}
    arc, types = "", []
    for line in text.splitlines():
        words = line.split()
        if not words or words[0] == "#":
            continue
        if words[0] == "walks":
            found |= {name: {} for name in words[1:]}
            continue
        if words[0] == "==":
            arc, types = words[2], words[3:]
            continue
        patterns, instance, cells = line.split(" | ", 2)
        values = [match[0] for match in CELL.finditer(cells)]
        if " ".join(values) != cells or [value[0] == '"' for value in values] != [type_ == "STRING" for type_ in types]:
            raise ValueError(f"{FILE.name}: cannot read {line!r}")
        for name in {name for pattern in patterns.split() for name in fnmatch.filter(found, pattern)}:
            for column, (type_, value) in enumerate(zip(types, values), 1):
                oid = f"{BASE}.{arc}.{column}.{instance}"
                key = tuple(map(int, oid.split(".")))
                if key in found[name]:
                    raise ValueError(f"{FILE.name}: {oid} twice in {name}")
                text = re.sub(r"\\(.)", r"\1", value[1:-1]) if type_ == "STRING" else value
                found[name][key] = Variable(oid, type_, text)
    return {name: [variables[key] for key in sorted(variables)] for name, variables in found.items()}


WALKS = read_all(FILE.read_text()) if FILE.exists() else {}
NAMES = sorted(WALKS)


def read(name: str) -> list[Variable]:
    return WALKS[name]


def text_of(name: str) -> str:
    """What snmpwalk prints."""
    return "".join(f"{variable}\n" for variable in WALKS[name])
