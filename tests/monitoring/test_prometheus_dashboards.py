"""The dashboards of Grafana: their structure, their words and colours, and their queries in promtool. Grafana itself is
not run."""
from __future__ import annotations

import json
import re

import pytest
from prometheus_files import (FLEET, ONE_DEVICE, evaluate, modules, names_in, panel_queries, panels, promtool,
                              queries, states)
from limits import CHECKS, SETTINGS  # the path is set by the one above
from test_prometheus_rules import series, state

BOTH = pytest.mark.parametrize("file", [FLEET, ONE_DEVICE], ids=lambda file: file.stem)
TIMELINES = [panel for panel in panels(ONE_DEVICE) if panel["type"] == "state-timeline"]
COLOURS = {"red", "orange", "green", "blue", "purple", "#808080"}
JUDGED = [check for check in CHECKS if not check.measurement and check.name not in SETTINGS]
OBJECTS = {re.sub(r"_(\w)", lambda match: match[1].upper(), name.removeprefix("kvsnmp_")): name for name in states()}
(WORST,) = (query for query in queries(FLEET) if query.startswith("topk by (instance) (1, max by (instance, worst)"))


# Structure


@BOTH
def test_structure(file):
    dashboard = json.loads(file.read_text())
    assert dashboard["uid"] == file.stem and dashboard["title"] and dashboard["schemaVersion"] == 37
    shown = dashboard["panels"]
    assert len({panel["id"] for panel in shown}) == len(shown) == len({panel["title"] for panel in shown})
    cells = [(x, y) for place in (panel["gridPos"] for panel in shown) for x in range(place["x"], place["x"] + place["w"])
             for y in range(place["y"], place["y"] + place["h"])]
    assert len(set(cells)) == len(cells) and max(x for x, _ in cells) < 24, "none overlaps another"
    for panel in shown:
        assert panel["type"] in ("stat", "timeseries", "state-timeline", "table")
        ranged = panel["type"] in ("timeseries", "state-timeline")
        for target, name in zip(panel["targets"], "ABCDEFGH"):
            assert target["refId"] == name and target["range"] == ranged and target.get("instant", False) != ranged
            assert target["datasource"] == panel["datasource"] == {"type": "prometheus", "uid": "${datasource}"}
            assert not ranged or target["legendFormat"]


@BOTH
def test_variables(file):
    known = [item["name"] for item in json.loads(file.read_text())["templating"]["list"]]
    assert known == (["datasource"] if file == FLEET else ["datasource", "instance"])
    for query in queries(file):
        # A number is a group of label_replace.
        assert {name for name in re.findall(r"\$\{?(\w+)", query) if not name.isdigit()} <= set(known) - {"datasource"}, query


@BOTH
def test_columns_of_tables_exist(file):
    """A table shows labels and values of its queries; each override and the order name a column."""
    for panel in (panel for panel in panels(file) if panel["type"] == "table"):
        merged, chosen, organized = panel["transformations"]
        names = organized["options"]["renameByName"]
        assert merged["id"] == "merge" and chosen["options"]["include"]["names"] == list(names)
        assert len(set(names.values())) == len(names)
        refs = [target["refId"] for target in panel["targets"]]
        values = {f"Value #{ref}" for ref in refs} if len(refs) > 1 else {"Value"}
        text = " ".join(target["expr"] for target in panel["targets"])
        grouped = {label for group in re.findall(r"by \(([^)]*)\)", text) for label in group.split(", ")}
        served = {lookup["labelname"] for metric in modules()["snmp-before-0.23.yml"]["metrics"]
                  if metric["name"] == "kvsnmp_info_model_number" for lookup in metric["lookups"]}
        assert set(names) <= values | grouped | served and (len(refs) == 1 or values <= set(names))
        titles = {item["matcher"]["options"] for item in panel["fieldConfig"]["overrides"]}
        assert titles <= set(names.values())
        assert {item["displayName"] for item in panel["options"].get("sortBy", [])} <= set(names.values())


