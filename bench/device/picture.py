"""The picture of a run: bars with the spread between the quartiles, readable on a light and on a dark page."""
from __future__ import annotations

import math
from typing import NamedTuple
from xml.sax.saxutils import escape

from .requests import MANAGERS, OBJECTS, PINNED, IDLE_S, WALKED, WALKS
from .results import Results
from .subjects import SUBJECTS
from .targets import IDLE_GET

WIDTH, PANEL_WIDTH, PANEL_HEIGHT, TOP = 960, 460, 200, 56
LEFT, BARS_TOP, BARS_HEIGHT = 46, 34, 120
STYLE = """
    text { font: 12px "DejaVu Sans", Helvetica, Arial, sans-serif; fill: #24292f; }
    .title { font-weight: bold; }
    .middle { text-anchor: middle; }
    .end { text-anchor: end; }
    .grid { stroke: #d0d7de; }
    .spread { stroke: #24292f; stroke-width: 1.4; fill: none; }
    .s0 { fill: #0969da; } .s1 { fill: #b1bac4; } .s2 { fill: #d4a15a; } .s3 { fill: #7aa874; }
    @media (prefers-color-scheme: dark) {
      text { fill: #e6edf3; } .grid { stroke: #3d444d; } .spread { stroke: #e6edf3; }
      .s0 { fill: #4493f8; } .s1 { fill: #656c76; } .s2 { fill: #9e6f2f; } .s3 { fill: #4f7a4a; }
    }
"""


class Panel(NamedTuple):
    title: str
    groups: dict[str, str]  # figures by the labels below them


PANELS = [
    Panel("Processor time per GET, us", {which: f"{PINNED}: GET of {which}, CPU per GET, us" for which in OBJECTS}),
    Panel("GET, time to the answer, us", {which: f"{PINNED}: GET of {which}, p50, us" for which in OBJECTS}),
    Panel("GETs of the last row per second (more is better), by managers", {
        str(managers): f"{PINNED}: GET of {OBJECTS[2]}, {managers} at once, GETs per second" for managers in MANAGERS}),
    *(Panel(f"Walk, {title} per variable, us", {
        f"{walk}, {walked}": f"{PINNED}: {walk} of {walked}, {figure}" for walk in WALKS for walked in WALKED})
      for title, figure in (("time", "us per variable"), ("processor time", "CPU per variable, us"))),
    Panel("Instructions per GET", {which: f"GET of {which}, instructions" for which in OBJECTS}),
    Panel(f"First GET after {IDLE_S} s idle, us", {
        "all processors": IDLE_GET, "one processor": f"{PINNED}: GET after {IDLE_S} s idle, us"}),
    Panel("Memory at the start, kB", {"RSS": "RSS at start, kB", "PSS": "PSS at start, kB"}),
]


def picture(results: Results) -> str:
    height = TOP + (len(PANELS) + 1) // 2 * PANEL_HEIGHT
    parts = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {height}">',
             "  <title>Time and processor time of requests: kvsnmp, snmpd itself and two other sub-agents</title>",
             f"  <style>{STYLE}  </style>"]
    for place, subject in enumerate(SUBJECTS):
        text = f"{subject.name} (the floor)" if place == 1 else subject.name
        parts.append(f'  <rect class="s{place}" x="{LEFT + place * 150}" y="8" width="14" height="12"/>'
                     f'<text x="{LEFT + 20 + place * 150}" y="19">{text}</text>')
    parts.append(f'  <text x="{LEFT}" y="40">On one processor, less is better, unless a label says otherwise. A line '
                 "marks the quartiles.</text>")
    for number, panel in enumerate(PANELS):
        x, y = number % 2 * (WIDTH - PANEL_WIDTH), TOP + number // 2 * PANEL_HEIGHT
        parts += [f'  <g transform="translate({x} {y})">', *_panel(panel, results), "  </g>"]
    return "\n".join([*parts, "</svg>"]) + "\n"


def _panel(panel: Panel, results: Results) -> list[str]:
    spreads = [[results.spread(figure, subject) for subject in SUBJECTS] for figure in panel.groups.values()]
    highest = max((spread.high for group in spreads for spread in group if spread), default=1)
    step = _step(highest)
    top = math.ceil(highest / step) * step
    bottom = BARS_TOP + BARS_HEIGHT

    def height(value: float) -> float:
        return round(bottom - value / top * BARS_HEIGHT, 1)

    parts = [f'    <text class="title" x="{LEFT}" y="20">{escape(panel.title)}</text>']
    for number in range(round(top / step) + 1):
        at = height(number * step)
        parts.append(f'    <path class="grid" d="M{LEFT} {at}H{PANEL_WIDTH}"/>'
                     f'<text class="end" x="{LEFT - 4}" y="{at + 4}">{_label(number * step)}</text>')
    group_width = (PANEL_WIDTH - LEFT) / len(spreads)
    bar = min(group_width * 0.8 / len(SUBJECTS), 26)
    for place, (label, group) in enumerate(zip(panel.groups, spreads)):
        middle = LEFT + group_width * (place + 0.5)
        for line, text in enumerate(label.split(", ")):
            parts.append(f'    <text class="middle" x="{middle:.1f}" y="{bottom + 17 + 15 * line}">{escape(text)}</text>')
        for number, spread in enumerate(group):
            if not spread:
                continue
            x = middle + (number - len(SUBJECTS) / 2) * bar
            parts.append(f'    <rect class="s{number}" x="{x + 1:.1f}" y="{height(spread.median)}" width="{bar - 2:.1f}" '
                         f'height="{round(bottom - height(spread.median), 1)}"/>')
            center = x + bar / 2
            parts.append(f'    <path class="spread" d="M{center - 3:.1f} {height(spread.high)}h6m-3 0'
                         f'V{height(spread.low)}m-3 0h6"/>')
    return parts


def _step(highest: float) -> float:
    """At most five lines at round numbers."""
    power = 10 ** math.floor(math.log10(highest / 5)) if highest > 0 else 1
    return next(factor * power for factor in (1, 2, 5, 10) if highest <= 5 * factor * power)


def _label(value: float) -> str:
    return f"{value / 1000:g}k" if value >= 1000 else f"{value:g}"
