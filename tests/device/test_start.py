"""Start and end: foreground and daemon mode, pid file, exit statuses, signals, standard streams."""
from __future__ import annotations

import os
import signal
import socket
import time
from contextlib import contextmanager

import pytest
from devicelib import settings
from support.device import MODEL_NUMBER, Device
from support.disk import SmallDisk
from support.polling import wait_until
from support.snmp import TABLES

USAGE = ("\nUsage: kvsnmp options\n"
         "\nOptions:\n"
         "  -h  --help         Display this usage information.\n"
         "  -t  --testmode     Run in Audio testmode, Not implemented!\n"
         "  -d  --daemon       Dont run as an daemon\n"
         "\n")
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
    for name in ("/var/log/kvsnmp.out", "/var/log/kvsnmp.err", PID_FILE, WATCHDOG_FILE):
        path = idle_device.path(name)
        if path.is_dir():
            path.rmdir()
        path.unlink(missing_ok=True)
    return idle_device


# Adopts the daemon whose parent has ended, and prints the exit statuses of both.
ADOPT = """
import ctypes, os, sys
PR_SET_CHILD_SUBREAPER = 36
assert ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) == 0
parent = os.spawnvp(os.P_NOWAIT, sys.argv[1], sys.argv[1:])
ends = os.waitpid(parent, 0), os.wait()
print(*(os.waitstatus_to_exitcode(status) for _, status in ends))
"""


# Start


def test_foreground_answers_within_six_seconds(start_device):
    device = start_device(6420, wait=False)
    device.wait_ready().wait_answering()
    first_answer = time.monotonic() - device.started
    print(f"first answer after {first_answer:.2f} s")
    assert first_answer < 6.0
    assert device.kvsnmp_out().startswith("kvsnmp main()\nkvsnmp: forking as application..\n")
    assert not device.path(PID_FILE).exists()


def test_daemon_answers_and_holds_a_pid_file(start_device):
    device = start_device(6410, "--daemon").wait_answering()
    assert device.kvsnmp_status() == 0  # the process that went into the background
    assert device.kvsnmp_out() == "kvsnmp main()\nkvsnmp: forking as daemon..\n"
    pid = device.kvsnmp_pid()
    assert device.read(PID_FILE) == f"{pid}\n"
    assert device.path(PID_FILE).stat().st_mode & 0o777 == 0o644

    second = device.run_kvsnmp()
    assert second.returncode == 1
    assert second.stdout == "kvsnmp main()\n"
    assert second.stderr == ALREADY_RUNNING
    assert device.pids("kvsnmp") == [pid]
    assert device.read(PID_FILE) == f"{pid}\n"

    links = [f"/proc/{pid}/{name}" for name in ("cwd", "fd/0", "fd/1", "fd/2")]
    assert device.run(["readlink", *links]).stdout.split() == ["/", "/dev/null", "/dev/null", "/dev/null"]

    device.kill(pid, signal.SIGTERM)
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    assert not device.path(PID_FILE).exists()


@pytest.mark.parametrize("ending, status", [(signal.SIGTERM, 0), (signal.SIGABRT, -signal.SIGABRT)])
def test_lines_of_requests_are_complete(start_device, ending, status):
    """When there is no more traffic, and when the daemon ends or crashes right after a request."""
    device = start_device(6420, "--no-traps").wait_answering().wait_subscribed()
    line = "voltageTable_get_next_data_point()\n"
    last_row = f"{TABLES}.4.2.1.3.13"
    before = device.kvsnmp_out().count(line)
    device.snmp.get(last_row)
    wait_until(lambda: device.kvsnmp_out().count(line) == before + 13, 5, what="13 lines")
    pid = device.kvsnmp_pid()
    device.run(["sh", "-c", f"snmpget -v2c -c public 127.0.0.1 {last_row} && kill -{ending.value} {pid}"])
    assert device.kvsnmp_status() == status
    assert device.kvsnmp_out().count(line) == before + 26


def test_foreground_run_removes_a_daemons_pid_file_when_it_ends(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    kvsnmp = clean_device.start_kvsnmp("-d")
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE) == "1\n"
    clean_device.kill(pid, signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert not clean_device.path(PID_FILE).exists()


def test_pid_file_of_a_dead_process_does_not_block_a_daemon(clean_device):
    clean_device.path(PID_FILE).write_text("99999\n")
    first = clean_device.run_kvsnmp()
    assert (first.returncode, first.stdout) == (0, "kvsnmp main()\nkvsnmp: forking as daemon..\n")
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE).startswith(f"{pid}\n")
    clean_device.kill(pid, signal.SIGTERM)
    wait_until(lambda: not clean_device.pids("kvsnmp"), what="daemon ended")
    assert not clean_device.path(PID_FILE).exists()


