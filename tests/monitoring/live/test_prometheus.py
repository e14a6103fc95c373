"""Debian's exporter and Prometheus with a device of every model: each served object is a metric with its text labels,
and each alert fires on a fault and clears again. Run by scripts/test-monitoring."""
from __future__ import annotations

import re
import struct
import time
from collections import Counter
from collections.abc import Iterator
from typing import Any, NamedTuple

import pytest
from site_of_devices import EXPORTER, RESTARTED, STATION, Alert, Site, fetch, graph

from prometheus_files import FOLDER, alerts, rules  # the paths are set by the one above
from support.catalogue import MODELS
from series import Series, expected_series
from support.polling import wait_until
from support.snmp import TABLES
from support.steps import Command, put

NAMES = [str(model) for model in MODELS] + [STATION]


@pytest.fixture(scope="module")
def site(tmp_path_factory) -> Iterator[Site]:
    site = Site(tmp_path_factory.mktemp("site"))
    try:
        site.start_devices()
        site.start_exporter()
        site.start_prometheus()
        wait_until(lambda: len(site.query("up == 1")) == len(NAMES), 60, 0.5, "all devices scraped")
        yield site
    finally:
        complaints = site.stop()
    assert not complaints, "\n".join(complaints)


# Metrics

@pytest.mark.parametrize("name", NAMES)
def test_every_served_object_is_a_metric_with_its_texts(site, name):
    walk = site.devices[name].snmp.walk(TABLES)
    expected = expected_series(walk)
    ignored = ("__name__", "job", "instance")

    def scraped() -> Series:
        found = site.query(f'{{instance="{site.addresses[name]}", __name__=~"kvsnmp_.+"}}')
        return {(labels["__name__"], frozenset((key, text) for key, text in labels.items() if key not in ignored)): value
                for labels, value in found if labels["__name__"] != "kvsnmp_sys_up_time_centiseconds"}

    wait_until(lambda: scraped() == expected, 15, 1, "the newest scrape")
    assert len(walk) > 30 and len(expected) > 30
    ((_, up_time),) = site.query(f'kvsnmp_sys_up_time_centiseconds{{instance="{site.addresses[name]}"}}')
    assert 0 < up_time < 360000


def test_a_walk_takes_few_packets(site):
    """The repetitions and times of the exporter's module suit the devices."""
    text = fetch(f"http://{EXPORTER}/snmp?module=kvsnmp&target={site.addresses['6420']}")
    facts = dict(line.split() for line in text.splitlines() if line.startswith("snmp_scrape_"))
    assert float(facts["snmp_scrape_packets_retried"]) == 0 and float(facts["snmp_scrape_packets_sent"]) < 20
    assert float(facts["snmp_scrape_walk_duration_seconds"]) < 5


def test_every_voltage_has_a_nominal_one(site):
    values, nominal = site.query("kvsnmp_voltage_value_volts"), site.query("kvsnmp:voltage_nominal_volts")
    assert len(values) == len(nominal) == 11 + 13 + 7 + 8 + 8
    assert all(abs(deviation) < 0.05 for _, deviation in site.query("kvsnmp:voltage_deviation_ratio"))


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
    begin: list[Command]
    end: list[Command]
    fires: dict[str, list[str]]  # alert to the indices of its rows
    text: str = ""  # in the summary


LINE, LINE_STATE = "lines/line[kid='{}']/{}", "lines/line[kid='{}']/characteristics/line_state"
SENSOR = "/state/temp_sensors/temp_sensor[kid='{}']/temp_{}"
VOLTAGE = "power_lines/power_line[kid='{}']/voltage"


def temperature(sensor: str, was: tuple[str, str, str], now: tuple[str, str, str]) -> tuple[list[Command], list[Command]]:
    """Current, peak and average."""
    both = [[put(SENSOR.format(sensor, what), text) for what, text in zip(("current", "peak", "average"), texts)]
            for texts in (now, was)]
    return both[0], both[1]


def leaf(path: str, was: str, now: str) -> tuple[list[Command], list[Command]]:
    return [put(f"/state/{path}", now)], [put(f"/state/{path}", was)]


def words(*command: str) -> tuple[list[Command], list[Command]]:
    """The last of the words are those of before and of now."""
    *order, was, now = command
    return [[*order, now]], [[*order, was]]


