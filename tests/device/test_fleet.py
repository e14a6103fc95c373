"""scripts/fleet: many devices in one network. KVSNMP_FLEET=50 runs the tests of a shared fleet with so many devices."""
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
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

import pytest
from support.device import CHECKOUT, MODEL_NUMBER, bin_dir, registry, sandbox, settings
from support.polling import wait_until
from support.process import is_gone
from devicelib import fleetcli, walk

SCRIPT = str(CHECKOUT / "scripts/fleet")
COUNT = int(os.environ.get("KVSNMP_FLEET", "0"))
DEVICES = ["--count", str(COUNT)] if COUNT else ["--models", "6420,6720,6214:2"]
FAULTS = 20  # of each device
FLOOD_SECONDS = 8.0 if COUNT else 2.0
START_SECONDS = 120.0  # with sanitizers on a busy machine
SYS_NAME, SYS_LOCATION = ".1.3.6.1.2.1.1.5.0", ".1.3.6.1.2.1.1.6.0"


class Fleet:
    """scripts/fleet in a separate network, as a person starts it."""

    def __init__(self, folder: Path, *options: str) -> None:
        self.inventory, self._log = folder / "inventory.json", folder / "fleet.log"
        with open(self._log, "wb") as log:
            self.process = subprocess.Popen(
                ["bwrap", "--dev-bind", "/", "/", "--unshare-net", "--die-with-parent", SCRIPT, "--bin", str(bin_dir()),
                 "--inventory", str(self.inventory), *options], stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        self.devices: list[registry.Running] = []

    def wait_devices(self, count: int) -> None:
        """Until so many have their first process."""
        def look() -> bool:
            assert self.process.poll() is None, self._log.read_text()
            self.devices = sorted(registry.running(),
                                  key=lambda device: (int(device.address.rpartition(".")[2]), device.port))
            return len(self.devices) >= count

        wait_until(look, START_SECONDS, what="devices")

    def wait_answering(self) -> Fleet:
        wait_until(lambda: self.process.poll() is not None or " devices answer after " in self._log.read_text(),
                   START_SECONDS, 0.2, "fleet answering")
        self.wait_devices(1)
        return self

    def run(self, device: registry.Running, *command: str, check: bool = True) -> str:
        """The output of a command inside a device."""
        return subprocess.run(sandbox.enter_command(device.first_process, list(command)), capture_output=True,
                              text=True, check=check, timeout=60, stdin=subprocess.DEVNULL).stdout

    def try_get(self, device: registry.Running, oid: str) -> str:
        """The value of an object, empty without an answer."""
        command = ["snmpget", "-v2c", "-c", "public", "-Oqv", "-r1", f"{device.address}:{device.port}", oid]
        return self.run(device, *command, check=False).strip().strip('"')

    def traps(self) -> list[dict[str, str]]:
        """The variables of all traps, in the order of arrival."""
        records = self.devices[0].traps.read_bytes().decode().split("\x1e")[:-1]
        variables = [record.partition("\x1d")[2].split("\x1f") for record in records]
        return [dict(variable.split(" = ", 1) for variable in record) for record in variables]

    def end(self, number: signal.Signals = signal.SIGTERM) -> int:
        if self.process.poll() is None:
            if self.devices:
                os.kill(self.devices[0].owner, number)
            else:
                self.process.kill()
        return self.process.wait(60)


def talctl(device: registry.Running, *words: str, input: str = "") -> str:
    """From outside the device, at its control socket."""
    command = [bin_dir() / "talctl", "--control", f"{device.root}{settings.TAL_CONTROL}", *words]
    return subprocess.run(command, input=input, capture_output=True, text=True, check=True, timeout=60).stdout


def state_of(device: registry.Running) -> ElementTree.Element:
    return ElementTree.fromstring(talctl(device, "get", "/state"))


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


@pytest.fixture(scope="module")
def start_fleet(base) -> Iterator:
    """One fleet at a time."""
    fleets: list[Fleet] = []

    def start(*options: str) -> Fleet:
        fleets.append(Fleet(base, *options))
        return fleets[-1]

    yield start
    for started in fleets:
        started.end()


@pytest.fixture(scope="module")
def fleet(start_fleet) -> Fleet:
    return start_fleet(*DEVICES, "--step", "1", "--seed", "7", "--faults-per-hour", "7200").wait_answering()


def script(*arguments: str, timeout: float = 60.0, **options) -> subprocess.CompletedProcess:
    return subprocess.run([SCRIPT, *arguments], capture_output=True, text=True, timeout=timeout, check=False, **options)


# A running fleet


def test_each_device_answers_at_its_address_with_its_name_and_location(fleet):
    for place, device in enumerate(fleet.devices, 1):
        assert (device.address, device.port) == (f"127.1.0.{place}", 161)
        assert fleet.try_get(device, MODEL_NUMBER) == str(device.model)
        assert fleet.try_get(device, SYS_NAME) == device.name
    places = [fleet.try_get(device, SYS_LOCATION) for device in fleet.devices]
    assert len(set(places)) == len(places) == len({device.name for device in fleet.devices})


def test_the_inventory_is_what_a_search_of_the_network_finds(fleet):
    found = json.loads(fleet.run(fleet.devices[0], str(CHECKOUT / "monitoring/discover/kvsnmp-discover"), "--format",
                                 "prometheus", f"{fleet.devices[0].address}-{fleet.devices[-1].address}"))
    assert json.loads(fleet.inventory.read_text()) == found and len(found) == len(fleet.devices)


def test_list_exec_and_stop_of_a_single_device(fleet):
    lines = [line.split("\t") for line in script("list").stdout.splitlines()]
    assert [line[:4] for line in lines] == [
        [device.name, f"model {device.model}", f"{device.address}:161", "running"] for device in fleet.devices]
    last = fleet.devices[-1].name
    assert script("exec", "--name", last, "--", "cat", "/etc/hostname").stdout == f"{last}\n"
    assert script("exec", "--name", last, "--", "sh", "-c", "exit 7").returncode == 7
    expected = "".join(f"== {device.name}\n{device.name}\n" for device in fleet.devices)
    assert script("exec", "--", "hostname").stdout == expected
    done = subprocess.run([CHECKOUT / "scripts/device", "stop", "--name", last], capture_output=True, text=True,
                          check=False)
    assert done.returncode == 1 and f"{last} is in a fleet" in done.stderr


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


def test_values_move_within_their_range_and_faults_are_raised(fleet):
    for device in fleet.devices:
        def values() -> dict[str, str]:
            return {value.path: value.start for value in walk.values_of(state_of(device))}

        if before := values():
            moved = wait_until(lambda: len(new := values().items() - before.items()) >= 3 and new, 30, 0.2, "moved")
            assert len(moved) < len(before)
        assert {path.rpartition("/")[2] for path in before} <= set(walk.SPANS)
        assert not out_of_range(state_of(device)), device
    wait_until(lambda: any("trapDescription.0" in trap for trap in fleet.traps()), 30, 0.2, "a fault of the walk")


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
    raised = 'fault raise tests flood{0} custom_msg notice "flood {0}"\n'
    lines = "".join(f"{number * FLOOD_SECONDS / FAULTS} {raised.format(number)}" for number in range(FAULTS))
    started = time.monotonic()
    with ThreadPoolExecutor(len(fleet.devices)) as pool:
        list(pool.map(lambda device: talctl(device, "replay", "-", input=lines), fleet.devices))
    assert time.monotonic() - started < 10
    expected = {(device.address, device.name, f"flood {number}")
                for device in fleet.devices for number in range(FAULTS)}

    def received() -> Counter:
        return Counter((trap["snmpTrapAddress.0"], trap["trapHostName.0"], trap["trapDescription.0"])
                       for trap in fleet.traps() if trap.get("trapDescription.0", "").startswith("flood "))

    try:
        wait_until(lambda: set(received()) == expected, 30, 0.5, "all traps received")
    finally:
        print(f"{len(received())} of {len(expected)} traps received, {received().total()} in all")
    assert set(received().values()) == {1}


def test_stop_ends_the_fleet(fleet):
    for device in fleet.devices:
        assert list((device.root / "var/log").glob("sanitizer.*")) == []
        assert not re.search("QObject::|runtime error:", (device.root / "var/log/kvsnmp.err").read_text())
    assert script("stop").returncode == 0
    assert fleet.process.wait(20) == 0
    assert registry.running() == []
    done = script("list")
    assert done.returncode == 1 and "no fleet is running; start one with:" in done.stderr


def test_the_next_start_clears_what_a_kill_has_left_and_ctrl_c_leaves_nothing(start_fleet, base):
    killed = start_fleet("--count", "2")
    killed.wait_devices(2)
    # Only from then on bubblewrap's processes end with the fleet's.
    logs = [device.root / "var/log/dbus-daemon.log" for device in killed.devices]
    wait_until(lambda: all(log.exists() for log in logs), what="the shells of the devices")
    assert killed.end(signal.SIGKILL) != 0
    assert all(device.folder.exists() for device in killed.devices)
    fleet = start_fleet("--models", "6410,6420", "--base-port", "2161", "--trap-target", "127.0.0.1:2000",
                        "--panel", "8080").wait_answering()
    wait_until(lambda: all(is_gone(device.first_process) for device in killed.devices), what="killed devices ended")
    assert not any(device.folder.exists() for device in killed.devices)
    assert [(device.name, device.address, device.port) for device in fleet.devices] == [
        ("controller-6410-01", "127.0.0.1", 2161), ("amplifier-6420-01", "127.0.0.1", 2162)]
    for device in fleet.devices:
        assert fleet.try_get(device, SYS_NAME) == device.name
        assert "trap2sink 127.0.0.1:2000\n" in (device.root / "etc/snmp/snmpd.conf").read_text()
    page = ["python3", "-c", "import urllib.request as r; print(r.urlopen('http://127.0.0.1:8080/').status)"]
    wait_until(lambda: "200" in fleet.run(fleet.devices[0], *page, check=False), 30, 0.5, "front panel answers")
    owner = fleet.devices[0].owner
    children = [int(number) for number in Path(f"/proc/{owner}/task/{owner}/children").read_text().split()]
    assert len(children) == 3  # two sandboxes and the panel: no receiver of traps
    assert fleet.end(signal.SIGINT) == 0
    assert all(is_gone(process) for process in children + [device.first_process for device in fleet.devices])
    assert list(base.glob("kvsnmp-devices-*/*")) == []


# Files and errors


def test_a_reader_never_sees_half_an_inventory(tmp_path):
    file = tmp_path / "devices.json"
    file.write_text("the whole list of before")
    with open(file) as reader:
        fleetcli.write_inventory(str(file), [])
        assert reader.read() == "the whole list of before"
    assert list(tmp_path.iterdir()) == [file] and json.loads(file.read_text()) == []


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
