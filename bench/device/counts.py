"""Counts of one GET, which other load hardly changes: system calls by strace, instructions of the subject without the kernel
by perf or callgrind."""
from __future__ import annotations

import re
import signal
import subprocess
import tempfile
from collections.abc import Callable
from concurrent.futures import ThreadPoolExecutor

from .bench import Bench, loader_command, progress
from .processes import processes
from .requests import OBJECTS
from .subjects import FLOOR, KEEPALIVED, KVSNMP, SUBJECTS, Peer, Subject, new_device

PERF = ["perf", "stat", "-x,", "-e", "instructions:u"]
ROUNDS = 5
CALLGRIND = ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null"]
Words = tuple[object, ...]  # of the load generator


class Counts(Bench):
    def all(self, objects: dict[Subject, dict[str, str]]) -> None:
        self._objects = objects
        progress("system calls")
        for subject in SUBJECTS:
            self._count("system calls", subject, lambda words: self._system_calls(subject, words))
        progress("instructions")
        if self._has_counters():
            for subject in SUBJECTS:
                self._count("instructions", subject, lambda words: self._instructions_by_perf(subject, words))
            return
        # Each under valgrind in a separate device, at the same time. Not lldpd: it changes its root folder and its user,
        # and there vgdb cannot reach it.
        with ThreadPoolExecutor() as pool:
            list(pool.map(self._by_callgrind, (KVSNMP, FLOOR, KEEPALIVED)))

    def _count(self, what: str, subject: Subject, counted: Callable[[Words], int]) -> None:
        gets = self.effort.counted
        counted(("count", subject.scalar, 1, gets))  # what is done once
        for which in OBJECTS:
            for _ in range(ROUNDS):
                number = counted(("count", self._objects[subject][which], 1, gets))
                self.results.add(f"GET of {which}, {what}", subject, number / gets)

    def _pids(self, subject: Subject) -> str:
        return ",".join(str(process.host) for process in self.processes(subject))

    def _system_calls(self, subject: Subject, words: Words) -> int:
        pids = self._pids(subject)
        with tempfile.NamedTemporaryFile("r") as output:
            strace = subprocess.Popen(["strace", "-fc", "-U", "calls,name", "-o", output.name, "-p", pids],
                                      stderr=subprocess.PIPE, text=True)
            for _ in pids.split(","):
                strace.stderr.readline()  # "Process N attached"
            self.load(subject, *words)
            strace.send_signal(signal.SIGINT)
            strace.communicate()
            return int(output.read().splitlines()[-1].split()[0])  # of the line "total"

    @staticmethod
    def _has_counters() -> bool:
        try:
            done = subprocess.run([*PERF, "true"], capture_output=True, text=True, check=False)
        except FileNotFoundError:
            return False
        return done.stderr.split(",")[0].isdigit()

    def _instructions_by_perf(self, subject: Subject, words: Words) -> int:
        """Of the subject, while the load generator runs."""
        command = self.devices[subject].command(loader_command(words))
        done = subprocess.run([*PERF, "-p", self._pids(subject), "--", *command], capture_output=True, text=True, check=True)
        return int(done.stderr.split(",")[0])

    def _by_callgrind(self, subject: Subject) -> None:
        if subject == KVSNMP:
            device = new_device()
            device.start_kvsnmp("-d", wrapper=CALLGRIND)
        else:
            snmpd_conf = self.devices[KVSNMP].read("/etc/snmp/snmpd.conf")
            device = Peer(subject, snmpd_conf, [*CALLGRIND, "--trace-children=yes"]).device  # for vgdb to see a child
        try:
            if subject == KVSNMP:
                device.wait_answering(60).wait_subscribed(60)
            serving = max(processes(device, "callgrind"))  # the others only supervise it

            def so_far() -> int:
                text = device.run(["vgdb", f"--pid={serving.inside}", "status", "internal"]).stdout
                return sum(map(int, re.findall(r"^events-\d+: (\d+)$", text, re.MULTILINE)))  # of each thread

            def counted(words: Words) -> int:
                before = so_far()
                device.run(loader_command(words))
                return so_far() - before

            self._count("instructions", subject, counted)
        finally:
            device.stop()
