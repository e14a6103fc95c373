"""The cells of a model's tables: their place in the MIB, what feeds them in the device, and how they are changed.

Read from the catalogue, the plain tables of the devices' facts, and from the MIB.
"""
from __future__ import annotations

import dataclasses
import functools
import re
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from devicelib.settings import CHECKOUT, INSTALLED

ROOT = ".1.3.6.1.4.1.52717.3"
HERE = Path(__file__).resolve().parent
CATALOGUE = HERE.parent / "catalogue" if INSTALLED else CHECKOUT / "tests/catalogue"
RANGE = re.compile(r"(\d+)\.\.(\d+)")
EXPANDERS = ("Orvane Brisel Compact - IP-QRM-B", "Orvane Brisel Extended - IP-QRM-B")



def read(name: str) -> list[dict[str, str]]:
    """The rows of a file of the catalogue, with their ranges of numbers written out."""
    lines = [line for line in (CATALOGUE / f"{name}.txt").read_text().splitlines() if line and line[0] != "#"]
    columns, *rows = [["" if cell.strip() == "-" else cell.strip() for cell in line.split("|")] for line in lines]
    found = []
    for row in rows:
        first = RANGE.search("|".join(row))
        for place in range(int(first[2]) - int(first[1]) + 1) if first else [0]:
            cells = [RANGE.sub(lambda match, place=place: str(int(match[1]) + place), cell) for cell in row]
            found.append(dict(zip(columns, cells, strict=True)))
    return found


OBJECTS, ROWS, KEYS, TRAPS = read("objects"), read("rows"), read("keys"), read("traps")
PARSERS = {row["parser"]: row for row in read("parsers")}
CODES = {name: {word: int(code) for word, _, code in (pair.partition("=") for pair in row["words"].split())}
         for name, row in PARSERS.items()}
STATIONS = {row["model"] for row in read("models") if row["gpio"]}
FAULT_STATES = {row["level"]: {"4": "warn", "5": "notice"}.get(row["severity"], "bad") for row in read("severities")}
TEMPERATURES = {f"temp_{field}": f".{field}" for field in ("current", "peak", "average")}
GRAPHED = ["tempCurrent", "fanSpeed", "voltageValue"]
UNITS = {"tempCurrent": (1, "°C"), "tempPeak": (1, "°C"), "tempAverage": (1, "°C"), "fanSpeed": (0, "rpm")}
BAD = {"notLive", "failed", "disconnected", "shorted", "classDFault", "monitorFault", "loadChange", "groundFault",
       "shutdown", "voltageLow", "interrupted", "lineFault", "missing", "unconnected", "failCleared", "failSet"}
WARN = {"indecisive", "failedTimeout", "failedReceiveMonitorValues"}
TYPES = {"input": "gpi", "output": "gpo"}  # of the lines of a station
OFF = {"disabled", "notMonitored"}
UNKNOWN = {"unknown", "notReported"}
RELAYS = ["relay1", "relay2", "relay3", "relay4", *(f"e_relay{n}" for n in range(1, 9))]


@dataclasses.dataclass
class Cell:
    id: str  # voltageValue.3
    table: str
    index: int
    row: str
    object: str
    oid: str
    words: dict[int, str]  # the states of the MIB; empty for a number or a text
    decimals: int = 0
    unit: str = ""
    nominal: float = 0.0  # of a voltage, whose description ends with it
    kind: str = ""  # what feeds it: leaf, channel, let, input, output, relay; empty: nothing
    parser: str = ""
    path: str = ""  # of the leaf, or of the switch that also decides
    key: tuple[str, ...] = ()  # of what the amplifier monitor announces
    line: str = ""  # of the GPIO tree
    controls: list[dict[str, Any]] = dataclasses.field(default_factory=list)


@functools.lru_cache(2)
def states(mib: str) -> dict[str, dict[int, str]]:
    """The states of each object in the text of the MIB."""
    enumerations = {name: {int(code): word for word, code in re.findall(r"(\w+)\((\d+)\)", body)}
                    for name, body in re.findall(r"^(\w+) ::= TEXTUAL-CONVENTION(?:(?!::=).)*?SYNTAX INTEGER \{(.*?)\}",
                                                 mib, re.DOTALL | re.MULTILINE)}
    return {name: enumerations.get(syntax, {})
            for name, syntax in re.findall(r"^(\w+) OBJECT-TYPE\s+SYNTAX\s+(\w+)", mib, re.MULTILINE)}


