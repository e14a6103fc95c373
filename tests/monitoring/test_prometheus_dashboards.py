"""The dashboards of Grafana: their structure, their words and colours, and their queries in promtool. Grafana itself is
not run."""
from __future__ import annotations

import json
import re

import pytest
from prometheus_files import FLEET, ONE_DEVICE, evaluate, modules, names_in, panels, queries, rules, states, walks
from limits import CHECKS, SETTINGS  # the path is set by the one above
from test_prometheus_rules import all_steady, at, gauge, object_of, scraped, series, state

BOTH = pytest.mark.parametrize("file", [FLEET, ONE_DEVICE], ids=lambda file: file.stem)
TIMELINES = [panel for panel in panels(ONE_DEVICE) if panel["type"] == "state-timeline"]
COLOURS = {"red", "orange", "green", "blue", "purple", "#808080"}
JUDGED = [check for check in CHECKS if not check.measurement and check.name not in SETTINGS]
OBJECTS = {object_of(name): name for name in states()}
(WORST,) = (query for query in queries(FLEET) if query.startswith("topk by (instance) (1, max by (instance, worst)"))


def enum_values(metric: str) -> dict[int, str]:
    return next(item["enum_values"] for item in modules()["snmp-before-0.23.yml"]["metrics"] if item["name"] == metric)


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
    known = [item["name"] for item in dashboard["templating"]["list"]]
    assert known == (["datasource"] if file == FLEET else ["datasource", "instance"])
    for query in queries(file):
        # A number is a group of label_replace.
        assert {name for name in re.findall(r"\$\{?(\w+)", query) if not name.isdigit()} <= set(known) - {"datasource"}, query


@BOTH
def test_columns_of_tables_exist(file):
    """A table shows labels and values of its queries; each override and the order name a column. A device of the fleet
    links to its dashboard."""
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
        overrides = {item["matcher"]["options"]: item["properties"] for item in panel["fieldConfig"]["overrides"]}
        assert overrides.keys() <= set(names.values())
        if file == FLEET:
            ((link,),) = (item["value"] for item in overrides["Device"] if item["id"] == "links")
            assert link["url"].startswith(
                f"/d/{ONE_DEVICE.stem}?var-instance=${{__value.raw}}&var-datasource=${{datasource}}")
        assert {item["displayName"] for item in panel["options"].get("sortBy", [])} <= set(names.values())


# Words and colours


def test_timelines_have_each_word_of_the_mib_and_the_colours_of_the_checks():
    shown = set()
    for panel in TIMELINES[1:]:
        (mapping,) = panel["fieldConfig"]["defaults"]["mappings"]
        words = {int(code): item["text"] for code, item in mapping["options"].items()}
        colours = {item["text"]: item["color"] for item in mapping["options"].values()}
        assert mapping["type"] == "value" and set(colours.values()) <= COLOURS
        for target in panel["targets"]:
            (name,) = names_in(target["expr"])
            assert words == enum_values(name)
            terms = re.findall(rf'{name}{{instance="\$instance", {name}="(\w+)"}} \* (\d+)', target["expr"])
            assert {int(code): word for word, code in terms} == words and len(terms) == len(words)
            checks = [check for check in JUDGED if OBJECTS[check.column] == name]
            critical = {word for check in checks for word in check.critical.split()}
            warning = {word for check in checks for word in check.warning.split()} - {"unknown", "notReported"}
            assert {word for word, colour in colours.items() if colour == "red"} == critical, panel["title"]
            assert {word for word, colour in colours.items() if colour == "orange"} == warning, panel["title"]
            shown.add(name)
    assert shown == set(states())


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


def model(number: int) -> list[dict[str, str]]:
    return [series("kvsnmp_info_model_number", {"sys_name": "a"}, f"{number}x5")]


def answers(folder, input_series: list[dict[str, str]], expected: dict[str, dict[str, float]], minute: int = 4) -> None:
    """Query to its samples, by their labels."""
    evaluate(folder, [{"interval": "1m", "input_series": input_series, "promql_expr_test": [
        {"expr": query, "eval_time": f"{minute}m",
         "exp_samples": [{"labels": labels, "value": value} for labels, value in samples.items()]}
        for query, samples in expected.items()]}])


