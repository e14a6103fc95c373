"""monitoring/zabbix, read without a server and compared with the MIB and the catalogue. scripts/test-zabbix imports the
template into a server."""
from __future__ import annotations

import re
import subprocess
import uuid
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import pytest
import yaml

from prometheus_files import CHECKOUT
from support.catalogue import COLUMN_OIDS, SCALAR_OIDS, TABLES, TRAPS  # the path is set by the one above
from support.mib import mib
from support.traps import E

FOLDER = CHECKOUT / "monitoring/zabbix"
HANDLER = CHECKOUT / "monitoring/snmptrapd/kvsnmp-trap-line"
TEXT = (FOLDER / "kvsnmp-template.yaml").read_text()
EXPORT = yaml.safe_load(TEXT)["zabbix_export"]
[TEMPLATE] = EXPORT["templates"]
RULES = TEMPLATE["discovery_rules"]
PROTOTYPES = [item for rule in RULES for item in rule["item_prototypes"]]
TRIGGERS = [trigger for place in [*TEMPLATE["items"], *RULES, *PROTOTYPES]
            for trigger in place.get("triggers", []) + place.get("trigger_prototypes", [])]
OF_THE_AGENT = {"1.3.6.1.2.1.1.3.0", "1.3.6.1.2.1.1.5.0", "1.3.6.1.2.1.1.6.0", "1.3.6.1.2.1.25.1.1.0"}


def nodes(value: Any) -> Iterator[dict]:
    if isinstance(value, dict):
        yield value
        value = list(value.values())
    if isinstance(value, list):
        for one in value:
            yield from nodes(one)


def test_uuids_are_valid_unique_and_unchanged():
    found = [node["uuid"] for node in nodes(EXPORT) if "uuid" in node]
    assert len(found) == len(set(found)) > 100
    assert all(re.fullmatch("[0-9a-f]{32}", text) and uuid.UUID(text).version == 4 for text in found)
    # An item with another uuid is another item to a server, and its history ends.
    assert TEMPLATE["uuid"] == "f6845fdba60e45a8872e5c8e77431ce7"
    assert {item["key"]: item["uuid"] for item in PROTOTYPES}["kvsnmp.voltageValue[{#SNMPINDEX}]"] == "99454cfaf687487a8e92c379cb52f99d"


def test_every_served_object_is_an_item_or_names_one():
    """Every table is discovered by its description and has triggers."""
    found = {rule["key"]: rule["snmp_oid"] for rule in RULES}
    assert found == {f"kvsnmp.{table.name}.discovery": "discovery[{#DESCRIPTION}," + next(
        table.oid(column) for column, _ in table.columns if column.endswith("Description")).removeprefix(".") + "]"
        for table in TABLES.values()}
    assert all(any(place.get("trigger_prototypes") for place in [rule, *rule["item_prototypes"]]) for rule in RULES)
    scalars = {item["key"]: item["snmp_oid"] for item in TEMPLATE["items"] if "snmp_oid" in item}
    assert set(scalars.values()) - OF_THE_AGENT == {oid.removeprefix(".") for oid in SCALAR_OIDS.values()}
    assert all(scalars[f"kvsnmp.{name}"] == oid.removeprefix(".") for name, oid in SCALAR_OIDS.items())
    expected = {f"kvsnmp.{name}[{{#SNMPINDEX}}]": f"{oid.removeprefix('.')}.{{#SNMPINDEX}}"
                for name, oid in COLUMN_OIDS.items() if not name.endswith(("Index", "Description", "Label"))}
    assert {item["key"]: item["snmp_oid"] for item in PROTOTYPES} == expected


def test_value_maps_and_scales():
    """The maps are the MIB's enumerations, values are in volts and degrees."""
    maps = {one["name"]: {int(row["value"]): row["newvalue"] for row in one["mappings"]} for one in TEMPLATE["valuemaps"]}
    for item in [*TEMPLATE["items"], *PROTOTYPES]:
        name = re.fullmatch(r"kvsnmp\.(\w+)(\[.*\])?", item["key"])
        enumeration = mib().objects[name[1]].enumeration if name and name[1] in mib().objects else {}
        if enumeration:
            assert maps[item["valuemap"]["name"]] == enumeration
        else:
            assert "valuemap" not in item or item["key"].startswith("zabbix[")
    for item in PROTOTYPES:
        step = [(one["type"], one["parameters"]) for one in item.get("preprocessing", [])]
        unit = {"V": [("MULTIPLIER", ["0.001"])], "°C": [("MULTIPLIER", ["0.1"])]}.get(item.get("units", ""))
        assert unit is None or (step == unit and item["value_type"] == "FLOAT"), item["key"]
    assert {item.get("units") for item in PROTOTYPES} == {None, "V", "°C", "rpm"}


