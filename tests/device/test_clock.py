"""The time of day set back and forward, and a clock that leaps: timers go on, and a trap has the present time."""
from __future__ import annotations

import datetime
import time
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS
from support.dataservice import SETTINGS
from support.device import MODEL_NUMBER, WATCHDOG_FILE, Device
from support.inotify import FolderEvents
from support.outages import PROBES, run_probe
from support.polling import wait_until
from support.traps import TIME, Faults, TrapReceiver, switch, time_text

UTC = datetime.timezone.utc
DAY = 86400


class Clocked(NamedTuple):
    device: Device
    traps: TrapReceiver
    faults: Faults
    gpio: FolderEvents

    def checks(self, since: float) -> list[float]:
        """When a GPIO line was read."""
        return [event.at for event in list(self.gpio.events)
                if event.what == "read" and event.name == "value" and event.at >= since]

    def trap_time(self) -> bytes:
        """The time in a trap whose fault has none."""
        text, = self.faults.new_texts("clock", 1)
        self.faults.raise_one("custom_msg", text, timestamp="")
        trap, = self.traps.wait_for(text)
        self.faults.clear_all([text])
        value = trap.value(TIME)
        assert isinstance(value, bytes)
        return value


@pytest.fixture(scope="module")
def clocked(start_shared_device):
    """A station, with its GPIO lines checked, on a device in UTC."""
    device = start_shared_device(6214, "--no-dbus", "--no-traps", "--no-kvsnmp", "--clock-shift")
    device.path("/etc/localtime").unlink(missing_ok=True)
    root = device.path("/run/gpio")
    gpio = FolderEvents(*(folder for folder in root.iterdir() if (folder / "value").exists()), accesses=True)
    device.start_kvsnmp("-d", clock_shift=True)
    traps = TrapReceiver(device)
    device.wait_answering().wait_subscribed()
    switch(device, "Custom Fault", True)
    made = Clocked(device, traps, Faults(device), gpio)
    wait_until(lambda: made.checks(0) and device.path(WATCHDOG_FILE).exists(), 10, what="GPIO lines checked")
    return made


@pytest.mark.parametrize("seconds, delay", [(60.0, "17"), (float((1 << 32) - 5), "18"), (time.time(), "19")],
                         ids=["back to 1970", "forward to 2106", "right again"])
def test_time_of_day_set(clocked, seconds, delay):
    device = clocked.device
    pid, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    set_at = time.monotonic()
    device.set_time_of_day(seconds)
    watchdog = device.path(WATCHDOG_FILE)
    written = watchdog.stat().st_mtime_ns

    # In real time: the lines one a second, the watchdog file within 5 s.
    wait_until(lambda: watchdog.stat().st_mtime_ns > written, 7, what="watchdog file written")
    checks = clocked.checks(set_at)
    expected = time.monotonic() - set_at
    assert expected - 2.5 < len(checks) < expected + 2.5
    assert all(0.2 < later - earlier < 2.5 for earlier, later in zip(checks, checks[1:]))

    now = int(seconds + time.monotonic() - set_at)
    assert clocked.trap_time() in [time_text(second, UTC) for second in range(now - 1, now + 4)]

    steps.apply(device, [steps.put("/state/config/gpos/gpo[kid='relay1']/delay", delay)], dbus=False)
    assert device.snmp.get(f"{COLUMN_OIDS['relayDelay']}.1") == [("INTEGER", delay)]  # the table expired
    probes = device.read(PROBES).count("\n")
    run_probe(device)
    assert device.read(PROBES).count("\n") == probes + 1
    assert device.snmp.get(MODEL_NUMBER) == [("INTEGER", "6214")]
    assert (device.kvsnmp_pid(), device.wait_snmpd()) == (pid, snmpd)


def test_settings_are_written_while_the_time_of_day_leaps(clocked):
    """Meanwhile it is set back and forward by years."""
    device = clocked.device
    snmpd = device.wait_snmpd()
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", "leaping")
    leaps = iter(range(1, 10000))

    def restarted() -> bool:
        device.set_time_of_day(time.time() + (-1) ** next(leaps) * 3 * 365 * DAY)
        return device.pids("snmpd") not in ([], [snmpd])

    wait_until(restarted, 10, 0.01, "snmpd restarted")
    device.set_time_of_day(time.time())
    device.wait_answering()
    assert device.snmp.get(".1.3.6.1.2.1.1.4.0") == [("STRING", "leaping")]


def test_a_leap_of_30_days_fires_each_timer_once(clocked):
    """As after a long sleep. The session with snmpd stays or is opened again."""
    device = clocked.device
    watchdog = device.path(WATCHDOG_FILE)
    written, probes = watchdog.stat().st_mtime_ns, device.read(PROBES).count("\n")
    leapt = time.monotonic()
    device.shift_clock(30 * DAY)
    wait_until(lambda: watchdog.stat().st_mtime_ns > written, 7, what="watchdog file written")
    wait_until(lambda: device.read(PROBES).count("\n") > probes, 5, what="health probe")
    device.wait_answering()
    passed = time.monotonic() - leapt
    wait_until(lambda: len(clocked.checks(leapt + passed)) >= 2, 5, what="GPIO lines checked on")
    assert len([at for at in clocked.checks(leapt) if at < leapt + passed]) < passed + 3
    assert device.read(PROBES).count("\n") == probes + 1
    clocked.trap_time()
