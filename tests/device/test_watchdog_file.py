"""The watchdog file: written every 5 s, also after another user put something in its place, and on a full disk. The
unit test of the file has every kind of thing in its place."""
from __future__ import annotations

import os
import stat
import time

from support.device import MODEL_NUMBER
from support.disk import SmallDisk
from support.polling import wait_until

ANSWER = ("INTEGER", "6420")
NAME = "kvsnmp.watchdogtest"
PATH = f"/tmp/{NAME}"
REFUSED = f"Couldn't open file: {PATH}\n"
# Outside a sandbox made by root there is only one user.
ANOTHER_USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []


def test_another_users_things_in_its_place_are_replaced_and_a_folder_is_reported(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--clock-shift").wait_answering()
    path, conf = device.path(PATH), device.read("/etc/snmp/snmpd.conf")
    path.parent.chmod(0o1777)  # open to all, as /tmp is
    path.unlink(missing_ok=True)
    device.shift_clock(5)
    wait_until(path.exists, 8, what="watchdog file")  # so the next tick is 5 s away

    def plant(script: str) -> None:
        path.unlink(missing_ok=True)
        device.run([*ANOTHER_USER, "sh", "-e", "-c", f"cd /tmp; {script}"])
        device.shift_clock(5)

    for script in (f"ln -s /etc/snmp/snmpd.conf {NAME}", f"mkfifo {NAME}",
                   *([f"echo mine > {NAME}; chmod 666 {NAME}"] if ANOTHER_USER else [])):
        plant(script)
        wait_until(lambda: path.exists() and stat.S_ISREG(path.lstat().st_mode) and path.read_text() == "update\n", 8,
                   what=script)
        assert (stat.S_IMODE(path.lstat().st_mode), path.lstat().st_uid) == (0o644, os.geteuid())
    assert device.read("/etc/snmp/snmpd.conf") == conf
    assert device.kvsnmp_out().count(REFUSED) == 0

    plant(f"mkdir {NAME}")
    for count in (1, 2):
        wait_until(lambda count=count: device.kvsnmp_out().count(REFUSED) >= count, 8, what="refusal at every tick")
        device.shift_clock(5)
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    path.rmdir()
    wait_until(lambda: device.read(PATH) == "update\n", 8, what="watchdog file again")


def test_full_and_read_only_tmp_affect_only_this_file(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    disk = SmallDisk(device, "/tmp")
    disk.fill()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()

    def next_tick(done, what: str) -> None:
        device.shift_clock(5)
        wait_until(done, 8, what=what)

    next_tick(lambda: disk.read(NAME) == "", "file made, and empty")
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    disk.free()
    next_tick(lambda: disk.read(NAME) == "update\n", "file written")
    disk.protect()
    assert device.kvsnmp_out().count(REFUSED) == 0
    next_tick(lambda: REFUSED in device.kvsnmp_out(), "refusal logged")
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    disk.protect(False)
    (disk.folder / NAME).unlink()
    removed = time.monotonic()
    wait_until(lambda: disk.read(NAME) == "update\n", 8, what="file written again")
    assert time.monotonic() - removed < 6
