"""Events of the files in a folder, with their times."""
from __future__ import annotations

import ctypes
import os
import struct
import threading
import time
from pathlib import Path
from typing import NamedTuple

_CHANGES = {0x2: "modify", 0x8: "close", 0x40: "moved", 0x80: "moved", 0x100: "create", 0x200: "delete"}
_ACCESSES = {0x1: "read", 0x4: "attributes", 0x10: "close unwritten", 0x20: "open"}
_NAMES = _CHANGES | _ACCESSES
_libc = ctypes.CDLL(None, use_errno=True)


class Event(NamedTuple):
    at: float  # time.monotonic()
    what: str
    name: str  # empty: the folder itself
    folder: str = ""  # the last step of its path


class FolderEvents:
    """Collects the changes in some folders, with `accesses` every event."""

    def __init__(self, *folders: Path, accesses: bool = False) -> None:
        self.events: list[Event] = []
        self._descriptor = _libc.inotify_init1(os.O_CLOEXEC)
        if self._descriptor < 0:
            raise OSError(ctypes.get_errno(), "inotify_init1")
        self._folders: dict[int, str] = {}
        mask = sum(_NAMES if accesses else _CHANGES)
        for folder in folders:
            watch = _libc.inotify_add_watch(self._descriptor, os.fsencode(folder), mask)
            if watch < 0:
                raise OSError(ctypes.get_errno(), "inotify_add_watch", str(folder))
            self._folders[watch] = folder.name
        threading.Thread(target=self._collect, daemon=True).start()

    def first(self, what: str, name: str, after: float = 0.0) -> Event | None:
        return next((event for event in list(self.events)
                     if event.at >= after and event.what == what and event.name == name), None)

    def _collect(self) -> None:
        while True:
            data, at, place = os.read(self._descriptor, 65536), time.monotonic(), 0
            while place < len(data):
                watch, mask, _, length = struct.unpack_from("iIII", data, place)
                name = data[place + 16:place + 16 + length].rstrip(b"\0").decode()
                place += 16 + length
                for bit, what in _NAMES.items():
                    if mask & bit:
                        self.events.append(Event(at, what, name, self._folders.get(watch, "")))
