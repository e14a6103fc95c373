"""A small disk for one of a device's folders, to be filled and write-protected."""
from __future__ import annotations

import errno
import os
import shlex
from pathlib import Path

from .device import CHECKOUT, Device


class SmallDisk:
    """Mounted over the folder inside the device, with copies of its files, before a daemon that watches the folder is
    started. A checkout below the folder, with the programs, stays visible."""

    def __init__(self, device: Device, folder: str, kilobytes: int = 64) -> None:
        self._device = device
        self._mount_point = folder
        kept = {file.name: file.read_bytes() for file in device.path(folder).iterdir() if file.is_file()}
        mount = f"mount -t tmpfs -o size={kilobytes}k,mode=755 tmpfs {folder}"
        if CHECKOUT.is_relative_to(folder):
            checkout = shlex.quote(str(CHECKOUT))
            mount = (f"mkdir /run/checkout && mount --bind {checkout} /run/checkout && {mount} && mkdir -p {checkout} && "
                     f"mount --bind /run/checkout {checkout}")
        device.run(["sh", "-e", "-c", mount])
        # On the host.
        self.folder = Path(f"/proc/{device.first_process}/root{folder}")
        for name, content in kept.items():
            (self.folder / name).write_bytes(content)
        self._filler = self.folder / ".filler"

    def read(self, name: str) -> str | None:
        try:
            return (self.folder / name).read_text(errors="replace")
        except FileNotFoundError:
            return None

    def fill(self) -> None:
        with open(self._filler, "wb", buffering=0) as filler:
            try:
                while True:
                    filler.write(b"x" * 4096)
            except OSError as error:
                assert error.errno == errno.ENOSPC
        assert os.statvfs(self.folder).f_bavail == 0

    def free(self) -> None:
        self._filler.unlink()

    def protect(self, on: bool = True) -> None:
        self._device.run(["mount", "-o", f"remount,{'ro' if on else 'rw'}", self._mount_point])
