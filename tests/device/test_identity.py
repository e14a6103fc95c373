"""From the identity files to the information scalars, and wrong files. The unit tests have every case of a file's
text."""
from __future__ import annotations

import os
import random
from pathlib import Path

from support.process import lean_environment, memory_kb
from support.snmp import TABLES

INFO = [f"{TABLES}.1.{number}.0" for number in range(1, 8)]
FILES = ["xr-pkgver", "xr-model", "xr-kernelver", "xr-oftreever", "xr-amptype"]

# Options of a device; package, model text, model number, amplifier type, kernel, device tree, disablement.
SERVED = [
    (["--model-text", "Another text", "--etc", "xr-pkgver=7.1.0-rc 2", "--etc", "xr-kernelver=6.1.0-kv",
      "--etc", "xr-oftreever=dt 3"], ["7.1.0-rc 2", "Another text", "6420", "VQ9D", "6.1.0-kv", "dt 3", "2"]),
    ([part for name in FILES for part in ("--no-etc", name)],
     ["Unknown", "Unknown", "6420", "Unknown", "Unknown", "Unknown", "2"]),
]


def test_files_of_the_firmware_are_served(start_device):
    devices = [start_device(6420, "--no-dbus", "--no-traps", *options, wait=False) for options, _ in SERVED]
    for device, (_, expected) in zip(devices, SERVED):
        answers = device.wait_ready().wait_answering().snmp.get(*INFO)
        assert answers == list(zip(["STRING", "STRING", "INTEGER", "STRING", "STRING", "STRING", "INTEGER"], expected))
    assert "readPackageVersion /etc/xr-pkgver EMPTY !\n" in devices[1].kvsnmp_err()


def test_texts_in_utf8_are_served_in_latin1_whatever_the_locale(start_device):
    """Also the text that gives a station its expanders."""
    device = start_device(6211, "--no-kvsnmp", "--no-dbus", "--no-traps")
    device.path("/etc/xr-pkgver").write_text("Straße €\n")
    device.path("/etc/xr-model").write_text("\ufeffOrvane Brisel Compact - IP-QRM-B\n")
    device.start_kvsnmp("-d", wrapper=["env", "-u", "LANG"])
    device.wait_answering()
    served = device.snmp.get(*INFO[:2], access=["-v2c", "-c", "public", "-Ox"])
    assert [bytes.fromhex(text) for _, text in served] == [
        "Straße ?".encode("latin-1"), b"Orvane Brisel Compact - IP-QRM-B"]
    assert len(device.snmp.walk(f"{TABLES}.9.2.1.1")) == 14


MEASURE = ("import resource, subprocess, sys; status = subprocess.call(sys.argv[1:]); "
           "print(resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss); sys.exit(status)")
BINARY = bytes(byte for byte in random.Random(3).randbytes(1000) if byte not in b"\0\r\n")[:100]
LITTLE_MEMORY_KB = 160 * 1024  # the sanitizer's own share included


def make_zeros(file: Path) -> None:
    file.write_bytes(b"")
    os.truncate(file, 1 << 30)


def make_digits(file: Path) -> None:
    file.write_bytes(b"6" * (64 << 20))


def test_huge_and_binary_files_are_read_to_their_bound(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    number = device.path("/etc/xr-modelnumber")
    for make in (make_zeros, make_digits):
        make(number)
        done = device.run(["/usr/bin/python3", "-c", MEASURE, "kvsnmp", "-d"], check=False, env=lean_environment())
        assert "KvSnmp Failed to read modelNumber, cannot continue\n" in done.stderr
        assert done.returncode == 255 and len(done.stderr) < 20000 and int(done.stdout.split()[-1]) < LITTLE_MEMORY_KB
    number.write_text("6420\n")
    device.path("/etc/xr-pkgver").write_bytes(BINARY)
    make_zeros(device.path("/etc/xr-model"))
    for name in ("xr-kernelver", "xr-amptype"):
        make_digits(device.path(f"/etc/{name}"))
    device.start_kvsnmp("-d", env=lean_environment())
    device.wait_answering()
    package, model, amplifier, kernel = device.snmp.get(*(INFO[place] for place in (0, 1, 3, 4)),
                                                        access=["-v2c", "-c", "public", "-Ox"])
    assert package[0] == "Hex-STRING" and b"?" in bytes.fromhex(package[1])
    assert bytes.fromhex(package[1]).replace(b"?", b"") == BINARY.decode(errors="ignore").replace("?", "").encode("latin-1")
    assert model == ("STRING", "")  # a C string ends at its first NUL
    assert (bytes.fromhex(amplifier[1]), bytes.fromhex(kernel[1])) == (b"Unknown", b"6" * 127)
    assert memory_kb(device, device.kvsnmp_pid()) < LITTLE_MEMORY_KB
    assert len(device.kvsnmp_err()) < 100000
