"""From a fault in the data service to what a manager receives: every message identifier, every value of a trap."""
from __future__ import annotations

import datetime
import time

import pytest
from support.polling import wait_until
from support.traps import (CATALOGUE, DESCRIPTION, E, LEVEL, ROW_OF, SETTINGS, SYS_NAME, SYS_UP_TIME, TIME, Faults,
                           TrapReceiver, Variable, expected_variables, switch, time_text)

TRAP_PORT, INFORM_PORT = 1162, 1163
ZONE = datetime.timezone(datetime.timedelta(hours=3, minutes=30))  # no machine that runs the tests has it by chance
RAISED_AT = 1717228923
SYSTEM_NAME = "Gebäude 7"
LONGEST = 64000  # bytes of a description


class Bench:
    """A device whose traps come with numbers and types, and whose informs come decoded with the MIB."""

    def __init__(self, start_device) -> None:
        self.device = start_device(6420, "--no-kvsnmp", "--no-traps",
                                   "--set", f"{SETTINGS}/trap_settings/trap_address=127.0.0.1:{TRAP_PORT}",
                                   "--set", f"{SETTINGS}/trap_settings/inform_address=127.0.0.1:{INFORM_PORT}",
                                   "--set", f"{SETTINGS}/mib_2_settings/sys_name={SYSTEM_NAME}")
        self.traps = TrapReceiver(self.device, TRAP_PORT)
        self.informs = TrapReceiver(self.device, INFORM_PORT, names=True)
        self.faults = Faults(self.device)
        self.device.start_kvsnmp("-d", env={"TZ": "<+0330>-3:30"})
        self.device.wait_answering().wait_subscribed()

    def trap_of(self, identifier: str, text: str, **arguments):
        """Raises a fault and returns its trap, the only one."""
        self.faults.raise_one(identifier, text, **arguments)
        found = self.traps.wait_for(text)
        assert len(found) == 1
        return found[0]


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


@pytest.fixture(scope="module")
def one_of_each(bench):
    """A fault of every message identifier, raised in one go; all of them received as traps and as informs."""
    texts = {identifier: f"text of {identifier}" for row in CATALOGUE for identifier in row.identifiers}
    bench.device.talctl_batch([bench.faults.raise_line(identifier, text) for identifier, text in texts.items()])
    traps = bench.traps.wait_for(*texts.values())
    wait_until(lambda: len(bench.informs.received) >= len(texts), what="as many informs")
    return traps, list(bench.informs.received)


def test_the_catalogue_has_38_identifiers_and_20_traps():
    assert len(CATALOGUE) == 20 and [row.arc for row in CATALOGUE] == list(range(1, 21))
    assert sum(len(row.identifiers) for row in CATALOGUE) == len(ROW_OF) == 38


@pytest.mark.parametrize("identifier", ROW_OF)
def test_each_message_identifier_is_received_as_its_notification(one_of_each, identifier):
    traps, _ = one_of_each
    found = [trap for trap in traps if trap.description == f"text of {identifier}"]
    assert len(found) == 1
    up_time, *rest = found[0].variables
    assert found[0].kind == "TRAP2"
    assert (up_time.oid, up_time.type) == (SYS_UP_TIME, "Timeticks")
    # Latin-1 for the system name, UTF-8 for the text of the fault.
    assert rest == expected_variables(identifier, f"text of {identifier}", 2, time_text(RAISED_AT, ZONE),
                                      SYSTEM_NAME.encode("latin-1"))


def test_traps_arrive_in_the_order_in_which_the_faults_were_raised(one_of_each):
    traps, informs = one_of_each
    expected = [f"text of {identifier}" for row in CATALOGUE for identifier in row.identifiers]
    assert [trap.description for trap in traps] == expected
    assert len(informs) == len(expected)


def test_all_twenty_are_decoded_by_name_with_the_mib(one_of_each):
    """As informs, which go to a receiver of their own."""
    _, informs = one_of_each
    assert {inform.kind for inform in informs} == {"INFORM"}
    names = []
    for inform in informs:
        values = [variable.value for variable in inform.variables]
        labels = [variable.oid.removeprefix("KVSNMP-MIB::") for variable in inform.variables]
        assert [label.rpartition("::")[2] for label in labels] == [
            "sysUpTime.0", "snmpTrapOID.0", "trapProduct.0", "trapHostName.0", "sysName", "trapLevel.0", "trapTime.0",
            "trapDescription.0"]
        names.append(values[1])
        assert values[5] == "error"
    assert sorted(names) == sorted(f"KVSNMP-MIB::{row.name}" for row in CATALOGUE for _ in row.identifiers)


