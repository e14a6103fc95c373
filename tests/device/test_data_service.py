"""The data service killed, restarted, hung, absent, and sending without an end."""
from __future__ import annotations

import contextlib
import signal
import socket
import threading
import time

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS
from support.dataservice import DataService
from support.device import MODEL_NUMBER, WATCHDOG_FILE, Device
from support.played import Played
from support.polling import stays, wait_until
from support.process import descriptors, lean_environment, memory_kb
from support.traps import Faults, send_results

TAL_SOCKET = "/run/tal.sock"
VOLTAGE = f"{COLUMN_OIDS['voltageValue']}.3"
VOLTAGE_PATH = "/state/power_lines/power_line[kid='3v3']/voltage"
OVER_LONG = f"TalInterface: message of the data service dropped: longer than {4 * 1024 * 1024} bytes"
CLOSED = "TalInterface: connection closed:"
NO_CONNECTION = "TalInterface: no connection to"
ANSWER = ("INTEGER", "6420")
MORE_MEMORY_KB = 64 * 1024  # than before; a message may be 4 MiB, and its text is held in two encodings


# The simulator, killed and hung


def start_simulator(device: Device, voltage: str) -> None:
    device.popen(["talservice", "--model", "6420", "--socket", TAL_SOCKET, "--control", "/run/talcontrol.sock", "--bus",
                  "none", "--set", f"{VOLTAGE_PATH}={voltage}"])
    wait_until(lambda: device.pids("talservice"), what="data service running")


def shows(device: Device, millivolts: int) -> bool:
    device.shift_clock(steps.CACHE_SECONDS)
    return device.snmp.try_get(VOLTAGE) == ("Gauge32", str(millivolts))


@pytest.fixture(scope="module")
def simulated(start_shared_device):
    """The tests start its simulator."""
    device = start_shared_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--clock-shift")
    start_simulator(device, "3.300")
    device.wait_answering().wait_subscribed()
    return device


def test_values_of_a_killed_service_stay_until_the_next_one_reports(simulated):
    """So do faults: one that the next service reports, too, is not sent again."""
    pid, = simulated.pids("talservice")
    wait_until(lambda: shows(simulated, 3300), 20, what="value before")
    faults = Faults(simulated)
    faults.raise_one("custom_msg", "present all the time")
    lost = simulated.kvsnmp_err().count(f"{CLOSED} by the data service\n")
    failures = simulated.kvsnmp_err().count(NO_CONNECTION)
    snmpd = simulated.wait_snmpd()
    simulated.kill(pid, signal.SIGKILL)
    wait_until(lambda: simulated.kvsnmp_err().count(f"{CLOSED} by the data service\n") == lost + 1, what="loss noticed")
    stays(lambda: shows(simulated, 3300), 2.5, what="last value served")
    assert simulated.kvsnmp_err().count(NO_CONNECTION) == failures + 1  # one attempt each second, one line
    start_simulator(simulated, "3.401")
    wait_until(lambda: shows(simulated, 3401), 20, what="value of the new service")
    assert simulated.pids("snmpd") == [snmpd]  # the same settings, so nothing is written and nothing restarted
    for text in ("present all the time", "new"):
        faults.raise_one("custom_msg", text)
    wait_until(lambda: send_results(simulated, "new") == ["SUCCESS"], what="trap of another fault")
    assert send_results(simulated, "present all the time") == ["SUCCESS"]


def test_hung_service_delays_its_own_values_only_and_may_be_killed(simulated):
    pid, = simulated.pids("talservice")
    simulated.kill(pid, signal.SIGSTOP)
    watchdog = simulated.path(WATCHDOG_FILE)
    before = watchdog.stat().st_mtime_ns
    begin = time.monotonic()
    order = simulated.popen(["talctl", "set", VOLTAGE_PATH, "3.502"])  # waits for the hung service
    wait_until(lambda: watchdog.stat().st_mtime_ns > before, 10, what="watchdog file written")
    while time.monotonic() < begin + 3:
        assert simulated.snmp.try_get(MODEL_NUMBER) == ANSWER
    assert not shows(simulated, 3502)
    simulated.kill(pid, signal.SIGCONT)
    assert order.wait(10) == 0
    wait_until(lambda: shows(simulated, 3502), 20, what="value of the service that goes on")
    simulated.kill(pid, signal.SIGSTOP)
    simulated.kill(pid, signal.SIGKILL)
    start_simulator(simulated, "3.603")
    wait_until(lambda: shows(simulated, 3603), 20, what="value of the new service")


# A service that the test plays


def test_gibibyte_without_a_nul_is_cut_at_four_mebibytes(start_device):
    """The service would send 1 GiB on each of four connections. The daemon closes each once it holds 4 MiB, answers
    managers meanwhile, and keeps neither memory nor a descriptor."""
    device = start_device(6420, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp")
    fed = Played(device)
    fed.start(env=lean_environment())
    device.wait_answering()
    fed.wait_subscribed()
    pid = device.kvsnmp_pid()
    memory, opened = memory_kb(device, pid), descriptors(device, pid)
    sent: list[int] = []

    def send() -> None:
        for number in range(4):
            wait_until(lambda number=number: fed.service.connections == 1 + number, 10, what="connected again")
            sent.append(0)
            with contextlib.suppress(OSError):
                while sent[-1] < 1024:
                    fed.service.send(b"x" * (1 << 20))
                    sent[-1] += 1
        wait_until(lambda: fed.service.connections == 5, 10, what="connected again")
        fed.service.subscriptions.clear()

    work = threading.Thread(target=send)
    work.start()
    while work.is_alive():
        assert device.snmp.try_get(MODEL_NUMBER) == ANSWER
    fed.wait_subscribed()
    fed.wait_received()
    assert len(sent) == 4 and max(sent) <= 8, sent  # MiB: the limit, and the socket's own buffer
    assert device.kvsnmp_err().count(OVER_LONG) == 4
    assert memory_kb(device, pid) - memory < MORE_MEMORY_KB
    wait_until(lambda: descriptors(device, pid) == opened, what="no descriptor more than before")
    fed.service.notify("kvsnmp_voltage", "replace", VOLTAGE_PATH, "<voltage>5</voltage>")
    fed.wait_received()
    assert shows(device, 5000)
    fed.service.close()


# No service, or something else in its place


def test_service_that_listens_and_never_accepts(start_device):
    """With its queue full a connection is refused at once and tried again; in the queue it waits without blocking."""
    device = start_device(6410, "--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp")
    path = device.path(TAL_SOCKET)
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as listener:
        listener.bind(str(path))
        listener.listen(0)
        first = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        first.connect(str(path))  # the one place in the queue
        device.start_kvsnmp("-d")
        failure = f"{NO_CONNECTION} /run/tal.sock yet: Resource temporarily unavailable\n"
        wait_until(lambda: failure in device.kvsnmp_err(), what="failure logged")
        wait_until(device.path(WATCHDOG_FILE).exists, 8, what="watchdog file written")
        first.close()
        listener.accept()[0].close()
        listener.settimeout(5)
        accepted, _ = listener.accept()
        accepted.settimeout(5)
        requests = b""
        while b"<ref>mib2_settings</ref>" not in requests:
            chunk = accepted.recv(65536)
            assert chunk, requests
            requests += chunk
        accepted.close()
    path.unlink()
    service = DataService(path)
    wait_until(lambda: service.has("custom_config"), 5, what="settings subscribed with a proper service")
    service.close()
