"""The system bus absent, killed and restarted, and what other senders, or the monitor itself, may put on it."""
from __future__ import annotations

import contextlib
import signal
import socket
import subprocess
import threading
import time

import pytest
from support import steps
from support.bus import BUS_SOCKET, MONITOR, BusClient
from support.catalogue import COLUMN_OIDS
from support.device import MODEL_NUMBER, Device
from support.mib import mib
from support.polling import stays, wait_until
from support.process import processor_seconds

OUTPUT = f"{COLUMN_OIDS['controlOutputState']}.3"  # the monitor's number 2
UNKNOWN, CLEARED, SET = 1, 2, 3
STATES = {"ok_set": SET, "ok_cleared": CLEARED}

_marks = iter(range(1, 1000000))


def start_bus(device: Device) -> subprocess.Popen:
    bus = device.popen(["dbus-daemon", "--config-file=/etc/dbus-1/device.conf", "--nofork", "--nopidfile"])

    def lets_in() -> bool:
        try:
            BusClient(device.path(BUS_SOCKET)).close()
            return True
        except OSError:
            return False

    wait_until(lets_in, what="bus running")
    return bus


def start_monitor(device: Device) -> BusClient:
    monitor = BusClient(device.path(BUS_SOCKET))
    monitor.own(MONITOR)
    return monitor


def hears(device: Device, monitor: BusClient) -> bool:
    """Whether an announcement of the monitor, which the daemon logs, arrives within a second."""
    mark = f"mark{next(_marks)}"
    monitor.announce("onGpiUpdate", "us", 99, mark)
    try:
        wait_until(lambda: f"dbusDoGpiUpdateSlot GPI: 99 State: {mark}\n" in device.kvsnmp_err(), 1)
        return True
    except AssertionError:
        return False


def output_state(device: Device) -> int:
    device.shift_clock(steps.CACHE_SECONDS)
    return steps.integers(device, [OUTPUT])[0]


class Linked:
    def __init__(self, device: Device) -> None:
        self.device = device
        self.monitor = start_monitor(device)
        self.stranger = BusClient(device.path(BUS_SOCKET))

    def wait_taken(self) -> None:
        """Until the daemon has heard the monitor after all that was sent before."""
        self.stranger.sync()
        assert hears(self.device, self.monitor)

    def set_output(self, state: str) -> None:
        self.monitor.announce("onGpoUpdate", "uss", 2, state, state)
        self.wait_taken()
        assert output_state(self.device) == STATES[state]


@pytest.fixture(scope="module")
def linked(start_shared_device):
    device = start_shared_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    start_bus(device)
    link = Linked(device)
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering().wait_subscribed()
    return link


# Other senders

FORGED = {
    "output": ("onGpoUpdate", "uss", 2, "ok_cleared", "ok_cleared"),
    "input": ("onGpiUpdate", "us", 2, "forged"),
    "channel": ("onAmpChannelStatusUpdate", "uu", 0, 1),
    "let": ("onLetPrecenseUpdate", "uuu", 0, 1, 1),
}


def names_on_the_bus(linked: Linked) -> list[str]:
    """All that it has given so far, the daemon's among them; each connection gets the next number."""
    probe = BusClient(linked.device.path(BUS_SOCKET))
    probe.close()
    return [f":1.{number}" for number in range(int(probe.name.rpartition(".")[2]) + 1)]


def broadcast(linked: Linked) -> None:
    for announcement in FORGED.values():
        for _ in range(100):
            linked.stranger.announce(*announcement)


def to_the_daemon_alone(linked: Linked) -> None:
    """No filter of the bus stands before it."""
    for name in names_on_the_bus(linked):
        for announcement in FORGED.values():
            linked.stranger.announce(*announcement, destination=name)


def as_the_new_owner(linked: Linked) -> None:
    """Says that the monitor's name is its own now, as only the bus itself may."""
    for name in ["", *names_on_the_bus(linked)]:
        linked.stranger.announce("NameOwnerChanged", "sss", MONITOR, linked.monitor.name, linked.stranger.name,
                                 destination=name, path="/org/freedesktop/DBus", interface="org.freedesktop.DBus")
    broadcast(linked)


