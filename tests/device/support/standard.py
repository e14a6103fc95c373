"""The IETF's sensor tables as they should be served, derived from the private MIB."""
from __future__ import annotations

from collections.abc import Iterator, Mapping

from . import ber
from .catalogue import COLUMN_OIDS, SCALAR_OIDS
from .snmp import Variable

ROOTS = [(1, 3, 6, 1, 2, 1, 47), (1, 3, 6, 1, 2, 1, 99)]
PHYSICAL, PHYSICAL_COLUMNS = (*ROOTS[0], 1, 1, 1, 1), range(2, 20)
SENSOR, SENSOR_COLUMNS = (*ROOTS[1], 1, 1, 1), range(1, 9)
LAST_CHANGE = (*ROOTS[0], 1, 4, 1)

# description and value columns of the private table; entPhysicalIndex of row 0; type, scale, precision, unit
KINDS = [("voltageDescription", "voltageValue", 1000, 4, 8, 0, "millivolts DC"),
         ("tempDescription", "tempCurrent", 2000, 8, 9, 1, "degrees Celsius"),
         ("fanDescription", "fanSpeed", 3100, 10, 9, 0, "revolutions per minute")]
NO_TEXT, NO_DATE = ("STRING", ""), ("Hex-STRING", "00 00 00 00 00 00 00 00 ")


def _integer(value: object) -> tuple[str, str]:
    return "INTEGER", str(value)


def expected(private: Mapping[str, tuple[str, str]], status: int = 1) -> list[Variable]:
    """All but the time of the last change, from a private MIB of OIDs to values; each sensor has this status."""
    info = {name: private[SCALAR_OIDS[f"info{name}"]]
            for name in ("ModelType", "DeviceTreeVersion", "PackageVersion", "KernelVersion")}
    physical = {1: _entity(info["ModelType"], 0, 3, -1, info["DeviceTreeVersion"], info["PackageVersion"],
                           info["KernelVersion"], info["ModelType"])}
    sensors = {}
    place = 0
    for description, column, base, kind, scale, precision, unit in KINDS:
        for row, name in _cells(private, description):
            container = 1
            if base == 3100:
                container = 3000 + row
                physical[container] = _entity(name, 1, 7, row)
            place = place + 1 if container == 1 else 1
            physical[base + row] = _entity(name, container, 8, place)
            value = min(int(private[f"{COLUMN_OIDS[column]}.{row}"][1]), 10 ** 9)
            sensors[base + row] = [*map(_integer, (kind, scale, precision, value, status)), ("STRING", unit),
                                   ("Timeticks", "(0) 0:00:00.00"), ("Gauge32", "60000")]
    return [*_by_column(PHYSICAL, PHYSICAL_COLUMNS, physical), *_by_column(SENSOR, SENSOR_COLUMNS, sensors)]


def _entity(name: tuple[str, str], container: int, kind: int, place: int, hardware=NO_TEXT, firmware=NO_TEXT,
            software=NO_TEXT, model=NO_TEXT) -> list[tuple[str, str]]:
    return [name, ("OID", ".0.0"), _integer(container), _integer(kind), _integer(place), name, hardware, firmware,
            software, NO_TEXT, NO_TEXT, model, NO_TEXT, NO_TEXT, _integer(2), NO_DATE, NO_TEXT, NO_TEXT]


def _cells(private: Mapping[str, tuple[str, str]], column: str) -> Iterator[tuple[int, tuple[str, str]]]:
    prefix = f"{COLUMN_OIDS[column]}."
    return ((int(oid.removeprefix(prefix)), value) for oid, value in private.items() if oid.startswith(prefix))


def _by_column(entry: ber.Oid, columns: range, rows: Mapping[int, list[tuple[str, str]]]) -> Iterator[Variable]:
    for place, column in enumerate(columns):
        for index in sorted(rows):
            yield Variable(ber.dotted((*entry, column, index)), *rows[index][place])
