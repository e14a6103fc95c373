"""Watching: one device in detail, or the worst state of each. Work is done only while a page is open."""
from __future__ import annotations

import asyncio
import collections
import json
import re
import time
import traceback
from pathlib import Path
from typing import Any

import rows
from devicelib import registry, sandbox
from devicelib.registry import Running
from devicelib.settings import COMMAND, STATE_FOLDER, Settings
from sources import PACKETS, UPTIME, Control, Logs, Manager, Refused, Traps, announcement
from state import Facts, has, level, nominal_of, worst

TICK, ASK_TICKS, GPIO_TICKS, TILE_SECONDS = 2.0, 3, 2, 5.0
HISTORY = int(15 * 60 / TICK)
STIR = "touch /etc/snmp/stirred; rm /etc/snmp/stirred"  # the daemon restarts snmpd when the folder changes
KILL = "kill -9 $(cat /run/snmpd.pid)"
MESSAGES = [[row["notification"], row["switch"], row["identifiers"].split()] for row in rows.TRAPS]
AGENT = {"restart": STIR, "kill": KILL}
SCENARIOS = next((folder for folder in (rows.HERE.parent / "scenarios",) if folder.is_dir()), rows.HERE)


def devices() -> dict[str, Running]:
    return {device.name: device for device in registry.running()}


def scenarios(model: int) -> dict[str, str]:
    """Those of a model, each with its first line; a comment names the models."""
    found = {}
    for file in sorted(SCENARIOS.glob("*.tal")):
        text = file.read_text()
        models = re.search(r"^# Models: (.*)", text, re.MULTILINE)
        if not models or "all" in models[1] or str(model) in models[1]:
            found[file.stem] = text.partition("\n")[0].lstrip("# ")
    return found


class Feed:
    """Sends messages to the open pages; runs `look` again and again while there is one."""

    def __init__(self, seconds: float) -> None:
        self._seconds = seconds
        self._pages: set[asyncio.Queue[str | None]] = set()
        self._task: asyncio.Task[None] | None = None

    async def look(self) -> None:
        raise NotImplementedError

    def whole(self) -> dict[str, Any]:
        """What a new page needs."""
        raise NotImplementedError

    def close(self) -> None:
        """After the last page."""

    def subscribe(self) -> asyncio.Queue[str | None]:
        page: asyncio.Queue[str | None] = asyncio.Queue(100)
        page.put_nowait(json.dumps(self.whole()))
        self._pages.add(page)
        if self._task is None:
            self._task = asyncio.get_running_loop().create_task(self._run())
        return page

    def unsubscribe(self, page: asyncio.Queue[str | None]) -> None:
        self._pages.discard(page)
        if not self._pages and self._task:
            self._task.cancel()
            self._task = None
            self.close()

    def send(self, message: dict[str, Any]) -> None:
        text = json.dumps(message)
        for page in list(self._pages):
            if page.qsize() >= page.maxsize - 1:  # its reader has stopped: it may come back
                page.put_nowait(None)
                self._pages.discard(page)
            else:
                page.put_nowait(text)

    async def _run(self) -> None:
        while True:
            begin = time.monotonic()
            try:
                await self.look()
            except Exception:  # of one device, which may just be ending
                traceback.print_exc()
            await asyncio.sleep(max(0.2, self._seconds - (time.monotonic() - begin)))


class Unit:
    """One start of a device, with what is known of it."""

    def __init__(self, running: Running) -> None:
        self.running, self.folder = running, running.root / STATE_FOLDER[1:]
        self.text = (running.root / "etc/xr-model").read_text().strip()
        self.cells = rows.cells(running.model, self.text, (self.folder / "mibs/KVSNMP-MIB").read_text())
        self.facts = Facts(running.model)
        self.control = Control(running)

    async def take(self) -> None:
        self.facts.take(await self.control.ask(["get", "/state"]))

    async def take_lines(self) -> None:
        if str(self.running.model) in rows.STATIONS:
            lines = (line.split("\t") for line in (await self.control.ask(["gpio", "list"])).splitlines())
            self.facts.lines = {line[0]: line[-1] for line in lines}

    def about(self) -> dict[str, Any]:
        device = self.running
        return {"name": device.name, "model": device.model, "text": self.text, "address":
                f"{device.address}:{device.port}" if device.port else "separate network",
                "sysName": self.facts.setting("mib_2_settings/sys_name"),
                "location": self.facts.setting("mib_2_settings/sys_location")}


