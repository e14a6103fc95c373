"""A health probe that hangs and a snmpd that hangs: how long they block the event loop."""
from __future__ import annotations

import signal
import socket
import time
from contextlib import ExitStack

import pytest
from support.device import WATCHDOG_FILE, Device
from support.outages import ATTEMPT, NOT_RUNNING, PROBES, run_probe
from support.polling import stays, wait_until

ENDED = "QApplication*: main  Qt Event loop returned with status: 0, application exit..\n"


def install(device: Device, program: str, script: str) -> None:
    """Found before the machine's program."""
    file = device.path(f"/run/device/bin/{program}")
    file.write_text(script)
    file.chmod(0o755)


# Waits until the file /tmp/go is there.
HANGING_PS = f"""#!/bin/sh
echo "$*" >> {PROBES}
case "$*" in *rss*) ;; *) exec /usr/bin/ps "$@" ;; esac
until [ -e /tmp/go ]; do sleep 0.05; done
echo 8192
"""


@pytest.mark.parametrize("hangs", [False, True], ids=["as soon as the probe is over", "after 30 seconds"])
def test_sigterm_during_a_probe_ends_the_daemon(start_device, hangs):
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    install(device, "ps", HANGING_PS)
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    run_probe(device)
    if hangs:
        device.shift_clock(31)  # seen when the signal wakes the daemon
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    if not hangs:
        stays(lambda: kvsnmp.poll() is None, 2.0, what="daemon waits for the probe")
        device.path("/tmp/go").touch()
    begin = time.monotonic()
    assert kvsnmp.wait(10) == 0
    assert time.monotonic() - begin < 3
    assert ENDED in device.kvsnmp_err()
    assert (NOT_RUNNING in device.syslog_texts()) == hangs
    wait_until(lambda: not device.pids("ps"), 5, what="no probe left")


def test_stopped_snmpd_stalls_the_daemon_for_one_attempt_at_a_time(start_device):
    """The attempts fill snmpd's queue of connections; once it is full they end at once."""
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering().wait_subscribed()
    snmpd, watchdog = device.wait_snmpd(), device.path(WATCHDOG_FILE)

    def tick() -> float:
        """How long the daemon is busy before it writes the watchdog file, which is due."""
        watchdog.unlink(missing_ok=True)
        device.shift_clock(5)
        begin = time.monotonic()
        wait_until(watchdog.exists, 15, what="watchdog file written")
        return time.monotonic() - begin

    device.kill(snmpd, signal.SIGSTOP)
    stall = wait_until(lambda: max(tick(), 2) - 2, 20, what="an attempt to connect")
    print(f"the watchdog file was written {stall + 2:.1f} s late")
    with ExitStack() as queue, pytest.raises(BlockingIOError):
        while True:
            queued = queue.enter_context(socket.socket(socket.AF_UNIX))
            queued.setblocking(False)
            queued.connect(str(device.path("/var/agentx/master")))
    tick()  # the attempt that had a place
    attempts = device.kvsnmp_err().count(ATTEMPT)
    while device.kvsnmp_err().count(ATTEMPT) < attempts + 3:
        assert tick() < 2, "the queue is full"
    device.kill(snmpd, signal.SIGCONT)
    device.wait_answering(30)
    assert device.pids("snmpd") == [snmpd]

    device.kill(snmpd, signal.SIGSTOP)
    time.sleep(2)  # into the first attempt
    asked = time.monotonic()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(25) == 0
    print(f"ended {time.monotonic() - asked:.1f} s after SIGTERM")
    assert time.monotonic() - asked < 15
    assert ENDED in device.kvsnmp_err()
    device.kill(snmpd, signal.SIGCONT)


CLOSING_SNMPD = """#!/usr/bin/python3
import os, socket, sys
listener = socket.socket(socket.AF_UNIX)
listener.bind('/var/agentx/master')
listener.listen()
for _ in range(3):
    connection, _ = listener.accept()
    connection.recv(1000)
    connection.close()
os.unlink('/var/agentx/master')
os.execv('/usr/sbin/snmpd', ['snmpd', *sys.argv[1:]])
"""


def test_master_that_closes_the_connection_during_an_attempt(start_device):
    """The library then registers one alarm too many, which must not complain every second after the next success."""
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    install(device, "snmpd", CLOSING_SNMPD)
    device.start_kvsnmp("-d")
    device.wait_answering(30)
    stays(lambda: "attempted to be re-opened" not in device.kvsnmp_err(), 3, what="one session and no other attempt")