@pytest.mark.parametrize("level, number", [
    ("emerg", 1), ("alert", 1), ("crit", 1), ("err", 2), ("warning", 4), ("notice", 5), ("info", 5), ("debug", 5),
    ("", 3), ("err ", 3), ("ERR", 3), ("error", 3), ("2", 3),
], ids=lambda value: repr(value) if isinstance(value, str) else None)
def test_severity_of_each_level(bench, level, number):
    trap = bench.trap_of("let_fail", f"level {level!r}", level=level)
    assert [variable for variable in trap.variables if variable.oid == LEVEL] == [Variable(LEVEL, "INTEGER", number)]


@pytest.mark.parametrize("text, seconds", [
    ("0", 0),
    ("1717228923", RAISED_AT),
    ("0x665ad57b", 0x665ad57b),
    ("0X10", 16),
    ("014632652573", 0o14632652573),
    ("010", 8),
    ("  60", 60),
    ("60 seconds", 60),
    ("60.9", 60),
    ("yesterday", 0),
    ("2024-06-01 10:02:03", 2024),
    ("-1", -1),
    ("99999999999999999999", -1),  # all bits set, as the C library answers an overflow
    ("9223372036854775807", 0),  # a year that no calendar can express
], ids=lambda value: repr(value) if isinstance(value, str) else None)
def test_time_text(bench, text, seconds):
    trap = bench.trap_of("let_fail", f"time {text!r}", timestamp=text)
    assert trap.value(TIME) == time_text(seconds, ZONE)


def test_an_empty_time_text_is_now(bench):
    before = int(time.time())
    trap = bench.trap_of("let_fail", "time empty", timestamp="")
    assert trap.value(TIME) in [time_text(second, ZONE) for second in range(before, int(time.time()) + 1)]


