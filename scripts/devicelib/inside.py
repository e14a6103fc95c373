"""The first program inside a device: starts its programs, prints its traps, writes its syslog, ends them all.

Standard input is a pipe from the starting process; when it closes, the device ends. The descriptor in the argument
receives the words "started" (the sandbox exists) and "ready" (all requested programs are running).
"""
from __future__ import annotations

import os
import selectors
import signal
import subprocess
import sys
import time
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from devicelib.programs import (SyslogSink, TrapPrinter, say, snmptrapd_command, talservice_command,  # noqa: E402
                                wake_at_the_end)
from devicelib.settings import BIN_FOLDER, SANITIZER_LOG, STATE_FOLDER, TRAP_LOG, Settings, kvsnmp_environment  # noqa: E402

START_TIMEOUT = 20.0
END_TIMEOUT = 5.0


class StartFailed(Exception):
    pass


class Device:
    def __init__(self, settings: Settings, status: int) -> None:
        self.settings = settings
        self.status = status
        self.selector = selectors.DefaultSelector()
        self.children: dict[str, subprocess.Popen] = {}
        self.kvsnmp: subprocess.Popen | None = None
        self.syslog = SyslogSink(Path("/"))
        self.traps: TrapPrinter | None = None
        self.ending = False
        self.wake_read = wake_at_the_end(self._end)
        signal.signal(signal.SIGCHLD, lambda *_: None)
        self.selector.register(self.wake_read, selectors.EVENT_READ, self._woken)
        self.selector.register(sys.stdin.fileno(), selectors.EVENT_READ, self._control)
        self.selector.register(self.syslog.socket, selectors.EVENT_READ, self.syslog.receive)

    # Starting

    def start(self) -> None:
        settings = self.settings
        if settings.dbus:
            self._spawn("dbus-daemon", ["dbus-daemon", "--config-file=/etc/dbus-1/device.conf", "--nofork",
                                        "--nopidfile"])
        if settings.traps:
            self._spawn("snmptrapd", snmptrapd_command(settings), stdout=subprocess.PIPE)
        if settings.dbus:
            bus = "/run/dbus/system_bus_socket"
            self._until("dbus-daemon", bus, lambda: os.path.exists(bus))
        if settings.simulator:
            self._spawn("talservice", talservice_command(settings), stdout=subprocess.PIPE)
            self._wait_for_line("talservice", b"talservice: ready")
        if settings.traps:
            entry = f":{settings.trap_port:04X} "
            self._until("snmptrapd", f"port {settings.trap_port}", lambda: any(
                entry in line.split("rem_address")[-1] for line in Path("/proc/net/udp").read_text().splitlines()[1:]))
            self.traps = TrapPrinter(self.children["snmptrapd"].stdout, Path(TRAP_LOG))
            self.selector.register(self.traps.stream, selectors.EVENT_READ, self._traps)
        if settings.kvsnmp != "none":
            self._start_kvsnmp()
        self._report("ready")

    def _spawn(self, name: str, command: list[str], stdout=None) -> None:
        log = open(f"/var/log/{name}.log", "ab")
        try:
            self.children[name] = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=stdout or log, stderr=log,
                                                   env=os.environ | kvsnmp_environment(False, ""))
        except OSError as error:
            raise StartFailed(f"{name} cannot be started: {error}") from error

    def _start_kvsnmp(self) -> None:
        settings = self.settings
        mode = ["-d"] if settings.kvsnmp == "foreground" else []
        command = settings.wrapper + [f"{BIN_FOLDER}/kvsnmp"] + mode + settings.kvsnmp_args
        environment = os.environ | kvsnmp_environment(settings.clock_shift, settings.clock_library())
        try:
            with open("/var/log/kvsnmp.out", "ab") as out, open("/var/log/kvsnmp.err", "ab") as err:
                self.kvsnmp = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=err, cwd="/",
                                               env=environment)
        except OSError as error:
            raise StartFailed(f"{command[0]} cannot be started: {error}") from error

    def _until(self, name: str, what: str, done) -> None:
        limit = time.monotonic() + START_TIMEOUT
        child = self.children[name]
        while True:
            if child.poll() is not None:
                raise StartFailed(f"{name} ended with status {child.returncode}:\n" + self._log_tail(name))
            if done():
                return
            if time.monotonic() > limit:
                raise StartFailed(f"{name}: {what} not seen within {START_TIMEOUT:.0f} s\n" + self._log_tail(name))
            time.sleep(0.005)

    def _wait_for_line(self, name: str, line: bytes) -> None:
        stream = self.children[name].stdout
        os.set_blocking(stream.fileno(), False)
        seen = bytearray()
        log = open(f"/var/log/{name}.log", "ab", buffering=0)

        def drain() -> None:
            try:
                while chunk := os.read(stream.fileno(), 65536):
                    seen.extend(chunk[-4096:])
                    log.write(chunk)
                self.selector.unregister(stream)  # the end of its output
            except (BlockingIOError, KeyError):
                pass

        def done() -> bool:
            drain()
            return line in seen

        self._until(name, f'"{line.decode()}"', done)
        self.selector.register(stream, selectors.EVENT_READ, drain)

    @staticmethod
    def _log_tail(name: str) -> str:
        return "\n".join(Path(f"/var/log/{name}.log").read_text(errors="replace").splitlines()[-10:])

    # Running

    def run(self) -> None:
        while not self.ending:
            for key, _ in self.selector.select():
                key.data()

    def _control(self) -> None:
        if not os.read(sys.stdin.fileno(), 4096):
            self.ending = True

    def _end(self, *_) -> None:
        self.ending = True

    def _traps(self) -> None:
        if not self.traps.receive():
            self.selector.unregister(self.traps.stream)

    def _woken(self) -> None:
        try:
            os.read(self.wake_read, 4096)
        except BlockingIOError:
            pass
        if self.kvsnmp and self.kvsnmp.poll() is not None:
            self._kvsnmp_ended(self.kvsnmp.returncode)
            self.kvsnmp = None
        for name, child in list(self.children.items()):
            if child.poll() is not None:
                say(f"{name} ended with status {child.returncode}")
                del self.children[name]

    def _kvsnmp_ended(self, status: int) -> None:
        partial = Path(STATE_FOLDER, "kvsnmp.status.new")
        partial.write_text(f"{status}\n")
        partial.rename(Path(STATE_FOLDER, "kvsnmp.status"))
        if self.settings.kvsnmp == "foreground":
            say(f"kvsnmp ended with status {status}; its output is in /var/log/kvsnmp.out and kvsnmp.err")
        elif status != 0:
            say(f"kvsnmp could not go into the background: status {status}")

    # Ending

    def stop(self) -> None:
        for child in [self.kvsnmp, *self.children.values()]:
            if child and child.poll() is None:
                child.terminate()
        limit = time.monotonic() + END_TIMEOUT
        if self.kvsnmp:
            try:
                self.kvsnmp.wait(max(0.0, limit - time.monotonic()))
            except subprocess.TimeoutExpired:
                say("kvsnmp does not end; killed")
        self.syslog.receive()
        if self.traps:
            self.traps.receive()
        for report in sorted(Path(SANITIZER_LOG).parent.glob(Path(SANITIZER_LOG).name + ".*")):
            say(report.read_text(errors="replace"))

    def _report(self, word: str) -> None:
        os.write(self.status, f"{word}\n".encode())


def main() -> int:
    status = int(sys.argv[1])
    os.set_inheritable(status, False)
    os.write(status, b"started\n")
    settings = Settings.from_json(Path(STATE_FOLDER, "settings.json").read_text())
    device = Device(settings, status)
    try:
        device.start()
        device.run()
    except StartFailed as failure:
        say(str(failure))
        return 1
    finally:
        device.stop()
    return 0


if __name__ == "__main__":
    sys.exit(main())
