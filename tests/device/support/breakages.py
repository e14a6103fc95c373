"""Ways to break a device; each repairs it at the end of its block."""
from __future__ import annotations

import os
import signal
import time
from collections.abc import Callable
from contextlib import contextmanager

from .dataservice import SETTINGS
from .device import Device
from .polling import wait_until

CONF = "/etc/snmp/snmpd.conf"
ACCESS = f"{SETTINGS}/access_control"


@contextmanager
def stopped(device: Device, program: str):
    device.kill(pid := device.pids(program)[0], signal.SIGSTOP)
    yield
    device.kill(pid, signal.SIGCONT)


def restart_snmpd(device: Device) -> None:
    pids = device.pids("snmpd")
    device.stir_snmpd_folder()
    device.wait_snmpd(other_than=pids)
    device.wait_answering()


@contextmanager
def snmpd_killed(device: Device):
    device.kill(device.pids("snmpd")[0], signal.SIGKILL)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd gone")
    yield
    restart_snmpd(device)


@contextmanager
def access(device: Device, restarts: bool = True, **values: str):
    """Other access settings; snmpd runs with them when the block begins, and with the old ones at its end, if it restarts."""
    def change(new: dict[str, str]) -> None:
        pids = device.pids("snmpd")
        device.talctl_batch([f"set {ACCESS}/{leaf} '{value}'" for leaf, value in new.items()])
        if restarts:
            device.wait_snmpd(other_than=pids)
            wait_until(device.path("/var/agentx/master").exists, what="AgentX socket")

    before = {leaf: device.talctl("get", f"{ACCESS}/{leaf}").strip() for leaf in values}
    change(values)
    yield
    change(before)
    device.wait_answering()


@contextmanager
def edited(device: Device, path: str, edit: Callable[[str], str]):
    """Rewrites the file in place, which has no effect until the next restart."""
    file = device.path(path)
    kept = file.read_text()
    file.write_text(edit(kept))
    yield
    file.write_text(kept)
    if path == CONF:
        restart_snmpd(device)  # otherwise the running one stays older than its file


@contextmanager
def moved_away(device: Device, path: str, *instead: str):
    """Moves the file away; the command, if any, creates something in its place."""
    file = device.path(path)
    away = file.rename(file.with_name(f"{file.name}-away"))
    if instead:
        device.run(instead)
    yield
    away.replace(file)


@contextmanager
def beside(device: Device, program: str, *command: str):
    before = device.pids(program)
    second = device.popen(command)
    wait_until(lambda: len(device.pids(program)) == 2, what=f"two {program}")
    yield
    (other,) = set(device.pids(program)) - set(before)
    device.kill(other, signal.SIGKILL)
    second.wait()


@contextmanager
def newer_conf(device: Device):
    """Mounts a newer copy over the file, which the daemon does not notice."""
    started = device.path("/run/snmpd.pid").stat().st_mtime
    wait_until(lambda: time.time() > started + 8, what="some seconds of life")
    device.path("/etc/newer.conf").write_text(device.read(CONF))
    os.utime(device.path("/etc/newer.conf"), (started + 4.5, started + 4.5))
    device.run(["mount", "--bind", "/etc/newer.conf", CONF])
    yield
    device.run(["umount", CONF])
