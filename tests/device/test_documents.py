"""Every command that stands in a document is typed: here, by another test or script, or by hand.

A command is a line of an indented or fenced block. There are three rules and no list of first words:
- in a block with lines that begin with "$ " these lines are commands, the others what they print;
- a block whose first line is a comment with a path shows that file;
- in every other block each line is a command, unless NO_COMMANDS says what it is.
"""
from __future__ import annotations

import json
import os
import re
import select
import shlex
import subprocess
import textwrap
from typing import NamedTuple

import pytest
from support import steps
from support.device import CHECKOUT, Device
from support.polling import wait_until

# What reads commands out of a document itself and runs them.
INTEGRATION = "docs/integration.md"  # tests/packages/guide.py
GUIDES = ("docs/mib.md", "docs/operators.md")  # tests/device/test_guide.py, lines with a dollar sign

# Lines of blocks without dollar signs that are no commands, by their beginnings.
NO_COMMANDS = {
    "docs/performance.md": ["no answer for       1.", "back after snmpd    0."],  # measured times
    "docs/traps.md": ["trap 08:46:45 coolingFanFault: ",  # what a device prints
                      "1795250807.", "Sat Nov 21 08:47:1"],  # log lines
    "monitoring/checks/README.md": ["SNMP OK - "],  # what the command prints
    "monitoring/zabbix/README.md": ["traphandle ", "StartSNMPTrapper=", "SNMPTrapperFile="],  # settings
}

# Sections whose commands tests of this file read out and run on a device, but for those that have their way below.
RUN_HERE = [
    ("README.md", "A device of your own"), ("docs/gpio.md", "Trying it"), ("docs/traps.md", "Try it"),
    ("docs/traps.md", "Readable log lines on the manager"), ("monitoring/checks/README.md", ""),
]


class Typed(NamedTuple):
    """The file that types a command, as it stands or with other arguments, and words of it that stand there."""
    file: str
    words: str


BY_HAND = None  # typed as it stands when its document or its script changes

WAYS: dict[str, dict[str, Typed | None]] = {
    "README.md": {
        "scripts/demo": BY_HAND,
        "scripts/test": BY_HAND,
    },
    "CONTRIBUTING.md": {
        "scripts/test": BY_HAND,
        "scripts/test --all": Typed(".ci/run", "exec scripts/test --all"),
        "cmake --preset dev && cmake --build --preset dev": Typed("scripts/test", "cmake --build --preset dev"),
        "ctest --preset dev -L unit": BY_HAND,
        "ctest --preset dev -L device": BY_HAND,
        "/usr/bin/python3 -m pytest -q tests/device/test_values.py -k 6420": BY_HAND,
        "KVSNMP_KEEP=1 /usr/bin/python3 -m pytest -q -s tests/device/test_values.py -k 6420": BY_HAND,
        "scripts/device exec -- tail -n 50 /var/log/kvsnmp.err /var/log/syslog": BY_HAND,
    },
    "docs/changing.md": {
        "cmake --preset tidy && cmake --build --preset tidy": BY_HAND,
        "scripts/coverage": BY_HAND,
        "scripts/fuzz 600 framing": Typed("scripts/test", "scripts/fuzz 20"),
        "scripts/soak 60": BY_HAND,
        "scripts/test-packages": BY_HAND,
        "scripts/test-cross armhf": BY_HAND,
        "scripts/test-monitoring": BY_HAND,
        "scripts/test-zabbix": BY_HAND,
        "scripts/bench-device": BY_HAND,
        "KVSNMP_WRITE_GOLDEN=1 ctest --preset dev -R '^device-(walks|guide)$'": BY_HAND,
        "git diff tests/device/golden docs/mib.md": BY_HAND,
    },
    "docs/mib.md": {
        "scripts/device --model 6420 --port 1161": BY_HAND,
        'scripts/device --model 6214 --model-text "Orvane Brisel Extended - IP-QRM-B" --port 1171': BY_HAND,
    },
    "docs/operators.md": {
        "apt-get install --no-install-recommends snmp": BY_HAND,
        "install -m 644 mibs/KVSNMP-MIB.txt /usr/share/snmp/mibs/": BY_HAND,
        "kvsnmp-check": Typed("tests/device/test_check.py", '["kvsnmp-check"]'),
    },
    "docs/performance.md": {
        "scripts/bench-device": BY_HAND,
    },
    "docs/traps.md": {
        "install -m 755 monitoring/snmptrapd/kvsnmp-trap-line /usr/local/bin/": BY_HAND,
        "install -m 600 monitoring/snmptrapd/snmptrapd.conf /etc/snmp/": BY_HAND,
        "systemctl restart snmptrapd": BY_HAND,
    },
    "monitoring/prometheus/README.md": {
        "apt-get install prometheus prometheus-snmp-exporter": BY_HAND,
        "install -m 640 -g prometheus snmp-before-0.23.yml /etc/prometheus/snmp.yml": BY_HAND,
        "install -m 644 kvsnmp.rules.yml /etc/prometheus/": BY_HAND,
    },
    "monitoring/recordings/README.md": {
        "monitoring/recordings/generate": Typed("tests/device/test_recordings.py", "[GENERATE, folder]"),
        "snmpsimd --data-dir=build/recordings --agent-udpv4-endpoint=127.0.0.1:1161": BY_HAND,
        "snmpwalk -v2c -c 6420 127.0.0.1:1161 .1.3.6.1.4.1.52717.3": BY_HAND,
    },
    "monitoring/zabbix/README.md": {
        "install -m 755 kvsnmp-trap-line /usr/local/bin/": BY_HAND,
        "install -m 644 -o Debian-snmp /dev/null /var/log/kvsnmp-traps.log": BY_HAND,
    },
}


