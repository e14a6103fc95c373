"""The targets of a run: what is compared with the best peer, and what has a fixed bound."""
from __future__ import annotations

from typing import NamedTuple

from .bench import FULL, QUICK
from .requests import FREE, MANAGERS, OBJECTS, PINNED, IDLE_S, WALKED, WALKS
from .results import Results
from .subjects import KEEPALIVED

LEVEL = 1.03  # within 3 % counts as level
POLLS, PINGS, WATCHDOG_FILES = 10, 1, 0.2  # a second: a poll each 100 ms, a ping each second, a file each 5 s


class Verdict(NamedTuple):
    measured: float
    bound: float
    met: bool


class Fixed(NamedTuple):
    figure: str
    bound: float
    at_least: bool = False


# What is compared, by the names of the figures' objects; {} is the object.
PEER_GRIDS = [
    (OBJECTS, {
        "processor time per GET, us": f"{PINNED}: GET of {{}}, CPU per GET, us",
        "GET, p50, us": f"{PINNED}: GET of {{}}, p50, us",
        **{f"GETs per second, {managers} manager{'s' * (managers > 1)}":
           f"{PINNED}: GET of {{}}, {managers} at once, GETs per second" for managers in MANAGERS},
    }),
    (WALKED, {
        f"{walk}, {label}": f"{PINNED}: {walk} of {{}}, {figure}" for walk in WALKS
        for label, figure in (("us per variable", "us per variable"),
                              ("processor time per variable, us", "CPU per variable, us"))
    }),
]
IDLE_GET = f"{FREE}: GET after {IDLE_S} s idle, us"
FIXED = [
    Fixed("idle CPU, ms a second", 0.8),
    Fixed("idle wake-ups a second", POLLS + PINGS + WATCHDOG_FILES),
    Fixed("one busy processor: GET, p99, ms", 20),
    Fixed("one busy processor: 500 faults raised and cleared: traps lost", 0),
    Fixed("notifications per second", 20000, at_least=True),
    *(Fixed(f"RSS growth over {effort.growth:,} {what}, kB", 0) for effort in (FULL, QUICK)
      for what in ("GETs", "notifications")),
]


def against_best_peer(results: Results, figure: str) -> Verdict | None:
    return against(results.median(figure), results.best_peer(figure), "per second" in figure, LEVEL)


def against(measured: float | None, bound: float | None, at_least: bool = False, level: float = 1.0) -> Verdict | None:
    if measured is None or bound is None:
        return None
    return Verdict(measured, bound, measured >= bound / level if at_least else measured <= bound * level)


def single_targets(results: Results) -> dict[str, Verdict | None]:
    """Those that are not in a grid."""
    rss, before = results.median("RSS after the traps, kB"), results.median("RSS after the GETs, kB")
    return {
        f"first GET after {IDLE_S} s idle, us, at most the best peer's": against_best_peer(results, IDLE_GET),
        "RSS at start, kB, at most keepalived's": against(results.median("RSS at start, kB"),
                                                          results.median("RSS at start, kB", KEEPALIVED)),
        "RSS after 7,000 traps, kB, at most as before": against(rss, before and before * LEVEL),
    } | {f"{fixed.figure}, at {'least' if fixed.at_least else 'most'}":
         against(results.median(fixed.figure), fixed.bound, fixed.at_least)
         for fixed in FIXED if fixed.figure in results.figures}
