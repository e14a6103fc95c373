"""What holds the event loop up, a health probe that hangs and a master that hangs: how long, and that it ends."""
from __future__ import annotations

import signal
import time

import pytest
from support.device import MODEL_NUMBER, Device
from support.polling import stays, wait_until

PROBES = "/run/device/probes"
WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"
ENDED = "QApplication*: main  Qt Event loop returned with status: 0, application exit..\n"


def hang_the_probe(device: Device) -> None:
    """The device's ps asks, and waits until the file /tmp/go is there."""
    device.path("/tmp/go").unlink(missing_ok=True)
    ps = device.path("/run/device/bin/ps")
    ps.write_text("#!/bin/sh\n"
                  f'echo "$*" >> {PROBES}\n'
                  'case "$*" in *rss*) ;; *) exec /usr/bin/ps "$@" ;; esac\n'
                  'until [ -e /tmp/go ]; do sleep 0.05; done\n'
                  'echo 8192\n')
    ps.chmod(0o755)


def start_probe(device: Device) -> None:
    count = device.read(PROBES).count("\n")
    device.shift_clock(601)
    wait_until(lambda: device.read(PROBES).count("\n") > count, 5, what="health probe")


@pytest.fixture
def probing(start_device):
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    hang_the_probe(device)
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    start_probe(device)
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


def test_sigterm_during_a_probe_that_hangs_ends_the_daemon_with_the_probes_30_seconds(probing):
    """They are made to pass: the signal has the daemon look at the clock."""
    device, kvsnmp = probing
    device.shift_clock(31)
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert ENDED in device.kvsnmp_err()
    assert "err: Snmpd health check: snmpd is not running" in device.syslog_texts()
    wait_until(lambda: not device.pids("ps"), 5, what="the hanging probe killed")


def test_probe_that_hangs_holds_up_answers_for_its_30_seconds_and_no_longer(probing):
    """Measured at its own speed. Then snmpd counts as not running, and is restarted."""
    device, _ = probing
    begin = time.monotonic()
    snmpd = device.wait_snmpd()
    assert device.snmp.try_get(MODEL_NUMBER) is None
    wait_until(lambda: "err: Snmpd health check: snmpd is not running" in device.syslog_texts(), 35,
               what="probe given up")
    stalled = time.monotonic() - begin
    print(f"the event loop stood still for {stalled:.1f} s")
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
    """The attempts that snmpd does not take fill its queue of connections; from then on they end at once."""
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


def test_master_that_hangs_up_in_the_middle_of_an_attempt(start_device):
    """The library then registers one alarm too many, which would complain every second after the next success."""
    device = start_device(6410, "--no-dbus", "--no-traps", "--no-kvsnmp")
    snmpd = device.path("/run/device/bin/snmpd")  # found before the machine's own
    snmpd.write_text("#!/usr/bin/python3\n"
                     "import os, socket, sys\n"
                     "listener = socket.socket(socket.AF_UNIX)\n"
                     "listener.bind('/var/agentx/master')\n"
                     "listener.listen()\n"
                     "for _ in range(3):\n"
                     "    connection, _ = listener.accept()\n"
                     "    connection.recv(1000)\n"
                     "    connection.close()\n"
                     "os.unlink('/var/agentx/master')\n"
                     "os.execv('/usr/sbin/snmpd', ['snmpd', *sys.argv[1:]])\n")
    snmpd.chmod(0o755)
    device.start_kvsnmp("-d")
    device.wait_answering(30)
    stays(lambda: "attempted to be re-opened" not in device.kvsnmp_err(), 3, what="one session and no other attempt")
