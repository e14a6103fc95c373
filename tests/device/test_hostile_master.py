"""snmpd killed over and over during walks: served again each time, and nothing left behind."""
from __future__ import annotations

import os
import signal
import time

import pytest
from support.outages import (AT_REST, change_a_setting, let_the_probe_come, rests, serve, wait_for_another_snmpd,
                             wait_served)
from support.polling import wait_until
from support.pollset import watched_and_open
from support.press import Press
from support.process import processor_seconds

KILLS = int(os.environ.get("KVSNMP_SNMPD_KILLS", "50"))


@pytest.fixture(scope="module")
def served(start_shared_device):
    served = serve(start_shared_device(6420, "--no-dbus", "--no-traps", "--clock-shift"))
    yield served
    served.manager.close()


def test_snmpd_killed_fifty_times_during_walks(served):
    """It comes back by turns through a changed setting and through the health probe. Each time all is served again, and
    the daemon waits for as many descriptors as before, all of them open."""
    device = served.device
    pid = device.kvsnmp_pid()
    watched, opened = watched_and_open(device, pid)
    assert set(watched) <= set(opened)
    begin, spent = time.monotonic(), processor_seconds(device, pid)
    snmpd = device.wait_snmpd()
    longest = 0.0
    with Press(device, served.walk) as press:
        for number in range(KILLS):
            pressed = press.answered
            wait_until(lambda: press.answered > pressed + 2, what="a walk under way")
            killed = time.monotonic()
            device.kill(snmpd, signal.SIGKILL)
            snmpd = wait_for_another_snmpd(device, snmpd, (change_a_setting, let_the_probe_come)[number % 2])
            wait_served(served)
            longest = max(longest, time.monotonic() - killed)
            now_watched, now_open = watched_and_open(device, pid)
            assert set(now_watched) <= set(now_open), f"a descriptor that is gone is watched after {number + 1} kills"
            assert (len(now_watched), len(now_open)) == (len(watched), len(opened)), f"after {number + 1} kills"
        press.check()
    spent, taken = processor_seconds(device, pid) - spent, time.monotonic() - begin
    print(f"{KILLS} kills in {taken:.0f} s, {press.answered} GETBULKs answered meanwhile, longest way back "
          f"{longest:.1f} s, {spent:.1f} s of processor time; descriptors open {len(opened)}, watched {len(watched)}")
    assert device.kvsnmp_pid() == pid
    assert "QSocketNotifier" not in device.kvsnmp_err()  # which complains about descriptors that are gone

    rests(device, AT_REST)
