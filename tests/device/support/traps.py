"""Traps: a snmptrapd inside a device, and faults that raise traps."""
from __future__ import annotations

import datetime
import itertools
import json
import re
import subprocess
from collections import Counter
from collections.abc import Iterable
from typing import NamedTuple

from .catalogue import TRAP_OF
from .polling import wait_until
from .snmp import PRIVATE_MIB as E

SYS_UP_TIME = ".1.3.6.1.2.1.1.3.0"
TRAP_OID = ".1.3.6.1.6.3.1.1.4.1.0"
SYS_NAME = ".1.3.6.1.2.1.1.5"
PRODUCT, HOST_NAME, LEVEL, TIME, DESCRIPTION = (f"{E}.2.4.{number}.0" for number in range(1, 6))


class Variable(NamedTuple):
    oid: str
    type: str
    value: object  # bytes of a text, int of a number, text of anything else


class Trap(NamedTuple):
    kind: str  # "TRAP2" or "INFORM"
    variables: list[Variable]

    def value(self, oid: str) -> object:
        """The one value with this OID; None when it is missing."""
        values = [variable.value for variable in self.variables if variable.oid == oid]
        assert len(values) <= 1, f"{oid} twice in {self}"
        return values[0] if values else None

    @property
    def oid(self) -> str:
        return str(self.variables[1].value)

    @property
    def is_fault(self) -> bool:
        return self.oid.startswith(f"{E}.2.8.")

    @property
    def description(self) -> str:
        value = self.value(DESCRIPTION)
        return value.decode() if isinstance(value, bytes) else ""


# Between bytes that no text has: the security line, which names the kind, and the variables, texts in hexadecimal.
_FORMAT = r"\x02%P\x1d%V\x1f%v\x1e\n"


class TrapReceiver:
    """A snmptrapd on a port of the device's loopback."""

    def __init__(self, device, port: int = 162) -> None:
        self._log = device.path(f"/tmp/traps.{port}")
        self._place, self._pending = 0, b""
        self._received: list[Trap] = []
        configuration = device.path(f"/tmp/snmptrapd.{port}.conf")
        configuration.write_text("disableAuthorization yes\n[snmp] serverRecvBuf 8000000\ndoNotLogTraps no\n"
                                 "format2 " + _FORMAT.encode().decode("unicode_escape").replace("\n", "\\n") + "\n")
        with open(self._log, "wb") as log:
            self._process = device.popen(
                ["snmptrapd", "-f", "-n", "-On", "-Ox", "-Lo", "-C", "-c", f"/tmp/snmptrapd.{port}.conf", "-m", "",
                 f"udp:127.0.0.1:{port}"], stdout=log, stderr=subprocess.STDOUT)
        wait_until(lambda: any(line.split()[1].endswith(f":{port:04X}")
                               for line in device.run(["cat", "/proc/net/udp"]).stdout.splitlines()),
                   what=f"snmptrapd listening on port {port}")

    @property
    def received(self) -> list[Trap]:
        """All fault traps so far, in order, without those that snmpd sends about its start and end."""
        with open(self._log, "rb") as log:
            log.seek(self._place)
            self._pending += log.read()
            self._place = log.tell()
        *records, self._pending = self._pending.split(b"\x1e")
        traps = [self._trap(record.partition(b"\x02")[2].decode(errors="replace")) for record in records]
        self._received += [trap for trap in traps if trap.is_fault]
        return self._received

    def with_description(self, *descriptions: str) -> list[Trap]:
        return [trap for trap in self.received if trap.description in descriptions]

    def wait_for(self, *descriptions: str, timeout: float = 10.0) -> list[Trap]:
        """Until each description has a trap; all traps with these descriptions, in the order of arrival."""
        def missing() -> set[str]:
            return set(descriptions) - {trap.description for trap in self.received}

        wait_until(lambda: not missing(), timeout, what=f"traps of {sorted(missing())[:5]}")
        return self.with_description(*descriptions)

    def counts(self, prefix: str) -> Counter[str]:
        """How often each description with this prefix was received."""
        return Counter(trap.description for trap in self.received if trap.description.startswith(prefix))

    def _trap(self, record: str) -> Trap:
        security, _, variables = record.partition("\x1d")
        return Trap(security.partition(",")[0], [self._variable(variable) for variable in variables.split("\x1f")])

    @staticmethod
    def _variable(text: str) -> Variable:
        oid, _, value = text.partition(" = ")
        kind, _, value = value.partition(": ")
        if kind == '""':
            return Variable(oid, "STRING", b"")
        if kind == "Hex-STRING":
            return Variable(oid, "STRING", bytes.fromhex(value))
        if kind == "INTEGER":
            return Variable(oid, kind, int(value))
        return Variable(oid, kind, value)


