"""The system bus absent, silent, killed, hung and restarted, and messages of others on it. The unit tests of the link
check signatures, numbers, and monitors that come and go."""
from __future__ import annotations

import contextlib
import signal
import socket
import threading
import time

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS
from support.device import MODEL_NUMBER, Device
from support.polling import stays, wait_until
from support.process import processor_seconds

BUS = ["dbus-daemon", "--config-file=/etc/dbus-1/device.conf", "--nofork", "--nopidfile"]
BUS_SOCKET = "/run/dbus/system_bus_socket"
OUTPUT = f"{COLUMN_OIDS['controlOutputState']}.3"  # the monitor's number 2
UNKNOWN, SET = 1, 3

_marks = iter(range(1, 1000000))


def output_state(device: Device) -> int:
    device.shift_clock(steps.CACHE_SECONDS)
    return steps.integers(device, [OUTPUT])[0]


# Other senders


# The daemon has one of the bus's first connections; each dbus-send has the next one.
FIRST = range(6)
FORGED = ["onGpoUpdate uint32:2 string:ok_cleared string:ok_cleared", "onGpiUpdate uint32:2 string:forged",
          "onAmpChannelStatusUpdate uint32:0 uint32:1", "onLetPrecenseUpdate uint32:0 uint32:1 uint32:1"]
BROADCAST = [f"dbus-send --system --type=signal /monitor com.orvane.pamon.{announcement}" for announcement in FORGED]
ASK_BUS = "dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus"
# Announces, as only the bus itself may, that the next but six owns the monitor's name.
CHANGE_OWNER = "\n".join([
    f"""n=$({ASK_BUS}.GetId | sed -n 's/.*destination=:1.\\([0-9]*\\).*/\\1/p')""",
    *(f"dbus-send --system --type=signal --dest=:1.{number} /org/freedesktop/DBus "
      "org.freedesktop.DBus.NameOwnerChanged string:com.orvane.pamon string:$owner string::1.$((n + 7))" for number in FIRST)])
OTHERS = {
    "broadcast": BROADCAST,
    # The bus does not filter these.
    "to the daemon alone": [command.replace(" /monitor", f" --dest=:1.{number} /monitor")
                            for number in FIRST for command in BROADCAST],
    "as the new owner of the name": [
        f"owner=$({ASK_BUS}.GetNameOwner string:com.orvane.pamon | sed -n 's/ *string \"\\(.*\\)\"/\\1/p')",
        *(f"{CHANGE_OWNER}\n{command}" for command in BROADCAST)],
    # It has none, and answers with an error.
    "calls of methods": [f"dbus-send --system --type=method_call --dest=:1.{number} /monitor "
                         "com.orvane.pamon.doPaUiDbusConnected" for number in FIRST],
}


@pytest.fixture(scope="module")
def linked(start_shared_device):
    device = start_shared_device(6420, "--no-traps", "--clock-shift").wait_answering().wait_subscribed()
    ask = ";".join(f"{ASK_BUS}.GetConnectionUnixProcessID string::1.{number}" for number in FIRST)
    assert str(device.kvsnmp_pid()) in device.run(["sh", "-c", ask], check=False).stdout.split()
    return device


@pytest.mark.parametrize("commands", OTHERS.values(), ids=OTHERS)
def test_messages_of_others_are_dropped(linked, commands):
    steps.apply(linked, [["monitor", "gpo", "2", "ok_set"]])
    before = len(linked.kvsnmp_err())
    linked.run(["sh", "-e", "-c", "\n".join(commands)])
    linked.carry_out([], dbus=True)
    lines = [line for line in linked.kvsnmp_err()[before:].splitlines() if line.startswith("dbusDo")]
    assert len(lines) == 1 and "GPI: 99 " in lines[0]
    assert output_state(linked) == SET


# The bus


def assert_serves(device: Device) -> None:
    """A value of the data service reaches the manager, and the fault list."""
    value = next(_marks) * 1000
    steps.apply(device, [steps.put("/state/power_lines/power_line[kid='3v3']/voltage", str(value // 1000))], dbus=False)
    assert steps.integers(device, [f"{COLUMN_OIDS['voltageValue']}.3"]) == [value]


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


@pytest.fixture(scope="module", autouse=True)
def unanswered(start_shared_device):
    """Started before all tests: two daemons whose bus does not answer at all, or not after the handshake."""
    devices = [start_shared_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp") for _ in range(2)]
    with contextlib.ExitStack() as stack:
        for device, answers in zip(devices, ([], HANDSHAKE)):
            server = stack.enter_context(socket.socket(socket.AF_UNIX))
            stack.callback(server.shutdown, socket.SHUT_RDWR)
            path = device.path(BUS_SOCKET)
            path.parent.mkdir(parents=True, exist_ok=True)
            server.bind(str(path))
            server.listen()
            threading.Thread(target=converse, args=(server, answers), daemon=True).start()
            device.start_kvsnmp("-d", clock_shift=True)
        yield devices


@pytest.mark.parametrize("killed", [False, True], ids=["absent at the start", "killed"])
def test_bus_that_is_not_there(start_device, killed):
    """The daemon works without announcements. It does not connect to a bus that starts later, until its own restart."""
    device = start_device(6420, "--no-traps", "--clock-shift", *([] if killed else ["--no-dbus"]))
    device.wait_answering().wait_subscribed()
    if killed:
        steps.apply(device, [["monitor", "gpo", "2", "ok_set"]])
        device.kill_and_wait(device.pids("dbus-daemon")[0])
        device.path(BUS_SOCKET).unlink(missing_ok=True)
    assert_idle(device)
    assert_serves(device)
    assert output_state(device) == (SET if killed else UNKNOWN)  # the last announcement stays
    device.popen(BUS)
    wait_until(device.path(BUS_SOCKET).exists, what="bus running")
    monitor = ["talctl", "monitor", "gpi", "99"]  # the device's simulator returns to a bus that it had
    if not killed:
        device.popen(["talservice", "--model", "6420", "--socket", "/run/unused", "--control", "/run/monitor"])
        monitor[1:1] = ["--control", "/run/monitor"]
    wait_until(lambda: device.run([*monitor, "unheard"], check=False).returncode == 0, 10, what="monitor on the bus")
    stays(lambda: "State: unheard" not in device.kvsnmp_err(), 1, what="no connection")
    assert_serves(device)
    device.end_kvsnmp()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    device.run([*monitor, "heard"])
    wait_until(lambda: "GPI: 99 State: heard\n" in device.kvsnmp_err(), 5, what="announcement received")


def test_bus_that_hangs_while_the_daemon_runs(linked):
    """The daemon does not wait for it; announcements arrive afterwards."""
    bus, = linked.pids("dbus-daemon")
    linked.kill(bus, signal.SIGSTOP)
    begin = time.monotonic()
    assert_serves(linked)
    assert_idle(linked)
    assert time.monotonic() - begin < 15
    linked.kill(bus, signal.SIGCONT)
    steps.apply(linked, [["monitor", "gpo", "2", "ok_set"]])
    assert output_state(linked) == SET


def test_bus_that_does_not_answer_at_the_start(unanswered):
    """After 25 s the daemon works as without a bus."""
    for device in unanswered:
        device.wait_answering(45).wait_subscribed()
        assert_serves(device)
        assert_idle(device)
