"""Commands of the README, docs/gpio.md, docs/traps.md and monitoring/checks, run on devices. test_guide.py runs those
of docs/mib.md and docs/operators.md."""
from __future__ import annotations

import json
import os
import re
import select
import shlex
import subprocess

import pytest
from support import steps
from support.device import CHECKOUT, Device
from support.polling import wait_until

COMMAND = re.compile(r"^    ((?:scripts/device|snmpwalk|/usr/lib/nagios/\S+) .*)$", re.MULTILINE)


def section(document: str, heading: str) -> str:
    return (CHECKOUT / document).read_text().split(f"\n## {heading}\n")[1].split("\n## ")[0]


def test_scripts_and_presets_that_documents_name_are_there():
    text = "\n".join(place.read_text() for folder in (".", "docs", "monitoring/*")
                     for place in CHECKOUT.glob(f"{folder}/*.md"))
    presets = json.loads((CHECKOUT / "CMakePresets.json").read_text())
    kinds = {"cmake": "configurePresets", "--build": "buildPresets", "ctest": "testPresets"}
    named = set(re.findall(r"(cmake|--build|ctest) --preset (\w+)", text))
    assert len(named) >= 4 and [(kind, name) for kind, name in named
                                if name not in [preset["name"] for preset in presets[kinds[kind]]]] == []
    scripts = set(re.findall(r"^ {3,}(?:\$ )?(scripts/[\w-]+)", text, re.MULTILINE))
    assert len(scripts) > 5 and [script for script in scripts if not os.access(CHECKOUT / script, os.X_OK)] == []


# Commands are run unchanged, except the device's name and port


def start_as_shown(start_device, command: str, *options: str) -> Device:
    words = shlex.split(command.removesuffix(" --port 1161"))
    assert words[:2] == ["scripts/device", "--model"], command
    return start_device(int(words[2]), *words[3:], *options).wait_answering().wait_subscribed()


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


def wait_printed(device: Device, part: str) -> str:
    """The line with this part that the device prints in its terminal."""
    stream, text = device._script.stdout.fileno(), ""

    def look() -> str:
        nonlocal text
        while select.select([stream], [], [], 0)[0] and (said := os.read(stream, 65536)):
            text += said.decode()
        line = re.search(rf"^.*{re.escape(part)}.*\n", text, re.MULTILINE)
        return line[0].rstrip("\n") if line else ""

    return wait_until(look, what=f"{part!r} printed")


def without_times(line: str) -> str:
    line = re.sub(r"^\d{10}\.\d{6}", "at", line)
    line = re.sub(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d", "then", line)
    return re.sub(r"\b\w{3} \w{3} [ \d]\d \d\d\.\d\d\.\d\d \d{4}|(?<=trap )\d\d:\d\d:\d\d", "then", line)


@pytest.fixture(scope="module")
def amplifier(start_shared_device) -> Device:
    """The device that the README starts."""
    start, *_ = COMMAND.findall(section("README.md", "A device of your own"))
    return start_as_shown(start_shared_device, start, "--clock-shift")


def test_check_snmp_prints_what_stands_below_it(amplifier):
    command, shown = re.search(COMMAND.pattern + r"\n    (.*)$", (CHECKOUT / "monitoring/checks/README.md").read_text(),
                               re.MULTILINE).groups()
    assert run(amplifier, command).rstrip() == shown


def test_the_device_of_the_readme_and_of_the_traps(amplifier):
    _, walk, *orders = COMMAND.findall(section("README.md", "A device of your own"))
    assert "52717.3.1.3.0 = INTEGER: 6420" in run(amplifier, walk)
    assert len(orders) == 4
    for order in orders:
        run(amplifier, order)
    assert "3410" in run(amplifier, walk)
    assert wait_printed(amplifier, "coolingFanFault").endswith("trapDescription.0 = Fan 1 stands still")

    text = section("docs/traps.md", "Try it")
    _, order = COMMAND.findall(text)
    amplifier.talctl("fault", "clear", "amp", "1")
    run(amplifier, order)
    shown = re.search(r"^    (trap .*)$", text, re.MULTILINE)[1]
    assert without_times(wait_printed(amplifier, "coolingFanFault")) == without_times(shown)


def test_readable_lines_tried(start_device):
    text = section("docs/traps.md", "Readable log lines on the manager")
    start, *orders, grep = COMMAND.findall(text)
    device = start_as_shown(start_device, start)
    for order in orders:
        run(device, order)
    shown = re.findall(r"^    (.* kvsnmp-trap: .*)$", text, re.MULTILINE)
    wait_until(lambda: device.read("/var/log/syslog").count("kvsnmp-trap: ") == len(shown) > 1, what="log lines")
    # One process per trap, in any order.
    assert sorted(map(without_times, run(device, grep).splitlines())) == sorted(map(without_times, shown))


def test_gpio_tried(start_device):
    start, listing, *orders, inputs, relays = COMMAND.findall(section("docs/gpio.md", "Trying it"))
    device = start_as_shown(start_device, start, "--clock-shift", "--no-traps")

    def column(walk: str) -> list[str]:
        return [line.rpartition(" ")[2] for line in run(device, walk).splitlines()]

    for order in [listing, *orders, listing]:
        printed = run(device, order)
    assert all(line.count("\t") == 4 for line in printed.splitlines())  # name, number, folder, direction, level
    # gpio1 is an output now, gpio9 has been exported by the daemon, e_relay8 cannot be read.
    wait_until(lambda: column(inputs)[0] == "1" and column(inputs)[6:] == ["2"] * 8, 90, 0.1, "inputs read")
    wait_until(lambda: column(relays) == ["2"] * 11 + ["1"], 60, 0.1, "relays read")
