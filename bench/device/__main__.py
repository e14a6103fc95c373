"""Starts a device, the floor and two peers and measures them; run by scripts/bench-device, which builds first."""
from __future__ import annotations

import argparse
import contextlib
import datetime
import os
import platform
import sys
from pathlib import Path

sys.dont_write_bytecode = True
CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "tests/device"), str(CHECKOUT / "bench")]

from device.bench import FULL, QUICK, Effort  # noqa: E402
from device.counts import Counts  # noqa: E402
from device.daemon import DaemonBench, start  # noqa: E402
from device.document import document_parts, write_documents  # noqa: E402
from device.requests import Requests  # noqa: E402
from device.results import Results  # noqa: E402
from device.subjects import FLOOR, KVSNMP, PEERS, SUBJECTS, Peer, versions  # noqa: E402


def main() -> int:
    parser = argparse.ArgumentParser(prog="bench-device")
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--json", type=Path)
    parser.add_argument("--from", dest="source", type=Path)
    parser.add_argument("--write-docs", action="store_true")
    options = parser.parse_args()
    complaints: list[str] = []
    if options.source:
        results = Results.load(options.source)
    else:
        results = Results()
        results.about, before = about(), stolen()
        complaints = measure(results, QUICK if options.quick else FULL)
        results.about += f" {os.getloadavg()[0]:.1f} after it. The host took {stolen() - before:.0f} s of processor time."
    if options.json:
        results.save(options.json)
    if options.write_docs:
        write_documents(results, CHECKOUT / "docs")
    else:
        print("\n\n".join(document_parts(results).values()))
    return 1 if complaints else 0


def measure(results: Results, effort: Effort) -> list[str]:
    with contextlib.ExitStack() as ends:
        started = start(results, effort)
        ends.callback(started.device.stop)
        devices, peers = {KVSNMP: started.device}, {}
        try:
            for subject in (FLOOR, *PEERS):
                peers[subject] = Peer(subject, started.device.read("/etc/snmp/snmpd.conf"))
                devices[subject] = peers[subject].device
                ends.callback(peers[subject].stop)
            shared = (devices, results, effort)
            requests, daemon = Requests(*shared), DaemonBench(started, *shared)
            for subject in peers:
                requests.memory(subject, "at start")
            requests.idle()
            requests.all()
            for subject in SUBJECTS:
                requests.memory(subject, "after the GETs")
            daemon.trap_burst(2000)
            daemon.trap_backlog(5000)
            daemon.memory(KVSNMP, "after the traps")
            daemon.notifications()
            daemon.growth()
            daemon.busy_processor()
            daemon.master_restarts(peers)
            Counts(*shared).all(requests.objects)
        except AssertionError:
            print(started.device.logs(), file=sys.stderr)
            raise
        return started.device.complaints()


def stolen() -> float:
    """Seconds that the host of a virtual machine kept its processors for others, since the machine's start."""
    return int(Path("/proc/stat").read_text().split()[8]) / os.sysconf("SC_CLK_TCK")


def about() -> str:
    """The conditions of the figures, without anything that identifies the machine."""
    cpu = next((line.partition(":")[2].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
                if line.startswith("model name")), platform.machine())
    memory = int(Path("/proc/meminfo").read_text().split()[1]) / 2**20
    programs = ", ".join(f"{name} {version}" for name, version in versions().items())
    return (f"{programs}; {datetime.date.today()}, {os.cpu_count()} processors ({cpu}), {memory:.0f} GiB of memory, "
            f"Linux {platform.release().partition('-')[0]}, {platform.freedesktop_os_release()['PRETTY_NAME']}. "
            f"Load average {os.getloadavg()[0]:.1f} before the run,")


if __name__ == "__main__":
    sys.exit(main())
