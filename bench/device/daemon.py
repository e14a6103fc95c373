"""Measurements of the daemon alone, or with its snmpd: start and restart, notifications, traps, growth."""
from __future__ import annotations

import json
import signal
import statistics
import threading
import time
from collections.abc import Callable, Sequence

from support.device import MODEL_NUMBER, Device
from support.polling import wait_until
from support.snmp import TABLES
from support.traps import Faults, TrapReceiver, switch

from .figures import Bench, figures_of, progress
from .subjects import FLOOR, KVSNMP, PEERS, Subject

VOLTAGE = "/state/power_lines/power_line[kid='1v8']/voltage"
VOLTAGE_CELL = f"{TABLES}.4.2.1.3.2"
GROWTH_STEPS = 10
STREAM = 100000  # notifications at once
PEER_RESTARTS = 3


class DaemonBench(Bench):
    _last_voltage = 0

    @property
    def device(self) -> Device:
        return self.devices[KVSNMP]

    # Start and restart

    def start(self) -> None:
        """Starts kvsnmp in a device without one, with continuous requests for its model number."""
        progress("start")
        loader = self.start_loader(KVSNMP, "start", 30000, MODEL_NUMBER, FLOOR.cell)
        begin = time.monotonic()
        self.device.start_kvsnmp()  # in the background, as on a device
        seen = figures_of(loader.communicate(timeout=40)[0])
        self.table.add("start to first answer, s", KVSNMP, seen["after_1"] - begin)
        self.table.add("start to first answer, s", FLOOR, seen["after_2"] - begin)
        self.device.wait_answering()

    def master_restarts(self, times: int, peer_restart: dict[Subject, Callable[[], None]]) -> None:
        """All devices at the same time, each with its own snmpd."""
        progress("restarts of snmpd")
        runs = [(KVSNMP, times, self._restart_by_daemon)]
        runs += [(peer, min(times, PEER_RESTARTS), peer_restart[peer]) for peer in PEERS]
        seen: dict[Subject, list[dict[str, float]]] = {subject: [] for subject, _, _ in runs}
        threads = [threading.Thread(target=self._restarts, args=(subject, count, restart, seen[subject]))
                   for subject, count, restart in runs]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        for subject, count, _ in runs:
            if len(seen[subject]) != count:
                raise AssertionError(f"{subject.name} was not seen again after a restart of snmpd")
            silent = [figures["after_1"] - figures["before_1"] for figures in seen[subject]]
            behind = [figures["after_1"] - figures["after_2"] for figures in seen[subject]]
            for label, seconds in (("no answer for", silent), ("back after snmpd", behind)):
                for word, of in (("least", min), ("median", statistics.median), ("most", max)):
                    self.table.add(f"restart of snmpd, {label}, {word}, s", subject, of(seconds))
            if subject == KVSNMP:
                print("restarts, no answer for, s: " + " ".join(f"{second:.2f}" for second in sorted(silent)), flush=True)
                print("restarts, back after snmpd, s: " + " ".join(f"{second:.2f}" for second in sorted(behind)), flush=True)
                for word, of in (("least", min), ("median", statistics.median), ("most", max)):
                    self.table.add(f"restart of snmpd, no answer for, {word}, s", FLOOR,
                                   of([figures["after_2"] - figures["before_2"] for figures in seen[subject]]))

    def _restarts(self, subject: Subject, times: int, restart: Callable[[], None], seen: list[dict[str, float]]) -> None:
        for _ in range(times):
            loader = self.start_loader(subject, "silence", 60000, subject.cell, FLOOR.cell)
            restart()
            seen.append(figures_of(loader.communicate(timeout=70)[0]))

    def _restart_by_daemon(self) -> None:
        snmpd = self.device.wait_snmpd()
        self.device.stir_snmpd_folder()
        self.device.wait_snmpd(other_than=[snmpd])

    # Notifications

    def notifications(self, faults: Faults, traps: TrapReceiver) -> None:
        """Single values through the simulator, first alone, then while one manager asks."""
        progress("notifications")
        lines = self._stream()
        pids = self.device.pids(KVSNMP.program)
        cpu = self.spent(KVSNMP, pids).nanoseconds
        taken = self._take_in(lines, faults, traps)
        self.table.add("notifications per second", KVSNMP, STREAM / taken)
        self.table.add("CPU per notification, us", KVSNMP, (self.spent(KVSNMP, pids).nanoseconds - cpu) / 1e3 / STREAM)
        loader = self.start_loader(KVSNMP, "load", KVSNMP.cell, 1, 600000)
        wait_until(lambda: self.device.pids("snmpload"), what="a manager")
        requests = self._requests_seen()
        taken = self._take_in(lines, faults, traps)
        requests = self._requests_seen() - requests
        for pid in self.device.pids("snmpload"):
            self.device.kill(pid, signal.SIGTERM)
        loader.communicate(timeout=10)
        self.table.add("notifications per second while 1 manager asks", KVSNMP, STREAM / taken)
        self.table.add("GETs per second meanwhile, 1 manager", KVSNMP, requests / taken)

    @staticmethod
    def _stream() -> list[str]:
        return [json.dumps(["set", VOLTAGE, f"{number / 1000:.3f}"]) for number in range(1, STREAM + 1)]

    def _take_in(self, lines: Sequence[str], faults: Faults, traps: TrapReceiver) -> float:
        """Seconds from the first to the mark that follows the last."""
        begin = time.monotonic()
        self.device.talctl_batch(lines)
        self._last_voltage = len(lines)
        faults.mark(traps, timeout=120)
        return time.monotonic() - begin

    def check_last_notification(self) -> None:
        """The last value sent is served after the table's next load: after 60 s at the latest."""
        progress("the last value")
        wait_until(lambda: self.device.snmp.get(VOLTAGE_CELL) == [("Gauge32", str(self._last_voltage))], 65,
                   interval=0.5, what="last voltage served")

    def _requests_seen(self) -> int:
        """snmpInPkts, as snmpd counts them."""
        return int(self.device.snmp.get(".1.3.6.1.2.1.11.1.0")[0][1])

    # Growth

    def growth(self, count: int, faults: Faults, traps: TrapReceiver) -> None:
        """RSS over `count` GETs and over `count` notifications, each in ten steps after a warm-up step."""
        step = count // GROWTH_STEPS

        def ask() -> None:
            self.load(KVSNMP, "count", KVSNMP.cell, 16, step)

        lines = self._stream()

        def notify() -> None:
            for begin in range(0, step, STREAM):
                self._take_in(lines[:min(STREAM, step - begin)], faults, traps)

        for what, one_step in (("GETs", ask), ("notifications", notify)):
            progress(f"{count:,} {what}")
            seen = []
            for _ in range(GROWTH_STEPS + 1):
                one_step()
                seen.append(self.kilobytes(KVSNMP)["Rss"])
            self.table.add(f"RSS growth over the {what}, kB", KVSNMP, seen[-1] - seen[0])
            print(f"RSS at each tenth of {step * GROWTH_STEPS:,} {what}, kB: " + " ".join(map(str, seen)), flush=True)

    # Traps

    def trap_burst(self, faults: Faults, traps: TrapReceiver, count: int = 2000) -> None:
        """Raised and cleared at once."""
        progress("traps of a burst")
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
        progress("traps of a backlog")
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
        faults.mark(traps, timeout=60)  # doubled traps have arrived by then
        counts = traps.counts(prefix)
        self.table.add(f"traps per second, {label}", KVSNMP, count / taken)
        self.table.add(f"traps lost, {label}", KVSNMP, count - len(counts), ratio=False)
        self.table.add(f"traps doubled, {label}", KVSNMP, sum(counts.values()) - len(counts), ratio=False)