class Watch(Feed):
    """One device: what it has, what a manager reads, its traps."""

    def __init__(self, name: str) -> None:
        super().__init__(TICK)
        self.name = name
        self.unit: Unit | None = None
        self.view: dict[str, Any] = {}
        self.traps: collections.deque[dict[str, Any]] = collections.deque(maxlen=100)
        self.history: collections.deque[list[Any]] = collections.deque(maxlen=HISTORY)
        self._served: dict[str, str] = {}
        self._packets: collections.deque[tuple[float, int, int]] = collections.deque(maxlen=2 * ASK_TICKS)
        self.only = False  # device of this panel
        self._ticks = 0
        self._process: asyncio.subprocess.Process | None = None

    # Looking

    async def look(self) -> None:
        running = await asyncio.to_thread(devices)
        found = running.get(self.name)
        if self.unit and (not found or found.first_process != self.unit.running.first_process):
            self.close()
        if not found or not found.ready:
            self._show({"status": "starting" if found else "gone"})
            return
        if self.unit is None:
            self._begin(found)
            await self._facts()
            self.send(self.whole())
        await self._facts()
        await self._read()
        self._ticks += 1

    def _begin(self, running: Running) -> None:
        self.unit = Unit(running)
        self.view, self._served, self._ticks = {}, {}, 0
        self._packets.clear()
        self._logs, self._manager = Logs(running), Manager(running)
        self._traps: Traps | None = None
        self.traps.clear()

    async def _facts(self) -> None:
        unit = self.unit
        try:
            await unit.take()
            if self._ticks % GPIO_TICKS == 0:
                await unit.take_lines()
        except Refused as refusal:
            self._show({"status": "silent", "why": str(refusal)})
            return
        unit.facts.announced |= self._logs.announced()
        if self._traps is None:
            self._traps = Traps(unit.running, unit.facts.setting("mib_2_settings/sys_name"))
        new = self._traps.read()
        self.traps.extend(new)
        facts = unit.facts
        self._show({"status": "running", "why": "", "faults": facts.faults, "switches": facts.switches,
                    "about": unit.about(), "worst": worst(facts, unit.cells)} | ({"traps": new} if new else {}))
        self._show_cells()

    async def _read(self) -> None:
        """The packet counter each time, all cells now and then."""
        unit, everything = self.unit, self._ticks % ASK_TICKS == 0
        oids = [UPTIME, PACKETS, *(cell.oid for cell in unit.cells if everything)]
        answer = await self._manager.get(oids, unit.facts.setting("access_control/community"))
        agent: dict[str, Any] = {"answers": answer is not None}
        loads = self.view.get("loads", {}) | self._logs.loads()
        if answer is None:
            self._packets.clear()
        else:
            now, packets = time.monotonic(), int(answer.get(PACKETS, 0))
            if self._packets and packets < self._packets[-1][1]:
                self._packets.clear()  # another snmpd
            self._packets.append((now, packets, self._manager.sent))
            rates = [round((last - first) / (now - self._packets[0][0]), 2) if len(self._packets) > 1 else None
                     for first, last in zip(self._packets[0][1:], self._packets[-1][1:], strict=True)]
            agent |= {"rate": rates[0], "own": rates[1], "uptime": int(answer.get(UPTIME, 0)) // 100}
            # Without a log: a value that differs from the last reading shows that the cache was filled in between.
            changed = {cell.table for cell in unit.cells
                       if cell.oid in answer and answer[cell.oid] != self._served.get(cell.oid, answer[cell.oid])}
            now, since = time.time(), time.time() - 2 * TICK * ASK_TICKS
            loads |= {table: now for table in changed if loads.get(table, 0) < since}
            self._served.update(answer)
        self._show({"agent": agent, "loads": loads})
        self._show_cells()
        cells = self.view["cells"]
        sample = [round(time.time()), agent.get("rate"), {cell.id: cells[cell.id][:2] for cell in _graphed(unit.cells)}]
        self.history.append(sample)
        self.send({"sample": sample})

    async def ask_now(self) -> None:
        """After a click: shows at once what it changed."""
        if self.unit and self.view.get("status") == "running":
            await self._facts()

    def _show_cells(self) -> None:
        unit, cells = self.unit, self.view.setdefault("cells", {})
        changed = {}
        for cell in unit.cells:
            text, code = has(cell, unit.facts)
            served = self._served.get(cell.oid)
            shown = code if code is not None else int(served) if served and served.isdigit() else None
            entry = [text, served, code, level(cell, shown)]
            if cells.get(cell.id) != entry:
                changed[cell.id] = cells[cell.id] = entry
        if changed:
            self.send({"cells": changed})

    def _show(self, view: dict[str, Any]) -> None:
        """Sends the parts that differ from what the pages have."""
        changed = {name: value for name, value in view.items() if name == "traps" or self.view.get(name) != value}
        if changed:
            self.view |= {name: value for name, value in changed.items() if name != "traps"}
            self.send(changed)

    def whole(self) -> dict[str, Any]:
        message = {"status": "gone"} | self.view
        message |= {"now": time.time(), "whole": True, "only": self.only, "command": COMMAND}
        if self.unit:
            message |= {
                "about": self.unit.about(), "model": [_shown(cell) for cell in self.unit.cells],
                "traps": list(self.traps), "history": list(self.history), "messages": MESSAGES,
                "scenarios": scenarios(self.unit.running.model)}
        return message

    def close(self) -> None:
        if self.unit:
            self.unit.control.close()
            self.unit = None

    # Clicks

    async def talctl(self, words: list[str]) -> str:
        answer = await self._unit().control.ask(words)
        self.unit.facts.announced |= announcement(words)
        await self.ask_now()
        return answer

    def _unit(self) -> Unit:
        if self.unit is None:
            raise Refused("the device is gone")
        return self.unit

    async def agent(self, action: str) -> str:
        device = self._unit().running
        command = sandbox.enter_command(device.first_process, ["sh", "-c", AGENT[action]], own_network=not device.port)
        return await self._run_program(command)

    async def scenario(self, name: str) -> str:
        device = self._unit().running
        if name not in scenarios(device.model):
            raise Refused("this model has no such scenario")
        if self._process and self._process.returncode is None:
            raise Refused("a scenario is running already")
        settings = Settings.from_json((self.unit.folder / "settings.json").read_text())
        command = [settings.program("talctl"), "--control", self.unit.control.path, "scenario", name]
        self._process = await asyncio.create_subprocess_exec(*command, stdout=asyncio.subprocess.DEVNULL,
                                                             stderr=asyncio.subprocess.PIPE)
        asyncio.get_running_loop().create_task(self._scenario(name, self._process))
        return ""

    async def _scenario(self, name: str, process: asyncio.subprocess.Process) -> None:
        self._show({"scenario": {"name": name, "state": "running"}})
        _, errors = await process.communicate()
        text = errors.decode(errors="replace").strip().rpartition("\n")[2]
        self._show({"scenario": {"name": name, "state": "ended" if not process.returncode else f"failed: {text}"}})

    async def _run_program(self, command: list[str]) -> str:
        process = await asyncio.create_subprocess_exec(
            *command, stdout=asyncio.subprocess.PIPE, stderr=asyncio.subprocess.STDOUT)
        output, _ = await process.communicate()
        if process.returncode:
            raise Refused(output.decode(errors="replace").strip() or f"status {process.returncode}")
        return ""


def _graphed(cells: list[rows.Cell]) -> list[rows.Cell]:
    graphed = ("tempCurrent", "fanSpeed", "voltageValue")
    return [cell for cell in cells if cell.object in graphed or cell.object.endswith("Voltage")]


def _shown(cell: rows.Cell) -> dict[str, Any]:
    return {name: value for name, value in vars(cell).items() if name in (
        "id", "table", "index", "row", "object", "oid", "words", "decimals", "unit", "kind", "path", "controls")} | {
            "nominal": nominal_of(cell) if cell.object == "voltageValue" else 0}


class Fleet(Feed):
    """A tile for each device: only its data service is asked, and the kernel whether a program has the SNMP port."""

    def __init__(self) -> None:
        super().__init__(TILE_SECONDS)
        self.units: dict[str, Unit] = {}
        self.tiles: dict[str, dict[str, Any]] = {}

    async def look(self) -> None:
        running = await asyncio.to_thread(devices)
        for name in [name for name, unit in self.units.items()
                     if name not in running or running[name].first_process != unit.running.first_process]:
            self.units.pop(name).control.close()
        ports = _bound_ports()
        tiles = {}
        for name, device in running.items():
            tiles[name] = await self._tile(device, ports)
            await asyncio.sleep(0.01)  # pages of single devices go first
        changed = {name: tiles.get(name) for name in tiles | self.tiles if tiles.get(name) != self.tiles.get(name)}
        self.tiles = tiles
        if changed:
            self.send({"tiles": changed})

    async def _tile(self, device: Running, ports: set[tuple[str, int]]) -> dict[str, Any]:
        tile: dict[str, Any] = {"name": device.name, "model": device.model, "state": "starting", "faults": 0,
                                "address": f"{device.address}:{device.port}" if device.port else "separate network"}
        if not device.ready:
            return tile
        try:
            unit = self.units.get(device.name) or self.units.setdefault(device.name, Unit(device))
            await unit.take()
        except (Refused, OSError):
            return tile | {"state": "silent"}
        tile |= unit.about() | {"state": worst(unit.facts, unit.cells), "faults": len(unit.facts.faults)}
        if device.port and not ports & {(device.address, device.port), ("0.0.0.0", device.port)}:
            tile["state"] = "silent"
        return tile

    def whole(self) -> dict[str, Any]:
        return {"tiles": self.tiles, "whole": True}

    def close(self) -> None:
        for unit in self.units.values():
            unit.control.close()
        self.units.clear()


def _bound_ports() -> set[tuple[str, int]]:
    found = set()
    for line in Path("/proc/net/udp").read_text().splitlines()[1:]:
        address, _, port = line.split()[1].partition(":")
        found.add((".".join(str(byte) for byte in reversed(bytes.fromhex(address))), int(port, 16)))
    return found
