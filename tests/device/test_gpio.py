"""GPIO lines: which ones are read and when, what of them a manager sees, and what is left alone."""
from __future__ import annotations

import dataclasses
import time
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COMPACT, EXTENDED
from support.dataservice import DataService
from support.device import Device
from support.inotify import Event, FolderEvents
from support.polling import wait_until
from support.snmp import TABLES

GPIO_ROOT = "/run/gpio"
WITHOUT_GPIO = [6410, 6420, 6425, 6601, 6602, 6720, 6764, 6913, 6914]
LIGHT = ["--no-kvsnmp", "--no-dbus", "--no-traps", "--clock-shift"]

# Lines of the controller: inputs and outputs, relays, in the order in which they are checked.
OWN_LINES = {
    6211: ([168, 169, 170, 171, 172, 173], [174]),
    6214: ([168, 169, 170, 171, 172, 173], [175, 174, 84, 85]),
    6259: ([168, 169, 170, 171, 172, 173], [175, 174, 84, 85]),
    6891: ([504, 505, 506, 507, 508, 509], [510]),
}
CHECKS = [{6211: 7, 6214: 10, 6259: 10, 6891: 7}, {6211: 23, 6214: 26, 6259: 26, 6891: 23}]  # without, with expanders

INPUT_STATUS, OUTPUT_STATUS = f"{TABLES}.9.2.1.3", f"{TABLES}.10.2.1.3"
RELAY_STATUS = f"{TABLES}.12.1.1.3"
UNKNOWN = "1"
STATUS = {"0": "2", "1": "3", "unreadable": UNKNOWN}  # by level
LEVELS = list(STATUS)
TYPES = ["gpi", "gpo", "none"]


class Line(NamedTuple):
    name: str  # talctl's
    row: int  # in controlInputTable and controlOutputTable, or in relayTable
    folder: str


@dataclasses.dataclass
class Station:
    """A device with GPIO lines, and all that happens below its GPIO root."""
    device: Device
    model: int
    description: str  # empty: the model's own, without expanders
    lines: list[Line] = dataclasses.field(default_factory=list)
    levels: dict[str, str] = dataclasses.field(default_factory=dict)
    types: dict[int, str] = dataclasses.field(default_factory=dict)
    settings: dict[str, tuple[str, int]] = dataclasses.field(default_factory=dict)  # before the daemon was started
    events: FolderEvents | None = None
    started: float = 0.0

    @property
    def root(self) -> Path:
        return self.device.path(GPIO_ROOT)

    @property
    def folders(self) -> list[str]:
        """What a cycle reads, in order."""
        return [line.folder for line in self.lines]

    def find_lines(self) -> None:
        gpios, relays = OWN_LINES[self.model]
        self.lines = [Line(f"gpio{i}", i, f"gpio{n}") for i, n in enumerate(gpios, 1)]
        own_relays = [Line(f"relay{i}", i, f"gpio{n}") for i, n in enumerate(relays, 1)]
        if not self.description:
            self.lines += own_relays
            return
        inputs, expander_relays = expander_base(self.root, "-0022"), expander_base(self.root, "-0021")
        self.lines += [Line(f"gpio{7 + i}", 7 + i, f"gpio{inputs + i}") for i in range(8)]
        self.lines += own_relays
        self.lines += [Line(f"e_relay{1 + i}", 5 + i, f"gpio{expander_relays + i}") for i in range(8)]

    def watch(self) -> None:
        self.settings = self.settings_now()
        self.events = watched(self.root)

    def start_daemon(self) -> None:
        self.started = time.monotonic()
        self.device.start_kvsnmp("-d", clock_shift=True)

    def settings_now(self) -> dict[str, tuple[str, int]]:
        """Content and time of the files that say how a line is driven."""
        files = {f"{folder}/{name}": self.root / folder / name
                 for folder in self.folders for name in ("direction", "edge", "active_low")}
        return {name: (file.read_text(), file.stat().st_mtime_ns) for name, file in files.items()}

    def reads(self) -> list[Event]:
        return reads_in(list(self.events.events))

    # What the data service says, and what a manager is to see of it

    def set_up(self, levels: dict[str, str], types: dict[int, str]) -> None:
        orders = [f'["set", "/state/config/gpios/gpio[kid=\'gpio{number}\']/gpio_type", "{kind}"]'
                  for number, kind in types.items()]
        orders += [f"gpio {name} {level}" for name, level in levels.items()]
        self.device.talctl_batch(orders)
        self.levels |= levels
        self.types |= types

    def expected(self) -> dict[str, str]:
        rows = {f"{OUTPUT_STATUS}.{row}": UNKNOWN for row in range(1, 7)}
        for line in self.lines:
            status = STATUS[self.levels[line.name]]
            if "relay" in line.name:
                rows[f"{RELAY_STATUS}.{line.row}"] = status
                continue
            kind = "gpi" if line.row > 6 else self.types[line.row]  # those of the expander are always inputs
            rows[f"{INPUT_STATUS}.{line.row}"] = status if kind == "gpi" else UNKNOWN
            if kind == "gpo":
                rows[f"{OUTPUT_STATUS}.{line.row}"] = status
        return rows

    def statuses(self) -> dict[str, str]:
        oids = list(self.expected())
        return dict(zip(oids, (text for _, text in self.device.snmp.get(*oids))))

    def statuses_now(self) -> dict[str, str]:
        """Past the agent's cache; the step of the clock also lets one line be checked."""
        self.device.shift_clock(steps.CACHE_SECONDS)
        return self.statuses()


