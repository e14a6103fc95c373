"""The descriptors that an event loop waits for, read from outside of the process."""
from __future__ import annotations

import json
import time

from .device import Device
from .polling import wait_until

# Runs inside the device. The kernel shows the arguments of the call that a process is in: for poll() and ppoll() the
# place and the number of the descriptors, 8 bytes each in the process's memory.
_LOOK = """
import json, os, platform, struct, sys
pid = sys.argv[1]
call, *arguments = open(f"/proc/{pid}/syscall").read().split()
found = None
if call in {"x86_64": ("7", "271"), "aarch64": ("73",)}[platform.machine()]:
    place, number = int(arguments[0], 16), int(arguments[1], 16)
    with open(f"/proc/{pid}/mem", "rb", 0) as memory:
        memory.seek(place)
        waited = memory.read(8 * number)
    found = [struct.unpack_from("i", waited, at)[0] for at in range(0, len(waited), 8)]
print(json.dumps([found, sorted(map(int, os.listdir(f"/proc/{pid}/fd")))]))
"""


def watched_and_open(device: Device, pid: int) -> tuple[list[int], list[int]]:
    """The descriptors that the process waits for, and all that it has open."""
    def look() -> tuple[list[int], list[int]] | None:
        waited, opened = json.loads(device.run(["/usr/bin/python3", "-c", _LOOK, str(pid)]).stdout)
        return (sorted(waited), opened) if waited is not None else None

    return wait_until(look, 10, what=f"process {pid} waiting in poll()")


def wake_ups_per_second(device: Device, pid: int, duration: float) -> float:
    def look() -> tuple[float, int]:
        status = device.run(["cat", f"/proc/{pid}/status"]).stdout
        return time.monotonic(), int(status.partition("voluntary_ctxt_switches:")[2].split()[0])

    begin, before = look()
    time.sleep(duration)
    end, after = look()
    return (after - before) / (end - begin)
