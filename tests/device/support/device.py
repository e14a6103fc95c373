"""One device under test, started by scripts/device; the host reads its folders and enters its namespaces."""
from __future__ import annotations

import itertools
import json
import os
import re
import signal
import struct
import subprocess
import sys
import time
from collections.abc import Sequence
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[3]
sys.path.insert(0, str(CHECKOUT / "scripts"))

from devicelib import registry, sandbox, settings  # noqa: E402

from .polling import wait_until  # noqa: E402
from .snmp import Snmp  # noqa: E402

_numbers = itertools.count(1)


def bin_dir() -> Path:
    """The build under test."""
    if "KVSNMP_BIN_DIR" in os.environ:
        return Path(os.environ["KVSNMP_BIN_DIR"])
    return CHECKOUT / "build/dev/bin"


def build_options() -> list[str]:
    """A build that counts lines writes its counters beside its objects."""
    if os.environ.get("KVSNMP_COVERAGE", "") in ("", "OFF"):
        return []
    return ["--writable", str(bin_dir().parent)]


def is_sanitized() -> bool:
    return os.environ.get("KVSNMP_SANITIZE", "") != ""


def sanitizer_findings(report: str) -> list[str]:
    """A report without the agent library's leaks: a socket address of 110 bytes for each loss of its master."""
    if "LeakSanitizer" not in report:
        return [report]
    leaks = re.split(r"^(?=(?:Direct|Indirect) leak of )", report.partition("SUMMARY:")[0], flags=re.MULTILINE)[1:]
    return [leak for leak in leaks
            if not re.match(r"Direct leak of (\d+) byte\(s\) in (\d+) object\(s\).*\n.* in (?:__interceptor_)?calloc .*\n"
                            r" *#1 .*/libnetsnmp\.so", leak)]


