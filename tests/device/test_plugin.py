"""monitoring/checks/check_kvsnmp, with net-snmp's tools, on a real device, and without kvsnmp."""
from __future__ import annotations

import re

import pytest
from support import steps
from support.device import CHECKOUT, Device
from support.polling import wait_until

PLUGIN = str(CHECKOUT / "monitoring/checks/check_kvsnmp")
OK, WARNING, CRITICAL = range(3)
NAME = "6420 Orvane Mervio Amplifier VQ9D"


def check(device: Device, *arguments: str) -> tuple[int, str]:
    done = device.run([PLUGIN, "-H", "127.0.0.1", *arguments], check=False)
    assert done.stderr == ""
    return done.returncode, done.stdout


@pytest.fixture(scope="module")
def device(start_shared_device) -> Device:
    """The last test breaks it."""
    device = start_shared_device(6420, "--clock-shift", "--no-traps").wait_answering(60).wait_subscribed(60)
    steps.apply(device, [["monitor", "amp", channel, "2"] for channel in "01"])
    return device


def test_the_manual_shows_what_it_prints(device):
    status, text = check(device)
    assert status == OK and text.startswith(f"KVSNMP OK - {NAME}: 60 values in order | 'Channel_1'=52.4C;0.1:70;0:85 ")
    text = (CHECKOUT / "docs/operators.md").read_text()
    command, shown = re.search(r"^    (\S+check_kvsnmp -H .*)\n((?:    .*\n)+)", text, re.MULTILINE).groups()
    words = command.split()
    status, said = check(device, *words[words.index("1161") + 1:])
    assert words[:5] == ["/usr/share/kvsnmp-monitoring/checks/check_kvsnmp", "-H", "127.0.0.1", "-p", "1161"]
    assert status == WARNING
    shown_lines = [line.strip() for line in shown.splitlines()]
    assert len(shown_lines) > 3
    for line in shown_lines:
        start, dots, _ = line.partition("...")
        assert any(real.startswith(start) if dots else real == line for real in said.splitlines()), line


def test_versions_and_credentials(device):
    device.path("/etc/snmp/snmpd.local.conf").write_text(
        "createUser watcher SHA authpassword AES privpassword\nrouser watcher priv\n")
    device.stir_snmpd_folder()
    device.path("/tmp/credentials").write_text(
        "defVersion 3\ndefSecurityName watcher\ndefSecurityLevel authPriv\ndefAuthType SHA\ndefPrivType AES\n"
        "defAuthPassphrase authpassword\ndefPrivPassphrase privpassword\n")
    wait_until(lambda: check(device, "--credentials", "/tmp/credentials")[0] == OK, 60, 0.5, "user known")
    user = ["-P", "3", "-U", "watcher", "-L", "authPriv", "-a", "SHA", "-A", "authpassword", "-x", "AES", "-X"]
    for arguments, status in (([*user, "privpassword"], OK), ([*user, "wrongpassword"], CRITICAL), (["-P", "1"], OK),
                              (["-C", "public"], OK), (["-C", 'wr"ong'], CRITICAL)):
        assert check(device, *arguments)[0] == status, arguments


def test_kvsnmp_that_does_not_run(device):
    device.kill_and_wait(device.kvsnmp_pid())
    status, text = wait_until(lambda: (found := check(device)) and "Timeout" not in found[1] and found, 60, 0.5, "snmpd answers")
    assert status == CRITICAL and "snmpd answers, kvsnmp does not" in text
