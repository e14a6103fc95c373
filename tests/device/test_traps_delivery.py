"""Traps while snmpd is restarted, killed, hung or slow: none is lost, none is sent twice. A fault that ended before its
trap was sent is still sent if snmpd was only busy, and never if it was gone."""
from __future__ import annotations

import signal
import time

import pytest
from support.device import MODEL_NUMBER, is_sanitized
from support.polling import stays, wait_until
from support.process import memory_kb
from support.traps import Faults, TrapReceiver, send_results, switch

RESTARTING = "SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd\n"
RESTARTS = 6
PING_INTERVAL = 100  # seconds: the library pings snmpd only when the test moves the clock


class Bench:
    """Without `pings` only the connection shows the sub-agent the end of snmpd, unless the clock leaps."""

    def __init__(self, start_device, pings: bool = True) -> None:
        self.device = start_device(6420, "--no-kvsnmp", "--no-traps", "--clock-shift")
        self.pings = pings
        if not pings:
            self.device.path("/etc/snmp/kvagent.conf").write_text(f"agentXPingInterval {PING_INTERVAL}\n")
        self.traps = TrapReceiver(self.device)
        self.faults = Faults(self.device)
        self.device.start_kvsnmp("-d", clock_shift=True)
        self.device.wait_subscribed()
        self.connect()

    def connect(self) -> None:
        """To the running snmpd. Without pings the next attempt would be late."""
        self.device.wait_snmpd()
        if not self.pings:
            self.device.shift_clock(PING_INTERVAL + 1)
        self.device.wait_answering()

    def assert_each_once(self, topic: str, count: int) -> None:
        self.faults.mark(self.traps, timeout=60)
        counts = self.traps.counts(f"{topic} ")
        assert (len(counts), sum(counts.values())) == (count, count)

    def wait_ended(self, text: str) -> None:
        line = f"Remove Fault: [tests] [{self.faults.raised[text]}]\n"
        wait_until(lambda: line in self.device.kvsnmp_err(), what=f"end of {text} received")


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


@pytest.fixture(scope="module")
def silent(start_shared_device):
    return Bench(start_shared_device, pings=False)


def test_faults_over_many_restarts_are_each_received_once(bench):
    """Earlier faults are active all the while, and not sent again. While the daemon ends snmpd, it sends no trap until
    the session is gone: of the ten faults spread over a restart, snmpd leaves at most one unread."""
    device, faults = bench.device, bench.faults
    restarts = device.kvsnmp_err().count(RESTARTING)
    for _ in range(RESTARTS):
        snmpd = device.pids("snmpd")
        device.stir_snmpd_folder()
        for text in faults.new_texts("restart", 10):
            faults.raise_one("let_fail", text)
            time.sleep(0.05)
        device.wait_snmpd(other_than=snmpd)
        bench.traps.wait_for(text, timeout=10)
    faults.mark(bench.traps)
    counts = bench.traps.counts("restart ")
    print(f"{10 * RESTARTS} faults over {RESTARTS} restarts: {len(counts)} received")
    assert device.kvsnmp_err().count(RESTARTING) >= restarts + RESTARTS
    assert max(counts.values()) == 1
    # snmpd reads a trap within about a millisecond, and faults come 50 ms apart; a busy machine may be slower.
    assert len(counts) >= 10 * RESTARTS - 2


def test_a_hung_snmpd_doubles_and_loses_nothing(bench):
    """Stopped for 4 s while faults are raised."""
    snmpd, begin = bench.device.wait_snmpd(), time.monotonic()
    bench.device.kill(snmpd, signal.SIGSTOP)
    count = 0
    while time.monotonic() < begin + 6:
        if time.monotonic() > begin + 4:
            bench.device.kill(snmpd, signal.SIGCONT)
        bench.faults.raise_all("let_fail", bench.faults.new_texts("hung", 1))
        count += 1
    bench.assert_each_once("hung", count)
    bench.device.wait_answering()


