"""What is measured of every subject, each figure written into the table as soon as it is made."""
from __future__ import annotations

import subprocess
import sys
import time
from collections.abc import Iterable, Mapping

from support.device import Device, bin_dir

from .subjects import SUBJECTS, Subject
from .table import Table

MANAGERS = (1, 4, 16, 256)
LOAD_MS = 4000


def tell(what: str) -> None:
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
        """The subjects take turns at each figure, so that what else the machine does meets all of them."""
        label = "GET back to back"
        tell(label)
        for subject in SUBJECTS:
            self._latency(subject, label, self.load(subject, "latency", subject.cell, 5000, 0))
        self._after_rest(rests)
        for label, repetitions in (("walk", 0), ("bulk walk (10)", 10)):
            tell(label)
            for subject in SUBJECTS:
                walked = self.load(subject, "walk", subject.root, 30, repetitions)
                self.table.add(f"{label}, us per variable", subject, walked["us_per_variable"])
                self.table.add(f"{label}, variables", subject, walked["variables"], ratio=False)
        for managers in MANAGERS:
            tell(f"{managers} managers")
            for subject in SUBJECTS:
                loaded = self.load(subject, "load", subject.cell, managers, LOAD_MS)
                self.table.add(f"GETs per second, managers: {managers}", subject, loaded["per_second"])
                self.table.add(f"GETs lost, managers: {managers}", subject, loaded["lost"], ratio=False)

    def _after_rest(self, rests: int, rest_ms: int = 5000) -> None:
        """One subject of each device at a time, some 1.25 s apart: nobody's rest is disturbed."""
        label = "GET after 5 s of rest"
        tell(label)
        waiting = list(SUBJECTS)
        while waiting:
            together = {self.devices[subject]: subject for subject in reversed(waiting)}.values()
            loaders = []
            for subject in together:
                loaders.append((subject, self.start_loader(subject, "latency", subject.cell, rests, rest_ms)))
                time.sleep(rest_ms / 4000)
            for subject, loader in loaders:
                self._latency(subject, label, figures_of(loader.communicate(timeout=1000)[0]))
            waiting = [subject for subject in waiting if subject not in together]

    def _latency(self, subject: Subject, label: str, measured: dict[str, float]) -> None:
        for key in ("min", "p50", "p99"):
            self.table.add(f"{label}, {key}, us", subject, measured[f"{key}_us"])
        if measured["lost"]:
            self.table.add(f"{label}, lost", subject, measured["lost"], ratio=False)

    # Processes

    def at_rest(self, seconds: float = 20.0) -> None:
        """Nothing asks meanwhile, and nothing looks into the devices."""
        tell(f"{seconds:.0f} s of rest")
        pids = {subject: self.devices[subject].pids(subject.program) for subject in SUBJECTS}
        time.sleep(2.0)  # the timers have come down from what the look has caused
        before = {subject: self.spent(subject, pids[subject]) for subject in SUBJECTS}
        time.sleep(seconds)
        after = {subject: self.spent(subject, pids[subject]) for subject in SUBJECTS}
        for subject in SUBJECTS:
            wakes, cpu, at = (late - early for early, late in zip(before[subject], after[subject]))
            self.table.add("wake-ups a second at rest", subject, wakes / at)
            self.table.add("CPU at rest, ms a second", subject, cpu / 1e6 / at)

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

    def spent(self, subject: Subject, pids: list[int]) -> tuple[int, int, float]:
        """Wake-ups and nanoseconds on a processor so far, of all threads, and the moment in seconds."""
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
        return wakes, nanoseconds, now


def figures_of(text: str) -> dict[str, float]:
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}
