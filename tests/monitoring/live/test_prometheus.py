"""Debian's exporter and Prometheus with a device of every model: each served object is a metric with its text labels,
and an alert fires on a fault and clears again. Run by scripts/test-monitoring."""
from __future__ import annotations

import re
import time
from collections.abc import Iterator

import pytest
from site_of_devices import EXPORTER, NAMES, Site, fetch, graph

from prometheus_files import FOLDER  # the path is set by the one above
from series import Series, expected_series
from support import steps
from support.device import Device
from support.polling import wait_until
from support.walkagent import WalkAgent
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


def test_pictures_of_one_alert_that_fires_and_clears(site):
    """And of the voltages of a device, as a person sees them in Prometheus. test_prometheus_rules.py has all alerts."""
    wait_until(lambda: not site.alerts(), 90, 1.0, "no alert")
    site.browser.get("about:blank")  # started before the first moment of the graph
    begin, alert, address = time.monotonic() - 20, ("KvsnmpFanStopped", "6764", "1"), site.addresses["6764"]
    former = site.devices["6764"].change({"fanSpeed.1": "0"})
    firing = f'ALERTS{{alertname="KvsnmpFanStopped", alertstate="firing", instance="{address}"}}'
    wait_until(lambda: site.query(f"count_over_time({firing}[15s]) >= 12"), 120, 1.0, "the alert fires for a while")
    ((name, found),) = site.alerts().items()
    assert name == alert and found["state"] == "firing"
    assert found["labels"]["severity"] == "critical"
    assert found["annotations"]["summary"] == f"{address}: Left Fan stands still"
    site.devices["6764"].change(former)
    wait_until(lambda: site.query("absent(max_over_time(ALERTS[12s]))"), 120, 1.0, "no alert for a while")
    path = graph(f'kvsnmp_fan_speed_rpm{{instance="{address}"}}', f"{firing} or on () vector(0)",
                 seconds=int(time.monotonic() - begin))
    site.picture(path, "prometheus-alert-history.png", 1600, 'description="Left Fan"', 'alertstate="firing"')  # in the legends
    site.picture(graph(f'kvsnmp_voltage_value_volts{{instance="{site.addresses["6420"]}"}}'), "prometheus-voltages.png", 850,
                 "Phantom Microphone 12.0V")


def test_query_of_the_readme(site):
    """The system name on another metric."""
    readme = (FOLDER / "README.md").read_text()
    (query,) = re.findall(r"`(kvsnmp_temp_current_celsius \* [^`]+)`", readme)
    found = site.query(" ".join(query.split()))
    assert len(found) == len(site.query("kvsnmp_temp_current_celsius")) == 4 + 5 + 4 + 2 + 3
    assert all(labels["sys_name"] == "pa-device" and 30 < value < 70 for labels, value in found)


def test_a_text_outside_ascii(site):
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
