"""What operators load into their trap receivers: the handler of snmptrapd, the entries of SNMPTT, docs/traps.md."""
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
SHIPPED = (EXAMPLE / "snmptrapd.conf").read_text()
CONF, LOG = "/tmp/snmptrapd.conf", "/tmp/snmptt.log"
INI = Path("/etc/snmp/snmptt.ini").read_text()  # of Debian's package
INI_CHANGES = [  # ipv6_enable, on by default, needs a Perl module that the package does not depend on
    (r"^ipv6_enable = .*$", "ipv6_enable = 0"), (r"^log_file = .*$", f"log_file = {LOG}"),
    (r"^syslog_enable = .*$", "syslog_enable = 0"), (r"^syslog_system_enable = .*$", "syslog_system_enable = 0"),
    (r"^/etc/snmptt/snmptt\.conf$", str(EXAMPLE / "snmptt.conf.kvsnmp"))]
LEVELS = [  # in the order of trapLevel: the fault's, its word, the priority in the system log, SNMPTT's severity
    ("crit", "critical", "crit", "Critical"), ("err", "error", "err", "Major"),
    ("odd", "unclassified", "warning", "Warning"), ("warning", "warning", "warning", "Warning"),
    ("info", "notice", "notice", "Normal")]
DATE, TIME = r"\d{4}-\d\d-\d\d", r"\d\d:\d\d:\d\d"
NOW, SINCE = rf"\w{{3}} \w{{3}} [ \d]\d {TIME} \d{{4}}", r"\w{3} \w{3} \d{1,2} \d\d\.\d\d\.\d\d 2024"


class Manager:
    """A device with a snmptrapd beside it that starts both programs for each trap."""

    def __init__(self, device: Device) -> None:
        self.device, self.faults = device, Faults(device)
        ini = INI
        for pattern, text in INI_CHANGES:
            ini, count = re.subn(pattern, text, ini, flags=re.MULTILINE)
            assert count == 1, pattern
        device.path("/tmp/snmptt.ini").write_text(ini)  # read at each trap
        device.path(CONF).write_text(SHIPPED.replace("/usr/local/bin/", f"{EXAMPLE}/")
                                     + f"traphandle {E}.2.8.* /usr/sbin/snmptt --ini=/tmp/snmptt.ini\n")
        with open(device.path("/var/log/snmptrapd.log"), "wb") as log:
            device.popen(["snmptrapd", "-f", "-n", "-C", "-c", CONF, "-Le"], stdout=log, stderr=log)
        device.wait_answering().wait_subscribed()

    def lines(self) -> tuple[list[str], list[str]]:
        """So far: of the handler, the priority in front, without the times; of SNMPTT."""
        logged = [text.partition(" kvsnmp-trap: ") for _, text in self.device.syslog()]
        return [f"{priority}: {line}" for priority, mark, line in logged if mark], self.device.read(LOG).splitlines()

    def lines_with(self, part: str) -> tuple[str, str]:
        def look() -> list[list[str]]:
            found = [[line for line in lines if part in line] for lines in self.lines()]
            return found if all(found) else []

        (line,), (entry,) = wait_until(look, 20, what=f"lines with {part!r}")
        return line, entry

    def assert_lines_of_all(self, prefix: str, host: str) -> None:
        """A fault of every kind, and its two lines."""
        texts = {trap: f"{prefix} {trap.name}" for trap in TRAPS}
        self.device.talctl_batch([self.faults.raise_line(trap.identifiers[0], text) for trap, text in texts.items()])
        for trap, text in texts.items():
            line, entry = self.lines_with(text)
            assert re.fullmatch(rf"err: 127\.0\.0\.1 {host}: {trap.name} error since {DATE} {TIME}: {text}", line)
            assert re.fullmatch(rf"{NOW} {re.escape(E)}\.2\.8\.{trap.arc} Major \"kvsnmp\" \S+ - {trap.name}: {host}: "
                                rf"error since {SINCE}: {text}", entry)


