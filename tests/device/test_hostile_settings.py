"""Settings of any kind: a file with exactly the lines that were meant, and none that runs a command.

KVSNMP_RANDOM_SETTINGS in the environment is how many random ones are tried (some 0.3 s each), KVSNMP_RANDOM_SEED which.
"""
from __future__ import annotations

import os
import random

import pytest
from support.dataservice import DataService
from support.device import Device
from support.polling import wait_until
from support.settingsfile import DISABLED, HEAD, READ, SnmpSettings

CONF = "/etc/snmp/snmpd.conf"
SETTINGS_COUNT = int(os.environ.get("KVSNMP_RANDOM_SETTINGS", "50"))
SEED = int(os.environ.get("KVSNMP_RANDOM_SEED", "4"))
EXTEND_TABLE = ".1.3.6.1.4.1.8072.1.3.2"
CONTACT = ".1.3.6.1.2.1.1.4.0"
WITNESS = "/tmp/witness"

PIECES = ["a", "ops", " ", "  ", "\t", '"', "'", "#", "\\", "%1", "%2", "%%", "\u00e4", "\u20ac", "\U0001f600",
          "\u00a0", "\u2028", "\x85", "<&>", "]]>", "x" * 300, "192.0.2.1", "::1", "-v", "\n", "\r", "\r\n", "\nextend e /bin/sh",
          "\rexec x",
          "\nrwcommunity all", "includeFile /etc/passwd", "\ncom2sec mynetwork default public"]


@pytest.fixture(scope="module")
def scripted(start_shared_device):
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    service = DataService(device.path("/run/tal.sock"))
    wait_until(lambda: service.has("custom_config"), 10, what="settings subscribed")
    SnmpSettings().send_all(service)
    device.wait_answering()
    yield device, service
    service.close()


def text(chooser: random.Random) -> str:
    return "".join(chooser.choice(PIECES) for _ in range(chooser.choice([0, 1, 1, 2, 3, 5, 8])))


def random_settings(chooser: random.Random, number: int) -> SnmpSettings:
    return SnmpSettings(
        sys_name=text(chooser), sys_location=text(chooser), sys_contact=text(chooser),
        community=f"c{number}{text(chooser)}",  # none is like the one before
        access=chooser.choice(["Read", "Read", "Read", "Disabled", "Write", text(chooser)]), nms_ip=text(chooser),
        nms_ipv6=text(chooser), snmp_port=text(chooser), trap_address=text(chooser), inform_address=text(chooser),
        version_1=chooser.choice(["true", "false"]), version_2c=chooser.choice(["true", "false"]))


def written(value: str) -> str:
    """What of a value stands in the file; one of white space alone counts as empty."""
    if not value.strip(" \t\n\r\x0b\x0c\x85\xa0\u2028"):
        return ""
    return value.partition("\n")[0].partition("\r")[0]


def expected(settings: SnmpSettings) -> str:
    if settings.access not in ("Read", "Disabled"):
        return ""
    lines = [HEAD.rstrip("\n")]
    for directive, value in (("sysName", settings.sys_name), ("sysContact", settings.sys_contact),
                             ("sysLocation", settings.sys_location), ("informsink", settings.inform_address),
                             ("trap2sink", settings.trap_address)):
        if kept := written(value):
            lines.append(f"{directive} {kept}")
    port = written(settings.snmp_port)
    if settings.access == "Disabled":
        access = DISABLED.splitlines()
        access[-1] = f"#agentAddress udp6:{port},udp:{port}"
    else:
        access = READ.splitlines()
        community = written(settings.community)
        access[0] = f"com2sec mynetwork {written(settings.nms_ip)} {community}"
        access[1] = f"com2sec6 mynetwork {written(settings.nms_ipv6)} {community}"
        for place, version in ((2, settings.version_1), (3, settings.version_2c)):
            access[place] = ("" if version == "true" else "#") + access[place]
        access[-1] = f"agentAddress udp6:{port},udp:{port}"
    return "\n".join([*lines, *access]) + "\n"


def raw(device: Device) -> str:
    try:
        return device.path(CONF).read_bytes().decode()
    except FileNotFoundError:
        return ""


def test_random_settings_give_exactly_their_lines(scripted):
    device, service = scripted
    chooser = random.Random(SEED)
    before = SnmpSettings()
    written_files = 0
    for number in range(SETTINGS_COUNT):
        settings = random_settings(chooser, number)
        count = device.kvsnmp_err().count("Generating new snmpd.conf")
        settings.send_changes(service, before)
        before = settings
        wait_until(lambda count=count: device.kvsnmp_err().count("Generating new snmpd.conf") > count, 5,
                   what="file written")
        wanted = expected(settings)
        try:
            wait_until(lambda wanted=wanted: raw(device) == wanted, 2)
        except AssertionError:
            assert raw(device) == wanted, settings
            raise
        assert raw(device).count("\n") == wanted.count("\n")
        written_files += wanted != ""
    assert written_files > SETTINGS_COUNT / 2
    SnmpSettings(sys_contact="settled").send_changes(service, before)
    wait_until(lambda: device.snmp.try_get(CONTACT) == ("STRING", "settled"), 20, what="snmpd with proper settings")


ATTACK = f"extend evil /usr/bin/touch {WITNESS}"


def walks_of_extensions(device: Device) -> list[str]:
    return [variable.text for variable in device.snmp.walk(EXTEND_TABLE)]


def test_line_feed_in_the_contact_runs_no_command(scripted):
    """The line that it would add runs one indeed when it stands in a file made by hand."""
    device, service = scripted
    attacked = SnmpSettings(sys_contact=f"ops 7\n{ATTACK}")
    attacked.send_changes(service, SnmpSettings(sys_contact="settled"))
    wait_until(lambda: device.snmp.try_get(CONTACT) == ("STRING", "ops 7"), 20, what="snmpd with what is left of it")
    assert walks_of_extensions(device) in ([], ["0"])
    assert not device.path(WITNESS).exists()
    assert "warning: Setting sysContact cut at its first line end or NUL" in device.syslog_texts()

    device.path(CONF).write_text(device.read(CONF) + f"{ATTACK}\n")
    snmpd = device.pids("snmpd")
    device.stir_snmpd_folder()
    device.wait_snmpd(other_than=snmpd)
    device.wait_answering()
    wait_until(lambda: len(walks_of_extensions(device)) > 1, 10, what="extension served")
    wait_until(device.path(WITNESS).exists, 10, what="command run")
