"""GPIO lines: which ones are read and when, what of them a manager sees, and what is left alone."""
from __future__ import annotations

import dataclasses
import os
import shutil
import time
from collections.abc import Callable
from pathlib import Path
from typing import NamedTuple

import pytest
from support.dataservice import DataService
from support.device import Device
from support.inotify import Event, FolderEvents
from support.polling import wait_until
from support.snmp import TABLES

GPIO_ROOT = "/run/gpio"
COMPACT = "Orvane Brisel Compact - IP-QRM-B"
EXTENDED = "Orvane Brisel Extended - IP-QRM-B"
WITHOUT_GPIO = [6410, 6420, 6425, 6601, 6602, 6720, 6764, 6913, 6914]
LIGHT = ["--no-kvsnmp", "--no-dbus", "--no-traps", "--clock-shift"]

# Lines of the controller: inputs and outputs, relays, in the order in which they are checked.
OWN_LINES = {
    6211: ([168, 169, 170, 171, 172, 173], [174]),
    6214: ([168, 169, 170, 171, 172, 173], [175, 174, 84, 85]),
    6259: ([168, 169, 170, 171, 172, 173], [175, 174, 84, 85]),
    6891: ([504, 505, 506, 507, 508, 509], [510]),
}
CHECKS = {"ordinary": {6211: 7, 6214: 10, 6259: 10, 6891: 7}, "expanders": {6211: 23, 6214: 26, 6259: 26, 6891: 23}}

INPUT_STATUS, OUTPUT_STATUS = f"{TABLES}.9.2.1.3", f"{TABLES}.10.2.1.3"
RELAY_STATUS = f"{TABLES}.12.1.1.3"
UNKNOWN = "1"
STATUS = {"0": "2", "1": "3", "unreadable": UNKNOWN}  # by level
LEVELS = list(STATUS)
TYPES = ["gpi", "gpo", "none"]
CACHE_SECONDS = 61


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
        self.device.shift_clock(CACHE_SECONDS)
        return self.statuses()


def expander_base(root: Path, label_end: str) -> int:
    chips = [chip for chip in root.glob("gpiochip*") if (chip / "label").read_text().strip().endswith(label_end)]
    return int((chips[0] / "base").read_text())


def watched(root: Path) -> FolderEvents:
    return FolderEvents(root, *(folder for folder in root.iterdir() if folder.is_dir()), accesses=True)


def reads_in(events: list[Event]) -> list[Event]:
    return [event for event in events if event.what == "open" and event.name == "value"]


def accesses_in(events: list[Event]) -> list[tuple[str, str, str]]:
    return [(event.what, event.folder, event.name) for event in events]


def one_read(folder: str, name: str = "value") -> list[tuple[str, str, str]]:
    return [(what, folder, name) for what in ("open", "read", "close unwritten")]


def hasten(devices: list[Device], done: Callable[[], bool], what: str, wake: Callable[[], None] = lambda: None,
           timeout: float = 30.0) -> None:
    """Lets seconds pass quickly. When the daemon wakes, which it does ten times a second once its agent is polled, it
    makes one check, however late it is."""
    def look() -> bool:
        if done():
            return True
        for device in devices:
            device.shift_clock(1)
        wake()
        return False

    wait_until(look, timeout, 0.03, what)


def hasten_cycle(stations: list[Station]) -> None:
    goals = {station.device.name: len(station.reads()) + len(station.lines) + 1 for station in stations}
    for_all = [(station, goals[station.device.name]) for station in stations]
    hasten([station.device for station in stations],
           lambda: all(len(station.reads()) >= goal for station, goal in for_all), "another cycle")


# A cycle at its own speed, on twelve devices side by side


@pytest.fixture(scope="module")
def stations(start_shared_device) -> dict[tuple[int, str], Station]:
    found = {}
    for model in OWN_LINES:
        for kind, description in {"ordinary": "", "compact": COMPACT, "extended": EXTENDED}.items():
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
    """Everything below the GPIO roots: a whole cycle at its own speed and the read after it, then one more cycle."""
    for station in stations.values():
        wait_until(lambda station=station: len(station.reads()) > len(station.lines), 60, 0.1, "a whole cycle")
    at_own_speed = {key: len(station.reads()) for key, station in stations.items()}
    hasten_cycle(list(stations.values()))
    return {key: Observed(list(station.events.events), at_own_speed[key]) for key, station in stations.items()}


STATIONS = [(model, kind) for model in OWN_LINES for kind in ("ordinary", "compact", "extended")]
each_station = pytest.mark.parametrize("key", STATIONS, ids=lambda key: f"{key[0]}-{key[1]}")


@each_station
def test_a_cycle_reads_each_line_once_and_in_order(stations, observed, key):
    station, reads = stations[key], [event.folder for event in reads_in(observed[key].events)]
    checks = CHECKS["expanders" if station.description else "ordinary"][station.model]
    assert reads[:checks] == station.folders
    assert reads == [station.folders[place % checks] for place in range(len(reads))]
    assert len(reads) > 2 * checks


