"""The recordings that monitoring/recordings/generate makes: what snmpsim serves from them, held to
the golden walks and to devices."""
from __future__ import annotations

import os
import re
import socket
import subprocess
from collections.abc import Iterator
from pathlib import Path
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import EXTENDED
from support.device import CHECKOUT
from support.polling import wait_until
from support.snmp import COMMUNITY, NUMERIC, TABLES, parse

GENERATE = CHECKOUT / "monitoring/recordings/generate"
GOLDEN = CHECKOUT / "tests/device/golden"
NAMES = sorted(walk.stem for walk in GOLDEN.glob("*.walk"))
TYPES = {"2": "INTEGER", "66": "Gauge32", "4": "STRING", "4x": "STRING", "6": "OID", "67": "Timeticks"}
RAW = ["-On", "-Oe", "-OU", "-Ox"]  # texts in hexadecimal, octet for octet
SYSTEM = ".1.3.6.1.2.1.1"


class Record(NamedTuple):
    oid: str
    type: str
    value: str | bytes


@pytest.fixture(scope="module")
def folder(tmp_path_factory) -> Path:
    folder = tmp_path_factory.mktemp("snmpsim") / "data"
    subprocess.run([GENERATE, folder], check=True, stdout=subprocess.DEVNULL)
    return folder


def recording(folder: Path, name: str) -> list[Record]:
    records = []
    for line in (folder / f"{name}.snmprec").read_text().splitlines():
        oid, tag, value = line.split("|", 2)
        text: str | bytes = value
        if tag == "4":
            text = value.encode()
        elif tag == "4x":
            text = bytes.fromhex(value)
        records.append(Record(f".{oid}", TYPES[tag], text))
    return records


def as_records(output: str) -> list[Record]:
    """An answer of net-snmp's tools with the options above."""
    records = []
    for variable in parse(output):
        kind, text = variable.type, variable.text
        value: str | bytes = text.removeprefix(".") if kind == "OID" else text
        if kind == "Hex-STRING":
            kind, value = "STRING", bytes.fromhex(text)
        elif kind == "STRING":
            value = b"" if text in ("", '""') else text.encode("latin-1")
        records.append(Record(variable.oid, kind, value))
    return records


def test_each_walk_has_a_recording(folder):
    assert sorted(file.name for file in folder.iterdir()) == sorted(f"{name}.snmprec" for name in NAMES)


def test_objects_stand_in_the_order_of_a_walk(folder):
    for name in NAMES:
        oids = [[int(arc) for arc in record.oid.split(".")[1:]] for record in recording(folder, name)]
        assert oids == sorted(oids), name


# On devices


@pytest.mark.parametrize("name, options", [("6425", ["--set", "/state/lines/line[kid='ln1']/pilot_tone_state=failed"]),
                                           ("6214-extended", ["--model-text", EXTENDED])])
def test_a_recording_is_what_the_device_serves(start_device, folder, name, options):
    """With types, octet for octet."""
    device = start_device(int(name[:4]), "--clock-shift", "--no-dbus", "--no-traps", *options)
    device.wait_answering(60).wait_subscribed(60)
    steps.apply(device, dbus=False)

    def served() -> list[Record]:
        device.shift_clock(steps.CACHE_SECONDS)
        return as_records(device.run(["snmpwalk", *RAW, *COMMUNITY, "127.0.0.1", TABLES]).stdout)

    expected = [record for record in recording(folder, name) if record.oid.startswith(TABLES + ".")]
    wait_until(lambda: served() == expected, 60, 0.5, what="the walk is the recording")

    system = {record.oid: record for record in as_records(
        device.run(["snmpwalk", *RAW, *COMMUNITY, "127.0.0.1", SYSTEM]).stdout)}
    for record in recording(folder, name):
        if not record.oid.startswith(SYSTEM + "."):
            continue
        answer = system[record.oid]
        if record.oid == f"{SYSTEM}.1.0":  # that of the machine that runs the test
            assert answer.type == "STRING" and answer.value.startswith(b"Linux device ")
        elif record.type == "Timeticks":
            assert record.oid == f"{SYSTEM}.3.0"  # a clock
        else:
            assert answer == record


# In snmpsim


class Simulator:
    def __init__(self, data: Path) -> None:
        folder = data.parent
        (folder / "cache").mkdir()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            self.port = probe.getsockname()[1]
        command = ["snmpsimd", f"--data-dir={data}", f"--cache-dir={folder}/cache", "--logging-method=stdout",
                   f"--agent-udpv4-endpoint=127.0.0.1:{self.port}"]
        if os.geteuid() == 0:  # it serves as nobody else
            folder.chmod(0o755)
            (folder / "cache").chmod(0o777)
            command += ["--process-user=nobody", "--process-group=nogroup"]
        self.log = folder / "log"
        with open(self.log, "wb") as log:
            self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=log, stderr=log, cwd="/")
        wait_until(self._listening, 60, 0.1, what="snmpsimd listens")

    def _listening(self) -> bool:
        assert self.process.poll() is None, self.log.read_text()
        return "Listening at UDP/IPv4 endpoint" in self.log.read_text()

    def walk(self, name: str, oid: str, *options: str) -> str:
        done = subprocess.run(
            ["snmpwalk", *(options or NUMERIC), "-v2c", "-c", name, f"127.0.0.1:{self.port}", oid],
            capture_output=True, text=True, check=True, timeout=60, env=os.environ | {"MIBS": ""})
        # The recording ends there, the device's own agent goes on.
        return re.sub(r"^\S+ = No more variables left in this MIB View .*\n", "", done.stdout, flags=re.MULTILINE)

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(10)


@pytest.fixture(scope="module")
def simulator(folder) -> Iterator[Simulator]:
    for parent in list(folder.parents)[1:3]:
        if os.geteuid() == 0:
            parent.chmod(0o755)
    simulator = Simulator(folder)
    yield simulator
    simulator.stop()


@pytest.mark.parametrize("name", NAMES)
def test_snmpsim_serves_the_golden_walk(simulator, name):
    assert simulator.walk(name, TABLES) == (GOLDEN / f"{name}.walk").read_text()


def test_snmpsim_serves_the_system_group(simulator):
    served = as_records(simulator.walk("6420", SYSTEM, *RAW))
    assert [record.oid for record in served] == [f"{SYSTEM}.{number}.0" for number in range(1, 7)]
    assert served[0].value == b"Linux device 5.15.71"
