"""What operators load into their trap receivers: the handler of snmptrapd and the entries of SNMPTT; and
docs/traps.md."""
from __future__ import annotations

import re
from pathlib import Path

import pytest
from support.catalogue import TRAPS
from support.dataservice import SETTINGS
from support.device import CHECKOUT, Device
from support.polling import wait_until
from support.traps import E, Faults

EXAMPLE = CHECKOUT / "monitoring/snmptrapd"
CONF = "/tmp/snmptrapd.conf"


class Manager:
    """A device with a snmptrapd beside it."""

    def __init__(self, start_device, configuration: str) -> None:
        self.device: Device = start_device(6420, "--no-traps")
        self.faults = Faults(self.device)
        self.device.path(CONF).write_text(configuration)
        with open(self.device.path("/var/log/snmptrapd.log"), "wb") as log:
            self.device.popen(["snmptrapd", "-f", "-n", "-C", "-c", CONF, "-Le"], stdout=log, stderr=log)
        self.device.wait_answering().wait_subscribed()

    def lines(self) -> list[str]:
        raise NotImplementedError

    def line_with(self, part: str) -> str:
        lines = wait_until(lambda: [line for line in self.lines() if part in line], 20, what=f"line with {part!r}")
        assert len(lines) == 1, lines
        return lines[0]

    def raise_all(self, prefix: str, **arguments) -> dict[str, str]:
        """A fault of every kind; notification to text."""
        texts = {trap.name: f"{prefix} {trap.name}" for trap in TRAPS}
        self.device.talctl_batch([self.faults.raise_line(trap.identifiers[0], texts[trap.name], **arguments)
                                  for trap in TRAPS])
        return texts

    def forget_the_system_name(self) -> None:
        snmpd = self.device.pids("snmpd")
        self.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", "")
        self.device.wait_snmpd(other_than=snmpd)
        self.device.wait_answering()


class Handler(Manager):
    """Runs the shipped configuration."""

    def lines(self) -> list[str]:
        """The log lines so far, severity in front, without the times."""
        texts = [text.partition(" kvsnmp-trap: ") for _, text in self.device.syslog()]
        return [f"{severity}: {line}" for severity, mark, line in texts if mark]


@pytest.fixture(scope="module")
def handler(start_shared_device):
    shipped = (EXAMPLE / "snmptrapd.conf").read_text()
    assert "\ntraphandle .1.3.6.1.4.1.52717.2.8.* /usr/local/bin/kvsnmp-trap-line\n" in shipped
    return Handler(start_shared_device, shipped.replace("/usr/local/bin/", f"{EXAMPLE}/"))


def test_each_notification_becomes_one_line_with_its_name(handler):
    for name, text in handler.raise_all("text of", timestamp="").items():
        assert re.fullmatch(rf"err: 127\.0\.0\.1 pa-device \(device\): {name} error since "
                            rf"\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d: {text}", handler.line_with(text))
    assert len(handler.lines()) == len(TRAPS)


@pytest.mark.parametrize("level, severity, word", [
    ("crit", "crit", "critical"), ("err", "err", "error"), ("warning", "warning", "warning"),
    ("info", "notice", "notice"), ("odd", "warning", "unclassified"),
])
def test_the_level_gives_the_priority(handler, level, severity, word):
    handler.faults.raise_one("let_fail", f"level {level}", level=level)
    line = handler.line_with(f": level {level}")
    assert line.startswith(f"{severity}: ") and f" letFault {word} since " in line


@pytest.mark.parametrize("text, shown", [
    ("Lüfter 1 steht – 温度", "Lüfter 1 steht – 温度"),
    ("back \\ slash, end \\", "back \\ slash, end \\"),
    (f'forged"\n{E}.2.4.3.0 1\n{E}.2.4.5.0 "x', f'forged" {E}.2.4.3.0 1 {E}.2.4.5.0 "x'),
], ids=["UTF-8", "backslashes", "forged values"])
def test_any_text_stays_on_its_line(handler, text, shown):
    handler.faults.raise_one("custom_msg", text)
    line = handler.line_with(shown)
    assert line.startswith("err: ") and line.endswith(f": {shown}") and " customFault error since " in line


def test_without_a_system_name_the_line_has_the_host_name_alone(handler):
    handler.forget_the_system_name()
    handler.faults.raise_one("fuse_broken", "nameless", timestamp="0")
    # 0 is the epoch in the device's local time.
    assert re.fullmatch(r"err: 127\.0\.0\.1 device: fuseBroken error since (1970-01-01|1969-12-31) \d\d:\d\d:00: "
                        "nameless", handler.line_with("nameless"))


# Words of trapLevel, in its order, and SNMPTT's severities.
SEVERITIES = [("critical", "Critical"), ("error", "Major"), ("unclassified", "Warning"), ("warning", "Warning"),
              ("notice", "Normal")]


def test_the_handler_the_snmptt_entries_and_the_manual_have_the_traps_of_the_catalogue():
    names = dict(re.findall(r'\b(\d+): "(\w+)"', (EXAMPLE / "kvsnmp-trap-line").read_text()))
    assert names == {str(trap.arc): trap.name for trap in TRAPS}
    text = (EXAMPLE / "snmptt.conf.kvsnmp").read_text()
    entries = re.findall(r'^EVENT (\w+) (\S+) "kvsnmp" (\w+)\nFORMAT (.*)\nMATCH MODE=and\nMATCH \$#: (\d)\n'
                         r'MATCH \$(\d): (\d)$', text, re.MULTILINE)
    expected = []
    for trap in TRAPS:  # with and without sysName
        for form, count, level in [("$N: $3 ($2): {} since $5: $6", "6", "4"), ("$N: $2: {} since $4: $5", "5", "3")]:
            expected += [(trap.name, f"{E}.2.8.{trap.arc}", severity, form.format(word), count, level, str(code))
                         for code, (word, severity) in enumerate(SEVERITIES, 1)]
        assert f"# {trap.switch}: {', '.join(trap.identifiers)}\n" in text
    assert entries == expected
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in
            (CHECKOUT / "docs/traps.md").read_text().splitlines() if re.match(r"\| \d+ \| `", line)]
    assert [row[:4] for row in rows] == [
        [str(trap.arc), f"`{trap.name}`", trap.switch, ", ".join(f"`{identifier}`" for identifier in trap.identifiers)]
        for trap in TRAPS]


