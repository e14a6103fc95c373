"""The rules in promtool: checked, and each alert evaluated minute by minute on made-up series."""
from __future__ import annotations

import re
from typing import NamedTuple

import pytest
from prometheus_files import alerts, evaluate, states, walks
from series import expected_series
from support.walkagent import WalkAgent

DEVICE = {"job": "kvsnmp", "instance": "hall"}
FAULT, END, LAST = 10, 60, 70  # minutes at which a fault begins and ends, and the end of a test


# Series


def series(name: str, labels: dict[str, str], values: str) -> dict[str, str]:
    text = ", ".join(f'{key}="{value}"' for key, value in (DEVICE | labels).items())
    return {"series": f"{name}{{{text}}}", "values": values}


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


class Case(NamedTuple):
    alert: str
    series: list[dict[str, str]]
    labels: dict[str, str] | None  # of the alert, beside job, instance and severity; None: it must not fire
    what: str = ""


ROW = {"index": "1", "description": "Row"}
VOLTAGE = {"index": "3", "description": "Internal voltage 3.3V"}
OTHER_VOLTAGE = gauge("kvsnmp_voltage_value_volts", 24.1, index="7", description="Internal voltage 24.0V")


def temps(current: float, bad_current: float, average: float = 40, peak: float = 90, bad_peak: float | None = None):
    labels = {"index": "1", "description": "Temperature Sensor: Channel 1"}
    return (gauge("kvsnmp_temp_current_celsius", current, bad_current, label="Current Temperature", **labels)
            + gauge("kvsnmp_temp_average_celsius", average, label="Average Temperature", **labels)
            + gauge("kvsnmp_temp_peak_celsius", peak, bad_peak, label="Peak Temperature", **labels))


SENSOR = {"index": "1", "description": "Temperature Sensor: Channel 1"}
CURRENT = SENSOR | {"label": "Current Temperature"}


def volts(value: float, good: float = 3.3) -> list[dict[str, str]]:
    return gauge("kvsnmp_voltage_value_volts", good, value, **VOLTAGE) + OTHER_VOLTAGE


def word_cases(alert: str, metric: str, obj: str, good: str, bad: list[str], *more: dict[str, str], **labels) -> list[Case]:
    """The alert fires for each of the words, and for none of the others."""
    row = ROW | labels
    fires = [Case(alert, state(metric, good, word, **ROW) + list(more), row | {"object": obj, "state": word}, word)
             for word in bad]
    calm = [Case(alert, state(metric, good, word, **ROW) + list(more), None, word)
            for word in sorted(states()[metric] - set(bad))]
    return fires + calm


MONITORED = state("kvsnmp_line_in_monitoring", "monitored", **ROW)
LINE_FAULTS = ["shorted", "open", "loadChange", "groundFault", "interrupted", "lineFault"]
CHANNEL = {"index": "2", "description": "Channel 2"}
LET = {"index": "4", "description": "LET 4 Channel 2"}

