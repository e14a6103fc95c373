"""What pages receive, and the device that it comes from. Work is done only while a page is open."""
from __future__ import annotations

import asyncio
import json
import time
import traceback
from typing import Any

import rows
from devicelib import registry
from devicelib.registry import Running
from devicelib.settings import STATE_FOLDER
from sources import Control
from state import Facts


def devices() -> dict[str, Running]:
    return {device.name: device for device in registry.running()}


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
