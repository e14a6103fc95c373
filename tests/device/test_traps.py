"""From a fault in the data service to what a manager receives: every message identifier, every value of a trap."""
from __future__ import annotations

import datetime

import pytest
from support.catalogue import TRAP_OF
from support.dataservice import SETTINGS
from support.polling import wait_until
from support.traps import DESCRIPTION, SYS_NAME, SYS_UP_TIME, Faults, TrapReceiver, expected_variables, time_text

TRAP_PORT, INFORM_PORT = 1162, 1163
ZONE = datetime.timezone(datetime.timedelta(hours=3, minutes=30))  # unlikely on a machine that runs the tests
RAISED_AT = 1717228923
SYSTEM_NAME = "Gebäude 7"
LONGEST = 64000  # bytes of a description


class Bench:
    """A device with one receiver for traps, and one for informs."""

    def __init__(self, start_device) -> None:
        self.device = start_device(6420, "--no-kvsnmp", "--no-traps",
                                   "--set", f"{SETTINGS}/trap_settings/trap_address=127.0.0.1:{TRAP_PORT}",
                                   "--set", f"{SETTINGS}/trap_settings/inform_address=127.0.0.1:{INFORM_PORT}",
                                   "--set", f"{SETTINGS}/mib_2_settings/sys_name={SYSTEM_NAME}")
        self.traps = TrapReceiver(self.device, TRAP_PORT)
        self.informs = TrapReceiver(self.device, INFORM_PORT)
        self.faults = Faults(self.device)
        self.device.start_kvsnmp("-d", env={"TZ": "<+0330>-3:30"})
        self.device.wait_answering().wait_subscribed()

    def trap_of(self, text: str, received: str = ""):
        """Raises a fault and returns its only trap."""
        self.faults.raise_one("custom_msg", text)
        trap, = self.traps.wait_for(received or text)
        return trap

    def set_system_name(self, text: str) -> None:
        snmpd = self.device.pids("snmpd")
        self.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", text)
        self.device.wait_snmpd(other_than=snmpd)
        self.device.wait_answering()


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


def test_each_message_identifier_is_received_as_its_notification_in_order(bench):
    texts = {identifier: f"text of {identifier}" for identifier in TRAP_OF}
    bench.device.talctl_batch([bench.faults.raise_line(identifier, text) for identifier, text in texts.items()])
    traps = bench.traps.wait_for(*texts.values())
    assert len(traps) == len(TRAP_OF)
    for identifier, trap in zip(TRAP_OF, traps):
        up_time, *rest = trap.variables
        assert trap.kind == "TRAP2" and (up_time.oid, up_time.type) == (SYS_UP_TIME, "Timeticks")
        # Latin-1 for the system name, UTF-8 for the text of the fault.
        assert rest == expected_variables(identifier, texts[identifier], 2, time_text(RAISED_AT, ZONE),
                                          SYSTEM_NAME.encode("latin-1"))

    wait_until(lambda: len(bench.informs.received) >= len(texts), what="as many informs")
    assert sorted(str(inform.variables[1:]) for inform in bench.informs.received) == sorted(
        str(trap.variables[1:]) for trap in traps)


@pytest.mark.parametrize("text", ["Lüfter 1 steht – Ω 温度 ✓ 𝄞", "first line\nsecond \"line\" of 100 %1 %s\\",
                                  "ü" * (LONGEST // 2)], ids=["UTF-8", "marks", "the longest"])
def test_description_is_received_as_it_was_raised(bench, text):
    assert bench.trap_of(text).value(DESCRIPTION) == text.encode()


def test_a_description_that_is_too_long_is_cut_after_a_character(bench):
    kept = "cut ".ljust(LONGEST - 1, "x")
    trap = bench.trap_of(kept + "ü" * 468000, received=kept)
    assert trap.value(DESCRIPTION) == kept.encode()
    line = f"sendTrap: description cut from {LONGEST + 935999} to {LONGEST - 1} bytes\n"
    assert bench.device.kvsnmp_err().count(line) == 1


def test_the_longest_system_name_and_none(bench):
    bench.set_system_name("n" * 300)
    assert bench.trap_of("longest ".ljust(LONGEST, "y")).value(SYS_NAME) == b"n" * 256
    bench.set_system_name("")
    assert bench.trap_of("nameless").variables[1:] == expected_variables(
        "custom_msg", "nameless", 2, time_text(RAISED_AT, ZONE))


def test_every_inform_was_received_once(bench):
    """The last of the bench: answered informs are not sent again."""
    count = len(bench.traps.received)
    wait_until(lambda: len(bench.informs.received) >= count, what="as many informs as traps")
    bench.faults.mark(bench.traps)
    wait_until(lambda: len(bench.informs.received) >= count + 1, what="the inform of the mark")
    assert len(bench.informs.received) == len(bench.traps.received)
    assert {trap.kind for trap in bench.traps.received} == {"TRAP2"}
    assert {inform.kind for inform in bench.informs.received} == {"INFORM"}
