"""The watchdog file, written every 5 s: what another user put in its place, and a full or read-only disk. The unit test
of the file has every kind of thing in its place."""
from __future__ import annotations

import os
import stat
import time

from support.device import MODEL_NUMBER
from support.disk import SmallDisk
from support.polling import wait_until

NAME = "kvsnmp.watchdogtest"
REFUSED = f"Couldn't open file: /tmp/{NAME}\n"
# Outside a sandbox made by root there is only one user.
ANOTHER_USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []


def test_full_or_read_only_disk_and_things_of_others_affect_only_this_file(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    disk = SmallDisk(device, "/tmp")
    disk.fill()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()

    def next_tick(done, what: str) -> None:
        device.shift_clock(5)
        wait_until(done, 8, what=what)
        assert device.snmp.get(MODEL_NUMBER) == [("INTEGER", "6420")]

    next_tick(lambda: disk.read(NAME) == "", "file made, and empty")
    disk.free()
    next_tick(lambda: disk.read(NAME) == "update\n", "file written")
    disk.protect()
    assert device.kvsnmp_out().count(REFUSED) == 0
    next_tick(lambda: REFUSED in device.kvsnmp_out(), "refusal logged")
    disk.protect(False)
    path, conf = disk.folder / NAME, device.read("/etc/snmp/snmpd.conf")
    path.unlink()
    removed = time.monotonic()
    wait_until(lambda: disk.read(NAME) == "update\n", 8, what="file written again")
    assert time.monotonic() - removed < 6

    path.parent.chmod(0o1777)  # open to all, as /tmp is
    for script in (f"ln -s /etc/snmp/snmpd.conf {NAME}", f"mkfifo {NAME}",
                   *([f"echo mine > {NAME}; chmod 666 {NAME}"] if ANOTHER_USER else [])):
        path.unlink()
        device.run([*ANOTHER_USER, "sh", "-e", "-c", f"cd /tmp; {script}"])
        next_tick(lambda: path.is_file() and not path.is_symlink() and path.read_text() == "update\n", script)
        assert (stat.S_IMODE(path.lstat().st_mode), path.lstat().st_uid) == (0o644, os.geteuid())
    assert device.read("/etc/snmp/snmpd.conf") == conf
