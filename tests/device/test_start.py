"""Start and end: foreground and daemon mode, pid file, exit statuses, signals, standard streams."""
from __future__ import annotations

import signal
import socket
import time

import pytest
from support.device import MODEL_NUMBER, WATCHDOG_FILE, Device
from support.polling import wait_until
from support.snmp import TABLES

ALREADY_RUNNING = "kvsnmp: Already running.\n: Success\n"  # the process could be signalled
PID_FILE = "/var/run/kvsnmp.pid"
NOTIFY = {"NOTIFY_SOCKET": "/run/notify"}


@pytest.fixture
def clean_device(start_device):
    return start_device(6410, "--no-kvsnmp", "--no-simulator", "--no-traps", "--no-dbus")


@pytest.fixture
def service_manager():
    """Makes the socket as systemd does."""
    def make(device: Device) -> socket.socket:
        made.bind(str(device.path("/run/notify")))
        return made

    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as made:
        made.settimeout(10)
        yield make


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
    device = start_device(6410, "--no-kvsnmp")
    assert device.start_kvsnmp(wrapper=["env", "--chdir=/tmp"]).wait(20) == 0  # it has gone into the background
    device.wait_answering()
    assert device.kvsnmp_out() == "kvsnmp main()\nkvsnmp: forking as daemon..\n"
    pid = device.kvsnmp_pid()
    assert device.read(PID_FILE) == f"{pid}\n"
    assert device.path(PID_FILE).stat().st_mode & 0o777 == 0o644

    links = [f"/proc/{pid}/{name}" for name in ("cwd", "fd/0", "fd/1", "fd/2")]
    assert device.run(["readlink", *links]).stdout.split() == ["/", "/dev/null", "/dev/null", "/dev/null"]
    assert device.run(["cat", f"/proc/{pid}/timerslack_ns"]).stdout == "4000000\n"

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
    kvsnmp = clean_device.start_kvsnmp("-d", env=NOTIFY)  # nobody has made the socket
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE) == "1\n"
    clean_device.kill(pid, signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert not clean_device.path(PID_FILE).exists()
    lines = clean_device.kvsnmp_err().splitlines()
    assert "QApplication*: main  Qt Event loop returned with status: 0, application exit.." in lines
    assert "QApplication main  Removing PidFile" in lines


def test_exit_statuses(clean_device, service_manager):
    clean_device.path(PID_FILE).write_text("1\n")
    assert clean_device.run_kvsnmp("--help").returncode == 0
    assert clean_device.run_kvsnmp("-x").returncode == 1
    assert clean_device.run_kvsnmp("-t").returncode in (-signal.SIGABRT, 128 + signal.SIGABRT)  # without a handler
    assert clean_device.read(PID_FILE) == "1\n"

    clean_device.path(PID_FILE).unlink()
    clean_device.path("/etc/xr-modelnumber").write_text("6214x\n")
    manager = service_manager(clean_device)
    assert clean_device.start_kvsnmp("-d", env=NOTIFY).wait(10) == 255
    assert clean_device.kvsnmp_err().endswith("readModelNumber Invalid numeric modelNumber: 6214x\n Cannot continue\n"
                                              "KvSnmp Failed to read modelNumber, cannot continue\n")
    manager.setblocking(False)
    with pytest.raises(BlockingIOError):  # no message
        manager.recv(1000)
    assert clean_device.run_kvsnmp().returncode == 0  # it fails in the background
    wait_until(lambda: not clean_device.pids("kvsnmp"), what="daemon ended")
    assert clean_device.read(PID_FILE).strip().isdigit()  # it ended before it removes its pid file

    clean_device.path("/etc/xr-modelnumber").write_text("6214\n")
    clean_device.path(PID_FILE).unlink()
    clean_device.path(PID_FILE).mkdir()  # cannot be written
    assert clean_device.run_kvsnmp().returncode == 0
    wait_until(lambda: not clean_device.pids("kvsnmp"), what="daemon without a pid file ended")


def test_service_manager_receives_ready_then_the_pulse_then_the_end(start_device, service_manager):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    manager = service_manager(device)
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True, env=NOTIFY)
    assert manager.recv(1000) == b"READY=1"
    pid = device.kvsnmp_pid()
    assert device.handles_sigterm(pid)
    device.path(WATCHDOG_FILE).unlink(missing_ok=True)
    device.shift_clock(5)
    assert manager.recv(1000) == b"WATCHDOG=1"
    wait_until(lambda: device.read(WATCHDOG_FILE) == "update\n", 1, what="watchdog file of the same tick")
    device.wait_answering()
    environment = device.run(["cat", f"/proc/{device.wait_snmpd()}/environ"]).stdout
    assert "MIBS=" in environment and "NOTIFY_SOCKET" not in environment
    device.kill(pid, signal.SIGTERM)
    assert next(text for text in iter(lambda: manager.recv(1000), None) if text != b"WATCHDOG=1") == b"STOPPING=1"
    assert kvsnmp.wait(10) == 0


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
