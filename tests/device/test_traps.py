"""From a fault in the data service to what a manager receives: every message identifier, every value of a trap; and system
messages that the simulator never sends, from a data service that the test plays."""
from __future__ import annotations

import datetime
import itertools
import time
from xml.sax.saxutils import escape

import pytest
from support.played import MESSAGES, Played
from support.polling import stays, wait_until
from support.settingsfile import SnmpSettings
from support.traps import (CATALOGUE, DESCRIPTION, E, LEVEL, ROW_OF, SETTINGS, SYS_NAME, SYS_UP_TIME, TIME, Faults,
                           TrapReceiver, Variable, expected_variables, send_results, switch, time_text)

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


@pytest.mark.parametrize("level, number", [("crit", 1), ("err", 2), ("warning", 4), ("notice", 5), ("error", 3)])
def test_severity_of_each_kind_of_level(bench, level, number):
    trap = bench.trap_of("let_fail", f"level {level!r}", level=level)
    assert [variable for variable in trap.variables if variable.oid == LEVEL] == [Variable(LEVEL, "INTEGER", number)]


@pytest.mark.parametrize("text, seconds", [("0x665ad57b", 0x665ad57b), ("60 seconds", 60), ("yesterday", 0), ("-1", -1)])
def test_time_text(bench, text, seconds):
    assert bench.trap_of("let_fail", f"time {text!r}", timestamp=text).value(TIME) == time_text(seconds, ZONE)


def test_an_empty_time_text_is_now(bench):
    before = int(time.time())
    trap = bench.trap_of("let_fail", "time empty", timestamp="")
    assert trap.value(TIME) in [time_text(second, ZONE) for second in range(before, int(time.time()) + 1)]


