"""From the settings of the data service to snmpd.conf and to the restarted snmpd, also with a full disk. The unit tests
have each line of the file, files that cannot be written, and changes and restarts of any spacing."""
from __future__ import annotations

import time
from pathlib import Path

import pytest
from support.dataservice import SETTINGS
from support.disk import SmallDisk
from support.inotify import FolderEvents
from support.played import Played
from support.polling import stays, wait_until

FOLDER, CONF = "/etc/snmp", "/etc/snmp/snmpd.conf"
CONTACT = ".1.3.6.1.2.1.1.4.0"
EXTEND_TABLE = ".1.3.6.1.4.1.8072.1.3.2"
WHOLE = """\
master agentx
sysName amp-1
sysContact ops
sysLocation rack 7
com2sec mynetwork 127.0.0.1 public
com2sec6 mynetwork ::1 public
group MyROGroup v1         mynetwork
group MyROGroup v2c         mynetwork
view all    included .1
access MyROGroup ""      any       noauth    prefix  all    none   none
agentAddress udp6:161,udp:161
"""
LONG = "c" * 6000  # a file with it needs two pages
FULL = "err: snmpd.conf could not be written: No space left on device"
CANCELLED = "SnmpdConfHandler onRestartSnmpdTimeout Cancel restart snmp, no config file\n"


def with_contact(contact: str) -> str:
    return WHOLE.replace("sysContact ops", f"sysContact {contact}")


class Configured(Played):
    def wait_contact(self, contact: str, other_than: list[int]) -> int:
        snmpd = self.device.wait_snmpd(other_than=other_than)
        wait_until(lambda: self.device.snmp.try_get(CONTACT) == ("STRING", contact), 10, what=f"{contact} answered")
        return snmpd

    def assert_change_is_served(self, contact: str) -> int:
        running = self.device.pids("snmpd")
        self.send(sys_contact=contact)
        wait_until(lambda: self.conf() == with_contact(contact), 5, what="whole file")
        return self.wait_contact(contact, running)

    def conf(self, path: str = CONF) -> str | None:
        """As the device sees it, with its mounts."""
        file = Path(f"/proc/{self.device.first_process}/root{path}")
        return file.read_text() if file.exists() else None

    def count(self, text: str) -> int:
        return sum(line.startswith(text) for line in self.device.syslog_texts())


@pytest.fixture
def configured(start_device):
    made = Configured(start_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp", "--clock-shift"))
    yield made
    made.service.close()


ATTACK = "extend evil /usr/bin/touch /tmp/witness"


def test_line_feed_in_the_contact_runs_no_command(configured):
    """The same line in a file made by hand does run it."""
    device = configured.device
    configured.start(sys_contact=f"ops 7\n{ATTACK}")
    wait_until(lambda: device.snmp.try_get(CONTACT) == ("STRING", "ops 7"), 20, what="snmpd with the first line")
    assert [variable.text for variable in device.snmp.walk(EXTEND_TABLE)] in ([], ["0"])
    assert not device.path("/tmp/witness").exists()
    assert configured.count("warning: Setting sysContact cut at its first line end or NUL") == 1

    device.path(CONF).write_text(f"{device.read(CONF)}{ATTACK}\n")
    device.stir_snmpd_folder()
    wait_until(lambda: device.snmp.tool("snmpwalk", [EXTEND_TABLE], check=False).stdout.count("\n") > 1
               and device.path("/tmp/witness").exists(), 20, 0.2, what="command run")


def test_restart_sequence_and_its_times(start_device):
    """300 ms without a change, the file, 500 ms, the old snmpd ended, 500 ms, the new snmpd. The sub-agent then tries
    to connect every second, as kvagent.conf says; without that file it would try more than 14 s later."""
    device = start_device(6420, "--no-traps").wait_answering()
    old = device.wait_snmpd()
    events = FolderEvents(device.path(FOLDER), device.path("/run"))
    syslog_before = len(device.syslog())
    asked = time.monotonic()
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", "somebody else")
    device.wait_snmpd(other_than=[old])
    device.wait_answering()
    answered = time.monotonic()
    written, ended, started = (events.first(what, name, asked) for what, name in [
        ("create", "snmpd.conf"), ("delete", "snmpd.pid"), ("create", "snmpd.pid")])
    assert written and ended and started, events.events
    assert asked < written.at < ended.at < started.at
    # Lower bounds are the daemon's timers, upper ones leave room for a busy machine.
    assert 0.28 <= written.at - asked < 2.0
    assert 0.48 <= ended.at - written.at < 2.5
    assert 0.96 <= started.at - written.at < 5.0  # not from the end, which snmpd may delay
    print(f"private MIB back {answered - started.at:.2f} s after the start of snmpd")
    assert answered - started.at < 4.0
    said = [text for _, text in device.syslog()[syslog_before:] if "kv-snmp[" in text]
    assert [text.partition("]: ")[2] for text in said] == ["Tal System Config settled", "Starting snmpd (snmpd.conf from TAL)"]
    assert device.snmp.get(CONTACT) == [("STRING", "somebody else")]


# Disks


def test_full_disk_leaves_snmpd_with_its_old_settings(configured):
    """The disk has room for one page of two, and a half-written file is not kept."""
    device, disk = configured.device, SmallDisk(configured.device, FOLDER)
    configured.start()
    snmpd = configured.wait_contact("ops", [])
    assert configured.conf() == WHOLE
    disk.fill()
    configured.send(sys_contact=LONG)
    wait_until(lambda: configured.count(FULL) == 1, 5, what="error in the system log")
    assert configured.conf() is None
    stays(lambda: device.pids("snmpd") == [snmpd], 1.5, what="the same snmpd")
    assert CANCELLED in device.kvsnmp_err()
    disk.free()
    configured.assert_change_is_served("after")


def test_local_file_restarts_snmpd_unless_it_is_edited_in_place(configured):
    configured.start()
    device, snmpd = configured.device, configured.wait_contact("ops", [])
    local = f"{FOLDER}/snmpd.local.conf"
    device.run(["sh", "-c", f"echo '# first' > {local}"])
    snmpd = device.wait_snmpd(other_than=[snmpd])
    device.run(["sh", "-c", f"echo '# second' >> {local}"])
    stays(lambda: device.pids("snmpd") == [snmpd], 2.0, what="an edit in place restarts nothing")
    device.run(["sed", "-i", "s/second/third/", local])
    device.wait_snmpd(other_than=[snmpd])
