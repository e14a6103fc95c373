"""The processes of a device by their numbers on the host: reading there does not disturb the device."""
from __future__ import annotations

import contextlib
import os
from collections.abc import Iterable, Iterator
from pathlib import Path
from typing import NamedTuple

from support.device import Device


class Process(NamedTuple):
    host: int
    inside: int  # its number in the device

    @property
    def folder(self) -> Path:
        return Path(f"/proc/{self.host}")

    def tasks(self) -> list[Path]:
        return list(self.folder.glob("task/*"))


class Spent(NamedTuple):
    nanoseconds: int  # on a processor
    wakes: int  # voluntary context switches
    switches: int  # all context switches


def processes(device: Device, program: str = "") -> list[Process]:
    """Those whose name begins with `program`."""
    space = os.readlink(f"/proc/{device.first_process}/ns/pid")
    found = []
    for folder in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # ended meanwhile
            if os.readlink(folder / "ns/pid") == space and (folder / "comm").read_text().startswith(program):
                inside = next(line for line in (folder / "status").read_text().splitlines() if line.startswith("NSpid"))
                found.append(Process(int(folder.name), int(inside.split()[-1])))
    return found


def spent(of: Iterable[Process]) -> Spent:
    """By all their threads so far."""
    nanoseconds = 0
    switches = {"voluntary_ctxt_switches": 0, "nonvoluntary_ctxt_switches": 0}
    for process in of:
        for task in process.tasks():
            nanoseconds += int((task / "schedstat").read_text().split()[0])
            for line in (task / "status").read_text().splitlines():
                key, _, value = line.partition(":")
                if key in switches:
                    switches[key] += int(value)
    return Spent(nanoseconds, switches["voluntary_ctxt_switches"], sum(switches.values()))


def kilobytes(of: Iterable[Process], key: str) -> int:
    """Rss or Pss of all."""
    return sum(int(line.split()[1]) for process in of
               for line in (process.folder / "smaps_rollup").read_text().splitlines() if line.startswith(f"{key}:"))


@contextlib.contextmanager
def pinned(devices: Iterable[Device]) -> Iterator[None]:
    """These devices, and every program started meanwhile, on one processor."""
    usual = os.sched_getaffinity(0)
    try:
        _place(devices, {max(usual)})
        yield
    finally:
        _place(devices, usual)


def _place(devices: Iterable[Device], processors: set[int]) -> None:
    os.sched_setaffinity(0, processors)
    for device in devices:
        for process in processes(device):
            for task in process.tasks():
                with contextlib.suppress(OSError):
                    os.sched_setaffinity(int(task.name), processors)
