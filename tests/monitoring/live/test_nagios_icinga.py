"""Debian's Nagios 4 and Icinga 2 with check_kvsnmp: a device in order, one with faults, one that does not answer, one with
other limits. Run by scripts/test-monitoring."""
from __future__ import annotations

import json
import os
import re
import shlex
import shutil
import subprocess
import sysconfig
import time
from collections.abc import Iterator
from pathlib import Path

import pytest
from site_of_devices import SnmpAt

from prometheus_files import CHECKOUT, UNPACKED  # the paths are set by the one above
from support import steps
from support.device import Device
from support.polling import wait_until

CHECKS = CHECKOUT / "monitoring/checks"
INSTALLED = "/usr/share/kvsnmp-monitoring"
LIBRARIES = f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}"
# Nothing listens at the silent one; the warm one is the healthy one with other limits.
PORTS = {"healthy": 20161, "broken": 20171, "silent": 20181, "warm": 20161}
FAULTS = [
    ["set", "/state/power_lines/power_line[kid='3v3']/voltage", "3.7"],
    ["set", "/state/temp_sensors/temp_sensor[kid='amp_class_d_amp_1']/temp_current", "70.1"],
    ["set", "/state/lines/line[kid='ch1']/characteristics/line_state", "open"],
]
REPAIRS = [
    ["set", "/state/power_lines/power_line[kid='3v3']/voltage", "3.312"],
    ["set", "/state/temp_sensors/temp_sensor[kid='amp_class_d_amp_1']/temp_current", "52.4"],
    ["set", "/state/lines/line[kid='ch1']/characteristics/line_state", "ok"],
]
BROKEN = ["CRITICAL - Voltages: Internal voltage 3.3V: 3.7 V (+12.1 %), outside -10:10 %",
          "CRITICAL - Loudspeaker lines: Channel 1: open",
          "WARNING - Temperatures: Channel 1: 70.1 C, outside 0.1:70"]
OK, WARNING, CRITICAL = "0", "1", "2"
CREDENTIALS = "defVersion 2c\ndefCommunity public\n"

Service = dict[str, str]  # a block of status.dat


class Devices:
    """Two amplifiers whose channels are announced."""

    def __init__(self) -> None:
        self.running = {name: Device(6420, "--clock-shift", "--no-traps", "--port", str(PORTS[name]))
                        for name in ("healthy", "broken")}
        for name, device in self.running.items():
            device.snmp = SnmpAt(device.run, f"127.0.0.1:{PORTS[name]}")
            device.wait_ready().wait_answering(60).wait_subscribed(60)
            self.apply(name, [["monitor", "amp", channel, "2"] for channel in "01"])
        self.apply("broken", FAULTS)

    def apply(self, name: str, commands: list[list[str]]) -> None:
        steps.apply(self.running[name], commands)

    def stop(self) -> list[str]:
        return [f"{name}: {text}" for name, device in self.running.items() for text in device.stop()]


class Monitor:
    """A program in a sandbox with the files of its packages where Debian installs them, and ours."""

    status = ""  # its file with the state of all services, below /var
    commands = ""  # its pipe

    def __init__(self, folder: Path) -> None:
        self.folder = folder
        for name in ("etc", "var/log", "var/lib", "var/cache", "var/spool", "run", "tmp"):
            (folder / name).mkdir(parents=True)
        (folder / "var/run").symlink_to("/run")
        for name in ("passwd", "group", "hosts", "nsswitch.conf"):
            shutil.copy(f"/etc/{name}", folder / "etc")
        self.prepare()
        self.log = open(folder / "log", "wb")
        self.process = subprocess.Popen(self.inside(self.command()), stdin=subprocess.DEVNULL, stdout=self.log, stderr=self.log)

    def inside(self, command: list[str]) -> list[str]:
        # The packages' own folders below /usr/share; the rest of that folder is not needed.
        shared = ["--tmpfs", "/usr/share"]
        for place, name in ((UNPACKED / "usr/share/icinga2", "/usr/share/icinga2"), (CHECKS.parent, INSTALLED)):
            shared += ["--ro-bind", str(place), name]
        binds = [word for name in ("etc", "var", "run", "tmp") for word in ("--bind", str(self.folder / name), f"/{name}")]
        return ["bwrap", "--unshare-pid", "--die-with-parent", "--clearenv", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin",
                "--setenv", "LD_LIBRARY_PATH", f"{UNPACKED}{LIBRARIES}", "--ro-bind", "/usr", "/usr", *shared,
                *[word for name in ("bin", "sbin", "lib", "lib64") for word in ("--symlink", f"usr/{name}", f"/{name}")],
                "--dev", "/dev", "--proc", "/proc", *binds, "--ro-bind", str(UNPACKED), str(UNPACKED), *command]

    def run(self, *command: str) -> str:
        done = subprocess.run(self.inside(list(command)), capture_output=True, text=True, timeout=120, check=False,
                              stdin=subprocess.DEVNULL)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    def order(self, text: str) -> None:
        """A command for its pipe."""
        with open(os.open(self.folder / self.commands, os.O_WRONLY | os.O_NONBLOCK), "w", encoding="utf-8") as pipe:
            pipe.write(f"[{int(time.time())}] {text}\n")

    def service(self, host: str) -> Service:
        text = (self.folder / self.status).read_text() if (self.folder / self.status).exists() else ""
        for block in re.findall(r"^servicestatus \{\n(.*?)^\s*\}", text, re.MULTILINE | re.DOTALL):
            found = dict(re.findall(r"^\s*(\w+)=(.*?) *$", block, re.MULTILINE))
            if found["host_name"] == host and found["has_been_checked"] == "1":
                return found
        return {}

    def checked(self, host: str, state: str) -> Service:
        """The service once a forced check has this state."""
        wait_until(lambda: (self.folder / self.commands).exists(), 60, 0.2, what=f"commands taken\n{self.said()}")
        self.order(f"SCHEDULE_FORCED_SVC_CHECK;{host};kvsnmp;{int(time.time())}")
        wait_until(lambda: self.service(host).get("current_state") == state, 90, 0.5,
                   what=f"{host} {state}: {self.service(host)}\n{self.said()}")
        return self.service(host)

    def said(self) -> str:
        return (self.folder / "log").read_text(errors="replace")[-3000:]

    def stop(self) -> None:
        self.process.terminate()
        self.process.wait(20)
        self.log.close()

    def prepare(self) -> None:
        raise NotImplementedError

    def command(self) -> list[str]:
        raise NotImplementedError


