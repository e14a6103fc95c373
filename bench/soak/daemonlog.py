"""Follows the daemon's log, and finds the times without a master."""
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
    after: float  # it was written between these two times
    before: float
    text: str


class LogFollower:
    """Complete new lines of a file since the last call."""

    def __init__(self, path: Path, now: float) -> None:
        self._file = open(path, "rb")
        self._pending = b""
        self._last_look = now

    def look(self, now: float) -> list[Line]:
        """`now` is read before the file: everything written up to then is in the result."""
        self._pending += self._file.read()
        *lines, self._pending = self._pending.split(b"\n")
        last, self._last_look = self._last_look, now
        return [Line(last, now, line.decode(errors="replace")) for line in lines]

    def close(self) -> None:
        self._file.close()


class Restarts:
    """Spans without answers: from the order, or from the daemon's message, until its session with the next snmpd is
    open."""

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
        """Seconds since the start of the current one."""
        return now - self._begin if self._begin is not None else 0.0

    def order(self, now: float) -> None:
        """From now on an event happens that has to end in a new snmpd."""
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
    """If something else ends snmpd, traps sent shortly before, and until the daemon notices, may be lost."""

    BEFORE = 0.2

    def __init__(self) -> None:
        self._begin: float | None = None

    def killing(self, now: float) -> None:
        self._begin = now - self.BEFORE

    def handed_over(self, lines: list[Line]) -> Iterator[tuple[str, bool]]:
        """The faults that the daemon has sent, in order, each with whether the snmpd was dying."""
        for line in lines:
            if line.text.startswith(DISCONNECTED):
                self._begin = None
            elif match := HANDED_OVER.fullmatch(line.text):
                yield match[1], self._begin is not None and line.before >= self._begin
