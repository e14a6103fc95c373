"""The daemon keeps snmpd running: killed, missing, stopped, hung, or impossible to start; custom configuration.

KVSNMP_SNMPD_KILLS in the environment is how often snmpd is killed during walks.
"""
from __future__ import annotations

import os
import signal
import time

import pytest
from support.dataservice import SETTINGS
from support.device import Device
from support.outages import (ATTEMPT, NOT_RUNNING, assert_idle, change_a_setting, hurry, run_probe,
                             wait_for_another_snmpd, wait_served)
from support.polling import stays, wait_until
from support.press import Press
from support.process import descriptors
from support.target import make_target
from support.walks import Walk

KILLS = int(os.environ.get("KVSNMP_SNMPD_KILLS", "8"))
CONF, PID_FILE = "/etc/snmp/snmpd.conf", "/run/snmpd.pid"
STUB = "/run/device/bin/snmpd"  # found before the machine's own
NOT_CLOSED = "err: Snmpd was not properly closed last time"
STARTING = "info: Starting snmpd (snmpd.conf from TAL)"


@pytest.fixture(scope="module")
def served(start_shared_device):
    served = make_target(start_shared_device(6420, "--no-dbus", "--no-traps", "--clock-shift"), Walk(6420))
    yield served
    served.manager.close()


@pytest.fixture
def device(served):
    return served.device


def test_daemon_is_idle_without_snmpd_and_the_probe_starts_another(served, device):
    kvsnmp, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    opened = descriptors(device, kvsnmp)
    device.kill(snmpd, signal.SIGKILL)
    wait_until(lambda: device.kvsnmp_err().endswith(f"{ATTEMPT}\n"), what="first attempt to connect logged")
    lines = len(device.kvsnmp_err().splitlines())
    assert_idle(device)  # it waits for no closed descriptor
    assert descriptors(device, kvsnmp) <= opened
    said = device.kvsnmp_err().splitlines()[lines:]
    assert set(said) == {ATTEMPT} and len(said) <= 7  # the agent library's line, one for each second
    assert device.read(PID_FILE).strip() == str(snmpd)  # left behind
    closed, missing = (device.syslog_texts().count(text) for text in (NOT_CLOSED, NOT_RUNNING))
    wait_for_another_snmpd(device, snmpd, run_probe)
    assert [device.syslog_texts().count(text) for text in (NOT_CLOSED, NOT_RUNNING)] == [closed + 1, missing + 1]
    assert "SnmpdConfHandler watchdogSnmpd watchdog restarting snmpd, snmpd not running\n" in device.kvsnmp_err()
    wait_served(served)


def test_snmpd_stopped_during_walks_goes_on_where_it_was_until_a_setting_changes(served, device):
    """SIGTERM has no effect on it then; its pid file stays, so it is killed with signal 9."""
    kvsnmp, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    opened = descriptors(device, kvsnmp)
    with Press(device, served.walk) as press:
        for seconds in (0.5, 3):
            pressed = press.answered
            wait_until(lambda: press.answered > pressed + 2, 30, what="a walk under way")
            device.kill(snmpd, signal.SIGSTOP)
            time.sleep(seconds)
            device.kill(snmpd, signal.SIGCONT)
            wait_served(served, 30)
        press.check()
    assert device.wait_snmpd() == snmpd
    wait_until(lambda: descriptors(device, kvsnmp) == opened, what="as many descriptors as before")

    improper = device.syslog_texts().count(NOT_CLOSED)
    device.kill(snmpd, signal.SIGSTOP)
    change_a_setting(device)
    wait_until(lambda: device.pids("snmpd") not in ([], [snmpd]), 60, 0.1, "another snmpd")
    device.wait_snmpd(other_than=[snmpd])
    wait_served(served, 60)
    assert device.syslog_texts().count(NOT_CLOSED) == improper + 1


def test_snmpd_killed_over_and_over_during_walks(served, device):
    """It is restarted by turns after a changed setting and by the health probe. Each time all values are served again,
    and the daemon has as many descriptors as before."""
    pid, snmpd = device.kvsnmp_pid(), device.wait_snmpd()
    opened = descriptors(device, pid)
    begin = time.monotonic()
    with Press(device, served.walk) as press:
        for number in range(KILLS):
            pressed = press.answered
            wait_until(lambda: press.answered > pressed + 2, what="a walk under way")
            device.kill(snmpd, signal.SIGKILL)
            snmpd = wait_for_another_snmpd(device, snmpd, (change_a_setting, run_probe)[number % 2])
            wait_served(served)
            wait_until(lambda: descriptors(device, pid) == opened, 2, what=f"descriptors after {number + 1} kills")
        press.check()
    print(f"{KILLS} kills in {time.monotonic() - begin:.0f} s, {press.answered} GETBULKs answered meanwhile")
    assert device.kvsnmp_pid() == pid
    assert "QSocketNotifier" not in device.kvsnmp_err()  # no complaint about closed descriptors
    assert_idle(device)


# Custom configuration


def test_custom_configuration_is_left_alone_and_snmpd_started_with_it(start_device):
    custom = "# made by hand\nmaster agentx\nrocommunity public\nsysLocation by hand\n"
    device = start_device(6420, "--no-traps", "--no-kvsnmp", "--set", f"{SETTINGS}/custom_config=true")
    device.path(CONF).write_text(custom)
    device.start_kvsnmp("-d")
    device.wait_answering()
    assert device.read(CONF) == custom
    assert device.snmp.get(".1.3.6.1.2.1.1.6.0") == [("STRING", "by hand")]
    assert "info: Starting snmpd (custom snmpd.conf)" in device.syslog_texts()


# A snmpd that cannot be started, or that does nothing


def start_with_stub(start_device, script: str) -> Device:
    """A device whose snmpd is a script. Its daemon receives values."""
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    device.path(STUB).write_text(f"#!/bin/sh\necho $$ >> /tmp/starts\n{script}\n")
    device.path(STUB).chmod(0o755)
    device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: device.read("/tmp/starts"), 20, what="stub started")
    return device.wait_subscribed()


def test_snmpd_that_ends_at_once_is_tried_again_at_each_probe(start_device):
    device = start_with_stub(start_device, "exit 1")
    for number in (1, 2):
        run_probe(device)
        hurry(device, lambda: len(device.read("/tmp/starts").split()) == number + 1, "stub started again")
    assert_idle(device)
    assert len(device.read("/tmp/starts").split()) == 3, "no attempt in between"
    texts = device.syslog_texts()
    assert (texts.count(NOT_RUNNING), texts.count(STARTING)) == (2, 3)  # a line for each
    states = device.run(["sh", "-c", "cat /proc/[0-9]*/stat 2>/dev/null || :"]).stdout
    assert "(snmpd)" not in states  # no zombie either
    device.path(STUB).unlink()
    run_probe(device)
    hurry(device, lambda: device.pids("snmpd"), "snmpd running")
    device.wait_answering()


def test_snmpd_that_hangs_is_left_alone_and_a_good_one_started_beside_it_when_a_setting_changes(start_device):
    """It ignores SIGTERM. The health probe only checks that it runs."""
    device = start_with_stub(start_device, "trap '' TERM\nwhile :; do sleep 1000; done")
    hanging, = device.pids("snmpd")
    run_probe(device)
    stays(lambda: device.pids("snmpd") == [hanging], 1.5, what="left alone")
    assert NOT_RUNNING not in device.syslog_texts()
    device.path(STUB).unlink()
    change_a_setting(device)
    device.wait_answering()
    assert hanging in device.pids("snmpd") and len(device.pids("snmpd")) == 2
