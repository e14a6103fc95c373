"""Debian's exporter and Prometheus with a device of every model: each served object is a metric with its text labels,
and each alert fires on a fault and clears again. Run by scripts/test-monitoring."""
from __future__ import annotations

import re
import time
from collections import Counter
from collections.abc import Iterator
from typing import Any, NamedTuple

import pytest
from site_of_devices import EXPORTER, NAMES, Alert, Site, fetch, graph

from prometheus_files import FOLDER, alerts, rules  # the paths are set by the one above
from series import Series, codes, expected_series
from support import steps
from support.catalogue import COLUMN_OIDS
from support.device import Device
from support.polling import wait_until
from support.walkagent import WalkAgent, silent
from support.walks import FAILED_TONE


@pytest.fixture(scope="module")
def site(tmp_path_factory) -> Iterator[Site]:
    site = Site(tmp_path_factory.mktemp("site"), NAMES)
    try:
        site.start_exporter()
        site.start_prometheus()
        wait_until(lambda: len(site.query("up == 1")) == len(NAMES), 60, 0.5, "all devices scraped")
        yield site
    finally:
        site.stop()


# Metrics

@pytest.mark.parametrize("name", NAMES)
def test_every_served_object_is_a_metric_with_its_texts(site, name):
    expected = expected_series(site.devices[name].variables)
    ignored = ("__name__", "job", "instance")

    def scraped() -> Series:
        found = site.query(f'{{instance="{site.addresses[name]}", __name__=~"kvsnmp_.+"}}')
        return {(labels["__name__"], frozenset((key, text) for key, text in labels.items() if key not in ignored)): value
                for labels, value in found if labels["__name__"] != "kvsnmp_sys_up_time_centiseconds"}

    wait_until(lambda: scraped() == expected, 15, 1, "the newest scrape")
    assert len(expected) > 30
    ((_, up_time),) = site.query(f'kvsnmp_sys_up_time_centiseconds{{instance="{site.addresses[name]}"}}')
    assert up_time > 10**8


def scrape(address: str) -> tuple[list[str], dict[str, float]]:
    """The lines of the device's metrics, and what the scrape took."""
    lines = (fetch(f"http://{EXPORTER}/snmp?module=kvsnmp&target={address}") or "").splitlines()
    return ([line for line in lines if line.startswith("kvsnmp_") and "up_time" not in line],
            {name: float(value) for name, value in (line.split() for line in lines if line.startswith("snmp_scrape_"))})


def test_a_real_device_has_the_same_metrics(site):
    """In few packets: the repetitions and times of the exporter's module suit it."""
    device = Device(6420, "--clock-shift", "--no-traps", "--port", "20161", "--set", FAILED_TONE)
    try:
        device.wait_ready().wait_subscribed(60)
        steps.apply(device, [["monitor", "amp", channel, "2"] for channel in "01"])
        played = scrape(site.addresses["6420"])[0]
        assert len(played) > 100
        wait_until(lambda: device.shift_clock(steps.CACHE_SECONDS) or scrape("127.0.0.1:20161")[0] == played, 60, 1.0, "the same")
        facts = scrape("127.0.0.1:20161")[1]
    finally:
        complaints = device.stop()
    assert facts["snmp_scrape_packets_retried"] == 0 and facts["snmp_scrape_packets_sent"] < 20, facts
    assert facts["snmp_scrape_walk_duration_seconds"] < 5 and complaints == []


def test_rules_are_evaluated_without_a_complaint_and_give_something(site):
    evaluated = [rule for group in site.ask("rules")["groups"] for rule in group["rules"]]
    assert len(evaluated) == len(rules())
    assert [rule for rule in evaluated if rule["health"] != "ok" or rule.get("lastError")] == []
    for rule in rules():
        if "record" in rule and rule["record"] != "kvsnmp:let_present:count":
            labels = ", ".join(f'{key}="{value}"' for key, value in rule.get("labels", {}).items())
            assert site.query(f"{rule['record']}{{{labels}}}"), rule


