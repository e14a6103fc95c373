"""scripts/device, as a person uses it."""
from __future__ import annotations

import contextlib
import os
import signal
import socket
import subprocess
import sys
import time

import pytest
from support.device import CHECKOUT, MODEL_NUMBER, bin_dir, registry
from support.polling import wait_until
from support.process import is_gone

SCRIPT = str(CHECKOUT / "scripts/device")


class Typed:
    """scripts/device as a person starts it, its output on a pipe."""

    def __init__(self, *options: str) -> None:
        self.name = f"typed{os.getpid()}-{time.monotonic_ns()}"
        self.folder = registry.base_folder() / self.name
        self.process = subprocess.Popen([SCRIPT, "--name", self.name, "--bin", str(bin_dir()), *options],
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        os.set_blocking(self.process.stdout.fileno(), False)
        self.printed = ""

    def wait_printed(self, text: str, timeout: float = 20.0) -> str:
        def look() -> bool:
            self.printed += (self.process.stdout.read() or b"").decode()
            return text in self.printed

        wait_until(look, timeout, what=f"{text!r} printed")
        return self.printed

    def end(self, number: signal.Signals = signal.SIGTERM) -> int:
        self.process.send_signal(number)
        status = self.process.wait(20)
        self.printed += (self.process.stdout.read() or b"").decode()
        return status


@pytest.fixture
def typed():
    started: list[Typed] = []

    def start(*options: str) -> Typed:
        started.append(Typed(*options))
        return started[-1]

    yield start
    for device in started:
        if device.process.poll() is None:
            device.end()
        device.process.stdout.close()


def script(*arguments: str, env: dict[str, str] | None = None, **options) -> subprocess.CompletedProcess:
    return subprocess.run([SCRIPT, *arguments], capture_output=True, text=True, timeout=30, check=False,
                          env=os.environ | (env or {}), **options)


def free_ports() -> list[int]:
    """Two UDP ports that are free on this machine, and so are those above them."""
    for base in range(20000, 60000, 4):
        with contextlib.suppress(OSError), contextlib.ExitStack() as stack:
            for port in range(base, base + 4):
                stack.enter_context(socket.socket(socket.AF_INET, socket.SOCK_DGRAM)).bind(("127.0.0.1", port))
            return [base, base + 2]
    raise AssertionError("no free ports")


def test_devices_on_ports_of_the_host_answer_side_by_side_and_print_their_traps(typed):
    ports = dict(zip((6420, 6214), free_ports()))
    devices = {model: typed("--model", str(model), "--port", str(port)) for model, port in ports.items()}

    def ask(port: int) -> str:
        return subprocess.run(["snmpget", "-v2c", "-c", "public", "-Oqv", "-r", "0", "-t", "1", f"127.0.0.1:{port}",
                               MODEL_NUMBER], capture_output=True, text=True, env=os.environ | {"MIBS": ""},
                              check=False).stdout.strip()

    for model, port in ports.items():
        wait_until(lambda port=port, model=model: ask(port) == str(model), 20, 0.1, f"answer on port {port}")
    for model, device in devices.items():
        device.wait_printed(f"snmpwalk -v2c -c public 127.0.0.1:{ports[model]} .1.3.6.1.4.1.52717")
        inside = ["exec", "--name", device.name, "--", "talctl"]
        assert "kvsnmp_sys_messages" in script(*inside, "subscriptions").stdout, "the values have come"
        assert script(*inside, "trap", "enable", "Cooling Fan Fault").returncode == 0
        fault = ["fault", "raise", "amp", "1", "fan_not_running", "crit", f"Fan of {model}"]
        assert script(*inside, *fault).returncode == 0
    for model, device in devices.items():
        printed = device.wait_printed(f"trapDescription.0 = Fan of {model}", 10)
        trap = next(line for line in printed.splitlines() if f"Fan of {model}" in line)
        assert " coolingFanFault: trapProduct.0 = Orvane IPKiosk, trapHostName.0 = device, " in trap
        assert ", trapLevel.0 = critical, " in trap
        assert printed.count("trapDescription.0 = Fan of ") == 1


def test_a_device_that_does_not_answer_names_the_check(typed):
    device = typed("--model", "6410", "--no-traps", "--no-dbus", "--set",
                   "/state/config/snmp_settings/access_control/community=secret")
    end_the_wait = ["exec", "--name", device.name, "--", "sh", "-c", "kill $(pidof timeout)"]  # of 30 s
    wait_until(lambda: script(*end_the_wait).returncode == 0, 20, what="wait for an answer")
    printed = device.wait_printed("end it:")
    assert "ask it:" not in printed and f"exec --name {device.name} -- kvsnmp-check\n" in printed


def test_exec_list_and_stop(typed):
    device = typed("--model", "6764", "--no-kvsnmp", "--no-simulator", "--no-traps", "--no-dbus")
    device.wait_printed("end it:")
    inside = ["exec", "--name", device.name, "--"]
    assert script(*inside, "printf", "%s|", "a b", "", "$HOME").stdout == "a b||$HOME|"
    assert script(*inside, "cat", input="over the pipe").stdout == "over the pipe"
    assert script(*inside, "sh", "-c", "exit 7").returncode == 7
    assert script(*inside, "sh", "-c", "hostname; cat /etc/xr-modelnumber").stdout == "device\n6764\n"
    line = next(line for line in script("list").stdout.splitlines() if line.startswith(device.name + "\t"))
    assert line.split("\t")[1:4] == ["model 6764", "own network", "running"]
    assert script("stop", "--name", device.name).returncode == 0
    assert device.process.wait(10) == 0
    assert not device.folder.exists()


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGHUP, signal.SIGKILL], ids=lambda number: number.name)
def test_end_leaves_nothing_behind(typed, number):
    """After SIGKILL the next start or list sweeps the folder."""
    device = typed("--model", "6410")
    device.wait_printed("end it:")
    first_process = registry.find(device.name).first_process
    assert device.end(number) == (0 if number != signal.SIGKILL else -number)
    wait_until(lambda: is_gone(first_process), what="sandbox ended")
    assert "kvsnmp does not end" not in device.printed

    def swept() -> bool:
        listed = script("list") if number == signal.SIGKILL else None
        assert listed is None or listed.returncode == 0 and device.name not in listed.stdout
        return not device.folder.exists()

    wait_until(swept, 5, what="folder swept")  # another start on this machine may be sweeping it


