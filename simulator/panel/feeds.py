"""What pages receive: one device, or the tiles of all. Work is done only while a page is open."""
from __future__ import annotations

import asyncio
import collections
import json
import re
import socket
import time
import traceback
from collections.abc import Awaitable, Callable
from pathlib import Path
from typing import Any

import rows
from devicelib import registry, sandbox
from devicelib.registry import Running
from devicelib.settings import COMMAND, STATE_FOLDER, Settings
from sources import Refused, Unit, run
from rows import has, level, worst

WATCH_SECONDS, TILE_SECONDS = 3.0, 5.0
PACKETS = ".1.3.6.1.2.1.11.1.0"
MESSAGES = [[row["notification"], row["identifiers"].split()] for row in rows.TRAPS]
SCENARIOS = rows.HERE.parent / "scenarios"
# Commands inside the device. The daemon restarts snmpd when the folder changes.
AGENT = {"restart": "touch /etc/snmp/stirred; rm /etc/snmp/stirred", "kill": "kill -9 $(cat /run/snmpd.pid)"}


def devices() -> dict[str, Running]:
    return {device.name: device for device in registry.running()}


class Feed:
    """A view that `look` renews while a page is open. A page receives the parts that differ from what it has."""

    def __init__(self, seconds: float) -> None:
        self.view: dict[str, Any] = {}
        self.history: collections.deque[list[Any]] = collections.deque(maxlen=int(15 * 60 / WATCH_SECONDS))
        self._seconds, self._pages = seconds, 0
        self._task: asyncio.Task[None] | None = None
        self._news = asyncio.Event()

    def publish(self) -> None:
        self._news.set()
        self._news = asyncio.Event()

    async def stream(self, write: Callable[[bytes], Awaitable[None]]) -> None:
        self._pages += 1
        if self._task is None or self._task.done():
            self._task = asyncio.get_running_loop().create_task(self._run())
        sent: dict[str, Any] = {}
        message = self.view | {"history": list(self.history)}
        try:
            while True:
                news = self._news
                sent |= message
                await write(f"data: {json.dumps(message)}\n\n".encode())
                await news.wait()
                message = {part: value for part, value in self.view.items() if part not in sent or sent[part] != value}
        finally:
            self._pages -= 1

    async def _run(self) -> None:
        while self._pages:
            begin = time.monotonic()
            try:
                await self.look()
            except Exception:  # of one device, which may just be ending
                traceback.print_exc()
            self.view["at"] = time.time()
            self.publish()
            await asyncio.sleep(max(0.2, self._seconds - (time.monotonic() - begin)))
        self.close()
        self.view = {}


