"""From the identity files to the information scalars."""
from __future__ import annotations

import pytest
from support.snmp import TABLES

INFO = [f"{TABLES}.1.{number}.0" for number in range(1, 8)]


def info(device) -> list[str]:
    """Package, model text, model number, amplifier type, kernel, device tree, disablement."""
    return [text for _, text in device.snmp.get(*INFO)]


def start_all(start_device, *devices):
    started = [start_device(model, "--no-dbus", "--no-traps", *options, wait=False) for model, *options in devices]
    for device in started:
        device.wait_ready().wait_answering()
    return started


def test_files_of_the_firmware_are_served(start_device):
    identity = ["--etc", "xr-pkgver=7.1.0-rc 2", "--etc", "xr-kernelver=6.1.0-kv", "--etc", "xr-oftreever=dt 3"]
    plain, vq9b, power, without_amplifier = start_all(
        start_device,
        (6420, "--model-text", "A text of its own", *identity),
        (6720, "--model-text", "A text that is replaced", "--etc", "xr-amptype=VQ9B", *identity),
        (6764, "--etc", "xr-powertype=200", *identity),
        (6410, "--etc", "xr-amptype=VQ9A", *identity))
    assert info(plain) == ["7.1.0-rc 2", "A text of its own", "6420", "VQ9D", "6.1.0-kv", "dt 3", "2"]
    assert info(vq9b) == ["7.1.0-rc 2", "Orvane Mervio Amplifier VQ9", "6720", "VQ9B", "6.1.0-kv", "dt 3", "2"]
    assert info(power)[3] == "VQ9C-P2"
    assert info(without_amplifier)[3] == ""


def test_types_are_text_but_for_model_number_and_disablement(start_device):
    device, = start_all(start_device, (6425,))
    kinds = [kind for kind, _ in device.snmp.get(*INFO)]
    assert kinds == ["STRING", "STRING", "INTEGER", "STRING", "STRING", "STRING", "INTEGER"]


def test_missing_and_empty_files_read_unknown(start_device):
    absent = [part for name in ("xr-pkgver", "xr-model", "xr-kernelver", "xr-oftreever", "xr-amptype")
              for part in ("--no-etc", name)]
    empty = [part for name in ("xr-pkgver", "xr-model", "xr-kernelver", "xr-oftreever", "xr-amptype")
             for part in ("--etc", f"{name}=")]
    missing_files, empty_files, missing_power, blank_behind = start_all(
        start_device, (6420, *absent), (6425, *empty), (6764, "--no-etc", "xr-powertype"),
        (6720, "--etc", "xr-amptype=VQ9B "))
    assert info(missing_files) == ["Unknown", "Unknown", "6420", "Unknown", "Unknown", "Unknown", "2"]
    assert "readPackageVersion /etc/xr-pkgver EMPTY !\n" in missing_files.kvsnmp_err()
    assert info(empty_files) == ["Unknown", "Unknown", "6425", "Unknown", "Unknown", "Unknown", "2"]
    assert "readFile /etc/xr-amptype  EMPTY!\n" in empty_files.kvsnmp_err()
    assert info(missing_power)[3] == "VQ9-P2"
    assert info(blank_behind)[3] == "Unknown"


def test_long_texts_are_cut_to_their_fields(start_device):
    device, = start_all(start_device, (6420, "--model-text", "m" * 300, "--etc", f"xr-pkgver={'p' * 300}"))
    assert info(device)[:2] == ["p" * 127, "m" * 127]


@pytest.mark.parametrize("wrapper", [["env", "-u", "LANG"], ["env", "LC_ALL=C.UTF-8"]], ids=["no locale", "UTF-8"])
def test_texts_in_utf8_are_served_in_latin1(start_device, wrapper):
    device = start_device(6211, "--no-kvsnmp", "--no-dbus", "--no-traps")
    for name, content in (("xr-pkgver", "Straße\n".encode()), ("xr-kernelver", "5 €\n".encode()),
                          ("xr-oftreever", b"Stra\xdfe\n"),  # not UTF-8
                          ("xr-model", b"\xef\xbb\xbfOrvane Brisel Compact - IP-QRM-B\n")):
        device.path(f"/etc/{name}").write_bytes(content)
    device.start_kvsnmp("-d", wrapper=wrapper)
    device.wait_answering()
    texts = [f"{TABLES}.1.{number}.0" for number in (1, 2, 5, 6)]
    served = [bytes.fromhex(text) for _, text in device.snmp.get(*texts, access=["-v2c", "-c", "public", "-Ox"])]
    assert served == ["Straße".encode("latin-1"), b"Orvane Brisel Compact - IP-QRM-B", b"5 ?", b"Stra?e"]
    assert len(device.snmp.walk(f"{TABLES}.10.2.1.1")) == 6
    assert len(device.snmp.walk(f"{TABLES}.9.2.1.1")) == 14  # those of the station's expander, too


def test_model_number_may_have_a_sign_and_stand_between_blanks(start_device):
    device, = start_all(start_device, (6214, "--etc", "xr-modelnumber= +6214 "))
    assert info(device)[2] == "6214"
