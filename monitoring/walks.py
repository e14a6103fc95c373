"""The golden walks: the objects of each model, as printed by snmpwalk -On -Oe -OU."""
from __future__ import annotations

import re
from pathlib import Path
from typing import NamedTuple

FOLDER = Path(__file__).resolve().parents[1] / "tests/device/golden"
NAMES = sorted(file.stem for file in FOLDER.glob("*.walk"))
LINE = re.compile(r'\.([\d.]+) = (?:(INTEGER|Gauge32): (-?\d+)|(?:STRING: )?"((?:[^"\\]|\\["\\])*)")')


class Variable(NamedTuple):
    oid: str
    type: str  # INTEGER, Gauge32 or STRING
    value: str


def read(name: str) -> list[Variable]:
    variables = []
    for line in (FOLDER / f"{name}.walk").read_text().splitlines():
        match = LINE.fullmatch(line)
        if not match:
            raise ValueError(f"{name}.walk: cannot read {line!r}")
        oid, type_, number, text = match.groups()
        variables.append(Variable(oid, type_, number) if type_
                         else Variable(oid, "STRING", re.sub(r"\\(.)", r"\1", text)))
    return variables
