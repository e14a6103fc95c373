"""monitoring/checks/check_kvsnmp, with net-snmp's tools, on a real device in order, with faults, and without kvsnmp."""
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
    """The last tests break it."""
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


def test_faults_and_kvsnmp_that_does_not_run(device):
    steps.apply(device, [
        ["set", "/state/power_lines/power_line[kid='3v3']/voltage", "3.7"],
        ["set", "/state/fans/fan[kid='amp_power']/speed_sensor_rpm", "499"],
        ["set", "/state/power_sources/power_source[kid='dc_power']/live", "false"],
        ["set", "/state/lines/line[kid='ch1']/characteristics/line_state", "ground_fault"],
        ["monitor", "amp", "1", "1"],
        ["monitor", "let", "0", "1", "1"],
        ["monitor", "gpi", "5", "fail_unconnected"],
    ])
    status, text = check(device)
    first, *others = text.splitlines()
    assert status == CRITICAL
    assert first.startswith(f"KVSNMP CRITICAL - {NAME}: Voltages: Internal voltage 3.3V 3.7 V (+12.1 %), "
                            "Power sources: dc_power notLive, Amplifier channels: Channel 2 monitorFault, 4 more | ")
    assert others[3:7] == [
        "CRITICAL - Loudspeaker lines: Channel 1: groundFault", "CRITICAL - Transponders of channel 1: LET 1 Channel 1: missing",
        "CRITICAL - Control inputs: Control Input 6: unconnected", "WARNING - Fans: Left Fan: 499 rpm, outside 500:"]
    assert others[7].startswith("Temperatures: ")

    device.kill_and_wait(device.kvsnmp_pid())
    status, text = wait_until(lambda: (found := check(device)) and "Timeout" not in found[1] and found, 60, 0.5, "snmpd answers")
    assert status == CRITICAL and "snmpd answers, kvsnmp does not" in text
