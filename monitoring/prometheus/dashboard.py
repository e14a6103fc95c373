"""The Grafana dashboard: a table of its panels, and its JSON."""
from __future__ import annotations

import json
from typing import Any, NamedTuple

HERE = 'instance=~"$instance"'
SOURCE = {"type": "prometheus", "uid": "${datasource}"}


class Panel(NamedTuple):
    kind: str  # stat, timeseries, table
    title: str
    query: str
    legend: str = ""
    unit: str = "none"
    width: int = 12
    height: int = 8
    hint: str = ""


def states(objects: str) -> str:
    return f'kvsnmp:state{{{HERE}, object=~"{objects}"}}'


ROW = "{{instance}} {{description}}"
# A line has 24 units; panels are in this order, a panel that does not fit starts the next line.
PANELS = [
    Panel("stat", "Devices that answer", f'sum(up{{job="kvsnmp", {HERE}}})', width=6, height=4),
    Panel("stat", "Devices that do not", f'sum(up{{job="kvsnmp", {HERE}}} == bool 0)', width=6, height=4),
    Panel("stat", "Firing alerts", f'count(ALERTS{{alertname=~"Kvsnmp.+", alertstate="firing", {HERE}}}) or vector(0)',
          width=6, height=4),
    Panel("stat", "Slowest scrape", f"max(snmp_scrape_duration_seconds{{{HERE}}})", unit="s", width=6, height=4),
    Panel("table", "Alerts", f'ALERTS{{alertname=~"Kvsnmp.+", {HERE}}}', width=24),
    Panel("table", "Devices", f"kvsnmp_info_model_number{{{HERE}}}", width=24,
          hint="The value is the model number."),
    Panel("timeseries", "Temperatures", f"kvsnmp_temp_current_celsius{{{HERE}}}", ROW, "celsius"),
    Panel("timeseries", "Above their own average", f"kvsnmp:temp_rise_celsius{{{HERE}}}", ROW, "celsius"),
    Panel("timeseries", "Fans", f"kvsnmp_fan_speed_rpm{{{HERE}}}", ROW, "rotrpm"),
    Panel("timeseries", "Voltages, off their nominal value", f"kvsnmp:voltage_deviation_ratio{{{HERE}}}", ROW,
          "percentunit"),
    Panel("timeseries", "Voltages", f"kvsnmp_voltage_value_volts{{{HERE}}}", ROW, "volt"),
    Panel("timeseries", "Voltages of line end transponders", f"kvsnmp:let_voltage_volts{{{HERE}}} > 0", ROW, "volt"),
    Panel("table", "Power sources", states("powerLive|powerMonitored")),
    Panel("table", "Amplifier channels and loudspeaker lines", states("ampChannelStatus|ampChannelLineState")),
    Panel("table", "Line inputs and microphones", states("lineInStatus|lineInMicStatus|lineInMonitoring")),
    Panel("table", "Line end transponders", states("letChannel[12]Status")),
    Panel("table", "Control inputs and outputs", states("controlInputStatus|controlOutputState")),
    Panel("table", "Relays", states("relayStatus")),
    Panel("table", "Supervision of the Ethernet ports", states("ethMonitoringMonitored")),
]


def panel(number: int, item: Panel, x: int, y: int) -> dict[str, Any]:
    target = {"refId": "A", "datasource": SOURCE, "expr": item.query}
    made = {"id": number, "type": item.kind, "title": item.title, "datasource": SOURCE, "targets": [target],
            "gridPos": {"x": x, "y": y, "w": item.width, "h": item.height},
            "fieldConfig": {"defaults": {"unit": item.unit}, "overrides": []}}
    if item.hint:
        made["description"] = item.hint
    if item.kind == "timeseries":
        target["legendFormat"] = item.legend
    else:
        target["instant"] = True
    if item.kind == "table":
        target["format"] = "table"
        hidden = {name: True for name in ("Time", "__name__", "job") + (("Value",) if "state" in item.query else ())}
        made["transformations"] = [{"id": "organize", "options": {"excludeByName": hidden}}]
    if item.kind == "stat":
        made["options"] = {"reduceOptions": {"calcs": ["lastNotNull"]}, "colorMode": "none"}
    return made


def text(description: str) -> str:
    panels, x, y, height = [], 0, 0, 0
    for number, item in enumerate(PANELS, 1):
        if x + item.width > 24:
            x, y, height = 0, y + height, 0
        panels.append(panel(number, item, x, y))
        x, height = x + item.width, max(height, item.height)
    variables = [
        {"name": "datasource", "type": "datasource", "query": "prometheus", "label": "Data source"},
        {"name": "instance", "type": "query", "label": "Device", "datasource": SOURCE, "multi": True,
         "includeAll": True, "allValue": ".*", "refresh": 2,
         "query": {"query": 'label_values(up{job="kvsnmp"}, instance)', "refId": "instance"},
         "current": {"text": "All", "value": "$__all"}}]
    made = {"description": description, "uid": "kvsnmp", "title": "Public address devices (kvsnmp)", "tags": ["kvsnmp"],
            "schemaVersion": 37, "editable": True, "refresh": "1m", "time": {"from": "now-6h", "to": "now"},
            "templating": {"list": variables}, "panels": panels}
    return json.dumps(made, indent=2) + "\n"
