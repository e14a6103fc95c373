"""The watchdog file: written every 5 s, also after another user put something in its place, and on a full disk. The
unit test of the file has more kinds of things in its place."""
from __future__ import annotations

import os
import stat
import subprocess
import time

import pytest
from support.device import MODEL_NUMBER, Device
from support.disk import SmallDisk
from support.polling import wait_until

ANSWER = ("INTEGER", "6420")
NAME = "kvsnmp.watchdogtest"
PATH = f"/tmp/{NAME}"
REFUSED = f"Couldn't open file: {PATH}\n"

# Outside a sandbox made by root there is only one user.
ANOTHER_USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
# Shell commands that put something at $1, in its folder; "other" is a file beside it.
THINGS = {"pipe": "mkfifo $1", "dangling link": "ln -s nothing $1", "hard link": "ln other $1",
          "link to the settings": "ln -s /etc/snmp/snmpd.conf $1"}
THINGS |= {"file": "echo mine > $1 && chmod 666 $1"} if ANOTHER_USER else {}


@pytest.fixture(scope="module")
def serving(start_shared_device):
    return start_shared_device(6420, "--no-dbus", "--no-traps", "--clock-shift").wait_answering()


@pytest.fixture
def watched(serving):
    """The device with its watchdog file, in a folder open to all as /tmp is, with another user's file in it."""
    folder = serving.path("/tmp")
    folder.chmod(0o1777)
    serving.run([*ANOTHER_USER, "sh", "-c", "echo precious > /tmp/other"])
    serving.shift_clock(5)
    wait_until(lambda: serving.read(PATH) == "update\n", 8, what="watchdog file")
    yield serving
    for name in (NAME, "other"):
        subprocess.run(["rm", "-rf", str(folder / name)], check=True)


def plant(device: Device, script: str) -> tuple[int, int]:
    """Puts something in the file's place, before the daemon does, and returns its device and inode."""
    path = device.path(PATH)

    def planted() -> bool:
        path.unlink(missing_ok=True)
        done = device.run([*ANOTHER_USER, "sh", "-c", f"cd /tmp && {script}", "sh", PATH], check=False)
        assert done.returncode == 0 or path.exists(), done.stderr
        info = path.lstat()
        ours = stat.S_ISREG(info.st_mode) and info.st_nlink == 1 and info.st_size == len("update\n")
        return done.returncode == 0 and not ours

    wait_until(planted, what="something else in the file's place")
    return path.lstat().st_dev, path.lstat().st_ino


@pytest.mark.parametrize("script", THINGS.values(), ids=THINGS)
def test_anything_else_in_its_place_is_replaced_at_the_next_tick(watched, script):
    device, path = watched, watched.path(PATH)
    conf = device.read("/etc/snmp/snmpd.conf")
    refusals = device.kvsnmp_out().count(REFUSED)
    planted = plant(device, script)
    reader = os.open(path, os.O_RDONLY | os.O_NONBLOCK) if script == THINGS["pipe"] else 0
    device.shift_clock(5)
    wait_until(lambda: path.exists() and (path.lstat().st_dev, path.lstat().st_ino) != planted, 8, what="another file")
    made = path.lstat()
    assert stat.S_ISREG(made.st_mode) and stat.S_IMODE(made.st_mode) == 0o644
    assert (made.st_nlink, made.st_uid) == (1, os.geteuid())
    assert path.read_text() == "update\n"
    assert device.kvsnmp_out().count(REFUSED) == refusals
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    assert device.read("/tmp/other") == "precious\n"
    assert not device.path("/tmp/nothing").exists()
    assert device.read("/etc/snmp/snmpd.conf") == conf
    assert [file.name for file in path.parent.glob(f"{NAME}?*")] == []
    if reader:
        assert os.read(reader, 100) == b"", "a reader of the pipe gets nothing"
        os.close(reader)


def test_folder_in_its_place_is_reported_at_every_tick_and_left_alone(watched):
    path = watched.path(PATH)
    refusals = watched.kvsnmp_out().count(REFUSED)
    plant(watched, "mkdir $1")
    for _ in range(2):
        watched.shift_clock(5)
        refusals += 1
        wait_until(lambda count=refusals: watched.kvsnmp_out().count(REFUSED) >= count, 8, what="refusal logged")
    assert watched.snmp.get(MODEL_NUMBER) == [ANSWER]
    assert [file.name for file in path.parent.glob(f"{NAME}*")] == [NAME]
    path.rmdir()
    watched.shift_clock(5)
    wait_until(lambda: watched.read(PATH) == "update\n", 8, what="watchdog file again")


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
