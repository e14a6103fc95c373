"""Agents on loopback addresses: devices with the objects of golden walks, others, a plain snmpd."""
from __future__ import annotations

import os
import socket
import subprocess
from pathlib import Path

from prometheus_files import walks  # it also sets the path for the next three
from support import ber, walkagent
from support.polling import wait_until
from support.walkagent import Answer, WalkAgent

PORT = 31161

# System names that would end a line, a text or an object in some format.
HOSTILE = ['hall\n}\ndefine host {\n    host_name  evil', 'a" }\nobject Host "evil" { address = "x',
           "name; comment $USER1$ \\", "=cmd|' /C calc'!A0", "\x1b[31mred\x1b[0m", "right\u202eleft\u2028",
           '</name>{"a": 1},]{{ x }}%{y}${z}', "", "x" * 255, "Größe 5 名"]
NAMES = [*HOSTILE, *(f"hall-{number}" for number in range(20))]


def after(silent: int, answer: Answer) -> Answer:
    """Does not answer that many requests."""
    count = iter(range(1000))
    return lambda asked, data: answer(asked, data) if next(count) >= silent else []


def always(value: bytes, **error: int) -> Answer:
    """The same value for each object."""
    return lambda asked, _: [ber.message(ber.RESPONSE, asked.number, [ber.varbind(one.oid, value) for one in asked.bindings],
                                         **error)]


FOREIGN: dict[str, Answer] = {
    "127.0.20.2": lambda asked, data: [data],  # an echo
    "127.0.20.3": lambda asked, data: [b"", b"\x30", os.urandom(60), b"\x30\x84\xff\xff\xff\xff", b"\x30\x80" * 20000],
    "127.0.20.5": always(ber.integer(6420), first=ber.GENERAL_ERROR, second=1),
    "127.0.20.6": always(ber.field(ber.OCTETS, b"6420")),
    "127.0.20.7": lambda asked, data: [ber.message(ber.RESPONSE, asked.number, [])],
}
MODELS = walks.NAMES[:13] + ["6211-compact", "6214-extended", "6259-extended", "6891-compact"]  # seventeen
LOSSY, TWICE = "127.0.10.60", "127.0.10.61"
PLAYED = {f"127.0.10.{number * 3 + 1}": (NAMES[number], model) for number, model in enumerate(MODELS)}
PLAYED |= {LOSSY: ("lossy", "6410"), TWICE: ("twice", "6425")}


class Agents(walkagent.Agents):
    """All of these."""

    def __init__(self) -> None:
        answers = FOREIGN | {address: WalkAgent(model, name).answer for address, (name, model) in PLAYED.items()}
        answers[LOSSY] = after(2, answers[LOSSY])
        once = answers[TWICE]
        answers[TWICE] = lambda asked, data: once(asked, data) * 2
        answers["127.0.20.4"] = self._wrong_number
        super().__init__({(address, PORT): answer for address, answer in answers.items()})
        self.strangers = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.strangers.bind(("127.0.20.9", 0))

    def _wrong_number(self, asked: ber.Answer, _: bytes) -> list[bytes]:
        """Also an answer from another address, as if it were that of a device."""
        self.strangers.sendto(WalkAgent("6420", "stranger").answer(asked)[0], self.sender)
        return WalkAgent("6420", "wrong number").answer(asked._replace(number=asked.number + 8))


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
