"""The measurements, each written into the table as soon as it is made."""
from __future__ import annotations

import json
import signal
import subprocess
import sys
import threading
import time

from support.device import MODEL_NUMBER, Device, bin_dir
from support.polling import wait_until
from support.snmp import TABLES
from support.traps import Faults, TrapReceiver, switch

from .subjects import FLOOR, KVSNMP, Subject
from .table import Table

MANAGERS = (1, 4, 16, 256)
VOLTAGE = "/state/power_lines/power_line[kid='1v8']/voltage"
VOLTAGE_CELL = f"{TABLES}.4.2.1.3.2"


def tell(what: str) -> None:
    print(f"  {what} ...", file=sys.stderr, flush=True)


class Bench:
    def __init__(self, device: Device, table: Table, rests: int) -> None:
        self.device = device
        self.table = table
        self.rests = rests
        self._last_voltage = 0

    def load(self, *words: object) -> dict[str, float]:
        """One run of the loader."""
        return _figures(self.device.run([str(bin_dir() / "snmpload"), *map(str, words)], timeout=1000).stdout)

    def start_loader(self, *words: object) -> subprocess.Popen:
        return self.device.popen([str(bin_dir() / "snmpload"), *map(str, words)], stdout=subprocess.PIPE, text=True)

    # Requests

    def requests(self, subjects: list[Subject]) -> None:
        """The subjects take turns at each figure, so that what else the machine does meets all of them."""
        for label, count, rest_ms in (("GET back to back", 5000, 0), ("GET after 5 s of rest", self.rests, 5000)):
            tell(label)
            for subject in subjects:
                self._latency(subject, label, count, rest_ms)
        for label, repetitions in (("walk", 0), ("bulk walk (10)", 10)):
            tell(label)
            for subject in subjects:
                walked = self.load("walk", subject.root, 30, repetitions)
                self.table.add(f"{label}, us per variable", subject.name, walked["us_per_variable"])
                self.table.add(f"{label}, variables", subject.name, walked["variables"])
        for managers in MANAGERS:
            tell(f"{managers} managers")
            for subject in subjects:
                loaded = self.load("load", subject.cell, managers, 4000)
                self.table.add(f"GETs per second, managers: {managers}", subject.name, loaded["per_second"])
                self.table.add(f"GETs lost, managers: {managers}", subject.name, loaded["lost"])

    def _latency(self, subject: Subject, label: str, count: int, rest_ms: int) -> None:
        measured = self.load("latency", subject.cell, count, rest_ms)
        for key in ("min", "p50", "p99"):
            self.table.add(f"{label}, {key}, us", subject.name, measured[f"{key}_us"])
        if measured["lost"]:
            self.table.add(f"{label}, lost", subject.name, measured["lost"])

    # Processes

    def at_rest(self, subjects: list[Subject], seconds: float = 20.0) -> None:
        """Nothing asks meanwhile, and nothing looks into the device."""
        tell(f"{seconds:.0f} s of rest")
        pids = {subject: self.device.pids(subject.program) for subject in subjects}
        time.sleep(2.0)  # the timers have come down from what the look has caused
        before = {subject: self._spent(pids[subject]) for subject in subjects}
        time.sleep(seconds)
        after = {subject: self._spent(pids[subject]) for subject in subjects}
        for subject in subjects:
            wakes, cpu = (late - early for early, late in zip(before[subject], after[subject]))
            self.table.add("wake-ups a second at rest", subject.name, wakes / seconds)
            self.table.add("CPU at rest, ms per second", subject.name, cpu / 1e6 / seconds)

    def memory(self, subjects: list[Subject], when: str) -> None:
        for subject in subjects:
            kilobytes = {"Rss": 0, "Pss": 0}
            for pid in self.device.pids(subject.program):
                for line in self.device.run(["cat", f"/proc/{pid}/smaps_rollup"]).stdout.splitlines():
                    key, _, value = line.partition(":")
                    if key in kilobytes:
                        kilobytes[key] += int(value.split()[0])
            for key, value in kilobytes.items():
                self.table.add(f"{key.upper()} {when}, kB", subject.name, value)

    def _spent(self, pids: list[int]) -> tuple[int, int]:
        """Wake-ups and nanoseconds on a processor so far, of all threads."""
        tasks = " ".join(f"/proc/{pid}/task/*" for pid in pids)
        text = self.device.run(["sh", "-c", f"for t in {tasks}; do cat $t/schedstat; "
                                            "grep ^voluntary_ctxt_switches $t/status; done"]).stdout
        wakes = nanoseconds = 0
        for line in text.splitlines():
            words = line.split()
            if words[0] == "voluntary_ctxt_switches:":
                wakes += int(words[1])
            else:
                nanoseconds += int(words[0])
        return wakes, nanoseconds

    # Coming and going

    def start(self) -> None:
        """Starts kvsnmp in a device that has none; its model number is asked for all the while."""
        tell("start")
        loader = self.start_loader("start", 30000, MODEL_NUMBER, FLOOR.cell)
        begin = time.monotonic()
        self.device.start_kvsnmp("-d")
        seen = _figures(loader.communicate(timeout=40)[0])
        self.table.add("start to first answer, s", KVSNMP.name, seen["after_1"] - begin)
        self.table.add("start to first answer, s", FLOOR.name, seen["after_2"] - begin)

    def master_restart(self, times: int = 5) -> None:
        """A file that comes into snmpd's folder makes the daemon restart snmpd."""
        tell("restarts of snmpd")
        silent: dict[str, list[float]] = {KVSNMP.name: [], FLOOR.name: []}
        behind = []
        for number in range(times):
            loader = self.start_loader("silence", 30000, MODEL_NUMBER, FLOOR.cell)
            snmpd = self.device.wait_snmpd()
            touched = self.device.path(f"/etc/snmp/bench{number}")
            touched.write_text("")
            touched.unlink()
            self.device.wait_snmpd(other_than=[snmpd])
            seen = _figures(loader.communicate(timeout=40)[0])
            silent[KVSNMP.name].append(seen["after_1"] - seen["before_1"])
            silent[FLOOR.name].append(seen["after_2"] - seen["before_2"])
            behind.append(seen["after_1"] - seen["after_2"])
        for name, seconds in silent.items():
            self.table.add("restart of snmpd, no answer for (longest), s", name, max(seconds))
        self.table.add("restart of snmpd, back after snmpd (longest), s", KVSNMP.name, max(behind))

    # Notifications and traps

    def notifications(self, faults: Faults, traps: TrapReceiver, count: int = 100000) -> None:
        """Single values through the simulator while one manager asks; the mark that follows them tells the end."""
        tell("notifications")
        lines = [json.dumps(["set", VOLTAGE, f"{number / 1000:.3f}"]) for number in range(1, count + 1)]
        pids = self.device.pids(KVSNMP.program)
        loader = self.start_loader("load", KVSNMP.cell, 1, 600000)
        wait_until(lambda: self.device.pids("snmpload"), what="a manager")
        cpu, requests, begin = self._spent(pids)[1], self._requests_seen(), time.monotonic()
        self.device.talctl_batch(lines)
        faults.mark(traps, timeout=120)
        taken = time.monotonic() - begin
        cpu, requests = self._spent(pids)[1] - cpu, self._requests_seen() - requests
        for pid in self.device.pids("snmpload"):
            self.device.kill(pid, signal.SIGTERM)
        loader.communicate(timeout=10)
        self.table.add("notifications per second, through the simulator", KVSNMP.name, count / taken)
        self.table.add("GETs per second meanwhile, 1 manager", KVSNMP.name, requests / taken)
        self.table.add("CPU per notification, us, those GETs included", KVSNMP.name, cpu / 1e3 / count)
        self._last_voltage = count

    def check_last_notification(self) -> None:
        """What was sent last is what is served, once the table has read again: after 60 s at the latest."""
        tell("the last value")
        wait_until(lambda: self.device.snmp.get(VOLTAGE_CELL) == [("Gauge32", str(self._last_voltage))], 65,
                   interval=0.5, what="last voltage served")

    def _requests_seen(self) -> int:
        """snmpInPkts, as snmpd counts them."""
        return int(self.device.snmp.get(".1.3.6.1.2.1.11.1.0")[0][1])

    def trap_burst(self, faults: Faults, traps: TrapReceiver, count: int = 2000) -> None:
        """Raised and cleared at once."""
        tell("traps of a burst")
        texts = faults.new_texts("burst", count)
        lines = [line for text in texts for line in (faults.raise_line("let_fail", text), faults.clear_line(text))]
        begin = time.monotonic()
        sender = threading.Thread(target=self.device.talctl_batch, args=(lines,))
        sender.start()
        taken = self._received(traps, "burst ", count, begin)
        sender.join()
        self._traps(f"{count:,} faults raised and cleared", faults, traps, "burst ", count, taken)

    def trap_backlog(self, faults: Faults, traps: TrapReceiver, count: int = 5000) -> None:
        """Faults that wait until their trap is enabled."""
        tell("traps of a backlog")
        switch(self.device, "LET Fault", False)
        faults.raise_all("let_fail", faults.new_texts("waiting", count))
        faults.mark(traps, timeout=60)
        if traps.counts("waiting "):
            raise AssertionError("traps of a disabled kind")
        begin = time.monotonic()
        switch(self.device, "LET Fault", True)
        taken = self._received(traps, "waiting ", count, begin)
        self._traps(f"{count:,} faults waiting, then enabled", faults, traps, "waiting ", count, taken)
        faults.clear_everything()

    @staticmethod
    def _received(traps: TrapReceiver, prefix: str, count: int, begin: float) -> float:
        wait_until(lambda: len(traps.counts(prefix)) >= count, 60, what=f"{count} traps")
        return time.monotonic() - begin

    def _traps(self, label: str, faults: Faults, traps: TrapReceiver, prefix: str, count: int, taken: float) -> None:
        faults.mark(traps, timeout=60)  # what comes twice has come by then
        counts = traps.counts(prefix)
        self.table.add(f"traps per second, {label}", KVSNMP.name, count / taken)
        self.table.add(f"traps lost, {label}", KVSNMP.name, count - len(counts))
        self.table.add(f"traps doubled, {label}", KVSNMP.name, sum(counts.values()) - len(counts))


def _figures(text: str) -> dict[str, float]:
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}
