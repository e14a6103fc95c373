"""monitoring/snmptrapd/snmptt.conf.kvsnmp in Debian's SNMPTT: what it writes for the traps of a device."""
from __future__ import annotations

import re
from pathlib import Path

import pytest
from support.device import CHECKOUT, Device
from support.polling import wait_until
from support.traps import CATALOGUE, E, SETTINGS, Faults

ENTRIES = CHECKOUT / "monitoring/snmptrapd/snmptt.conf.kvsnmp"
INI = Path("/etc/snmp/snmptt.ini")  # the package's own
LOG = "/tmp/snmptt.log"
EVENTS = ("softwareFault", "customFault")  # may mean nothing bad
UNKNOWN_LOG = "/tmp/snmptt.unknown.log"


class Manager:
    """A device with a snmptrapd beside it that hands every trap to SNMPTT, set up as the manual says."""

    def __init__(self, start_device) -> None:
        self.device: Device = start_device(6420, "--no-traps")
        self.faults = Faults(self.device)
        ini = INI.read_text()
        # ipv6_enable, on by default, needs a Perl module that the package does not depend on.
        for name, value in [("ipv6_enable", "0"), ("log_file", LOG), ("syslog_enable", "0"), ("syslog_system_enable", "0"),
                            ("unknown_trap_log_enable", "1"), ("unknown_trap_log_file", UNKNOWN_LOG)]:
            ini, count = re.subn(rf"^{name} = .*$", f"{name} = {value}", ini, flags=re.MULTILINE)
            assert count == 1, name
        ini, count = re.subn(r"(?<=\n)/etc/snmptt/snmptt\.conf(?=\n)", str(ENTRIES), ini)
        assert count == 1
        self.device.path("/tmp/snmptt.ini").write_text(ini)
        self.device.path("/tmp/snmptrapd.conf").write_text(
            "disableAuthorization yes\n[snmp] printNumericOids yes\n[snmp] mibs :\n"
            "traphandle default /usr/sbin/snmptt --ini=/tmp/snmptt.ini\n")
        with open(self.device.path("/var/log/snmptrapd.log"), "wb") as log:
            self.device.popen(["snmptrapd", "-f", "-n", "-C", "-c", "/tmp/snmptrapd.conf", "-Le"], stdout=log, stderr=log)
        self.device.wait_answering().wait_subscribed()

    def lines(self) -> list[str]:
        return self.device.read(LOG).splitlines()

    def line_with(self, part: str) -> str:
        found = wait_until(lambda: [line for line in self.lines() if part in line], 20, what=f"line with {part!r}")
        assert len(found) == 1, found
        return found[0]

    def raise_all(self, prefix: str) -> dict[str, str]:
        """A fault of every kind; notification to text."""
        texts = {row.name: f"{prefix} {row.name}" for row in CATALOGUE}
        self.device.talctl_batch([self.faults.raise_line(row.identifiers[0], texts[row.name]) for row in CATALOGUE])
        return texts


@pytest.fixture(scope="module")
def manager(start_shared_device):
    return Manager(start_shared_device)


def of(name: str) -> str:
    """What stands in front of a line's own text: the manager's time, the OID, the name."""
    arc = next(row.arc for row in CATALOGUE if row.name == name)
    severity = "Normal" if name in EVENTS else "Warning"
    return rf"\w{{3}} \w{{3}} [ \d]\d [\d:]{{8}} \d{{4}} {re.escape(E)}\.2\.8\.{arc} {severity} \"kvsnmp\" \S+ - {name}: "


SINCE = r"since \w{3} \w{3} \d{1,2} \d\d\.\d\d\.\d\d 2024: "


def test_each_notification_becomes_one_line(manager):
    for name, text in manager.raise_all("with sysName").items():
        assert re.fullmatch(of(name) + rf"pa-device \(device\): error {SINCE}{text}", manager.line_with(text))
    assert len(manager.lines()) == len(CATALOGUE)


@pytest.mark.parametrize("level, word", [("crit", "critical"), ("err", "error"), ("warning", "warning"),
                                         ("info", "notice"), ("odd", "unclassified")])
def test_the_level_is_a_word(manager, level, word):
    manager.faults.raise_one("custom_msg", f"level {level}", level=level)
    assert f"): {word} since " in manager.line_with(f": level {level}")


@pytest.mark.parametrize("text, shown", [
    # What could mean something to a shell SNMPTT itself takes out.
    ("door: rack 7 | open; 50 % $5 `id` (x)", "door: rack 7 open 50 % 5 'id' (x)"),
    ("one\n\ntwo", "one two"),
], ids=["marks", "line feeds"])
def test_any_text_stays_on_its_line(manager, text, shown):
    manager.faults.raise_one("let_fail", text)
    assert re.fullmatch(of("letFault") + r"pa-device \(device\): error " + SINCE + re.escape(shown), manager.line_with(shown))


def test_without_a_system_name_too(manager):
    snmpd = manager.device.pids("snmpd")
    manager.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", "")
    manager.device.wait_snmpd(other_than=snmpd)
    manager.device.wait_answering()
    for name, text in manager.raise_all("without sysName").items():
        assert re.fullmatch(of(name) + rf"device: error {SINCE}{text}", manager.line_with(text))
    # Of snmpd's own start and end alone there is no entry.
    unknown = re.findall(r"Unknown trap \(([\w.]+)\)", manager.device.read(UNKNOWN_LOG))
    assert unknown and not [oid for oid in unknown if oid.startswith(E)]
