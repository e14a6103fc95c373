"""System messages to traps with a data service that the test plays: what the simulator never sends."""
from __future__ import annotations

import time
from xml.sax.saxutils import escape

import pytest
from support.dataservice import SETTINGS, DataService
from support.polling import stays, wait_until
from support.settingsfile import SnmpSettings
from support.traps import (CATALOGUE, DESCRIPTION, LEVEL, SYS_NAME, TIME, TrapReceiver, expected_variables,
                           send_results)

MESSAGES = "/state/sys_messages/sys_message"
BASE = SnmpSettings(sys_name="", trap_address="127.0.0.1")


class Peer:
    """The data service's side: settings and system messages."""

    def __init__(self, service: DataService) -> None:
        self.service = service
        self.settings = BASE
        self._marks = 0

    def enable_all_traps(self) -> None:
        traps = "".join(f"<trap><name>{row.switch}</name><enabled>true</enabled></trap>" for row in CATALOGUE)
        self.service.notify("trap_settings", "create", f"{SETTINGS}/trap_settings",
                            f"<trap_settings><trap_address>{self.settings.trap_address}</trap_address><inform_address/>"
                            f"<traps>{traps}</traps></trap_settings>")

    def change(self, settings: SnmpSettings) -> None:
        settings.send_changes(self.service, self.settings)
        self.settings = settings

    def message(self, op: str, path: str, node: str) -> None:
        self.service.notify("kvsnmp_sys_messages", op, path, node, subscribed=MESSAGES)

    def raise_fault(self, ref: str, text: str, identifier: str = "let_fail", op: str = "create") -> None:
        self.message(op, path_of(ref), f"<sys_message><reporter>amp</reporter><rep_ref>{escape(ref)}</rep_ref>"
                                       f"<msgdata><{identifier}/></msgdata><text>{escape(text)}</text>"
                                       "<timestamp>0</timestamp><level>crit</level></sys_message>")

    def mark(self, receiver: TrapReceiver) -> None:
        """Raises one more fault and waits for its trap: what was to come before it has come."""
        self._marks += 1
        self.raise_fault(f"mark {self._marks}", f"mark {self._marks}", "custom_msg")
        receiver.wait_for(f"mark {self._marks}")


def path_of(ref: str) -> str:
    return f"{MESSAGES}[reporter='amp'][rep_ref='{ref}']"


@pytest.fixture(scope="module")
def scripted(start_shared_device):
    """A device that got its traps' switches and three faults, one of them ended, before any other setting."""
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps")
    receiver = TrapReceiver(device)
    service = DataService(device.path("/run/tal.sock"))
    peer = Peer(service)
    wait_until(lambda: service.has("kvsnmp_sys_messages"), 15, what="system messages subscribed")
    peer.enable_all_traps()
    for number in (1, 2, 3):
        peer.raise_fault(f"early {number}", f"early {number}")
    peer.message("delete", path_of("early 2"), "")
    wait_until(lambda: "onReportFault Remove Fault: [amp] [early 2]\n" in device.kvsnmp_err(), what="faults taken in")
    assert "Starting kvAgent" not in device.kvsnmp_out() and not device.pids("snmpd")
    BASE.send_all(service)
    device.wait_answering()
    yield device, peer, receiver
    service.close()


def test_faults_from_before_the_agent_was_started_are_sent_as_soon_as_it_can(scripted):
    device, peer, receiver = scripted
    peer.mark(receiver)
    assert [trap.description for trap in receiver.received] == ["early 1", "early 3", "mark 1"]
    assert send_results(device, "early 3") == ["SUCCESS"]


def test_without_a_system_name_there_is_no_sysname(scripted):
    _, _, receiver = scripted
    trap, = receiver.with_description("early 1")
    assert trap.variables[1:] == expected_variables("let_fail", "early 1", 1, trap.value(TIME))


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


def test_deleting_one_leaf_of_a_message_reads_as_the_end_of_the_whole_message(scripted):
    _, peer, receiver = scripted
    peer.raise_fault("8", "one leaf")
    peer.raise_fault("8", "one leaf", op="replace")
    peer.mark(receiver)
    assert len(receiver.with_description("one leaf")) == 1
    peer.message("delete", path_of("8") + "/timestamp", "<timestamp>0</timestamp>")
    peer.raise_fault("8", "one leaf", op="replace")
    peer.mark(receiver)
    assert len(receiver.with_description("one leaf")) == 2


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


def test_a_message_with_nothing_but_its_identifier(scripted):
    """Keys in the path alone: no text, the current time, unclassified."""
    _, peer, receiver = scripted
    before = len(receiver.received)
    peer.message("create", path_of("bare"), "<sys_message><msgdata><fuse_broken/></msgdata></sys_message>")
    peer.mark(receiver)
    trap = receiver.received[before]
    assert (trap.value(LEVEL), trap.value(DESCRIPTION)) == (3, b"")
    assert str(time.localtime().tm_year).encode() in trap.value(TIME)


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
             ("x" * 256, b"x" * 256),
             ("é" + "y" * 299, b"\xe9" + b"y" * 255),
             ("", None)]
    assert system_name_of(peer, receiver) is None
    for name, sent in names:
        snmpd = device.wait_snmpd()
        peer.change(SnmpSettings(sys_name=name, trap_address="127.0.0.1"))
        device.wait_snmpd(other_than=[snmpd])
        device.wait_answering()
        assert system_name_of(peer, receiver) == sent, name


def test_a_custom_configuration_empties_the_system_name(scripted):
    device, peer, receiver = scripted
    named = SnmpSettings(sys_name="amp-8", trap_address="127.0.0.1")
    snmpd = device.wait_snmpd()
    peer.change(named)
    device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()
    assert system_name_of(peer, receiver) == b"amp-8"
    snmpd = device.wait_snmpd()
    peer.change(SnmpSettings(sys_name="amp-8", trap_address="127.0.0.1", custom_config="true"))
    stays(lambda: device.pids("snmpd") == [snmpd], 0.5, what="snmpd runs on with the file as it is")
    assert system_name_of(peer, receiver) is None
    peer.change(named)
    device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()
    assert system_name_of(peer, receiver) == b"amp-8"
