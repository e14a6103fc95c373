"""scripts/soak: it finds what is lost, doubled or grows, and a short run finds nothing."""
from __future__ import annotations

import os
import re
import signal
import subprocess
import sys
from pathlib import Path

import pytest
from support.device import CHECKOUT, bin_dir, registry
from support.polling import wait_until

sys.path.insert(0, str(CHECKOUT / "bench"))

from soak.faultbook import FaultBook  # noqa: E402
from soak.process import RSS_GROWTH_LIMIT_KB, Growth, Sample  # noqa: E402


def test_lost_and_doubled_faults_and_growth_are_found():
    book = FaultBook()
    for text in ("lost", "doubled", "late", "to a dying master"):
        book.raised(text, "LET Fault", 1.0)
    book.handed_over("late", False, 20.0)
    book.handed_over("to a dying master", True, 2.0)
    assert book.received("doubled") and not book.received("doubled")
    assert book.doubled() == ["doubled"]
    for seconds, lost in [(1.0, []), (2.0, ["lost"]), (21.0, ["lost", "late"])]:
        assert book.lost(seconds + FaultBook.PATIENCE) == lost
    for kilobytes, descriptors, word in [(20000 + RSS_GROWTH_LIMIT_KB, 16, ""),
                                         (20001 + RSS_GROWTH_LIMIT_KB, 16, "RSS grew"), (20000, 17, "descriptors")]:
        growth = Growth(1200)
        for at in range(1200):
            growth.add(Sample(at, 20000 if at < 600 else kilobytes, 7000, 16, 2, 0, 0))
        findings = growth.findings(Sample(0, 20000, 7000, 16, 2, 0, 0), Sample(0, 20000, 7000, descriptors, 2, 0, 0))
        assert [word in finding for finding in findings] == [True] * bool(word)


@pytest.fixture
def log(tmp_path: Path) -> Path:
    return tmp_path / "soak.log"


@pytest.fixture
def soak(log: Path):
    """Starts the program in another session; ends it after a failed test."""
    started: list[subprocess.Popen] = []

    def start(minutes: float) -> subprocess.Popen:
        with open(log, "w", encoding="utf-8") as output:
            started.append(subprocess.Popen(["/usr/bin/python3", str(CHECKOUT / "bench/soak"), str(minutes)],
                                            stdout=output, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                            start_new_session=True,
                                            env=os.environ | {"KVSNMP_BIN_DIR": str(bin_dir())}))
        return started[-1]

    yield start
    for process in started:
        if process.poll() is None:
            process.terminate()
            process.wait(30)


def test_a_short_run_finds_nothing(soak, log):
    process = soak(0.3)
    process.wait(120)
    report = log.read_text()
    print(report)
    assert process.returncode == 0, report
    assert report.endswith("soak: nothing lost, nothing doubled, nothing grew\n")
    counts = re.search(r"(\d+) faults raised: (\d+) sent, (\d+) received", report)
    raised, handed_over, received = map(int, counts.groups())
    restarts = int(re.search(r"(\d+) restarts of snmpd", report)[1])
    assert raised > 50 and restarts >= 2
    assert raised == handed_over >= received
    kinds = re.findall(r"^    (\S.*?) +(\d+) answers:", report, re.MULTILINE)
    assert {kind for kind, count in kinds if int(count)} == {"GET", "GET v1", "GETNEXT", "GETBULK 10", "GETBULK 50"}


def test_interrupted_run_leaves_nothing_behind(soak, log):
    process = soak(5)
    wait_until(lambda: "minute" in log.read_text(), 30, what="run begun")
    name = next(device.name for device in registry.running() if device.name.startswith(f"t{process.pid}-"))
    processes = inside(name)
    assert len(processes) > 5
    os.killpg(process.pid, signal.SIGINT)
    assert process.wait(30) == 130
    assert "soak: interrupted" in log.read_text()
    assert name not in [device.name for device in registry.running()]
    wait_until(lambda: not [one for one in processes if one.exists()], 10, what="every process of the device gone")


def inside(name: str) -> list[Path]:
    """The processes of a device, as the host sees them."""
    first = next(device.first_process for device in registry.running() if device.name == name)
    namespace = os.readlink(f"/proc/{first}/ns/pid")
    found = []
    for process in Path("/proc").glob("[0-9]*"):
        try:
            if os.readlink(process / "ns/pid") == namespace:
                found.append(process)
        except OSError:  # gone, or somebody else's
            continue
    return found