CASES = [
    Case("KvsnmpDeviceUnreachable", [series("up", {}, passing(1, 0))], {}),
    Case("KvsnmpDeviceUnreachable", [series("up", {"job": "other"}, passing(1, 0))], None, "another job"),
    Case("KvsnmpSubagentGone", [series("kvsnmp_sys_up_time_centiseconds", {}, steady(5)),
                                series("kvsnmp_info_model_number", {"sys_name": "a"}, passing(6420, "stale"))], {}),
    Case("KvsnmpSubagentGone", [series("kvsnmp_sys_up_time_centiseconds", {}, passing(5, "stale")),
                                series("kvsnmp_info_model_number", {}, passing(6420, "stale"))], None, "all gone"),
    Case("KvsnmpNothingMeasured", gauge("kvsnmp_voltage_value_volts", 3.3, 0, **VOLTAGE), {}),
    Case("KvsnmpNothingMeasured", volts(0), None, "one of two"),
    Case("KvsnmpTempHigh", temps(50, 70.1), CURRENT),
    Case("KvsnmpTempHigh", temps(50, 70), None, "at the limit"),
    Case("KvsnmpTempHigh", temps(50, 85.1), None, "critical instead"),
    Case("KvsnmpTempCritical", temps(50, 85.1), CURRENT),
    Case("KvsnmpTempCritical", temps(50, 85), None, "at the limit"),
    Case("KvsnmpTempRise", temps(50, 60.5), SENSOR),
    Case("KvsnmpTempRise", temps(50, 60), None, "at the limit"),
    Case("KvsnmpTempSensorSilent", temps(50, 0, 0, 60, 0) + OTHER_VOLTAGE, SENSOR),
    Case("KvsnmpTempSensorSilent", temps(50, 0, 0, 60) + OTHER_VOLTAGE, None, "0 degrees, but warmer before"),
    Case("KvsnmpTempSensorSilent", temps(50, 0, 0, 60, 0) + gauge("kvsnmp_voltage_value_volts", 0, **VOLTAGE), None,
         "nothing measured at all"),
    Case("KvsnmpFanStopped", gauge("kvsnmp_fan_speed_rpm", 1400, 0, **ROW) + OTHER_VOLTAGE, ROW),
    Case("KvsnmpFanStopped", gauge("kvsnmp_fan_speed_rpm", 1400, 1, **ROW) + OTHER_VOLTAGE, None, "slow"),
    Case("KvsnmpFanStopped", gauge("kvsnmp_fan_speed_rpm", 1400, 0, **ROW)
         + gauge("kvsnmp_voltage_value_volts", 0, **VOLTAGE), None, "nothing measured at all"),
    Case("KvsnmpVoltageDrift", volts(3.1), VOLTAGE, "low"), Case("KvsnmpVoltageDrift", volts(3.5), VOLTAGE, "high"),
    Case("KvsnmpVoltageDrift", volts(3.4), None, "within"), Case("KvsnmpVoltageDrift", volts(3.7), None, "critical instead"),
    Case("KvsnmpVoltageOutOfWindow", volts(2.9), VOLTAGE, "low"), Case("KvsnmpVoltageOutOfWindow", volts(3.7), VOLTAGE, "high"),
    Case("KvsnmpVoltageOutOfWindow", volts(3.5), None, "drift"), Case("KvsnmpVoltageOutOfWindow", volts(0), None, "zero"),
    Case("KvsnmpVoltageZero", volts(0), VOLTAGE), Case("KvsnmpVoltageZero", volts(0.001), None, "nearly"),
    *word_cases("KvsnmpPowerSourceDown", "kvsnmp_power_live", "powerLive", "live", ["notLive"],
                *state("kvsnmp_power_monitored", "monitored", **ROW)),
    Case("KvsnmpPowerSourceDown", state("kvsnmp_power_live", "live", "notLive", **ROW)
         + state("kvsnmp_power_monitored", "notMonitored", **ROW), None, "not monitored"),
    *word_cases("KvsnmpLineInFailed", "kvsnmp_line_in_status", "lineInStatus", "ok", ["failed"], *MONITORED),
    Case("KvsnmpLineInFailed", state("kvsnmp_line_in_status", "ok", "failed", **ROW)
         + state("kvsnmp_line_in_monitoring", "notMonitored", **ROW), None, "not monitored"),
    *word_cases("KvsnmpMicrophoneFault", "kvsnmp_line_in_mic_status", "lineInMicStatus", "connected",
                ["disconnected", "shorted"], *MONITORED),
    *word_cases("KvsnmpAmpChannelFault", "kvsnmp_amp_channel_status", "ampChannelStatus", "ok",
                ["classDFault", "monitorFault"]),
    *word_cases("KvsnmpAmpChannelDisabled", "kvsnmp_amp_channel_status", "ampChannelStatus", "ok", ["disabled"]),
    *word_cases("KvsnmpAmpChannelUnknown", "kvsnmp_amp_channel_status", "ampChannelStatus", "ok", ["unknown"],
                *gauge("kvsnmp_amp_channel_count", 2)),
    Case("KvsnmpAmpChannelUnknown", state("kvsnmp_amp_channel_status", "unknown", **ROW)
         + gauge("kvsnmp_amp_channel_count", 1), None, "single output"),
    *word_cases("KvsnmpSpeakerLineFault", "kvsnmp_amp_channel_line_state", "ampChannelLineState", "ok", LINE_FAULTS),
    *word_cases("KvsnmpSpeakerLineNotFed", "kvsnmp_amp_channel_line_state", "ampChannelLineState", "ok",
                ["shutdown", "voltageLow"]),
    *word_cases("KvsnmpSpeakerLineUnclear", "kvsnmp_amp_channel_line_state", "ampChannelLineState", "ok",
                ["indecisive", "failedTimeout", "failedReceiveMonitorValues"]),
    *[Case("KvsnmpLetMissing", state("kvsnmp_let_channel2_status", "present", word, **LET)
           + state("kvsnmp_amp_channel_status", "ok", **CHANNEL),
           LET | {"object": "letChannel2Status", "channel": "2", "state": word} if word == "missing" else None, word)
      for word in sorted(states()["kvsnmp_let_channel2_status"])],
    Case("KvsnmpLetMissing", state("kvsnmp_let_channel1_status", "present", "missing", **LET)
         + state("kvsnmp_amp_channel_status", "ok", **CHANNEL), None, "the other channel is in operation"),
    Case("KvsnmpLetMissing", state("kvsnmp_let_channel2_status", "present", "missing", **LET)
         + state("kvsnmp_amp_channel_status", "monitorFault", **CHANNEL), None, "channel out of order"),
    *word_cases("KvsnmpControlInputFault", "kvsnmp_control_input_status", "controlInputStatus", "open",
                ["shorted", "unconnected"]),
    *word_cases("KvsnmpControlOutputFault", "kvsnmp_control_output_state", "controlOutputState", "set",
                ["failCleared", "failSet"]),
    *word_cases("KvsnmpEthSupervisionOff", "kvsnmp_eth_monitoring_monitored", "ethMonitoringMonitored", "monitored",
                ["notMonitored"]),
    Case("KvsnmpEthSupervisionOff", state("kvsnmp_eth_monitoring_monitored", "notMonitored", **ROW), None,
         "never supervised"),
    *word_cases("KvsnmpRelayFault", "kvsnmp_relay_status", "relayStatus", "low", ["failed", "unknown"]),
]


