"""The golden walks: one of each model, and of each station with expanders."""
from __future__ import annotations

import fnmatch
from typing import NamedTuple

from . import steps
from .catalogue import COLUMN_OIDS, COMPACT, EXTENDED, MODELS, OBJECTS, STATIONS, Table, rows
from .device import Device
from .mib import walks as golden
from .polling import wait_until
from .snmp import TABLES, Variable


class Walk(NamedTuple):
    model: int
    text: str | None = None  # the model text, when it is not the model's ordinary one

    @property
    def name(self) -> str:
        return f"{self.model}" + {None: "", COMPACT: "-compact", EXTENDED: "-extended"}[self.text]

    @property
    def expanders(self) -> bool:
        return self.text is not None

    @property
    def options(self) -> list[str]:
        """Of scripts/device."""
        return ["--model-text", self.text] if self.text else []

    @property
    def golden(self) -> list[Variable]:
        return [Variable(f".{oid}", kind, text) for oid, kind, text in golden.read(self.name)]

    @property
    def golden_text(self) -> str:
        return golden.text_of(self.name)


WALKS = [Walk(model) for model in MODELS] + [Walk(model, text) for model in STATIONS for text in (COMPACT, EXTENDED)]

# One line input has no pilot tone, so that the walks show that each line state copies the last pilot tone.
FAILED_TONE = "/state/lines/line[kid='ln1']/pilot_tone_state=failed"

GOLDEN_HEAD = """\
# Made by KVSNMP_WRITE_GOLDEN=1 ctest --preset dev -R '^device-walks$': check every difference. What each model serves
# on a device with the simulator's data. Below "== NAME ARC TYPES" a line is one row of a table: the walks that have
# it, its index, its cells. ARC is below the private MIB's .3, and cell n is at ARC.n.index; scalars have the index 0.
"""


def write_golden(served: dict[str, list[Variable]]) -> None:
    sections: dict[str, dict[str, dict[tuple[Variable, ...], set[str]]]] = {}  # arc, index, cells, walks
    names: dict[str, str] = {}
    for walk, variables in served.items():
        cells_of: dict[tuple[str, str], list[Variable]] = {}
        for variable in variables:
            arc, _, index = variable.oid.removeprefix(f"{TABLES}.").rpartition(".")
            cells_of.setdefault((arc.rpartition(".")[0], index), []).append(variable)
        for (arc, index), cells in cells_of.items():
            sections.setdefault(arc, {}).setdefault(index, {}).setdefault(tuple(cells), set()).add(walk)
    for item in OBJECTS:
        arc = f"{item.arc}.1" if isinstance(item, Table) else item.arc.rpartition(".")[0]
        names[arc] = item.name if arc not in names else names[arc]
    lines = ["walks " + " ".join(served)]
    for arc in sorted(sections, key=lambda text: [int(part) for part in text.split(".")]):
        first = next(iter(next(iter(sections[arc].values()))))
        lines.append(f"\n== {names[arc]} {arc} {' '.join(cell.type for cell in first)}")
        for index, found in sections[arc].items():
            for cells, having in found.items():
                texts = " ".join(golden.Variable(*cell).cell for cell in cells)
                lines.append(f"{patterns(having, list(served))} | {index} | {texts}")
    text = GOLDEN_HEAD + "\n".join(lines) + "\n"
    golden.FILE.write_text(text)
    golden.WALKS.update(golden.read_all(text))


def patterns(having: set[str], names: list[str]) -> str:
    """The fewest patterns that match these walks and no others."""
    words, left = [], set(having)
    for pattern in ["*", *(f"{model}*" for model in STATIONS), "*-compact", "*-extended", *names]:
        matched = set(fnmatch.filter(names, pattern))
        if matched & left and matched <= having:
            words.append(pattern)
            left -= matched
    return " ".join(words)


def wait_for_lines(device: Device, walk: Walk) -> None:
    """Until each GPIO line that has a meaning was read; the stations read one line a second."""
    if walk.model not in STATIONS:
        return
    lines = [f"{COLUMN_OIDS['controlInputStatus']}.{index}" for index in (1, 2, 3, *range(7, 15))
             if index < 7 or walk.expanders]
    lines += [f"{COLUMN_OIDS['controlOutputState']}.{index}" for index in (4, 5)]
    lines += [f"{COLUMN_OIDS['relayStatus']}.{index}" for index, _ in rows("relayTable", walk.model, walk.expanders)]

    def all_read() -> bool:
        """On a busy machine the sub-agent may have lost its session for a moment."""
        device.shift_clock(steps.CACHE_SECONDS)
        return all(kind == "INTEGER" and text != "1" for kind, text in device.snmp.get(*lines))

    wait_until(all_read, 60, what="all GPIO lines read")
