"""From the settings of the data service to snmpd.conf, byte for byte, and to the restarted snmpd."""
from __future__ import annotations

import stat
import time

import pytest
from support.dataservice import SETTINGS, DataService
from support.inotify import FolderEvents
from support.polling import stays, wait_until
from support.settingsfile import DISABLED, HEAD, NAMES, READ, SnmpSettings

CONF = "/etc/snmp/snmpd.conf"

# Each case sends what differs from the one before it, so their order is part of the test.
CASES = {
    "read": (SnmpSettings(), HEAD + NAMES + READ),
    "disabled": (SnmpSettings(access="Disabled"), HEAD + NAMES + DISABLED),
    "other port, disabled": (SnmpSettings(access="Disabled", snmp_port="1611"),
                             HEAD + NAMES + DISABLED.replace(":161", ":1611")),
    "unknown access": (SnmpSettings(access="Write"), ""),
    "empty access": (SnmpSettings(access="", sys_name="amp-2"), ""),
    "version 1 off": (SnmpSettings(version_1="false"), HEAD + NAMES + READ.replace("group MyROGroup v1 ", "#group MyROGroup v1 ")),
    "version 2c off": (SnmpSettings(version_2c="TRUE"), HEAD + NAMES + READ.replace("group MyROGroup v2c", "#group MyROGroup v2c")),
    "only a contact": (SnmpSettings(sys_name="", sys_location=" "), HEAD + "sysContact ops\n" + READ),
    "no names": (SnmpSettings(sys_name="", sys_location="", sys_contact=""), HEAD + READ),
    "receivers": (SnmpSettings(trap_address="127.0.0.1:1162", inform_address="127.0.0.1:1163"),
                  HEAD + NAMES + "informsink 127.0.0.1:1163\ntrap2sink 127.0.0.1:1162\n" + READ),
    "other manager": (SnmpSettings(nms_ip="192.0.2.0/24", nms_ipv6="2001:db8::/32", community="  secret word "),
                      HEAD + NAMES + READ.replace("127.0.0.1 public", "192.0.2.0/24   secret word ")
                      .replace("::1 public", "2001:db8::/32   secret word ")),
    "no source": (SnmpSettings(nms_ip=""), HEAD + NAMES + READ.replace("127.0.0.1 public", " public")),
    "text beyond ASCII": (SnmpSettings(sys_location="Gebäude 3, Ü-Raum"),
                          HEAD + NAMES.replace("rack 7", "Gebäude 3, Ü-Raum") + READ),
    "read again": (SnmpSettings(), HEAD + NAMES + READ),
}


@pytest.fixture(scope="module")
def scripted(start_shared_device):
    """A device whose data service is the test, with the settings of the first case sent."""
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    service = DataService(device.path("/run/tal.sock"))
    wait_until(lambda: service.has("custom_config"), 10, what="settings subscribed")
    assert not device.path(CONF).exists(), "nothing is written before the settings are known"
    SnmpSettings().send_all(service)
    yield device, service
    service.close()


def test_snmpd_conf_is_written_byte_for_byte_for_each_kind_of_settings(scripted):
    device, service = scripted
    before, written = SnmpSettings(), -1
    for name, (settings, expected) in CASES.items():
        settings.send_changes(service, before)
        before = settings
        try:
            wait_until(lambda: expected == device.read(CONF) and device.path(CONF).stat().st_mtime_ns != written, 5)
        except AssertionError:
            assert device.read(CONF) == expected, name
            raise
        written = device.path(CONF).stat().st_mtime_ns
        assert stat.S_IMODE(device.path(CONF).stat().st_mode) == 0o600, name


def test_a_change_that_is_not_compared_is_not_acted_on_but_goes_with_the_next_one(scripted):
    """The IPv6 manager and version 3 alone are kept, not written: intended."""
    device, service = scripted
    wait_until(lambda: device.read(CONF) == HEAD + NAMES + READ, 5, what="state of the last case")
    written = device.path(CONF).stat().st_mtime_ns
    ipv6_only = SnmpSettings(nms_ipv6="2001:db8::7", version_3="true")
    ipv6_only.send_changes(service, SnmpSettings())
    stays(lambda: device.path(CONF).stat().st_mtime_ns == written, 1.0, what="file left alone")
    # The IPv6 manager was not even stored: it comes with the next access notification that is acted on.
    SnmpSettings(nms_ipv6="2001:db8::7", community="other").send_changes(service, ipv6_only)
    expected = HEAD + NAMES + READ.replace("::1 public", "2001:db8::7 other").replace("public", "other")
    wait_until(lambda: device.read(CONF) == expected, 5, what="community and IPv6 manager written")


