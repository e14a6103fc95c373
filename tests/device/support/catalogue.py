"""The facts of the devices in tests/catalogue: objects, rows, keys, words and their codes.

Nothing here is read from the program or from its MIB. The golden walks, the MIB and the daemon are each held to it.
"""
from __future__ import annotations

import re
from pathlib import Path
from typing import NamedTuple

from .snmp import TABLES

Rows = list[tuple[int, str]]  # index, description
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
AMP_TYPES = {int(row["model"]): int(row["ampType"]) for row in _MODELS if row["ampType"] != "1"}  # 1 on every other model
COMPACT = "Orvane Brisel Compact - IP-QRM-B"
EXTENDED = "Orvane Brisel Extended - IP-QRM-B"


class Scalar(NamedTuple):
    name: str
    arc: str  # below E.3, without the instance
    type: str

    @property
    def oid(self) -> str:
        return f"{TABLES}.{self.arc}.0"


class Table(NamedTuple):
    name: str
    arc: str
    columns: list[tuple[str, str]]  # name, type; column n is columns[n - 1]

    def oid(self, column: str) -> str:
        return f"{TABLES}.{self.arc}.1.{[name for name, _ in self.columns].index(column) + 1}"


def _objects() -> list[Scalar | Table]:
    objects: list[Scalar | Table] = []
    for row in read("objects"):
        name, arc, syntax = row["object"], row["arc"], row["syntax"]
        if syntax == "table":
            objects.append(Table(name, arc, []))
        elif objects and isinstance(table := objects[-1], Table) and arc.startswith(f"{table.arc}.1."):
            table.columns.append((name, syntax))
            assert arc == f"{table.arc}.1.{len(table.columns)}"
        else:
            objects.append(Scalar(name, arc, syntax))
    return objects


OBJECTS = _objects()  # in the order of a walk
TABLE_NAMES = [item.name for item in OBJECTS if isinstance(item, Table)]
COLUMN_OIDS = {column: table.oid(column) for table in OBJECTS if isinstance(table, Table)
               for column, _ in table.columns}
SCALAR_OIDS = {scalar.name: scalar.oid for scalar in OBJECTS if isinstance(scalar, Scalar)}

# Rows by model.

_ROWS = read("rows")
_KEYS = read("keys")


def _models(row: dict[str, str]) -> list[int]:
    return MODELS if row["models"] == "all" else [int(model) for model in row["models"].split()]


def _rows(table: str, model: int, expanders: bool = False) -> list[dict[str, str]]:
    return [row for row in _ROWS
            if row["table"] == table and model in _models(row) and (expanders or not row["expanders"])]


def _keyed(table: str, parser: str, field: str = "", expanders: bool = False) -> dict[int, list[tuple[int, str, str]]]:
    """Index, description and the data service's key of each row, on the models that have such keys."""
    keys = {(model, key["field"]): key["key"] for key in _KEYS if parser in key["parser"].split()
            for model in _models(key) if expanders or not key["expanders"]}
    found = {model: [(int(row["index"]), row["description"], keys[model, row["source"] + field])
                     for row in _rows(table, model, expanders) if (model, row["source"] + field) in keys]
             for model in MODELS}
    return {model: rows for model, rows in found.items() if rows}


VOLTAGES = _keyed("voltageTable", "voltage")
TEMPERATURES = {model: [(index, text.removeprefix("Temperature Sensor: "), key) for index, text, key in rows]
                for model, rows in _keyed("tempTable", "temp_current").items()}
FANS = _keyed("fanTable", "fan")
POWERS = {model: [int(row["index"]) for row in _rows("powerTable", model)]
          for model in MODELS if _rows("powerTable", model)}
POWER_KEYS = {int(row["index"]): row["description"] for row in _ROWS if row["table"] == "powerTable"}
LINE_INPUTS = _keyed("lineInTable", "tone_monitoring", ".lineInMonitoring")
MICROPHONES = _keyed("lineInTable", "mic_monitoring", ".lineInMonitoring")
TWO_CHANNELS = [model for model in MODELS if len(_rows("ampChannelTable", model)) == 2]
ONE_OUTPUT = [model for model in MODELS if len(_rows("ampChannelTable", model)) == 1]
LETS = [model for model in MODELS if _rows("letChannel1Table", model)]
WITHOUT_PORTS = [model for model in MODELS if not _rows("ethMonitoringTable", model)]


def relays(model: int, expanders: bool) -> list[tuple[int, str, str]]:
    """Index, description, key. On the models with four relays the expander's first two keys feed two rows each."""
    return _keyed("relayTable", "relay_delay", ".delay", expanders).get(model, [])


def _plain(table: str, expanders: bool = False) -> Rows:
    return [(int(row["index"]), row["description"]) for row in _rows(table, MODELS[0], expanders)]


def control_inputs(expanders: bool) -> Rows:
    return _plain("controlInputTable", expanders)


def control_outputs() -> Rows:
    return _plain("controlOutputTable")


# Words of the data service and of the amplifier monitor, and the codes that are served for them.

_WORDS = {row["parser"]: {word: int(code) for word, _, code in (pair.partition("=") for pair in row["words"].split())}
          for row in read("parsers")}
LINE_STATES = _WORDS["line_state"]
PILOT_TONES = _WORDS["pilot_tone"]
MIC_STATES = _WORDS["mic_status"]
LINE_IN_MONITORING = _WORDS["tone_monitoring"]
ETH_MONITORED = _WORDS["eth_monitored"]
POWER_LIVE = _WORDS["power_live"]
POWER_MONITORED = _WORDS["power_monitored"]
INPUT_MONITORED = _WORDS["input_monitored"]
IDLE_MODES = _WORDS["relay_idle_mode"]
OUTPUT_STATES = _WORDS["output_state"]
INPUT_STATES = _WORDS["input_state"]

# Every code that a column can serve: the words', that of "delete" or of other words, the starting value, and 0 where
# a word that is not known may come before any that is.
_LET_STATUS = {1, 2, 3, 4}
CODES = {
    "infoDisablement": {0, 2},  # 0 until the agent has copied the device's information
    "ampType": {1, 2, 3, 4, 5, 6, 7, 8},
    "powerKind": {1, 2},
    "powerLive": {0, 1, *POWER_LIVE.values()},
    "powerMonitored": {0, 1, *POWER_MONITORED.values()},
    "lineInStatus": {0, 1, *PILOT_TONES.values()},
    "lineInMicStatus": {0, 4, *MIC_STATES.values()},
    "lineInMonitoring": {0, 1, *LINE_IN_MONITORING.values()},
    "ampChannelStatus": {1, 2, 3, 4, 5},
    "ampChannelLineState": {0, *LINE_STATES.values()},
    "letChannel1Status": _LET_STATUS,
    "letChannel2Status": _LET_STATUS,
    "controlInputStatus": {1, *INPUT_STATES.values()},
    "controlInputMonitored": {1, *INPUT_MONITORED.values()},
    "controlOutputState": {1, *OUTPUT_STATES.values()},
    "ethMonitoringMonitored": {0, 1, *ETH_MONITORED.values()},
    "relayStatus": {1, 2, 3, 4},
    "relayIdleMode": {0, 1, *IDLE_MODES.values()},
}
