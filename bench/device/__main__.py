"""Starts a device and two peers, measures them and prints the tables; run by scripts/bench-device, which builds first."""
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

from support.device import Device  # noqa: E402
from support.traps import Faults, TrapReceiver  # noqa: E402

from device.daemon import DaemonBench  # noqa: E402
from device.peers import Peer  # noqa: E402
from device.subjects import FLOOR, KVSNMP, PEERS, SUBJECTS  # noqa: E402
from device.table import Table  # noqa: E402
from device.targets import targets_text  # noqa: E402


def main() -> int:
    parser = argparse.ArgumentParser(prog="bench-device",
                                     description="Measures a device of model 6420 and two sub-agents of Debian.")
    parser.add_argument("--rests", type=int, default=20, metavar="N", help="GETs after 5 s idle (default 20)")
    parser.add_argument("--restarts", type=int, default=20, metavar="N", help="restarts of snmpd (default 20)")
    parser.add_argument("--growth", type=int, default=1000000, metavar="N",
                        help="GETs and notifications over which memory must not grow (default 1000000)")
    options = parser.parse_args()
    load_before = os.getloadavg()[0]
    table = Table()
    device = Device(6420, "--no-kvsnmp", "--no-traps")
    complaints: list[str] = []
    try:
        complaints = measure(device, table, options)
    except AssertionError:
        print(device.logs(), file=sys.stderr)
        raise
    finally:
        device.stop()
        print(f"\n{table.text()}\n\n{targets_text(table)}\n\n{machine()}\nLoad average {load_before:.1f} before and "
              f"{os.getloadavg()[0]:.1f} after the run; on an idle machine 0 before.")
    return 1 if complaints else 0


def measure(device: Device, table: Table, options: argparse.Namespace) -> list[str]:
    with contextlib.ExitStack() as ends:
        devices = {KVSNMP: device.wait_ready(), FLOOR: device}
        bench = DaemonBench(devices, table)
        traps = TrapReceiver(device)
        faults = Faults(device)
        bench.start()
        faults.mark(traps, timeout=30)  # once it has subscribed
        restarts = {}
        for subject in PEERS:
            peer = Peer(subject, device.read("/etc/snmp/snmpd.conf"))
            ends.callback(peer.stop)
            devices[subject] = peer.device
            restarts[subject] = peer.restart_snmpd
        bench.memory(SUBJECTS, "at start")
        bench.at_rest()
        bench.requests(options.rests)
        bench.memory(SUBJECTS, "after the GETs")
        bench.trap_burst(faults, traps)
        bench.trap_backlog(faults, traps)
        bench.memory([KVSNMP], "after the traps")
        bench.notifications(faults, traps)
        bench.growth(options.growth, faults, traps)
        bench.master_restarts(options.restarts, restarts)
        bench.check_last_notification()
        bench.memory(SUBJECTS, "at the end")
    return device.complaints()


def machine() -> str:
    """The conditions of the figures, without anything that identifies the machine."""
    cpu = next((line.partition(":")[2].strip() for line in Path("/proc/cpuinfo").read_text().splitlines()
                if line.startswith("model name")), platform.machine())
    memory = int(Path("/proc/meminfo").read_text().split()[1]) / 2**20
    return (f"{datetime.date.today()}, {os.cpu_count()} processors ({cpu}), {memory:.0f} GiB of memory, "
            f"Linux {platform.release().partition('-')[0]}, {platform.freedesktop_os_release()['PRETTY_NAME']}.")


if __name__ == "__main__":
    sys.exit(main())
