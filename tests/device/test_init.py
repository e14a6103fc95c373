"""The init script, for devices without systemd: start, second start, status, restart, stop, and errors."""
from __future__ import annotations

import shutil
import subprocess

import pytest
from support.device import CHECKOUT, Device
from support.polling import wait_until

SCRIPT = "/etc/init.d/kvsnmp"
PID_FILE = "/var/run/kvsnmp.pid"
MODEL_FILE = "/etc/xr-modelnumber"


@pytest.fixture(scope="module")
def shared(start_shared_device) -> Device:
    device = start_shared_device(6420, "--no-kvsnmp")
    for folder in ("/etc/init.d", "/etc/default"):
        device.path(folder).mkdir(exist_ok=True)
    shutil.copy(CHECKOUT / "packaging/init/kvsnmp", device.path(SCRIPT))
    return device


@pytest.fixture
def device(shared: Device):
    """No daemon runs, and the script starts the build under test."""
    environment = "ASAN_OPTIONS=verify_asan_link_order=0:log_path=/var/log/sanitizer\nLSAN_OPTIONS=exitcode=0\n"
    shared.path("/etc/default/kvsnmp").write_text("DAEMON=/run/device/bin/kvsnmp\n" + environment)
    shared.path(MODEL_FILE).write_text("6420\n")
    yield shared
    shared.end_kvsnmp()
    shared.path(PID_FILE).unlink(missing_ok=True)


def init(device: Device, word: str, timeout: float = 60.0) -> subprocess.CompletedProcess:
    return device.run([SCRIPT, word], check=False, timeout=timeout)


def test_start_status_second_start_restart_stop(device):
    assert (init(device, "status").returncode, init(device, "stop").returncode) == (3, 0)

    started = init(device, "start")
    assert started.returncode == 0, started.stderr
    pid = device.kvsnmp_pid()
    assert started.stdout == f"kvsnmp started (process {pid})\n"
    assert device.read(PID_FILE) == f"{pid}\n"
    device.wait_answering()
    snmpd = device.wait_snmpd()
    environment = device.run(["cat", f"/proc/{snmpd}/environ"]).stdout.split("\0")
    assert "MIBS=" in environment and "PATH=/usr/libexec/kvsnmp:/usr/sbin:/usr/bin:/sbin:/bin" in environment
    assert device.run(["readlink", f"/proc/{pid}/cwd"]).stdout == "/\n"

    second = init(device, "start")
    assert (second.returncode, second.stdout) == (0, f"kvsnmp runs already (process {pid})\n")
    assert device.pids("kvsnmp") == [pid]
    status = init(device, "status")
    assert (status.returncode, status.stdout) == (0, f"kvsnmp runs (process {pid})\n")

    assert init(device, "restart").returncode == 0
    restarted = device.kvsnmp_pid()
    assert restarted != pid
    device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()

    snmpd = device.wait_snmpd()
    stopped = init(device, "stop")
    assert (stopped.returncode, stopped.stdout) == (0, "kvsnmp stopped; its snmpd goes on\n")
    assert device.pids("kvsnmp") == [] and device.pids("snmpd") == [snmpd]
    assert not device.path(PID_FILE).exists()
    assert init(device, "status").returncode == 3
    assert init(device, "try-restart").returncode == 0
    assert device.pids("kvsnmp") == []


def test_options_and_variables_come_from_etc_default(device):
    with device.path("/etc/default/kvsnmp").open("a") as file:
        file.write('KVSNMP_OPTIONS="-z"\nTAL_SOCKET=/run/other.sock\n')
    assert init(device, "start").returncode == 0
    pid = device.kvsnmp_pid()
    assert device.run(["cat", f"/proc/{pid}/cmdline"]).stdout == "/run/device/bin/kvsnmp\0-z\0"
    assert "TAL_SOCKET=/run/other.sock" in device.run(["cat", f"/proc/{pid}/environ"]).stdout.split("\0")


def test_a_pid_file_that_names_another_program_is_ignored(device):
    """The daemon itself would refuse to start."""
    sleeper = device.popen(["sleep", "100"])
    number = wait_until(lambda: device.pids("sleep"), what="sleep running")[0]
    device.path(PID_FILE).write_text(f"{number}\n")
    dead = init(device, "status")
    assert (dead.returncode, dead.stdout) == (1, f"kvsnmp does not run, but {PID_FILE} is there\n")
    assert init(device, "stop").returncode == 0
    assert init(device, "start").returncode == 0
    assert device.pids("sleep") == [number], "not ended instead of kvsnmp"
    sleeper.terminate()


@pytest.mark.parametrize("content", ["", "x\n", "-1\n", "99999999\n"])
def test_an_odd_pid_file_is_ignored(device, content):
    device.path(PID_FILE).write_text(content)
    assert init(device, "status").returncode == 1
    assert init(device, "start").returncode == 0


def test_a_failed_start_is_reported(device):
    device.path(MODEL_FILE).unlink()
    started = init(device, "start")
    assert (started.returncode, started.stderr) == (6, f"kvsnmp: {MODEL_FILE} is missing: this is not a device\n")
    device.path(MODEL_FILE).write_text("9999\n")
    started = init(device, "start")
    assert started.returncode == 1
    assert started.stderr == 'kvsnmp has ended again; "/run/device/bin/kvsnmp -d" shows why\n'
    device.path("/etc/default/kvsnmp").write_text("DAEMON=/usr/sbin/no-such-program\n")
    assert init(device, "start").returncode == 5
    wrong = init(device, "begin")
    assert wrong.returncode == 2 and wrong.stderr.startswith(f"usage: {SCRIPT} ")