def calls_of_methods(linked: Linked) -> None:
    """The daemon offers none: a call is answered with an error."""
    for name in names_on_the_bus(linked):
        linked.stranger.call("doPaUiDbusConnected", destination=name)


def wrong_signatures(linked: Linked) -> None:
    for member, signature, *values in GARBAGE:
        linked.monitor.announce(member, signature, *values)


def no_messages(linked: Linked) -> None:
    """Invalid UTF-8 in a text, a message cut off, no message at all: the bus ends their sender."""
    for raw in (None, b"l\4\0\1\xff\xff\xff\xff" + b"\0" * 64, b"\0" * 64):
        offender = BusClient(linked.device.path(BUS_SOCKET))
        if raw is None:
            offender.announce("onGpiUpdate", "us", 2, b"\xff\xfe")
        else:
            offender.send_raw(raw)
        assert not offender.is_connected()
        offender.close()


GARBAGE = [
    ("onGpoUpdate", ""), ("onGpoUpdate", "us", 2, "ok_cleared"), ("onGpoUpdate", "sss", "2", "ok_cleared", "ok_cleared"),
    ("onGpoUpdate", "iss", 2, "ok_cleared", "ok_cleared"), ("onGpoUpdate", "uoo", 2, "/ok", "/ok"),
    ("onGpiUpdate", "su", "x", 2), ("onAmpChannelStatusUpdate", "ii", -1, -1), ("onLetPrecenseUpdate", "uui", 0, 1, -1),
    ("onPowerConsumptionUpdate", "ss", "much", "more"), ("onNothing", "s", "x"), ("PropertiesChanged", "s", "x"),
]


@pytest.mark.parametrize("send", [broadcast, to_the_daemon_alone, as_the_new_owner, calls_of_methods, wrong_signatures,
                                  no_messages], ids=lambda send: send.__name__)
def test_what_is_no_announcement_of_the_monitor_is_dropped(linked, send):
    linked.set_output("ok_set")
    said = len(linked.device.kvsnmp_err())
    send(linked)
    linked.wait_taken()
    lines = [line for line in linked.device.kvsnmp_err()[said:].splitlines() if line.startswith("dbusDo")]
    assert len(lines) == 1 and "GPI: 99 " in lines[0]
    assert output_state(linked.device) == SET


HUGE = 0xFFFFFFFF
SENSELESS = [
    ("onGpoUpdate", "uss", HUGE, "ok_set", "ok_set"), ("onGpoUpdate", "uss", 6, "", ""),
    ("onGpoUpdate", "uss", 1, "x" * 1000000, "%s%n"), ("onGpiUpdate", "us", HUGE, "\u20ac" * 20),
    ("onAmpChannelStatusUpdate", "uu", HUGE, 1), ("onAmpChannelStatusUpdate", "uu", 2, HUGE),
    ("onAmpChannelStatusUpdate", "uu", 0, HUGE), ("onLetPrecenseUpdate", "uuu", HUGE, 1, 1),
    ("onLetPrecenseUpdate", "uuu", 0, HUGE, 1), ("onLetPrecenseUpdate", "uuu", 0, 11, 1),
    ("onLetPrecenseUpdate", "uuu", 2, 1, 1), ("onLetPrecenseUpdate", "uuu", 0, 1, HUGE),
]


def test_senseless_values_of_the_monitor_stay_out_of_the_tables(linked):
    """Numbers beyond the rows change nothing; every value served is one that the MIB allows."""
    device = linked.device
    rows = [variable.oid for variable in device.snmp.walk()]
    for member, signature, *values in SENSELESS:
        linked.monitor.announce(member, signature, *values)
    linked.wait_taken()
    device.shift_clock(steps.CACHE_SECONDS)
    walked = device.snmp.walk()
    assert [variable.oid for variable in walked] == rows
    assert [complaint for variable in walked if (complaint := mib().complaint(variable))] == []
    linked.set_output("ok_cleared")


