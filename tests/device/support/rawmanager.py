"""Managers that send any bytes: sockets made inside a device and used outside of it."""
from __future__ import annotations

import itertools
import select
import socket
import subprocess
import time
from collections.abc import Sequence

from . import ber
from .device import Device
from .snmp import END_OF_VIEW, PRIVATE_MIB

ROOT = ber.numbers(PRIVATE_MIB)
_AT_ONCE = 100  # descriptors in one message; the kernel's limit is 253

# Runs inside the device and sends the sockets through its standard input.
_MAKE_SOCKETS = """
import socket, sys
out = socket.socket(fileno=0)
address = sys.argv[1]
for count in map(int, sys.argv[2:]):
    made = [socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET, socket.SOCK_DGRAM)
            for _ in range(count)]
    for one in made:
        one.connect((address, 161))
    socket.send_fds(out, [b"x"], [one.fileno() for one in made])
    for one in made:
        one.close()
"""


def sockets(device: Device, count: int, address: str = "127.0.0.1") -> list[socket.socket]:
    """UDP sockets in the device's network, connected to its snmpd, each with another port."""
    parts = [_AT_ONCE] * (count // _AT_ONCE) + [count % _AT_ONCE] * (count % _AT_ONCE > 0)
    here, there = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    with here, there:
        maker = device.popen(["/usr/bin/python3", "-c", _MAKE_SOCKETS, address, *map(str, parts)],
                             stdin=there, stderr=subprocess.PIPE, text=True)
        there.close()
        here.settimeout(20)
        found: list[socket.socket] = []
        while len(found) < count:
            word, descriptors, _, _ = socket.recv_fds(here, 1, _AT_ONCE)
            assert word, maker.communicate()[1]
            found += [socket.socket(fileno=descriptor) for descriptor in descriptors]
        maker.communicate()
    return found


class RawManager:
    """One manager. It repeats requests without an answer."""

    _numbers = itertools.count(1_000_000)  # unlike those of the tests

    def __init__(self, socket_inside: socket.socket) -> None:
        self.socket = socket_inside

    @staticmethod
    def of(device: Device, address: str = "127.0.0.1") -> RawManager:
        return RawManager(sockets(device, 1, address)[0])

    def close(self) -> None:
        self.socket.close()

    def send(self, data: bytes) -> None:
        try:
            self.socket.send(data)
        except ConnectionRefusedError:  # of the packet before
            self.socket.send(data)

    def receive(self, timeout: float) -> bytes | None:
        """The next datagram; None when none comes in time."""
        limit = time.monotonic() + timeout
        while select.select([self.socket], [], [], max(0.0, limit - time.monotonic()))[0]:
            try:
                return self.socket.recv(65536)
            except ConnectionRefusedError:  # snmpd does not run
                pass
        return None

    def drain(self) -> list[bytes]:
        """All datagrams that have arrived."""
        return list(iter(lambda: self.receive(0), None))

    def begin(self, kind: int, oids: Sequence[ber.Oid], value: bytes = ber.field(ber.NULL, b""), **message) -> int:
        """Sends one request; returns its number."""
        number = next(self._numbers)
        self.send(ber.message(kind, number, [ber.varbind(oid, value) for oid in oids], **message))
        return number

    def answer_to(self, number: int, timeout: float) -> ber.Answer | None:
        limit = time.monotonic() + timeout
        while (data := self.receive(max(0.0, limit - time.monotonic()))) is not None:
            answer = ber.answer(data)
            if answer.number == number:
                return answer
        return None

    def ask(self, kind: int, oids: Sequence[ber.Oid], value: bytes = ber.field(ber.NULL, b""), timeout: float = 2.0,
            tries: int = 5, **message) -> ber.Answer:
        for _ in range(tries):
            answer = self.answer_to(self.begin(kind, oids, value, **message), timeout)
            if answer is not None:
                return answer
        raise AssertionError(f"no answer to {kind:#x} of {[ber.dotted(oid) for oid in oids][:5]}")

    def try_get(self, oid: ber.Oid, timeout: float = 0.5) -> tuple[str, str] | None:
        """None when no answer comes at once, or an error."""
        answer = self.answer_to(self.begin(ber.GET, [oid]), timeout)
        return answer.bindings[0].value if answer is not None and answer.error == 0 else None

    def walk(self, root: ber.Oid = ROOT, repetitions: int = 0) -> list[ber.Binding]:
        """With GETBULK, unless `repetitions` is 0. The names must ascend."""
        found: list[ber.Binding] = []
        last = root
        while True:
            kind = ber.GETBULK if repetitions else ber.GETNEXT
            answer = self.ask(kind, [last], second=repetitions)
            assert answer.error == 0, answer
            for binding in answer.bindings:
                if binding.value == END_OF_VIEW or binding.oid[:len(root)] != root:
                    return found
                assert binding.oid > last, f"{ber.dotted(binding.oid)} after {ber.dotted(last)}"
                found.append(binding)
                last = binding.oid
