"""Keeps a throw-away device busy for some minutes and reports the results; run by scripts/soak, which builds first.

Exits with 0 if nothing was lost, doubled or answered wrongly and nothing grew, otherwise with 1; with 130 if it was
interrupted.
"""
from __future__ import annotations

import argparse
import json
import os
import selectors
import signal
import subprocess
import sys
import time
from collections.abc import Callable
from pathlib import Path

sys.dont_write_bytecode = True
CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "tests/device"), str(CHECKOUT / "bench")]

from support.device import Device, is_sanitized  # noqa: E402
from support.traps import TrapReceiver  # noqa: E402

from device.processes import processes  # noqa: E402
from soak.answers import Answers  # noqa: E402
from soak.daemonlog import DyingWindow, LogFollower, Restarts  # noqa: E402
from soak.faultbook import FaultBook  # noqa: E402
from soak.life import Life  # noqa: E402
from soak.process import Growth, Sample, rates, sample  # noqa: E402
from soak.report import end_lines, heading, minute_line  # noqa: E402

# Kind and milliseconds of pause of each manager.
MANAGERS = [("GET", 50), ("GET", 2000), ("GET v1", 100), ("GETNEXT", 2000), ("GETBULK 10", 1500), ("GETBULK 50", 1000)]
TICK = 0.1
SAMPLE_INTERVAL = 2.0
RESTART_LIMIT = 60.0
CALM = 2.0


def main() -> int:
    parser = argparse.ArgumentParser(prog="soak", description="Keeps a device of model 6420 busy and watches it.")
    parser.add_argument("minutes", type=float, help="how long; may be a fraction")
    parser.add_argument("--seed", type=int, default=1, metavar="N", help="another order of events")
    options = parser.parse_args()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        if number == signal.SIGINT or signal.getsignal(number) != signal.SIG_IGN:
            signal.signal(number, interrupt)
    device = Device(6420, "--no-traps", own_session=True)
    soak = None
    try:
        soak = Soak(device.wait_ready(), 60 * options.minutes, options.seed)
        soak.run()
        soak.report()
        findings = soak.findings()
    except KeyboardInterrupt:
        print("soak: interrupted", flush=True)
        if soak and soak.started:
            soak.report()
        return 130
    except AssertionError:
        print(device.logs(), file=sys.stderr)
        raise
    finally:
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            signal.signal(number, signal.SIG_IGN)  # ignored during shutdown
        if soak:
            soak.close()
        complaints = device.stop()
    for finding in findings + complaints:
        print(f"soak: {finding}")
    print("soak: failed" if findings or complaints else "soak: nothing lost, nothing doubled, nothing grew")
    return 1 if findings or complaints else 0


def interrupt(*_) -> None:
    raise KeyboardInterrupt


