"""Edits given to a device in one go, and the moment at which the daemon has taken them all."""
from __future__ import annotations

import itertools
import json
from collections.abc import Sequence
from xml.sax.saxutils import escape

from .device import Device
from .polling import wait_until

CACHE_SECONDS = 61  # a table keeps what it has read for 60 s

Command = list[str]  # words of talctl
_numbers = itertools.count(1)


def put(path: str, text: str) -> Command:
    """Gives a leaf a text, or makes it. Nothing is sent when it has that text already."""
    name = path.rsplit("/", 1)[-1]
    return ["patch", path, f"<{name}>{escape(text)}</{name}>"]


def write(path: str, text: str) -> list[Command]:
    """The same, and the text is sent whatever the leaf held before."""
    return [put(path, f"before {next(_numbers)}"), put(path, text)]


def apply(device: Device, commands: Sequence[Command] = (), dbus: bool = True) -> None:
    """Carries out commands of talctl, waits until the daemon has taken what they sent, and lets its tables expire.

    What comes last on each of the two ways into the daemon is something that it logs: a fault without a trap from the
    data service, an input that no table has from the amplifier monitor.
    """
    mark = f"mark{next(_numbers)}"
    commands = [*commands, ["fault", "raise", "steps", mark, "", "notice", mark]]
    awaited = [f"New Fault: [steps] [{mark}]"]
    if dbus:
        commands.append(["monitor", "gpi", "99", mark])
        awaited.append(f"State: {mark}")
    device.talctl_batch([json.dumps(command) for command in commands])
    wait_until(lambda: all(line in device.kvsnmp_err() for line in awaited), 30, what=f"{awaited} logged")
    device.shift_clock(CACHE_SECONDS)


def integers(device: Device, oids: Sequence[str]) -> list[int]:
    """The values of integer objects, read in one request."""
    answers = device.snmp.get(*oids)
    assert all(kind in ("INTEGER", "Gauge32") for kind, _ in answers), answers
    return [int(text) for _, text in answers]
