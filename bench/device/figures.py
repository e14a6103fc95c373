"""Measurements of every subject; each figure is written to the table at once.

Figures of requests are the medians of several rounds, "min" is the minimum of all, losses are summed.
"""
from __future__ import annotations

import statistics
import subprocess
import sys
import time
from collections.abc import Callable, Iterable, Mapping
from typing import NamedTuple

from support.device import Device, bin_dir

from .subjects import SUBJECTS, Subject
from .table import Table

MANAGERS = (1, 4, 16, 256)
SCALAR_MANAGERS = 16
LOAD_MS = 1000
ROUNDS = 10
Measure = Callable[[Subject], dict[str, float]]


class Spent(NamedTuple):
    wakes: int
    nanoseconds: int  # on a processor
    at: float  # the moment, in seconds


def progress(what: str) -> None:
    print(f"  {what} ...", file=sys.stderr, flush=True)


class Bench:
    """`devices` says where each subject runs."""

    def __init__(self, devices: Mapping[Subject, Device], table: Table) -> None:
        self.devices = devices
        self.table = table

    def load(self, subject: Subject, *words: object) -> dict[str, float]:
        """One run of the loader."""
        return figures_of(self.devices[subject].run([str(bin_dir() / "snmpload"), *map(str, words)], timeout=1000).stdout)

    def start_loader(self, subject: Subject, *words: object) -> subprocess.Popen:
        return self.devices[subject].popen([str(bin_dir() / "snmpload"), *map(str, words)], stdout=subprocess.PIPE,
                                           text=True)

    # Requests

    def requests(self, rests: int) -> None:
        for label, oid_of in (("GET back to back", _cell), ("GET of a scalar back to back", _scalar)):
            rounds = self._in_turns(label, lambda subject: self.load(subject, "latency", oid_of(subject), 500, 0))
            for subject, measured in rounds.items():
                self._latency(subject, label, measured)
        self._after_rest(rests)
        for label, repetitions in (("walk", 0), ("bulk walk (10)", 10)):
            rounds = self._in_turns(label, lambda subject: self.load(subject, "walk", subject.root, 5, repetitions))
            for subject, walked in rounds.items():
                self.table.add(f"{label}, us per variable", subject, _middle(walked, "us_per_variable"))
                self.table.add(f"{label}, variables", subject, walked[0]["variables"], ratio=False)
        for managers in MANAGERS:
            self._throughput(f"managers: {managers}", _cell, managers)
        self._throughput(f"managers: {SCALAR_MANAGERS}, of a scalar", _scalar, SCALAR_MANAGERS)

    def _in_turns(self, label: str, measure: Measure) -> dict[Subject, list[dict[str, float]]]:
        """Each subject ROUNDS times, interleaved: single blocks would measure other load and the CPU's sleep states."""
        progress(label)
        measured: dict[Subject, list[dict[str, float]]] = {subject: [] for subject in SUBJECTS}
        for turn in range(ROUNDS):
            first = turn % len(SUBJECTS)
            for subject in [*SUBJECTS[first:], *SUBJECTS[:first]]:
                measured[subject].append(measure(subject))
        return measured

    def _throughput(self, label: str, oid_of: Callable[[Subject], str], managers: int) -> None:
        pids = {subject: self.devices[subject].pids(subject.program) for subject in SUBJECTS}

        def measure(subject: Subject) -> dict[str, float]:
            before = self.spent(subject, pids[subject])
            loaded = self.load(subject, "load", oid_of(subject), managers, LOAD_MS)
            cpu = self.spent(subject, pids[subject]).nanoseconds - before.nanoseconds
            return loaded | {"cpu": cpu / 1000 / (loaded["per_second"] * LOAD_MS / 1000)}

        for subject, loaded in self._in_turns(label, measure).items():
            self.table.add(f"GETs per second, {label}", subject, _middle(loaded, "per_second"))
            self.table.add(f"CPU per GET, us, {label}", subject, _middle(loaded, "cpu"))
            self.table.add(f"GETs lost, {label}", subject, sum(one["lost"] for one in loaded), ratio=False)

    def _after_rest(self, rests: int, rest_ms: int = 5000) -> None:
        """One subject of each device at a time, about 1.25 s apart, so that the idle ones are not disturbed."""
        label = "GET after 5 s idle"
        progress(label)
        waiting = list(SUBJECTS)
        while waiting:
            together = {self.devices[subject]: subject for subject in reversed(waiting)}.values()
            loaders = []
            for subject in together:
                loaders.append((subject, self.start_loader(subject, "latency", subject.cell, rests, rest_ms)))
                time.sleep(rest_ms / 4000)
            for subject, loader in loaders:
                self._latency(subject, label, [figures_of(loader.communicate(timeout=1000)[0])])
            waiting = [subject for subject in waiting if subject not in together]

    def _latency(self, subject: Subject, label: str, rounds: list[dict[str, float]]) -> None:
        self.table.add(f"{label}, min, us", subject, min(one["min_us"] for one in rounds))
        for key in ("p50", "p99"):
            self.table.add(f"{label}, {key}, us", subject, _middle(rounds, f"{key}_us"))
        if lost := sum(one["lost"] for one in rounds):
            self.table.add(f"{label}, lost", subject, lost, ratio=False)

    # Processes

    def at_rest(self, seconds: float = 20.0) -> None:
        """No requests meanwhile, and no access to the devices."""
        progress(f"{seconds:.0f} s idle")
        pids = {subject: self.devices[subject].pids(subject.program) for subject in SUBJECTS}
        time.sleep(2.0)  # until the daemon's timers are idle again after the sample
        before = {subject: self.spent(subject, pids[subject]) for subject in SUBJECTS}
        time.sleep(seconds)
        after = {subject: self.spent(subject, pids[subject]) for subject in SUBJECTS}
        for subject in SUBJECTS:
            wakes, cpu, at = (late - early for early, late in zip(before[subject], after[subject]))
            self.table.add("idle wake-ups a second", subject, wakes / at)
            self.table.add("idle CPU, ms a second", subject, cpu / 1e6 / at)

    def memory(self, subjects: Iterable[Subject], when: str) -> None:
        for subject in subjects:
            for key, value in self.kilobytes(subject).items():
                self.table.add(f"{key.upper()} {when}, kB", subject, value)

    def kilobytes(self, subject: Subject) -> dict[str, int]:
        """Rss and Pss of all processes of the subject."""
        kilobytes = {"Rss": 0, "Pss": 0}
        device = self.devices[subject]
        for pid in device.pids(subject.program):
            for line in device.run(["cat", f"/proc/{pid}/smaps_rollup"]).stdout.splitlines():
                key, _, value = line.partition(":")
                if key in kilobytes:
                    kilobytes[key] += int(value.split()[0])
        return kilobytes

    def spent(self, subject: Subject, pids: list[int]) -> Spent:
        """By all threads so far."""
        tasks = " ".join(f"/proc/{pid}/task/*" for pid in pids)
        text = self.devices[subject].run(["sh", "-c", f"for t in {tasks}; do cat $t/schedstat; "
                                                      "grep ^voluntary_ctxt_switches $t/status; done"]).stdout
        now = time.monotonic()
        wakes = nanoseconds = 0
        for line in text.splitlines():
            words = line.split()
            if words[0] == "voluntary_ctxt_switches:":
                wakes += int(words[1])
            else:
                nanoseconds += int(words[0])
        return Spent(wakes, nanoseconds, now)


def figures_of(text: str) -> dict[str, float]:
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}


def _cell(subject: Subject) -> str:
    return subject.cell


def _scalar(subject: Subject) -> str:
    return subject.scalar


def _middle(rounds: list[dict[str, float]], key: str) -> float:
    return statistics.median(one[key] for one in rounds)