def test_pid_file_of_a_live_process_blocks_a_daemon(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    for stream in ("", ">&-", ">/var/log/kvsnmp.out", ">/dev/full"):
        second = clean_device.run(["sh", "-c", f"kvsnmp {stream}"], check=False)
        assert (second.returncode, second.stderr) == (1, ALREADY_RUNNING), stream
    assert clean_device.read(PID_FILE) == "1\n"


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
        # The daemon ends before it removes its pid file.
        both = clean_device.run(["/usr/bin/python3", "-c", ADOPT, "kvsnmp"], env=settings.kvsnmp_environment(False, ""))
        assert both.stdout.split()[-2:] == ["0", "255"]
    assert clean_device.read(PID_FILE).strip().isdigit()


ABORTED = {-signal.SIGABRT, 128 + signal.SIGABRT}


@pytest.mark.parametrize("option, statuses, usage", [
    ("--help", {0}, "stdout"), ("-x", {1}, "stderr"), ("-t", ABORTED, "")])  # without a handler
def test_option_that_ends_it(clean_device, option, statuses, usage):
    clean_device.path(PID_FILE).write_text("1\n")
    done = clean_device.run_kvsnmp(option)
    assert done.returncode in statuses
    assert done.stdout == "kvsnmp main()\n" + (USAGE if usage == "stdout" else "")
    assert done.stderr.endswith(USAGE) if usage == "stderr" else USAGE not in done.stderr
    assert usage != "stdout" or done.stderr == ""
    assert clean_device.read(PID_FILE) == "1\n"


@pytest.mark.parametrize("options", [["--kvsnmp-arg=-z"], []], ids=["-z", "none"])
def test_taldebug_prints_what_the_data_service_library_does(start_device, options):
    device = start_device(6410, *options).wait_subscribed()
    assert ("<request><ref>mib2_settings</ref>" in device.kvsnmp_err()) == bool(options)


# Signals


def test_signal_ends_it_before_the_agent_is_started_and_its_name_is_kvsnmp(clean_device):
    kvsnmp = clean_device.start_kvsnmp("-d", wrapper=["bash", "-c", 'exec -a other "$@"', "-"],
                                       env={"QT_MESSAGE_PATTERN": "%{appname}: %{message}"})
    clean_device.kill(clean_device.wait_running(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    lines = clean_device.kvsnmp_err().splitlines()
    assert "kvsnmp: QApplication*: main  Qt Event loop returned with status: 0, application exit.." in lines
    assert "kvsnmp: QApplication main  Removing PidFile" in lines
    assert all(line.startswith("kvsnmp: ") for line in lines)


def test_signals_end_a_serving_daemon(start_device):
    device = start_device(6420, "--no-kvsnmp")
    snmpd = 0
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        kvsnmp = device.start_kvsnmp("-d")
        snmpd = device.wait_snmpd(other_than=[snmpd])
        device.wait_answering()
        device.kill(device.kvsnmp_pid(), number)
        assert kvsnmp.wait(10) == 0, number
        assert device.pids("snmpd") == [snmpd]  # the daemon leaves snmpd running
        wait_until(lambda: device.snmp.get(MODEL_NUMBER) != [("INTEGER", "6420")], 5, what="sub-agent gone")


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


# Standard streams


@pytest.fixture
def silent_device(start_device):
    return start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")


@pytest.mark.parametrize("command", ["exec kvsnmp -d > /dev/full 2>&1", "kvsnmp -d 2>&1 | head -n 1 > /tmp/first",
                                     "exec kvsnmp <&- >&- 2>&-"],
                         ids=["full disk", "closed pipe", "daemon, all closed"])
def test_unusable_streams_do_not_end_it(silent_device, command):
    shell = silent_device.popen(["sh", "-c", command])
    silent_device.wait_answering()
    assert len(silent_device.snmp.walk()) > 50
    if "head" in command:
        assert silent_device.read("/tmp/first") == "kvsnmp main()\n"
    if "-d" not in command:
        assert shell.wait(10) == 0
        links = [f"/proc/{silent_device.kvsnmp_pid()}/fd/{number}" for number in range(3)]
        assert silent_device.run(["readlink", *links]).stdout.split() == ["/dev/null"] * 3


def test_a_pipe_that_is_full_from_the_start_does_not_block_it(silent_device):
    read, write = os.pipe()
    os.set_blocking(write, False)
    with pytest.raises(BlockingIOError):
        while True:
            os.write(write, b"x" * 4096)
    os.set_blocking(write, True)
    silent_device.popen(["kvsnmp", "-d"], stdout=write, stderr=write)
    os.close(write)
    silent_device.wait_answering()
    cells = silent_device.snmp.walk()
    printed = 0
    while printed < 4 * 65536:  # a pipe holds 65536 bytes, and each step of a walk prints a line
        assert silent_device.snmp.walk() == cells
        printed += len(cells) * len("voltageTable_get_next_data_point()\n")
    os.close(read)


# A full and a read-only /var/run


def run_disk(start_device) -> tuple[Device, SmallDisk]:
    """/var/run on a small disk, apart from /run with the device's own sockets."""
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    link = device.root / "var/run"
    link.unlink()
    link.mkdir()
    return device, SmallDisk(device, "/var/run")


def test_full_var_run_ends_a_daemon_and_snmpd_without_pid_file_is_started_again(start_device):
    device, disk = run_disk(start_device)
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


def test_read_only_var_run_ends_a_daemon_and_not_a_foreground_run(start_device):
    device, disk = run_disk(start_device)
    disk.protect()
    assert device.run_kvsnmp().returncode == 0
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: STARTING in device.syslog_texts(), 10, what="start of snmpd")
    disk.protect(False)
    if not device.pids("snmpd"):  # it ends when it cannot write its pid file; the health probe finds it missing
        device.shift_clock(601)
    device.wait_answering()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
