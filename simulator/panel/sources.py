"""Where a device's values come from: its control socket, its snmpd, its logs and the file of its traps."""
from __future__ import annotations

import asyncio
import contextlib
import json
import re
import time
from pathlib import Path
from typing import Any

from devicelib import sandbox
from devicelib.registry import Running
from devicelib.settings import TAL_CONTROL

ANSWER_SECONDS = 3.0
MOST_NAMES = 128  # that snmpget takes
TIME_END, VARIABLE_END, RECORD_END = "\x1d", "\x1f", b"\x1e"
UPTIME, PACKETS = ".1.3.6.1.2.1.1.3.0", ".1.3.6.1.2.1.11.1.0"


class Refused(Exception):
    pass


class Control:
    """talctl's side of the control socket; one connection for all commands."""

    def __init__(self, running: Running) -> None:
        self.path = f"{running.root}{TAL_CONTROL}"
        self._streams: tuple[asyncio.StreamReader, asyncio.StreamWriter] | None = None
        self._lock = asyncio.Lock()

    async def ask(self, words: list[str]) -> str:
        async with self._lock:
            try:
                return await asyncio.wait_for(self._ask(words), ANSWER_SECONDS)
            except (OSError, ValueError, asyncio.TimeoutError) as error:
                self.close()
                raise Refused("the data service does not answer") from error

    async def _ask(self, words: list[str]) -> str:
        if self._streams is None:
            self._streams = await asyncio.open_unix_connection(self.path, limit=1 << 23)
        reader, writer = self._streams
        writer.write(json.dumps(words).encode() + b"\n")
        reply = json.loads(await reader.readline())
        if reply["code"]:
            raise Refused(reply["text"])
        return reply["text"]

    def close(self) -> None:
        if self._streams:
            self._streams[1].close()
            self._streams = None


class Manager:
    """Asks the device's snmpd with net-snmp's snmpget: one process for a whole device costs less than a library here."""

    def __init__(self, running: Running) -> None:
        self._running = running
        self.sent = 0

    async def get(self, oids: list[str], community: str) -> dict[str, str] | None:
        """The values by OID, without those that do not exist; None if nothing answers within a second."""
        found: dict[str, str] = {}
        for first in range(0, len(oids), MOST_NAMES):
            answer = await self._get(oids[first:first + MOST_NAMES], community)
            if answer is None:
                return None
            found |= answer
        return found

    async def _get(self, oids: list[str], community: str) -> dict[str, str] | None:
        device = self._running
        command = ["snmpget", "-v2c", "-c", community, "-r", "0", "-t", "1", "-m", "", "-On", "-Oe", "-OQ", "-OU",
            "-Ot",
                   f"{device.address}:{device.port}" if device.port else "127.0.0.1", *oids]
        if not device.port:
            command = sandbox.enter_command(device.first_process, command)
        self.sent += 1
        process = await asyncio.create_subprocess_exec(*command, stdout=asyncio.subprocess.PIPE,
                                                       stderr=asyncio.subprocess.DEVNULL)
        try:
            output, _ = await asyncio.wait_for(process.communicate(), ANSWER_SECONDS)
        except (asyncio.TimeoutError, asyncio.CancelledError):
            with contextlib.suppress(ProcessLookupError):
                process.kill()
            await process.wait()
            raise
        if process.returncode:
            return None
        lines = re.findall(r"^(\.[\d.]+) = (.*)$", output.decode(errors="replace"), re.MULTILINE)
        return {oid: value.strip('"') for oid, value in lines if not value.startswith("No ")}


class Tail:
    """What was appended to a file since the last look."""

    def __init__(self, file: Path, most: int) -> None:
        self._file, self._rest = file, b""
        self._at = max(0, self._size() - most)

    def _size(self) -> int:
        try:
            return self._file.stat().st_size
        except OSError:
            return 0

    def read(self, end: bytes = b"\n") -> list[str]:
        size = self._size()
        if size < self._at:
            self._at = 0
        if size == self._at:
            return []
        with open(self._file, "rb") as file:
            file.seek(self._at)
            added = file.read(1 << 22)
        self._at += len(added)
        *whole, self._rest = (self._rest + added).split(end)
        return [part.decode(errors="replace") for part in whole]


class Logs:
    """The daemon's debug output: when a table was read into its cache, and what the amplifier monitor announced."""

    def __init__(self, running: Running) -> None:
        self._out = Tail(running.root / "var/log/kvsnmp.out", 0)
        self._err = Tail(running.root / "var/log/kvsnmp.err", 1 << 22)

    def loads(self) -> dict[str, float]:
        now = time.time()
        return {match[1]: now for line in self._out.read() if (match := re.fullmatch(r"(\w+Table)_load\(\)", line))}

    def announced(self) -> dict[tuple[str, ...], str]:
        found: dict[tuple[str, ...], str] = {}
        for line in self._err.read():
            if match := re.match(r"dbusDo\w+Slot (Amp|GPI): (\d+) (?:Status|State): (.*)", line):
                found["input" if match[1] == "GPI" else "Amp", match[2]] = match[3]
            elif match := re.match(r"dbusDoLetPrecenseUpdateSlot Let: (\d+) Channel: (\d+) Status: (\d+)", line):
                found["Let", match[1], match[2]] = match[3]  # the log's two labels are exchanged
        return found


def announcement(words: list[str]) -> dict[tuple[str, ...], str]:
    """What a command of talctl announces; the daemon's log has no control outputs."""
    if words[:2] == ["monitor", "gpo"] and len(words) > 3:
        return {("output", words[2]): words[3]}
    return {}


class Traps:
    """The records of snmptrapd, newest last."""

    def __init__(self, running: Running, host: str) -> None:
        self._tail = Tail(running.traps, 1 << 17)
        # In a fleet's file only the traps of this system name.
        self._host = "" if running.traps.is_relative_to(running.root) else host

    def read(self) -> list[dict[str, Any]]:
        return [trap for record in self._tail.read(RECORD_END)
                if (trap := _trap(record)) and self._host in ("", trap["system"])]


def _trap(record: str) -> dict[str, Any] | None:
    at, _, variables = record.rpartition("\x02")[2].partition(TIME_END)
    pairs = [part.partition(" = ")[::2] for part in variables.split(VARIABLE_END) if " = " in part]
    values = {name.partition(".")[0] if name[:1] != "." else name: value.strip().strip('"') for name, value in pairs}
    name = values.pop("snmpTrapOID", "") or values.pop(".1.3.6.1.6.3.1.1.4.1.0", "")
    if not name:
        return None
    return {"at": at, "name": name, "level": values.get("trapLevel", ""), "text": values.get("trapDescription", ""),
            "system": values.get("sysName", ""), "values": values}

