"""Settings that change in quick succession: in the end one snmpd runs, with the newest of them, and no healthy one was
killed with signal 9.

KVSNMP_RESTART_TRIALS in the environment is how many spacings are tried (some 3 s each), KVSNMP_RESTART_SEED which;
tst_snmpdrestarts tries each of them without a device.
"""
from __future__ import annotations

import os
import random
import time

import pytest
from support.device import Device
from support.played import Played
from support.polling import wait_until
from support.settingsfile import SnmpSettings

TRIALS = int(os.environ.get("KVSNMP_RESTART_TRIALS", "8"))
SEED = int(os.environ.get("KVSNMP_RESTART_SEED", "11"))
SYS_NAME, SYS_LOCATION = ".1.3.6.1.2.1.1.5.0", ".1.3.6.1.2.1.1.6.0"
JOURNAL = "/tmp/commands"

# Found before the commands: each logs the system name in the file and its process, and then runs the command.
NAME = "$(sed -n 's/^sysName //p' /etc/snmp/snmpd.conf)"
COMMANDS = {
    "killall": f'#!/bin/sh\necho "stop {NAME} $(cat /run/snmpd.pid)" >> {JOURNAL}\nexec /usr/bin/killall "$@"\n',
    "kill": f'#!/bin/sh\necho "kill {NAME} $2" >> {JOURNAL}\nexec /bin/kill "$@"\n',
    "snmpd": f'#!/bin/sh\necho "start {NAME} -" >> {JOURNAL}\nexec /usr/sbin/snmpd "$@"\n',
}
# As on a busy device; it cannot be stopped meanwhile.
SLOW_SNMPD = f'#!/bin/sh\ntrap "" TERM\necho "start {NAME} -" >> {JOURNAL}\nsleep 0.7\nexec /usr/sbin/snmpd "$@"\n'


class Restarted(Played):
    """With a journal of the commands that the daemon runs."""

    def __init__(self, device: Device) -> None:
        super().__init__(device)
        self.count = 0
        for name, script in COMMANDS.items():
            self.install(name, script)
        self.start()
        self.wait_restarted("amp-1")

    def install(self, name: str, script: str) -> None:
        partial = self.device.path(f"/run/device/bin/.{name}")
        partial.write_text(script)
        partial.chmod(0o755)
        partial.rename(partial.with_name(name))

    def journal(self) -> list[list[str]]:
        return [line.split() for line in self.device.read(JOURNAL).splitlines()]

    def change_names(self) -> str:
        """Changes the system name and the location; returns the name."""
        self.count += 1
        self.change(SnmpSettings(sys_name=f"amp-{self.count}", sys_location=f"rack {self.count}"))
        return self.sent.sys_name

    def wait_restarted(self, name: str) -> None:
        """Until snmpd was stopped and started with the newest file, the last restart."""
        wait_until(lambda: [entry[:2] for entry in self.journal()][-1:] == [["start", name]] and any(
            entry[:2] == ["stop", name] for entry in self.journal()), 15, what=f"restart with {name}")

    def wait_quiet(self, seconds: float) -> list[list[str]]:
        """Until nothing was run for so long: on a loaded machine, the last change may lead to a restart more."""
        seen, since = self.journal(), time.monotonic()

        def is_quiet() -> bool:
            nonlocal seen, since
            if (now := self.journal()) != seen:
                seen, since = now, time.monotonic()
            return time.monotonic() > since + seconds

        wait_until(is_quiet, 15, what="no further restart")
        return seen

    def trial(self, spacings: list[int]) -> None:
        """Changes the settings, and again after each spacing (ms)."""
        before = len(self.journal())
        name = self.change_names()
        for spacing in spacings:
            time.sleep(spacing / 1000)
            name = self.change_names()
        self.wait_restarted(name)
        entries = self.wait_quiet(0.7)[before:]
        wait_until(lambda: self.device.snmp.try_get(SYS_NAME) == ("STRING", name), 10, what=f"{name} answered")
        self.device.wait_snmpd()
        assert self.device.snmp.get(SYS_LOCATION) == [("STRING", f"rack {self.count}")]
        stopped = {pid for what, _, pid in entries if what == "stop"}
        healthy = [pid for what, _, pid in entries if what == "kill" and pid not in stopped]
        assert healthy == [], f"killed with signal 9: {spacings} {entries}"
        words = [what for what, *_ in entries if what != "kill"]
        assert ("start", "start") not in zip(words, words[1:]), f"{spacings} {entries}"


@pytest.fixture
def restarted(start_device):
    made = Restarted(start_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp"))
    yield made
    made.service.close()


def test_restarts_of_any_spacing(restarted):
    """One or two changes, most of them when one restart overlaps another."""
    chooser = random.Random(SEED)
    for trial in range(TRIALS):
        low, high = [(470, 550), (470, 550), (550, 700), (0, 1200)][trial % 4]
        restarted.trial([chooser.randint(low, high) for _ in range(1 + trial // 4 % 2)])


def test_snmpd_that_starts_slowly_is_not_stopped_before_it_runs(restarted):
    restarted.install("snmpd", SLOW_SNMPD)
    chooser = random.Random(SEED)
    for _ in range(max(2, TRIALS // 5)):
        restarted.trial([chooser.randint(520, 1150)])
