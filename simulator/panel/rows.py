"""The cells of a model's tables: their place in the MIB, what feeds them in the device, and how they are changed.

Read from the catalogue, the plain tables of the devices' facts, and from the MIB.
"""
from __future__ import annotations

import dataclasses
import functools
import re
from collections.abc import Iterator
from pathlib import Path
from typing import Any

from devicelib.settings import CHECKOUT, INSTALLED

ROOT = ".1.3.6.1.4.1.52717.3"
HERE = Path(__file__).resolve().parent
CATALOGUE = HERE.parent / "catalogue" if INSTALLED else CHECKOUT / "tests/catalogue"
RANGE = re.compile(r"(\d+)\.\.(\d+)")
EXPANDERS = ("Orvane Brisel Compact - IP-QRM-B", "Orvane Brisel Extended - IP-QRM-B")

Row = dict[str, str]
Words = list[str]  # of a talctl command; "$" stands for the value in a field


def read(name: str) -> list[Row]:
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
SEVERITIES = {row["level"]: int(row["severity"]) for row in read("severities")}
TEMPERATURES = {f"temp_{field}": f".{field}" for field in ("current", "peak", "average")}
GRAPHED = re.compile(r"tempCurrent|fanSpeed|voltageValue|\w+Voltage")
UNITS = {"tempCurrent": (1, "°C"), "tempPeak": (1, "°C"), "tempAverage": (1, "°C"), "fanSpeed": (0, "rpm")}
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


def _has(row: Row, model: int, expanders: bool) -> bool:
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


def _choices(command: Words, *values: str) -> dict[str, Any]:
    """A button for each value, with another text before an equals sign."""
    label = {"monitor": "Amplifier monitor", "set": "Data service", "gpio": "GPIO line"}[command[0]]
    pairs = [(value.partition("=")[0], value.rpartition("=")[2]) for value in values]
    return {"label": label, "choices": {text: [*command, word] for text, word in pairs}}
