"""scripts/fleet: many devices in one network. KVSNMP_FLEET=50 runs the tests of a shared fleet with this many devices."""
from __future__ import annotations

import json
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import xml.etree.ElementTree as ElementTree
from collections import Counter
from collections.abc import Iterator
from pathlib import Path

import pytest
from support.device import CHECKOUT, MODEL_NUMBER, bin_dir, registry, sandbox, settings
from support.polling import wait_until
from support.process import is_gone
from devicelib import fleetcli, walk

SCRIPT = str(CHECKOUT / "scripts/fleet")
COUNT = int(os.environ.get("KVSNMP_FLEET", "0"))
DEVICES = ["--count", str(COUNT)] if COUNT else ["--models", "6420,6720,6214:2"]
FAULTS = 20  # of each device, within
FAULT_SECONDS = 10.0
START_SECONDS = 120.0  # with sanitizers on a busy machine
SYS_NAME, SYS_LOCATION = ".1.3.6.1.2.1.1.5.0", ".1.3.6.1.2.1.1.6.0"


class Fleet:
    """scripts/fleet in a separate network, as a person starts it."""

    def __init__(self, folder: Path, *options: str) -> None:
        self.inventory = folder / "inventory.json"
        self._log = open(folder / "fleet.log", "w+b")
        self.process = subprocess.Popen(
            ["bwrap", "--dev-bind", "/", "/", "--unshare-net", "--die-with-parent", SCRIPT, "--bin", str(bin_dir()),
             "--inventory", str(self.inventory), *options],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=self._log)
        self.devices: list[registry.Running] = []

    def printed(self) -> str:
        return Path(self._log.name).read_text(errors="replace")

    def wait_answering(self) -> Fleet:
        def look() -> bool:
            assert self.process.poll() is None, self.printed()
            return " devices answer after " in self.printed()

        wait_until(look, START_SECONDS, 0.2, "fleet answering")
        self.devices = sorted(registry.running(), key=lambda device: (int(device.address.rpartition(".")[2]), device.port))
        return self

    @property
    def owner(self) -> int:
        return self.devices[0].owner

    def children(self) -> list[int]:
        """The sandboxes and the front panel."""
        return [int(number) for number in Path(f"/proc/{self.owner}/task/{self.owner}/children").read_text().split()]

    def run(self, device: registry.Running, *command: str, check: bool = True) -> str:
        """The output of a command inside a device."""
        done = subprocess.run(sandbox.enter_command(device.first_process, list(command)), capture_output=True, text=True,
                              check=check, timeout=60, stdin=subprocess.DEVNULL)
        return done.stdout

    def try_get(self, device: registry.Running, oid: str) -> str:
        """The value of an object, empty without an answer."""
        where = f"{device.address}:{device.port}"
        return self.run(device, "snmpget", "-v2c", "-c", "public", "-Oqv", "-r1", where, oid, check=False).strip().strip('"')

    def traps(self) -> list[dict[str, str]]:
        """The variables of all traps, in the order of arrival."""
        records = self.devices[0].traps.read_bytes().decode().split("\x1e")[:-1]
        variables = [record.partition("\x1d")[2].split("\x1f") for record in records]
        return [dict(variable.split(" = ", 1) for variable in record) for record in variables]

    def complaints(self) -> list[str]:
        """Sanitizer reports, and connections that Qt refused."""
        logs = [log for device in self.devices for log in (device.root / "var/log").glob("sanitizer.*")]
        errors = [line for device in self.devices for line in (device.root / "var/log/kvsnmp.err").read_text().splitlines()]
        return [log.read_text() for log in logs] + [line for line in errors if re.search("QObject::|runtime error:", line)]

    def end(self, number: signal.Signals = signal.SIGTERM) -> int:
        if self.process.poll() is None:
            if self.devices:
                os.kill(self.owner, number)
            else:
                self.process.kill()
        status = self.process.wait(60)
        self._log.close()
        return status