def expander_base(root: Path, label_end: str) -> int:
    chips = [chip for chip in root.glob("gpiochip*") if (chip / "label").read_text().strip().endswith(label_end)]
    return int((chips[0] / "base").read_text())


def watched(root: Path) -> FolderEvents:
    return FolderEvents(root, *(folder for folder in root.iterdir() if folder.is_dir()), accesses=True)


def reads_in(events: list[Event]) -> list[Event]:
    return [event for event in events if event.what == "open" and event.name == "value"]


def hasten(devices: list[Device], done: Callable[[], bool], what: str) -> None:
    """Lets seconds pass quickly. When the daemon wakes, which it does ten times a second once its agent is polled, it
    makes one check, however late it is."""
    def look() -> bool:
        if done():
            return True
        for device in devices:
            device.shift_clock(1)
        return False

    wait_until(look, 30, 0.03, what)


def hasten_cycle(stations: list[Station]) -> None:
    goals = {station.device.name: len(station.reads()) + len(station.lines) + 1 for station in stations}
    for_all = [(station, goals[station.device.name]) for station in stations]
    hasten([station.device for station in stations],
           lambda: all(len(station.reads()) >= goal for station, goal in for_all), "another cycle")


# A cycle at its own speed, on eight devices side by side


@pytest.fixture(scope="module")
def stations(start_shared_device) -> dict[tuple[int, str], Station]:
    found = {}
    for model in OWN_LINES:
        for kind, description in {"ordinary": "", "expanders": EXTENDED if model == 6214 else COMPACT}.items():
            text = ["--model-text", description] if description else []
            device = start_shared_device(model, *LIGHT, *text, wait=False)
            found[model, kind] = Station(device, model, description)
    for station in found.values():
        station.device.wait_ready()
        station.find_lines()
        station.watch()
    for station in found.values():
        station.start_daemon()
    return found


class Observed(NamedTuple):
    events: list[Event]
    at_own_speed: int  # reads before the clock was moved


@pytest.fixture(scope="module")
def observed(stations) -> dict[tuple[int, str], Observed]:
    """Everything below the GPIO roots: eight lines at their own speed, then two cycles."""
    for station in stations.values():
        wait_until(lambda station=station: len(station.reads()) > 8, 60, 0.1, "eight lines")
    at_own_speed = {key: len(station.reads()) for key, station in stations.items()}
    hasten_cycle(list(stations.values()))
    hasten_cycle(list(stations.values()))
    return {key: Observed(list(station.events.events), at_own_speed[key]) for key, station in stations.items()}


STATIONS = [(model, kind) for model in OWN_LINES for kind in ("ordinary", "expanders")]
each_station = pytest.mark.parametrize("key", STATIONS, ids=lambda key: f"{key[0]}-{key[1]}")


@each_station
def test_a_cycle_reads_each_line_once_and_in_order_one_a_second(stations, observed, key):
    station, (events, at_own_speed) = stations[key], observed[key]
    reads = reads_in(events)
    checks = CHECKS[station.description != ""][station.model]
    assert [event.folder for event in reads[:checks]] == station.folders
    assert [event.folder for event in reads] == [station.folders[place % checks] for place in range(len(reads))]
    assert len(reads) > 2 * checks
    times = [event.at for event in reads[:at_own_speed]]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(0.2 < gap < 2.5 for gap in gaps), gaps  # a late check does not delay the next
    assert 0.97 * len(gaps) < times[-1] - times[0] < len(gaps) + 2.5, gaps
    # 3 s after the data service was reached plus the first second of the checks, less the 5 % of coarse timers
    assert events[0].at - station.started > 3.8, "nothing is touched before the checks start"


# From a line to a manager


class Round(NamedTuple):
    expected: dict[str, str]
    statuses: dict[str, str]