class Device:
    """Options are those of scripts/device, e.g. Device(6420, "--daemon", "--clock-shift"). With `own_session` a Ctrl-C
    in the terminal does not reach the device."""

    def __init__(self, model: int, *options: str, own_session: bool = False) -> None:
        self.model = model
        self.name = f"t{os.getpid()}-{next(_numbers)}"
        self.started = time.monotonic()
        self._options = options
        self._script = subprocess.Popen(
            [str(CHECKOUT / "scripts/device"), "--model", str(model), "--name", self.name, "--bin", str(bin_dir()),
             "--quiet", *build_options(), *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
            text=True, start_new_session=own_session)
        self._shift = 0
        self._time_of_day_shift = 0
        self._commands: list[subprocess.Popen] = []
        self.first_process = 0
        self.root = Path()
        self.snmp = Snmp(self.run)

    def wait_ready(self) -> Device:
        """Until all programs of the device run; kvsnmp does not answer yet."""
        def look() -> registry.Running | None:
            if self._script.poll() is not None:
                raise AssertionError(f"scripts/device ended:\n{self._script.stdout.read()}")
            found = [device for device in registry.running() if device.name == self.name and device.ready]
            return found[0] if found else None

        facts = wait_until(look, 30, what="device ready")
        self.first_process, self.root = facts.first_process, facts.root
        return self

    def wait_answering(self, timeout: float = 20.0) -> Device:
        """Until the model number can be read through snmpd."""
        wait_until(lambda: self.snmp.try_get(MODEL_NUMBER) == ("INTEGER", str(self.model)), timeout,
                   what="model number answered")
        return self

    def wait_subscribed(self, timeout: float = 20.0) -> Device:
        """Until the daemon has subscribed to its data, 3 s after it connected to the data service, and has received all
        first values from the simulator. A table that is read earlier serves its starting values for 60 s."""
        wait_until(lambda: "requestStateDataSubscribeSysMessages" in self.kvsnmp_err(), timeout, what="subscriptions")
        if "--no-simulator" not in self._options:
            self.carry_out([], timeout)
        return self

    # Commands inside

    def command(self, command: Sequence[str], env: dict[str, str] | None = None) -> list[str]:
        return sandbox.enter_command(self.first_process, list(command), env)

    def run(self, command: Sequence[str], check: bool = True, timeout: float = 30.0, input: str | None = None,
            env: dict[str, str] | None = None) -> subprocess.CompletedProcess:
        done = subprocess.run(self.command(command, env), capture_output=True, text=True, timeout=timeout,
                              input=input if input is not None else "", check=False)
        if check and done.returncode != 0:
            raise AssertionError(f"{' '.join(command)}: status {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def popen(self, command: Sequence[str], env: dict[str, str] | None = None, **arguments) -> subprocess.Popen:
        arguments = {"stdin": subprocess.DEVNULL} | arguments
        process = subprocess.Popen(self.command(command, env), **arguments)
        self._commands.append(process)
        return process

    def start_kvsnmp(self, *arguments: str, wrapper: Sequence[str] = (), clock_shift: bool = False,
                     env: dict[str, str] | None = None) -> subprocess.Popen:
        """Starts a kvsnmp, its output appended to the device's logs."""
        library = str(bin_dir().parent / "lib/libclockshift.so")
        with open(self.path("/var/log/kvsnmp.out"), "ab") as out, open(self.path("/var/log/kvsnmp.err"), "ab") as err:
            variables = settings.kvsnmp_environment(clock_shift, library) | (env or {})
            return self.popen([*wrapper, "kvsnmp", *arguments], env=variables, stdout=out, stderr=err)

    def run_kvsnmp(self, *arguments: str, timeout: float = 10.0) -> subprocess.CompletedProcess:
        """A kvsnmp that should end by itself."""
        return self.run(["kvsnmp", *arguments], check=False, timeout=timeout,
                        env=settings.kvsnmp_environment(False, ""))

    def talctl(self, *arguments: str) -> str:
        return self.run(["talctl", *arguments]).stdout

    def talctl_batch(self, lines: Sequence[str]) -> str:
        """Thousands of lines take a loaded machine a while."""
        return self.run(["talctl", "batch"], timeout=120, input="".join(f"{line}\n" for line in lines)).stdout

    def carry_out(self, commands: Sequence[list[str]], timeout: float = 30.0, dbus: bool = False) -> None:
        """Runs commands of talctl and waits until the daemon has received everything that they send, and everything
        that the simulator sent before: the daemon logs a last fault without a trap, and a last announcement on the bus
        of an input that no table has."""
        mark = f"mark{next(_numbers)}"
        marks = [["fault", "raise", "device", mark, "", "notice", mark]]
        awaited = [f"New Fault: [device] [{mark}]"]
        if dbus:
            marks.append(["monitor", "gpi", "99", mark])
            awaited.append(f"State: {mark}")
        self.talctl_batch([json.dumps(command) for command in [*commands, *marks]])
        wait_until(lambda: all(line in self.kvsnmp_err() for line in awaited), timeout, what=f"{awaited} logged")
        self.talctl("fault", "clear", "device", mark)

    # Files and logs

    def path(self, inside: str) -> Path:
        """The host's name of a file under the device's /etc, /run, /tmp or /var."""
        inside = inside.replace("/var/run/", "/run/", 1)
        return self.root / inside.lstrip("/")

    def read(self, inside: str) -> str:
        try:
            return self.path(inside).read_text(errors="replace")
        except FileNotFoundError:
            return ""

    def kvsnmp_out(self) -> str:
        return self.read("/var/log/kvsnmp.out")

    def kvsnmp_err(self) -> str:
        return self.read("/var/log/kvsnmp.err")

    def syslog(self) -> list[tuple[float, str]]:
        """Time and text of every line, e.g. (1732170000.123456, "info kv-snmp[5]: Tal System Config settled")."""
        lines = (line.partition(" ") for line in self.read("/var/log/syslog").splitlines())
        return [(float(at), text) for at, _, text in lines]

    def syslog_texts(self) -> list[str]:
        """The messages of the daemon alone, without times, e.g. "info: Tal System Config settled"."""
        texts = [text.partition(" kv-snmp[") for _, text in self.syslog()]
        return [severity + rest.partition("]")[2] for severity, mark, rest in texts if mark]

    # Processes

    def pids(self, program: str) -> list[int]:
        """Process numbers inside the device, of processes that are not zombies."""
        found = self.run(["pgrep", "-x", "-r", "D,I,R,S,T,t", program], check=False).stdout
        return sorted(map(int, found.split()))

    def kvsnmp_pid(self) -> int:
        """The daemon, also under valgrind."""
        pids = wait_until(lambda: self.pids("kvsnmp") or self.pids("memcheck-amd64-"), 5, what="kvsnmp running")
        return pids[0]

    def wait_running(self) -> int:
        """Until the daemon has its signal handlers, right before its event loop; its process number."""
        pid = self.kvsnmp_pid()
        wait_until(lambda: self.handles_sigterm(pid), what="signal handlers installed")
        return pid

    def handles_sigterm(self, pid: int) -> bool:
        caught = self.run(["sed", "-n", "s/^SigCgt://p", f"/proc/{pid}/status"], check=False).stdout
        return bool(int(caught or "0", 16) >> (signal.SIGTERM - 1) & 1)

    def kill(self, pid: int, number: signal.Signals) -> None:
        self.run(["sh", "-c", f"kill -{number.value} {pid}"])

    def kill_and_wait(self, pid: int) -> None:
        """Kills with SIGKILL, if it has not ended yet, and waits until no process has the number, not even a zombie."""
        self.run(["sh", "-c", f"kill -9 {pid}"], check=False)
        asked = ["sh", "-c", f"kill -0 {pid}"]
        wait_until(lambda: self.run(asked, check=False).returncode != 0, what=f"process {pid} gone")

    def stir_snmpd_folder(self) -> None:
        """Creates and removes a file beside snmpd.conf: the daemon restarts snmpd with the files as they are."""
        stirred = self.path("/etc/snmp/stirred")
        stirred.write_text("")
        stirred.unlink()

    def wait_snmpd(self, other_than: Sequence[int] = (), timeout: float = 10.0) -> int:
        """Until a single snmpd runs, other than these, and has written its pid file, so is in the background."""
        def look() -> int:
            pids = self.pids("snmpd")
            ready = len(pids) == 1 and self.read("/run/snmpd.pid").strip() == str(pids[0])
            return pids[0] if ready and pids[0] not in other_than else 0

        return wait_until(look, timeout, what="snmpd running")

    def kvsnmp_status(self, timeout: float = 10.0) -> int:
        """Exit status of the kvsnmp that scripts/device started; below 0: the signal that ended it."""
        return int(wait_until(lambda: self.read("/run/device/kvsnmp.status"), timeout, what="kvsnmp ended"))

    def shift_clock(self, seconds: float) -> None:
        """Moves kvsnmp's monotonic clock forward (a device started with --clock-shift)."""
        self._shift += int(seconds * 1e9)
        self._write_shifts()

    def set_time_of_day(self, seconds: float) -> None:
        """Sets kvsnmp's time of day, in seconds since 1970; it goes on from there."""
        self._time_of_day_shift = int((seconds - time.time()) * 1e9)
        self._write_shifts()

    def _write_shifts(self) -> None:
        with open(self.path("/run/device/clockshift"), "r+b") as file:
            file.write(struct.pack("qq", self._shift, self._time_of_day_shift))

    # The end

    def wait_stopped(self) -> None:
        """Until another program has ended the device."""
        self._script.wait()

    def end_kvsnmp(self) -> None:
        """Ends every kvsnmp with SIGTERM."""
        for pid in self.pids("kvsnmp") + self.pids("memcheck-amd64-"):
            self.run(["sh", "-c", f"kill {pid}"], check=False)
        wait_until(lambda: not self.pids("kvsnmp") and not self.pids("memcheck-amd64-"), 30, what="kvsnmp ended")

    def complaints(self) -> list[str]:
        """Sanitizer reports, and connections that Qt refused."""
        found = [line for line in self.kvsnmp_err().splitlines()
                 if "QObject::connect" in line or "QObject::disconnect" in line or "runtime error:" in line]
        for file in sorted(self.path("/var/log").glob("sanitizer.*")):
            found += sanitizer_findings(file.read_text(errors="replace"))
        return found

    def logs(self) -> str:
        """For the report of a failed test."""
        parts = []
        for name in ("kvsnmp.out", "kvsnmp.err", "syslog", "talservice.log", "snmptrapd.log"):
            text = self.read(f"/var/log/{name}")
            parts.append(f"--- {self.name} (model {self.model}) {name}\n" + "\n".join(text.splitlines()[-40:]))
        return "\n".join(parts)

    def stop(self) -> list[str]:
        """Ends everything; returns the complaints."""
        complaints: list[str] = []
        try:
            if self.first_process and self._script.poll() is None:
                self.end_kvsnmp()
                complaints = self.complaints()
        finally:
            self._script.terminate()
            try:
                self._script.communicate(timeout=20)
            except subprocess.TimeoutExpired:
                self._script.kill()
                self._script.communicate()
                complaints.append("scripts/device did not end")
            # Not earlier: the device ends only when somebody has reaped the process that an nsenter had started.
            for process in self._commands:
                process.kill()
                with process:  # waits, and closes its streams
                    pass
        return complaints


MODEL_NUMBER = ".1.3.6.1.4.1.52717.3.1.3.0"
WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"
