"""The Grafana dashboards: their panels, and their JSON. For Grafana 9; later versions convert it when they load it."""
from __future__ import annotations

import json
from typing import Any, NamedTuple

SOURCE = {"type": "prometheus", "uid": "${datasource}"}
FLEET, DEVICE = "kvsnmp-fleet", "kvsnmp-device"  # the identifiers, also the names of the files
WIDTH = 24  # units of a line

RANGED = ("timeseries", "state-timeline")  # the others show the newest value
LOOKS: dict[str, dict[str, Any]] = {
    "stat": {"reduceOptions": {"calcs": ["lastNotNull"], "fields": "", "values": False}, "colorMode": "value"},
    "timeseries": {"legend": {"displayMode": "list", "placement": "bottom", "showLegend": True},
                   "tooltip": {"mode": "multi"}},
    "state-timeline": {"mergeValues": True, "showValue": "auto", "alignValue": "left", "rowHeight": 0.9,
                       "legend": {"displayMode": "list", "placement": "bottom", "showLegend": False},
                       "tooltip": {"mode": "single"}},
    "table": {"showHeader": True}}

# A timeline coloured by thresholds would merge its states.
COLOURING = {"timeseries": "palette-classic", "state-timeline": "continuous-GrYlRd"}

Steps = list[dict[str, Any]]
Mappings = list[dict[str, Any]]


class Query(NamedTuple):
    text: str
    legend: str = ""


class Column(NamedTuple):
    """A column of a table that shows a label, or the value of a query."""
    field: str  # a label, or "Value #A" for the first query
    title: str
    unit: str = ""
    steps: Steps = []
    mappings: Mappings = []
    link: str = ""
    width: int = 0


class Panel(NamedTuple):
    kind: str
    title: str
    queries: list[Query]
    unit: str = "none"
    width: int = 12
    height: int = 8
    steps: Steps = []
    mappings: Mappings = []
    columns: list[Column] = []  # of a table, which shows no others
    sort: str = ""
    hint: str = ""
    empty: str = ""  # shown instead of "No data"


def values_shown(words: dict[int, tuple[str, str]]) -> Mappings:
    """The mapping of each value to its word and colour."""
    return [{"type": "value", "options": {
        str(value): {"text": word, "color": colour, "index": index}
        for index, (value, (word, colour)) in enumerate(words.items())}}]


def target(panel: Panel, number: int) -> dict[str, Any]:
    query = panel.queries[number]
    made: dict[str, Any] = {"refId": chr(ord("A") + number), "datasource": SOURCE, "expr": query.text}
    if panel.kind in RANGED:
        return made | {"range": True, "legendFormat": query.legend}
    return made | {"instant": True, "range": False} | ({"format": "table"} if panel.kind == "table" else {})


def override(column: Column) -> dict[str, Any]:
    found: list[tuple[str, Any]] = []
    if column.unit:
        found.append(("unit", column.unit))
    if column.mappings:
        found.append(("mappings", column.mappings))
    if column.steps:
        found.append(("thresholds", {"mode": "absolute", "steps": column.steps}))
    if column.mappings or column.steps:
        found.append(("custom.displayMode", "color-background"))
    if column.link:
        found.append(("links", [{"title": "This device", "url": column.link}]))
    if column.width:
        found.append(("custom.width", column.width))
    return {"matcher": {"id": "byName", "options": column.title},
            "properties": [{"id": name, "value": value} for name, value in found]}


def organized(panel: Panel) -> list[dict[str, Any]]:
    """One row for the labels that the queries share; the columns in their order, under their titles."""
    fields = [column.field for column in panel.columns]
    return [{"id": "merge", "options": {}},
            {"id": "filterFieldsByName", "options": {"include": {"names": fields}}},
            {"id": "organize", "options": {
                "excludeByName": {}, "indexByName": {field: place for place, field in enumerate(fields)},
                "renameByName": {column.field: column.title for column in panel.columns}}}]


def graph_settings(panel: Panel) -> dict[str, Any]:
    if panel.kind == "state-timeline":
        return {"lineWidth": 0, "fillOpacity": 80}
    return {"lineWidth": 1, "fillOpacity": 0, "showPoints": "never",
            "thresholdsStyle": {"mode": "dashed" if panel.steps else "off"}}


def panel_of(panel: Panel, number: int, x: int, y: int) -> dict[str, Any]:
    defaults: dict[str, Any] = {"unit": panel.unit, "mappings": panel.mappings, "thresholds": {
        "mode": "absolute", "steps": panel.steps or [{"value": None, "color": "text"}]}}
    if panel.kind in RANGED:
        defaults |= {"custom": graph_settings(panel), "color": {"mode": COLOURING[panel.kind]}}
    if panel.empty:
        defaults["noValue"] = panel.empty
    made = {"id": number, "type": panel.kind, "title": panel.title, "datasource": SOURCE,
            "gridPos": {"x": x, "y": y, "w": panel.width, "h": panel.height},
            # A shorter step than the interval of the scrapes shows nothing new.
            "interval": "1m", "targets": [target(panel, place) for place in range(len(panel.queries))],
            "options": dict(LOOKS[panel.kind]),
            "fieldConfig": {"defaults": defaults, "overrides": [
                found for found in map(override, panel.columns) if found["properties"]]}}
    if panel.kind == "table":
        made["transformations"] = organized(panel)
        made["options"] |= {"sortBy": [{"displayName": panel.sort, "desc": False}]} if panel.sort else {}
    if panel.hint:
        made["description"] = panel.hint
    return made


def laid_out(panels: list[Panel]) -> list[dict[str, Any]]:
    """In order; a panel that does not fit starts the next line."""
    made, x, y, height = [], 0, 0, 0
    for number, panel in enumerate(panels, 1):
        if x + panel.width > WIDTH:
            x, y, height = 0, y + height, 0
        made.append(panel_of(panel, number, x, y))
        x, height = x + panel.width, max(height, panel.height)
    return made


def text(made_by: str, uid: str, title: str, panels: list[Panel], variables: list[dict[str, Any]]) -> str:
    source = {"name": "datasource", "type": "datasource", "query": "prometheus", "label": "Data source"}
    made = {"description": made_by, "uid": uid, "title": title, "tags": ["kvsnmp"],
            "schemaVersion": 37, "editable": True, "refresh": "1m", "time": {"from": "now-6h", "to": "now"},
            "templating": {"list": [source, *variables]},
            "links": [{"type": "dashboards", "title": "kvsnmp", "tags": ["kvsnmp"], "asDropdown": True,
                       "includeVars": False, "keepTime": True}],
            "panels": laid_out(panels)}
    return json.dumps(made, indent=2, ensure_ascii=False) + "\n"
