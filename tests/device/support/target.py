"""A device for tests of managers: its daemon, snmpd and values are the same after each test as before it."""
from __future__ import annotations

import bisect
from collections.abc import Iterator
from typing import NamedTuple

import pytest

from . import ber, steps
from .ber import GET
from .catalogue import COLUMN_OIDS, COMPACT, Table
from .device import MODEL_NUMBER, Device
from .rawmanager import RawManager
from .walks import Walk, wait_for_lines

MODEL = ber.numbers(MODEL_NUMBER)
VOLTAGE = ber.numbers(COLUMN_OIDS["voltageValue"])
NULL = ber.field(ber.NULL, b"")
GREATEST = 2 ** 31 - 1  # of an INTEGER
SEED = 52717


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

    def flood(self, packets: list[bytes]) -> list[ber.Answer]:
        """Sends them all, no faster than snmpd reads. Returns the answers, each of which is well-formed."""
        answers: list[ber.Answer] = []
        for start in range(0, len(packets), 50):
            for packet in packets[start:start + 50]:
                self.manager.send(packet)
            # Twice: snmpd answers what it asks a sub-agent in any order, but asks it in that of the requests.
            answers += self._answers_before(self.manager.begin(GET, [MODEL]))
            answers += self._answers_before(self.manager.begin(GET, [MODEL]))
        return answers

    def _answers_before(self, number: int) -> list[ber.Answer]:
        answers = []
        while (data := self.manager.receive(5)) is not None:
            answer = ber.answer(data)
            if answer.number == number:
                assert answer.bindings == [(MODEL, ("INTEGER", str(self.device.model)))]
                return answers
            answers.append(answer)
        raise AssertionError("no answer to the GET that was sent last")


AMPLIFIER = Walk(6420)
STATION = Walk(6214, COMPACT)  # with microphones, and with expanders: all the relays


def options(model: Walk) -> list[str]:
    return ["--no-dbus", "--no-traps", "--clock-shift", *(["--model-text", model.text] if model.text else [])]


def make_target(device: Device, model: Walk) -> Target:
    device.wait_answering().wait_subscribed()
    steps.apply(device, dbus=False)
    wait_for_lines(device, model)
    manager = RawManager.of(device)
    return Target(device, manager, manager.walk())


@pytest.fixture(scope="module")
def target_of(start_shared_device):
    """One device of each model that a test uses."""
    targets: dict[Walk, Target] = {}

    def find(model: Walk) -> Target:
        if model not in targets:
            targets[model] = make_target(start_shared_device(model.model, *options(model)), model)
        return targets[model]

    yield find
    for target in targets.values():
        target.manager.close()


@pytest.fixture
def unharmed(target_of, request):
    """The target, an amplifier unless the test names another; it is checked after the test."""
    yield from intact(target_of(getattr(request, "param", AMPLIFIER)))


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
