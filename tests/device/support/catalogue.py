"""The tables of tests/catalogue: objects, rows, keys, words and their codes, traps."""
from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

from .snmp import TABLES as ROOT

_RANGE = re.compile(r"(\d+)\.\.(\d+)")


def _written_out(cells: list[str]) -> list[list[str]]:
    """The row for each number of its ranges; they all have the same length."""
    first = _RANGE.search("|".join(cells))
    if first is None:
        return [cells]
    return [[_RANGE.sub(lambda match: str(int(match[1]) + place), cell) for cell in cells]
            for place in range(int(first[2]) - int(first[1]) + 1)]


def read(name: str) -> list[dict[str, str]]:
    """The rows of a file, in order: their cells by the name of their column."""
    text = (Path(__file__).parents[2] / "catalogue" / f"{name}.txt").read_text()
    lines = [line for line in text.splitlines() if line and not line.startswith("#")]
    cells = [["" if cell.strip() == "-" else cell.strip() for cell in line.split("|")] for line in lines]
    columns = cells[0]
    return [dict(zip(columns, row, strict=True)) for given in cells[1:] for row in _written_out(given)]


_MODELS = read("models")
MODELS = [int(row["model"]) for row in _MODELS]
STATIONS = [int(row["model"]) for row in _MODELS if row["gpio"]]
COMPACT = "Orvane Brisel Compact - IP-QRM-B"
EXTENDED = "Orvane Brisel Extended - IP-QRM-B"


class Scalar(NamedTuple):
    name: str
    arc: str  # below E.3, without the instance
    type: str

    @property
    def oid(self) -> str:
        return f"{ROOT}.{self.arc}.0"


class Table(NamedTuple):
    name: str
    arc: str
    columns: list[tuple[str, str]]  # name, type; column n is columns[n - 1]
    contents: dict[str, str]  # column to what it shows: index, description, a text in quotes, a field of its record

    def oid(self, column: str) -> str:
        return f"{ROOT}.{self.arc}.1.{[name for name, _ in self.columns].index(column) + 1}"


def _objects() -> list[Scalar | Table]:
    objects: list[Scalar | Table] = []
    for row in read("objects"):
        name, arc, syntax = row["object"], row["arc"], row["syntax"]
        if syntax == "table":
            objects.append(Table(name, arc, [], {}))
        elif objects and isinstance(table := objects[-1], Table) and arc.startswith(f"{table.arc}.1."):
            table.columns.append((name, syntax))
            table.contents[name] = row["content"]
            assert arc == f"{table.arc}.1.{len(table.columns)}"
        else:
            objects.append(Scalar(name, arc, syntax))
    return objects


OBJECTS = _objects()  # in the order of a walk
TABLES = {item.name: item for item in OBJECTS if isinstance(item, Table)}
COLUMN_OIDS = {column: table.oid(column) for table in TABLES.values() for column, _ in table.columns}
SCALAR_OIDS = {scalar.name: scalar.oid for scalar in OBJECTS if isinstance(scalar, Scalar)}

# Rows by model, and what feeds their cells

_ROWS, _KEYS = read("rows"), read("keys")
PARSERS = {row["parser"]: row for row in read("parsers")}
WORDS = {name: {word: int(code) for word, _, code in (pair.partition("=") for pair in parser["words"].split())}
         for name, parser in PARSERS.items()}
_TEMPERATURES = {f"temp_{field}": f".{field}" for field in ("current", "peak", "average")}


def _has(row: dict[str, str], model: int, expanders: bool) -> bool:
    if row.get("expanders") and not expanders:
        return False
    return row["models"] == "all" or str(model) in row["models"].split()


def rows(table: str, model: int, expanders: bool = False) -> list[tuple[int, str]]:
    """Index and description."""
    return [(int(row["index"]), row["description"]) for row in _ROWS
            if row["table"] == table and _has(row, model, expanders)]


class Feed(NamedTuple):
    """A value of the data service, and the cell that serves it."""
    parser: str
    path: str
    column: str
    index: int

    @property
    def oid(self) -> str:
        return f"{COLUMN_OIDS[self.column]}.{self.index}"


def path_of(parser: dict[str, str], key: str) -> str:
    """The path of a changed leaf. A LET has two keys."""
    return parser["path"].replace("%1", key.split()[0]).replace("%2", key.split()[-1])


def feeds(model: int, expanders: bool = False) -> list[Feed]:
    found = []
    for key in (key for key in _KEYS if _has(key, model, expanders)):
        for parser in key["parser"].split():
            path = path_of(PARSERS[parser], key["key"])
            for column, index in _cells(model, expanders, key["field"] + _TEMPERATURES.get(parser, "")):
                found.append(Feed(parser, path, column, index))
    return found


def _cells(model: int, expanders: bool, field: str) -> Iterator[tuple[str, int]]:
    for row in _ROWS:
        source = row["source"]
        if source and f"{field}.".startswith(f"{source}.") and _has(row, model, expanders):
            content = field.removeprefix(source) or "."
            for column in (name for name, shown in TABLES[row["table"]].contents.items() if shown == content):
                yield column, int(row["index"])


def _codes() -> dict[str, set[int]]:
    """Each code that a column can serve. 0 comes before the first word that is known."""
    found = {"infoDisablement": {0, 2}, "ampChannelLineState": {0},  # 0 until the agent has the information
             "ampType": set(range(1, 9)), "powerKind": {1, 2}, "relayStatus": {1, 2, 3, 4},
             "ampChannelStatus": {1, 2, 3, 4, 5}, "letChannel1Status": {1, 2, 3, 4}, "letChannel2Status": {1, 2, 3, 4},
             "controlInputStatus": {1, *WORDS["input_state"].values()},
             "controlOutputState": {1, *WORDS["output_state"].values()}}
    start = {row["object"]: row["start"] for row in read("objects")}
    for feed in (feed for model in MODELS for feed in feeds(model, True)):
        if words := WORDS[feed.parser]:
            others = [PARSERS[feed.parser][name] for name in ("delete", "other")]
            found.setdefault(feed.column, set()).update(
                words.values(), (int(code) for code in [start[feed.column], *others] if code.isdigit()),
                [0] if others[1] == "last" else [])
    return found


CODES = _codes()


# Traps, in the order of their arcs


class Trap(NamedTuple):
    arc: int
    name: str
    switch: str  # in the settings
    identifiers: tuple[str, ...]  # of the messages that raise it


TRAPS = sorted(Trap(int(row["arc"]), row["notification"], row["switch"], tuple(row["identifiers"].split()))
               for row in read("traps"))
TRAP_OF = {identifier: trap for trap in TRAPS for identifier in trap.identifiers}
SEVERITIES = {row["level"]: int(row["severity"]) for row in read("severities")}
