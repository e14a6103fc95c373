"""The tiles of a fleet: the worst state of each device."""
from __future__ import annotations

import asyncio
from pathlib import Path
from typing import Any

from devicelib.registry import Running
from feed import Feed, Unit, devices
from sources import Refused
from state import worst

TILE_SECONDS = 5.0


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