@pytest.fixture(scope="module")
def manager(start_shared_device) -> Manager:
    return Manager(start_shared_device(6420, "--no-traps"))


def test_each_notification_becomes_one_line_with_its_name(manager):
    manager.assert_lines_of_all("text of", r"pa-device \(device\)")
    assert [len(lines) for lines in manager.lines()] == [len(TRAPS)] * 2


@pytest.mark.parametrize("level, word, priority, severity", LEVELS)
def test_the_level_gives_the_priority(manager, level, word, priority, severity):
    manager.faults.raise_one("let_fail", f"level {level}", level=level)
    line, entry = manager.lines_with(f": level {level}")
    assert line.startswith(f"{priority}: ") and f" letFault {word} since " in line
    assert f' {severity} "kvsnmp" ' in entry and f"- letFault: pa-device (device): {word} since " in entry


@pytest.mark.parametrize("text, shown", [
    ("Lüfter 1 steht – 温度", "Lüfter 1 steht – 温度"),
    ("back \\ slash, end \\", "back \\ slash, end \\"),
    (f'forged"\n{E}.2.4.3.0 1\n{E}.2.4.5.0 "x', f'forged" {E}.2.4.3.0 1 {E}.2.4.5.0 "x'),
], ids=["UTF-8", "backslashes", "forged values"])
def test_any_text_stays_on_its_line(manager, text, shown):
    manager.faults.raise_one("custom_msg", text)
    line, = wait_until(lambda: [line for line in manager.lines()[0] if shown in line], 20, what="its line")
    assert line.startswith("err: ") and line.endswith(f": {shown}") and " customFault error since " in line


def test_without_a_system_name_the_lines_have_the_host_name_alone(manager):
    snmpd = manager.device.pids("snmpd")
    manager.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", "")
    manager.device.wait_snmpd(other_than=snmpd)
    manager.device.wait_answering()
    manager.assert_lines_of_all("nameless", "device")


def test_the_handler_refuses_other_traps(manager):
    other = "host\nUDP: [127.0.0.1]\n.1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.6.3.1.1.5.1\n"
    assert manager.device.run([str(EXAMPLE / "kvsnmp-trap-line")], check=False, input=other).returncode == 1


def test_the_manual_has_the_traps_of_the_catalogue():
    manual = (CHECKOUT / "docs/traps.md").read_text()
    rows = re.findall(r"^\| (\d+) \| `(\w+)` \| ([^|]+) \| ([^|]+) \|", manual, re.MULTILINE)
    assert [(arc, name, switch.strip(), identifiers.strip()) for arc, name, switch, identifiers in rows] == [
        (str(trap.arc), trap.name, trap.switch, ", ".join(f"`{identifier}`" for identifier in trap.identifiers))
        for trap in TRAPS]


def test_a_version_1_trap_has_the_enterprise_and_the_number(start_device):
    device = start_device(6420, "--no-traps")
    lines, log = "/tmp/lines", "/var/log/version1.log"
    device.path(CONF).write_text(SHIPPED.replace(
        "/usr/local/bin/kvsnmp-trap-line", f"{EXAMPLE}/kvsnmp-trap-line --file {lines}").replace(
        "execute public", "log,execute public"))
    device.run(["snmptrapd", "-C", "-c", CONF, "-On", "-Lf", log, "udp:127.0.0.1:1162"])
    device.path("/etc/snmp/snmpd.local.conf").write_text("trapsink 127.0.0.1:1162 public\n")
    device.wait_answering().wait_subscribed()
    wait_until(lambda: "Cold Start Trap" in device.read(log), 20, what="the restarted snmpd")
    device.wait_answering()
    Faults(device).raise_one("fan_not_running", "Fan 1")
    line = wait_until(lambda: device.read(lines), 20, what="its line")
    assert line.endswith(": Fan 1\n") and "127.0.0.1 pa-device (device): coolingFanFault error since " in line
    assert f"\t{E}.2.8 Enterprise Specific Trap (1) " in device.read(log) and f"{E}.2.8.1" not in device.read(log)
