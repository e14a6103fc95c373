"""Start and end: foreground and daemon mode, pid file, exit statuses, signals, standard streams."""
from __future__ import annotations

import signal
import socket
import time
from contextlib import contextmanager

import pytest
from support.device import MODEL_NUMBER, Device
from support.disk import SmallDisk
from support.polling import wait_until
from support.snmp import TABLES

ALREADY_RUNNING = "kvsnmp: Already running.\n: Success\n"  # the process could be signalled
STARTING = "info: Starting snmpd (snmpd.conf from TAL)"
PID_FILE = "/var/run/kvsnmp.pid"
WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"


@pytest.fixture(scope="module")
def idle_device(start_shared_device):
    """A device without a daemon."""
    return start_shared_device(6410, "--no-kvsnmp", "--no-simulator", "--no-traps", "--no-dbus")


@pytest.fixture
def clean_device(idle_device):
    """The idle device without the files of earlier tests."""
    for name in ("/var/log/kvsnmp.out", "/var/log/kvsnmp.err", PID_FILE):
        idle_device.path(name).unlink(missing_ok=True)
    return idle_device


def test_foreground_answers_within_six_seconds_and_ends_with_all_its_lines(start_device):
    device = start_device(6420, "--kvsnmp-arg=-z", wait=False)
    device.wait_ready().wait_answering()
    first_answer = time.monotonic() - device.started
    print(f"first answer after {first_answer:.2f} s")
    assert first_answer < 6.0
    assert device.kvsnmp_out().startswith("kvsnmp main()\nkvsnmp: forking as application..\n")
    assert not device.path(PID_FILE).exists()
    device.wait_subscribed()
    assert "<request><ref>mib2_settings</ref>" in device.kvsnmp_err()  # the option -z

    line, last_row = "voltageTable_get_next_data_point()\n", f"{TABLES}.4.2.1.3.13"
    before, pid, snmpd = device.kvsnmp_out().count(line), device.kvsnmp_pid(), device.wait_snmpd()
    device.run(["sh", "-c", f"snmpget -v2c -c public 127.0.0.1 {last_row} && kill {pid}"])
    assert device.kvsnmp_status() == 0
    assert device.kvsnmp_out().count(line) == before + 13
    assert device.pids("snmpd") == [snmpd]  # the daemon leaves snmpd running
    wait_until(lambda: device.snmp.get(MODEL_NUMBER) != [("INTEGER", "6420")], 5, what="sub-agent gone")


def test_daemon_answers_and_holds_a_pid_file(start_device):
    device = start_device(6410, "--daemon").wait_answering()
    assert device.kvsnmp_status() == 0  # the process that went into the background
    assert device.kvsnmp_out() == "kvsnmp main()\nkvsnmp: forking as daemon..\n"
    pid = device.kvsnmp_pid()
    assert device.read(PID_FILE) == f"{pid}\n"
    assert device.path(PID_FILE).stat().st_mode & 0o777 == 0o644

    second = device.run_kvsnmp()
    assert (second.returncode, second.stdout, second.stderr) == (1, "kvsnmp main()\n", ALREADY_RUNNING)
    assert device.pids("kvsnmp") == [pid]
    assert device.read(PID_FILE) == f"{pid}\n"

    links = [f"/proc/{pid}/{name}" for name in ("cwd", "fd/0", "fd/1", "fd/2")]
    assert device.run(["readlink", *links]).stdout.split() == ["/", "/dev/null", "/dev/null", "/dev/null"]

    device.kill(pid, signal.SIGTERM)
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    assert not device.path(PID_FILE).exists()


def test_pid_file_of_a_live_process_blocks_a_daemon_and_that_of_a_dead_one_does_not(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    for stream in ("", ">&-", ">/var/log/kvsnmp.out", ">/dev/full"):
        second = clean_device.run(["sh", "-c", f"kvsnmp {stream}"], check=False)
        assert (second.returncode, second.stderr) == (1, ALREADY_RUNNING), stream
    assert clean_device.read(PID_FILE) == "1\n"

    clean_device.path(PID_FILE).write_text("99999\n")
    assert clean_device.run_kvsnmp().returncode == 0
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE).startswith(f"{pid}\n")
    clean_device.end_kvsnmp()
    assert not clean_device.path(PID_FILE).exists()