@each_station
def test_one_line_is_read_each_second(observed, key):
    events, count = observed[key]
    times = [event.at for event in reads_in(events)[:count]]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert all(0.2 < gap < 2.5 for gap in gaps), gaps  # a late check does not delay the next
    assert 0.97 * len(gaps) < times[-1] - times[0] < len(gaps) + 2.5, gaps


@each_station
def test_nothing_is_touched_before_the_checks_start(stations, observed, key):
    # 3 s after the data service was reached plus the first second of the checks, less the 5 % of coarse timers
    assert observed[key].events[0].at - stations[key].started > 3.8


def one_check(folder: str, chips: list[tuple[int, str]]) -> list[tuple[str, str, str]]:
    """All that a line of the controller, or of one of the chips, opens while it is there."""
    number = int(folder.removeprefix("gpio"))
    chip = [access for base, name in chips if base <= number < base + 16
            for file in ("label", "base") for access in one_read(name, file)]
    return chip + one_read(folder)


@each_station
def test_a_check_opens_one_line_and_reads_it_once(stations, observed, key):
    station, events = stations[key], observed[key].events
    checks = len(station.lines)
    ends = [place for place, event in enumerate(events) if (event.what, event.name) == ("close unwritten", "value")]
    second_cycle = ends[checks - 1] + 1
    folders = [event.folder for event in reads_in(events[second_cycle:])]
    chips = [(expander_base(station.root, end), f"gpiochip{expander_base(station.root, end)}")
             for end in ("-0021", "-0022") if station.description]
    accesses = [access for folder in folders[:-1] for access in one_check(folder, chips)]  # the last may still go on
    assert accesses_in(events[second_cycle:])[:len(accesses)] == accesses

    # A line of an expander is looked for among all chips before its first read.
    first_cycle = accesses_in(events[:second_cycle])
    expected = [access for folder in station.folders for access in one_read(folder)]
    assert [access for access in first_cycle if access in expected] == expected
    lookups = [access for access in first_cycle if access not in expected]
    root = station.root.name
    assert lookups.count(("open", root, "")) == (16 if station.description else 0)
    for what, folder, name in lookups:
        assert what in ("open", "read", "close unwritten")
        assert (folder, name) == (root, "") or (folder.startswith("gpiochip") and name in ("label", "base"))
    assert bool(lookups) == bool(station.description)


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
def test_levels_show_in_the_tables(rounds, key):
    for turn, (expected, statuses) in enumerate(rounds[key]):
        assert statuses == expected, f"round {turn}"
    assert {status for _, statuses in rounds[key] for status in statuses.values()} == {"1", "2", "3"}


@each_station
def test_tables_have_a_row_for_each_line(stations, rounds, key):
    station = stations[key]
    walked = [variable.oid for column in (INPUT_STATUS, OUTPUT_STATUS, RELAY_STATUS)
              for variable in station.device.snmp.walk(column)]
    assert sorted(walked) == sorted(station.expected())
    assert len([oid for oid in walked if oid.startswith(f"{INPUT_STATUS}.")]) == (14 if station.description else 6)


@each_station
def test_lines_driven_as_outputs_stay_what_they_are(stations, rounds, key):
    station = stations[key]
    outputs = {f"{line.folder}/direction" for line in station.lines if "relay" in line.name or line.row in (4, 5)}
    assert {name for name, (text, _) in station.settings.items() if text == "out\n"} == outputs
    assert station.settings_now() == station.settings


# Lines and trees that go


@pytest.mark.parametrize("key", [(6214, "extended"), (6891, "ordinary")], ids=["6214-extended", "6891-ordinary"])
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
    station = stations[6259, "compact"]
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


# A GPIO tree of the test's own, in which nothing happens by itself


class OwnTree:
    """As the kernel lays it out; what is exported goes into a pipe, and nobody makes the line."""
    chips = {"gpiochip160": "controller", "gpiochip300": "3-0022", "gpiochip400": "pins 3-0021",
             "gpiochip500": "3-0023"}

    def __init__(self, root: Path) -> None:
        self.root = root
        for chip, label in self.chips.items():
            (root / chip).mkdir(parents=True)
            (root / chip / "label").write_text(f"{label}\n")
            (root / chip / "base").write_text(chip.removeprefix("gpiochip") + "\n")
        os.mkfifo(root / "export")
        self._exports = os.open(root / "export", os.O_RDONLY | os.O_NONBLOCK)

    def add(self, *numbers: int) -> None:
        for number in numbers:
            folder = self.root / f"gpio{number}"
            folder.mkdir()
            for name, text in {"direction": "out\n", "edge": "none\n", "active_low": "0\n", "value": "1\n"}.items():
                (folder / name).write_text(text)

    def remove(self, *numbers: int) -> None:
        for number in numbers:
            shutil.rmtree(self.root / f"gpio{number}")

    def take_exports(self) -> list[int]:
        """Since the last call; all numbers have three digits."""
        try:
            text = os.read(self._exports, 4096).decode()
        except BlockingIOError:
            text = ""
        return [int(text[place:place + 3]) for place in range(0, len(text), 3)]

    def close(self) -> None:
        os.close(self._exports)


