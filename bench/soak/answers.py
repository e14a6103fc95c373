"""The sums of the managers' reports: answer times, and errors outside the restarts of snmpd."""
from __future__ import annotations

import json
from array import array
from collections import deque
from typing import NamedTuple

from .daemonlog import Restarts


class Times(NamedTuple):
    count: int
    p50: float
    p99: float
    longest: float


def times_of(milliseconds: array) -> Times:
    ordered = sorted(milliseconds)
    if not ordered:
        return Times(0, 0.0, 0.0, 0.0)
    last = len(ordered) - 1
    return Times(len(ordered), ordered[round(last * 0.5)], ordered[round(last * 0.99)], ordered[-1])


class Answers:
    DELAY = 1.0  # the daemon's log shows a restart by then

    def __init__(self, restarts: Restarts) -> None:
        self._restarts = restarts
        self._waiting: deque[tuple[float, str, list, list]] = deque()
        self._this_minute: dict[str, array] = {}
        self._all: dict[str, array] = {}
        self.answered_during_restarts = 0
        self.unanswered_during_restarts = 0
        self.timeouts = 0  # outside restarts, as all below
        self.wrong: list[str] = []  # every other error

    def report(self, line: str, now: float) -> None:
        """One line of a manager."""
        answer = json.loads(line)
        if answer["kind"]:  # not of a manager that still discovers its objects
            self._waiting.append((now, answer["kind"], answer["good"], answer["bad"]))

    def settle(self, now: float) -> None:
        """Adds up reports that are old enough."""
        while self._waiting and self._waiting[0][0] <= now - self.DELAY:
            _, kind, good, bad = self._waiting.popleft()
            for end, milliseconds in good:
                self._good(kind, end, milliseconds)
            for begin, end, what in bad:
                self._bad(kind, begin, end, what)

    def _good(self, kind: str, end: float, milliseconds: float) -> None:
        if self._restarts.overlap(end - milliseconds / 1000, end):
            self.answered_during_restarts += 1
            return
        for times in (self._this_minute, self._all):
            times.setdefault(kind, array("d")).append(milliseconds)

    def _bad(self, kind: str, begin: float, end: float, what: str) -> None:
        if self._restarts.overlap(begin, end):
            self.unanswered_during_restarts += 1
        elif what == "timeout":
            self.timeouts += 1
        else:
            self.wrong.append(f"{kind}: {what}")

    def minute(self) -> Times:
        """All kinds together since the last call."""
        times = times_of(array("d", (one for kind in self._this_minute.values() for one in kind)))
        self._this_minute = {}
        return times

    def by_kind(self) -> dict[str, Times]:
        return {kind: times_of(times) for kind, times in sorted(self._all.items())}
