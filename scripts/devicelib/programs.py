"""The programs around kvsnmp: their command lines, and the readers of what they write."""
from __future__ import annotations

import os
import re
import signal
import socket
import time
from collections.abc import Callable
from pathlib import Path
from typing import TextIO

from .settings import BIN_FOLDER, GPIO_ROOT, STATE_FOLDER, TAL_CONTROL, TAL_SOCKET, Settings

SEVERITIES = ["emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"]
RECORD_START, RECORD_END = b"\x02", b"\x1e"
TIME_END, VARIABLE_END = "\x1d", "\x1f"
# snmptrapd has no format for the address alone.
SOURCE = re.compile(rb"(snmpTrapAddress\.0 = )UDP: \[([\d.]+)\]\S*?(?=\x1f)")


def wake_at_the_end(handler: Callable[..., None]) -> int:
    """A descriptor that can be read after a signal; `handler` handles those that end a program."""
    wake_read, wake_write = os.pipe2(os.O_NONBLOCK | os.O_CLOEXEC)
    signal.set_wakeup_fd(wake_write, warn_on_full_buffer=False)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, handler)
    return wake_read


def say(text: str, stream: TextIO | None = None) -> None:
    """On standard output unless another stream is given."""
    try:
        print(text, file=stream, flush=True)
    except OSError:  # the reader is gone
        pass


class SyslogSink:
    """/dev/log of the device with this root: one line of /var/log/syslog per message."""

    def __init__(self, root: Path) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self.socket.bind(str(root / "run/devlog"))
        os.chmod(root / "run/devlog", 0o666)
        self._file = open(root / "var/log/syslog", "a", encoding="utf-8", buffering=1)

    def receive(self) -> None:
        while True:
            try:
                message = self.socket.recv(65536).decode(errors="replace")
            except BlockingIOError:
                return
            self._file.write(f"{time.time():.6f} {self._line(message)}\n")

    @staticmethod
    def _line(message: str) -> str:
        """"<30>Nov 21 07:00:00 kv-snmp[5]: text" as "info kv-snmp[5]: text"."""
        severity = "notice"
        if message.startswith("<") and ">" in message:
            number, message = message[1:].split(">", 1)
            severity = SEVERITIES[int(number) & 7] if number.isdigit() else severity
        if message[3:4] == " " and message[15:16] == " ":
            message = message[16:]
        return f"{severity} {message.rstrip(chr(0)).rstrip()}"


class TrapPrinter:
    """Splits snmptrapd's output into records and prints each on one line."""

    def __init__(self, stream, log: Path, to: TextIO | None = None) -> None:
        self.stream, self._to = stream, to
        os.set_blocking(stream.fileno(), False)
        self._pending = b""
        self._log = open(log, "ab", buffering=0)

    def receive(self) -> bool:
        """False when snmptrapd has closed its output."""
        while chunk := self._read():
            self._pending += chunk
            *records, self._pending = self._pending.split(RECORD_END)
            for record in records:
                record = record.partition(RECORD_START)[2]  # before it: snmptrapd's output at its start
                record = SOURCE.sub(rb"\1\2", record, count=1)
                self._log.write(record + RECORD_END)
                self._print(record.decode(errors="replace"))
        return chunk is None

    def _read(self) -> bytes | None:
        try:
            return os.read(self.stream.fileno(), 65536)
        except BlockingIOError:
            return None

    def _print(self, record: str) -> None:
        at, _, variables = record.partition(TIME_END)
        name, shown = "trap", []
        for variable in variables.split(VARIABLE_END):
            label, _, value = variable.replace("\n", "\\n").partition(" = ")
            if label.startswith(("snmpTrapOID", ".1.3.6.1.6.3.1.1.4.1")):
                name = value
            elif not label.startswith(("sysUpTime", ".1.3.6.1.2.1.1.3")):
                shown.append(f"{label} = {value}")
        say(f"trap {at} {name}: " + ", ".join(shown), self._to)


def talservice_command(settings: Settings) -> list[str]:
    prefix = "/state/config/snmp_settings/"
    command = [f"{BIN_FOLDER}/talservice", "--model", str(settings.model), "--socket", TAL_SOCKET,
               "--control", TAL_CONTROL, "--gpio-root", GPIO_ROOT, "--bus", "system" if settings.dbus else "none"]
    if settings.port:
        command += ["--set", f"{prefix}access_control/snmp_port={settings.port_setting}"]
    if settings.trap_target or settings.traps and settings.trap_port != 162:
        command += ["--set", f"{prefix}trap_settings/trap_address={settings.trap_receiver}"]
    return command + settings.simulator_args


def snmptrapd_command(settings: Settings) -> list[str]:
    names = "-On" if settings.numeric_traps else "-OQs"
    # Only the device's modules: -M without a plus sign hides the host's.
    return ["snmptrapd", "-f", "-n", names, "-Lo", "-C", "-c", "/etc/snmptrapd.conf",
            "-M", f"{STATE_FOLDER}/mibs", "-m", "" if settings.numeric_traps else "ALL",
            f"udp:127.0.0.1:{settings.trap_port}"]