@pytest.fixture
def own_tree(start_device):
    """A device whose data service and GPIO lines are the test's own."""
    opened = []

    def start(model: int, *options: str) -> tuple[Device, OwnTree]:
        device = start_device(model, *LIGHT, "--no-simulator", *options, wait=False)
        device.wait_ready()
        opened.append(OwnTree(device.path(GPIO_ROOT)))
        return device, opened[-1]

    yield start
    for tree in opened:
        tree.close()


def test_lines_wait_for_the_data_service_and_are_exported_each_time_they_go(own_tree):
    device, tree = own_tree(6211, "--model-text", COMPACT)
    tree.add(168, 169, 170, 171, 172, 174, *range(300, 308), *range(400, 408))  # 173 is not there
    events = watched(tree.root)
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_running()
    pass_half_a_minute(device)
    assert accesses_in(events.events) == []

    service = DataService(device.path("/run/tal.sock"))
    wait_until(lambda: service.connections, 5, what="data service reached")
    reached = time.monotonic()
    wait_until(lambda: reads_in(events.events), 10, what="first line read")
    assert 3.7 < reads_in(events.events)[0].at - reached < 7

    def cycles(count: int) -> None:
        """Until the last line of a cycle has been read so often."""
        hasten([device], lambda: sum(event.folder == "gpio407" for event in reads_in(events.events)) >= count,
               f"{count} cycles", lambda: wake(service))

    cycles(1)
    assert tree.take_exports() == [173]
    cycles(2)
    assert tree.take_exports() == []  # once, as long as it has not been there

    tree.remove(170, 301, 174, 402)
    cycles(3)
    assert tree.take_exports() == [170, 301, 174, 402]
    cycles(4)
    assert tree.take_exports() == []

    tree.add(170, 301, 173, 174, 402)
    events.close()
    events = watched(tree.root)
    cycles(2)
    events_of_lines = [access for access in accesses_in(events.events) if access[0] != "read"]
    assert {(what, name) for what, folder, name in events_of_lines if not folder.startswith("gpiochip") and name} == {
        ("open", "value"), ("close unwritten", "value")}  # an output found anew is not reconfigured either
    assert tree.take_exports() == []

    tree.remove(170, 173)
    cycles(3)
    assert tree.take_exports() == [170, 173]
    service.close()
    events.close()


def test_expanders_that_swap_their_numbers_are_followed(own_tree):
    device, tree = own_tree(6211, "--model-text", COMPACT)
    tree.add(*range(168, 175), *range(300, 308), *range(400, 408))
    service = DataService(device.path("/run/tal.sock"))
    events = watched(tree.root)
    device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: reads_in(events.events), 15, what="first line read")

    def next_cycle() -> list[str]:
        """The folders of the expanders' lines, in the order of the inputs and the relays."""
        def folders() -> list[str]:
            return [event.folder for event in reads_in(list(events.events))]

        begin = len(folders())
        hasten([device], lambda: "gpio168" in folders()[begin:-22], "another cycle", lambda: wake(service))
        cycle = folders()[folders().index("gpio168", begin):]
        return cycle[6:14] + cycle[15:23]

    first, second = [f"gpio{300 + i}" for i in range(8)], [f"gpio{400 + i}" for i in range(8)]
    assert next_cycle() == first + second
    for chip, label in (("gpiochip300", "pins 3-0021\n"), ("gpiochip400", "3-0022\n")):
        (tree.root / chip / "label").write_text(label)
    assert next_cycle() == second + first
    assert tree.take_exports() == []
    service.close()
    events.close()


def wake(service: DataService) -> None:
    """Any message ends the daemon's sleep, and this one has no other effect."""
    service.notify("nobody's", "create", "/state/nothing", "<nothing/>")


def pass_half_a_minute(device: Device, service: DataService | None = None) -> None:
    """Moves the clock, and each time waits for what the daemon does every 5 s: to write its watchdog file."""
    watchdog = device.path("/tmp/kvsnmp.watchdogtest")

    def written() -> int:
        return watchdog.stat().st_mtime_ns if watchdog.exists() else 0

    for _ in range(3):
        before = written()
        device.shift_clock(10)
        if service:
            wake(service)
        wait_until(lambda: written() > before, 10, what="watchdog file written")


def test_models_without_gpio_touch_no_line(own_tree):
    devices = {}
    for model in WITHOUT_GPIO:
        device, tree = own_tree(model, "--model-text", EXTENDED)
        tree.add(84, 85, *range(168, 176), *range(300, 308), *range(400, 408), *range(504, 511))
        devices[model] = device, tree, watched(tree.root), DataService(device.path("/run/tal.sock"))
        device.start_kvsnmp("-d", clock_shift=True)
    for device, _, _, service in devices.values():
        wait_until(lambda service=service: service.has("kvsnmp_sys_messages"), 20, what="data subscribed")
    for device, _, _, service in devices.values():
        pass_half_a_minute(device, service)
    for model, (_, tree, events, service) in devices.items():
        assert accesses_in(events.events) == [], model
        assert tree.take_exports() == [], model
        service.close()
        events.close()
