"""From a fault in the data service to what a manager receives: every message identifier, every value of a trap; and
system messages that the simulator never sends, from a data service that the test plays."""
from __future__ import annotations

import datetime
import itertools
from xml.sax.saxutils import escape

import pytest
from support.catalogue import TRAP_OF, TRAPS
from support.dataservice import SETTINGS
from support.played import MESSAGES, Played
from support.polling import wait_until
from support.settingsfile import SnmpSettings
from support.traps import (DESCRIPTION, SYS_NAME, SYS_UP_TIME, TIME, Faults, TrapReceiver, expected_variables,
                           send_results, time_text)

TRAP_PORT, INFORM_PORT = 1162, 1163
ZONE = datetime.timezone(datetime.timedelta(hours=3, minutes=30))  # unlikely on a machine that runs the tests
RAISED_AT = 1717228923
SYSTEM_NAME = "Gebäude 7"
LONGEST = 64000  # bytes of a description


class Bench:
    """A device with one receiver for traps, and one for informs that decodes them with the MIB."""

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

    def trap_of(self, identifier: str, text: str, received: str = ""):
        """Raises a fault and returns its only trap."""
        self.faults.raise_one(identifier, text)
        trap, = self.traps.wait_for(received or text)
        return trap


@pytest.fixture(scope="module")
def bench(start_shared_device):
    return Bench(start_shared_device)


@pytest.fixture(scope="module")
def one_of_each(bench):
    """A fault of every message identifier, raised together; their traps and informs."""
    texts = {identifier: f"text of {identifier}" for identifier in TRAP_OF}
    bench.device.talctl_batch([bench.faults.raise_line(identifier, text) for identifier, text in texts.items()])
    traps = bench.traps.wait_for(*texts.values())
    wait_until(lambda: len(bench.informs.received) >= len(texts), what="as many informs")
    return traps, list(bench.informs.received)


def test_each_message_identifier_is_received_as_its_notification_in_order(one_of_each):
    traps, _ = one_of_each
    assert len(traps) == len(TRAP_OF)
    for identifier, trap in zip(TRAP_OF, traps):
        up_time, *rest = trap.variables
        assert trap.kind == "TRAP2" and (up_time.oid, up_time.type) == (SYS_UP_TIME, "Timeticks")
        # Latin-1 for the system name, UTF-8 for the text of the fault.
        assert rest == expected_variables(identifier, f"text of {identifier}", 2, time_text(RAISED_AT, ZONE),
                                          SYSTEM_NAME.encode("latin-1"))


def test_all_twenty_are_decoded_by_name_with_the_mib(one_of_each):
    _, informs = one_of_each
    names = []
    for inform in informs:
        values = [variable.value for variable in inform.variables]
        labels = [variable.oid.removeprefix("KVSNMP-MIB::") for variable in inform.variables]
        assert [label.rpartition("::")[2] for label in labels] == [
            "sysUpTime.0", "snmpTrapOID.0", "trapProduct.0", "trapHostName.0", "sysName", "trapLevel.0", "trapTime.0",
            "trapDescription.0"]
        names.append(values[1])
        assert (inform.kind, values[5]) == ("INFORM", "error")
    assert sorted(names) == sorted(f"KVSNMP-MIB::{trap.name}" for trap in TRAP_OF.values())


