"""A device for tests of managers: its daemon, snmpd and values are the same after each test as before it."""
from __future__ import annotations

import bisect
from collections.abc import Iterator
from typing import NamedTuple

from . import ber, steps
from .catalogue import Table
from .device import Device
from .rawmanager import RawManager
from .walks import Walk, wait_for_lines

NULL = ber.field(ber.NULL, b"")
GREATEST = 2 ** 31 - 1  # of an INTEGER


class Target(NamedTuple):
    device: Device
    manager: RawManager
    walk: list[ber.Binding]  # what it serves all the time

    def oids(self) -> list[ber.Oid]:
        return [binding.oid for binding in self.walk]

    def value_of(self, oid: ber.Oid) -> tuple[str, str]:
        return self.walk[self.oids().index(oid)].value

    def following(self, oid: ber.Oid) -> list[ber.Binding]:
        return self.walk[bisect.bisect_right(self.oids(), oid):]


OPTIONS = ["--no-dbus", "--no-traps", "--clock-shift"]


def make_target(device: Device, model: Walk) -> Target:
    device.wait_answering().wait_subscribed()
    steps.apply(device, dbus=False)
    wait_for_lines(device, model)
    manager = RawManager.of(device)
    return Target(device, manager, manager.walk())


def intact(target: Target) -> Iterator[Target]:
    before = target.device.kvsnmp_pid(), target.device.wait_snmpd()
    yield target
    target.manager.drain()
    assert (target.device.kvsnmp_pid(), target.device.wait_snmpd()) == before
    target.device.shift_clock(steps.CACHE_SECONDS)
    assert target.manager.walk() == target.walk
    assert target.device.complaints() == []


def entry_of(table: Table) -> ber.Oid:
    return ber.numbers(table.oid(table.columns[0][0]))[:-1]
