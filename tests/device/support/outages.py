"""Outages of snmpd: the two ways in which it comes back, and the idle daemon meanwhile."""
from __future__ import annotations

import time
from collections.abc import Callable

from . import ber
from .dataservice import SETTINGS
from .device import MODEL_NUMBER, Device
from .polling import wait_until
from .process import processor_seconds
from .target import Target

MODEL = ber.numbers(MODEL_NUMBER)
HEALTH_PERIOD = 601
PROBES = "/run/device/probes"
NOT_RUNNING = "err: Snmpd health check: snmpd is not running"
ATTEMPT = "Warning: Failed to connect to the agentx master agent ([NIL]): "
IDLE = 14  # wake-ups a second at most: ten of the process timer, one of the ping, one in 5 s of the watchdog file

_contacts = iter(range(1, 1000000))


def change_a_setting(device: Device) -> None:
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", f"contact {next(_contacts)}")


def run_probe(device: Device) -> None:
    """Lets the ten minutes pass and waits until the health probe has run."""
    count = device.read(PROBES).count("\n")
    device.shift_clock(HEALTH_PERIOD)
    wait_until(lambda: device.read(PROBES).count("\n") > count, 5, what="health probe")


def hurry(device: Device, condition: Callable[[], object], what: str, timeout: float = 20) -> None:
    """Waits with a faster clock for what the daemon does after a delay."""
    def look() -> object:
        found = condition()
        if not found:
            device.shift_clock(0.5)
        return found

    wait_until(look, timeout, 0.05, what)


def wait_for_another_snmpd(device: Device, old: int, way: Callable[[Device], None]) -> int:
    way(device)
    hurry(device, lambda: device.pids("snmpd") not in ([], [old]), "another snmpd")
    pid = device.wait_snmpd(other_than=[old])
    device.shift_clock(1)  # the agent library's next attempt to connect
    return pid


def wait_served(served: Target, timeout: float = 20) -> None:
    wait_until(lambda: served.manager.try_get(MODEL) == ("INTEGER", str(served.device.model)), timeout,
               what="model number answered")
    assert served.manager.walk() == served.walk


def assert_idle(device: Device, wake_ups: float = IDLE) -> None:
    pid = device.kvsnmp_pid()

    def look() -> tuple[float, int, float]:
        status = device.run(["cat", f"/proc/{pid}/status"]).stdout
        switches = int(status.partition("voluntary_ctxt_switches:")[2].split()[0])
        return time.monotonic(), switches, processor_seconds(device, pid)

    time.sleep(1)  # until the passes after the last answer are over
    begin, before, busy = look()
    time.sleep(4)
    end, after, busier = look()
    rate, spent = (after - before) / (end - begin), busier - busy
    print(f"{rate:.1f} wake-ups a second, {spent:.2f} s of processor time in 4 s")
    assert rate < wake_ups and spent < 0.5
