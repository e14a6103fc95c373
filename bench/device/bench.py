"""Shared by all measurements: the devices, the results, the load generator and the numbers of repetitions."""
from __future__ import annotations

import subprocess
import sys
from collections.abc import Iterable, Mapping
from typing import NamedTuple

from support.device import Device, bin_dir

from .processes import Process, kilobytes, processes, spent
from .results import Results
from .subjects import Subject


class Effort(NamedTuple):
    rounds: int  # of each measurement of requests
    gets: int  # in a round
    idle_gets: int  # GETs after 5 s idle
    idle_windows: int  # of 5 s
    starts: int  # with and without the standard sensor tables
    restarts: int  # of snmpd
    growth: int  # GETs and notifications over which memory must not grow
    counted: int  # GETs in a round of counted instructions and system calls


FULL = Effort(rounds=10, gets=2000, idle_gets=10, idle_windows=4, starts=3, restarts=10, growth=200000, counted=400)
QUICK = Effort(rounds=3, gets=500, idle_gets=2, idle_windows=2, starts=1, restarts=2, growth=20000, counted=100)


def progress(what: str) -> None:
    print(f"  {what} ...", file=sys.stderr, flush=True)


def figures_of(text: str) -> dict[str, float]:
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}


class Bench:
    """`devices` says where each subject runs."""

    def __init__(self, devices: Mapping[Subject, Device], results: Results, effort: Effort) -> None:
        self.devices = devices
        self.results = results
        self.effort = effort

    def processes(self, subject: Subject) -> list[Process]:
        return processes(self.devices[subject], subject.program)

    def load(self, subject: Subject, *words: object) -> dict[str, float]:
        """One run of the load generator."""
        return figures_of(self.devices[subject].run(loader_command(words), timeout=1000).stdout)

    def measure(self, subject: Subject, what: str, unit: str, wanted: dict[str, str], count: int, *words: object) -> None:
        """One run: the figures in `wanted` by the load generator, and what each request cost the subject. It was asked
        `count` times, or for as many variables as the walks found."""
        found = self.processes(subject)
        before = spent(found)
        seen = self.load(subject, *words)
        after = spent(found)
        done = count or seen["variables"] * int(words[2])
        figures = {label: seen[key] for key, label in wanted.items()}
        figures[f"CPU per {unit}, us"] = (after.nanoseconds - before.nanoseconds) / 1000 / done
        figures[f"context switches per {unit}"] = (after.switches - before.switches) / done
        for label, value in figures.items():
            self.results.add(f"{what}, {label}", subject, value)

    def start_loader(self, subject: Subject, *words: object) -> subprocess.Popen:
        return self.devices[subject].popen(loader_command(words), stdout=subprocess.PIPE, text=True)

    def memory(self, subject: Subject, when: str) -> None:
        for key in ("Rss", "Pss"):
            self.results.add(f"{key.upper()} {when}, kB", subject, kilobytes(self.processes(subject), key))


def loader_command(words: Iterable[object]) -> list[str]:
    return [str(bin_dir() / "snmpload"), *map(str, words)]