def _has(row: dict[str, str], model: int, expanders: bool) -> bool:
    return (expanders or not row["expanders"]) and (row["models"] == "all" or str(model) in row["models"].split())


def _feed(parser: str, key: str) -> tuple[str, str]:
    """The parser with the path of this key."""
    return parser, PARSERS[parser]["path"].replace("%1", key.split()[0]).replace("%2", key.split()[-1])


def _columns() -> Iterator[tuple[str, str, str, str]]:
    """Table, column, OID, content: the columns with values."""
    table = arc = ""
    for item in OBJECTS:
        if item["syntax"] == "table":
            table, arc = item["object"], item["arc"]
        elif table and item["arc"].startswith(f"{arc}.1.") and item["content"].startswith("."):
            yield table, item["object"], f"{ROOT}.{item['arc']}", item["content"].rstrip(".")


def cells(model: int, model_text: str, mib: str) -> list[Cell]:
    """In the order of a walk."""
    expanders = model_text in EXPANDERS
    feeds = {key["field"] + TEMPERATURES.get(parser, ""): _feed(parser, key["key"])
             for key in KEYS if _has(key, model, expanders) for parser in key["parser"].split()}
    found = []
    for table, name, oid, content in _columns():
        for row in (row for row in ROWS if row["table"] == table and _has(row, model, expanders)):
            if table == "lineInTable" and ("Mic" in name) != row["description"].startswith("Microphone") \
                    and name != "lineInMonitoring":
                continue  # always notReported
            index = int(row["index"])
            cell = Cell(f"{name}.{index}", table, index, row["description"], name, f"{oid}.{index}",
                        states(mib).get(name, {}), *((3, "V") if "oltage" in name else UNITS.get(name, (0, ""))))
            if match := re.search(r"-?([\d.]+)V$", cell.row) if table == "voltageTable" else None:
                cell.nominal = float(match[1])
            _connect(cell, str(model) in STATIONS, row["source"], feeds.get(row["source"] + content))
            found.append(cell)
    return found


def _connect(cell: Cell, station: bool, source: str, feed: tuple[str, str] | None) -> None:
    """Sets what feeds a cell, and the commands that change it."""
    place = [int(part) for part in source.split(".")[1:]]
    if cell.object == "ampChannelStatus" and source:
        cell.kind, cell.key, feed = "channel", ("Amp", str(place[0])), _feed("amp_enable", f"ch{place[0] + 1}")
        cell.controls = [_choices(["monitor", "amp", str(place[0])], "in operation=2", "out of order=1"),
                         _choices(["set", PARSERS["class_d"]["path"]], "ok", "fault")]
    elif cell.object.endswith("Status") and source.startswith("let."):
        cell.kind, cell.key = "let", ("Let", str(place[0]), str(place[1] + 1))
        feed = _feed("let_enable", f"ch{place[0] + 1} {place[1] + 1}")
        cell.controls = [_choices(["monitor", "let", *cell.key[1:]], "present=2", "missing=1")]
    elif cell.object in ("controlInputStatus", "controlOutputState"):
        cell.kind = "input" if "Input" in cell.object else "output"
        cell.key = cell.kind, str(place[0])
        if station:
            cell.line, feed = f"gpio{place[0] + 1}", _feed("gpio_type", str(place[0] + 1)) if place[0] < 6 else None
        else:
            monitor = "gpi" if cell.kind == "input" else "gpo"
            cell.controls = [_choices(["monitor", monitor, cell.key[1]], *CODES[f"{cell.kind}_state"])]
    elif cell.object == "relayStatus":
        cell.kind, cell.line = "relay", RELAYS[place[0]]
    if cell.line:
        cell.controls = [_choices(["gpio", cell.line], "0", "1", "unreadable")]
    if feed:
        cell.kind, (cell.parser, cell.path) = cell.kind or "leaf", feed
        words = CODES[cell.parser]
        cell.controls.append(_choices(["set", cell.path], *words) if words
                             else {"label": "Data service", "field": ["set", cell.path, "$"]})


def _choices(command: list[str], *values: str) -> dict[str, Any]:
    """A button for each value, with another text before an equals sign."""
    label = {"monitor": "Amplifier monitor", "set": "Data service", "gpio": "GPIO line"}[command[0]]
    pairs = [(value.partition("=")[0], value.rpartition("=")[2]) for value in values]
    return {"label": label, "choices": {text: [*command, word] for text, word in pairs}}


# What a device has, as the codes that its tables will serve, and how serious that is.


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
                        "state": FAULT_STATES.get(message.findtext("level", ""), "warn")}
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
