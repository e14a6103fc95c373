"""Processes of devices: memory, descriptors and processor time."""
from __future__ import annotations

from pathlib import Path

from devicelib import settings

from .device import Device


def is_gone(process: int) -> bool:
    """By its number on the host; a zombie has ended, too."""
    try:
        return "State:\tZ" in Path(f"/proc/{process}/status").read_text()
    except FileNotFoundError:
        return True


def lean_environment() -> dict[str, str]:
    """For a kvsnmp whose memory is measured: the sanitizer keeps no freed memory."""
    options = settings.kvsnmp_environment(False, "")["ASAN_OPTIONS"]
    return {"ASAN_OPTIONS": f"{options}:quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}


def memory_kb(device: Device, pid: int, field: str = "VmHWM") -> int:
    """Resident memory: VmHWM is the maximum, VmRSS the present one."""
    status = device.run(["cat", f"/proc/{pid}/status"]).stdout
    return int(status.partition(f"{field}:")[2].split()[0])


def descriptors(device: Device, pid: int) -> int:
    return len(device.run(["ls", f"/proc/{pid}/fd"]).stdout.split())


def processor_seconds(device: Device, pid: int) -> float:
    fields = device.run(["cat", f"/proc/{pid}/stat"]).stdout.rpartition(")")[2].split()
    return (int(fields[11]) + int(fields[12])) / 100
