"""Agents on loopback addresses: devices with the objects of golden walks, others, real devices, a plain snmpd."""
from __future__ import annotations

import os
import select
import socket
import subprocess
import threading
from collections.abc import Callable
from pathlib import Path

from prometheus_files import walks  # it also sets the path for the next two
from support import ber
from support.polling import wait_until

PORT = 31161
SYS_NAME = "1.3.6.1.2.1.1.5.0"

# System names that would end a line, a text or an object in some format.
HOSTILE = ['hall\n}\ndefine host {\n    host_name  evil', 'a" }\nobject Host "evil" { address = "x',
           "name; comment $USER1$ \\", "=cmd|' /C calc'!A0", "\x1b[31mred\x1b[0m", "right\u202eleft\u2028",
           '</name>{"a": 1},]{{ x }}%{y}${z}', "", "x" * 255, "Größe 5 名"]
NAMES = [*HOSTILE, *(f"hall-{number}" for number in range(20))]

Answer = Callable[[ber.Answer, bytes], list[bytes]]


def played(name: str, model: str) -> Answer:
    """A device with the objects of a golden walk."""
    kinds = {"STRING": lambda text: ber.field(ber.OCTETS, text.encode("latin-1")),
             "INTEGER": lambda text: ber.integer(int(text)), "Gauge32": lambda text: ber.integer(int(text), ber.GAUGE)}
    values = {f".{item.oid}": kinds[item.type](item.value) for item in walks.read(model)}
    values[f".{SYS_NAME}"] = ber.field(ber.OCTETS, name.encode())

    def answer(asked: ber.Answer, _: bytes) -> list[bytes]:
        bindings = [ber.varbind(one.oid, values.get(ber.dotted(one.oid), ber.field(0x80, b""))) for one in asked.bindings]
        return [ber.message(ber.RESPONSE, asked.number, bindings)] if asked.community == b"public" else []

    return answer


def after(silent: int, answer: Answer) -> Answer:
    """Does not answer that many requests."""
    count = iter(range(1000))
    return lambda asked, data: answer(asked, data) if next(count) >= silent else []


def wrong_number(asked: ber.Answer, _: bytes) -> list[bytes]:
    return played("wrong number", "6420")(asked._replace(number=asked.number + 8), b"")


def always(value: bytes, **error: int) -> Answer:
    """The same value for each object."""
    return lambda asked, _: [ber.message(ber.RESPONSE, asked.number, [ber.varbind(one.oid, value) for one in asked.bindings],
                                         **error)]


FOREIGN: dict[str, Answer] = {
    "127.0.20.2": lambda asked, data: [data],  # an echo
    "127.0.20.3": lambda asked, data: [b"", b"\x30", os.urandom(60), b"\x30\x84\xff\xff\xff\xff", b"\x30\x80" * 20000],
    "127.0.20.4": wrong_number,
    "127.0.20.5": always(ber.integer(6420), first=ber.GENERAL_ERROR, second=1),
    "127.0.20.6": always(ber.field(ber.OCTETS, b"6420")),
    "127.0.20.7": lambda asked, data: [ber.message(ber.RESPONSE, asked.number, [])],
}
MODELS = walks.NAMES[:13] + ["6211-compact", "6214-extended", "6259-extended", "6891-compact"]  # seventeen
LOSSY, TWICE = "127.0.10.60", "127.0.10.61"
PLAYED = {f"127.0.10.{number * 3 + 1}": (NAMES[number], model) for number, model in enumerate(MODELS)}
PLAYED |= {LOSSY: ("lossy", "6410"), TWICE: ("twice", "6425")}
REAL = {"127.0.30.2": (6420, 31171), "127.0.30.4": (6214, 31181), "127.0.30.5": (6913, 31191)}


class Agents(threading.Thread):
    """Answers on loopback addresses until `stop`; forwards to the real devices, which have other ports."""

    def __init__(self) -> None:
        super().__init__(daemon=True)
        self.answers = FOREIGN | {address: played(*facts) for address, facts in PLAYED.items()}
        self.answers[LOSSY] = after(2, self.answers[LOSSY])
        once = self.answers[TWICE]
        self.answers[TWICE] = lambda asked, data: once(asked, data) * 2
        self.poll = select.poll()
        self.sockets: dict[int, tuple[socket.socket, str]] = {}
        self.strangers = self._socket(("127.0.20.9", 0))
        for address in [*self.answers, *REAL]:
            one = self._socket((address, PORT))
            self.sockets[one.fileno()] = (one, address)
            self.poll.register(one, select.POLLIN)
        self.running = True

    @staticmethod
    def _socket(address: tuple[str, int]) -> socket.socket:
        one = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        one.bind(address)
        return one

    def run(self) -> None:
        while self.running:
            for number, _ in self.poll.poll(100):
                one, address = self.sockets[number]
                data, sender = one.recvfrom(65535)
                if address in REAL:
                    threading.Thread(target=self._forward, args=(one, data, sender, REAL[address][1]), daemon=True).start()
                    continue
                try:
                    asked = ber.answer(data)
                except ValueError:  # of version 3
                    continue
                if address == "127.0.20.4":  # also an answer from another address, as if it were that of a device
                    self.strangers.sendto(played("stranger", "6420")(asked, data)[0], sender)
                for answer in self.answers[address](asked, data):
                    one.sendto(answer, sender)

    @staticmethod
    def _forward(one: socket.socket, data: bytes, sender: tuple[str, int], port: int) -> None:
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as device:
            device.settimeout(5)
            device.sendto(data, ("127.0.0.1", port))
            one.sendto(device.recv(65535), sender)

    def stop(self) -> None:
        self.running = False
        self.join()


def snmpd(folder: Path, address: str, *lines: str) -> subprocess.Popen:
    """A plain one."""
    folder.mkdir()
    words = [f"agentaddress udp:{address}:{PORT}", "rocommunity public", *lines]
    (folder / "snmpd.conf").write_text("".join(f"{line}\n" for line in words))
    process = subprocess.Popen(
        ["bwrap", "--dev-bind", "/", "/", "--unshare-pid", "--die-with-parent", "--setenv", "SNMP_PERSISTENT_DIR", str(folder),
         "--setenv", "MIBS", "", "snmpd", "-f", "-C", "-c", str(folder / "snmpd.conf"), "-Lf", str(folder / "log")],
        stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    log = folder / "log"
    wait_until(lambda: log.exists() and "NET-SNMP version" in log.read_text(), 20, what="snmpd")
    return process