class Soak:
    def __init__(self, device: Device, seconds: float, seed: int) -> None:
        self.device = device
        self.seconds = seconds
        self.traps = TrapReceiver(device)
        device.wait_answering().wait_subscribed()
        self.daemon = processes(device, "kvsnmp")[0]
        self.log = LogFollower(device.path("/var/log/kvsnmp.err"), time.monotonic())
        self.log.look(time.monotonic())
        self.restarts = Restarts()
        self.dying = DyingWindow()
        self.faults = FaultBook()
        self.answers = Answers(self.restarts)
        self.growth = Growth(seconds)
        self.life = Life(device, self.order, self.faults, self.restarts, self.dying, seconds, seed)
        self.talctl_log = open(device.path("/var/log/talctl.log"), "wb")
        self.talctl = device.popen(["talctl", "batch"], stdin=subprocess.PIPE, stdout=self.talctl_log,
                                   stderr=self.talctl_log, start_new_session=True)
        self.selector = selectors.DefaultSelector()
        self.received = 0
        self.started = False
        self.before = self.after = sample(self.daemon)

    def order(self, *words: str) -> None:
        self.talctl.stdin.write(json.dumps(words).encode() + b"\n")

    # Running

    def run(self) -> None:
        time.sleep(CALM)
        self.before = self.after = sample(self.daemon)
        self.started = True
        print(heading(), flush=True)
        self._start_managers()
        start = time.monotonic()
        next_sample, next_minute, last, minute = start, start + 60, self.before, 0
        while (now := time.monotonic()) < start + self.seconds:
            self.life.step(now)
            self._look()
            if now >= next_sample:
                self.after = sample(self.daemon)
                self.growth.add(self.after)
                self._forget_output()
                next_sample = now + SAMPLE_INTERVAL
            if now >= next_minute:
                minute += 1
                self._print_minute(str(minute), last, now)
                last, next_minute = self.after, next_minute + 60
            time.sleep(TICK)
        if not minute:
            self._print_minute("part", last, time.monotonic())
        self._come_to_rest()

    def _start_managers(self) -> None:
        program = CHECKOUT / "bench/soak/manager.py"
        for kind, pause in MANAGERS:
            manager = self.device.popen(["/usr/bin/python3", str(program), kind, str(pause)], stdout=subprocess.PIPE,
                                        start_new_session=True)
            os.set_blocking(manager.stdout.fileno(), False)
            self.selector.register(manager.stdout, selectors.EVENT_READ, (manager, bytearray()))

    def _look(self) -> None:
        """Collects everything since the last call."""
        self.talctl.stdin.flush()
        now = time.monotonic()
        lines = self.log.look(now)
        for line in lines:
            self.restarts.take(line)
        for text, dying in self.dying.handed_over(lines):
            self.faults.handed_over(text, dying, now)
        received = self.traps.received
        for trap in received[self.received:]:
            if self.faults.received(trap.description):
                self.life.received(trap.description, now)
        self.received = len(received)
        for key, _ in self.selector.select(0):
            self._read_manager(*key.data, now)
        self.answers.settle(now)
        if self.restarts.waits(now) > RESTART_LIMIT:
            raise AssertionError("snmpd and the session to it did not come back")

    def _read_manager(self, manager: subprocess.Popen, pending: bytearray, now: float) -> None:
        chunk = os.read(manager.stdout.fileno(), 1 << 20)
        if not chunk:
            raise AssertionError(f"a manager ended with status {manager.wait()}")
        *lines, rest = (bytes(pending) + chunk).split(b"\n")
        pending[:] = rest
        for line in lines:
            self.answers.report(line.decode(), now)

    def _forget_output(self) -> None:
        """The daemon prints every row that it serves: gigabytes in an hour."""
        os.truncate(self.device.path("/var/log/kvsnmp.out"), 0)

    def _print_minute(self, minute: str, last: Sample, now: float) -> None:
        print(minute_line(minute, self.after, rates(last, self.after), self.restarts.count, self.faults.totals(now),
                          self.answers.minute(), self.answers.timeouts), flush=True)

    # The end

    def _come_to_rest(self) -> None:
        """No new events; pending work ends, and losses are counted."""
        self.life.enable_everything(time.monotonic())
        self._look_while(lambda: self.restarts.under_way or self.faults.waiting(), FaultBook.PATIENCE + 5)
        self._stop_managers()
        self.life.clear_everything()
        self._look_while(lambda: True, CALM)  # doubled traps have arrived by then
        self.talctl.stdin.close()
        if status := self.talctl.wait(20):
            raise AssertionError(f"talctl: status {status}: {self.device.read('/var/log/talctl.log')}")
        self.after = sample(self.daemon)

    def _look_while(self, unfinished: Callable[[], object], limit: float) -> None:
        end = time.monotonic() + limit
        while unfinished() and time.monotonic() < end:
            self._look()
            time.sleep(TICK)

    def _stop_managers(self) -> None:
        """They end when their reports are no longer read."""
        for key in list(self.selector.get_map().values()):
            self.selector.unregister(key.fileobj)
            key.fileobj.close()

    def report(self) -> None:
        self.answers.settle(time.monotonic() + Answers.DELAY)
        print("\n".join(end_lines(self.before, self.after, rates(self.before, self.after), self.growth.memory(),
                                  self.restarts, self.faults.totals(time.monotonic()), self.answers)))

    def findings(self) -> list[str]:
        now = time.monotonic()
        found = self.growth.findings(self.before, self.after, memory_counts=not is_sanitized())
        found += [f"lost: {text}" for text in self.faults.lost(now)]
        found += [f"doubled: {text}" for text in self.faults.doubled()]
        if unwanted := self.faults.totals(now).unwanted:
            found.append(f"{unwanted} traps received while disabled")
        if self.answers.timeouts:
            found.append(f"{self.answers.timeouts} requests not answered outside restarts")
        found += [f"wrong answer outside restarts: {what}" for what in self.answers.wrong[:20]]
        return found

    def close(self) -> None:
        self.log.close()
        self.talctl_log.close()
        self.selector.close()


if __name__ == "__main__":
    sys.exit(main())