def test_every_alert_has_a_case_that_fires_and_one_that_does_not():
    for name in alerts():
        assert {case.labels is None for case in CASES if case.alert == name} == {True, False}, name
    assert {case.alert for case in CASES} == set(alerts())


def test_series_have_the_labels_that_the_exporter_makes():
    made = {(name, frozenset(dict(labels))) for walk in walks.NAMES
            for name, labels in expected_series(WalkAgent(walk, "").variables)}
    for entry in (entry for case in CASES for entry in case.series if entry["series"].startswith("kvsnmp_")):
        name, _, labels = entry["series"].partition("{")
        keys = frozenset(re.findall(r'(\w+)="', labels)) - frozenset(DEVICE)
        assert (name, keys) in made or name in ("kvsnmp_sys_up_time_centiseconds", "kvsnmp_info_model_number"), entry


def expectation(case: Case, minute: int, fires: bool) -> dict:
    rule, labels = alerts()[case.alert], DEVICE | (case.labels or {})
    expected = []
    if fires:
        facts = {"exp_labels": labels | rule["labels"]}
        texts = {key: re.sub(r"\{\{ \$labels\.(\w+) \}\}", lambda match: labels[match[1]], text)
                 for key, text in rule["annotations"].items()}
        facts["exp_annotations"] = texts | {"summary": summary_with_value(case, texts["summary"], minute)}
        expected.append(facts)
    return {"eval_time": f"{minute}m", "alertname": case.alert, "exp_alerts": expected}


