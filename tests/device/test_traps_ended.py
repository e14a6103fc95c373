"""Faults that end before their trap went out: still sent when snmpd was merely busy, never when it was gone."""
from __future__ import annotations

import signal

import pytest
from support.polling import wait_until
from support.traps import Faults, TrapReceiver, send_results

PING_INTERVAL = 100  # seconds: the library asks snmpd for an answer when the test lets it


class Bench:
    """A device whose sub-agent finds out about snmpd from the connection alone, unless the clock leaps."""

    def __init__(self, start_device) -> None:
        self.device = start_device(6420, "--no-kvsnmp", "--no-traps", "--clock-shift")
        self.device.path("/etc/snmp/kvagent.conf").write_text(f"agentXPingInterval {PING_INTERVAL}\n")
        self.traps = TrapReceiver(self.device)
        self.faults = Faults(self.device)
        self.device.start_kvsnmp("-d", clock_shift=True)
        self.device.wait_subscribed()
        self.connect()

    def connect(self) -> None:
        """To the snmpd that runs: without a leap the next attempt is far."""
        self.device.wait_snmpd()
        self.device.shift_clock(PING_INTERVAL + 1)
        self.device.wait_answering()

    def restart(self) -> None:
        old = self.device.pids("snmpd")
        self.device.stir_snmpd_folder()
        self.device.wait_snmpd(other_than=old)
        self.connect()

    def wait_ended(self, text: str) -> None:
        line = f"Remove Fault: [tests] [{self.faults.raised[text]}]\n"
        wait_until(lambda: line in self.device.kvsnmp_err(), what=f"end of {text} taken in")

    def raise_and_clear_behind_a_full_connection(self, topic: str) -> tuple[str, str]:
        """With a snmpd that does not read. A fault that has ended, and one that is there; both wait."""
        fillers = [f"{text} ".ljust(40000, "x") for text in self.faults.new_texts(topic, 3)]
        ended, = self.faults.new_texts(f"{topic}, ended", 1)
        self.device.talctl_batch([self.faults.raise_line("let_fail", text) for text in [*fillers, ended]]
                                 + [self.faults.clear_line(ended)])
        self.wait_ended(ended)
        assert set(send_results(self.device, fillers[2])) == {"FAILED"}, "the connection took it all"
        return ended, fillers[2]


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


@pytest.fixture(autouse=True)
def no_fault_left(bench):
    yield
    bench.faults.clear_everything()


@pytest.mark.parametrize("asleep", [True, False], ids=["before the daemon could notice", "while the daemon notices"])
def test_faults_raised_and_cleared_while_snmpd_is_dead_are_never_sent(bench, asleep):
    device, faults = bench.device, bench.faults
    snmpd, kvsnmp = device.wait_snmpd(), device.kvsnmp_pid()
    ended = faults.new_texts("ended while dead", 6)
    present, = faults.new_texts("present while dead", 1)
    if asleep:
        device.kill(kvsnmp, signal.SIGSTOP)
    device.kill(snmpd, signal.SIGKILL)
    lines = [line for text in ended for line in (faults.raise_line("let_fail", text), faults.clear_line(text))]
    device.talctl_batch([*lines, faults.raise_line("let_fail", present)])
    if asleep:
        device.kill(kvsnmp, signal.SIGCONT)
    bench.wait_ended(ended[-1])
    bench.restart()
    faults.mark(bench.traps)
    assert bench.traps.with_description(*ended) == []
    assert len(bench.traps.with_description(present)) == 1


def test_a_fault_that_ended_while_snmpd_did_not_read_is_sent_when_it_reads(bench):
    snmpd = bench.device.wait_snmpd()
    bench.device.kill(snmpd, signal.SIGSTOP)
    ended, _ = bench.raise_and_clear_behind_a_full_connection("slow")
    bench.device.kill(snmpd, signal.SIGCONT)
    bench.faults.mark(bench.traps)
    assert bench.traps.counts("slow, ended") == {ended: 1}
    assert sorted(bench.traps.counts("slow ").values()) == [1, 1, 1]


def test_a_fault_that_ended_while_snmpd_did_not_read_is_never_sent_when_it_dies(bench):
    snmpd = bench.device.wait_snmpd()
    bench.device.kill(snmpd, signal.SIGSTOP)
    _, waiting = bench.raise_and_clear_behind_a_full_connection("dying")
    bench.device.kill(snmpd, signal.SIGKILL)
    bench.restart()
    bench.faults.mark(bench.traps)
    assert bench.traps.counts("dying, ended") == {}
    assert bench.traps.counts("dying ") == {waiting: 1}  # snmpd took along what it had in its connection