class Command(NamedTuple):
    document: str
    text: str
    asked: bool  # behind a dollar sign


def documents() -> list[str]:
    places = [*CHECKOUT.glob("*.md"), *CHECKOUT.glob("docs/**/*.md"), *CHECKOUT.glob("monitoring/**/*.md")]
    return sorted(str(place.relative_to(CHECKOUT)) for place in places)


def blocks(text: str) -> list[list[str]]:
    """Indented and fenced blocks, without their indentation and fences."""
    found: list[list[str]] = []
    current: list[str] = []
    fence = ""
    before = ""
    for line in [*text.splitlines(), "end"]:
        if fence or re.match(r" {0,3}(```|~~~)", line):
            mark = line.strip()[:3]
            if not fence:
                fence = mark
            elif line.strip() == fence:
                fence = ""
                found.append(current)
                current = []
            else:
                current.append(line)
        elif line.startswith(("    ", "\t")) and (current or not before):
            current.append(line)
        elif current and not line:
            current.append(line)
        elif current:
            found.append(current)
            current = []
        before = line.strip()
    assert not fence, "a fence that is not closed"
    return [textwrap.dedent("\n".join(block)).strip("\n").split("\n") for block in found]


def commands_of(document: str, text: str) -> list[Command]:
    found = []
    for block in blocks(text):
        if any(line.startswith("$ ") for line in block):
            found += [Command(document, line[2:], True) for line in block if line.startswith("$ ")]
        elif not re.match(r"(# |<!-- )/\S", block[0]):
            lines = [re.sub(r"(^|\s+)# .*$", "", line).rstrip() for line in block]  # without what a shell passes over
            found += [Command(document, line, False) for line in lines
                      if line and not line.startswith(tuple(NO_COMMANDS.get(document, [])))]
    return found


TEXTS = {document: (CHECKOUT / document).read_text() for document in documents()}
COMMANDS = [command for document, text in TEXTS.items() for command in commands_of(document, text)]


def is_read_out(command: Command) -> bool:
    return command.document == INTEGRATION or (command.document in GUIDES and command.asked)


def those_of(document: str, heading: str) -> list[str]:
    """What this file runs of a section, or of a document without sections."""
    text = TEXTS[document]
    if heading:
        text = text.split(f"\n## {heading}\n")[1].split("\n## ")[0]
    return [command.text for command in commands_of(document, text) if command.text not in WAYS.get(document, {})]


def is_run_here(command: Command) -> bool:
    return any(command.text in those_of(document, heading) for document, heading in RUN_HERE
               if document == command.document)


def test_every_command_is_typed_somewhere():
    unknown = [command for command in COMMANDS if not is_read_out(command) and not is_run_here(command)
               and command.text not in WAYS.get(command.document, {})]
    assert unknown == []


def test_nothing_is_kept_of_commands_that_no_document_has():
    written = {(command.document, command.text) for command in COMMANDS}
    stale = [(document, text) for document, ways in WAYS.items() for text in ways if (document, text) not in written]
    stale += [(document, start) for document, starts in NO_COMMANDS.items() for start in starts
              if not any(line.startswith(start) for block in blocks(TEXTS[document]) for line in block)]
    assert stale == []