def test_a_device_of_the_fleet_links_to_its_dashboard():
    device = json.loads(ONE_DEVICE.read_text())
    for panel in (panel for panel in panels(FLEET) if panel["type"] == "table"):
        (properties,) = (item["properties"] for item in panel["fieldConfig"]["overrides"]
                         if item["matcher"]["options"] == "Device")
        ((link,),) = (item["value"] for item in properties if item["id"] == "links")
        assert link["url"].startswith(f"/d/{device['uid']}?var-instance=${{__value.raw}}&var-datasource=${{datasource}}")


# Words and colours


def test_every_state_has_a_timeline_with_each_word_of_the_mib():
    shown = set()
    for panel in TIMELINES[1:]:
        (mapping,) = panel["fieldConfig"]["defaults"]["mappings"]
        words = {int(code): item["text"] for code, item in mapping["options"].items()}
        assert mapping["type"] == "value" and {item["color"] for item in mapping["options"].values()} <= COLOURS
        for target in panel["targets"]:
            (name,) = names_in(target["expr"])
            (metric,) = (item for item in modules()["snmp-before-0.23.yml"]["metrics"] if item["name"] == name)
            assert words == metric["enum_values"]
            terms = re.findall(rf'{name}{{instance="\$instance", {name}="(\w+)"}} \* (\d+)', target["expr"])
            assert {int(code): word for word, code in terms} == words and len(terms) == len(words)
            shown.add(name)
    assert shown == set(states())


def test_faulty_words_have_the_colours_of_the_checks():
    for panel in TIMELINES[1:]:
        (mapping,) = panel["fieldConfig"]["defaults"]["mappings"]
        colours = {item["text"]: item["color"] for item in mapping["options"].values()}
        for target in panel["targets"]:
            checks = [check for check in JUDGED if {OBJECTS[check.column]} == names_in(target["expr"])]
            critical = {word for check in checks for word in check.critical.split()}
            warning = {word for check in checks for word in check.warning.split()} - {"unknown", "notReported"}
            assert {word for word, colour in colours.items() if colour == "red"} == critical, panel["title"]
            assert {word for word, colour in colours.items() if colour == "orange"} == warning, panel["title"]


def test_thresholds_of_measurements_are_those_of_the_checks():
    for title, measurement, factor in [("Temperatures", "temperature", 1), ("Fans", "fan", 1),
                                       ("Voltages, off their nominal value", "voltage", 100)]:
        (check,) = (check for check in CHECKS if check.measurement == measurement)
        (panel,) = (panel for panel in panels(ONE_DEVICE) if panel["title"] == title)
        first, *steps = panel["fieldConfig"]["defaults"]["thresholds"]["steps"]
        assert first == {"value": None, "color": "red"}
        assert [step["value"] for step in steps] == sorted(step["value"] for step in steps)
        ends = {end for limits in (check.warning, check.critical) for end in limits.split(":") if end}
        assert {round(step["value"] * factor, 6) for step in steps} == {float(end) for end in ends}


# Queries


def test_every_query_parses(tmp_path):
    rules = [{"record": f"kvsnmp:query_{number}", "expr": query.replace("$instance", "hall")}
             for number, query in enumerate(panel_queries())]
    file = tmp_path / "queries.yml"
    file.write_text(json.dumps({"groups": [{"name": "queries", "rules": rules}]}))
    assert f"SUCCESS: {len(rules)} rules found" in promtool("check", "rules", str(file))
    assert len(rules) > 25


def model(number: int) -> list[dict[str, str]]:
    return [series("kvsnmp_info_model_number", {"sys_name": "a"}, f"{number}x5")]


def at(instance: str, entries: list[dict[str, str]]) -> list[dict[str, str]]:
    return [entry | {"series": entry["series"].replace('instance="hall"', f'instance="{instance}"')} for entry in entries]


def answers(folder, input_series: list[dict[str, str]], expected: dict[str, dict[str, float]]) -> None:
    """Query to its samples, by their labels."""
    evaluate(folder, [{"interval": "1m", "input_series": input_series, "promql_expr_test": [
        {"expr": query, "eval_time": "4m", "exp_samples": [{"labels": labels, "value": value} for labels, value in samples.items()]}
        for query, samples in expected.items()]}])


