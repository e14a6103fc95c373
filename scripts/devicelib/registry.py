"""The devices of this user: one folder each, locked by the process that runs it."""
from __future__ import annotations

import errno
import fcntl
import json
import os
import shutil
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

from .settings import COMMAND, TRAP_LOG

NAMELESS = ".nameless-"  # a folder during its creation, until it is locked, or during its removal


class DeviceError(Exception):
    """An error for the user, in one line or a few."""


class Running(NamedTuple):
    name: str
    model: int
    port: int
    folder: Path
    owner: int  # the process of scripts/device
    first_process: int  # the device's first process, by its number on the host
    ready: bool
    address: str  # of its SNMP port; only with a port, otherwise the device has its own network
    traps: Path  # snmptrapd's records, each ending with a separator; one file for a whole fleet
    is_in_fleet: bool  # its owner runs other devices, too

    @property
    def root(self) -> Path:
        return self.folder / "root"


def base_folder() -> Path:
    """Short: paths of sockets below it must stay within 108 characters."""
    base = Path(tempfile.gettempdir()) / f"kvsnmp-devices-{os.geteuid()}"
    base.mkdir(mode=0o700, exist_ok=True)
    info = base.lstat()
    if base.is_symlink() or info.st_uid != os.geteuid() or info.st_mode & 0o077:
        raise DeviceError(f"{base} is not a folder of yours alone; remove it")
    return base


class Claim:
    """A device's folder, held by a lock until `remove`."""

    def __init__(self, folder: Path, lock: int):
        self.folder = folder
        self.root = folder / "root"
        self._lock = lock

    def publish(self, **facts: object) -> None:
        partial = self.folder / "device.json.new"
        partial.write_text(json.dumps({"name": self.folder.name, "owner": os.getpid()} | facts))
        partial.rename(self.folder / "device.json")

    def remove(self) -> None:
        leaving = self.folder.with_name(f"{NAMELESS}{self.folder.name}-{os.getpid()}")
        self.folder.rename(leaving)  # from now on ignored by others
        shutil.rmtree(leaving)
        os.close(self._lock)
        try:
            self.folder.parent.rmdir()  # only after the last device
        except OSError:
            pass


def _try_lock(folder: Path, make: bool = False) -> int | None:
    """The lock of a folder, or None if another process holds it."""
    try:
        lock = os.open(folder / "lock", os.O_RDWR | os.O_CLOEXEC | (os.O_CREAT if make else 0), 0o600)
    except (FileNotFoundError, NotADirectoryError):
        return None
    try:
        fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(lock)
        return None
    return lock


def claim(wanted: str | None, model: int) -> Claim:
    """Creates the folder of a new device: the given name, or the model number with a count."""
    while True:
        try:
            made = Path(tempfile.mkdtemp(prefix=NAMELESS, dir=base_folder()))
            break
        except FileNotFoundError:  # another start has removed the base folder with its last device
            continue
    lock = _try_lock(made, make=True)
    if lock is None:
        raise DeviceError(f"{made} is locked by another process")
    count = 1
    while True:
        name = wanted or (f"{model}" if count == 1 else f"{model}-{count}")
        folder = made.with_name(name)
        try:
            made.rename(folder)  # fails if the name is in use: a device's folder is never empty
            return Claim(folder, lock)
        except OSError as error:
            if error.errno not in (errno.EEXIST, errno.ENOTEMPTY):
                raise
            if wanted:
                shutil.rmtree(made)
                os.close(lock)
                raise DeviceError(f"a device named {name} is running already") from None
            count += 1


def sweep() -> None:
    """Removes the folders of devices whose owner was killed before it could clean up."""
    for folder in _folders():
        if folder.name.startswith(NAMELESS):
            if _is_abandoned(folder):
                shutil.rmtree(folder, ignore_errors=True)
        elif (lock := _try_lock(folder)) is not None:
            try:
                Claim(folder, lock).remove()
            except OSError:  # a process in it is still ending; a later sweep removes the rest
                os.close(lock)


def _folders() -> list[Path]:
    try:
        return sorted(base_folder().iterdir())
    except FileNotFoundError:  # just removed with the last device
        return []


def _is_abandoned(nameless: Path) -> bool:
    """Creating and removing take far less than a minute."""
    try:
        return nameless.stat().st_mtime < time.time() - 60
    except FileNotFoundError:
        return False


def running() -> list[Running]:
    devices = []
    for folder in _folders():
        if folder.name.startswith(NAMELESS):
            continue
        try:
            facts = json.loads((folder / "device.json").read_text())
        except (OSError, ValueError):
            continue
        if (lock := _try_lock(folder)) is not None:
            os.close(lock)
            continue
        devices.append(Running(facts["name"], facts["model"], facts["port"], folder, facts["owner"],
                               facts["first_process"], facts["ready"], facts.get("address", "127.0.0.1"),
                               Path(facts.get("traps") or f"{folder}/root{TRAP_LOG}"), facts.get("is_in_fleet", False)))
    return devices


def find(name: str | None) -> Running:
    devices = running()
    if name:
        devices = [device for device in devices if device.name == name]
        if not devices:
            raise DeviceError(f"no device named {name} is running")
    if not devices:
        raise DeviceError(f"no device is running; start one with: {COMMAND} --model 6420")
    if len(devices) > 1:
        names = ", ".join(device.name for device in devices)
        raise DeviceError(f"several devices are running ({names}); choose one with --name")
    return devices[0]