def test_no_command_has_two_ways():
    assert [command for command in COMMANDS if command.text in WAYS.get(command.document, {})
            and is_read_out(command)] == []


def test_the_files_that_type_commands_have_their_words():
    typed = [(text, way) for ways in WAYS.values() for text, way in ways.items() if isinstance(way, Typed)]
    assert [(text, way) for text, way in typed if way.words not in (CHECKOUT / way.file).read_text()] == []


def test_scripts_and_presets_of_commands_are_there():
    presets = json.loads((CHECKOUT / "CMakePresets.json").read_text())
    kinds = {"cmake --preset": "configurePresets", "--build --preset": "buildPresets", "ctest --preset": "testPresets"}
    named = [(kind, name) for command in COMMANDS for kind, name in re.findall(r"(\S+ --preset) (\S+)", command.text)]
    assert named and [(kind, name) for kind, name in named
                      if name not in [preset["name"] for preset in presets[kinds[kind]]]] == []
    scripts = {script for command in COMMANDS for script in re.findall(r"(?<!\S)scripts/[\w-]+", command.text)}
    assert [script for script in scripts if not os.access(CHECKOUT / script, os.X_OK)] == []


def test_the_documents_that_others_read_out_are_read_by_them():
    """A guide of a test that was renamed or left out would take its commands along."""
    assert f'"{INTEGRATION}"' in (CHECKOUT / "tests/packages/guide.py").read_text()
    packages = (CHECKOUT / "tests/packages/test_packages.py").read_text()
    assert "guide.commands() - typed - TYPED_ELSEWHERE == set()" in packages
    reader = (CHECKOUT / "tests/device/test_guide.py").read_text()
    assert all(f'"{guide}"' in reader for guide in GUIDES)
    for document in (INTEGRATION, *GUIDES):
        assert any(command.document == document and is_read_out(command) for command in COMMANDS)


@pytest.mark.parametrize("text, commands", [
    ("Text\n\n    do this\n    and that    # why\n                # and why not\n\nText\n", ["do this", "and that"]),
    ("    $ ask\n    answer\n\n    more\n    $ ask again\n", ["ask", "ask again"]),
    ("```sh\ndo this\n\nand that\n```\n", ["do this", "and that"]),
    ("    # /etc/a.conf\n    a = 1\n", []),
    ("- a line\n  that goes on\n      and on\n", []),
    ("1. step\n\n       do this\n", ["do this"]),
], ids=["lines", "dollar", "fence", "file", "text", "list"])
def test_commands_are_told_from_text(text, commands):
    assert [command.text for command in commands_of("any.md", text)] == commands


# Run as they stand; for the name of the device, and for the port, which is that of a network of its own


def start_as_told(start_device, command: str, *options: str) -> Device:
    words = shlex.split(command)
    assert words[:2] == ["scripts/device", "--model"], command
    if "--port" in words:
        at = words.index("--port")
        assert words[at + 1] == "1161"
        del words[at:at + 2]
    return start_device(int(words[2]), *words[3:], *options)


def run(device: Device, command: str) -> str:
    """Its output; a status other than 0 fails."""
    if command.startswith("scripts/device exec -- "):
        outside = command.replace("exec --", f"exec --name {device.name} --", 1)
        done = subprocess.run(["sh", "-c", outside], cwd=CHECKOUT, capture_output=True, text=True, check=False,
                              stdin=subprocess.DEVNULL, timeout=30)
        assert done.returncode == 0, f"{outside}: {done.stdout}{done.stderr}"
        return done.stdout
    inside = command.replace("127.0.0.1:1161", "127.0.0.1").replace("-p 1161", "-p 161")
    assert inside != command, f"asks no device: {command}"
    device.shift_clock(steps.CACHE_SECONDS)
    return device.run(["sh", "-c", inside]).stdout


class Printed:
    """What a device prints in its terminal."""

    def __init__(self, device: Device) -> None:
        self.stream = device._script.stdout.fileno()
        self.text = ""

    def wait_line(self, part: str) -> str:
        """The next line that has it."""
        def look() -> str:
            while select.select([self.stream], [], [], 0)[0] and (said := os.read(self.stream, 65536)):
                self.text += said.decode()
            line = re.search(rf"^.*{re.escape(part)}.*\n", self.text, re.MULTILINE)
            if line:
                self.text = self.text[line.end():]
            return line[0].rstrip("\n") if line else ""

        return wait_until(look, what=f"{part!r} printed")


@pytest.fixture(scope="module")
def printed(amplifier) -> Printed:
    return Printed(amplifier)


