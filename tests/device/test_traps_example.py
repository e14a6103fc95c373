"""What operators load into their trap receiver, and what docs/traps.md tells them, held against a device and the
catalogue."""
from __future__ import annotations

import re

import pytest
from support.device import CHECKOUT
from support.polling import wait_until
from support.traps import CATALOGUE, E, SETTINGS, Faults

EXAMPLE = CHECKOUT / "monitoring/snmptrapd"
CONF = "/tmp/snmptrapd.conf"


class Bench:
    """A device with a snmptrapd that runs the shipped configuration, as a manager would."""

    def __init__(self, start_device) -> None:
        self.device = start_device(6420, "--no-traps")
        shipped = (EXAMPLE / "snmptrapd.conf").read_text()
        assert "\ntraphandle .1.3.6.1.4.1.52717.2.8.* /usr/local/bin/kvsnmp-trap-line\n" in shipped
        self.device.path(CONF).write_text(shipped.replace("/usr/local/bin/", f"{EXAMPLE}/"))
        with open(self.device.path("/var/log/snmptrapd.log"), "wb") as log:
            self.device.popen(["snmptrapd", "-f", "-C", "-c", CONF, "-Le"], stdout=log, stderr=log)
        self.faults = Faults(self.device)
        self.device.wait_answering().wait_subscribed()

    def lines(self) -> list[str]:
        """The log lines so far, severity in front, without the times."""
        texts = [text.partition(" kvsnmp-trap: ") for _, text in self.device.syslog()]
        return [f"{severity}: {line}" for severity, mark, line in texts if mark]

    def line_with(self, part: str) -> str:
        lines = wait_until(lambda: [line for line in self.lines() if part in line], what=f"line with {part!r}")
        assert len(lines) == 1
        return lines[0]


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


def test_each_notification_becomes_one_line_with_its_name(bench):
    texts = {row.name: f"text of {row.name}" for row in CATALOGUE}
    bench.device.talctl_batch([bench.faults.raise_line(row.identifiers[0], texts[row.name], timestamp="")
                               for row in CATALOGUE])
    for name, text in texts.items():
        # The line feed that ends the time is gone: all stands on one line.
        assert re.fullmatch(rf"err: 127\.0\.0\.1 pa-device \(device\): {name} error since "
                            rf"\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d: {text}", bench.line_with(text))
    assert len(bench.lines()) == len(texts)


@pytest.mark.parametrize("level, severity, word", [
    ("crit", "crit", "critical"), ("err", "err", "error"), ("warning", "warning", "warning"),
    ("info", "notice", "notice"), ("odd", "warning", "unclassified"),
])
def test_the_level_gives_the_priority(bench, level, severity, word):
    bench.faults.raise_one("let_fail", f"level {level}", level=level)
    line = bench.line_with(f": level {level}")
    assert line.startswith(f"{severity}: ") and f" letFault {word} since " in line


@pytest.mark.parametrize("text, shown", [
    ("Lüfter 1 steht – 温度", "Lüfter 1 steht – 温度"),
    ('a "quoted" word', 'a "quoted" word'),
    ("one\n\ntwo", "one two"),
    ("back \\ slash, end \\", "back \\ slash, end \\"),
    (f'forged"\n{E}.2.4.3.0 1\n{E}.2.4.5.0 "x', f'forged" {E}.2.4.3.0 1 {E}.2.4.5.0 "x'),
    ("Größe\n" * 20 + "Ende", "Größe " * 20 + "Ende"),
], ids=["UTF-8", "quotes", "line feeds", "backslashes", "forged values", "long"])
def test_any_text_stays_on_its_line(bench, text, shown):
    bench.faults.raise_one("custom_msg", text)
    line = bench.line_with(shown)
    assert line.startswith("err: ") and line.endswith(f": {shown}") and " customFault error since " in line


def test_without_a_system_name_the_host_name_stands_alone(bench):
    snmpd = bench.device.pids("snmpd")
    bench.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", "")
    bench.device.wait_snmpd(other_than=snmpd)
    bench.device.wait_answering()
    bench.faults.raise_one("fuse_broken", "nameless", timestamp="0")
    # 0 is the epoch in the device's local time.
    assert re.fullmatch(r"err: 127\.0\.0\.1 device: fuseBroken error since (1970-01-01|1969-12-31) \d\d:\d\d:00: "
                        "nameless", bench.line_with("nameless"))


def test_the_handler_names_every_notification(bench):
    names = dict(re.findall(r'\b(\d+): "(\w+)"', (EXAMPLE / "kvsnmp-trap-line").read_text()))
    assert names == {str(row.arc): row.name for row in CATALOGUE}
    assert bench.device.run([str(EXAMPLE / "kvsnmp-trap-line")], check=False, input="host\nUDP: [127.0.0.1]\n"
                            ".1.3.6.1.6.3.1.1.4.1.0 .1.3.6.1.6.3.1.1.5.1\n").returncode == 1


def test_the_snmptt_entries_are_those_of_the_catalogue():
    """Each notification with and without sysName."""
    text = (EXAMPLE / "snmptt.conf.kvsnmp").read_text()
    entries = re.findall(r'^EVENT (\w+) (\S+) "kvsnmp" \w+\nFORMAT (.*)\nMATCH \$#: (\d)$', text, re.MULTILINE)
    expected = []
    for row in CATALOGUE:
        expected += [(row.name, f"{E}.2.8.{row.arc}", "$N: $3 ($2): level $4 since $5: $6", "6"),
                     (row.name, f"{E}.2.8.{row.arc}", "$N: $2: level $3 since $4: $5", "5")]
    assert entries == expected
    for row in CATALOGUE:
        assert f"# {row.switch}: {', '.join(row.identifiers)}\n" in text


def test_the_manual_has_the_rows_of_the_catalogue():
    text = (CHECKOUT / "docs/traps.md").read_text()
    rows = [[cell.strip() for cell in line.strip("|").split("|")] for line in text.splitlines()
            if re.match(r"\| \d+ \| `", line)]
    assert [row[:4] for row in rows] == [
        [str(row.arc), f"`{row.name}`", row.switch, ", ".join(f"`{identifier}`" for identifier in row.identifiers)]
        for row in CATALOGUE]
