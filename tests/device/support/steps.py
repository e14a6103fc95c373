"""Changes at a device that the daemon has received, and its tables read after them."""
from __future__ import annotations

import itertools
from collections.abc import Sequence
from xml.sax.saxutils import escape

from .device import Device

CACHE_SECONDS = 61  # a table keeps what it has read for 60 s

Command = list[str]  # words of talctl
_numbers = itertools.count(1)


def put(path: str, text: str) -> Command:
    """Sets a leaf, or creates it. The data service sends nothing if the text is the same."""
    name = path.rsplit("/", 1)[-1]
    return ["patch", path, f"<{name}>{escape(text)}</{name}>"]


def write(path: str, text: str) -> list[Command]:
    """The same, but the text is always sent."""
    return [put(path, f"before {next(_numbers)}"), put(path, text)]


def apply(device: Device, commands: Sequence[Command] = (), dbus: bool = True) -> None:
    """Runs commands of talctl, waits until the daemon has received what they send, and lets its tables expire."""
    device.carry_out(commands, dbus=dbus)
    device.shift_clock(CACHE_SECONDS)


def integers(device: Device, oids: Sequence[str]) -> list[int]:
    """The values of integer objects, read in one request."""
    answers = device.snmp.get(*oids)
    assert all(kind in ("INTEGER", "Gauge32") for kind, _ in answers), answers
    return [int(text) for _, text in answers]