@pytest.mark.parametrize("text", [
    "Lüfter 1 steht – Ω 温度 ✓", 'quotes " and \' and \\', "100 %1 %s %2", " blanks around ", "first line\nsecond line",
    "x" * LONGEST, "ü" * (LONGEST // 2),
], ids=["UTF-8", "quotes", "percent signs", "blanks", "line feed", "the longest", "the longest of two bytes a character"])
def test_description_is_received_as_it_was_raised(bench, text):
    assert bench.trap_of("custom_msg", text).value(DESCRIPTION) == text.encode()


@pytest.mark.parametrize("kept, rest", [
    (LONGEST, "x"), (LONGEST - 1, "ü"), (LONGEST - 2, "✓"), (LONGEST - 3, "𝄞"), (LONGEST, "x" * 936000)
], ids=["one byte too long", "in two bytes", "in three bytes", "in four bytes", "1 MB"])
def test_a_description_that_is_too_long_is_cut_after_a_character(bench, kept, rest):
    """Received as a trap here, as an inform in the last test; one line in the log for each."""
    begin = bench.faults.new_texts("cut", 1)[0].ljust(kept, "x")
    bench.faults.raise_one("custom_msg", begin + rest)
    trap, = bench.traps.wait_for(begin)
    assert trap.value(DESCRIPTION) == begin.encode()
    line = f"sendTrap: description cut from {kept + len(rest.encode())} to {kept} bytes\n"
    assert bench.device.kvsnmp_err().count(line) == 1


def test_the_longest_texts_fit_together(bench):
    for name, received in (("n" * 300, b"n" * 256), (SYSTEM_NAME, SYSTEM_NAME.encode("latin-1"))):
        restarts = bench.device.pids("snmpd")
        bench.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", name)
        bench.device.wait_snmpd(other_than=restarts)
        bench.device.wait_answering()
        assert bench.trap_of("custom_msg", f"{len(received)} ".ljust(LONGEST, "y")).value(SYS_NAME) == received


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


@pytest.mark.parametrize("identifier", ["", "unknown_fault", "LET_FAIL", "let_fail_"])
def test_an_identifier_outside_the_catalogue_is_never_sent(bench, identifier):
    before = len(bench.traps.received)
    bench.faults.raise_one(identifier, f"identifier {identifier!r}")
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


# A data service that the test plays


_marks = itertools.count(1)
BASE = SnmpSettings(sys_name="", trap_address="127.0.0.1")


class Peer(Played):
    """Sends system messages."""

    def enable_all_traps(self) -> None:
        traps = "".join(f"<trap><name>{row.switch}</name><enabled>true</enabled></trap>" for row in CATALOGUE)
        self.service.notify("trap_settings", "create", f"{SETTINGS}/trap_settings",
                            f"<trap_settings><trap_address>{self.sent.trap_address}</trap_address><inform_address/>"
                            f"<traps>{traps}</traps></trap_settings>")

    def message(self, op: str, path: str, node: str) -> None:
        self.service.notify("kvsnmp_sys_messages", op, path, node, subscribed=MESSAGES)

    def raise_fault(self, ref: str, text: str, identifier: str = "let_fail", op: str = "create") -> None:
        self.message(op, path_of(ref), f"<sys_message><reporter>amp</reporter><rep_ref>{escape(ref)}</rep_ref>"
                                       f"<msgdata><{identifier}/></msgdata><text>{escape(text)}</text>"
                                       "<timestamp>0</timestamp><level>crit</level></sys_message>")

    def mark(self, receiver: TrapReceiver) -> None:
        """Raises one more fault and waits for its trap: what was to come before it has come."""
        text = f"mark {next(_marks)}"
        self.raise_fault(text, text, "custom_msg")
        receiver.wait_for(text)


def path_of(ref: str) -> str:
    return f"{MESSAGES}[reporter='amp'][rep_ref='{ref}']"


@pytest.fixture(scope="module")
def scripted(start_shared_device):
    """A device that got its traps' switches and three faults, one of them ended, before any other setting."""
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    receiver = TrapReceiver(device)
    peer = Peer(device, BASE)
    peer.wait_subscribed()
    peer.enable_all_traps()
    for number in (1, 2, 3):
        peer.raise_fault(f"early {number}", f"early {number}")
    peer.message("delete", path_of("early 2"), "")
    wait_until(lambda: "onReportFault Remove Fault: [amp] [early 2]\n" in device.kvsnmp_err(), what="faults taken in")
    assert "Starting kvAgent" not in device.kvsnmp_out() and not device.pids("snmpd")
    peer.send()
    device.wait_answering()
    yield device, peer, receiver
    peer.service.close()


def test_faults_from_before_the_agent_was_started_are_sent_as_soon_as_it_can(scripted):
    device, peer, receiver = scripted
    peer.mark(receiver)
    assert [trap.description for trap in receiver.received] == ["early 1", "early 3", "mark 1"]
    assert send_results(device, "early 3") == ["SUCCESS"]
    trap = receiver.received[0]
    assert trap.variables[1:] == expected_variables("let_fail", "early 1", 1, trap.value(TIME)), "no sysName without a name"


@pytest.mark.parametrize("data", ["", "<sys_message><reporter>amp</reporter><rep_ref>7</rep_ref></sys_message>"],
                         ids=["without the node", "with the node"])
@pytest.mark.parametrize("order", ["[reporter='amp'][rep_ref='{}']", "[rep_ref='{}'][reporter='amp']"],
                         ids=["reporter first", "reference first"])
def test_both_orders_of_the_predicates_end_a_fault(scripted, order, data):
    _, peer, receiver = scripted
    peer.raise_fault("7", "ended")
    peer.mark(receiver)
    before = len(receiver.with_description("ended"))
    peer.message("delete", MESSAGES + order.format("7"), data)
    peer.raise_fault("7", "ended")
    peer.mark(receiver)
    assert len(receiver.with_description("ended")) == before + 1
    peer.message("delete", path_of("7"), "")


def test_a_fault_that_ended_while_the_data_service_was_away_is_not_sent_when_it_is_raised_again(scripted):
    device, peer, receiver = scripted
    service = peer.service
    peer.raise_fault("stays", "present all the time")
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    service.subscriptions.clear()
    service.hang_up()
    wait_until(lambda: service.has("kvsnmp_sys_messages"), 15, what="system messages subscribed anew")
    peer.enable_all_traps()
    peer.raise_fault("stays", "present all the time")  # what is there is reported anew, what has ended is not there
    peer.raise_fault("new", "raised meanwhile")
    peer.mark(receiver)
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    for text in ("present all the time", "ends unseen", "raised meanwhile"):
        assert len(receiver.with_description(text)) == 1, text
    peer.message("delete", path_of("ends"), "")  # from now on it is a fault like any other
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    assert len(receiver.with_description("ends unseen")) == 2


@pytest.mark.parametrize("op, path, node", [
    ("create", MESSAGES, "<sys_message><reporter>amp</reporter><msgdata><let_fail/></msgdata><text>stray</text>"
                         "</sys_message>"),
    ("replace", f"{MESSAGES}[reporter='amp']", "<sys_message><msgdata><let_fail/></msgdata><text>stray</text>"
                                               "</sys_message>"),
    ("patch", path_of("9"), "<sys_message><msgdata><let_fail/></msgdata><text>stray</text></sys_message>"),
    ("create", path_of("10"), "<sys_message><msgdata/><text>stray</text></sys_message>"),
], ids=["no reference", "no reference, one predicate", "unknown operation", "no identifier"])
def test_an_incomplete_message_sends_nothing(scripted, op, path, node):
    _, peer, receiver = scripted
    before = len(receiver.received)
    peer.message(op, path, node)
    peer.mark(receiver)
    assert [trap.description[:4] for trap in receiver.received[before:]] == ["mark"]


def system_name_of(peer: Peer, receiver: TrapReceiver) -> bytes | None:
    """The system name that a trap carries now."""
    peer.mark(receiver)
    trap = receiver.received[-1]
    assert len(trap.variables) == (7 if trap.value(SYS_NAME) is None else 8)
    return trap.value(SYS_NAME)


def test_the_system_name_is_carried_from_when_it_is_set(scripted):
    device, peer, receiver = scripted
    names = [("amp-7", b"amp-7"),
             ("Gebäude 7, 🎤", "Gebäude 7, ??".encode("latin-1")),  # on purpose; each half of a surrogate pair is a "?"
             ("é" + "y" * 299, b"\xe9" + b"y" * 255),
             ("", None)]
    assert system_name_of(peer, receiver) is None
    for name, sent in names:
        snmpd = device.wait_snmpd()
        peer.change(SnmpSettings(sys_name=name, trap_address="127.0.0.1"))
        device.wait_snmpd(other_than=[snmpd])
        device.wait_answering()
        assert system_name_of(peer, receiver) == sent, name
    # A custom configuration empties it.
    snmpd = device.wait_snmpd()
    peer.change(SnmpSettings(sys_name="amp-8", trap_address="127.0.0.1"))
    snmpd = device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()
    assert system_name_of(peer, receiver) == b"amp-8"
    peer.change(SnmpSettings(sys_name="amp-8", trap_address="127.0.0.1", custom_config="true"))
    stays(lambda: device.pids("snmpd") == [snmpd], 0.5, what="snmpd runs on with the file as it is")
    assert system_name_of(peer, receiver) is None
