"""Many devices in one network, run by one process: their start, their values, their end."""
from __future__ import annotations

import contextlib
import json
import os
import selectors
import signal
import socket
import subprocess
import sys
import time
from pathlib import Path
from typing import TextIO

from . import registry, sandbox
from .cli import first_process
from .folders import make_folders
from .identity import identity_files
from .programs import SyslogSink, TrapPrinter, say, snmptrapd_command, talservice_command, wake_at_the_end
from .registry import DeviceError
from .settings import TAL_CONTROL, TRAP_LOG, Settings, kvsnmp_environment
from .walk import Walk

START_SECONDS, SECONDS_EACH = 60, 3  # of a whole fleet, and more for each device
LOOK_SECONDS = 0.3  # between two looks at devices that start
AT_ONCE = 4 * (os.cpu_count() or 1)  # devices that start at the same time
RSS = "8192"  # what a device's ps says of snmpd's memory

# A device's first process: $0 is its name, the rest talservice's command. A shell is much smaller than another python.
FIRST_PROCESS = """\
dbus-daemon --config-file=/etc/dbus-1/device.conf --nofork --nopidfile > /var/log/dbus-daemon.log 2>&1 &
until [ -S /run/dbus/system_bus_socket ]; do kill -0 $! || exit; sleep 0.1; done
"$@" > /var/log/talservice.log 2>&1 &
until grep -qs ready /var/log/talservice.log; do kill -0 $! || exit; sleep 0.1; done
kvsnmp -d > /dev/null 2> /var/log/kvsnmp.err
echo "$0: kvsnmp ended with status $?"
wait
"""

# A GET of the model number with the community public; the answer ends with the number.
REQUEST = bytes.fromhex("302d020101" "04067075626c6963" "a020" "02045a5a5a5a" "020100" "020100"
                        "3012" "3010" "060c2b0601040183" "9b6d03010300" "0500")


def note(text: str) -> None:
    say(text, sys.stderr)


class Member:
    """One device."""

    def __init__(self, claim: registry.Claim, settings: Settings) -> None:
        self.claim, self.settings = claim, settings
        self.bwrap: subprocess.Popen | None = None
        self.first_process, self.first_process_end = 0, -1
        self.syslog: SyslogSink | None = None
        self._traps = Path()
        self._control: socket.socket | None = None
        self._replies = b""
        self.answers = False

    def start(self, traps: Path) -> None:
        if len(f"{self.claim.root}{TAL_CONTROL}") > 107:
            raise DeviceError(f"{self.claim.root} is too long for a socket; set TMPDIR to a shorter folder")
        make_folders(self.claim.root, self.settings, identity_files(self.settings.model), RSS)
        self.syslog = SyslogSink(self.claim.root)
        self._traps = traps
        command = ["/bin/sh", "-c", FIRST_PROCESS, self.settings.name, *talservice_command(self.settings)]
        self._run(command, sys.stderr)
        self.publish(ready=False)

    def start_receiver(self) -> TrapPrinter:
        make_folders(self.claim.root, self.settings, {}, RSS)
        self._run(snmptrapd_command(self.settings), subprocess.PIPE)
        return TrapPrinter(self.bwrap.stdout, self.claim.root / TRAP_LOG[1:], sys.stderr)

    def _run(self, command: list[str], output: TextIO | int) -> None:
        info_read, info_write = os.pipe()
        environment = kvsnmp_environment(False, "").items()
        options = ["--as-pid-1", *(word for pair in environment for word in ("--setenv", *pair))]
        command = sandbox.bwrap_command(self.claim.root, self.settings, info_write, command, *options)
        with open(self.claim.root / "var/log/first-process.log", "ab") as log:
            self.bwrap = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=log,
                                          pass_fds=(info_write,), start_new_session=True)
        os.close(info_write)
        with os.fdopen(info_read, "rb") as info:
            text = info.read()
        if not text:
            raise DeviceError(f"{self.logs()}\n{sandbox.FAILED_HINT}")
        self.first_process = first_process(text)
        self.first_process_end = os.pidfd_open(self.first_process)

    def logs(self) -> str:
        """The last lines of each log, which will be removed with the device."""
        logs = [*sorted((self.claim.root / "var/log").glob("*.log")), self.claim.root / "var/log/kvsnmp.err"]
        return "\n".join(f"{log.name}: {line}" for log in logs if log.exists()
                         for line in log.read_text(errors="replace").splitlines()[-5:])

    def publish(self, ready: bool) -> None:
        self.claim.publish(model=self.settings.model, port=self.settings.port, address=self.settings.address,
                           traps=str(self._traps), is_in_fleet=True, first_process=self.first_process, ready=ready)

    # The data service. It may hang, so nothing waits for its replies.

    def is_subscribed(self) -> bool:
        """Whether kvsnmp has subscribed to its last data. A table that is read earlier serves its starting values."""
        if not self._control:
            try:
                control = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                control.connect(str(self.claim.root) + TAL_CONTROL)
            except OSError:  # not yet
                control.close()
                return False
            control.setblocking(False)
            self._control = control
            self.send(["get", "/state"])
        self.send(["subscriptions"])
        return b"kvsnmp_sys_messages" in self._replies

    def state(self) -> str:
        """The data service's tree at the start."""
        return json.loads(self._replies.partition(b"\n")[0])["text"]

    def send(self, command: list[str], keep_replies: bool = True) -> None:
        with contextlib.suppress(OSError):
            while chunk := self._control.recv(65536):
                self._replies = self._replies + chunk if keep_replies else b""
        with contextlib.suppress(OSError):  # it has ended, or does not read
            self._control.send(json.dumps(command).encode() + b"\n")

    def kill(self) -> None:
        if self.first_process_end >= 0:
            with contextlib.suppress(ProcessLookupError):
                signal.pidfd_send_signal(self.first_process_end, signal.SIGKILL)

    def remove(self) -> None:
        """After `kill`: when the first process has ended, so have all others."""
        if self.bwrap:
            self.bwrap.wait()
        if self.first_process_end >= 0:
            with selectors.DefaultSelector() as selector:
                selector.register(self.first_process_end, selectors.EVENT_READ)
                selector.select()
        self.claim.remove()


