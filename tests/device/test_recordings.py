"""The recordings of monitoring/recordings/generate: snmpsim serves the golden walks and the system group of a
device."""
from __future__ import annotations

import os
import re
import socket
import subprocess
from collections.abc import Callable, Iterator
from pathlib import Path
from tempfile import TemporaryDirectory

import pytest
from support.device import CHECKOUT
from support.polling import wait_until
from support.snmp import COMMUNITY, NUMERIC, TABLES
from support.walks import golden

GENERATE = CHECKOUT / "monitoring/recordings/generate"
SYSTEM = ".1.3.6.1.2.1.1"


Ask = Callable[[str, str], str]


@pytest.fixture(scope="module")
def walk() -> Iterator[Ask]:
    """Walks a recording below an OID."""
    with TemporaryDirectory() as place:  # pytest closes its own folders to other users whenever a run begins
        folder, cache, log = (Path(place) / name for name in ("data", "cache", "log"))
        subprocess.run([GENERATE, folder], check=True, stdout=subprocess.DEVNULL)
        assert sorted(file.name for file in folder.iterdir()) == sorted(f"{name}.snmprec" for name in golden.NAMES)
        cache.mkdir()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
            probe.bind(("127.0.0.1", 0))
            address = f"127.0.0.1:{probe.getsockname()[1]}"
        command = ["snmpsimd", f"--data-dir={folder}", f"--cache-dir={cache}", "--logging-method=stdout",
                   f"--agent-udpv4-endpoint={address}"]
        if os.geteuid() == 0:  # it drops its rights
            Path(place).chmod(0o755)
            cache.chmod(0o777)
            command += ["--process-user=nobody", "--process-group=nogroup"]
        with open(log, "wb") as output:
            process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output, cwd="/")

        def ask(name: str, oid: str) -> str:
            done = subprocess.run(["snmpbulkwalk", *NUMERIC, "-t5", "-Cr50", "-v2c", "-c", name, address, oid], text=True,
                                  capture_output=True, check=True, timeout=60, env=os.environ | {"MIBS": ""})
            # The recording ends there, a device goes on.
            return re.sub(r"^\S+ = No more variables left in this MIB View .*\n", "", done.stdout, flags=re.MULTILINE)

        wait_until(lambda: "Listening at UDP/IPv4 endpoint" in log.read_text() or process.poll() is not None, 60, 0.1,
                   what="snmpsimd listens")
        assert process.poll() is None, log.read_text()
        yield ask
        process.terminate()
        process.wait(10)


def test_snmpsim_serves_the_golden_walks(walk):
    for name in golden.NAMES:
        assert walk(name, TABLES) == golden.text_of(name), name


def test_snmpsim_serves_the_system_group_of_a_device(walk, start_device):
    device = start_device(6420, "--no-dbus", "--no-traps").wait_answering()
    lines = dict(line.split(" = ", 1) for line in device.run(
        ["snmpwalk", *NUMERIC, *COMMUNITY, "127.0.0.1", SYSTEM]).stdout.splitlines() if " = " in line)
    served = dict(line.split(" = ", 1) for line in walk("6420", SYSTEM).splitlines())
    assert list(served) == [f"{SYSTEM}.{number}.0" for number in range(1, 7)]
    assert served.pop(f"{SYSTEM}.1.0") == 'STRING: "Linux device 5.15.71"'  # a device has that of its own kernel
    assert served.pop(f"{SYSTEM}.3.0").startswith("Timeticks: ")
    assert lines[f"{SYSTEM}.1.0"].startswith('STRING: "Linux device ')
    assert served == {oid: lines[oid] for oid in served}