class Control:
    """A data service's control socket, used from outside the device."""

    def __init__(self, device: registry.Running) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self._socket.settimeout(30)
        self._socket.connect(f"{device.root}{settings.TAL_CONTROL}")
        self._stream = self._socket.makefile("rw")

    def send(self, *command: str) -> str:
        self._stream.write(json.dumps(command) + "\n")
        self._stream.flush()
        reply = json.loads(self._stream.readline())
        assert reply["code"] == 0, reply
        return reply["text"]

    def state(self) -> ElementTree.Element:
        return ElementTree.fromstring(self.send("get", "/state"))


@pytest.fixture(scope="module", autouse=True)
def base() -> Iterator[Path]:
    """A registry for these tests alone: there is one fleet in each. Short, because of the sockets' paths."""
    folder = Path(tempfile.mkdtemp(prefix="f", dir="/tmp"))
    before, tempfile.tempdir = tempfile.tempdir, str(folder)
    os.environ["TMPDIR"] = str(folder)
    yield folder
    tempfile.tempdir = before
    del os.environ["TMPDIR"]
    assert list(folder.glob("kvsnmp-devices-*/*")) == []
    subprocess.run(["rm", "-r", folder], check=True)


def shared_fleet(folder: Path, *options: str) -> Iterator[Fleet]:
    fleet = Fleet(folder, *options)
    try:
        yield fleet.wait_answering()
    finally:
        fleet.end()


@pytest.fixture(scope="module")
def fleet(base) -> Iterator[Fleet]:
    yield from shared_fleet(base, *DEVICES, "--step", "1", "--seed", "7")


@pytest.fixture
def start_fleet(base, request) -> Iterator:
    """Only in tests that do not use the shared fleet, which runs until the last of its tests."""
    fleets: list[Fleet] = []

    def start(*options: str) -> Fleet:
        fleets.append(Fleet(base, *options))
        return fleets[-1]

    yield start
    for started in fleets:
        started.end()


def script(*arguments: str, timeout: float = 60.0, **options) -> subprocess.CompletedProcess:
    return subprocess.run([SCRIPT, *arguments], capture_output=True, text=True, timeout=timeout, check=False, **options)


# A running fleet


def test_each_device_answers_at_its_address_with_its_name_and_location(fleet):
    assert [device.address for device in fleet.devices] == [f"127.1.0.{place + 1}" for place in range(len(fleet.devices))]
    assert {device.port for device in fleet.devices} == {161}
    answers = [(fleet.try_get(device, MODEL_NUMBER), fleet.try_get(device, SYS_NAME), fleet.try_get(device, SYS_LOCATION))
               for device in fleet.devices]
    assert [(model, name) for model, name, _ in answers] == [(str(device.model), device.name) for device in fleet.devices]
    assert len({location for _, _, location in answers}) == len(answers)
    assert len({device.name for device in fleet.devices}) == len(answers)


def test_the_inventory_is_what_a_search_of_the_network_finds(fleet):
    places = f"{fleet.devices[0].address}-{fleet.devices[-1].address}"
    search = [str(CHECKOUT / "monitoring/discover/kvsnmp-discover"), "--format", "prometheus", places]
    found = fleet.run(fleet.devices[0], *search)
    assert json.loads(fleet.inventory.read_text()) == json.loads(found)
    assert len(json.loads(found)) == len(fleet.devices)


def test_list_and_exec(fleet):
    lines = [line.split("\t") for line in script("list").stdout.splitlines()]
    assert [line[:4] for line in lines] == [
        [device.name, f"model {device.model}", f"{device.address}:161", "running"] for device in fleet.devices]
    last = fleet.devices[-1].name
    assert script("exec", "--name", last, "--", "cat", "/etc/hostname").stdout == f"{last}\n"
    assert script("exec", "--name", last, "--", "sh", "-c", "exit 7").returncode == 7
    expected = "".join(f"== {device.name}\n{device.name}\n" for device in fleet.devices)
    assert script("exec", "--", "hostname").stdout == expected