# Alerts: all faults at once, on devices where they do not get in each other's way


class Fault(NamedTuple):
    device: str
    values: dict[str, str]  # codes by their words
    fires: str  # the alert
    text: str  # in the summary

    @property
    def alerts(self) -> set[Alert]:
        return {(self.fires, self.device, name.partition(".")[2]) for name in self.values}


# Of each kind of rule; test_prometheus_rules.py has all.
FAULTS = [Fault(*cells) for cells in [
    ("6410", {"tempCurrent.3": "660"}, "KvsnmpTempRise", "AC Power is 22.8 °C above its average"),
    ("6764", {"fanSpeed.1": "0"}, "KvsnmpFanStopped", "Left Fan stands still"),
    ("6720", {"voltageValue.3": "2640"}, "KvsnmpVoltageOutOfWindow", "Internal voltage 3.3V is off by 20%"),
    ("6420", {"powerLive.1": "notLive"}, "KvsnmpPowerSourceDown", "ac_power does not deliver"),
    ("6720", {"ampChannelStatus.1": "classDFault", "ampChannelStatus.2": "classDFault"}, "KvsnmpAmpChannelFault",
     "is out of order (classDFault)"),
    ("6420", {"letChannel2Status.2": "missing"}, "KvsnmpLetMissing", "LET 2 Channel 2 is missing"),
    ("6602", {"ethMonitoringMonitored.1": "notMonitored"}, "KvsnmpEthSupervisionOff", "Eth 1 is no longer supervised"),
    ("6214-extended", {f"relayStatus.{row}": "unknown" for row in range(5, 13)}, "KvsnmpRelayFault", "is unknown")]]
# Nothing measured and the channels silent, without kvsnmp, without an answer.
WHOLE: set[Alert] = {
    ("KvsnmpNothingMeasured", "6425", ""), ("KvsnmpAmpChannelUnknown", "6425", "1"),
    ("KvsnmpAmpChannelUnknown", "6425", "2"), ("KvsnmpSubagentGone", "6913", ""), ("KvsnmpDeviceUnreachable", "6914", "")}
EXPECTED: set[Alert] = WHOLE.union(*(fault.alerts for fault in FAULTS))


class History(NamedTuple):
    before: dict[Alert, Any]
    during: dict[Alert, Any]
    after: dict[Alert, Any]
    page: str  # Prometheus' alerts while they fired
    page_after: str
    begin: float  # some seconds before the faults


def shows(page: str, alert: str, count: int) -> bool:
    return bool(re.search(rf"{alert}\s*\(\s*{count} active\)", page))


def page_of(site: Site, expected: set[Alert]) -> str:
    """Prometheus' page of the alerts once it shows these; a busy machine may miss a scrape in the meantime."""
    counts, page = Counter(alert for alert, _, _ in expected), ""

    def look() -> bool:
        nonlocal page
        page = site.page("classic/alerts")
        return all(shows(page, alert, counts[alert]) for alert in alerts())

    wait_until(look, 120, 1.0, "the alerts on Prometheus' page")
    return page


@pytest.fixture(scope="module")
def history(site) -> History:
    """In order, with all faults, in order again."""
    before, begin = site.wait_for_alerts(set(), 90), time.monotonic() - 5
    silenced, column = site.devices["6425"], COLUMN_OIDS["voltageValue"]
    nothing = {f"voltageValue.{variable.oid.rpartition('.')[2]}": "0" for variable in silenced.variables
               if variable.oid.startswith(f"{column}.")}
    former = [(silenced, silenced.change(nothing | codes({f"ampChannelStatus.{row}": "unknown" for row in (1, 2)})))]
    former += [(site.devices[fault.device], site.devices[fault.device].change(codes(fault.values))) for fault in FAULTS]
    site.answering("6913", WalkAgent("", "pa-device").answer)
    site.answering("6914", silent)
    during = site.wait_for_alerts(EXPECTED, 120)
    page = page_of(site, EXPECTED)
    for device, values in former:
        device.change(values)
    for name in ("6913", "6914"):
        site.answering(name, site.devices[name].answer)
    after = site.wait_for_alerts(set(), 120)
    return History(before, during, after, page, page_of(site, set()), begin)