@pytest.mark.parametrize("text", [
    "Lüfter 1 steht – Ω 温度 ✓",
    'quotes " and \' and a backslash \\',
    "100 %1 %s %2",
    " blanks around ",
    "first line\nsecond line",
    "x" * (LONGEST - 1),
    "x" * LONGEST,
    "ü" * (LONGEST // 2),
], ids=["UTF-8", "quotes", "percent signs", "blanks", "line feed", "one less than the longest", "the longest",
        "the longest of two bytes a character"])
def test_description_is_received_as_it_was_raised(bench, text):
    assert bench.trap_of("custom_msg", text).value(DESCRIPTION) == text.encode()


@pytest.mark.parametrize("kept, rest", [
    (LONGEST, "x"),
    (LONGEST - 1, "ü"),
    (LONGEST - 1, "✓"),
    (LONGEST - 2, "✓"),
    (LONGEST - 3, "𝄞"),
    (LONGEST - 1, "€" * 12000),
    (LONGEST, "x" * 36000),
    (LONGEST, "x" * 936000),
], ids=["one byte too long", "in two bytes", "after one of three bytes", "after two of three bytes",
        "after three of four bytes", "many of three bytes", "100 kB", "1 MB"])
def test_a_description_that_is_too_long_is_cut_after_a_character(bench, kept, rest):
    """Received as a trap here, as an inform in the last test; one line in the log for each."""
    begin = bench.faults.new_texts("cut", 1)[0].ljust(kept, "x")
    bench.faults.raise_one("custom_msg", begin + rest)
    trap, = bench.traps.wait_for(begin)
    assert trap.value(DESCRIPTION) == begin.encode()
    line = f"sendTrap: description cut from {kept + len(rest.encode())} to {kept} bytes\n"
    assert bench.device.kvsnmp_err().count(line) == 1


def test_the_longest_texts_fit_together(bench):
    name = f"{SETTINGS}/mib_2_settings/sys_name"
    restarts = bench.device.pids("snmpd")
    bench.device.talctl("set", name, "n" * 300)
    bench.device.wait_snmpd(other_than=restarts)
    bench.device.wait_answering()
    trap = bench.trap_of("custom_msg", "y" * LONGEST)
    assert trap.value(SYS_NAME) == b"n" * 256
    restarts = bench.device.pids("snmpd")
    bench.device.talctl("set", name, SYSTEM_NAME)
    bench.device.wait_snmpd(other_than=restarts)
    bench.device.wait_answering()


def test_empty_description(bench):
    before = len(bench.traps.received)
    bench.faults.raise_one("fuse_broken", "")
    wait_until(lambda: len(bench.traps.received) > before, what="trap without a text")
    assert bench.traps.received[-1].variables[1:] == expected_variables(
        "fuse_broken", "", 2, time_text(RAISED_AT, ZONE), SYSTEM_NAME.encode("latin-1"))


def test_a_fault_is_sent_once_and_again_after_it_was_cleared(bench):
    text = "once"
    bench.trap_of("fan_speed_slow", text, level="crit")
    for level in ("err", "crit"):  # a "replace" of the same message, with another identifier
        bench.faults.raise_one("let_fail", text, level=level, replace=True)
    bench.faults.mark(bench.traps)
    assert len(bench.traps.with_description(text)) == 1
    bench.faults.clear_all([text])
    bench.faults.mark(bench.traps)
    assert len(bench.traps.with_description(text)) == 1, "no trap for an end"
    bench.faults.raise_one("let_fail", text)
    bench.faults.mark(bench.traps)
    first, second = bench.traps.with_description(text)
    assert (first.oid, second.oid) == (f"{E}.2.8.1", f"{E}.2.8.5")


def test_a_fault_that_was_replaced_before_it_could_be_sent_keeps_its_first_texts(bench):
    switch(bench.device, "Fuse Broken", False)
    bench.faults.raise_one("fuse_broken", "first text", level="crit")
    bench.device.talctl_batch([bench.faults.raise_line("fuse_broken", "first text", level="info", replace=True)])
    switch(bench.device, "Fuse Broken", True)
    bench.faults.mark(bench.traps)
    assert [trap.value(LEVEL) for trap in bench.traps.with_description("first text")] == [1]


@pytest.mark.parametrize("identifier", ["", "unknown_fault", "LET_FAIL", "let_fail_", "let-fail"])
def test_an_identifier_outside_the_catalogue_is_never_sent(bench, identifier):
    text = f"identifier {identifier!r}"
    before = len(bench.traps.received)
    bench.faults.raise_one(identifier, text)
    bench.faults.mark(bench.traps)
    assert [trap.description.partition(" ")[0] for trap in bench.traps.received[before:]] == ["mark"]


def test_a_disabled_trap_waits_and_is_sent_when_it_is_enabled(bench):
    device, faults, traps = bench.device, bench.faults, bench.traps
    switch(device, "LET Fault", False)
    texts = faults.new_texts("while disabled", 3)
    faults.raise_all("let_fail", texts)
    faults.mark(traps)
    assert traps.with_description(*texts) == []
    faults.clear_all(texts[1:2])  # a fault that ends meanwhile is never told
    switch(device, "LET Fault", True)
    traps.wait_for(texts[0], texts[2])
    switch(device, "LET Fault", False)
    later = faults.new_texts("disabled again", 1)
    faults.raise_all("let_fail", later)
    faults.mark(traps)
    assert [trap.description for trap in traps.with_description(*texts, *later)] == [texts[0], texts[2]]
    switch(device, "LET Fault", True)
    traps.wait_for(*later)


def test_every_inform_was_received_once(bench):
    """The last of the module: answered informs are not sent again."""
    texts = [trap.value(DESCRIPTION) for trap in bench.traps.received]
    wait_until(lambda: len(bench.informs.received) >= len(texts), what="as many informs as traps")
    bench.faults.mark(bench.traps)
    wait_until(lambda: len(bench.informs.received) >= len(texts) + 1, what="the inform of the mark")
    assert len(bench.informs.received) == len(bench.traps.received)
    assert {trap.kind for trap in bench.traps.received} == {"TRAP2"}
    assert {inform.kind for inform in bench.informs.received} == {"INFORM"}
