"""A snmpd that is gone, stopped, cannot be started, or runs and does nothing: the daemon goes on, and serves again when
it is good."""
from __future__ import annotations

import signal
import time

import pytest
from support import steps
from support.device import Device
from support.outages import (AT_REST, change_a_setting, hurry, let_the_probe_come, rests, serve, wait_for_another_snmpd,
                             wait_served)
from support.polling import stays, wait_until
from support.pollset import watched_and_open
from support.press import Press

STUB = "/run/device/bin/snmpd"  # found before the machine's own
NOT_RUNNING = "err: Snmpd health check: snmpd is not running"
STARTING = "info: Starting snmpd (snmpd.conf from TAL)"
ATTEMPT = "Warning: Failed to connect to the agentx master agent ([NIL]): "


@pytest.fixture(scope="module")
def served(start_shared_device):
    served = serve(start_shared_device(6420, "--no-dbus", "--no-traps", "--clock-shift"))
    yield served
    served.manager.close()


def test_daemon_rests_while_there_is_no_snmpd(served):
    device = served.device
    pid, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    _, opened = watched_and_open(device, pid)
    device.kill(snmpd, signal.SIGKILL)
    wait_until(lambda: device.kvsnmp_err().endswith(f"{ATTEMPT}\n"), what="first attempt to connect told")
    lines = len(device.kvsnmp_err().splitlines())
    rests(device, AT_REST)
    now_watched, now_open = watched_and_open(device, pid)
    said = device.kvsnmp_err().splitlines()[lines:]
    assert set(now_watched) <= set(now_open) and len(now_open) <= len(opened)
    assert set(said) == {ATTEMPT} and len(said) <= 7  # the agent library's line, one for each second
    wait_for_another_snmpd(device, snmpd, let_the_probe_come)
    wait_served(served)


def test_snmpd_stopped_during_walks_goes_on_where_it_was(served):
    device = served.device
    pid, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    _, opened = watched_and_open(device, pid)
    with Press(device, served.walk) as press:
        for seconds in (0.2, 0.5, 1.5, 3):
            pressed = press.answered
            wait_until(lambda: press.answered > pressed + 2, 30, what="a walk under way")
            device.kill(snmpd, signal.SIGSTOP)
            time.sleep(seconds)
            device.kill(snmpd, signal.SIGCONT)
            wait_served(served, 30)
        press.check()
    assert device.wait_snmpd() == snmpd
    wait_until(lambda: len(watched_and_open(device, pid)[1]) == len(opened), what="as many descriptors as before")


def test_stopped_snmpd_is_replaced_when_a_setting_changes(served):
    """SIGTERM does not reach it; its pid file stays and names it, so it is killed with signal 9."""
    device = served.device
    snmpd = device.wait_snmpd()
    improper = device.syslog_texts().count("err: Snmpd was not properly closed last time")
    device.kill(snmpd, signal.SIGSTOP)
    begin = time.monotonic()
    change_a_setting(device)
    wait_until(lambda: device.pids("snmpd") not in ([], [snmpd]), 60, 0.1, "another snmpd")
    device.wait_snmpd(other_than=[snmpd])
    wait_served(served, 60)
    print(f"a stopped snmpd replaced and all served again {time.monotonic() - begin:.1f} s after the change")
    assert device.syslog_texts().count("err: Snmpd was not properly closed last time") == improper + 1


# One that cannot be started, or that does nothing


@pytest.fixture
def with_stub(start_device):
    """Starts a device whose snmpd is a script of the test's."""
    def start(script: str) -> Device:
        device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
        device.path(STUB).write_text(f"#!/bin/sh\necho $$ >> /tmp/starts\n{script}\n")
        device.path(STUB).chmod(0o755)
        device.start_kvsnmp("-d", clock_shift=True)
        wait_until(lambda: device.read("/tmp/starts"), 20, what="stub started")
        wait_until(lambda: "FINISH kaAgentStart()\n" in device.kvsnmp_out(), 10, what="agent started")
        return device

    return start


def goes_on(device: Device) -> None:
    """Values are taken in, and nothing spins."""
    device.wait_subscribed()
    steps.apply(device, dbus=False)
    rests(device, AT_REST)


def test_snmpd_that_ends_at_once_is_tried_again_at_each_probe(with_stub):
    device = with_stub("exit 1")
    goes_on(device)
    for number in range(1, 4):
        let_the_probe_come(device)
        wait_until(lambda: device.syslog_texts().count(NOT_RUNNING) == number, what="finding told")
        hurry(device, lambda: device.syslog_texts().count(STARTING) == number + 1, "another attempt")
        wait_until(lambda: len(device.read("/tmp/starts").split()) == number + 1, what="stub started again")
    stays(lambda: len(device.read("/tmp/starts").split()) == 4, 2, what="no attempt in between")
    texts = device.syslog_texts()
    assert (texts.count(NOT_RUNNING), texts.count(STARTING)) == (3, 4)  # a line for each
    states = device.run(["sh", "-c", "cat /proc/[0-9]*/stat 2>/dev/null || :"]).stdout
    assert "(snmpd)" not in states  # no zombie either
    device.path(STUB).unlink()
    let_the_probe_come(device)
    hurry(device, lambda: device.pids("snmpd"), "snmpd running")
    device.wait_answering()


def test_snmpd_that_hangs_is_ended_and_replaced_when_a_setting_changes(with_stub):
    """It runs, and that is all that the health probe asks for."""
    device = with_stub("while :; do sleep 1; done")
    goes_on(device)
    hanging, = device.pids("snmpd")
    probes = device.read("/run/device/probes").count("\n")
    let_the_probe_come(device)
    wait_until(lambda: device.read("/run/device/probes").count("\n") > probes, what="health probe")
    stays(lambda: device.pids("snmpd") == [hanging], 1.5, what="left alone")
    assert NOT_RUNNING not in device.syslog_texts()
    device.path(STUB).unlink()
    change_a_setting(device)
    device.wait_snmpd(other_than=[hanging])
    device.wait_answering()


def test_snmpd_that_hangs_and_does_not_end_gets_a_good_one_beside_it(with_stub):
    device = with_stub("trap '' TERM\nwhile :; do sleep 1; done")
    hanging, = device.pids("snmpd")
    device.path(STUB).unlink()
    change_a_setting(device)
    device.wait_answering()
    assert hanging in device.pids("snmpd") and len(device.pids("snmpd")) == 2
