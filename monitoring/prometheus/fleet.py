"""The dashboard of all devices: one row for each."""
from __future__ import annotations

from dashboard import DEVICE, FLEET, Column, Panel, Query, text, values_shown
from states import CRITICAL, GOOD, LEVELS, WARNING, steps, worst_query

FIRING_ONES = 'alertname=~"Kvsnmp.+", alertstate="firing"'
FIRING, CRITICAL_ONES = f"ALERTS{{{FIRING_ONES}}}", f'ALERTS{{{FIRING_ONES}, severity="critical"}}'
UP = 'sum by (instance) (up{job="kvsnmp"})'
# 0: no answer, 1: snmpd alone, 2: also kvsnmp
REACHED = f"{UP} + on (instance) count by (instance) (kvsnmp_info_model_number) or {UP}"
REACHED_WORDS = values_shown({0: ("unreachable", CRITICAL), 1: ("only snmpd", CRITICAL), 2: ("answers", GOOD[0])})
LINK = f"/d/{DEVICE}?var-instance=${{__value.raw}}&var-datasource=${{datasource}}&${{__url_time_range}}"

BAD = [{"value": None, "color": GOOD[0]}, {"value": 1, "color": CRITICAL}]
ALERTS = [{"value": None, "color": GOOD[0]}, {"value": 1, "color": WARNING}]


def extreme(function: str, value: str, measured: str, label: str) -> str:
    """The row of each device with the highest or lowest value; the label names the row, because all share a table."""
    chosen = f"{measured} and {function} by (instance) (1, {value})"
    return f'max by (instance, {label}) (label_replace({chosen}, "{label}", "$1", "description", "(.+)"))'


DEVIATION, HEAT, FAN = "kvsnmp:voltage_deviation_ratio", "kvsnmp_temp_current_celsius", "kvsnmp_fan_speed_rpm"

# The queries are A, B, C ... in this order; the columns name them so.
DEVICES = Panel("table", "Devices", [
    Query(REACHED),
    Query("max by (instance, sys_name, sys_location, model_type) (kvsnmp_info_model_number)"),
    Query(worst_query()),
    Query(extreme("topk", f"abs({DEVIATION})", DEVIATION, "voltage")),
    Query(extreme("topk", HEAT, HEAT, "sensor")),
    Query(extreme("bottomk", FAN, FAN, "fan")),
    Query(f"count by (instance) ({FIRING}) or {UP} * 0"),
], width=24, height=22, columns=[
    Column("instance", "Device", link=LINK),
    Column("sys_name", "Name"), Column("sys_location", "Location"), Column("model_type", "Type"),
    Column("Value #B", "Model", width=70),
    Column("Value #A", "Answer", mappings=REACHED_WORDS, width=110),
    Column("Value #C", "State", mappings=LEVELS, width=90), Column("worst", "Worst state"),
    Column("Value #D", "Voltage off", "percentunit", steps("voltageValue", 0.01), width=95),
    Column("voltage", "Worst voltage"),
    Column("Value #E", "Hottest", "celsius", steps("tempCurrent"), width=80), Column("sensor", "Hottest sensor"),
    Column("Value #F", "Slowest", "rotrpm", steps("fanSpeed"), width=90), Column("fan", "Slowest fan"),
    Column("Value #G", "Alerts", steps=ALERTS, width=70),
], sort="Answer", hint="A click on a device opens its dashboard. A model without voltages, sensors or fans has empty cells.")

PANELS = [
    Panel("stat", "All devices", [Query('count(up{job="kvsnmp"})')], width=6, height=4),
    Panel("stat", "Unreachable", [Query('count(up{job="kvsnmp"} == 0) or vector(0)')], width=6, height=4, steps=BAD),
    Panel("stat", "Devices with a critical alert", [
        Query(f"count(count by (instance) ({CRITICAL_ONES})) or vector(0)")],
        width=6, height=4, steps=BAD),
    Panel("stat", "Firing alerts", [Query(f"count({FIRING}) or vector(0)")], width=6, height=4, steps=ALERTS),
    DEVICES,
    Panel("table", "Alerts", [Query(f"max by (instance, severity, alertname, description, state) ({FIRING})")],
          width=24, height=10, columns=[
              Column("instance", "Device", link=LINK), Column("severity", "Severity"), Column("alertname", "Alert"),
              Column("description", "Row"), Column("state", "State")], sort="Severity", empty="No alert"),
]


def dashboard(made_by: str) -> str:
    return text(made_by, FLEET, "kvsnmp: all devices", PANELS, [])