class Watch(Feed):
    """One device: what it has, what a manager reads, its traps, and the clicks that change it."""

    def __init__(self, name: str, is_only: bool) -> None:
        super().__init__(WATCH_SECONDS)
        self.name, self.is_only = name, is_only
        self.unit: Unit | None = None
        self.scenario = ""
        self._playing: asyncio.Task[None] | None = None

    async def look(self) -> None:
        running = (await asyncio.to_thread(devices)).get(self.name)
        if self.unit and (not running or running.first_process != self.unit.running.first_process):
            self.close()
        if not running or not running.ready:
            self.view["status"] = "starting" if running else "gone"
            return
        if self.unit is None:
            self._begin(running)
        try:
            await self._take()
        except Refused:
            self.view["status"] = "silent"
        rate = await self._read()
        self._show()
        cells = self.view["cells"]
        graphed = {cell.id: cells[cell.id][0] for cell in self.unit.cells if cell.object in rows.GRAPHED}
        self.view["sample"] = [round(time.time()), rate, graphed]
        self.history.append(self.view["sample"])

    def _begin(self, running: Running) -> None:
        unit = self.unit = Unit(running)
        self._served: dict[str, str] = {}
        self._packets: tuple[float, int] | None = None
        self.view = {"model": [vars(cell) for cell in unit.cells], "messages": MESSAGES, "only": self.is_only,
                     "command": COMMAND, "actions": AGENT, "traps": [], "scenarios": scenarios(running.model)}

    async def _take(self) -> None:
        await self.unit.take_state()
        await self.unit.take_rest()
        self.view["status"] = "running"

    def _show(self) -> None:
        unit, cells = self.unit, {}
        for cell in unit.cells:
            text, code = has(cell, unit.facts)
            served = self._served.get(cell.oid)
            shown = code if code is not None else int(served) if served and served.isdigit() else None
            cells[cell.id] = [text, served, code, level(cell, shown)]
        self.view |= {"cells": cells, "loads": dict(unit.loads), "faults": unit.facts.faults, "about": unit.about(),
                      "switches": unit.facts.switches, "worst": worst(unit.facts, unit.cells),
                      "scenario": self.scenario,
                      "traps": (unit.new_traps()[::-1] + self.view["traps"])[:100]}

    async def _read(self) -> float | None:
        """What a manager reads. Returns the requests per second."""
        unit, now, rate = self.unit, time.time(), None
        try:
            answer = await unit.get([PACKETS, *(cell.oid for cell in unit.cells)])
        except Refused:
            self._packets = None
            self.view["agent"] = {"answers": False}
            return None
        before, self._packets = self._packets, (now, int(answer.get(PACKETS, 0)))
        if before and before[1] <= self._packets[1]:  # the same snmpd
            rate = round((self._packets[1] - before[1]) / (now - before[0]), 1)
        self.view["agent"] = {"answers": True, "rate": rate}
        # Without a log: a value that differs from the last reading shows that the cache was filled in between.
        for cell in unit.cells if self._served else []:
            if answer.get(cell.oid) != self._served.get(cell.oid) and unit.loads.get(cell.table, 0) < now - 6:
                unit.loads[cell.table] = now
        self._served = answer
        return rate

    async def _play(self, unit: Unit, name: str) -> None:
        settings = Settings.from_json((unit.running.root / STATE_FOLDER[1:] / "settings.json").read_text())
        try:
            await run([settings.program("talctl"), "--control", unit.control, "scenario", name])
            self.scenario = f"{name} has ended"
        except Refused as refusal:
            self.scenario = f"{name}: {refusal}"

    def close(self) -> None:
        if self.unit:
            self.unit.close()
            self.unit = None

    async def click(self, action: str, value: Any) -> str:
        """Its words are those of the page; a command of talctl or its scenario, or an action on snmpd."""
        if self.unit is None:
            raise Refused("the device is gone")
        device, text = self.unit.running, ""
        if action == "talctl":
            text = await self.unit.talctl(value)
        elif action == "agent":
            command = ["sh", "-c", AGENT[value]]
            await run(sandbox.enter_command(device.first_process, command, own_network=not device.port))
        elif value not in scenarios(device.model):
            raise Refused("this model has no such scenario")
        elif self._playing and not self._playing.done():
            raise Refused(self.scenario)
        else:  # a page has few connections, so its request does not wait for the end
            self.scenario = f"{value} is running"
            self._playing = asyncio.create_task(self._play(self.unit, value))
        await self._take()  # shows at once what it changed
        self._show()
        self.publish()
        return text


def scenarios(model: int) -> list[str]:
    """Those of a model; a comment names the models."""
    found = {file.stem: re.findall(r"^# Models: (.*)", file.read_text(), re.MULTILINE)
             for file in SCENARIOS.glob("*.tal")}
    return sorted(name for name, models in found.items() if not models or "all" in models[0] or str(model) in models[0])


class Fleet(Feed):
    """A tile for each device: only its data service is asked, and the kernel whether a program has the SNMP port."""

    def __init__(self) -> None:
        super().__init__(TILE_SECONDS)
        self.units: dict[str, Unit] = {}

    async def look(self) -> None:
        running = await asyncio.to_thread(devices)
        for name, unit in list(self.units.items()):
            if name not in running or running[name].first_process != unit.running.first_process:
                self.units.pop(name).close()
        ports = {line.split()[1] for line in Path("/proc/net/udp").read_text().splitlines()[1:]}
        self.view["tiles"] = {name: await self._tile(device, ports) for name, device in running.items()}

    async def _tile(self, device: Running, ports: set[str]) -> dict[str, Any]:
        await asyncio.sleep(0.01)  # pages of single devices go first
        tile: dict[str, Any] = {"name": device.name, "model": device.model, "state": "starting", "address": ""}
        if not device.ready:
            return tile
        try:
            unit = self.units.get(device.name) or self.units.setdefault(device.name, Unit(device))
            await unit.take_state()
        except (Refused, OSError):
            return tile | {"state": "silent"}
        hosts = [socket.inet_aton(host)[::-1].hex() for host in (device.address, "0.0.0.0")]
        is_bound = not device.port or ports & {f"{host}:{device.port:04x}".upper() for host in hosts}
        return unit.about() | {"faults": len(unit.facts.faults),
                               "state": worst(unit.facts, unit.cells) if is_bound else "silent"}

    def close(self) -> None:
        for unit in self.units.values():
            unit.close()
        self.units.clear()
