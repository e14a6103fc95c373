"""kvsnmp killed at any moment and started again: pid file, snmpd, registration, values and faults."""
from __future__ import annotations

import os
import random
import time

import pytest
from support import ber, steps
from support.device import MODEL_NUMBER, Device
from support.polling import wait_until
from support.press import Press
from support.rawmanager import RawManager
from support.traps import Faults, TrapReceiver
from support.walks import FAILED_TONE, Walk

KILLS = int(os.environ.get("KVSNMP_KILLS", "5"))
KILLS_AT_START = 8
SEED = 52717
MODEL = ber.numbers(MODEL_NUMBER)
PID_FILE = "/run/kvsnmp.pid"
GOLDEN = [(ber.numbers(variable.oid), variable.value) for variable in Walk(6420).golden]


@pytest.fixture(scope="module")
def device(start_shared_device):
    device = start_shared_device(6420, "--daemon", "--no-traps", "--clock-shift", "--set", FAILED_TONE)
    return device.wait_answering()


@pytest.fixture(scope="module")
def manager(device):
    manager = RawManager.of(device)
    yield manager
    manager.close()


def daemon(device: Device, other_than: int = 0) -> int:
    """The only kvsnmp, once it has written its pid file."""
    def look() -> int:
        pids = device.pids("kvsnmp")
        if len(pids) != 1 or pids[0] == other_than:
            return 0
        return pids[0] if device.read(PID_FILE) == f"{pids[0]}\n" else 0

    return wait_until(look, 20, what="kvsnmp running, its number in the pid file")


def start(device: Device) -> None:
    assert device.start_kvsnmp(clock_shift=True).wait(20) == 0  # it has gone into the background


def wait_golden(device: Device, manager: RawManager, other_than: list[int]) -> int:
    """Until another snmpd runs and all values are served; returns its number."""
    snmpd = device.wait_snmpd(other_than=other_than)

    def golden() -> bool:
        if manager.try_get(MODEL) != ("INTEGER", str(device.model)):
            return False
        device.shift_clock(steps.CACHE_SECONDS)
        return manager.walk() == GOLDEN

    wait_until(golden, 30, 0.5, "golden walk")
    assert device.pids("snmpd") == [snmpd]
    return snmpd


def test_kvsnmp_killed_and_started_during_walks(device, manager):
    pid, snmpd = daemon(device), device.wait_snmpd()
    wait_until(lambda: device.shift_clock(steps.CACHE_SECONDS) or manager.walk() == GOLDEN, 20, what="golden walk")
    for number in range(KILLS):
        with Press(device, GOLDEN) as press:
            wait_until(lambda: press.answered > 2, what="a walk under way")
            device.kill_and_wait(pid)
        press.check()
        wait_until(lambda: manager.try_get(MODEL) == ("noSuchObject", ""), what="registration gone")
        assert device.pids("snmpd") == [snmpd] and device.read(PID_FILE) == f"{pid}\n", f"after {number + 1} kills"
        start(device)
        pid = daemon(device, other_than=pid)
        snmpd = wait_golden(device, manager, [snmpd])


def test_kvsnmp_killed_at_any_moment_of_its_start(device, manager):
    """Before and after its pid file, its connection to the data service, the end of the old snmpd, the new one."""
    chance = random.Random(SEED)
    device.kill_and_wait(daemon(device))
    for _ in range(KILLS_AT_START):
        starting = device.start_kvsnmp(clock_shift=True)
        time.sleep(chance.uniform(0, 2))
        assert len(device.pids("snmpd")) <= 1
        for _ in range(2):  # one had not yet its name
            for pid in device.pids("kvsnmp"):
                device.kill_and_wait(pid)
            starting.wait(20)
    snmpd = device.pids("snmpd")
    start(device)
    daemon(device)
    wait_golden(device, manager, snmpd)


def test_faults_raised_while_kvsnmp_is_killed_and_restarted(device):
    """Each life of the daemon sends every active fault once: none is lost, none is sent twice in one life, and one that
    came and went between two lives is never sent."""
    traps, faults = TrapReceiver(device), Faults(device)
    daemon(device)
    faults.mark(traps, timeout=30)
    lives = 3
    stays_for: dict[str, int] = {}  # text to the lives that see it
    for life in range(1, lives):
        before, after = faults.new_texts("present", 5), faults.new_texts("present", 5)
        away, starting = faults.new_texts("away", 3), faults.new_texts("present", 5)
        stays_for |= dict.fromkeys(before, lives - life + 1)
        faults.raise_all("let_fail", before)
        traps.wait_for(*before, timeout=20)
        faults.raise_all("let_fail", after)  # sent or not when it dies
        stays_for |= dict.fromkeys(after, lives - life + 1)
        device.kill_and_wait(daemon(device))
        faults.raise_all("let_fail", away)
        faults.clear_all(away)
        start(device)
        faults.raise_all("let_fail", starting)
        stays_for |= dict.fromkeys(starting, lives - life)
        traps.wait_for(*starting, timeout=30)
        assert set(stays_for) <= {trap.description for trap in traps.received}
    faults.mark(traps, timeout=30)
    counts = traps.counts("present ")
    assert set(counts) == set(stays_for)
    assert {text: count for text, count in counts.items() if count > stays_for[text]} == {}
    assert traps.counts("away ") == {}
    # Sent in each life that saw it, perhaps not in the first, which was killed.
    assert all(counts[text] >= lives_seen - 1 for text, lives_seen in stays_for.items() if lives_seen > 1)
    faults.clear_everything()
