"""Agents of versions 1 and 2c without a device, with the objects of golden walks or other answers."""
from __future__ import annotations

import bisect
import select
import socket
import threading
import time
from collections.abc import Callable

import walks  # the path is set by those who import this

from . import ber
from .ber import Oid
from .catalogue import COLUMN_OIDS, SCALAR_OIDS
from .snmp import PRIVATE_MIB, Variable

Answer = Callable[[ber.Answer, bytes], list[bytes]]  # of a request as read and as sent

UP_TIMES = {ber.numbers(oid) for oid in ("1.3.6.1.2.1.1.3.0", "1.3.6.1.2.1.25.1.1.0")}
KINDS = {"STRING": lambda text: ber.field(ber.OCTETS, text.encode("latin-1")),
         "INTEGER": lambda text: ber.integer(int(text)), "Gauge32": lambda text: ber.integer(int(text), ber.GAUGE)}
MISSING, END = ber.field(0x80, b""), ber.field(0x82, b"")
LARGEST = 1400  # bytes of an answer


class WalkAgent:
    def __init__(self, walk: str, name: str, changed: dict[str, str] | None = None) -> None:
        """A device in order. Without a walk it is a snmpd alone."""
        self.items = {item.oid: item for item in walks.read(walk)} if walk else {}
        self.values = {ber.numbers(item.oid): KINDS[item.type](item.value) for item in self.items.values()}
        tone = {"lineInStatus.1": "2"} if walk == "6410" else {}  # failed in the golden walk
        self.change(tone | (changed or {}))
        for number, text in {1: "Linux", 4: "operations@example.com", 5: name, 6: "Equipment room 1"}.items():
            self.values[1, 3, 6, 1, 2, 1, 1, number, 0] = ber.field(ber.OCTETS, text.encode())
        self.values[1, 3, 6, 1, 2, 1, 1, 2, 0] = ber.field(ber.OBJECT, ber.arcs((1, 3, 6, 1, 4, 1, 8072, 3, 2, 10)))
        self.values |= dict.fromkeys(UP_TIMES, b"")
        self.order = sorted(self.values)

    @property
    def variables(self) -> list[Variable]:
        return [Variable(f".{item.oid}", item.type, item.value) for item in self.items.values()]

    def change(self, changed: dict[str, str]) -> dict[str, str]:
        """Objects, e.g. fanSpeed.1, to other values. Returns the former ones."""
        former = {}
        for name, text in changed.items():
            column, _, row = name.partition(".")
            oid = (f"{COLUMN_OIDS[column]}.{row}" if row else SCALAR_OIDS[column]).removeprefix(".")
            former[name] = self.items[oid].value
            self.items[oid] = self.items[oid]._replace(value=text)
            self.values[ber.numbers(oid)] = KINDS[self.items[oid].type](text)
        return former

    def answer(self, asked: ber.Answer, _: bytes = b"") -> list[bytes]:
        if asked.community != b"public":
            return []
        oids = [one.oid for one in asked.bindings]
        if asked.kind == ber.GET:
            bindings = [ber.varbind(oid, self._value(oid)) for oid in oids]
        elif asked.kind == ber.GETNEXT:
            bindings = [self._next(oid)[1] for oid in oids]
        else:
            bindings = self._bulk(oids, asked.error, asked.index)
        return [ber.message(ber.RESPONSE, asked.number, bindings, asked.version)]

    def _value(self, oid: Oid) -> bytes:
        if oid in UP_TIMES:
            return ber.integer(int(time.monotonic() * 100) + 10**8, ber.TICKS)
        return self.values.get(oid, MISSING)

    def _next(self, oid: Oid) -> tuple[Oid, bytes]:
        place = bisect.bisect_right(self.order, oid)
        if place == len(self.order):
            return oid, ber.varbind(oid, END)
        return self.order[place], ber.varbind(self.order[place], self._value(self.order[place]))

    def _bulk(self, oids: list[Oid], once: int, repetitions: int) -> list[bytes]:
        bindings = [self._next(oid)[1] for oid in oids[:once]]
        repeated, size = oids[once:], 0
        for _ in range(repetitions if repeated else 0):
            found = [self._next(oid) for oid in repeated]
            size += sum(len(binding) for _, binding in found)
            if size > LARGEST and len(bindings) > once:
                break
            repeated = [oid for oid, _ in found]
            bindings += [binding for _, binding in found]
        return bindings


def silent(*_) -> list[bytes]:
    return []


class Agents(threading.Thread):
    """Answers at loopback addresses and ports until `stop`."""

    def __init__(self, answers: dict[tuple[str, int], Answer]) -> None:
        super().__init__(daemon=True)
        self.answers = answers
        self.poll = select.poll()
        self.sockets: dict[int, socket.socket] = {}
        for address in answers:
            one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            one.bind(address)
            self.sockets[one.fileno()] = one
            self.poll.register(one, select.POLLIN)
        self.running = True

    def run(self) -> None:
        while self.running:
            for number, _ in self.poll.poll(100):
                data, sender = self.sockets[number].recvfrom(65535)
                self.reply(self.sockets[number], data, sender)

    def reply(self, one: socket.socket, data: bytes, sender: tuple[str, int]) -> None:
        self.sender = sender
        try:
            answers = self.answers[one.getsockname()](ber.answer(data), data)
        except (ber.Malformed, ValueError, IndexError):  # as snmpd; or of version 3
            return
        for answer in answers:
            one.sendto(answer, sender)

    def stop(self) -> None:
        self.running = False
        self.join()
        for one in self.sockets.values():
            one.close()


def trap_command(sender: str, receiver: str, arc: int, *, name: str = "pa-device", level: int = 2, text: str) -> list[str]:
    """snmptrap with a device's notification."""
    base = f"{PRIVATE_MIB}.2.4"
    return ["snmptrap", "-v2c", "-c", "public", f"--clientAddr={sender}", receiver, "0", f"{PRIVATE_MIB}.2.8.{arc}",
            f"{base}.1.0", "s", "Orvane IPKiosk", f"{base}.2.0", "s", "device", ".1.3.6.1.2.1.1.5", "s", name,
            f"{base}.3.0", "i", str(level), f"{base}.4.0", "s", "Sat Jun  1 10.02.03 2024\n", f"{base}.5.0", "s", text]
