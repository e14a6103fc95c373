"""From the identity files to the information scalars, and wrong files. The unit tests have every case of a file's
text."""
from __future__ import annotations

import os
import random
from pathlib import Path

import pytest
from support.process import lean_environment, memory_kb, run_measured
from support.snmp import TABLES

INFO = [f"{TABLES}.1.{number}.0" for number in range(1, 8)]
TEXT_FILES = {"xr-pkgver": "readPackageVersion", "xr-model": "readModelType", "xr-kernelver": "readKernelVersion",
              "xr-oftreever": "readDeviceTreeVersion"}

# Model, options; package, model text, model number, amplifier type, kernel, device tree, disablement; None: any.
SERVED = [
    (6420, ["--model-text", "Another text", "--etc", "xr-pkgver=7.1.0-rc 2", "--etc", "xr-kernelver=6.1.0-kv",
            "--etc", "xr-oftreever=dt 3"], ["7.1.0-rc 2", "Another text", "6420", "VQ9D", "6.1.0-kv", "dt 3", "2"]),
    (6764, ["--etc", "xr-powertype=200"], [None, None, "6764", "VQ9C-P2", None, None, "2"]),
    (6420, [part for name in [*TEXT_FILES, "xr-amptype"] for part in ("--no-etc", name)],
     ["Unknown", "Unknown", "6420", "Unknown", "Unknown", "Unknown", "2"]),
    (6214, ["--model-text", "m" * 300, "--etc", "xr-modelnumber= +6214 "],
     [None, "m" * 127, "6214", "", None, None, "2"]),
]


def test_files_of_the_firmware_are_served(start_device):
    devices = [start_device(model, "--no-dbus", "--no-traps", *options, wait=False) for model, options, _ in SERVED]
    for device, (_, options, expected) in zip(devices, SERVED):
        answers = device.wait_ready().wait_answering().snmp.get(*INFO)
        assert [kind for kind, _ in answers] == ["STRING", "STRING", "INTEGER", "STRING", "STRING", "STRING", "INTEGER"]
        assert [text if wanted is not None else None for (_, text), wanted in zip(answers, expected)] == expected, options
    assert "readPackageVersion /etc/xr-pkgver EMPTY !\n" in devices[2].kvsnmp_err()


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


# Files of wrong kinds

@pytest.fixture(scope="module")
def bare(start_shared_device):
    return start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp")


NO_DAC = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]  # so that root, too, is refused
BINARY = bytes(byte for byte in random.Random(3).randbytes(1000) if byte not in b"\0\r\n")[:100]
LITTLE_MEMORY_KB = 160 * 1024  # the sanitizer's own share included


def unreadable(file: Path) -> None:
    file.write_text("6420\n")
    file.chmod(0)


def huge(file: Path) -> None:
    file.write_bytes(b"")
    os.truncate(file, 1 << 30)


def make_digits(file: Path) -> None:
    file.write_bytes(b"6" * (64 << 20))


@pytest.mark.parametrize("make, said", [
    (Path.mkdir, "/etc/xr-modelnumber EMPTY !   Cannot continue\n"),
    (unreadable, "/etc/xr-modelnumber EMPTY !   Cannot continue\n"),
    (huge, "Invalid numeric modelNumber: "), (make_digits, "Invalid numeric modelNumber: ")],
    ids=["folder", "unreadable", "huge, without a line end", "huge, of digits"])
def test_wrong_model_number_file_ends_the_daemon_with_little_memory(bare, make, said):
    file = bare.path("/etc/xr-modelnumber")
    bare.run(["rm", "-rf", "/etc/xr-modelnumber"])
    make(file)
    done = run_measured(bare, [*NO_DAC, "kvsnmp", "-d"])
    assert f"readModelNumber {said}" in done.err
    assert "KvSnmp Failed to read modelNumber, cannot continue\n" in done.err
    assert done.status == 255 and len(done.err) < 20000 and done.memory_kb < LITTLE_MEMORY_KB


def test_binary_and_huge_text_files_are_served_as_their_first_127_characters(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    device.path("/etc/xr-pkgver").write_bytes(BINARY)
    huge(device.path("/etc/xr-model"))
    for name in ("xr-kernelver", "xr-amptype"):
        make_digits(device.path(f"/etc/{name}"))
    device.start_kvsnmp("-d", env=lean_environment())
    device.wait_answering()
    package, model, amplifier, kernel = device.snmp.get(*(INFO[place] for place in (0, 1, 3, 4)),
                                                        access=["-v2c", "-c", "public", "-Ox"])
    assert package[0] == "Hex-STRING" and b"?" in bytes.fromhex(package[1])
    assert bytes.fromhex(package[1]).replace(b"?", b"") == BINARY.decode(errors="ignore").replace("?", "").encode("latin-1")
    assert model == ("STRING", "")  # a C string ends at its first NUL
    assert bytes.fromhex(amplifier[1]) == b"Unknown"
    assert bytes.fromhex(kernel[1]) == b"6" * 127
    assert memory_kb(device, device.kvsnmp_pid()) < LITTLE_MEMORY_KB
    assert len(device.kvsnmp_err()) < 100000