def summary_with_value(case: Case, text: str, minute: int) -> str:
    """With the alert's value during the fault, which an alert that is kept retains."""
    if "$value" not in text:
        return text
    minute = min(minute, END - 1)
    values = {entry["series"].partition("{")[0]: entry["values"].split() for entry in case.series
              if not entry["series"].startswith("kvsnmp_voltage_value_volts") or "3.3V" in entry["series"]}
    if "humanizePercentage" in text:
        ratio = abs(float(values["kvsnmp_voltage_value_volts"][minute]) / 3.3 - 1)
        return text.replace("{{ $value | humanizePercentage }}", f"{ratio * 100:.4g}%")
    degrees = float(values["kvsnmp_temp_current_celsius"][minute])
    if case.alert == "KvsnmpTempRise":
        degrees -= 40
    return text.replace('{{ $value | printf "%.1f" }}', f"{degrees:.1f}")


@pytest.mark.parametrize("alert", sorted(alerts()))
def test_alert(tmp_path, alert):
    """Pending for its time, then firing with its labels and texts until the fault has ended and the time for which it is
    kept is over; never in the other cases."""
    wait = int(alerts()[alert]["for"].removesuffix("m"))
    over = END + int(alerts()[alert].get("keep_firing_for", "0m").removesuffix("m"))
    tests = []
    for case in (case for case in CASES if case.alert == alert):
        fires = case.labels is not None
        moments = [(FAULT - 1, False), (FAULT + wait - 1, False), (FAULT + wait, fires), (over - 1, fires), (over, False),
                   (LAST, False)]
        tests.append({"name": f"{alert} {case.what}", "interval": "1m", "input_series": case.series,
                      "alert_rule_test": [expectation(case, *moment) for moment in moments]})
    evaluate(tmp_path, tests)


def test_no_alert_on_a_healthy_device(tmp_path):
    """The metrics of each golden walk; the first line input of the 6410 has no pilot tone there. Each voltage has its
    nominal one."""
    assert all(int(rule["for"].removesuffix("m")) < LAST for rule in alerts().values())
    tests = []
    for name in walks.NAMES:
        found = expected_series(WalkAgent(name, "").variables)
        found |= {("up", frozenset()): 1, ("kvsnmp_sys_up_time_centiseconds", frozenset()): 100}
        nominal = [{"labels": series("kvsnmp:voltage_nominal_volts", dict(labels), "")["series"],
                    "value": abs(float(dict(labels)["description"].rpartition(" ")[2].removesuffix("V")))}
                   for metric, labels in found if metric == "kvsnmp_voltage_value_volts"]
        tests.append({"name": name, "interval": "1m", "promql_expr_test": [
            {"expr": "kvsnmp:voltage_nominal_volts", "eval_time": f"{LAST}m", "exp_samples": nominal}], "alert_rule_test": [
            {"eval_time": f"{LAST}m", "alertname": alert, "exp_alerts": []} for alert in alerts()
            if (name, alert) != ("6410", "KvsnmpLineInFailed")],
            "input_series": [series(metric, dict(labels), steady(value)) for (metric, labels), value in found.items()]})
    evaluate(tmp_path, tests)


def test_a_device_that_vanishes_keeps_its_alerts_until_it_is_reported(tmp_path):
    """Otherwise their end would be reported first."""
    vanished = [series("up", {}, passing(1, 0)), series("kvsnmp_fan_speed_rpm", ROW, passing(0, "stale")),
                series("kvsnmp_voltage_value_volts", VOLTAGE, passing(24.1, "stale"))]

    def firing(name: str, labels: dict[str, str]) -> dict:
        return expectation(Case(name, [], labels), 0, True)["exp_alerts"][0]

    fan, device = firing("KvsnmpFanStopped", ROW), firing("KvsnmpDeviceUnreachable", {})
    reported = FAULT + int(alerts()["KvsnmpDeviceUnreachable"]["for"].removesuffix("m"))
    evaluate(tmp_path, [{"interval": "1m", "input_series": vanished, "alert_rule_test": [
        {"eval_time": f"{minute}m", "alertname": name, "exp_alerts": expected}
        for minute, fans, devices in [(FAULT - 1, [fan], []), (reported - 1, [fan], []), (reported, [fan], [device]),
                                      (reported + 1, [fan], [device]), (END - 1, [], [device])]
        for name, expected in [("KvsnmpFanStopped", fans), ("KvsnmpDeviceUnreachable", devices)]]}])
