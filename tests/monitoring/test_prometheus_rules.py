"""The rules in promtool: each alert evaluated minute by minute on made-up series of many devices."""
from __future__ import annotations

import re
from typing import NamedTuple

from prometheus_files import alerts, evaluate, states, walks
from series import Series, expected_series
from support.walkagent import WalkAgent

FAULT, END, LAST = 10, 60, 70  # minutes at which a fault begins and ends, and the end of a test


# Series


def series(name: str, labels: dict[str, str], values: str) -> dict[str, str]:
    text = ", ".join(f'{key}="{value}"' for key, value in ({"job": "kvsnmp", "instance": "hall"} | labels).items())
    return {"series": f"{name}{{{text}}}", "values": values}


def at(instance: str, entries: list[dict[str, str]]) -> list[dict[str, str]]:
    """The same of another device."""
    return [entry | {"series": entry["series"].replace('instance="hall"', f'instance="{instance}"')} for entry in entries]


def steady(value: float) -> str:
    return f"{value}x{LAST}"


def passing(good: float | str, bad: float | str) -> str:
    """The bad value from minute FAULT until before END; "stale" ends the series."""
    return " ".join([str(good)] * FAULT + [str(bad)] * (END - FAULT) + [str(good)] * (LAST - END + 1))


def gauge(name: str, good: float, bad: float | None = None, **labels: str) -> list[dict[str, str]]:
    return [series(name, labels, steady(good) if bad is None else passing(good, bad))]


def state(name: str, good: str, bad: str = "", **labels: str) -> list[dict[str, str]]:
    """One series for each word, as the exporter makes them."""
    bad = bad or good
    assert {good, bad} <= states()[name], (name, good, bad)
    return [series(name, labels | {name: word}, passing(int(word == good), int(word == bad))) for word in states()[name]]


ROW = {"index": "1", "description": "Row"}
VOLTAGE = {"index": "3", "description": "Internal voltage 3.3V"}
SENSOR = {"index": "1", "description": "Temperature Sensor: Channel 1"}
CURRENT = SENSOR | {"label": "Current Temperature"}
CHANNEL = {"index": "2", "description": "Channel 2"}
LET = {"index": "4", "description": "LET 4 Channel 2"}


def temps(current: float, bad_current: float, average: float = 66, peak: float = 90, bad_peak: float | None = None):
    return (gauge("kvsnmp_temp_current_celsius", current, bad_current, **CURRENT)
            + gauge("kvsnmp_temp_average_celsius", average, label="Average Temperature", **SENSOR)
            + gauge("kvsnmp_temp_peak_celsius", peak, bad_peak, label="Peak Temperature", **SENSOR))


def volts(bad: float | None, other: float = 24.1) -> list[dict[str, str]]:
    return (gauge("kvsnmp_voltage_value_volts", 3.3, bad, **VOLTAGE)
            + gauge("kvsnmp_voltage_value_volts", 24.1, other, index="7", description="Internal voltage 24.0V"))


def fan(speed: float) -> list[dict[str, str]]:
    return gauge("kvsnmp_fan_speed_rpm", 1400, speed, **ROW)


# Devices


class Device(NamedTuple):
    name: str
    series: list[dict[str, str]]
    alerts: dict[str, dict[str, str]] = {}  # all that fire, with their labels, and their value as the summary has it


def words(metric: str, good: str, faults: dict[str, str], *more: dict[str, str], row=ROW, **labels: str) -> list[Device]:
    """A device for each of the words; the alerts fire for theirs."""
    return [Device(f"{metric} {word}", [*state(metric, good, word, **row), *more], {
        alert: row | labels | {"object": object_of(metric), "state": word}
        for alert, faulty in faults.items() if word in faulty.split()}) for word in sorted(states()[metric])]


def object_of(metric: str) -> str:
    return re.sub(r"_(\w)", lambda match: match[1].upper(), metric.removeprefix("kvsnmp_"))


LINES_MONITORED = state("kvsnmp_line_in_monitoring", "monitored", **ROW)
CHANNEL_OK = state("kvsnmp_amp_channel_status", "ok", **CHANNEL)

