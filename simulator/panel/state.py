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
OFF = {"disabled", "notMonitored"}
UNKNOWN = {"unknown", "notReported"}
LEVELS = ["ok", "off", "unknown", "notice", "warn", "bad"]  # ascending
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
    switch = facts.leaves.get(cell.path, "")
    if cell.kind == "leaf":
        return switch, _code(cell.parser, switch) if cell.path in facts.leaves else None
    if cell.kind == "channel":
        class_d = facts.leaves.get(PARSERS["class_d"]["path"], "")
        heard = facts.announced.get(("Amp", str(cell.place[0])), "")
        texts = [{"true": "enabled", "false": "not enabled"}.get(switch, ""), class_d and f"class-D {class_d}",
                 {"1": "out of order", "2": "in operation"}.get(heard, "")]
        code = _channel(class_d, switch, heard)
        return ", ".join(filter(None, texts)), code
    if cell.kind == "let":
        missing = facts.announced.get(("Let", str(cell.place[0]), str(cell.place[1] + 1))) == "1"
        text = "not enabled" if switch != "true" else "missing" if missing else "enabled"
        return text, 2 if switch != "true" else 4 if missing else 3
    if cell.kind in ("input", "output"):
        if str(facts.model) not in STATIONS:
            heard = facts.announced.get((cell.kind, str(cell.place[0])), "")
            return heard, CODES[f"{cell.kind}_state"].get(heard, 1) if heard else None
        wanted = "gpi" if cell.kind == "input" else "gpo"
        kind = switch if cell.place[0] < 6 else "gpi"
        level = facts.lines.get(cell.line, "")
        return (f"level {level}", {"0": 2, "1": 3}.get(level, 1)) if kind == wanted else ("not used", 1)
    if cell.kind == "relay":
        level = facts.lines.get(cell.line, "")
        return f"level {level}" if level else "", {"0": 2, "1": 3}.get(level, 1) if level else None
    return "", None


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


def _channel(class_d: str, switch: str, heard: str) -> int | None:
    if class_d != "ok":
        return 4 if class_d else 1
    if switch != "true":
        return 2 if switch == "false" else 1
    return {"1": 5, "2": 3}.get(heard)


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
        return "bad" if code > 850 else "warn" if code > 700 else "ok"
    if cell.object == "fanSpeed":
        return "bad" if code < 1 else "warn" if code < 500 else "ok"
    if cell.object == "voltageValue" and cell.nominal:
        deviation = abs(code / 1000 - cell.nominal) / cell.nominal
        return "bad" if deviation > 0.1 else "warn" if deviation > 0.05 else "ok"
    return "ok"


def worst(facts: Facts, cells: list[Cell]) -> str:
    """Of the faults and the cells; a cell that is off or unknown is no trouble."""
    found = [fault["state"] for fault in facts.faults]
    found += [state for state in (level(cell, has(cell, facts)[1]) for cell in cells) if state in ("warn", "bad")]
    return max(found, key=LEVELS.index, default="ok")