def test_a_device_has_its_own_processes_and_system_log(fleet):
    for device in fleet.devices:
        programs = Counter(fleet.run(device, "ps", "-e", "-o", "comm=").split())
        assert (programs["kvsnmp"], programs["snmpd"], programs["talservice"]) == (1, 1, 1), programs
        assert "Starting snmpd" in (device.root / "var/log/syslog").read_text()
    first, second = fleet.devices[:2]
    other = fleet.run(second, "cat", "/run/snmpd.pid")
    fleet.run(first, "killall", "snmpd")
    wait_until(lambda: "snmpd" not in fleet.run(first, "ps", "-e", "-o", "comm=").split(), what="snmpd killed")
    assert fleet.try_get(second, MODEL_NUMBER) == str(second.model)
    assert fleet.run(second, "cat", "/run/snmpd.pid") == other
    (first.root / "etc/snmp/stirred").touch()  # the daemon restarts snmpd
    wait_until(lambda: fleet.try_get(first, MODEL_NUMBER), 30, what="first device answers")


def test_a_device_of_a_fleet_is_not_stopped_alone(fleet):
    done = subprocess.run([CHECKOUT / "scripts/device", "stop", "--name", fleet.devices[0].name], capture_output=True,
                          text=True, check=False)
    assert done.returncode == 1 and f"{fleet.devices[0].name} is in a fleet" in done.stderr


def test_values_move_within_their_range(fleet):
    for device in fleet.devices:
        control = Control(device)
        if not walk.values_of(control.state()):
            continue
        before = {value.path: value.start for value in walk.values_of(control.state())}

        def moved() -> dict[str, str]:
            now = walk.values_of(control.state())
            return {value.path: value.start for value in now if value.start != before[value.path]}

        assert len(wait_until(lambda: len(moved()) >= 3 and moved(), 30, 0.2, "values moved")) < len(before)
        assert {path.rpartition("/")[2] for path in before} <= set(walk.SPANS)
        assert not out_of_range(control.state()), device


def out_of_range(state: ElementTree.Element) -> list[str]:
    peaks = [(float(sensor.findtext("temp_current")), float(sensor.findtext("temp_peak")))
             for sensor in state.findall("temp_sensors/temp_sensor")]
    found = [f"{current} above its peak" for current, peak in peaks if current > peak]
    found += [f"{speed.text} rpm" for speed in state.findall("fans/fan/speed_sensor_rpm") if int(speed.text) < 500]
    for line in state.findall("power_lines/power_line"):
        if nominal := re.match(r"(\d+)v(\d)", line.findtext("kid")):
            deviation = float(line.findtext("voltage")) / float(f"{nominal[1]}.{nominal[2]}") - 1
            found += [f"{line.findtext('kid')} {deviation:.3f}"] if abs(deviation) > 0.05 else []
    return found


def test_every_trap_of_a_flood_is_received_and_names_its_device(fleet):
    known = len(fleet.traps())
    controls = [Control(device) for device in fleet.devices]
    started = time.monotonic()
    for number in range(FAULTS):
        for control in controls:
            control.send("fault", "raise", "tests", f"flood{number}", "custom_msg", "notice", f"flood {number}")
        time.sleep(max(0.0, started + (number + 1) * 0.8 * FAULT_SECONDS / FAULTS - time.monotonic()))  # the rate of the flood
    assert time.monotonic() - started < FAULT_SECONDS
    expected = {(device.address, device.name, f"flood {number}") for device in fleet.devices for number in range(FAULTS)}

    def received() -> Counter:
        return Counter((trap["snmpTrapAddress.0"], trap["trapHostName.0"], trap["trapDescription.0"])
                       for trap in fleet.traps()[known:] if trap.get("trapDescription.0", "").startswith("flood "))

    try:
        wait_until(lambda: set(received()) == expected, 30, 0.5, "all traps received")
    finally:
        print(f"{len(received())} of {len(expected)} traps received, {sum(received().values())} in all")
    assert set(received().values()) == {1}
    for control in controls:
        for number in range(FAULTS):
            control.send("fault", "clear", "tests", f"flood{number}")


