"""The system bus absent, killed and restarted, and wrong messages on it. The unit tests of the link hold it to
signatures and numbers, and to monitors that come and go."""
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

    def accepts() -> bool:
        try:
            BusClient(device.path(BUS_SOCKET)).close()
            return True
        except OSError:
            return False

    wait_until(accepts, what="bus running")
    return bus


def start_monitor(device: Device) -> BusClient:
    monitor = BusClient(device.path(BUS_SOCKET))
    monitor.own(MONITOR)
    return monitor


def receives(device: Device, monitor: BusClient) -> bool:
    """Whether the daemon logs an announcement of the monitor within a second."""
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

    def wait_received(self) -> None:
        """Until the daemon has received an announcement that comes after all others."""
        self.stranger.sync()
        assert receives(self.device, self.monitor)

    def set_output(self, state: str) -> None:
        self.monitor.announce("onGpoUpdate", "uss", 2, state, state)
        self.wait_received()
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

FORGED = [("onGpoUpdate", "uss", 2, "ok_cleared", "ok_cleared"), ("onGpiUpdate", "us", 2, "forged"),
          ("onAmpChannelStatusUpdate", "uu", 0, 1), ("onLetPrecenseUpdate", "uuu", 0, 1, 1)]


def names_on_the_bus(linked: Linked) -> list[str]:
    """All names so far, the daemon's included; each connection gets the next number."""
    probe = BusClient(linked.device.path(BUS_SOCKET))
    probe.close()
    return [f":1.{number}" for number in range(int(probe.name.rpartition(".")[2]) + 1)]


def broadcast(linked: Linked) -> None:
    for announcement in FORGED:
        for _ in range(100):
            linked.stranger.announce(*announcement)


def to_the_daemon_alone(linked: Linked) -> None:
    """The bus does not filter these."""
    for name in names_on_the_bus(linked):
        for announcement in FORGED:
            linked.stranger.announce(*announcement, destination=name)


def as_the_new_owner(linked: Linked) -> None:
    """Announces that it owns the monitor's name, as only the bus itself may."""
    for name in ["", *names_on_the_bus(linked)]:
        linked.stranger.announce("NameOwnerChanged", "sss", MONITOR, linked.monitor.name, linked.stranger.name,
                                 destination=name, path="/org/freedesktop/DBus", interface="org.freedesktop.DBus")
    broadcast(linked)


def calls_of_methods(linked: Linked) -> None:
    """The daemon has none: it answers with an error."""
    for name in names_on_the_bus(linked):
        linked.stranger.call("doPaUiDbusConnected", destination=name)


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


@pytest.mark.parametrize("send", [broadcast, to_the_daemon_alone, as_the_new_owner, calls_of_methods, no_messages],
                         ids=lambda send: send.__name__)
def test_messages_of_others_are_dropped(linked, send):
    linked.set_output("ok_set")
    before = len(linked.device.kvsnmp_err())
    send(linked)
    linked.wait_received()
    lines = [line for line in linked.device.kvsnmp_err()[before:].splitlines() if line.startswith("dbusDo")]
    assert len(lines) == 1 and "GPI: 99 " in lines[0]
    assert output_state(linked.device) == SET


HUGE = 0xFFFFFFFF
SENSELESS = [("onGpoUpdate", "uss", HUGE, "ok_set", "ok_set"), ("onGpoUpdate", "uss", 1, "x" * 1000000, "%s%n"),
             ("onGpiUpdate", "us", HUGE, "\u20ac" * 20), ("onAmpChannelStatusUpdate", "uu", 2, HUGE),
             ("onLetPrecenseUpdate", "uuu", HUGE, 11, HUGE), ("onGpoUpdate", "us", 2, "ok_cleared"),
             ("onNothing", "s", "x")]


def test_senseless_announcements_of_the_monitor_change_no_row(linked):
    """Every value is still one that the MIB allows."""
    device = linked.device
    rows = [variable.oid for variable in device.snmp.walk()]
    for member, signature, *values in SENSELESS:
        linked.monitor.announce(member, signature, *values)
    linked.wait_received()
    device.shift_clock(steps.CACHE_SECONDS)
    walked = device.snmp.walk()
    assert [variable.oid for variable in walked] == rows
    assert [complaint for variable in walked if (complaint := mib().complaint(variable))] == []
    linked.monitor.close()
    linked.monitor = start_monitor(device)  # another one, with the same name
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
    """Accepts one connection after the other, and answers the lines that begin with these words."""
    with contextlib.suppress(OSError):
        for connection in iter(lambda: server.accept()[0], None):
            while said := connection.recv(4096):
                said = said.lstrip(b"\0")
                connection.sendall(next((answer for begin, answer in answers if said.startswith(begin)), b""))


def test_bus_that_does_not_answer_at_the_start(start_device):
    """At all, or after the handshake. After 25 s the daemon works as without a bus."""
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
    """The daemon works without announcements. It does not connect to a bus that starts later, until its own restart."""
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    if killed:
        bus, monitor = start_bus(device), start_monitor(device)
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering().wait_subscribed()
    if killed:
        monitor.announce("onGpoUpdate", "uss", 2, "ok_set", "ok_set")
        assert receives(device, monitor) and output_state(device) == SET
        device.kill(device.pids("dbus-daemon")[0], signal.SIGKILL)
        bus.wait(10)
    assert_idle(device)
    assert_serves(device)
    assert output_state(device) == (SET if killed else UNKNOWN)  # the last announcement stays
    start_bus(device)
    monitor = start_monitor(device)
    assert not receives(device, monitor)
    assert_serves(device)
    device.end_kvsnmp()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    assert receives(device, monitor)


def test_bus_that_hangs_while_the_daemon_runs(linked):
    """The daemon does not wait for it; announcements arrive afterwards."""
    bus, = linked.device.pids("dbus-daemon")
    linked.device.kill(bus, signal.SIGSTOP)
    begin = time.monotonic()
    linked.monitor.announce("onGpoUpdate", "uss", 2, "ok_set", "ok_set")
    assert_serves(linked.device)
    assert_idle(linked.device)
    assert time.monotonic() - begin < 15
    linked.device.kill(bus, signal.SIGCONT)
    linked.set_output("ok_set")
