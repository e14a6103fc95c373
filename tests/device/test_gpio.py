"""GPIO lines: which are read and when, and what a manager sees of them. The unit tests have the lines of every station,
and that other models have none."""
from __future__ import annotations

import time
from pathlib import Path
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, EXTENDED
from support.device import Device
from support.inotify import Event, FolderEvents
from support.polling import wait_until

# Lines of the controller: inputs and outputs, relays, in the order in which they are checked.
OWN_LINES = [168, 169, 170, 171, 172, 173], [175, 174, 84, 85]
INPUT, OUTPUT, RELAY = (COLUMN_OIDS[name] for name in ("controlInputStatus", "controlOutputState", "relayStatus"))
UNKNOWN = "1"
STATUS = {"0": "2", "1": "3", "unreadable": UNKNOWN}  # by level
LEVELS = list(STATUS)
TYPES = ["gpi", "gpo", "none"]


class Line(NamedTuple):
    name: str  # talctl's
    row: int  # in controlInputTable and controlOutputTable, or in relayTable
    folder: str


class Station:
    """A device with GPIO lines, and the events below its GPIO root."""

    def __init__(self, device: Device) -> None:
        self.device = device
        self.root = device.path("/run/gpio")
        inputs, relays = self._expander_base("-0022"), self._expander_base("-0021")
        self.lines = [*(Line(f"gpio{i}", i, f"gpio{number}") for i, number in enumerate(OWN_LINES[0], 1)),
                      *(Line(f"gpio{7 + i}", 7 + i, f"gpio{inputs + i}") for i in range(8)),
                      *(Line(f"relay{i}", i, f"gpio{number}") for i, number in enumerate(OWN_LINES[1], 1)),
                      *(Line(f"e_relay{1 + i}", 5 + i, f"gpio{relays + i}") for i in range(8))]
        self.settings = self.settings_now()
        self.events = FolderEvents(self.root, *filter(Path.is_dir, self.root.iterdir()), accesses=True)
        self.levels: dict[str, str] = {}
        self.types: dict[int, str] = {}
        self.started = time.monotonic()
        device.start_kvsnmp("-d", clock_shift=True)

    def _expander_base(self, label_end: str) -> int:
        chip = next(chip for chip in self.root.glob("gpiochip*")
                    if (chip / "label").read_text().strip().endswith(label_end))
        return int((chip / "base").read_text())

    def settings_now(self) -> dict[str, tuple[str, int]]:
        """Content and time of the files that configure a line."""
        files = {f"{line.folder}/{name}": self.root / line.folder / name
                 for line in self.lines for name in ("direction", "edge", "active_low")}
        return {name: (file.read_text(), file.stat().st_mtime_ns) for name, file in files.items()}

    def reads(self) -> list[Event]:
        return [event for event in list(self.events.events) if event.what == "open" and event.name == "value"]

    def set_up(self, levels: dict[str, str], types: dict[int, str]) -> None:
        commands = [f'["set", "/state/config/gpios/gpio[kid=\'gpio{number}\']/gpio_type", "{kind}"]'
                    for number, kind in types.items()]
        self.device.talctl_batch(commands + [f"gpio {name} {level}" for name, level in levels.items()])
        self.levels |= levels
        self.types |= types

    def expected(self) -> dict[str, str]:
        """What a manager sees of the levels and types."""
        rows = {f"{OUTPUT}.{row}": UNKNOWN for row in range(1, 7)}
        for line in self.lines:
            status = STATUS[self.levels[line.name]]
            if "relay" in line.name:
                rows[f"{RELAY}.{line.row}"] = status
                continue
            kind = "gpi" if line.row > 6 else self.types[line.row]  # those of the expander are always inputs
            rows[f"{INPUT}.{line.row}"] = status if kind == "gpi" else UNKNOWN
            if kind == "gpo":
                rows[f"{OUTPUT}.{line.row}"] = status
        return rows

    def served(self) -> dict[str, str]:
        """Past the agent's cache; the step of the clock also lets one line be checked."""
        self.device.shift_clock(steps.CACHE_SECONDS)
        oids = list(self.expected())
        return dict(zip(oids, (text for _, text in self.device.snmp.get(*oids))))

    def wait_served(self, expected: dict[str, str]) -> None:
        wait_until(lambda: self.served() == expected, 30, what="levels served")

    def hurry_cycle(self) -> None:
        """At each of its wake-ups, ten a second, the daemon makes one check that is due."""
        goal = len(self.reads()) + len(self.lines) + 1
        wait_until(lambda: len(self.reads()) >= goal or self.device.shift_clock(1), 30, 0.03, "another cycle")


