"""The dashboard of one device: its measurements as graphs, its states as timelines."""
from __future__ import annotations

from typing import Any

from dashboard import DEVICE, SOURCE, Column, Panel, Query, text, values_shown
from mib import Object
from states import CRITICAL, code_query, mappings, steps

HERE = 'instance="$instance"'
NONE = "This model has none, or the device does not answer"
ROW = "{{description}}"
IDENTITY = {"sys_name": "Name", "sys_location": "Location", "model_type": "Type", "package_version": "Package",
            "kernel_version": "Kernel", "device_tree_version": "Device tree", "amplifier_type": "Amplifier"}

# The objects of each timeline have the same words.
TIMELINES = {
    "Power sources": ["powerLive"],
    "Supervision of the power sources": ["powerMonitored"],
    "Amplifier channels": ["ampChannelStatus"],
    "Loudspeaker lines": ["ampChannelLineState"],
    "Line inputs": ["lineInStatus"],
    "Microphones": ["lineInMicStatus"],
    "Supervision of line inputs and microphones": ["lineInMonitoring"],
    "Supervision of the Ethernet ports": ["ethMonitoringMonitored"],
    "Control inputs": ["controlInputStatus"],
    "Control outputs": ["controlOutputState"],
    "Supervision of the control inputs": ["controlInputMonitored"],
    "Relays": ["relayStatus"],
    "Line end transponders": ["letChannel1Status", "letChannel2Status"],
}
TALL = ("Line end transponders",)  # up to 30 rows


def graph(title: str, query: str, unit: str, **more: Any) -> Panel:
    return Panel("timeseries", title, [Query(query, ROW)], unit, empty=NONE, **more)


MEASUREMENTS = [
    graph("Temperatures", f"kvsnmp_temp_current_celsius{{{HERE}}}", "celsius", steps=steps("tempCurrent")),
    graph("Fans", f"kvsnmp_fan_speed_rpm{{{HERE}}}", "rotrpm", steps=steps("fanSpeed")),
    graph("Voltages, off their nominal value", f"kvsnmp:voltage_deviation_ratio{{{HERE}}}", "percentunit",
          steps=steps("voltageValue", 0.01)),
    graph("Voltages", f"kvsnmp_voltage_value_volts{{{HERE}}}", "volt"),
    graph("Voltages of line end transponders", f"kvsnmp:let_voltage_volts{{{HERE}}} > 0", "volt", width=24),
]

HEAD = [
    Panel("table", "Device", [Query(f"kvsnmp_info_model_number{{{HERE}}}")], width=24, height=4, empty="No answer",
          columns=[Column("Value", "Model")] + [Column(*names) for names in IDENTITY.items()]),
    Panel("state-timeline", "Alerts", [
        Query(f'ALERTS{{{HERE}, alertname=~"Kvsnmp.+", alertstate="firing"}}', "{{alertname}} {{description}}")],
        width=24, height=6, mappings=values_shown({1: ("firing", CRITICAL)}), empty="No alert"),
]


def timelines(metrics: dict[str, tuple[Object, str]]) -> list[Panel]:
    """One panel for each kind of state; all states have to be in one of them."""
    missing = set(metrics) ^ {name for names in TIMELINES.values() for name in names}
    if missing:
        raise RuntimeError(f"the timelines and the states of the MIB differ: {', '.join(sorted(missing))}")
    found = []
    for title, names in TIMELINES.items():
        shown = [mappings(metrics[name][0]) for name in names]
        if any(words != shown[0] for words in shown):
            raise RuntimeError(f"{title}: the words of the states differ")
        queries = [Query(code_query(*metrics[name], HERE), ROW) for name in names]
        size = (24, 16) if title in TALL else (12, 8)
        found.append(Panel("state-timeline", title, queries, "none", *size, mappings=shown[0], empty=NONE))
    return found


def dashboard(made_by: str, metrics: dict[str, tuple[Object, str]]) -> str:
    """`metrics`: for each state, its object and its metric."""
    instance = {"name": "instance", "type": "query", "label": "Device", "datasource": SOURCE, "multi": False,
                "includeAll": False, "refresh": 2, "sort": 1, "definition": 'label_values(up{job="kvsnmp"}, instance)',
                "query": {"query": 'label_values(up{job="kvsnmp"}, instance)', "refId": "instance"}}
    return text(made_by, DEVICE, "kvsnmp: one device", HEAD + MEASUREMENTS + timelines(metrics), [instance])