FAULTS = [
    Fault("6410", *temperature("cntlr_main_board_1", ("41.2", "48.0", "40.5"), ("78.5", "78.5", "70.0")),
          {"KvsnmpTempHigh": ["1"]}, "Main Board 1 is at 78.5 °C"),
    Fault("6410", *temperature("cntlr_main_board_2", ("39.8", "46.1", "39.0"), ("91.0", "91.0", "80.0")),
          {"KvsnmpTempCritical": ["2"]}, "Main Board 2 is at 91.0 °C"),
    Fault("6410", *temperature("cntlr_ac_power", ("44.0", "51.3", "43.2"), ("66.0", "66.0", "43.2")),
          {"KvsnmpTempRise": ["3"]}, "AC Power is 22.8 °C above its average"),
    Fault("6720", *temperature("main_board", ("41.9", "47.7", "41.1"), ("0.0", "0.0", "0.0")),
          {"KvsnmpTempSensorSilent": ["3"]}, "Main Board has never been read"),
]
FAULTS += [Fault(device, *order, {alert: indices}, text) for device, order, alert, indices, text in [
    ("6764", leaf("fans/fan[kid='fan2']/speed_sensor_rpm", "1320", "0"), "KvsnmpFanStopped", ["1"],
     "Left Fan stands still"),
    ("6410", leaf(VOLTAGE.format("24v0"), "24.05", "25.9"), "KvsnmpVoltageDrift", ["7"],
     "Internal voltage 24.0V is off by 7.917%"),
    ("6720", leaf(VOLTAGE.format("3v3"), "3.305", "2.64"), "KvsnmpVoltageOutOfWindow", ["3"],
     "Internal voltage 3.3V is off by 20%"),
    ("6420", leaf(VOLTAGE.format("5v0"), "5.04", "0"), "KvsnmpVoltageZero", ["4"], "Internal voltage 5.0V reads 0 V"),
    ("6420", leaf("power_sources/power_source[kid='ac_power']/live", "true", "false"), "KvsnmpPowerSourceDown", ["1"],
     "ac_power does not deliver"),
    ("6410", leaf(LINE.format("ln1", "pilot_tone_state"), "ok", "failed"), "KvsnmpLineInFailed", ["1"],
     "Line In 1 has lost its pilot tone"),
    ("6601", leaf("lines/mic_status_extern", "connected", "shorted"), "KvsnmpMicrophoneFault", ["3"],
     "Microphone Extern is shorted"),
    ("6259", leaf("lines/mic_status_intern", "connected", "disconnected"), "KvsnmpMicrophoneFault", ["4"],
     "Microphone Intern is disconnected"),
    ("6720", leaf("class_d_amp_status/status", "ok", "failed"), "KvsnmpAmpChannelFault", ["1", "2"],
     "is out of order (classDFault)"),
    ("6764", words("monitor", "amp", "0", "2", "1"), "KvsnmpAmpChannelFault", ["1"],
     "Channel 1 is out of order (monitorFault)"),
    ("6764", leaf("config/" + LINE.format("ch2", "enable"), "true", "false"), "KvsnmpAmpChannelDisabled", ["2"],
     "Channel 2 is switched off"),
    ("6420", leaf(LINE_STATE.format("ch1"), "ok", "ground_fault"), "KvsnmpSpeakerLineFault", ["1"],
     "of Channel 1 is faulty (groundFault)"),
    ("6420", leaf(LINE_STATE.format("ch2"), "ok", "voltage_low"), "KvsnmpSpeakerLineNotFed", ["2"],
     "of Channel 2 is not fed (voltageLow)"),
    ("6720", leaf(LINE_STATE.format("ch1"), "ok", "failed_timeout"), "KvsnmpSpeakerLineUnclear", ["1"],
     "of Channel 1 comes to no result (failedTimeout)"),
    ("6420", words("monitor", "let", "1", "2", "2", "1"), "KvsnmpLetMissing", ["2"], "LET 2 Channel 2 is missing"),
    ("6410", words("monitor", "gpi", "0", "ok_open", "fail_shorted"), "KvsnmpControlInputFault", ["1"],
     "Control Input 1 is shorted"),
    ("6764", words("monitor", "gpo", "1", "ok_set", "fail_set"), "KvsnmpControlOutputFault", ["2"],
     "Control Output 2 does not follow its command (failSet)"),
    ("6602", leaf("config/os_ip/eth_switch/port[port_id='Eth1']/monitored", "true", "false"),
     "KvsnmpEthSupervisionOff", ["1"],
     "Eth 1 is no longer supervised"),
    ("6211", words("gpio", "relay1", "0", "unreadable"), "KvsnmpRelayFault", ["1"], "Internal Relay 1 is unknown"),
    *[(STATION, words("gpio", f"e_relay{number}", "0", "unreadable"), "KvsnmpRelayFault", [str(number + 4)], "is unknown")
      for number in range(1, 9)],
]]
RESTART_FAULTS: set[Alert] = {  # those of kvsnmp or snmpd itself, see begin_restarts()
    ("KvsnmpNothingMeasured", "6425", ""), ("KvsnmpAmpChannelUnknown", "6425", "1"),
    ("KvsnmpAmpChannelUnknown", "6425", "2"), ("KvsnmpSubagentGone", "6913", ""), ("KvsnmpDeviceUnreachable", "6914", "")}