class Faults:
    """Raises faults in the simulator, each with its own reference and text."""

    def __init__(self, device) -> None:
        self._device = device
        self._numbers = itertools.count(1)
        self.raised: dict[str, str] = {}  # text to reference

    def new_texts(self, topic: str, count: int) -> list[str]:
        return [f"{topic} {next(self._numbers)}" for _ in range(count)]

    def raise_line(self, identifier: str, text: str, level: str = "err", timestamp: str = "1717228923",
                   replace: bool = False) -> str:
        """The line of a talctl batch that raises a fault."""
        reference = self.raised.setdefault(text, f"r{len(self.raised) + 1}")
        words = ["fault", "raise", "tests", reference, identifier, level, text, "--timestamp", timestamp, "--any"]
        return json.dumps(words + (["--replace"] if replace else []))

    def clear_line(self, text: str) -> str:
        return json.dumps(["fault", "clear", "tests", self.raised[text]])

    def raise_all(self, identifier: str, texts: Iterable[str], **arguments) -> None:
        self._device.talctl_batch([self.raise_line(identifier, text, **arguments) for text in texts])

    def raise_one(self, identifier: str, text: str, **arguments) -> None:
        self.raise_all(identifier, [text], **arguments)

    def clear_all(self, texts: Iterable[str]) -> None:
        self._device.talctl_batch([self.clear_line(text) for text in texts])

    def clear_everything(self) -> None:
        listed = [line.split("\t")[:2] for line in self._device.talctl("fault", "list").splitlines()]
        self._device.talctl_batch([json.dumps(["fault", "clear", *names]) for names in listed])

    def mark(self, receiver: TrapReceiver, timeout: float = 10.0) -> None:
        """Raises one more fault and waits for its trap, so that all earlier traps have arrived."""
        text = self.new_texts("mark", 1)[0]
        self.raise_one("custom_msg", text)
        receiver.wait_for(text, timeout=timeout)
        self.clear_all([text])


def switch(device, trap: str, on: bool) -> None:
    device.talctl("trap", "enable" if on else "disable", trap)


def time_text(seconds: int, zone: datetime.tzinfo) -> bytes:
    """As asctime() writes it, with points for colons, and with its final line feed."""
    at = datetime.datetime(1970, 1, 1, tzinfo=datetime.timezone.utc) + datetime.timedelta(seconds=seconds)
    local = at.astimezone(zone)
    return f"{local:%a %b} {local.day:2} {local:%H.%M.%S} {local.year}\n".encode()


def send_results(device, text: str) -> list[str]:
    """The logged results of the attempts to send the trap with this text: SUCCESS or FAILED."""
    return re.findall(rf"Trap fault ID: \d+ description: {re.escape(text)} ->Send (\w+)\n", device.kvsnmp_err())


def expected_variables(identifier: str, text: str, level: int, at: bytes, system_name: bytes = b"") -> list[Variable]:
    """All variables of a trap after sysUpTime, in order."""
    return [
        Variable(TRAP_OID, "OID", f"{E}.2.8.{TRAP_OF[identifier].arc}"),
        Variable(PRODUCT, "STRING", b"Orvane IPKiosk"),
        Variable(HOST_NAME, "STRING", b"device"),
        *([Variable(SYS_NAME, "STRING", system_name)] if system_name else []),
        Variable(LEVEL, "INTEGER", level),
        Variable(TIME, "STRING", at),
        Variable(DESCRIPTION, "STRING", text.encode()),
    ]