def test_signal_before_the_agent_is_started_ends_a_foreground_run_which_removes_a_daemons_pid_file(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    kvsnmp = clean_device.start_kvsnmp("-d", wrapper=["bash", "-c", 'exec -a other "$@"', "-"],
                                       env={"QT_MESSAGE_PATTERN": "%{appname}: %{message}"})
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE) == "1\n"
    clean_device.kill(pid, signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert not clean_device.path(PID_FILE).exists()
    lines = clean_device.kvsnmp_err().splitlines()
    assert "kvsnmp: QApplication*: main  Qt Event loop returned with status: 0, application exit.." in lines
    assert "kvsnmp: QApplication main  Removing PidFile" in lines
    assert all(line.startswith("kvsnmp: ") for line in lines)


# Exit statuses


@contextmanager
def model_number(device: Device, text: str):
    file = device.path("/etc/xr-modelnumber")
    kept = file.read_text()
    file.write_text(text)
    yield
    file.write_text(kept)


def test_bad_model_number_ends_with_255(clean_device):
    with model_number(clean_device, "6214x\n"):
        done = clean_device.run_kvsnmp("-d")
        assert done.returncode == 255
        assert done.stderr.endswith("readModelNumber Invalid numeric modelNumber: 6214x\n Cannot continue\n"
                                    "KvSnmp Failed to read modelNumber, cannot continue\n")
        assert clean_device.run_kvsnmp().returncode == 0  # it fails in the background
        wait_until(lambda: not clean_device.pids("kvsnmp"), what="daemon ended")
    assert clean_device.read(PID_FILE).strip().isdigit()  # it ended before it removes its pid file


def test_options_that_end_it(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    assert clean_device.run_kvsnmp("--help").returncode == 0
    assert clean_device.run_kvsnmp("-x").returncode == 1
    assert clean_device.run_kvsnmp("-t").returncode in (-signal.SIGABRT, 128 + signal.SIGABRT)  # without a handler
    assert clean_device.read(PID_FILE) == "1\n"


# The service manager


class ServiceManager:
    """Its socket, as systemd makes one."""

    def __init__(self, device: Device) -> None:
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.settimeout(10)
        self.socket.bind(str(device.path("/run/notify")))

    def message(self, other_than: str = "") -> str:
        while (text := self.socket.recv(1000).decode()) == other_than:
            pass
        return text


def test_service_manager_receives_ready_then_the_pulse_then_the_end(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    manager = ServiceManager(device)
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True, env={"NOTIFY_SOCKET": "/run/notify"})
    assert manager.message() == "READY=1"
    pid = device.kvsnmp_pid()
    assert device.handles_sigterm(pid)
    device.path(WATCHDOG_FILE).unlink(missing_ok=True)
    device.shift_clock(5)
    assert manager.message() == "WATCHDOG=1"
    wait_until(lambda: device.read(WATCHDOG_FILE) == "update\n", 1, what="watchdog file of the same tick")
    device.wait_answering()
    environment = device.run(["cat", f"/proc/{device.wait_snmpd()}/environ"]).stdout
    assert "MIBS=" in environment and "NOTIFY_SOCKET" not in environment
    device.kill(pid, signal.SIGTERM)
    assert manager.message(other_than="WATCHDOG=1") == "STOPPING=1"
    assert kvsnmp.wait(10) == 0


def test_service_manager_receives_nothing_of_a_daemon_that_cannot_start(clean_device):
    manager = ServiceManager(clean_device)
    with model_number(clean_device, "9999\n"):
        assert clean_device.start_kvsnmp("-d", env={"NOTIFY_SOCKET": "/run/notify"}).wait(10) == 255
    manager.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        manager.message()


# What it cannot write to


@pytest.mark.parametrize("command", ["exec kvsnmp -d > /dev/full 2>&1", "exec kvsnmp <&- >&- 2>&-"],
                         ids=["full disk", "daemon, all closed"])
def test_unusable_streams_do_not_end_it(start_device, command):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    shell = device.popen(["sh", "-c", command])
    device.wait_answering()
    assert len(device.snmp.walk()) > 50
    if "-d" not in command:
        assert shell.wait(10) == 0
        links = [f"/proc/{device.kvsnmp_pid()}/fd/{number}" for number in range(3)]
        assert device.run(["readlink", *links]).stdout.split() == ["/dev/null"] * 3


def test_full_var_run_ends_a_daemon_and_snmpd_without_pid_file_is_started_again(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    link = device.root / "var/run"  # apart from /run with the device's own sockets
    link.unlink()
    link.mkdir()
    disk = SmallDisk(device, "/var/run")
    disk.fill()
    assert device.run_kvsnmp().returncode == 0  # it fails in the background
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    assert disk.read("kvsnmp.pid") == ""
    device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: STARTING in device.syslog_texts(), 10, what="start of snmpd")
    device.wait_answering()
    disk.free()
    snmpd, = device.pids("snmpd")
    device.kill(snmpd, signal.SIGKILL)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd gone")
    device.shift_clock(601)  # the health probe
    wait_until(lambda: device.pids("snmpd") not in ([], [snmpd]), 10, what="another snmpd")
    device.wait_answering()
    device.end_kvsnmp()
    assert device.run_kvsnmp().returncode == 0
    device.wait_answering()
    assert disk.read("kvsnmp.pid") == f"{device.kvsnmp_pid()}\n"