EXPECTED: set[Alert] = RESTART_FAULTS | {(alert, fault.device, index) for fault in FAULTS
                                         for alert, indices in fault.fires.items() for index in indices}


def begin_restarts(site: Site) -> str:
    """One kvsnmp is started again without voltages and with silent channels, one is ended, one is ended together with
    snmpd.
    Returns the deleted voltages."""
    voltages = site.devices["6425"].talctl("get", "/state/power_lines").strip()
    site.devices["6425"].talctl("delete", "/state/power_lines")
    site.apply("6425", [["monitor", "amp", channel, "0"] for channel in "01"])  # which a daemon ignores
    for name in RESTARTED:
        site.devices[name].end_kvsnmp()
    site.start_kvsnmp("6425")
    gone = site.devices["6914"]
    for pid in gone.pids("snmpd"):
        gone.run(["kill", str(pid)])
    return voltages


def end_restarts(site: Site, voltages: str) -> None:
    for name in ("6913", "6914"):
        site.start_kvsnmp(name)
    site.devices["6425"].talctl("create", "/state/power_lines", voltages)
    site.apply("6425", [["monitor", "amp", channel, "2"] for channel in "01"])


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
        site.expire_tables()
        page = site.page("classic/alerts")
        return all(shows(page, alert, counts[alert]) for alert in alerts())

    wait_until(look, 120, 1.0, "the alerts on Prometheus' page")
    return page


@pytest.fixture(scope="module")
def history(site) -> History:
    """Fresh from the simulator, with all faults, without faults again."""
    before, begin = site.wait_for_alerts(set(), 90), time.monotonic() - 5
    voltages = begin_restarts(site)
    for name in dict.fromkeys(fault.device for fault in FAULTS):
        site.apply(name, [command for fault in FAULTS if fault.device == name for command in fault.begin])
    during = site.wait_for_alerts(EXPECTED, 120)
    page = page_of(site, EXPECTED)
    for name in dict.fromkeys(fault.device for fault in FAULTS):
        site.apply(name, [command for fault in FAULTS if fault.device == name for command in fault.end])
    end_restarts(site, voltages)
    after = site.wait_for_alerts(set(), 120)
    return History(before, during, after, page, page_of(site, set()), begin)


def test_every_alert_is_provoked():
    assert {alert for alert, _, _ in EXPECTED} == set(alerts())


@pytest.mark.parametrize("alert", sorted(alerts()))
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
        for alert, index in [(alert, index) for alert, indices in fault.fires.items() for index in indices]:
            summary = history.during[alert, fault.device, index]["annotations"]["summary"]
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
    page = site.page(path)
    assert 'description="Left Fan"' in page and 'alertstate="firing"' in page, "in the legends of the two graphs"
    one = site.picture(path, "prometheus-alert-history.png", 1600)
    table = graph(f'kvsnmp_voltage_value_volts{{instance="{site.addresses["6420"]}"}}')
    assert "Phantom Microphone 12.0V" in site.page(table)
    two = site.picture(table, "prometheus-voltages.png", 850)
    for file in (one, two):
        head = file.read_bytes()[:24]
        assert head[:8] == b"\x89PNG\r\n\x1a\n" and file.stat().st_size > 20000, file
        width, height = struct.unpack(">II", head[16:24])
        assert width == 1200 and height >= 850, file


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
    device, version = site.devices["6420"], "/state/lines/line[kid='ch1']/lets/let[kid='1']/sw_version"
    name = "/state/config/snmp_settings/mib_2_settings/sys_name"
    target = f"http://{EXPORTER}/snmp?module=kvsnmp&target={site.addresses['6420']}"
    site.apply("6420", [["set", name, "Bühne Süd"]])
    wait_until(lambda: 'sys_name="Bühne Süd"' in (fetch(target) or ""), 30, 0.5, "system name")
    site.apply("6420", [["set", version, "ü1"]])
    wait_until(lambda: fetch(target) is None, 30, 0.5, "the whole answer refused")
    site.apply("6420", [["set", version, "1.1.0"]])
    wait_until(lambda: 'sys_name="Bühne Süd"' in (fetch(target) or ""), 30, 0.5, "answers again")
    device.talctl("set", name, "pa-device")
