"""Start and end: foreground and daemon mode, pid file, exit statuses, signals, standard output, watchdog file."""
from __future__ import annotations

import os
import signal
import socket
import time

import pytest
from devicelib import settings
from support.device import MODEL_NUMBER, Device
from support.polling import wait_until

USAGE = ("\nUsage: kvsnmp options\n"
         "\nOptions:\n"
         "  -h  --help         Display this usage information.\n"
         "  -t  --testmode     Run in Audio testmode, Not implemented!\n"
         "  -d  --daemon       Dont run as an daemon\n"
         "\n")
ALREADY_RUNNING = "kvsnmp: Already running.\n: Success\n"  # the process could be signalled
PID_FILE = "/var/run/kvsnmp.pid"
WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"


@pytest.fixture(scope="module")
def idle_device(start_shared_device):
    """A device without a daemon, for those that end by themselves."""
    return start_shared_device(6410, "--no-kvsnmp", "--no-simulator", "--no-traps", "--no-dbus")


@pytest.fixture
def clean_device(idle_device):
    """The idle device, without what an earlier test left in it."""
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


def exit_statuses(device: Device) -> list[int]:
    """Of the process that goes into the background, and of the daemon that it leaves there, which ends by itself."""
    done = device.run(["/usr/bin/python3", "-c", ADOPT, "kvsnmp"], env=settings.kvsnmp_environment(False, ""))
    return [int(status) for status in done.stdout.split()[-2:]]


# Start


def test_foreground_answers_within_six_seconds(start_device, record_property):
    device = start_device(6420, wait=False)
    device.wait_ready()
    wait_until(lambda: device.snmp.try_get(MODEL_NUMBER) == ("INTEGER", "6420"), 20, what="first answer")
    first_answer = time.monotonic() - device.started
    record_property("seconds to the first answer", f"{first_answer:.2f}")
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


def test_foreground_run_removes_a_daemons_pid_file_when_it_ends(clean_device):
    clean_device.path(PID_FILE).write_text("1\n")
    kvsnmp = clean_device.start_kvsnmp("-d")
    pid = clean_device.wait_running()
    assert clean_device.read(PID_FILE) == "1\n"
    clean_device.kill(pid, signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    assert not clean_device.path(PID_FILE).exists()


@pytest.mark.parametrize("text", ["99999\n", "", "no number\n", None],
                         ids=["dead process", "empty", "no number", "missing"])
def test_pid_file_that_does_not_block_a_daemon(clean_device, text):
    if text is not None:
        clean_device.path(PID_FILE).write_text(text)
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


@pytest.mark.parametrize("option", ["-h", "-x", "-t"])
def test_option_that_ends_it_leaves_the_pid_file_alone(clean_device, option):
    clean_device.path(PID_FILE).write_text("1\n")
    clean_device.run_kvsnmp(option)
    assert clean_device.read(PID_FILE) == "1\n"


def test_daemon_with_a_bad_model_number_ends_before_its_pid_file_is_removed(clean_device):
    file = clean_device.path("/etc/xr-modelnumber")
    kept = file.read_text()
    try:
        file.write_text("9999\n")
        assert exit_statuses(clean_device) == [0, 255]
    finally:
        file.write_text(kept)
    assert clean_device.read(PID_FILE).strip().isdigit()


def test_daemon_ends_when_its_pid_file_cannot_be_written(clean_device):
    clean_device.path(PID_FILE).mkdir()
    assert exit_statuses(clean_device) == [0, 1]  # it has gone into the background before it finds out


# Exit statuses


@pytest.mark.parametrize("option", ["-h", "--help"])
def test_help_goes_to_standard_output(clean_device, option):
    done = clean_device.run_kvsnmp(option)
    assert (done.returncode, done.stdout, done.stderr) == (0, "kvsnmp main()\n" + USAGE, "")


@pytest.mark.parametrize("option", ["-x", "--unknown", "--daemon=1"])
def test_unknown_option_prints_usage_on_standard_error(clean_device, option):
    done = clean_device.run_kvsnmp(option)
    assert (done.returncode, done.stdout) == (1, "kvsnmp main()\n")
    assert done.stderr.endswith(USAGE)


@pytest.mark.parametrize("option", ["-t", "-v", "--testmode", "--NULL"])
def test_option_without_a_handler_aborts(clean_device, option):
    done = clean_device.run_kvsnmp(option)
    assert done.returncode in (-signal.SIGABRT, 128 + signal.SIGABRT)
    assert done.stdout == "kvsnmp main()\n"


@pytest.mark.parametrize("text, said", [
    (None, "readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue"),
    ("", "readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue"),
    ("6214x\n", "readModelNumber Invalid numeric modelNumber: 6214x\n Cannot continue"),
    (" 6214\t6214\n", "readModelNumber Invalid numeric modelNumber:  6214\t6214\n Cannot continue"),
    ("9999\n", "readModelNumber Unknown modelNumber: 9999 Cannot continue"),
    ("-6214\n", "readModelNumber Unknown modelNumber: -6214 Cannot continue"),
    ("+6214" + 5000 * " " + "x\n", "readModelNumber Invalid numeric modelNumber: +6214  "),
], ids=["missing", "empty", "not a number", "two numbers", "unknown", "negative", "a letter far behind"])
def test_bad_model_number_ends_with_255(clean_device, text, said):
    file = clean_device.path("/etc/xr-modelnumber")
    kept = file.read_text()
    try:
        if text is None:
            file.unlink()
        else:
            file.write_text(text)
        done = clean_device.run_kvsnmp("-d")
    finally:
        file.write_text(kept)
    assert done.returncode == 255
    assert said in done.stderr
    assert "Cannot continue\nKvSnmp" in done.stderr
    assert "KvSnmp Failed to read modelNumber, cannot continue\n" in done.stderr


@pytest.mark.parametrize("option", ["-z", "--taldebug"])
def test_taldebug_prints_what_the_data_service_library_does(start_device, option):
    device = start_device(6410, f"--kvsnmp-arg={option}").wait_subscribed()
    assert "<request><ref>mib2_settings</ref>" in device.kvsnmp_err()
    quiet = start_device(6410).wait_subscribed()
    assert "<request>" not in quiet.kvsnmp_err()


# Signals


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP], ids=lambda number: number.name)
def test_signal_ends_before_the_agent_is_started(clean_device, number):
    kvsnmp = clean_device.start_kvsnmp("-d")
    clean_device.kill(clean_device.wait_running(), number)
    assert kvsnmp.wait(10) == 0
    err = clean_device.kvsnmp_err()
    assert "QApplication*: main  Qt Event loop returned with status: 0, application exit..\n" in err
    assert "QApplication main  Removing PidFile\n" in err