def worst_of(folder, devices: dict[str, list[dict[str, str]]], expected: dict[str, tuple[str, int]]) -> None:
    answers(folder, [entry for instance, entries in devices.items() for entry in at(instance, entries)], {WORST: {
        f'{{instance="{instance}"' + (f', worst="{worst}"' if worst else "") + "}": level
        for instance, (worst, level) in expected.items()}})


def row(index: int | str = 1) -> dict[str, str]:
    return {"index": str(index), "description": f"Row {index}"}


def test_worst_state_of_each_word(tmp_path):
    """Many devices at once, each with one table: critical, warning or in order as in the checks; the words that depend
    on the model are in order on another."""
    devices, expected = {}, {}
    for check in JUDGED:
        metric = OBJECTS[check.column]
        for word in states()[metric]:
            level = 2 if word in check.critical.split() else 1 if word in check.warning.split() else 0
            for number in [*check.models[:1], 6913] if check.models else [6420]:
                name = f"{check.column} {word} {number}"
                devices[name] = model(number) + state(metric, word, **row())
                found = level if number in (check.models or [number]) else 0
                expected[name] = (f"Row 1: {word}" if found else "", found)
    assert {level for _, level in expected.values()} == {0, 1, 2} and len(devices) > 60
    worst_of(tmp_path, devices, expected)


def test_worst_state_among_several_and_without_any(tmp_path):
    line, channel, let = "kvsnmp_amp_channel_line_state", "kvsnmp_amp_channel_status", "kvsnmp_let_channel2_status"
    dead = state("kvsnmp_power_live", "notLive", **row())
    devices = {
        "several": model(6420) + state(channel, "disabled", **row(1)) + state(line, "ok", **row(1))
        + state(line, "groundFault", **row(2)) + state("kvsnmp_power_live", "unknown", **row(3)),
        "none": model(6913),
        "silent": [series("up", {}, "0x5")],
        "not supervised": model(6410) + dead + state("kvsnmp_power_monitored", "notMonitored", **row()),
        "supervised": model(6410) + dead + state("kvsnmp_power_monitored", "monitored", **row()),
        "channel in operation": model(6720) + state(let, "missing", **row(9)) + state(channel, "ok", **row(2)),
        "channel out of operation": model(6720) + state(let, "missing", **row(9)) + state(channel, "monitorFault", **row(2))}
    worst_of(tmp_path, devices, {
        "several": ("Row 2: groundFault", 2), "none": ("", 0), "not supervised": ("", 0), "supervised": ("Row 1: notLive", 2),
        "channel in operation": ("Row 9: missing", 2), "channel out of operation": ("Row 2: monitorFault", 2)})


def test_reached_devices(tmp_path):
    """0 without an answer, 1 with that of snmpd alone."""
    (query,) = (query for query in queries(FLEET) if query.startswith("sum by (instance) (up") and "model_number" in query)
    input_series = at("silent", [series("up", {}, "0x5")]) + at("snmpd", [series("up", {}, "1x5")]) \
        + at("all", [series("up", {}, "1x5"), *model(6410)])
    answers(tmp_path, input_series, {query: {'{instance="silent"}': 0, '{instance="snmpd"}': 1, '{instance="all"}': 2}})


def test_worst_voltage_keeps_its_sign(tmp_path):
    """One row for each device, also if two voltages are as far off, and none without voltages."""
    (query,) = (query for query in queries(FLEET) if "voltage_deviation_ratio" in query)
    input_series = at("none", model(6913))
    for name, values in {"low": (3.0, 5.1), "high": (3.3, 5.5), "alike": (3.3, 5.0)}.items():
        for index, (nominal, value) in enumerate(zip(("3.3", "5.0"), values), 3):
            labels = row(index) | {"description": f"Internal voltage {nominal}V"}
            input_series += at(name, [series("kvsnmp_voltage_value_volts", labels, f"{value}x5")])
    answers(tmp_path, input_series, {
        f"{query} != 0": {'{instance="low", voltage="Internal voltage 3.3V"}': 3.0 / 3.3 - 1,
                          '{instance="high", voltage="Internal voltage 5.0V"}': 5.5 / 5 - 1},
        f"count by (instance) ({query})": {f'{{instance="{name}"}}': 1 for name in ("low", "high", "alike")}})