@pytest.fixture(scope="module")
def station(start_shared_device) -> Station:
    """With expanders."""
    return Station(start_shared_device(6214, "--no-kvsnmp", "--no-dbus", "--no-traps", "--clock-shift",
                                       "--model-text", EXTENDED))


def test_a_cycle_reads_each_line_once_and_in_order_one_a_second(station):
    wait_until(lambda: len(station.reads()) > 5, 60, 0.1, "five lines")
    times = [event.at for event in station.reads()]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(0.2 < gap < 2.5 for gap in gaps), gaps  # a late check does not delay the next
    assert 0.97 * len(gaps) < times[-1] - times[0] < len(gaps) + 2.5, gaps
    # 3 s after the connection to the data service plus the first second of the checks, less the 5 % of coarse timers
    assert station.events.events[0].at - station.started > 3.8, "nothing is touched before the checks start"
    station.hurry_cycle()
    station.hurry_cycle()
    folders = [line.folder for line in station.lines]
    assert [event.folder for event in station.reads()] == [
        folders[place % len(folders)] for place in range(len(station.reads()))]


def test_levels_show_in_the_rows_and_outputs_stay_outputs(station):
    """In three settings of levels and types: each GPIO has every type once."""
    station.device.wait_answering()
    for turn in range(3):
        station.set_up({line.name: LEVELS[place // 3 ** turn % 3] for place, line in enumerate(station.lines)},
                       {number: TYPES[(number + turn) % 3] for number in range(1, 15)})
        station.wait_served(station.expected())
    walked = [variable.oid for column in (INPUT, OUTPUT, RELAY) for variable in station.device.snmp.walk(column)]
    assert sorted(walked) == sorted(station.expected())
    outputs = {f"{line.folder}/direction" for line in station.lines if "relay" in line.name or line.row in (4, 5)}
    assert {name for name, (text, _) in station.settings.items() if text == "out\n"} == outputs
    assert station.settings_now() == station.settings


def test_lines_that_vanish_are_found_again(station):
    daemon = station.device.kvsnmp_pid()
    station.set_up({line.name: LEVELS[place % 3] for place, line in enumerate(station.lines)}, {1: "gpi", 2: "gpo"})
    before = station.expected()
    assert set(before.values()) == {"1", "2", "3"}
    station.wait_served(before)
    station.device.talctl("gpio", "remove")
    station.wait_served(dict.fromkeys(before, UNKNOWN))
    assert not station.root.exists()
    station.device.talctl("gpio", "restore")
    station.wait_served(before)
    assert station.device.kvsnmp_pid() == daemon
    assert "gpio: export" not in station.device.read("/var/log/talservice.log")  # the daemon exported none

    directions = {"gpio4": "out\n", "gpio9": "in\n", "relay3": "out\n", "e_relay8": "out\n"}
    gone = [(line.folder, directions[line.name]) for line in station.lines if line.name in directions]

    def exports() -> list[int]:
        log = station.device.read("/var/log/talservice.log").splitlines()
        return [log.count(f"talservice: gpio: export {folder.removeprefix('gpio')}") for folder, _ in gone]

    station.device.talctl_batch([f"gpio {name} 1" for name in directions]
                                + [f"gpio unexport {name}" for name in directions])
    station.levels |= dict.fromkeys(directions, "1")
    wait_until(lambda: all(exports()) or station.device.shift_clock(1), 30, 0.03, "exports")
    station.wait_served(station.expected())
    assert exports() == [1] * 4
    assert [(folder, (station.root / folder / "direction").read_text()) for folder, _ in gone] == gone