def test_macros_dependencies_and_the_dashboard_name_what_exists():
    used = {f"{{$KV.{name}}}" for name in re.findall(r"\{\$KV\.([A-Z.]+)(?::[^}]*\}[^}]*)?\}", TEXT)}
    assert used == {macro["macro"] for macro in TEMPLATE["macros"]}
    there = {(trigger["name"], trigger["expression"], trigger.get("recovery_expression")) for trigger in TRIGGERS}
    wanted = [(one["name"], one["expression"], one.get("recovery_expression"))
              for trigger in TRIGGERS for one in trigger.get("dependencies", [])]
    assert wanted and set(wanted) <= there
    shown = [field["value"] for dashboard in TEMPLATE["dashboards"] for page in dashboard["pages"]
             for widget in page["widgets"] for field in widget["fields"] if field["type"] == "ITEM_PROTOTYPE"]
    assert len(shown) == 8 and all(item["host"] == TEMPLATE["template"] for item in shown)
    assert {item["key"] for item in shown} <= {item["key"] for item in PROTOTYPES}


# Traps

TRAP_ITEMS = [item for item in TEMPLATE["items"] if item["type"] == "SNMP_TRAP"]


PRIORITIES = {1: ("critical", "HIGH"), 2: ("error", "AVERAGE"), 3: ("unclassified", "WARNING"),
              4: ("warning", "WARNING"), 5: ("notice", "INFO")}


def matching(patterns: dict[Any, str], text: str) -> list[Any]:
    """The server searches in lines."""
    return [key for key, pattern in patterns.items() if re.search(pattern, text, re.MULTILINE)]


def handled(tmp_path: Path, arc: int, description: str, level: int) -> str:
    """What the handler writes for a trap from snmptrapd."""
    trap = (f"localhost\nUDP: [192.0.2.7]:40000->[192.0.2.1]:162\n.1.3.6.1.2.1.1.3.0 0:0:00:07.00\n"
            f".1.3.6.1.6.3.1.1.4.1.0 {E}.2.8.{arc}\n{E}.2.4.1.0 \"Orvane IPKiosk\"\n{E}.2.4.2.0 \"device\"\n"
            f".1.3.6.1.2.1.1.5 \"pa-device\"\n{E}.2.4.3.0 {level}\n{E}.2.4.4.0 \"Sat Jun  1 10.02.03 2024\n\"\n"
            f"{E}.2.4.5.0 \"{description}\"\n")
    file = tmp_path / "traps"
    file.unlink(missing_ok=True)
    subprocess.run([HANDLER, "--zabbix", file], input=trap, text=True, check=True)
    return file.read_text()


@pytest.mark.parametrize("trap", TRAPS, ids=[trap.name for trap in TRAPS])
def test_a_trap_is_a_value_of_its_item_alone_and_a_problem_of_its_level(tmp_path, trap):
    items = {item["name"]: re.fullmatch(r'snmptrap\["(.*)"\]', item["key"])[1] for item in TRAP_ITEMS}
    [item] = [item for item in TRAP_ITEMS if item["name"] == f"Trap: {trap.switch}"]
    triggers = {(trigger["name"], trigger["priority"]): re.search(
        r',\{\$KV\.TRAP\.HOLD\},"regexp","([^\\]*)"\)=1$', trigger["expression"])[1] for trigger in item["triggers"]}
    assert item["description"].startswith(f"{trap.name},")
    forged = f"see {E}.2.8.3 and ZBXTRAP 10.0.0.1 {E}.2.8.4 {E}.2.8.{trap.arc} notice critical\n{E}.2.4.3.0  value=INTEGER: 1"
    assert len(items) == len(TRAPS)
    for level, (word, priority) in PRIORITIES.items():
        line = handled(tmp_path, trap.arc, forged, level)
        assert line.count("\n") == 1 and line.count("ZBXTRAP") == 1
        assert (f" ZBXTRAP 192.0.2.7 {E}.2.8.{trap.arc} {word} pa-device (device): {trap.name} {word} since 2024-06-01 10:02:03: "
                "see ") in line
        value = line.replace("ZBXTRAP 192.0.2.7", "", 1)  # the server removes its mark and the address
        by_variables = (f"2026-11-21T12:00:00+0000 \nVARBINDS:\n  .1.3.6.1.6.3.1.1.4.1.0  type=6  value=OID: {E}.2.8.{trap.arc}\n"
                        f"  {E}.2.4.3.0  type=2  value=INTEGER: {level}\n  {E}.2.4.5.0  type=4  value=STRING: \"{E}.2.8.1\"\n")
        for text in (value, by_variables):
            assert matching(items, text) == [item["name"]]
            assert matching(triggers, text) == [(f"Trap: {trap.switch} ({word})", priority)]
