"""Where a device's values come from: its control socket, its snmpd, its logs and the file of its traps."""
from __future__ import annotations

import asyncio
import json
import re
import time
from pathlib import Path
from typing import Any

import rows
from devicelib import sandbox
from devicelib.programs import RECORD_END, TIME_END, VARIABLE_END
from devicelib.registry import Running
from devicelib.settings import STATE_FOLDER, TAL_CONTROL
from rows import Facts

SNMPGET = ["snmpget", "-v2c", "-r", "0", "-t", "2", "-m", "", "-On", "-Oe", "-OQ", "-OU", "-Ot", "-c"]


class Refused(Exception):
    pass


async def run(command: list[str]) -> str:
    """Its output; its last line is the reason for a failure."""
    process = await asyncio.create_subprocess_exec(*command, stdout=asyncio.subprocess.PIPE,
                                                   stderr=asyncio.subprocess.STDOUT)
    output = (await process.communicate())[0].decode(errors="replace")
    if process.returncode:
        raise Refused(output.strip().rpartition("\n")[2] or f"status {process.returncode}")
    return output


class Tail:
    """The whole records that were appended to a file since the last look."""

    def __init__(self, file: Path, most: int, end: bytes = b"\n") -> None:
        self._file, self._end = file, end
        self._at = max(0, file.stat().st_size - most) if file.exists() else 0

    def read(self) -> list[str]:
        if not self._file.exists():
            return []
        with open(self._file, "rb") as file:
            if file.seek(0, 2) < self._at:
                self._at = 0
            file.seek(self._at)
            added, end, _ = file.read(1 << 22).rpartition(self._end)
        self._at += len(added + end)
        return [record.decode(errors="replace") for record in added.split(self._end)]


class Unit:
    """One start of a device: talctl's side of its control socket, and what is known of it."""

    def __init__(self, running: Running) -> None:
        self.running, folder = running, running.root / STATE_FOLDER[1:]
        self.text = (running.root / "etc/xr-model").read_text().strip()
        self.cells = rows.cells(running.model, self.text, (folder / "mibs/KVSNMP-MIB").read_text())
        self.facts = Facts(running.model)
        self.loads: dict[str, float] = {}  # when each table was read into its cache
        self.control = f"{running.root}{TAL_CONTROL}"
        self._streams: tuple[asyncio.StreamReader, asyncio.StreamWriter] | None = None
        self._lock = asyncio.Lock()
        self._out = Tail(running.root / "var/log/kvsnmp.out", 0)
        self._err = Tail(running.root / "var/log/kvsnmp.err", 1 << 22)
        self._traps = Tail(running.traps, 1 << 17, RECORD_END)

    async def talctl(self, words: list[str]) -> str:
        async with self._lock:
            try:
                reply = await asyncio.wait_for(self._exchange(words), 3.0)
            except (OSError, ValueError, asyncio.TimeoutError) as error:
                self.close()
                raise Refused("the data service does not answer") from error
        if reply["code"]:
            raise Refused(reply["text"])
        if words[:2] == ["monitor", "gpo"] and len(words) > 3:  # the daemon's log has no control outputs
            self.facts.announced["output", words[2]] = words[3]
        return reply["text"]

    async def _exchange(self, words: list[str]) -> dict[str, Any]:
        if self._streams is None:
            self._streams = await asyncio.open_unix_connection(self.control, limit=1 << 23)
        reader, writer = self._streams
        writer.write(json.dumps(words).encode() + b"\n")
        return json.loads(await reader.readline())

    def close(self) -> None:
        if self._streams:
            self._streams[1].close()
            self._streams = None

    async def take_state(self) -> None:
        self.facts.take(await self.talctl(["get", "/state"]))

    async def take_rest(self) -> None:
        """What only the page of this device needs."""
        if str(self.running.model) in rows.STATIONS:
            lines = [line.split("\t") for line in (await self.talctl(["gpio", "list"])).splitlines()]
            self.facts.lines = {line[0]: line[-1] for line in lines}
        for line in self._out.read():
            if match := re.fullmatch(r"(\w+Table)_load\(\)", line):
                self.loads[match[1]] = time.time()
        for line in self._err.read():
            if match := re.match(r"dbusDo\w+Slot (Amp|GPI): (\d+) (?:Status|State): (.*)", line):
                self.facts.announced["input" if match[1] == "GPI" else "Amp", match[2]] = match[3]
            elif match := re.match(r"dbusDoLetPrecenseUpdateSlot Let: (\d+) Channel: (\d+) Status: (\d+)", line):
                self.facts.announced["Let", match[1], match[2]] = match[3]  # the log's two labels are exchanged

    async def get(self, oids: list[str]) -> dict[str, str]:
        """What a manager reads. One process for a whole device costs less than a library here."""
        device, found = self.running, {}
        where = [self.facts.setting("access_control/community"),
                 f"{device.address}:{device.port}" if device.port else "127.0.0.1"]
        for first in range(0, len(oids), 128):
            command = SNMPGET + where + oids[first:first + 128]
            output = await run(command if device.port else sandbox.enter_command(device.first_process, command))
            lines = re.findall(r"^(\.[\d.]+) = (.*)$", output, re.MULTILINE)
            found |= {oid: value.strip('"') for oid, value in lines if not value.startswith("No ")}
        return found

    def new_traps(self) -> list[dict[str, Any]]:
        """In a fleet's file only those of this system name."""
        own = self.facts.setting("mib_2_settings/sys_name")
        is_shared = not self.running.traps.is_relative_to(self.running.root)
        traps = [trap for record in self._traps.read() if (trap := _trap(record))]
        return [trap for trap in traps if not is_shared or trap["system"] == own]

    def about(self) -> dict[str, Any]:
        device = self.running
        return {"name": device.name, "model": device.model, "text": self.text,
                "address": f"{device.address}:{device.port}" if device.port else "separate network",
                "sysName": self.facts.setting("mib_2_settings/sys_name"),
                "location": self.facts.setting("mib_2_settings/sys_location")}


def _trap(record: str) -> dict[str, Any] | None:
    at, _, variables = record.partition(TIME_END)
    pairs = [part.partition(" = ")[::2] for part in variables.split(VARIABLE_END) if " = " in part]
    values = {name.partition(".")[0] if name[:1] != "." else name: value.strip().strip('"') for name, value in pairs}
    name = values.pop("snmpTrapOID", "") or values.pop(".1.3.6.1.6.3.1.1.4.1.0", "")
    if not name:
        return None
    return {"at": at, "name": name, "level": values.get("trapLevel", ""), "text": values.get("trapDescription", ""),
            "system": values.get("sysName", ""), "values": values}
