"""Starts a device, measures it and prints the table; run by scripts/bench-device, which builds first."""
from __future__ import annotations

import argparse
import os
import sys
from pathlib import Path

sys.dont_write_bytecode = True
CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "tests/device"), str(CHECKOUT / "bench")]

from support.device import Device  # noqa: E402
from support.traps import Faults, TrapReceiver  # noqa: E402

from device.figures import Bench  # noqa: E402
from device.subjects import FLOOR, KVSNMP  # noqa: E402
from device.table import Table  # noqa: E402


def main() -> int:
    parser = argparse.ArgumentParser(prog="bench-device", description="Measures a device of model 6420.")
    parser.add_argument("--rests", type=int, default=20, metavar="N", help="GETs after 5 s of rest (default 20)")
    options = parser.parse_args()
    subjects = [KVSNMP, FLOOR]
    load_before = os.getloadavg()[0]
    table = Table([subject.name for subject in subjects])
    device = Device(6420, "--no-kvsnmp", "--no-traps")
    try:
        measure(Bench(device.wait_ready(), table, options.rests), subjects)
        complaints = device.complaints()
    except AssertionError:
        print(device.logs(), file=sys.stderr)
        raise
    finally:
        device.stop()
        print(table.text())
        print(f"\n{os.cpu_count()} processors, load average {load_before:.1f} before and {os.getloadavg()[0]:.1f} after "
              "the run; on a machine at rest 0 before.")
    return 1 if complaints else 0


def measure(bench: Bench, subjects: list) -> None:
    traps = TrapReceiver(bench.device)
    faults = Faults(bench.device)
    bench.start()
    bench.device.wait_answering().wait_subscribed()
    faults.mark(traps)
    bench.memory(subjects, "at start")
    bench.at_rest(subjects)
    bench.requests(subjects)
    bench.memory([KVSNMP], "after the GETs")
    bench.trap_burst(faults, traps)
    bench.trap_backlog(faults, traps)
    bench.memory([KVSNMP], "after the traps")
    bench.notifications(faults, traps)
    bench.master_restart()
    bench.check_last_notification()
    bench.memory(subjects, "at the end")


if __name__ == "__main__":
    sys.exit(main())
