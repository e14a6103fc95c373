"""The daemon's own words as they come, and from them the times at which no master is there."""
from __future__ import annotations

import re
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

RESTARTING = "SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd"
DISCONNECTED = "AgentX master disconnected us"
CONNECTED = re.compile(r"NET-SNMP version \S+ AgentX subagent connected")
HANDED_OVER = re.compile(r".*Trap fault ID: \d+ description: (.*) ->Send SUCCESS")


class Line(NamedTuple):
    after: float  # it was written after this moment and before the other
    before: float
    text: str


class LogFollower:
    """Complete lines that a file has got since the last look."""

    def __init__(self, path: Path, now: float) -> None:
        self._file = open(path, "rb")
        self._pending = b""
        self._last_look = now

    def look(self, now: float) -> list[Line]:
        """`now` is taken before the file is read: what was written up to then is in the answer."""
        self._pending += self._file.read()
        *lines, self._pending = self._pending.split(b"\n")
        last, self._last_look = self._last_look, now
        return [Line(last, now, line.decode(errors="replace")) for line in lines]

    def close(self) -> None:
        self._file.close()


class Restarts:
    """Spans in which nobody may expect an answer: from the order, or from what the daemon says, until its session with
    the next snmpd stands."""

    MARGIN = 0.5  # until every table is registered again

    def __init__(self) -> None:
        self.count = 0
        self.longest = 0.0
        self._spans: list[tuple[float, float]] = []
        self._begin: float | None = None
        self._told_to_end = False

    @property
    def under_way(self) -> bool:
        return self._begin is not None

    def waits(self, now: float) -> float:
        """For so many seconds the one under way has not ended."""
        return now - self._begin if self._begin is not None else 0.0

    def order(self, now: float) -> None:
        """Something that has to end in a new snmpd happens from now on."""
        if self._begin is None:
            self._begin, self._told_to_end = now, False

    def take(self, line: Line) -> None:
        if line.text == RESTARTING:
            self.order(line.after)
            self._told_to_end = True
        elif self._begin is not None and self._told_to_end and CONNECTED.match(line.text):
            self._spans.append((self._begin, line.before + self.MARGIN))
            self.longest = max(self.longest, line.before - self._begin)
            self.count += 1
            self._begin = None

    def overlap(self, begin: float, end: float) -> bool:
        if self._begin is not None and end >= self._begin:
            return True
        for span_begin, span_end in reversed(self._spans):
            if span_end < begin:
                return False
            if span_begin <= end:
                return True
        return False


class DyingWindow:
    """When somebody else ends snmpd, what it was handed shortly before, and until the daemon knows, may go with it."""

    BEFORE = 0.2

    def __init__(self) -> None:
        self._begin: float | None = None

    def killing(self, now: float) -> None:
        self._begin = now - self.BEFORE

    def handed_over(self, lines: list[Line]) -> Iterator[tuple[str, bool]]:
        """The faults that the daemon has handed over, in order, each with whether it was to a dying snmpd."""
        for line in lines:
            if line.text.startswith(DISCONNECTED):
                self._begin = None
            elif match := HANDED_OVER.fullmatch(line.text):
                yield match[1], self._begin is not None and line.before >= self._begin