def test_stop_ends_the_fleet(fleet):
    """The last test with the shared fleet."""
    assert fleet.complaints() == []
    assert script("stop").returncode == 0
    assert fleet.process.wait(20) == 0
    assert registry.running() == []
    done = script("list")
    assert done.returncode == 1 and "no fleet is running; start one with:" in done.stderr


# The end


def test_a_reader_never_sees_half_an_inventory(tmp_path):
    file = tmp_path / "devices.json"
    file.write_text("the whole list of before")
    with open(file) as reader:
        fleetcli.write_inventory(str(file), [])
        assert reader.read() == "the whole list of before"
    assert list(tmp_path.iterdir()) == [file] and json.loads(file.read_text()) == []


def test_ctrl_c_leaves_nothing_behind(start_fleet, base):
    fleet = start_fleet("--count", "2", "--base-port", "2161", "--faults-per-hour", "36000", "--step", "1",
                        "--panel", "8080").wait_answering()
    assert [(device.address, device.port) for device in fleet.devices] == [("127.0.0.1", 2161), ("127.0.0.1", 2162)]
    assert [fleet.try_get(device, SYS_NAME) for device in fleet.devices] == [device.name for device in fleet.devices]
    page = ["python3", "-c", "import urllib.request as r; print(r.urlopen('http://127.0.0.1:8080/').status)"]
    wait_until(lambda: "200" in fleet.run(fleet.devices[0], *page, check=False), 30, 0.5, "front panel answers")
    wait_until(lambda: any("trapDescription.0" in trap for trap in fleet.traps()), 30, 0.2, "a fault of the walk")
    children = fleet.children()
    assert len(children) == 4
    processes = children + [device.first_process for device in fleet.devices]
    assert fleet.end(signal.SIGINT) == 0
    assert all(is_gone(process) for process in processes)
    assert list(base.glob("kvsnmp-devices-*/*")) == []


def test_after_a_kill_the_next_start_clears_what_is_left(start_fleet):
    killed = start_fleet("--count", "2").wait_answering()
    assert killed.end(signal.SIGKILL) != 0
    assert all(device.folder.exists() for device in killed.devices)
    second = start_fleet("--models", "6410", "--trap-target", "127.0.0.1:2000").wait_answering()
    wait_until(lambda: all(is_gone(device.first_process) for device in killed.devices), what="killed devices ended")
    assert [device.name for device in second.devices] == ["controller-6410-01"]
    assert not any(device.folder.exists() for device in killed.devices)
    assert "trap2sink 127.0.0.1:2000\n" in (second.devices[0].root / "etc/snmp/snmpd.conf").read_text()
    assert len(second.children()) == 1  # no receiver of traps


