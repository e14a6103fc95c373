"""The folder of snmpd.conf replaced by another one, and a snmpd.conf that cannot be deleted."""
from __future__ import annotations

from pathlib import Path

import pytest
from support.dataservice import DataService
from support.device import Device
from support.disk import SmallDisk
from support.outages import let_the_probe_come
from support.polling import stays, wait_until
from support.settingsfile import HEAD, NAMES, READ, SnmpSettings

BARE = ["--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp"]
FOLDER = "/etc/snmp"
CONF = "/etc/snmp/snmpd.conf"
CONTACT = ".1.3.6.1.2.1.1.4.0"
WHOLE = HEAD + NAMES + READ
LONG = "c" * 6000  # a file with it needs two pages
IN_PLACE = "warning: snmpd.conf is written in place, it cannot be deleted: "
FAILED = "err: snmpd.conf could not be written in place and is empty now: "


class Configured:
    """A device that gets its settings from the test."""

    def __init__(self, device: Device) -> None:
        self.device = device
        self.service = DataService(device.path("/run/tal.sock"))
        self._sent = SnmpSettings()

    def start(self) -> None:
        self.device.start_kvsnmp("-d", clock_shift=True)
        wait_until(lambda: self.service.has("custom_config"), 10, what="settings subscribed")
        self._sent.send_all(self.service)
        self.device.wait_answering()

    def change_contact(self, contact: str) -> None:
        settings = SnmpSettings(sys_contact=contact)
        settings.send_changes(self.service, self._sent)
        self._sent = settings

    def wait_contact(self, contact: str, other_than: list[int]) -> None:
        self.device.wait_snmpd(other_than=other_than)
        wait_until(lambda: self.device.snmp.try_get(CONTACT) == ("STRING", contact), 10, what=f"{contact} answered")

    def assert_change_is_served(self, contact: str) -> None:
        snmpd = self.device.wait_snmpd()
        self.change_contact(contact)
        self.wait_contact(contact, [snmpd])

    def count(self, text: str) -> int:
        return sum(line.startswith(text) for line in self.device.syslog_texts())

    def seen(self, path: str) -> Path:
        """The host's name of what the device alone has mounted."""
        return Path(f"/proc/{self.device.first_process}/root{path}")


@pytest.fixture
def configured(start_device):
    made = Configured(start_device(6420, *BARE, "--clock-shift"))
    yield made
    made.service.close()


# Another folder


def test_folder_that_was_moved_away_and_copied_back_is_watched(configured):
    """As an operator does it: a copy to work on, the old one kept."""
    configured.start()
    device = configured.device
    snmpd = device.wait_snmpd()
    device.run(["sh", "-e", "-c", f"mv {FOLDER} {FOLDER}.old; cp -a {FOLDER}.old {FOLDER}"])
    snmpd = device.wait_snmpd(other_than=[snmpd])

    device.run(["sed", "-i", "s/^sysContact .*/sysContact by hand/", CONF])
    configured.wait_contact("by hand", [snmpd])
    snmpd = device.wait_snmpd()
    device.path(f"{FOLDER}.old/another").write_text("")
    stays(lambda: device.pids("snmpd") == [snmpd], 1.5, what="old folder no longer watched")
    configured.assert_change_is_served("by settings")


def test_folder_that_was_swapped_for_a_finished_one_is_used_at_once(configured):
    configured.start()
    device = configured.device
    snmpd = device.wait_snmpd()
    new = device.path(f"{FOLDER}.new")
    new.mkdir()
    (new / "snmpd.conf").write_text(WHOLE.replace("sysContact ops", "sysContact swapped"))
    device.run(["sh", "-e", "-c", f"mv {FOLDER} {FOLDER}.old; mv {FOLDER}.new {FOLDER}"])
    configured.wait_contact("swapped", [snmpd])
    configured.assert_change_is_served("by settings")


def test_other_changes_beside_the_folder_restart_nothing(configured):
    configured.start()
    device = configured.device
    snmpd = device.wait_snmpd()
    device.path("/etc/another").write_text("")
    device.path("/etc/another").unlink()
    stays(lambda: device.pids("snmpd") == [snmpd], 1.5, what="the same snmpd")


def test_folder_that_was_mounted_over_is_found_by_the_probe(configured):
    """A mount is no event; the probe comes every ten minutes."""
    configured.start()
    device = configured.device
    snmpd = device.wait_snmpd()
    disk = SmallDisk(device, FOLDER)
    (disk.folder / "snmpd.conf").write_text(WHOLE.replace("sysContact ops", "sysContact mounted"))
    stays(lambda: device.pids("snmpd") == [snmpd], 1.0, what="not noticed")
    let_the_probe_come(device)
    configured.wait_contact("mounted", [snmpd])
    configured.assert_change_is_served("by settings")


# A file that cannot be deleted


def mount_file(configured: Configured, source: str) -> None:
    """The file of a place that keeps its content, over snmpd.conf."""
    configured.device.path(CONF).write_text("# below the mount\n")
    configured.device.run(["mount", "--bind", source, CONF])


def test_file_that_is_a_mount_is_written_in_place(configured):
    device, kept = configured.device, configured.device.path("/etc/kept.conf")
    kept.write_text("# older and longer\n" * 100)
    kept.chmod(0o644)
    inode = kept.stat().st_ino
    mount_file(configured, "/etc/kept.conf")
    configured.start()
    assert configured.count(IN_PLACE + "Device or resource busy") == 1
    assert kept.read_text() == WHOLE
    assert kept.stat().st_ino == inode and kept.stat().st_mode & 0o777 == 0o600

    configured.assert_change_is_served("in place")
    assert kept.read_text() == WHOLE.replace("sysContact ops", "sysContact in place")
    assert configured.count(IN_PLACE) == 2
    assert device.read(CONF) == "# below the mount\n"


def test_writable_file_on_a_read_only_disk_is_written_in_place(configured):
    disk = SmallDisk(configured.device, FOLDER)
    (disk.folder / "snmpd.conf").write_text("")
    configured.device.path("/etc/kept.conf").write_text("")
    configured.device.run(["mount", "--bind", "/etc/kept.conf", CONF])
    disk.protect()
    configured.start()
    assert configured.count(IN_PLACE + "Read-only file system") == 1
    configured.assert_change_is_served("in place")


def test_file_that_cannot_be_written_to_its_end_in_place_is_emptied(configured):
    """There is nothing else to be done with it; snmpd goes on with what it has read."""
    device = configured.device
    device.path("/etc/kept").mkdir()
    disk = SmallDisk(device, "/etc/kept")
    (disk.folder / "snmpd.conf").write_text("")
    mount_file(configured, "/etc/kept/snmpd.conf")
    configured.start()
    snmpd = device.wait_snmpd()
    disk.fill()
    configured.change_contact(LONG)
    wait_until(lambda: configured.count(FAILED + "No space left on device") == 1, 5, what="error in the system log")
    assert configured.seen(CONF).read_text() == ""
    stays(lambda: device.pids("snmpd") == [snmpd], 1.5, what="the same snmpd")
    assert configured.count(IN_PLACE) == 1  # the first write
    disk.free()
    configured.assert_change_is_served("after")