class Nagios(Monitor):
    PROGRAM, FILE = f"{UNPACKED}/usr/sbin/nagios4", "/etc/nagios4/nagios.cfg"
    status, commands = "var/lib/nagios4/status.dat", "var/lib/nagios4/rw/nagios.cmd"
    CHANGES = {"nagios_user": "root", "nagios_group": "root", "status_update_interval": "2", "use_syslog": "0",
               "check_result_reaper_frequency": "2", "check_for_updates": "0"}

    def prepare(self) -> None:
        etc = self.folder / "etc/nagios4"
        shutil.copytree(UNPACKED / "etc/nagios4", etc)
        shutil.copytree("/etc/nagios-plugins", self.folder / "etc/nagios-plugins")
        for name in ("var/lib/nagios4/rw", "var/lib/nagios4/spool/checkresults", "var/log/nagios4/archives", "run/nagios4"):
            (self.folder / name).mkdir(parents=True)
        text = (etc / "nagios.cfg").read_text().replace("cfg_file=/etc/nagios4/objects/localhost.cfg\n", "")
        for name, value in self.CHANGES.items():
            text = re.sub(rf"^{name}=.*$", f"{name}={value}", text, flags=re.MULTILINE)
        (etc / "nagios.cfg").write_text(text)
        for name in ("kvsnmp-commands.cfg", "kvsnmp-services.cfg", "kvsnmp-device.cfg"):
            shutil.copy(CHECKS / name, etc / "conf.d")
        (etc / "kvsnmp.snmp").write_text(CREDENTIALS)
        group = "    hostgroups kvsnmp-devices\n    _SNMP_COMMUNITY public\n"
        (etc / "conf.d/hosts.cfg").write_text("".join(
            f"define host {{\n    use kvsnmp-host,generic-host\n    host_name {name}\n    address 127.0.0.1\n"
            f"    _SNMP_PORT {port}\n{group if name != 'warm' else ''}}}\n" for name, port in PORTS.items())
            + "define service {\n    use kvsnmp-device-service\n    host_name warm\n    service_description kvsnmp\n"
            "    check_command check_kvsnmp_device_by_file!/etc/nagios4/kvsnmp.snmp!-w temperature=50 -w voltage=-9:9\n}\n")

    def command(self) -> list[str]:
        return [self.PROGRAM, self.FILE]


