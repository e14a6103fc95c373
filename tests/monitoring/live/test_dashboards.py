"""Each query of the Grafana dashboards in Prometheus, with a device of every model. Grafana itself is not run. Run by
scripts/test-monitoring."""
from __future__ import annotations

import json
import re
import time
from collections.abc import Iterator

import pytest
from site_of_devices import NAMES, Site

from prometheus_files import BEFORE, FLEET, ONE_DEVICE, modules, names_in, panels, queries  # the paths are set by the one above
from series import codes
from support.polling import wait_until
from test_prometheus import site  # noqa: F401  (a fixture, whose devices are this file's)


@pytest.fixture(scope="module")
def with_a_fault(site) -> Iterator[Site]:
    """A loudspeaker line has an earth fault, so that the panels of alerts have data, too."""
    former = site.devices["6720"].change(codes({"ampChannelLineState.1": "groundFault"}))
    site.wait_for_alerts({("KvsnmpSpeakerLineFault", "6720", "1")}, 90)
    yield site
    site.devices["6720"].change(former)


def test_every_query_of_the_fleet_returns_data(with_a_fault):
    for query in queries(FLEET):
        assert with_a_fault.query(query), query
    (table,) = (panel for panel in panels(FLEET) if panel["title"] == "Devices")
    rows = [{with_a_fault.name_of(labels["instance"]): (labels, value) for labels, value in found}
            for found in (with_a_fault.query(target["expr"]) for target in table["targets"])]
    reached, model, worst, voltage, sensor, fan, firing = rows
    for everywhere in (reached, model, worst, firing):
        assert set(everywhere) == set(NAMES)
    assert {value for _, value in reached.values()} == {2}
    assert all(value == int(name[:4]) for name, (_, value) in model.items())
    assert {name: (labels.get("worst"), value) for name, (labels, value) in worst.items() if value} == {
        "6720": ("Channel 1: groundFault", 2)}
    assert {name: value for name, (_, value) in firing.items() if value} == {"6720": 1}
    with_voltages, with_fans = {"6410", "6420", "6425", "6720", "6764"}, {"6410", "6420", "6720", "6764"}
    assert set(voltage) == set(sensor) == with_voltages and set(fan) == with_fans
    for name in with_voltages:
        here = f'{{instance="{with_a_fault.addresses[name]}"}}'
        sensors = with_a_fault.query("kvsnmp_temp_current_celsius" + here)
        measured = {(labels["description"], value) for labels, value in sensors}
        assert (sensor[name][0]["sensor"], sensor[name][1]) in measured
        assert sensor[name][1] == max(value for _, value in measured)


def test_every_query_of_a_device_returns_data(with_a_fault):
    """On the devices whose model has the table."""
    shown: dict[str, set[str]] = {query: set() for query in queries(ONE_DEVICE)}
    for name in NAMES:
        address = with_a_fault.addresses[name]
        for query, asked in zip(shown, queries(ONE_DEVICE, instance=address)):
            found = with_a_fault.query(asked)
            scraped = all(with_a_fault.query(f'{metric}{{instance="{address}"}}') for metric in names_in(query))
            assert bool(found) == scraped or query.endswith("> 0") and scraped, asked
            shown[query] |= {name} if found else set()
    assert [query for query, names in shown.items() if not names] == []


def test_timelines_have_the_served_states(with_a_fault):
    oids = {metric["name"]: metric["oid"] for metric in modules()[BEFORE.name]["metrics"]}
    wait_until(lambda: len(with_a_fault.query("up offset 12s == 1")) == len(NAMES), 30, 0.5, "twelve seconds of data")
    end, states_seen = time.time(), 0
    for name in NAMES:
        served = {variable.oid.lstrip("."): variable.text for variable in with_a_fault.devices[name].variables}
        for query in queries(ONE_DEVICE, "state-timeline", with_a_fault.addresses[name])[1:]:  # the first shows alerts
            (metric,) = names_in(query)
            column = {oid.removeprefix(f"{oids[metric]}."): int(text) for oid, text in served.items()
                      if oid.startswith(f"{oids[metric]}.")}
            found = with_a_fault.query(query)
            assert len(found) == len(column) and {labels["index"]: value for labels, value in found} == column, query
            drawn = with_a_fault.ask("query_range", query=query, start=str(end - 10), end=str(end), step="1")["result"]
            assert {line["metric"]["index"] for line in drawn} == set(column), query
            assert all(len(line["values"]) > 5 for line in drawn)
            states_seen += len(column)
    assert states_seen > 300


def test_the_variable_of_the_devices(site):
    (_, variable) = json.loads(ONE_DEVICE.read_text())["templating"]["list"]
    (selector,) = re.fullmatch(r"label_values\((.+), instance\)", variable["query"]["query"]).groups()
    found = site.ask("series", **{"match[]": selector})
    assert {labels["instance"] for labels in found} == set(site.addresses.values())
