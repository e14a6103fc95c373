"""Settings that change a moment after each other: in the end one snmpd runs, with the newest of them,
and none that ran well was killed with signal 9.

KVSNMP_RESTART_TRIALS in the environment is how many spacings are tried (some 3 s each), KVSNMP_RESTART_SEED which;
tst_snmpdrestarts tries each of them without a device.
"""
from __future__ import annotations

import os
import random
import time
from typing import NamedTuple

import pytest
from support.dataservice import DataService
from support.device import Device
from support.polling import wait_until
from support.settingsfile import SnmpSettings

TRIALS = int(os.environ.get("KVSNMP_RESTART_TRIALS", "8"))
SEED = int(os.environ.get("KVSNMP_RESTART_SEED", "11"))
SYS_NAME, SYS_LOCATION = ".1.3.6.1.2.1.1.5.0", ".1.3.6.1.2.1.1.6.0"
BIN = "/run/device/bin"
JOURNAL = "/tmp/commands"

# In front of the commands: each notes that it was run, with the name in the file, before it does what it is for.
NAME = "$(sed -n 's/^sysName //p' /etc/snmp/snmpd.conf)"
COMMANDS = {
    "killall": f'#!/bin/sh\necho "stop {NAME} $(cat /run/snmpd.pid)" >> {JOURNAL}\nexec /usr/bin/killall "$@"\n',
    "kill": f'#!/bin/sh\necho "kill {NAME} $2" >> {JOURNAL}\nexec /bin/kill "$@"\n',
    "snmpd": f'#!/bin/sh\necho "start {NAME}" >> {JOURNAL}\nexec /usr/sbin/snmpd "$@"\n',
}
# As on a busy device, and not to be stopped in all that time.
SLOW_SNMPD = f'#!/bin/sh\ntrap "" TERM\necho "start {NAME}" >> {JOURNAL}\nsleep 0.7\nexec /usr/sbin/snmpd "$@"\n'


class Entry(NamedTuple):
    what: str
    name: str  # in the file at that time
    pid: str = ""  # stop: the one in the pid file; kill: the one that is killed


class Outcome(NamedTuple):
    spacings: list[int]
    entries: list[Entry]

    def faults(self) -> list[str]:
        """snmpd processes that were killed with signal 9 although no stop had met them before, and starts in a row."""
        stopped = {entry.pid for entry in self.entries if entry.what == "stop"}
        found = [f"{self}: healthy {entry.pid} killed" for entry in self.entries
                 if entry.what == "kill" and entry.pid not in stopped]
        words = [entry.what for entry in self.entries if entry.what != "kill"]
        return found + ([f"{self}: two starts in a row"] if ("start", "start") in zip(words, words[1:]) else [])


class Restarted:
    """A device whose settings the test sends, and the commands that its daemon runs."""

    def __init__(self, device: Device) -> None:
        self.device = device
        for name, script in COMMANDS.items():
            self.install(name, script)
        self.service = DataService(device.path("/run/tal.sock"))
        device.start_kvsnmp("-d")
        wait_until(lambda: self.service.has("custom_config"), 10, what="settings subscribed")
        self._sent = SnmpSettings()
        self._count = 0
        self._sent.send_all(self.service)
        self.wait_restarted("amp-1")

    def install(self, name: str, script: str) -> None:
        partial = self.device.path(f"{BIN}/.{name}")
        partial.write_text(script)
        partial.chmod(0o755)
        partial.rename(self.device.path(f"{BIN}/{name}"))

    def journal(self) -> list[Entry]:
        return [Entry(*line.split()) for line in self.device.read(JOURNAL).splitlines()]

    def change(self) -> str:
        """Another system name and location, at once; the name."""
        self._count += 1
        settings = SnmpSettings(sys_name=f"amp-{self._count}", sys_location=f"rack {self._count}")
        settings.send_changes(self.service, self._sent)
        self._sent = settings
        return settings.sys_name

    def wait_restarted(self, name: str) -> None:
        """Until snmpd was stopped and started with the newest file; nothing restarts it any more then."""
        def done() -> bool:
            entries = self.journal()
            stops = [entry.name for entry in entries if entry.what == "stop"]
            return stops[-1:] == [name] and entries[-1] == Entry("start", name)

        wait_until(done, 15, what=f"restart with {name}")

    def wait_quiet(self) -> None:
        """Until no command has been run for as long as a pending start takes, and some."""
        entries, since = self.journal(), time.monotonic()
        while time.monotonic() < since + 0.7:
            time.sleep(0.05)
            if (now := self.journal()) != entries:
                entries, since = now, time.monotonic()
        self.device.wait_snmpd()

    def trial(self, spacings: list[int]) -> Outcome:
        """Changes the settings, and again after each spacing (ms)."""
        before = len(self.journal())
        name = self.change()
        for spacing in spacings:
            time.sleep(spacing / 1000)
            name = self.change()
        self.wait_restarted(name)
        wait_until(lambda: self.device.snmp.try_get(SYS_NAME) == ("STRING", name), 10, what=f"{name} answered")
        self.wait_quiet()
        assert self.device.snmp.get(SYS_LOCATION) == [("STRING", f"rack {name.partition('-')[2]}")]
        return Outcome(spacings, self.journal()[before:])


@pytest.fixture
def restarted(start_device):
    made = Restarted(start_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp"))
    yield made
    made.service.close()


def spacings_of(chooser: random.Random, trial: int) -> list[int]:
    """One or two, most of them near the moments at which one restart meets another."""
    low, high = [(470, 550), (470, 550), (550, 700), (0, 1200)][trial % 4]
    return [chooser.randint(low, high) for _ in range(1 + trial // 4 % 2)]


def run_trials(restarted: Restarted, trials: list[list[int]]) -> None:
    assert [fault for spacings in trials for fault in restarted.trial(spacings).faults()] == []


def test_restarts_of_any_spacing(restarted):
    chooser = random.Random(SEED)
    run_trials(restarted, [spacings_of(chooser, trial) for trial in range(TRIALS)])


def test_snmpd_that_starts_slowly_is_not_stopped_before_it_is_there(restarted):
    restarted.install("snmpd", SLOW_SNMPD)
    chooser = random.Random(SEED)
    run_trials(restarted, [[chooser.randint(520, 1150)] for _ in range(max(1, TRIALS // 5))])