@pytest.fixture(scope="module")
def amplifier(start_shared_device) -> Device:
    """The one that the README starts."""
    start, *_ = those_of("README.md", "A device of your own")
    return start_as_told(start_shared_device, start, "--clock-shift").wait_answering().wait_subscribed()


def test_check_snmp_prints_what_stands_below_it(amplifier):
    document = "monitoring/checks/README.md"
    command, = those_of(document, "")
    block, = [block for block in blocks(TEXTS[document]) if block[0] == command]
    assert block[1:]
    assert [line.rstrip() for line in run(amplifier, command).splitlines()] == block[1:]


def test_the_device_of_the_readme(amplifier, printed):
    _, walk, *orders = those_of("README.md", "A device of your own")
    assert len(orders) == 3
    assert ".1.3.6.1.4.1.52717.3.1.3.0 = INTEGER: 6420" in walk_numbers(amplifier, walk)
    for order in orders:
        run(amplifier, order)
    assert "3410" in walk_numbers(amplifier, walk)
    assert printed.wait_line("coolingFanFault").endswith("trapDescription.0 = Fan 1 stands still")


def walk_numbers(device: Device, walk: str) -> str:
    return run(device, walk).replace("iso.", ".1.").replace("SNMPv2-SMI::enterprises.", ".1.3.6.1.4.1.")


def test_traps_tried(amplifier, printed):
    """The device is the README's, whose fault is ended first."""
    start, order = those_of("docs/traps.md", "Try it")
    assert shlex.split(start) == shlex.split(those_of("README.md", "A device of your own")[0])[:3]
    amplifier.talctl("fault", "clear", "amp", "1")
    run(amplifier, order)
    shown, = [line for block in blocks(TEXTS["docs/traps.md"]) for line in block if line.startswith("trap ")]
    assert without_times(printed.wait_line("coolingFanFault")) == without_times(shown)


def without_times(line: str) -> str:
    line = re.sub(r"^\d{10}\.\d{6}", "at", line)
    line = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "then", line)
    return re.sub(r"\b\w{3} \w{3} [ \d]\d \d\d\.\d\d\.\d\d \d{4}|(?<=trap )\d\d:\d\d:\d\d", "then", line)


def test_readable_lines_tried(start_device):
    start, *orders = those_of("docs/traps.md", "Readable log lines on the manager")
    device = start_as_told(start_device, start).wait_answering().wait_subscribed()
    *orders, grep = orders
    for order in orders:
        run(device, order)
    shown = [line for block in blocks(TEXTS["docs/traps.md"]) for line in block if "kvsnmp-trap: " in line]
    wait_until(lambda: device.read("/var/log/syslog").count("kvsnmp-trap: ") == len(shown), what="log lines")
    # Each trap has a process of its own, which may overtake another.
    assert sorted(map(without_times, run(device, grep).splitlines())) == sorted(map(without_times, shown))


def test_gpio_tried(start_device):
    start, listing, *orders, inputs, relays = those_of("docs/gpio.md", "Trying it")
    device = start_as_told(start_device, start, "--clock-shift", "--no-traps").wait_answering().wait_subscribed()

    def levels() -> dict[str, str]:
        lines = [line.split("\t") for line in run(device, listing).splitlines()]
        assert all(len(line) == 5 for line in lines)  # name, number, folder, direction, level
        return {line[0]: line[4] for line in lines}

    def column(walk: str) -> list[str]:
        return [line.rpartition(" ")[2] for line in run(device, walk).splitlines()]

    expected = kept = levels()
    assert set(expected.values()) == {"0"}
    for order, changed in zip(orders, [{"gpio1": "1"}, {"e_relay8": "unreadable"}, {}, {"gpio9": "missing"},
                                       dict.fromkeys(expected, "missing"), {}], strict=True):
        before, expected = expected, expected | changed
        run(device, order)
        if order.endswith("gpio restore"):  # the daemon may have exported gpio9 by now
            expected = kept | {"gpio9": levels()["gpio9"]}
        elif not order.endswith("gpio remove"):
            kept = expected
        assert levels() == expected, f"{order}: {before}"
    # gpio1 is an output now, gpio9 has been exported by the daemon, e_relay8 cannot be read.
    wait_until(lambda: column(inputs)[0] == "1" and column(inputs)[6:] == ["2"] * 8, 90, 1, "inputs read")
    wait_until(lambda: column(relays) == ["2"] * 11 + ["1"], 60, 1, "relays read")
