"""The exporter's result for a walk, computed from the MIB alone: its metrics, and the words of codes."""
from __future__ import annotations

import re

import prometheus_files  # noqa: F401  (sets the paths)
from support.mib import mib
from support.snmp import Variable

SCALED = {"volts": ("_volts", 1000), "degrees": ("_celsius", 10), "speed": ("_rpm", 1)}
UNITS = {"voltageValue": "volts", "letChannel1Voltage": "volts", "letChannel2Voltage": "volts", "tempCurrent": "degrees",
         "tempPeak": "degrees", "tempAverage": "degrees", "fanSpeed": "speed"}
CONSTANT = {"ampType", "infoDisablement", "powerKind", "relayIdleMode"}  # one series with the word
INFO_TEXTS = {"infoPackageVersion": "package_version", "infoModelType": "model_type", "infoKernelVersion": "kernel_version",
              "infoAmplifierType": "amplifier_type", "infoDeviceTreeVersion": "device_tree_version"}

Series = dict[tuple[str, frozenset[tuple[str, str]]], float]


def snake(name: str) -> str:
    return re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", name).lower()


def codes(values: dict[str, str]) -> dict[str, str]:
    """Values of objects, e.g. powerLive.1, whose words are their codes."""
    found = {}
    for name, text in values.items():
        enumeration = mib().objects[name.partition(".")[0]].enumeration
        found[name] = next((str(code) for code, word in enumeration.items() if word == text), text)
    return found


def expected_series(walk: list[Variable]) -> Series:
    """The metrics for a walk of a device; every variable is checked."""
    rows: dict[tuple[str, int], dict[str, str]] = {}  # texts that label a row, by table and index
    values: list[tuple[str, str, int, str]] = []  # object, table, index, value
    info: dict[str, str] = {}
    for variable in walk:
        item, (instance,) = mib().resolve(variable.oid)
        table = item.table
        row = rows.setdefault((table, instance), {"index": str(instance)} if table else {})
        if item.name in INFO_TEXTS:
            info[INFO_TEXTS[item.name]] = variable.text
        elif table and item.name.endswith("Description"):
            row["description"] = variable.text
        elif table and item.name.endswith("Index"):
            assert variable.text == str(instance)
        elif item.name.startswith("temp") and item.name.endswith("Label"):
            row[item.name.removesuffix("Label")] = variable.text
        else:
            values.append((item.name, table, instance, variable.text))
    series: Series = {}
    for name, table, index, text in values:
        row = rows[table, index]
        labels = {key: row[key] for key in ("index", "description") if key in row}
        if name in row:
            labels["label"] = row[name]
        if name == "infoModelNumber":
            labels |= {key: value for key, value in info.items() if value}
            labels |= {"sys_name": "pa-device", "sys_location": "Equipment room 1"}
        enumeration, metric = mib().objects[name].enumeration, f"kvsnmp_{snake(name)}"
        if name in CONSTANT:
            series[f"{metric}_info", frozenset((labels | {metric: enumeration[int(text)]}).items())] = 1
        elif enumeration:
            for code, word in enumeration.items():
                series[metric, frozenset((labels | {metric: word}).items())] = int(code == int(text))
        elif mib().objects[name].base == "OCTET STRING":
            series[metric, frozenset((labels | {metric: text}).items())] = 1
        else:
            ending, scale = SCALED[UNITS[name]] if name in UNITS else ("", 1)
            series[metric + ending, frozenset(labels.items())] = int(text) / scale
    return series