def test_every_query_and_record_with_a_device_of_every_model(tmp_path):
    """Each returns data where the model has the table, and the timelines show the served states. A loudspeaker line has
    an earth fault, a transponder is present, one device does not answer, and of another one only snmpd does."""
    changed = {"6720": {"ampChannelLineState.1": "6", "letChannel1Status.1": "3"}}
    devices = {name: scraped(name, **changed.get(name, {})) for name in walks.NAMES}
    expected: dict[str, dict[str, float]] = {}
    with_data: set[str] = set()
    recorded = {"kvsnmp_voltage_value_volts": "kvsnmp:voltage_deviation_ratio",
                "kvsnmp_let_channel1_voltage_volts": "kvsnmp:let_voltage_volts"}
    for name, found in devices.items():
        there = {metric for (metric, _), value in found.items() if value or "let_channel" not in metric}
        there |= {record for metric, record in recorded.items() if metric in there} | ({"ALERTS"} if name == "6720" else set())
        for query, asked in zip(queries(ONE_DEVICE), queries(ONE_DEVICE, instance=name)):
            with_data |= {query} if names_in(query) <= there else set()
            expected[f"group({asked})"] = {"{}": 1} if names_in(query) <= there else {}
        for query in queries(ONE_DEVICE, "state-timeline", name)[1:]:  # the first shows alerts
            (metric,) = names_in(query)
            codes = {word: code for code, word in enum_values(metric).items()}
            expected[query] = {
                series("", {"instance": name} | {key: text for key, text in labels if key != metric}, "")["series"]:
                codes[dict(labels)[metric]] for (served, labels), value in found.items() if served == metric and value}
    assert with_data == set(queries(ONE_DEVICE))

    def each(query: str, values: dict[str, float]) -> None:
        expected[query] = {f'{{instance="{name}"}}': value for name, value in values.items()}

    def having(metric: str) -> list[str]:
        return [name for name, found in devices.items() if metric in {served for served, _ in found}]

    (table,) = (panel for panel in panels(FLEET) if panel["title"] == "Devices")
    reached, model_number, worst, voltage, sensor, fan, firing = (target["expr"] for target in table["targets"])
    each(reached, dict.fromkeys(devices, 2) | {"silent": 0, "snmpd": 1})
    each(f"max by (instance) ({model_number})", {name: int(name[:4]) for name in devices})
    each(worst, {name: 0 for name in devices if name != "6720"})
    expected[worst]['{instance="6720", worst="Channel 1: groundFault"}'] = 2
    each(f"count by (instance) ({voltage})", dict.fromkeys(having("kvsnmp_voltage_value_volts"), 1))
    degrees = "kvsnmp_temp_current_celsius"
    each(f"max by (instance) ({sensor})", {name: max(value for (metric, _), value in devices[name].items() if metric == degrees)
                                           for name in having(degrees)})
    each(f"count by (instance) ({fan})", dict.fromkeys(having("kvsnmp_fan_speed_rpm"), 1))
    each(firing, {name: int(name == "6720") for name in devices} | {"silent": 1, "snmpd": 0})
    records = [rule["record"] + "{" + ", ".join(f'{key}="{text}"' for key, text in rule.get("labels", {}).items()) + "}"
               for rule in rules() if "record" in rule]
    for query in records + queries(FLEET):
        expected[f"group({query.removesuffix(' or vector(0)')})"] = {"{}": 1}
    (_, variable) = json.loads(ONE_DEVICE.read_text())["templating"]["list"]
    (selector,) = re.fullmatch(r"label_values\((.+), instance\)", variable["query"]["query"]).groups()
    each(f"group by (instance) ({selector})", dict.fromkeys([*devices, "silent", "snmpd"], 1))
    entries = at("silent", gauge("up", 0)) + at("snmpd", gauge("up", 1))
    answers(tmp_path, entries + [entry for name, found in devices.items() for entry in at(name, all_steady(found))], expected,
            minute=10)


def row(index: int | str = 1) -> dict[str, str]:
    return {"index": str(index), "description": f"Row {index}"}


def test_worst_state(tmp_path):
    """Many devices at once, each with one table: critical, warning or in order as in the checks; the words that depend
    on the model are in order on another. And devices with several tables or none."""
    line, channel, let = "kvsnmp_amp_channel_line_state", "kvsnmp_amp_channel_status", "kvsnmp_let_channel2_status"
    dead, missing = state("kvsnmp_power_live", "notLive", **row()), state(let, "missing", **row(9))
    devices = {
        "several": (model(6420) + state(channel, "disabled", **row(1)) + state(line, "ok", **row(1))
                    + state(line, "groundFault", **row(2)) + state("kvsnmp_power_live", "unknown", **row(3)),
                    "Row 2: groundFault", 2),
        "none": (model(6913), "", 0),
        "not supervised": (model(6410) + dead + state("kvsnmp_power_monitored", "notMonitored", **row()), "", 0),
        "supervised": (model(6410) + dead + state("kvsnmp_power_monitored", "monitored", **row()), "Row 1: notLive", 2),
        "channel in operation": (model(6720) + missing + state(channel, "ok", **row(2)), "Row 9: missing", 2),
        "channel out of operation": (model(6720) + missing + state(channel, "monitorFault", **row(2)),
                                     "Row 2: monitorFault", 2)}
    for check in JUDGED:
        metric = OBJECTS[check.column]
        for word in states()[metric]:
            level = 2 if word in check.critical.split() else 1 if word in check.warning.split() else 0
            for number in [*check.models[:1], 6913] if check.models else [6420]:
                found = level if number in (check.models or [number]) else 0
                devices[f"{check.column} {word} {number}"] = (
                    model(number) + state(metric, word, **row()), f"Row 1: {word}" if found else "", found)
    assert {level for *_, level in devices.values()} == {0, 1, 2} and len(devices) > 66
    silent = [series("up", {}, "0x5")]
    entries = [entry for instance, (entries, *_) in devices.items() for entry in at(instance, entries)]
    answers(tmp_path, entries + silent, {WORST: {
        f'{{instance="{instance}"' + (f', worst="{worst}"' if worst else "") + "}": level
        for instance, (_, worst, level) in devices.items()}})


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