DEVICES = [
    Device("unreachable", [series("up", {}, passing(1, 0))], {"KvsnmpDeviceUnreachable": {}}),
    Device("another job", [series("up", {"job": "other"}, passing(1, 0))]),
    Device("kvsnmp gone", [series("kvsnmp_sys_up_time_centiseconds", {}, steady(5)),
                           series("kvsnmp_info_model_number", {"sys_name": "a"}, passing(6420, "stale"))],
           {"KvsnmpSubagentGone": {}}),
    Device("all gone", [series("kvsnmp_sys_up_time_centiseconds", {}, passing(5, "stale")),
                        series("kvsnmp_info_model_number", {"sys_name": "a"}, passing(6420, "stale"))]),
    Device("nothing measured", temps(50, 0, 40, 60, 0) + fan(0) + volts(0, 0), {"KvsnmpNothingMeasured": {}}),
    Device("70 degrees", temps(50, 70)),
    Device("70.1 degrees", temps(50, 70.1), {"KvsnmpTempHigh": CURRENT | {"value": "70.1"}}),
    Device("85 degrees", temps(50, 85), {"KvsnmpTempHigh": CURRENT | {"value": "85.0"}}),
    Device("85.1 degrees", temps(50, 85.1), {"KvsnmpTempCritical": CURRENT | {"value": "85.1"}}),
    Device("20 degrees above the average", temps(50, 60, 40)),
    Device("20.5 degrees above the average", temps(50, 60.5, 40), {"KvsnmpTempRise": SENSOR | {"value": "20.5"}}),
    Device("0 degrees", temps(50, 0, 40, 60, 0) + volts(3.3), {"KvsnmpTempSensorSilent": SENSOR}),
    Device("0 degrees, but warmer before", temps(50, 0, 40, 60) + volts(3.3)),
    Device("fan stands still", fan(0) + volts(3.3), {"KvsnmpFanStopped": ROW}),
    Device("slow fan", fan(1) + volts(3.3)),
    Device("3.4 V", volts(3.4)),
    Device("3.1 V", volts(3.1), {"KvsnmpVoltageDrift": VOLTAGE | {"value": "6.061%"}}),
    Device("3.5 V", volts(3.5), {"KvsnmpVoltageDrift": VOLTAGE | {"value": "6.061%"}}),
    Device("2.9 V", volts(2.9), {"KvsnmpVoltageOutOfWindow": VOLTAGE | {"value": "12.12%"}}),
    Device("3.7 V", volts(3.7), {"KvsnmpVoltageOutOfWindow": VOLTAGE | {"value": "12.12%"}}),
    Device("0.001 V", volts(0.001), {"KvsnmpVoltageOutOfWindow": VOLTAGE | {"value": "99.97%"}}),
    Device("0 V", volts(0), {"KvsnmpVoltageZero": VOLTAGE}),
    *words("kvsnmp_power_live", "live", {"KvsnmpPowerSourceDown": "notLive"},
           *state("kvsnmp_power_monitored", "monitored", **ROW)),
    Device("power source not monitored", state("kvsnmp_power_live", "live", "notLive", **ROW)
           + state("kvsnmp_power_monitored", "notMonitored", **ROW)),
    *words("kvsnmp_line_in_status", "ok", {"KvsnmpLineInFailed": "failed"}, *LINES_MONITORED),
    *words("kvsnmp_line_in_mic_status", "connected", {"KvsnmpMicrophoneFault": "disconnected shorted"}, *LINES_MONITORED),
    Device("line not monitored", state("kvsnmp_line_in_status", "ok", "failed", **ROW)
           + state("kvsnmp_line_in_mic_status", "connected", "shorted", **ROW)
           + state("kvsnmp_line_in_monitoring", "notMonitored", **ROW)),
    *words("kvsnmp_amp_channel_status", "ok", {
        "KvsnmpAmpChannelFault": "classDFault monitorFault", "KvsnmpAmpChannelDisabled": "disabled",
        "KvsnmpAmpChannelUnknown": "unknown"}, *gauge("kvsnmp_amp_channel_count", 2)),
    Device("single output", state("kvsnmp_amp_channel_status", "ok", "unknown", **ROW) + gauge("kvsnmp_amp_channel_count", 1)),
    *words("kvsnmp_amp_channel_line_state", "ok", {
        "KvsnmpSpeakerLineFault": "shorted open loadChange groundFault interrupted lineFault",
        "KvsnmpSpeakerLineNotFed": "shutdown voltageLow",
        "KvsnmpSpeakerLineUnclear": "indecisive failedTimeout failedReceiveMonitorValues"}),
    *words("kvsnmp_let_channel2_status", "present", {"KvsnmpLetMissing": "missing"}, *CHANNEL_OK, row=LET, channel="2"),
    Device("the other channel is in operation", state("kvsnmp_let_channel1_status", "present", "missing", **LET) + CHANNEL_OK),
    Device("channel out of order", state("kvsnmp_let_channel2_status", "present", "missing", **LET)
           + state("kvsnmp_amp_channel_status", "ok", "monitorFault", **CHANNEL), {
               "KvsnmpAmpChannelFault": CHANNEL | {"object": "ampChannelStatus", "state": "monitorFault"}}),
    *words("kvsnmp_control_input_status", "open", {"KvsnmpControlInputFault": "shorted unconnected"}),
    *words("kvsnmp_control_output_state", "set", {"KvsnmpControlOutputFault": "failCleared failSet"}),
    *words("kvsnmp_eth_monitoring_monitored", "monitored", {"KvsnmpEthSupervisionOff": "notMonitored"}),
    Device("never supervised", state("kvsnmp_eth_monitoring_monitored", "notMonitored", **ROW)),
    *words("kvsnmp_relay_status", "low", {"KvsnmpRelayFault": "failed unknown"}),
]