@pytest.mark.parametrize("text", ["Lüfter 1 steht – Ω 温度 ✓ 𝄞", "first line\nsecond \"line\" of 100 %1 %s\\",
                                  "ü" * (LONGEST // 2)], ids=["UTF-8", "marks", "the longest"])
def test_description_is_received_as_it_was_raised(bench, text):
    assert bench.trap_of("custom_msg", text).value(DESCRIPTION) == text.encode()


def test_a_description_that_is_too_long_is_cut_after_a_character(bench):
    """Received as a trap here, as an inform in the last test of the bench."""
    kept = "cut ".ljust(LONGEST - 1, "x")
    trap = bench.trap_of("custom_msg", kept + "ü" * 468000, received=kept)
    assert trap.value(DESCRIPTION) == kept.encode()
    line = f"sendTrap: description cut from {LONGEST + 935999} to {LONGEST - 1} bytes\n"
    assert bench.device.kvsnmp_err().count(line) == 1


def test_the_longest_texts_fit_together(bench):
    snmpd = bench.device.pids("snmpd")
    bench.device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_name", "n" * 300)
    bench.device.wait_snmpd(other_than=snmpd)
    bench.device.wait_answering()
    assert bench.trap_of("custom_msg", "longest ".ljust(LONGEST, "y")).value(SYS_NAME) == b"n" * 256


def test_every_inform_was_received_once(bench):
    """The last of the bench: answered informs are not sent again."""
    count = len(bench.traps.received)
    wait_until(lambda: len(bench.informs.received) >= count, what="as many informs as traps")
    bench.faults.mark(bench.traps)
    wait_until(lambda: len(bench.informs.received) >= count + 1, what="the inform of the mark")
    assert len(bench.informs.received) == len(bench.traps.received)
    assert {trap.kind for trap in bench.traps.received} == {"TRAP2"}
    assert {inform.kind for inform in bench.informs.received} == {"INFORM"}


# A data service that the test plays


_marks = itertools.count(1)
TRAPS_TO = "127.0.0.1"


def path_of(ref: str) -> str:
    return f"{MESSAGES}[reporter='amp'][rep_ref='{ref}']"


class Peer(Played):
    """Sends system messages."""

    def enable_all_traps(self) -> None:
        traps = "".join(f"<trap><name>{trap.switch}</name><enabled>true</enabled></trap>" for trap in TRAPS)
        self.service.notify("trap_settings", "create", f"{SETTINGS}/trap_settings",
                            f"<trap_settings><trap_address>{self.sent.trap_address}</trap_address><inform_address/>"
                            f"<traps>{traps}</traps></trap_settings>")

    def message(self, op: str, path: str, node: str) -> None:
        self.service.notify("kvsnmp_sys_messages", op, path, node, subscribed=MESSAGES)

    def raise_fault(self, ref: str, text: str, identifier: str = "let_fail") -> None:
        self.message("create", path_of(ref), f"<sys_message><reporter>amp</reporter><rep_ref>{escape(ref)}</rep_ref>"
                                             f"<msgdata><{identifier}/></msgdata><text>{escape(text)}</text>"
                                             "<timestamp>0</timestamp><level>crit</level></sys_message>")

    def mark(self, receiver: TrapReceiver) -> None:
        """Raises one more fault and waits for its trap, so that all earlier traps have arrived."""
        text = f"mark {next(_marks)}"
        self.raise_fault(text, text, "custom_msg")
        receiver.wait_for(text)


@pytest.fixture(scope="module")
def scripted(start_shared_device):
    """A device that received its traps' switches and three faults, one of them ended, before any other setting."""
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    receiver = TrapReceiver(device)
    peer = Peer(device, SnmpSettings(sys_name="", trap_address=TRAPS_TO))
    peer.wait_subscribed()
    peer.enable_all_traps()
    for number in (1, 2, 3):
        peer.raise_fault(f"early {number}", f"early {number}")
    peer.message("delete", path_of("early 2"), "")
    wait_until(lambda: "onReportFault Remove Fault: [amp] [early 2]\n" in device.kvsnmp_err(), what="faults received")
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
    assert trap.variables[1:] == expected_variables("let_fail", "early 1", 1, trap.value(TIME)), "without sysName"


def test_a_fault_that_ended_while_the_data_service_was_away_is_not_sent_when_it_is_raised_again(scripted):
    device, peer, receiver = scripted
    service = peer.service
    peer.raise_fault("stays", "present all the time")
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    service.subscriptions.clear()
    service.hang_up()
    wait_until(lambda: service.has("kvsnmp_sys_messages"), 15, what="system messages subscribed again")
    peer.enable_all_traps()
    peer.raise_fault("stays", "present all the time")  # active faults are reported again
    peer.raise_fault("new", "raised meanwhile")
    peer.mark(receiver)
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    for text in ("present all the time", "ends unseen", "raised meanwhile"):
        assert len(receiver.with_description(text)) == 1, text
    # From now on it is a fault like any other. Its end names the two keys in the other order.
    peer.message("delete", f"{MESSAGES}[rep_ref='ends'][reporter='amp']", "")
    peer.raise_fault("ends", "ends unseen")
    peer.mark(receiver)
    assert len(receiver.with_description("ends unseen")) == 2