def test_monitor_that_goes_and_comes_back_is_heard_again(linked):
    linked.set_output("ok_set")
    linked.monitor.close()
    linked.stranger.sync()
    assert output_state(linked.device) == SET  # what it has said last stays
    linked.monitor = start_monitor(linked.device)
    linked.set_output("ok_cleared")


# The bus


def assert_serves(device: Device) -> None:
    """A value of the data service reaches the manager, and the fault list."""
    voltage = f"{COLUMN_OIDS['voltageValue']}.3"
    value = next(_marks) * 1000
    steps.apply(device, [steps.put("/state/power_lines/power_line[kid='3v3']/voltage", str(value // 1000))], dbus=False)
    assert steps.integers(device, [voltage]) == [value]


def assert_idle(device: Device) -> None:
    """No busy loop over a connection that is gone."""
    pid = device.kvsnmp_pid()
    before = processor_seconds(device, pid)
    stays(lambda: device.snmp.try_get(MODEL_NUMBER) == ("INTEGER", str(device.model)), 2.0, 0.2, what="answers")
    assert processor_seconds(device, pid) - before < 0.8


HANDSHAKE = [(b"AUTH EXTERNAL ", b"OK 0123456789abcdef0123456789abcdef\r\n"), (b"AUTH", b"REJECTED EXTERNAL\r\n"),
             (b"NEGOTIATE_UNIX_FD", b"AGREE_UNIX_FD\r\n")]


def converse(server: socket.socket, answers: list[tuple[bytes, bytes]]) -> None:
    """Lets everybody in, one after the other, and answers the lines that begin as told."""
    with contextlib.suppress(OSError):
        for connection in iter(lambda: server.accept()[0], None):
            while said := connection.recv(4096):
                said = said.lstrip(b"\0")
                connection.sendall(next((answer for begin, answer in answers if said.startswith(begin)), b""))


def test_bus_that_does_not_answer_at_the_start(start_device):
    """At all, or after the handshake. It is given up after 25 s; then the daemon works as without a bus."""
    devices = [(start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp"), answers) for answers in ([], HANDSHAKE)]
    with contextlib.ExitStack() as stack:
        for device, answers in devices:
            server = stack.enter_context(socket.socket(socket.AF_UNIX))
            stack.callback(server.shutdown, socket.SHUT_RDWR)
            path = device.path(BUS_SOCKET)
            path.parent.mkdir(parents=True, exist_ok=True)
            server.bind(str(path))
            server.listen()
            threading.Thread(target=converse, args=(server, answers), daemon=True).start()
            device.start_kvsnmp("-d", clock_shift=True)
        for device, _ in devices:
            device.wait_answering(45).wait_subscribed()
            assert_serves(device)
            assert_idle(device)


@pytest.mark.parametrize("killed", [False, True], ids=["absent at the start", "killed"])
def test_bus_that_is_not_there(start_device, killed):
    """The daemon works without announcements, and hears none of a bus that comes later until its own restart."""
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    if killed:
        bus, monitor = start_bus(device), start_monitor(device)
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering().wait_subscribed()
    if killed:
        monitor.announce("onGpoUpdate", "uss", 2, "ok_set", "ok_set")
        assert hears(device, monitor) and output_state(device) == SET
        device.kill(device.pids("dbus-daemon")[0], signal.SIGKILL)
        bus.wait(10)
    assert_idle(device)
    assert_serves(device)
    assert output_state(device) == (SET if killed else UNKNOWN)  # what was announced last stays
    start_bus(device)
    monitor = start_monitor(device)
    assert not hears(device, monitor)
    assert_serves(device)
    device.end_kvsnmp()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    assert hears(device, monitor)


def test_bus_that_hangs_while_the_daemon_runs(linked):
    """Nothing is asked of it, so nothing waits for it; what was announced meanwhile arrives afterwards."""
    bus, = linked.device.pids("dbus-daemon")
    linked.device.kill(bus, signal.SIGSTOP)
    begin = time.monotonic()
    linked.monitor.announce("onGpoUpdate", "uss", 2, "ok_set", "ok_set")
    assert_serves(linked.device)
    assert_idle(linked.device)
    assert time.monotonic() - begin < 15
    linked.device.kill(bus, signal.SIGCONT)
    linked.set_output("ok_set")