class Fleet:
    """`receiver` also holds the fleet's folder, with or without a receiver of traps."""

    def __init__(self, receiver: Member, receives: bool) -> None:
        self.members: list[Member] = []
        self.receiver, self._receives = receiver, receives
        self._starting: list[Member] = []
        self._selector = selectors.DefaultSelector()
        self._ended = False
        wake_read = wake_at_the_end(self._end)
        self._selector.register(wake_read, selectors.EVENT_READ, lambda: os.read(wake_read, 4096))
        self._asker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._selector.register(self._asker, selectors.EVENT_READ, self._on_answer)

    def _end(self, *_) -> None:
        self._ended = True

    def _serve_until(self, at: float) -> None:
        while not self._ended and (left := at - time.monotonic()) > 0:
            for key, _ in self._selector.select(left):
                key.data()

    def start(self) -> bool:
        """Until all devices answer with their first values; False when a signal has ended the fleet."""
        if self._receives:
            printer = self.receiver.start_receiver()
            self._selector.register(printer.stream, selectors.EVENT_READ, lambda: self._on_traps(printer))
        seconds = START_SECONDS + SECONDS_EACH * len(self.members)
        limit = time.monotonic() + seconds
        waiting = self.members[::-1]
        while (waiting or self._starting) and not self._ended:
            while waiting and len(self._starting) < AT_ONCE:
                self._start(waiting.pop())
            self._serve_until(time.monotonic() + LOOK_SECONDS)
            self._starting = [member for member in self._starting if not self._is_ready(member)]
            if time.monotonic() > limit:
                late = self._starting + waiting
                names = ", ".join(member.settings.name for member in late)
                raise DeviceError(f"not ready after {seconds} s: {names}\n{late[0].logs()}")
        return not self._ended

    def _start(self, member: Member) -> None:
        member.start(self.receiver.claim.root / TRAP_LOG[1:])
        self._selector.register(member.syslog.socket, selectors.EVENT_READ, member.syslog.receive)
        self._selector.register(member.first_process_end, selectors.EVENT_READ, lambda: self._on_end(member))
        self._starting.append(member)

    def _on_end(self, member: Member) -> None:
        self._selector.unregister(member.first_process_end)
        if member in self._starting:
            raise DeviceError(f"{member.settings.name} ended\n{member.logs()}")
        note(f"{member.settings.name} ended")

    def _on_traps(self, printer: TrapPrinter) -> None:
        if not printer.receive():
            raise DeviceError(f"snmptrapd ended\n{self.receiver.logs()}")

    def _is_ready(self, member: Member) -> bool:
        if member.is_subscribed() and member.answers:
            member.publish(ready=True)
            return True
        self._asker.sendto(REQUEST, (member.settings.address, member.settings.port))
        return False

    def _on_answer(self) -> None:
        try:
            data, place = self._asker.recvfrom(65535)
        except OSError:  # no snmpd yet
            return
        for member in self._starting:
            model = b"\x02\x02" + member.settings.model.to_bytes(2, "big")
            if place == (member.settings.address, member.settings.port) and data.endswith(model):
                member.answers = True

    def run(self, seed: int, step: float, faults_per_hour: float) -> None:
        """Changes values and raises faults until a signal; each device has its turn once in `step` seconds,
        at least 0.01."""
        interval = max(0.01, step) / len(self.members)
        walk = Walk([member.state() for member in self.members], seed, interval, faults_per_hour)
        at = time.monotonic()
        while not self._ended:
            for device, command in walk.next_turn():
                self.members[device].send(command, keep_replies=False)
            at += interval
            self._serve_until(at)

    def close(self) -> None:
        for member in [*self.members, self.receiver]:
            member.kill()
        for member in [*self.members, self.receiver]:
            member.remove()