class Icinga(Monitor):
    status, commands = "var/cache/icinga2/status.dat", "run/icinga2/cmd/icinga2.cmd"
    PROGRAM = f"{UNPACKED}{LIBRARIES}/icinga2/sbin/icinga2"
    AS_ROOT = ["-DRunAsUser=root", "-DRunAsGroup=root"]

    def prepare(self) -> None:
        etc = self.folder / "etc/icinga2"
        shutil.copytree(UNPACKED / "etc/icinga2", etc)
        for name in ("lib", "cache", "log", "spool"):
            (self.folder / f"var/{name}/icinga2").mkdir()
        (self.folder / "run/icinga2/cmd").mkdir(parents=True)
        for name in ("checker", "command", "statusdata"):
            (etc / f"features-enabled/{name}.conf").symlink_to(f"../features-available/{name}.conf")
        (etc / "conf.d/hosts.conf").unlink()
        shutil.copy(CHECKS / "kvsnmp-icinga2.conf", etc / "conf.d")
        (etc / "kvsnmp.snmp").write_text(CREDENTIALS)
        limits = '  vars.kvsnmp_warning = [ "temperature=50", "voltage=-9:9" ]\n'
        (etc / "conf.d/devices.conf").write_text("".join(
            f'object Host "{name}" {{\n  import "generic-host"\n  address = "127.0.0.1"\n  vars.kvsnmp = true\n'
            f'  vars.kvsnmp_port = {port}\n  vars.kvsnmp_credentials = "/etc/icinga2/kvsnmp.snmp"\n'
            f"{limits if name == 'warm' else ''}}}\n"
            for name, port in PORTS.items()))

    def command(self) -> list[str]:
        return [self.PROGRAM, "daemon", *self.AS_ROOT]


@pytest.fixture(scope="module")
def devices() -> Iterator[Devices]:
    devices = Devices()
    yield devices
    assert devices.stop() == []


@pytest.fixture(scope="module", params=[Nagios, Icinga])
def monitor(request, devices, tmp_path_factory) -> Iterator[Monitor]:
    monitor = request.param(tmp_path_factory.mktemp(request.param.__name__))
    yield monitor
    monitor.stop()


def test_the_configuration_is_accepted(monitor):
    if isinstance(monitor, Nagios):
        said = monitor.run(monitor.PROGRAM, "-v", monitor.FILE)
        warnings = re.findall("^Warning: .*", said, re.MULTILINE)
        assert "Checked 4 services.\n" in said and "Total Errors:   0\n" in said, said
        assert [line for line in warnings if "has no default contacts" not in line] == []
    else:
        said = monitor.run(*monitor.command(), "-C")
        assert "Instantiated 4 Hosts." in said and "Finished validating the configuration" in said, said
        # Debian's rules for hosts that are not here have warnings.
        assert [line for line in said.splitlines() if "kvsnmp" in line] == []


def test_a_healthy_device(monitor):
    found = monitor.checked("healthy", OK)
    assert found["plugin_output"] == "KVSNMP OK - 6420 Orvane Mervio Amplifier VQ9D: 60 values in order"
    assert "Internal_voltage_3.3V=3.312V;3.135:3.465;2.97:3.63 " in found["performance_data"].replace("'", "")
    assert found["long_plugin_output"].startswith("Temperatures: Channel 1 52.4 C, ")
    assert "\\nLoudspeaker lines: 2 ok\\n" in found["long_plugin_output"]


def test_a_broken_device(devices, monitor):
    found = monitor.checked("broken", CRITICAL)
    assert found["plugin_output"] == ("KVSNMP CRITICAL - 6420 Orvane Mervio Amplifier VQ9D: Voltages: Internal voltage 3.3V 3.7 V "
                                      "(+12.1 %), Loudspeaker lines: Channel 1 open, Temperatures: Channel 1 70.1 C")
    assert found["long_plugin_output"].split("\\n")[:3] == BROKEN
    assert "Channel_1=70.1C;0.1:70;0:85 " in found["performance_data"].replace("'", "")
    devices.apply("broken", REPAIRS)
    monitor.checked("broken", OK)
    devices.apply("broken", FAULTS)
    monitor.checked("broken", CRITICAL)


def test_a_silent_device(monitor):
    found = monitor.checked("silent", CRITICAL)
    assert found["plugin_output"] == "KVSNMP CRITICAL - Timeout: No Response from udp:127.0.0.1:20181"


def test_other_limits(monitor):
    """Given as the first lines of our files show; the community is in a file."""
    found = monitor.checked("warm", WARNING)
    assert found["plugin_output"].endswith(": Temperatures: Channel 1 52.4 C, Temperatures: Channel 2 51.7 C")
    assert "Internal_voltage_3.3V=3.312V;3.003:3.597;2.97:3.63 " in found["performance_data"].replace("'", "")


def test_icinga_parses_each_measurement(monitor):
    if not isinstance(monitor, Icinga):
        pytest.skip("Nagios does not parse measurements")
    metrics = shlex.split(monitor.checked("healthy", OK)["performance_data"])
    assert len(metrics) == 5 + 2 + 13  # temperatures, fans, voltages
    calls = ", ".join(f'parse_performance_data("{metric}")' for metric in metrics)
    parsed = json.loads(monitor.run(monitor.PROGRAM, "console", "--eval", f"[ {calls} ]"))
    assert [metric["unit"] for metric in parsed] == ["degrees-celsius"] * 5 + [""] * 2 + ["volts"] * 13
    assert {metric["label"]: metric["value"] for metric in parsed}["Internal_voltage_3.3V"] == 3.312
