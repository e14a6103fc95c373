"""A health probe that hangs and a snmpd that hangs: how long they block the event loop."""
from __future__ import annotations

import signal
import time

import pytest
from support.device import MODEL_NUMBER, Device
from support.outages import PROBES, run_probe
from support.polling import stays, wait_until

WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"
ENDED = "QApplication*: main  Qt Event loop returned with status: 0, application exit..\n"
NOT_RUNNING = "err: Snmpd health check: snmpd is not running"


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


@pytest.fixture
def probing(start_device):
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    install(device, "ps", HANGING_PS)
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    run_probe(device)
    yield device, kvsnmp
    device.path("/tmp/go").touch()


def test_sigterm_during_a_probe_ends_the_daemon_as_soon_as_the_probe_is_over(probing):
    device, kvsnmp = probing
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    stays(lambda: kvsnmp.poll() is None, 2.0, what="daemon waits for the probe")
    device.path("/tmp/go").touch()
    answered = time.monotonic()
    assert kvsnmp.wait(10) == 0
    assert time.monotonic() - answered < 3
    assert ENDED in device.kvsnmp_err()


def test_sigterm_during_a_probe_that_hangs_ends_the_daemon_after_30_seconds(probing):
    """The clock is moved by them: the signal wakes the daemon."""
    device, kvsnmp = probing
    device.shift_clock(31)
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert ENDED in device.kvsnmp_err()
    assert NOT_RUNNING in device.syslog_texts()
    wait_until(lambda: not device.pids("ps"), 5, what="the hanging probe killed")


def test_probe_that_hangs_delays_answers_for_30_seconds(probing):
    """In real time. Then snmpd counts as not running, and is restarted."""
    device, _ = probing
    begin = time.monotonic()
    snmpd = device.wait_snmpd()
    assert device.snmp.try_get(MODEL_NUMBER) is None
    wait_until(lambda: NOT_RUNNING in device.syslog_texts(), 35, what="probe given up")
    stalled = time.monotonic() - begin
    print(f"the event loop was blocked for {stalled:.1f} s")
    assert 25 < stalled < 33
    device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()


# snmpd stopped

STOPPED = 65  # seconds


@pytest.fixture
def stopped(start_device):
    """A device whose snmpd has just been stopped, with SIGSTOP."""
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    kvsnmp = device.start_kvsnmp("-d")
    device.wait_answering().wait_subscribed()
    snmpd = device.wait_snmpd()
    device.kill(snmpd, signal.SIGSTOP)
    return device, kvsnmp, snmpd


def test_stopped_snmpd_stalls_the_daemon_for_one_attempt_at_a_time(stopped):
    """The attempts fill snmpd's queue of connections; once it is full they end at once."""
    device, _, snmpd = stopped
    watchdog = device.path(WATCHDOG_FILE)
    ticks: list[float] = []
    last = watchdog.stat().st_mtime_ns if watchdog.exists() else 0
    begin = time.monotonic()
    while time.monotonic() < begin + STOPPED:
        now = watchdog.stat().st_mtime_ns if watchdog.exists() else 0
        if now != last:
            ticks.append(time.monotonic())
            last = now
        time.sleep(0.02)
    gaps = [later - earlier for earlier, later in zip([begin, *ticks], [*ticks, time.monotonic()])]
    shown = ", ".join(f"{gap:.1f}" for gap in gaps)
    print(f"snmpd stopped for {STOPPED} s: the watchdog file, due every 5 s, was written after {shown} s")
    assert max(gaps) < 15
    assert gaps[-2] < 6, "the queue is full"
    device.kill(snmpd, signal.SIGCONT)
    continued = time.monotonic()
    device.wait_answering(30)
    print(f"answered {time.monotonic() - continued:.1f} s after snmpd went on")
    assert device.pids("snmpd") == [snmpd]


def test_sigterm_while_snmpd_is_stopped(stopped):
    device, kvsnmp, snmpd = stopped
    time.sleep(2)  # into the first attempt
    asked = time.monotonic()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(25) == 0
    taken = time.monotonic() - asked
    print(f"ended {taken:.1f} s after SIGTERM")
    assert taken < 15
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
