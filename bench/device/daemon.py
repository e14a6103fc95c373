"""Measurements of the daemon alone, or with its snmpd: start and restart, notifications, traps, growth."""
from __future__ import annotations

import contextlib
import json
import os
import signal
import subprocess
import time
from collections import Counter
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

from support.device import MODEL_NUMBER, Device
from support.polling import wait_until
from support.traps import Faults, TrapReceiver, switch

from .bench import Bench, Effort, figures_of, progress
from .processes import kilobytes, pinned, processes, spent
from .results import Results
from .subjects import FLOOR, KVSNMP, SUBJECTS, Peer, Subject, new_device

PLAIN = KVSNMP._replace(name="kvsnmp, standard tables off")
VOLTAGE = "/state/power_lines/power_line[kid='1v8']/voltage"
GROWTH_STEPS = 10
STREAM = 100000  # notifications at once
BUSY_LOOPS, NICE = 2, 10


class Started(NamedTuple):
    device: Device
    faults: Faults
    traps: TrapReceiver


class DaemonBench(Bench):
    def __init__(self, started: Started, *arguments) -> None:
        super().__init__(*arguments)
        self.device, self.faults, self.traps = started

    # Restart

    def master_restarts(self, peers: dict[Subject, Peer]) -> None:
        """All devices at the same time, each with a separate snmpd; the peers once, because each takes 15 s."""
        progress("restarts of snmpd")

        def restart(subject: Subject) -> None:
            for _ in range(self.effort.restarts if subject == KVSNMP else 1):
                loader = self.start_loader(subject, "silence", 60000, subject.scalar, FLOOR.scalar)
                peers[subject].restart_snmpd() if subject in peers else self._restart_by_daemon()
                seen = figures_of(loader.communicate(timeout=70)[0])
                self.results.add("restart of snmpd, no answer for, s", subject, seen["after_1"] - seen["before_1"])

        with ThreadPoolExecutor() as pool:
            list(pool.map(restart, SUBJECTS))

    def _restart_by_daemon(self) -> None:
        snmpd = self.device.wait_snmpd()
        self.device.stir_snmpd_folder()
        self.device.wait_snmpd(other_than=[snmpd])

    # Notifications

    def notifications(self) -> None:
        """Single values through the simulator, first alone, then while one manager asks."""
        progress("notifications")
        found = self.processes(KVSNMP)
        before = spent(found)
        self.results.add("notifications per second", KVSNMP, STREAM / self._take_in(STREAM))
        self.results.add("CPU per notification, us", KVSNMP,
                         (spent(found).nanoseconds - before.nanoseconds) / 1000 / STREAM)
        loader = self.start_loader(KVSNMP, "count", KVSNMP.scalar, 1, 10**9)
        wait_until(lambda: processes(self.device, "snmpload"), what="a manager")
        requests = self._requests_seen()
        taken = self._take_in(STREAM)
        self.results.add("GETs per second during the notifications", KVSNMP, (self._requests_seen() - requests) / taken)
        for process in processes(self.device, "snmpload"):
            os.kill(process.host, signal.SIGTERM)
        loader.wait(timeout=10)

    def _take_in(self, count: int) -> float:
        """Seconds from the first notification to the trap that follows the last."""
        lines = [json.dumps(["set", VOLTAGE, f"{number / 1000:.3f}"]) for number in range(1, count + 1)]
        begin = time.monotonic()
        self.device.talctl_batch(lines)
        self.faults.mark(self.traps, timeout=120)
        return time.monotonic() - begin

    def _requests_seen(self) -> int:
        """snmpInPkts, as snmpd counts them."""
        return int(self.device.snmp.get(".1.3.6.1.2.1.11.1.0")[0][1])

    # Growth

    def growth(self) -> None:
        """RSS over GETs and over notifications, each in ten steps after a warm-up step."""
        step = self.effort.growth // GROWTH_STEPS
        cell = f"{KVSNMP.column}.1"
        for what, one_step in (("GETs", lambda: self.load(KVSNMP, "count", cell, 16, step)),
                               ("notifications", lambda: self._take_in(step))):
            progress(f"{self.effort.growth:,} {what}")
            seen = []
            for _ in range(GROWTH_STEPS + 1):
                one_step()
                seen.append(self._rss())
            self.results.add(f"RSS growth over {self.effort.growth:,} {what}, kB", KVSNMP, seen[-1] - seen[0])

    def _rss(self) -> int:
        return kilobytes(self.processes(KVSNMP), "Rss")

    # Traps

    def trap_burst(self, count: int, label: str = "") -> None:
        """Faults that are raised and cleared at once."""
        texts = self.faults.new_texts("burst", count)
        lines = [line for text in texts for line in (self.faults.raise_line("let_fail", text), self.faults.clear_line(text))]
        self._traps(f"{label}{count:,} faults raised and cleared", texts, lambda: self.device.talctl_batch(lines))

    def trap_backlog(self, count: int) -> None:
        """Faults that wait until their trap is enabled."""
        texts = self.faults.new_texts("waiting", count)
        switch(self.device, "LET Fault", False)
        self.faults.raise_all("let_fail", texts)
        self.faults.mark(self.traps, timeout=60)
        if self.traps.counts("waiting "):
            raise AssertionError("traps of a disabled kind")
        self._traps(f"{count:,} faults waiting, then enabled", texts, lambda: switch(self.device, "LET Fault", True))
        self.faults.clear_everything()

    def _traps(self, label: str, texts: list[str], cause: Callable[[], object]) -> None:
        """Until the trap of a last fault, when all others have arrived."""
        progress(label)
        begin = time.monotonic()
        cause()
        self.faults.mark(self.traps, timeout=120)
        taken = time.monotonic() - begin
        sent = set(texts)
        received = Counter(trap.description for trap in self.traps.received if trap.description in sent)
        self.results.add(f"{label}: traps per second", KVSNMP, len(received) / taken)
        self.results.add(f"{label}: traps lost", KVSNMP, len(texts) - len(received))
        self.results.add(f"{label}: traps doubled", KVSNMP, received.total() - len(received))

    def busy_processor(self) -> None:
        """On one processor, with a higher nice value than two busy loops."""
        label = "one busy processor: "
        with pinned([self.device]):
            for _ in range(BUSY_LOOPS):
                self.device.popen(["setsid", "yes"], stdout=subprocess.DEVNULL)
            self._set_nice(NICE)
            for _ in range(self.effort.rounds):
                seen = self.load(KVSNMP, "latency", f"{KVSNMP.column}.1", 300, 0)
                self.results.add(f"{label}GET, p50, ms", KVSNMP, seen["p50_us"] / 1000)
                self.results.add(f"{label}GET, p99, ms", KVSNMP, seen["p99_us"] / 1000)
            self.trap_burst(500, label)
            self._set_nice(0)
            for process in processes(self.device, "yes"):
                os.kill(process.host, signal.SIGTERM)

    def _set_nice(self, nice: int) -> None:
        for process in self.processes(KVSNMP):
            for task in process.tasks():
                os.setpriority(os.PRIO_PROCESS, int(task.name), nice)
            with contextlib.suppress(OSError):  # where the kernel divides processors by session
                (process.folder / "autogroup").write_text(str(nice))