def test_the_handler_refuses_other_traps(handler):
    other = "host\nUDP: [127.0.0.1]\n.1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.6.3.1.1.5.1\n"
    assert handler.device.run([str(EXAMPLE / "kvsnmp-trap-line")], check=False, input=other).returncode == 1


# SNMPTT, Debian's

INI = Path("/etc/snmp/snmptt.ini")  # the package's own
LOG, UNKNOWN_LOG = "/tmp/snmptt.log", "/tmp/snmptt.unknown.log"


def test_a_version_1_trap_has_the_enterprise_and_the_number(start_device):
    device = start_device(6420, "--no-traps")
    lines = "/tmp/lines"
    device.path(CONF).write_text((EXAMPLE / "snmptrapd.conf").read_text().replace(
        "/usr/local/bin/kvsnmp-trap-line", f"{EXAMPLE}/kvsnmp-trap-line --file {lines}").replace(
        "execute public", "log,execute public"))
    log = "/var/log/version1.log"
    device.run(["snmptrapd", "-C", "-c", CONF, "-On", "-Lf", log, "udp:127.0.0.1:1162"])
    device.path("/etc/snmp/snmpd.local.conf").write_text("trapsink 127.0.0.1:1162 public\n")
    device.wait_answering().wait_subscribed()
    wait_until(lambda: "Cold Start Trap" in device.read(log), 20, what="the restarted snmpd")
    device.wait_answering()
    Faults(device).raise_one("fan_not_running", "Fan 1")
    wait_until(lambda: f"\t{E}.2.8 Enterprise Specific Trap (1) " in device.read(log), 20, what="the trap")
    assert f"{E}.2.8.1" not in device.read(log)
    line = wait_until(lambda: device.path(lines).exists() and device.read(lines), 20, what="its line")
    assert line.endswith(": Fan 1\n") and "127.0.0.1 pa-device (device): coolingFanFault error since " in line


class Snmptt(Manager):
    """Receives every trap from snmptrapd, set up as the manual says."""

    def lines(self) -> list[str]:
        return self.device.read(LOG).splitlines()


@pytest.fixture(scope="module")
def snmptt(start_shared_device):
    ini = INI.read_text()
    # ipv6_enable, on by default, needs a Perl module that the package does not depend on.
    for name, value in [("ipv6_enable", "0"), ("log_file", LOG), ("syslog_enable", "0"), ("syslog_system_enable", "0"),
                        ("unknown_trap_log_enable", "1"), ("unknown_trap_log_file", UNKNOWN_LOG)]:
        ini, count = re.subn(rf"^{name} = .*$", f"{name} = {value}", ini, flags=re.MULTILINE)
        assert count == 1, name
    ini, count = re.subn(r"(?<=\n)/etc/snmptt/snmptt\.conf(?=\n)", str(EXAMPLE / "snmptt.conf.kvsnmp"), ini)
    assert count == 1
    manager = Snmptt(start_shared_device, "disableAuthorization yes\n[snmp] printNumericOids yes\n[snmp] mibs :\n"
                                          "traphandle default /usr/sbin/snmptt --ini=/tmp/snmptt.ini\n")
    manager.device.path("/tmp/snmptt.ini").write_text(ini)  # read at each trap
    return manager


def of(name: str, severity: str = "Major") -> str:
    """The beginning of a line: the manager's time, the OID, the severity, the name."""
    arc = next(trap.arc for trap in TRAPS if trap.name == name)
    return rf"\w{{3}} \w{{3}} [ \d]\d [\d:]{{8}} \d{{4}} {re.escape(E)}\.2\.8\.{arc} {severity} \"kvsnmp\" \S+ - {name}: "


SINCE = r"since \w{3} \w{3} \d{1,2} \d\d\.\d\d\.\d\d 2024: "


def test_snmptt_writes_one_line_for_each_notification(snmptt):
    for name, text in snmptt.raise_all("with sysName").items():
        assert re.fullmatch(of(name) + rf"pa-device \(device\): error {SINCE}{text}", snmptt.line_with(text))
    assert len(snmptt.lines()) == len(TRAPS)


def test_snmptt_gives_each_level_its_severity_and_its_word(snmptt):
    for level, (word, severity) in zip(["crit", "err", "odd", "warning", "info"], SEVERITIES):
        text = f"level {level}"
        snmptt.faults.raise_one("custom_msg", text, level=level)
        assert re.fullmatch(of("customFault", severity) + rf"pa-device \(device\): {word} {SINCE}{text}",
                            snmptt.line_with(text))


def test_snmptt_without_a_system_name(snmptt):
    snmptt.forget_the_system_name()
    for name, text in snmptt.raise_all("without sysName").items():
        assert re.fullmatch(of(name) + rf"device: error {SINCE}{text}", snmptt.line_with(text))
    # Only snmpd's own start and end have no entry.
    unknown = re.findall(r"Unknown trap \(([\w.]+)\)", snmptt.device.read(UNKNOWN_LOG))
    assert unknown and not [oid for oid in unknown if oid.startswith(E)]