def test_its_name_is_not_that_of_the_command(clean_device):
    kvsnmp = clean_device.start_kvsnmp("-d", wrapper=["bash", "-c", 'exec -a other "$@"', "-"],
                                       env={"QT_MESSAGE_PATTERN": "%{appname}: %{message}"})
    clean_device.kill(clean_device.wait_running(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    lines = clean_device.kvsnmp_err().splitlines()
    assert lines and all(line.startswith("kvsnmp: ") for line in lines)


def test_signals_end_a_serving_daemon(start_device):
    """One device, its daemon started three times."""
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
    model = clean_device.path("/etc/xr-modelnumber")
    kept = model.read_text()
    model.write_text("9999\n")
    try:
        kvsnmp = clean_device.start_kvsnmp("-d", env={"NOTIFY_SOCKET": "/run/notify"})
        assert kvsnmp.wait(10) == 255
    finally:
        model.write_text(kept)
    manager.socket.setblocking(False)
    with pytest.raises(BlockingIOError):
        manager.message()


# Standard output


def test_closed_standard_output_does_not_end_it(start_device):
    device = start_device(6420, "--no-kvsnmp")
    device.popen(["sh", "-c", "exec kvsnmp -d >&- 2>&-"])
    device.wait_answering()
    assert len(device.snmp.walk()) > 50


def test_reader_of_standard_output_that_went_away_does_not_end_it(start_device):
    device = start_device(6420, "--no-kvsnmp")
    read, write = os.pipe()
    device.popen(["kvsnmp", "-d"], stdout=write, stderr=write)
    os.close(write)
    assert os.read(read, 4096).startswith(b"kvsnmp main()\n")  # at once: lines are flushed
    os.close(read)
    device.wait_answering()
    assert len(device.snmp.walk()) > 50


def test_unread_standard_output_does_not_block_it(start_device):
    device = start_device(6420, "--no-kvsnmp")
    read, write = os.pipe()
    device.popen(["kvsnmp", "-d"], stdout=write, stderr=write)
    os.close(write)
    device.wait_answering()
    cells = device.snmp.walk()
    printed = 0
    while printed < 4 * 65536:  # a pipe takes 65536 bytes, and each step of a walk prints a line
        assert device.snmp.walk() == cells
        printed += len(cells) * len("voltageTable_get_next_data_point()\n")
    os.close(read)


# Watchdog file


def test_watchdog_file_comes_back_within_five_seconds(clean_device):
    kvsnmp = clean_device.start_kvsnmp("-d")
    path = clean_device.path(WATCHDOG_FILE)
    wait_until(lambda: clean_device.read(WATCHDOG_FILE) == "update\n", 7, what="watchdog file")
    path.unlink()
    removed = time.monotonic()
    wait_until(lambda: clean_device.read(WATCHDOG_FILE) == "update\n", 7, what="watchdog file again")
    assert time.monotonic() - removed < 6.0
    clean_device.kill(clean_device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
