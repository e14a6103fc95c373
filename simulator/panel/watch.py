"""One device: what it has, what a manager reads, its traps, and the clicks that change it."""
from __future__ import annotations

import asyncio
import collections
import re
import time
from typing import Any

import rows
from devicelib import sandbox
from devicelib.registry import Running
from devicelib.settings import COMMAND, Settings
from feed import Feed, Unit, devices
from sources import PACKETS, UPTIME, Logs, Manager, Refused, Traps, announcement
from state import has, level, nominal_of, worst

TICK, ASK_TICKS, GPIO_TICKS = 2.0, 3, 2
HISTORY = int(15 * 60 / TICK)
MESSAGES = [[row["notification"], row["switch"], row["identifiers"].split()] for row in rows.TRAPS]
SCENARIOS = rows.HERE.parent / "scenarios"
# Commands inside the device. The daemon restarts snmpd when the folder changes.
AGENT = {"restart": "touch /etc/snmp/stirred; rm /etc/snmp/stirred", "kill": "kill -9 $(cat /run/snmpd.pid)"}


def scenarios(model: int) -> dict[str, str]:
    """Those of a model, each with its first line; a comment names the models."""
    found = {}
    for file in sorted(SCENARIOS.glob("*.tal")):
        text = file.read_text()
        models = re.search(r"^# Models: (.*)", text, re.MULTILINE)
        if not models or "all" in models[1] or str(model) in models[1]:
            found[file.stem] = text.partition("\n")[0].lstrip("# ")
    return found


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
        message = {"status": "starting"} | self.view
        message |= {"now": time.time(), "whole": True, "only": self.only, "command": COMMAND, "actions": AGENT}
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
