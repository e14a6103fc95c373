"""The init script, for devices without systemd: start, second start, status, restart, stop, and errors."""
from __future__ import annotations

import shutil

import pytest
from support.device import CHECKOUT, Device
from support.polling import wait_until

SCRIPT = "/etc/init.d/kvsnmp"
PID_FILE = "/var/run/kvsnmp.pid"
MODEL_FILE = "/etc/xr-modelnumber"


@pytest.fixture(scope="module")
def shared(start_shared_device) -> Device:
    device = start_shared_device(6420, "--no-kvsnmp", "--no-dbus", "--no-traps")
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


def init(device: Device, word: str) -> tuple[int, str]:
    """Its status and what it printed."""
    done = device.run([SCRIPT, word], check=False, timeout=60)
    return done.returncode, done.stdout + done.stderr


def test_start_status_second_start_restart_stop(device):
    assert (init(device, "status")[0], init(device, "stop")[0]) == (3, 0)
    with device.path("/etc/default/kvsnmp").open("a") as file:
        file.write('KVSNMP_OPTIONS="-z"\nOTHER_VARIABLE=value\n')
    started = init(device, "start")
    pid = device.kvsnmp_pid()
    assert started == (0, f"kvsnmp started (process {pid})\n")
    assert device.read(PID_FILE) == f"{pid}\n"
    assert device.run(["cat", f"/proc/{pid}/cmdline"]).stdout == "/run/device/bin/kvsnmp\0-z\0"
    assert device.run(["readlink", f"/proc/{pid}/cwd"]).stdout == "/\n"
    device.wait_answering()
    snmpd = device.wait_snmpd()
    environment = device.run(["cat", f"/proc/{snmpd}/environ"]).stdout.split("\0")
    for variable in ("MIBS=", "OTHER_VARIABLE=value", "PATH=/usr/libexec/kvsnmp:/usr/sbin:/usr/bin:/sbin:/bin"):
        assert variable in environment

    assert init(device, "start") == (0, f"kvsnmp runs already (process {pid})\n")
    assert init(device, "status") == (0, f"kvsnmp runs (process {pid})\n")
    assert init(device, "restart")[0] == 0
    assert device.kvsnmp_pid() != pid
    snmpd = device.wait_snmpd(other_than=[snmpd])
    device.wait_answering()

    assert init(device, "stop") == (0, "kvsnmp stopped; its snmpd goes on\n")
    assert device.pids("kvsnmp") == [] and device.pids("snmpd") == [snmpd]
    assert not device.path(PID_FILE).exists()
    assert (init(device, "status")[0], init(device, "try-restart")[0]) == (3, 0)
    assert device.pids("kvsnmp") == []


@pytest.mark.parametrize("content", ["", "x\n", "-1\n", "99999999\n", None])
def test_an_odd_pid_file_is_ignored(device, content):
    """Also another program's number (None), with which the daemon itself would refuse to start."""
    sleeper = device.popen(["sleep", "100"])
    other, = wait_until(lambda: device.pids("sleep"), what="sleep running")
    device.path(PID_FILE).write_text(f"{other}\n" if content is None else content)
    assert init(device, "status") == (1, f"kvsnmp does not run, but {PID_FILE} is there\n")
    assert init(device, "stop")[0] == init(device, "start")[0] == 0
    assert device.pids("sleep") == [other], "not ended instead of kvsnmp"
    sleeper.terminate()
    device.kill_and_wait(other)


def test_a_failed_start_is_reported(device):
    device.path(MODEL_FILE).unlink()
    assert init(device, "start") == (6, f"kvsnmp: {MODEL_FILE} is missing: this is not a device\n")
    device.path(MODEL_FILE).write_text("9999\n")
    assert init(device, "start") == (1, 'kvsnmp has ended again; "/run/device/bin/kvsnmp -d" shows why\n')
    device.path("/etc/default/kvsnmp").write_text("DAEMON=/usr/sbin/no-such-program\n")
    assert init(device, "start")[0] == 5
    status, printed = init(device, "begin")
    assert status == 2 and printed.startswith(f"usage: {SCRIPT} ")