def scraped(walk: str, **changed: str) -> Series:
    """Of a healthy device."""
    beside = {("up", frozenset()): 1, ("kvsnmp_sys_up_time_centiseconds", frozenset()): 100}
    return expected_series(WalkAgent(walk, "", changed).variables) | beside


def all_steady(found: Series) -> list[dict[str, str]]:
    return [series(metric, dict(labels), steady(value)) for (metric, labels), value in found.items()]


def firing(alert: str, device: str, labels: dict[str, str]) -> dict:
    labels = {"job": "kvsnmp", "instance": device} | labels
    texts = {key: re.sub(r"\{\{ \$(?:labels\.)?(\w+)[^}]*\}\}", lambda match: labels[match[1]], text)
             for key, text in alerts()[alert]["annotations"].items()}
    labels.pop("value", "")
    return {"exp_labels": labels | alerts()[alert]["labels"], "exp_annotations": texts}


def minutes(alert: str, time: str) -> int:
    return int(alerts()[alert].get(time, "0m").removesuffix("m"))


def test_these_alerts_fire_and_no_other(tmp_path):
    """Pending for its time, then firing with its labels and texts until the fault has ended and the time for which it is
    kept is over. None on a healthy device of any model, where each voltage has its nominal one."""
    assert {alert for device in DEVICES for alert in device.alerts} == set(alerts())
    walked, tests = [Device(name, all_steady(scraped(name))) for name in walks.NAMES], []
    for alert in alerts():
        assert minutes(alert, "for") < END - FAULT
        all_of_it = [firing(alert, name, labels[alert]) for name, _, labels in DEVICES if alert in labels]
        begin, over = FAULT + minutes(alert, "for"), END + minutes(alert, "keep_firing_for")
        tests += [{"eval_time": f"{minute}m", "alertname": alert, "exp_alerts": all_of_it if begin <= minute < over else []}
                  for minute in (FAULT - 1, begin - 1, begin, over - 1, over, LAST)]
    nominal = [{"labels": entry["series"].replace("kvsnmp_voltage_value_volts", "kvsnmp:voltage_nominal_volts"),
                "value": float(re.search(r'([\d.]+)V"', entry["series"])[1])}
               for device in walked for entry in at(*device[:2]) if entry["series"].startswith("kvsnmp_voltage_value_volts")]
    evaluate(tmp_path, [{"interval": "1m", "alert_rule_test": tests, "promql_expr_test": [{
        "expr": 'kvsnmp:voltage_nominal_volts{instance=~"[0-9]{4}.*"}', "eval_time": f"{LAST}m", "exp_samples": nominal}],
        "input_series": [entry for device in DEVICES + walked for entry in at(*device[:2])]}])


def test_series_have_the_labels_that_the_exporter_makes():
    made = {(name, frozenset(dict(labels))) for walk in walks.NAMES
            for name, labels in expected_series(WalkAgent(walk, "").variables)}
    for entry in (entry for device in DEVICES for entry in device.series if entry["series"].startswith("kvsnmp_")):
        name, _, labels = entry["series"].partition("{")
        keys = frozenset(re.findall(r'(\w+)="', labels)) - {"job", "instance"}
        assert (name, keys) in made or name in ("kvsnmp_sys_up_time_centiseconds", "kvsnmp_info_model_number"), entry


def test_a_device_that_vanishes_keeps_its_alerts_until_it_is_reported(tmp_path):
    """Otherwise their end would be reported first."""
    vanished = [series("up", {}, passing(1, 0)), series("kvsnmp_fan_speed_rpm", ROW, passing(0, "stale")),
                series("kvsnmp_voltage_value_volts", VOLTAGE, passing(24.1, "stale"))]
    fan, device = firing("KvsnmpFanStopped", "hall", ROW), firing("KvsnmpDeviceUnreachable", "hall", {})
    reported = FAULT + minutes("KvsnmpDeviceUnreachable", "for")
    evaluate(tmp_path, [{"interval": "1m", "input_series": vanished, "alert_rule_test": [
        {"eval_time": f"{minute}m", "alertname": name, "exp_alerts": expected}
        for minute, fans, devices in [(FAULT - 1, [fan], []), (reported - 1, [fan], []), (reported, [fan], [device]),
                                      (reported + 1, [fan], [device]), (END - 1, [], [device])]
        for name, expected in [("KvsnmpFanStopped", fans), ("KvsnmpDeviceUnreachable", devices)]]}])