@pytest.mark.parametrize("alert", sorted({alert for alert, _, _ in EXPECTED}))
def test_alert_fires_and_clears(history, alert):
    during = {key: found for key, found in history.during.items() if key[0] == alert}
    assert set(during) == {key for key in EXPECTED if key[0] == alert}
    for found in during.values():
        assert found["state"] == "firing" and found["labels"]["severity"] == alerts()[alert]["labels"]["severity"]
        assert "{{" not in str(found["annotations"]) and "no value" not in str(found["annotations"])
    assert not [key for key in [*history.before, *history.after] if key[0] == alert]
    assert shows(history.page, alert, len(during)) and shows(history.page_after, alert, 0), "on Prometheus' page"


def test_alerts_name_what_is_faulty_and_counts_are_recorded(site, history):
    for fault in FAULTS:
        for alert in fault.alerts:
            summary = history.during[alert]["annotations"]["summary"]
            assert summary.startswith(site.addresses[fault.device]) and fault.text in summary
    # One transponder is missing no longer.
    assert site.query('kvsnmp:state{object="letChannel2Status", state="missing"}') == []
    assert ("6420", "2") in {(site.name_of(labels["instance"]), labels["channel"])
                             for labels, count in site.query("kvsnmp:let_present:count") if count}


def test_pictures_of_one_alert(site, history):
    """Firing and cleared, and the voltages of a device, as a person sees them in Prometheus."""
    chosen = f'instance="{site.addresses["6764"]}"'
    path = graph(f'kvsnmp_fan_speed_rpm{{{chosen}}}',
                 f'ALERTS{{alertname="KvsnmpFanStopped", alertstate="firing", {chosen}}} or on () vector(0)',
                 seconds=int(time.monotonic() - history.begin))
    site.picture(path, "prometheus-alert-history.png", 1600, 'description="Left Fan"', 'alertstate="firing"')  # in the legends
    site.picture(graph(f'kvsnmp_voltage_value_volts{{instance="{site.addresses["6420"]}"}}'), "prometheus-voltages.png", 850,
                 "Phantom Microphone 12.0V")


def test_query_of_the_readme(site, history):
    """The system name on another metric."""
    readme = (FOLDER / "README.md").read_text()
    (query,) = re.findall(r"`(kvsnmp_temp_current_celsius \* [^`]+)`", readme)
    found = site.query(" ".join(query.split()))
    assert len(found) == len(site.query("kvsnmp_temp_current_celsius")) == 4 + 5 + 4 + 2 + 3
    assert all(labels["sys_name"] == "pa-device" and 30 < value < 70 for labels, value in found)


def test_a_text_outside_ascii(site, history):
    """A system name may have any letter. This exporter refuses the whole answer if a transponder's version has a letter
    outside ASCII (README)."""
    device = site.devices["6420"]
    target = f"http://{EXPORTER}/snmp?module=kvsnmp&target={site.addresses['6420']}"
    device.values |= WalkAgent("", "Bühne Süd").values
    wait_until(lambda: 'sys_name="Bühne Süd"' in (fetch(target) or ""), 30, 0.5, "system name")
    former = device.change({"letChannel1SoftwareVersion.1": "ü1"})
    wait_until(lambda: fetch(target) is None, 30, 0.5, "the whole answer refused")
    device.change(former)
    wait_until(lambda: 'sys_name="Bühne Süd"' in (fetch(target) or ""), 30, 0.5, "answers again")
    device.values |= WalkAgent("", "pa-device").values