def test_health_probe_answer_of_the_device(start_device):
    device = start_device(6410, "--no-kvsnmp", "--no-simulator", "--no-traps", "--no-dbus", "--snmpd-rss", "real")
    probe = ["ps", "--noheaders", "-C snmpd", "-o rss"]
    assert device.run(probe).stdout == ""  # no snmpd runs
    device.run(["snmpd", "-C", "-c", "/dev/null", "-p", "/run/snmpd.pid", "udp:127.0.0.1:1999"])
    wait_until(lambda: device.pids("snmpd"), what="snmpd running")
    assert 2000 < int(device.run(probe).stdout) < 100000
    device.path("/run/device/snmpd-rss").write_text("8192\n")
    assert device.run(probe).stdout == "8192\n"
    assert " snmpd\n" in device.run(["ps", "-e"]).stdout  # other options run the machine's ps


# Clear errors


@pytest.mark.parametrize("arguments, printed", [
    (["--model", "9999"], "invalid choice: 9999"),
    (["--port", "70000"], "a port is 1 to 65535"),
    (["--bin", "/nonexistent"], "no kvsnmp in /nonexistent; build it:"),
    (["exec", "--name", "nobody", "--", "true"], "no device named nobody is running"),
    (["stop", "--name", "nobody"], "no device named nobody is running"),
], ids=["model", "port", "no build", "exec", "stop"])
def test_errors_are_one_line(arguments, printed):
    done = script(*arguments)
    assert done.returncode != 0
    assert printed in done.stderr and "Traceback" not in done.stderr


def test_what_the_machine_lacks_is_reported(tmp_path):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as taken:
        taken.bind(("127.0.0.1", 0))
        done = script("--bin", str(bin_dir()), "--port", str(port := taken.getsockname()[1]))
    assert done.returncode == 1
    assert done.stderr.startswith(f"device: UDP port {port}: Address already in use; choose another")

    done = subprocess.run([sys.executable, SCRIPT, "--bin", str(bin_dir())], env={"PATH": str(tmp_path), "HOME": "/"},
                          capture_output=True, text=True, timeout=30, check=False)
    assert done.returncode == 1
    assert "not installed: bwrap," in done.stderr and "scripts/install-deps" in done.stderr

    refusing = tmp_path / "bwrap"
    refusing.write_text("#!/bin/sh\necho 'bwrap: No permissions to create new namespace' >&2\nexit 1\n")
    refusing.chmod(0o755)
    done = script("--bin", str(bin_dir()), env={"PATH": f"{tmp_path}:{os.environ['PATH']}"})
    assert done.returncode == 1
    assert "No permissions to create new namespace" in done.stderr
    assert "The sandbox could not be made." in done.stderr and "Traceback" not in done.stderr
