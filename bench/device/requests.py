"""Requests to every subject, free and on one processor: time, processor time and context switches of each."""
from __future__ import annotations

import time
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

from .bench import Bench, progress
from .processes import pinned, spent
from .subjects import SUBJECTS, Subject, rows

MANAGERS = (1, 4, 16, 256)
OBJECTS = ("a scalar", "the first row", "the last row")
FREE, PINNED = "free", "pinned"
WALKED = ("the table", "all objects")
WALKS = {"walk": 0, "bulk walk": 10}  # repetitions of each request
IDLE_S = 5


class Requests(Bench):
    placement = FREE

    def __init__(self, *arguments) -> None:
        super().__init__(*arguments)
        self.objects: dict[Subject, dict[str, str]] = {}
        for subject in SUBJECTS:
            cells = rows(self.devices[subject], subject)
            self.objects[subject] = dict(zip(OBJECTS, (subject.scalar, cells[0], cells[-1])))

    def all(self) -> None:
        """All subjects in turns: single blocks would measure other load and the processors' sleep states."""
        self._gets()
        with pinned(self.devices.values()):
            self.placement = PINNED
            self._gets()

    def _gets(self) -> None:
        gets = self.effort.gets
        for which in OBJECTS:
            self._in_turns(f"GET of {which}", "GET", {"p50_us": "p50, us", "p99_us": "p99, us"}, gets,
                           lambda subject: ("latency", self.objects[subject][which], gets, 0))
        for which in OBJECTS if self.placement == PINNED else OBJECTS[1:2]:
            for managers in MANAGERS:
                self._in_turns(f"GET of {which}, {managers} at once", "GET",
                               {"per_second": "GETs per second", "lost": "GETs lost"}, gets,
                               lambda subject: ("count", self.objects[subject][which], managers, gets))
        for walked in WALKED:
            for walk, repetitions in WALKS.items():
                self._in_turns(f"{walk} of {walked}", "variable", {"us_per_variable": "us per variable"}, 0,
                               lambda subject: ("walk", subject.table if walked == WALKED[0] else subject.root,
                                                10 if walked == WALKED[0] else 3, repetitions))
        self._first_after_idle()

    def _in_turns(self, what: str, unit: str, wanted: dict[str, str], count: int,
                  words_of: Callable[[Subject], tuple]) -> None:
        progress(f"{what}, {self.placement}")
        for turn in range(self.effort.rounds):
            first = turn % len(SUBJECTS)
            for subject in [*SUBJECTS[first:], *SUBJECTS[:first]]:
                self.measure(subject, f"{self.placement}: {what}", unit, wanted, count, *words_of(subject))

    def _first_after_idle(self) -> None:
        """The subjects at the same time, 1.25 s apart."""
        progress(f"GET after {IDLE_S} s idle, {self.placement}")

        def ask(subject: Subject) -> None:
            time.sleep(SUBJECTS.index(subject) * IDLE_S / len(SUBJECTS))
            for _ in range(self.effort.idle_gets):
                seen = self.load(subject, "latency", self.objects[subject][OBJECTS[1]], 1, IDLE_S * 1000)
                self.results.add(f"{self.placement}: GET after {IDLE_S} s idle, us", subject, seen["p50_us"])

        with ThreadPoolExecutor() as pool:
            list(pool.map(ask, SUBJECTS))

    def idle(self) -> None:
        """No requests meanwhile, and no access to the devices."""
        progress(f"{self.effort.idle_windows} times {IDLE_S} s idle")
        found = {subject: self.processes(subject) for subject in SUBJECTS}
        time.sleep(2.0)  # until the daemon's timers are idle again
        for _ in range(self.effort.idle_windows):
            before, begin = {subject: spent(found[subject]) for subject in SUBJECTS}, time.monotonic()
            time.sleep(IDLE_S)
            after, taken = {subject: spent(found[subject]) for subject in SUBJECTS}, time.monotonic() - begin
            for subject in SUBJECTS:
                used = after[subject].nanoseconds - before[subject].nanoseconds
                self.results.add("idle wake-ups a second", subject, (after[subject].wakes - before[subject].wakes) / taken)
                self.results.add("idle CPU, ms a second", subject, used / 1e6 / taken)