def start(results: Results, effort: Effort) -> Started:
    """A device whose kvsnmp answers and has subscribed; it and others like it are measured until then, in turns with
    devices that do not serve the standard tables."""
    for number in range(effort.starts):
        with contextlib.ExitStack() as ends:
            both = {}
            for subject in (PLAIN, KVSNMP):
                both[subject] = _start(subject, results, effort)
                ends.callback(both[subject].device.stop)
            bench = Bench({subject: started.device for subject, started in both.items()}, results, effort)
            with pinned(bench.devices.values()):
                for _ in range(effort.rounds):
                    for subject in both:
                        bench.measure(subject, "start: walk of all objects", "variable", {}, 0,
                                      "walk", subject.root, 3, 0)
            if number == effort.starts - 1:
                ends.pop_all()
                both[PLAIN].device.stop()
    return both[KVSNMP]


def _start(subject: Subject, results: Results, effort: Effort) -> Started:
    progress(f"start of {subject.name}")
    device = new_device(standard_tables=subject == KVSNMP)
    try:
        bench = Bench({subject: device}, results, effort)
        loader = bench.start_loader(subject, "start", 30000, MODEL_NUMBER)
        begin = time.monotonic()
        device.start_kvsnmp()  # in the background, as on a device
        results.add("start to first answer, s", subject, figures_of(loader.communicate(timeout=40)[0])["after_1"] - begin)
        traps, faults = TrapReceiver(device), Faults(device)
        device.wait_answering()
        faults.mark(traps, timeout=30)  # once it has subscribed
        device.snmp.walk(subject.root)  # as of the peers at their start
        bench.memory(subject, "at start")
    except BaseException:
        device.stop()
        raise
    return Started(device, faults, traps)
