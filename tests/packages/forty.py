#!/usr/bin/python3
"""Forty devices: 10.1.0.11 to 10.1.0.50, port 161, community public, with the objects of the golden walks. Started as a
program, answers for all of them."""
from __future__ import annotations

import bisect
import itertools
import select
import socket
import sys
import time
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "monitoring"), str(CHECKOUT / "tests/device")]

import walks  # noqa: E402  (the path has to be set first)
from support import ber  # noqa: E402

Oid = tuple[int, ...]

AMPLIFIERS = ["6420", "6410", "6720", "6764", "6425"]
OTHERS = ["6214-extended", "6259", "6211", "6891", "6601", "6602", "6913", "6914"]
ROOMS = ["platform", "hall", "foyer", "stairs", "tunnel", "kitchen", "gate", "office"]
MODELS = {f"10.1.0.{number}": model for number, model in zip(
    range(11, 51), [*(AMPLIFIERS * 4), *itertools.islice(itertools.cycle(OTHERS), 20)])}
NAMES = dict(zip(MODELS, (f"{room}-{floor}" for floor in itertools.count(1) for room in ROOMS)))
# Object below the private MIB's .3 to another value.
FAULTS = {
    "10.1.0.16": {"7.3.1.4.1": "3"},  # the loudspeaker line of channel 1 is shorted
    "10.1.0.23": {"3.2.1.3.1": "0"},  # the left fan stands still
    "10.1.0.29": {"4.2.1.3.3": "2810"},  # 3.3 V is low
}
HEALTHY = {"6410": {"6.1.1.2.1": "2"}}  # of the golden walks, whose first line input has no pilot tone

UP_TIMES = {ber.numbers(oid) for oid in ("1.3.6.1.2.1.1.3.0", "1.3.6.1.2.1.25.1.1.0")}
KINDS = {"STRING": lambda text: ber.field(ber.OCTETS, text.encode("latin-1")),
         "INTEGER": lambda text: ber.integer(int(text)), "Gauge32": lambda text: ber.integer(int(text), ber.GAUGE)}
MISSING, END = ber.field(0x80, b""), ber.field(0x82, b"")
LARGEST = 1400  # bytes of an answer


class Agent:
    def __init__(self, address: str) -> None:
        changed = HEALTHY.get(MODELS[address], {}) | FAULTS.get(address, {})
        self.values = {}
        for item in walks.read(MODELS[address]):
            text = changed.get(item.oid.removeprefix(f"{walks.BASE}."), item.value)
            self.values[ber.numbers(item.oid)] = KINDS[item.type](text)
        assert {ber.numbers(f"{walks.BASE}.{arc}") for arc in changed} <= self.values.keys(), address
        system = {1: "Linux", 4: "operations@example.com", 5: NAMES[address], 6: "Equipment room 1"}
        for number, text in system.items():
            self.values[1, 3, 6, 1, 2, 1, 1, number, 0] = KINDS["STRING"](text)
        self.values[1, 3, 6, 1, 2, 1, 1, 2, 0] = ber.field(ber.OBJECT, ber.arcs((1, 3, 6, 1, 4, 1, 8072, 3, 2, 10)))
        self.values |= dict.fromkeys(UP_TIMES, b"")
        self.order = sorted(self.values)

    def value(self, oid: Oid) -> bytes:
        if oid in UP_TIMES:
            return ber.integer(int(time.monotonic() * 100) + 10**8, ber.TICKS)
        return self.values.get(oid, MISSING)

    def after(self, oid: Oid) -> Oid | None:
        place = bisect.bisect_right(self.order, oid)
        return self.order[place] if place < len(self.order) else None

    def next(self, oid: Oid) -> tuple[Oid, bytes]:
        found = self.after(oid)
        return (oid, ber.varbind(oid, END)) if found is None else (found, ber.varbind(found, self.value(found)))

    def answer(self, data: bytes) -> bytes | None:
        asked = ber.answer(data)
        if asked.community != b"public":
            return None
        oids = [one.oid for one in asked.bindings]
        if asked.kind == ber.GET:
            bindings = [ber.varbind(oid, self.value(oid)) for oid in oids]
        elif asked.kind == ber.GETNEXT:
            bindings = [self.next(oid)[1] for oid in oids]
        else:
            bindings = self.bulk(oids, asked.error, asked.index)
        return ber.message(ber.RESPONSE, asked.number, bindings, asked.version)

    def bulk(self, oids: list[Oid], once: int, repetitions: int) -> list[bytes]:
        bindings = [self.next(oid)[1] for oid in oids[:once]]
        repeated, size = oids[once:], 0
        for _ in range(repetitions if repeated else 0):
            found = [self.next(oid) for oid in repeated]
            size += sum(len(binding) for _, binding in found)
            if size > LARGEST and len(bindings) > once:
                break
            repeated = [oid for oid, _ in found]
            bindings += [binding for _, binding in found]
        return bindings


def main() -> None:
    poll, agents = select.poll(), {}
    for address in MODELS:
        one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        one.bind((address, 161))
        agents[one.fileno()] = one, Agent(address)
        poll.register(one, select.POLLIN)
    while True:
        for number, _ in poll.poll():
            one, agent = agents[number]
            data, sender = one.recvfrom(65535)
            try:
                if answer := agent.answer(data):
                    one.sendto(answer, sender)
            except (ber.Malformed, ValueError, IndexError):  # as snmpd: no answer
                pass


if __name__ == "__main__":
    main()