@pytest.fixture(scope="module")
def rounds(stations, observed) -> dict[tuple[int, str], list[Round]]:
    """Three settings of levels and types: each line has a sequence of levels of its own, each GPIO every type once."""
    found = {key: [] for key in stations}
    for station in stations.values():
        station.device.wait_answering()
    for turn in range(3):
        for station in stations.values():
            station.set_up({line.name: LEVELS[place // 3 ** turn % 3] for place, line in enumerate(station.lines)},
                           {number: TYPES[(number + turn) % 3] for number in range(1, 15)})
        hasten_cycle(list(stations.values()))
        for key, station in stations.items():
            found[key].append(Round(station.expected(), station.statuses_now()))
    return found


@each_station
def test_levels_show_in_the_rows_and_outputs_stay_what_they_are(stations, rounds, key):
    station = stations[key]
    for turn, (expected, statuses) in enumerate(rounds[key]):
        assert statuses == expected, f"round {turn}"
    assert {status for _, statuses in rounds[key] for status in statuses.values()} == {"1", "2", "3"}
    walked = [variable.oid for column in (INPUT_STATUS, OUTPUT_STATUS, RELAY_STATUS)
              for variable in station.device.snmp.walk(column)]
    assert sorted(walked) == sorted(station.expected())
    assert len([oid for oid in walked if oid.startswith(f"{INPUT_STATUS}.")]) == (14 if station.description else 6)
    outputs = {f"{line.folder}/direction" for line in station.lines if "relay" in line.name or line.row in (4, 5)}
    assert {name for name, (text, _) in station.settings.items() if text == "out\n"} == outputs
    assert station.settings_now() == station.settings


# Lines and trees that go


@pytest.mark.parametrize("key", [(6214, "expanders"), (6891, "ordinary")], ids=["6214-expanders", "6891-ordinary"])
def test_tree_removed_and_put_back(stations, rounds, key):
    station, daemon = stations[key], stations[key].device.kvsnmp_pid()
    station.set_up({line.name: LEVELS[place % 3] for place, line in enumerate(station.lines)}, {1: "gpi", 2: "gpo"})
    before = station.expected()
    assert set(before.values()) == {"1", "2", "3"}
    wait_until(lambda: station.statuses_now() == before, 30, what="levels shown")
    station.device.talctl("gpio", "remove")
    wait_until(lambda: set(station.statuses_now().values()) == {UNKNOWN}, 30, what="everything unknown")
    assert not station.root.exists()
    station.device.talctl("gpio", "restore")
    wait_until(lambda: station.statuses_now() == before, 30, what="everything known again")
    assert station.device.kvsnmp_pid() == daemon
    assert "gpio: export" not in station.device.read("/var/log/talservice.log")  # the lines came back by themselves


def test_unexported_lines_are_exported_again_and_stay_outputs(stations, rounds):
    station = stations[6259, "expanders"]
    gone = {name: next(line for line in station.lines if line.name == name).folder
            for name in ("gpio4", "gpio9", "relay3", "e_relay8")}
    station.set_up({name: "1" for name in gone}, {4: "gpo"})
    for time_gone in (1, 2):
        for name in gone:
            station.device.talctl("gpio", "unexport", name)

        def exports() -> dict[str, int]:
            said = station.device.read("/var/log/talservice.log").splitlines()
            return {name: said.count(f"talservice: gpio: export {folder.removeprefix('gpio')}")
                    for name, folder in gone.items()}

        hasten([station.device], lambda: all(count >= time_gone for count in exports().values()), "exports")
        wait_until(lambda: station.statuses_now() == station.expected(), 30, what="lines read again")
        assert exports() == dict.fromkeys(gone, time_gone)
        assert {name: (station.root / folder / "direction").read_text() for name, folder in gone.items()} == {
            "gpio4": "out\n", "gpio9": "in\n", "relay3": "out\n", "e_relay8": "out\n"}


# Models without


def test_models_without_gpio_touch_no_line(start_device):
    """In a tree of the test's own, in which nothing happens by itself, with all the lines that any model reads."""
    devices = {}
    for model in WITHOUT_GPIO:
        device = start_device(model, *LIGHT, "--no-simulator", "--model-text", EXTENDED)
        root = device.path(GPIO_ROOT)
        for number in (84, 85, *range(168, 176), *range(300, 308), *range(400, 408), *range(504, 511)):
            (root / f"gpio{number}").mkdir(parents=True)
            (root / f"gpio{number}/value").write_text("1\n")
        for base, label in ((300, "3-0022"), (400, "pins 3-0021")):
            (root / f"gpiochip{base}").mkdir()
            (root / f"gpiochip{base}/label").write_text(f"{label}\n")
            (root / f"gpiochip{base}/base").write_text(f"{base}\n")
        (root / "export").write_text("")
        devices[model] = device, watched(root), DataService(device.path("/run/tal.sock"))
        device.start_kvsnmp("-d", clock_shift=True)
    for model, (device, events, service) in devices.items():
        wait_until(lambda service=service: service.has("kvsnmp_sys_messages"), 20, what="data subscribed")
        for _ in range(3):  # half a minute; every 5 s the daemon writes its watchdog file
            watchdog = device.path("/tmp/kvsnmp.watchdogtest")
            watchdog.unlink(missing_ok=True)
            device.shift_clock(10)
            service.notify("nobody's", "create", "/state/nothing", "<nothing/>")  # ends the daemon's sleep
            wait_until(watchdog.exists, 10, what="watchdog file written")
        assert events.events == [], model
        service.close()
        events.close()