def test_one_file_for_a_burst_of_changes(scripted):
    device, service = scripted
    count = device.kvsnmp_err().count("Generating new snmpd.conf based on TAL values\n")
    path = f"{SETTINGS}/mib_2_settings"
    for number in range(100):
        service.notify("mib2_settings", "replace", path,
                       f"<mib_2_settings><sys_location>rack {number}</sys_location></mib_2_settings>")
    wait_until(lambda: "sysLocation rack 99\n" in device.read(CONF), 5, what="last location written")
    assert device.kvsnmp_err().count("Generating new snmpd.conf based on TAL values\n") == count + 1


@pytest.mark.parametrize("sent, kept", [
    ("ops&#10;extend evil /bin/sh", "ops"),
    ("ops 2&#13;extend evil /bin/sh", "ops 2"),
    ("ops 3&#13;&#10;rwcommunity evil", "ops 3"),
], ids=["line feed", "carriage return", "both"])
def test_a_setting_cannot_forge_a_line_of_the_file(scripted, sent, kept):
    device, service = scripted
    service.notify("mib2_settings", "replace", f"{SETTINGS}/mib_2_settings",
                   f"<mib_2_settings><sys_contact>{sent}</sys_contact></mib_2_settings>")
    wait_until(lambda: f"sysContact {kept}\n" in device.read(CONF), 5, what="contact cut and written")
    assert "evil" not in device.read(CONF)


def test_restart_sequence_and_its_times(start_device):
    """300 ms of quiet, the file, 500 ms, the old snmpd ended, 500 ms, the new snmpd."""
    device = start_device(6420, "--no-traps").wait_answering()
    old = device.wait_snmpd()
    events = FolderEvents(device.path("/etc/snmp"), device.path("/run"))
    syslog_before = len(device.syslog())
    restarts = device.kvsnmp_err().count("SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd\n")
    asked = time.monotonic()
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", "somebody else")
    device.wait_snmpd(other_than=[old])
    events.close()

    written = events.first("create", "snmpd.conf", asked)
    ended = events.first("delete", "snmpd.pid", asked)
    started = events.first("create", "snmpd.pid", asked)
    assert written and ended and started, events.events
    assert asked < written.at < ended.at < started.at
    # Lower bounds are the daemon's own timers, upper ones leave room for a busy machine.
    assert 0.28 <= written.at - asked < 2.0
    assert 0.48 <= ended.at - written.at < 2.5
    assert 0.40 <= started.at - ended.at < 2.5  # snmpd needs a little of the 500 ms to end

    said = [text for _, text in device.syslog()[syslog_before:] if "kv-snmp[" in text]
    assert [text.partition("]: ")[2] for text in said] == ["Tal System Config settled",
                                                          "Starting snmpd (snmpd.conf from TAL)"]
    assert device.kvsnmp_err().count("SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd\n") == restarts + 1
    device.wait_answering()
    assert device.snmp.get(".1.3.6.1.2.1.1.4.0") == [("STRING", "somebody else")]


def test_private_mib_is_back_soon_after_the_start_of_the_new_snmpd(start_device):
    """By kvagent.conf the sub-agent looks for snmpd every second: 0.5 to 1.1 s are usual. Without that file it looks
    15 s after it has lost the old one, which is more than 14 s after the start: 4 s leave room for a busy machine."""
    device = start_device(6420, "--no-traps").wait_answering()
    old = device.wait_snmpd()
    events = FolderEvents(device.path("/run"))
    asked = time.monotonic()
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", "somebody else")
    device.wait_snmpd(other_than=[old])
    device.wait_answering()
    answered = time.monotonic()
    events.close()
    started = events.first("create", "snmpd.pid", asked)
    assert started, events.events
    print(f"private MIB back {answered - started.at:.2f} s after the start of snmpd")
    assert answered - started.at < 4.0


def test_nothing_starts_before_the_data_service_has_said_whether_the_file_is_custom(start_device):
    device = start_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    service = DataService(device.path("/run/tal.sock"))
    wait_until(lambda: service.has("custom_config"), 10, what="settings subscribed")
    for ref, (step, node) in SnmpSettings().nodes().items():
        if ref != "custom_config":
            service.notify(ref, "create", f"{SETTINGS}/{step}", node)
    wait_until(lambda: "info: Tal System Config settled" in device.syslog_texts(), 5, what="settings timer")
    stays(lambda: not device.path(CONF).exists() and not device.pids("snmpd"), 1.5, what="nothing written or started")
    step, node = SnmpSettings().nodes()["custom_config"]
    service.notify("custom_config", "create", f"{SETTINGS}/{step}", node)
    # The flag says what was assumed from the start, so it sets no timer: the next change of a setting writes.
    changed = SnmpSettings(sys_contact="ops 2")
    changed.send_changes(service, SnmpSettings())
    wait_until(lambda: "sysContact ops 2\n" in device.read(CONF), 5, what="file written")
    device.wait_snmpd()
    service.close()