def test_clear_errors(base):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("127.0.0.1", 0))
        port = taken.getsockname()[1]
        done = script("--count", "2", "--base-port", str(port - 1), "--bin", str(bin_dir()))
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr.startswith(f"fleet: 127.0.0.1, UDP port {port}: Address already in use; choose another with")
    assert list(base.glob("kvsnmp-devices-*/*")) == []
    no_right = ["setpriv", "--bounding-set", "-net_bind_service"] if os.geteuid() == 0 else []
    done = subprocess.run([*no_right, SCRIPT, "--count", "1", "--bin", str(bin_dir())], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 1 and "UDP port 161 needs root; as another user choose --base-port" in done.stderr
    deep = base / ("deep" * 10)
    deep.mkdir()
    done = script("--count", "1", "--base-port", str(port), "--bin", str(bin_dir()), env=os.environ | {"TMPDIR": str(deep)})
    assert done.returncode == 1 and "is too long for a socket; set TMPDIR" in done.stderr
    broken = base / "bin"
    broken.mkdir()
    for program in ("kvsnmp", "talservice", "talctl"):
        (broken / program).write_text("#!/bin/sh\necho broken program\n")
        (broken / program).chmod(0o755)
    done = script("--count", "1", "--base-port", str(port), "--bin", str(broken))
    assert done.returncode == 1 and "fleet: station-6211-01 ended\n" in done.stderr
    assert "talservice.log: broken program" in done.stderr
    for arguments, message in [
            (["--models", "6420:2,9999:1"], "no model 9999"), (["--count", "0"], "a fleet has 1 to 200 devices"),
            (["--trap-target", "127.0.0.1:70000"], "a port is 1 to 65535"), (["stop"], "no fleet is running")]:
        done = script(*arguments)
        assert done.returncode != 0 and message in done.stderr and "Traceback" not in done.stderr


# Values and settings


STATE = """<state><version><software><kid>firmware</kid></software></version>
<power_lines><power_line><kid>3v3</kid><voltage>3.312</voltage></power_line>
<power_line><kid>24v0</kid><voltage>24.1</voltage></power_line></power_lines>
<fans><fan><kid>amp</kid><speed_sensor_rpm>1450</speed_sensor_rpm></fan></fans></state>"""


def turns(seed: int, count: int, faults: float = 0.0) -> list[list[tuple[int, list[str]]]]:
    steps = walk.Walk([STATE, STATE], seed, 5.0, faults)
    return [steps.next_turn() for _ in range(count)]


def test_a_seed_reproduces_the_walk():
    assert turns(1, 200, 500) == turns(1, 200, 500) != turns(2, 200, 500)
    assert [{device for device, _ in turn} for turn in turns(1, 4)] == [{0}, {1}, {0}, {1}]


def test_the_walk_is_slow_and_stays_in_its_range():
    values: dict[tuple[int, str], list[str]] = {}
    for turn in turns(3, 20000):
        for device, (command, path, value) in turn:
            assert command == "set"
            values.setdefault((device, path), []).append(value)
    assert len(values) == 6
    for (_, path), texts in values.items():
        start = {"3v3": "3.312", "24v0": "24.1", "amp": "1450"}[path.split("'")[1]]
        span = float(start) * walk.SPANS[path.rpartition("/")[2]]
        rounding = 0.5 * 10 ** -len(start.partition(".")[2])
        numbers = [float(text) for text in texts]
        assert span * 0.9 < max(numbers) - float(start) <= span + rounding
        assert span * 0.9 < float(start) - min(numbers) <= span + rounding
        assert max(abs(b - a) for a, b in zip(numbers, numbers[1:])) <= span * walk.STEP + 2 * rounding


def test_faults_come_at_the_rate_and_go_again():
    commands = [(place, device, command[1:]) for place, turn in enumerate(turns(4, 7200, 60)) for device, command in turn
                if command[0] == "fault"]
    raised = [item for item in commands if item[2][0] == "raise"]
    assert 480 < len(raised) < 720  # 60 an hour in 10 hours, at most 14 at once
    for place, device, (_, reporter, reference, *_) in raised:
        if place < 7100:
            end = next(at for at, where, words in commands
                       if at > place and (where, words) == (device, ["clear", reporter, reference]))
            assert 60 <= (end - place) * 5 <= 305


@pytest.mark.parametrize("address, target, expected", [
    ("127.1.0.5", "127.0.0.1:162", True), ("10.0.0.5", "10.0.0.9:162", True), ("127.1.0.5", "10.0.0.9:162", False)])
def test_traps_come_from_the_device_s_address_where_it_reaches_the_target(address, target, expected):
    assert settings.Settings(6420, "n", "/", port=161, address=address, trap_target=target,
                             is_in_fleet=True).sends_from_address == expected