def test_five_thousand_waiting_faults_whose_trap_is_enabled(bench):
    """Each received once, GETs answered meanwhile, and their memory returned when they have ended."""
    device, faults, traps = bench.device, bench.faults, bench.traps
    before = memory_kb(device, device.kvsnmp_pid(), "VmRSS")
    switch(device, "LET Fault", False)
    faults.raise_all("let_fail", faults.new_texts("waiting", 5000))
    faults.mark(traps, timeout=60)
    assert not traps.counts("waiting ")
    begin = time.monotonic()
    switch(device, "LET Fault", True)
    answers = []
    while len(traps.counts("waiting ")) < 5000:
        assert time.monotonic() < begin + 60, f"{len(traps.counts('waiting '))} received"
        answers.append(device.snmp.try_get(MODEL_NUMBER))
    taken = time.monotonic() - begin
    print(f"5,000 waiting faults: {5000 / taken:.0f} traps per second, {len(answers)} GETs answered meanwhile")
    assert set(answers) - {None} == {("INTEGER", "6420")}, "a loaded machine may answer one too late"
    bench.assert_each_once("waiting", 5000)
    faults.clear_everything()
    if not is_sanitized():  # a sanitizer keeps freed memory
        wait_until(lambda: memory_kb(device, device.kvsnmp_pid(), "VmRSS") < before + 2000, 10, what="memory returned")


def test_a_burst_of_two_thousand_faults_raised_and_cleared(bench):
    """However soon it ends, each fault is sent once."""
    faults = bench.faults
    faults.clear_everything()
    lines = [line for text in faults.new_texts("burst", 2000)
             for line in (faults.raise_line("let_fail", text), faults.clear_line(text))]
    bench.device.talctl_batch(lines)
    bench.assert_each_once("burst", 2000)
    assert bench.device.talctl("fault", "list").strip() == ""
    size, received = len(bench.device.kvsnmp_err()), len(bench.traps.received)
    stays(lambda: len(bench.device.kvsnmp_err()) == size and len(bench.traps.received) == received, 1.0,
          what="nothing logged, nothing sent")


# Faults that end before their trap was sent


def test_faults_that_meet_a_dead_snmpd_before_the_daemon_knows(silent):
    """Those that ended are never sent, the others once. The daemon is stopped meanwhile, so it sees all at once."""
    device, faults = silent.device, silent.faults
    snmpd, kvsnmp = device.wait_snmpd(), device.kvsnmp_pid()
    ended, present = faults.new_texts("ended", 6), faults.new_texts("present", 20)
    device.kill(kvsnmp, signal.SIGSTOP)
    device.kill(snmpd, signal.SIGKILL)
    faults.raise_all("let_fail", ended)
    faults.clear_all(ended)
    faults.raise_all("let_fail", present)
    device.kill(kvsnmp, signal.SIGCONT)
    silent.wait_ended(ended[-1])
    assert send_results(device, present[0]).count("SUCCESS") == 0
    device.stir_snmpd_folder()
    device.wait_snmpd(other_than=[snmpd])
    silent.connect()
    silent.traps.wait_for(*present)  # without any further message
    silent.assert_each_once("present", 20)
    assert silent.traps.with_description(*ended) == []


def test_a_fault_that_ended_while_snmpd_did_not_read_is_sent_when_it_reads(silent):
    device, faults = silent.device, silent.faults
    snmpd = device.wait_snmpd()
    device.kill(snmpd, signal.SIGSTOP)
    fillers = [f"{text} ".ljust(40000, "x") for text in faults.new_texts("slow", 3)]
    ended, = faults.new_texts("slow, ended", 1)
    device.talctl_batch([faults.raise_line("let_fail", text) for text in [*fillers, ended]] + [faults.clear_line(ended)])
    silent.wait_ended(ended)
    assert set(send_results(device, fillers[2])) == {"FAILED"}, "the connection had room for everything"
    device.kill(snmpd, signal.SIGCONT)
    faults.mark(silent.traps)
    assert silent.traps.counts("slow, ended") == {ended: 1}
    assert sorted(silent.traps.counts("slow ").values()) == [1, 1, 1]
