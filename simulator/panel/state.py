"""What a device has, as the codes that its tables will serve, and how serious that is."""
from __future__ import annotations

import dataclasses
import re
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator

from rows import CODES, PARSERS, SEVERITIES, STATIONS, Cell

BAD = {"notLive", "failed", "disconnected", "shorted", "classDFault", "monitorFault", "loadChange", "groundFault",
       "shutdown", "voltageLow", "interrupted", "lineFault", "missing", "unconnected", "failCleared", "failSet"}
WARN = {"indecisive", "failedTimeout", "failedReceiveMonitorValues"}
TYPES = {"input": "gpi", "output": "gpo"}  # of the lines of a station
OFF = {"disabled", "notMonitored"}
UNKNOWN = {"unknown", "notReported"}
FAULT_LEVELS = {1: "bad", 2: "bad", 3: "warn", 4: "warn", 5: "notice"}


@dataclasses.dataclass
class Facts:
    """Of one device: the leaves of its data service, what its amplifier monitor announced, the levels of its lines."""
    model: int
    leaves: dict[str, str] = dataclasses.field(default_factory=dict)
    faults: list[dict[str, str]] = dataclasses.field(default_factory=list)
    announced: dict[tuple[str, ...], str] = dataclasses.field(default_factory=dict)
    lines: dict[str, str] = dataclasses.field(default_factory=dict)

    def take(self, xml: str) -> None:
        state = ElementTree.fromstring(xml)
        self.leaves = dict(_leaves(state, "/state"))
        self.faults = [{"reporter": message.findtext("reporter", ""), "ref": message.findtext("rep_ref", ""),
                        "id": next((item.tag for item in message.find("msgdata") or []), ""),
                        "level": message.findtext("level", ""), "text": message.findtext("text", ""),
                        "state": FAULT_LEVELS[SEVERITIES.get(message.findtext("level", ""), 3)]}
                       for message in state.iterfind("sys_messages/sys_message")]

    @property
    def switches(self) -> list[tuple[str, bool]]:
        return [(match[1], text == "true") for path, text in self.leaves.items()
                if (match := re.search(r"/trap\[name='(.*)'\]/enabled$", path))]

    def setting(self, name: str) -> str:
        return self.leaves.get(f"/state/config/snmp_settings/{name}", "")


def _leaves(node: ElementTree.Element, path: str) -> Iterator[tuple[str, str]]:
    for child in node:
        if child.tag == "sys_messages":
            continue
        key = "name" if child.tag == "trap" else "port_id" if child.tag == "port" else "kid"
        value = child.findtext(key)
        below = f"{path}/{child.tag}" + (f"[{key}='{value}']" if value is not None else "")
        if len(child):
            yield from _leaves(child, below)
        else:
            yield below, child.text or ""


def has(cell: Cell, facts: Facts) -> tuple[str, int | str | None]:
    """What the device has, in its words, and what the cell serves for it; None if that does not follow."""
    leaf, line = facts.leaves.get(cell.path, ""), facts.lines.get(cell.line, "")
    heard = facts.announced.get(cell.key, "")
    if cell.kind == "leaf":
        return leaf, _code(cell.parser, leaf) if cell.path in facts.leaves else None
    if cell.kind == "channel":
        class_d = facts.leaves.get(PARSERS["class_d"]["path"], "")
        texts = [{"true": "enabled", "false": "not enabled"}.get(leaf, ""), class_d and f"class-D {class_d}",
                 {"1": "out of order", "2": "in operation"}.get(heard, "")]
        if class_d == "ok" and leaf == "true":
            code = {"1": 5, "2": 3}.get(heard)
        else:
            code = 4 if class_d not in ("ok", "") else 2 if class_d and leaf == "false" else 1
        return ", ".join(filter(None, texts)), code
    if cell.kind == "let":
        return ("not enabled", 2) if leaf != "true" else ("missing", 4) if heard == "1" else ("enabled", 3)
    if cell.kind in TYPES and not cell.line:
        return heard, CODES[f"{cell.kind}_state"].get(heard, 1) if heard else None
    if cell.kind in TYPES and (leaf if cell.path else "gpi") != TYPES[cell.kind]:
        return "not used", 1
    return (f"level {line}", {"0": 2, "1": 3}.get(line, 1)) if line else ("", None)


def _code(parser: str, text: str) -> int | str | None:
    if text in CODES[parser]:
        return CODES[parser][text]
    other = PARSERS[parser]["other"]
    if other.startswith("x"):
        scale = int(other[1:])
        number = re.fullmatch(rf"-?(\d{{1,9}}(?:\.\d{{1,{len(other) - 2}}})?)" if scale > 1 else r"(\d{1,9})", text)
        return round(float(number[1]) * scale) if number else 0
    if other == "text":
        return text
    return int(text if other == "whole" else other) if (text if other == "whole" else other).isdigit() else None


def level(cell: Cell, code: int | str | None) -> str:
    """How serious a served value is."""
    if code is None:
        return "unknown"
    if cell.words:
        word = cell.words.get(int(code), "unknown") if isinstance(code, int) else "unknown"
        if word in BAD or (word, cell.object) in (("open", "ampChannelLineState"), ("unknown", "relayStatus")):
            return "bad"
        return "warn" if word in WARN else "off" if word in OFF else "unknown" if word in UNKNOWN else "ok"
    if not isinstance(code, int):
        return "ok"
    if cell.object == "tempCurrent":
        return _grade(code, 700, 850)
    if cell.object == "fanSpeed":
        return _grade(-code, -500, -1)
    return _grade(abs(code / 1000 - cell.nominal) / cell.nominal, 0.05, 0.1) if cell.nominal else "ok"


def _grade(value: float, warn: float, bad: float) -> str:
    return "bad" if value > bad else "warn" if value > warn else "ok"


def worst(facts: Facts, cells: list[Cell]) -> str:
    """Of the faults and the cells; a cell that is off or unknown is no trouble."""
    found = {fault["state"] for fault in facts.faults} | {level(cell, has(cell, facts)[1]) for cell in cells}
    return next((state for state in ("bad", "warn", "notice") if state in found), "ok")
