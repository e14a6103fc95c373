"""The targets of a run, each with its figure, its bound and whether it is met."""
from __future__ import annotations

from typing import NamedTuple

from .figures import MANAGERS
from .table import Table, markdown, number

BEST_PEER = None
POLLS, PINGS, WATCHDOG_FILES = 10, 1, 0.2  # a second: a poll each 100 ms, a ping each second, a file each 5 s


class Target(NamedTuple):
    figure: str
    relation: str  # between the figure and the bound
    bound: float | None = BEST_PEER


TARGETS = [
    Target("GET back to back, p50, us", "<="),
    Target("walk, us per variable", "<="),
    Target("bulk walk (10), us per variable", "<="),
    *(Target(f"GETs per second, managers: {managers}", ">=") for managers in MANAGERS),
    Target("GET after 5 s idle, p50, us", "<=", 500),
    Target("idle wake-ups a second", "<=", POLLS + PINGS + WATCHDOG_FILES),
    Target("notifications per second", ">=", 20000),
    Target("RSS growth over the GETs, kB", "<=", 0),
    Target("RSS growth over the notifications, kB", "<=", 0),
]


def targets_text(table: Table) -> str:
    lines = [["target", "is", "measured", "bound", "bound is"]]
    for target in TARGETS:
        measured = table.value(target.figure)
        bound = table.best_peer(target.figure) if target.bound is BEST_PEER else target.bound
        lines.append([f"{target.figure} {target.relation} bound", _verdict(measured, target.relation, bound),
                      number(measured), number(bound), "best peer" if target.bound is BEST_PEER else "fixed"])
    return markdown(lines, words=2)


def _verdict(measured: float | None, relation: str, bound: float | None) -> str:
    if measured is None or bound is None:
        return "not measured"
    return "met" if (measured <= bound if relation == "<=" else measured >= bound) else "NOT MET"
