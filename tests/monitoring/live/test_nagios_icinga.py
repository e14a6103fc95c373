"""Debian's Nagios 4 and Icinga 2 with check_kvsnmp: a device in order, one with faults, one that does not answer, one with
other limits; and with the hosts that kvsnmp-discover writes. Run by scripts/test-monitoring."""
from __future__ import annotations

import json
import os
import re
import shlex
import shutil
import subprocess
import sys
import sysconfig
import time
from collections.abc import Iterator
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from prometheus_files import FOLDER, UNPACKED  # noqa: E402  (the path has to be set first)
from support.polling import wait_until  # noqa: E402
from support.walkagent import Agents, WalkAgent  # noqa: E402
from test_discover import PORT, discover, expected, outputs  # noqa: E402, F401  (fixtures)

CHECKS = FOLDER.parent / "checks"
LIBRARIES = f"/usr/lib/{sysconfig.get_config_var('MULTIARCH')}"
# Nothing listens at the silent one; the warm one is the healthy one with other limits.
HOSTS = {"healthy": "127.0.60.1", "broken": "127.0.60.2", "silent": "127.0.60.3", "warm": "127.0.60.1"}
FAULTS = {"voltageValue.3": "3700", "tempCurrent.1": "701", "ampChannelLineState.1": "4"}
OK, WARNING, CRITICAL = "0", "1", "2"
CREDENTIALS = "defVersion 2c\ndefCommunity public\n"


class Monitor:
    """A program in a sandbox with the files of its packages where Debian installs them, and ours."""

    program: list[str]
    status = ""  # its file with the state of all services
    commands = ""  # its pipe
    folders: list[str] = []

    def __init__(self, folder: Path, hosts: str = "") -> None:
        """With the four hosts, or other ones."""
        self.name = type(self).__name__.lower()
        self.folder, self.etc = folder, folder / "etc" / self.name
        for name in ("etc", "var/log", "var/lib", "var/cache", "var/spool", "run", "tmp", *self.folders):
            (folder / name).mkdir(parents=True, exist_ok=True)
        (folder / "var/run").symlink_to("/run")
        for name in ("passwd", "group", "hosts", "nsswitch.conf"):
            shutil.copy(f"/etc/{name}", folder / "etc")
        shutil.copytree(UNPACKED / "etc" / self.name, self.etc)
        (self.etc / "kvsnmp.snmp").write_text(CREDENTIALS)
        self.prepare(hosts)

    def inside(self, *command: str) -> list[str]:
        # The packages' own folders below /usr/share; the rest of that folder is not needed.
        shared = ["--tmpfs", "/usr/share"]
        for place, name in ((UNPACKED / "usr/share/icinga2", "icinga2"), (CHECKS.parent, "kvsnmp-monitoring")):
            shared += ["--ro-bind", str(place), f"/usr/share/{name}"]
        binds = [word for name in ("etc", "var", "run", "tmp") for word in ("--bind", str(self.folder / name), f"/{name}")]
        return ["bwrap", "--unshare-pid", "--die-with-parent", "--clearenv", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin",
                "--setenv", "LD_LIBRARY_PATH", f"{UNPACKED}{LIBRARIES}", "--ro-bind", "/usr", "/usr", *shared,
                *[word for name in ("bin", "sbin", "lib", "lib64") for word in ("--symlink", f"usr/{name}", f"/{name}")],
                "--dev", "/dev", "--proc", "/proc", *binds, "--ro-bind", str(UNPACKED), str(UNPACKED), *command]

    def run(self, *arguments: str) -> str:
        done = subprocess.run(self.inside(self.program[0], *arguments), capture_output=True, text=True, timeout=120,
                              check=False, stdin=subprocess.DEVNULL)
        assert done.returncode == 0, done.stdout + done.stderr
        return done.stdout

    def service(self, host: str) -> dict[str, str]:
        """Its block of the state file."""
        text = (self.folder / self.status).read_text() if (self.folder / self.status).exists() else ""
        for block in re.findall(r"^servicestatus \{\n(.*?)^\s*\}", text, re.MULTILINE | re.DOTALL):
            found = dict(re.findall(r"^\s*(\w+)=(.*?) *$", block, re.MULTILINE))
            if found["host_name"] == host and found["has_been_checked"] == "1":
                return found
        return {}

    def checked(self, host: str, state: str) -> dict[str, str]:
        """The service once a forced check has this state."""
        pipe, now = self.folder / self.commands, int(time.time())
        wait_until(pipe.exists, 60, 0.2, what=f"commands taken\n{self.said()}")
        with open(os.open(pipe, os.O_WRONLY | os.O_NONBLOCK), "w", encoding="utf-8") as orders:
            orders.write(f"[{now}] SCHEDULE_FORCED_SVC_CHECK;{host};kvsnmp;{now}\n")
        wait_until(lambda: self.service(host).get("current_state") == state, 90, 0.5,
                   what=f"{host} {state}: {self.service(host)}\n{self.said()}")
        return self.service(host)

    def said(self) -> str:
        return (self.folder / "log").read_text(errors="replace")[-3000:]


class Nagios4(Monitor):
    program = [f"{UNPACKED}/usr/sbin/nagios4", "/etc/nagios4/nagios.cfg"]
    status, commands = "var/lib/nagios4/status.dat", "var/lib/nagios4/rw/nagios.cmd"
    folders = ["var/lib/nagios4/rw", "var/lib/nagios4/spool/checkresults", "var/log/nagios4/archives", "run/nagios4"]
    CHANGES = {"nagios_user": "root", "nagios_group": "root", "status_update_interval": "2", "use_syslog": "0",
               "check_result_reaper_frequency": "2", "check_for_updates": "0"}

    def prepare(self, hosts: str) -> None:
        shutil.copytree("/etc/nagios-plugins", self.folder / "etc/nagios-plugins")
        text = (self.etc / "nagios.cfg").read_text().replace("cfg_file=/etc/nagios4/objects/localhost.cfg\n", "")
        for name, value in self.CHANGES.items():
            text = re.sub(rf"^{name}=.*$", f"{name}={value}", text, flags=re.MULTILINE)
        (self.etc / "nagios.cfg").write_text(text)
        for name in ("kvsnmp-commands.cfg", "kvsnmp-services.cfg", "kvsnmp-device.cfg"):
            shutil.copy(CHECKS / name, self.etc / "conf.d")
        group = "    hostgroups kvsnmp-devices\n    _SNMP_COMMUNITY public\n"
        (self.etc / "conf.d/hosts.cfg").write_text(hosts or "".join(
            f"define host {{\n    use kvsnmp-host,generic-host\n    host_name {name}\n    address {address}\n"
            f"    _SNMP_PORT {PORT}\n{group if name != 'warm' else ''}}}\n" for name, address in HOSTS.items())
            + "define service {\n    use kvsnmp-device-service\n    host_name warm\n    service_description kvsnmp\n"
            "    check_command check_kvsnmp_device_by_file!/etc/nagios4/kvsnmp.snmp!-w temperature=50 -w voltage=-9:9\n}\n")


class Icinga2(Monitor):
    program = [f"{UNPACKED}{LIBRARIES}/icinga2/sbin/icinga2", "daemon", "-DRunAsUser=root", "-DRunAsGroup=root"]
    status, commands = "var/cache/icinga2/status.dat", "run/icinga2/cmd/icinga2.cmd"
    folders = [f"var/{name}/icinga2" for name in ("lib", "cache", "log", "spool")] + ["run/icinga2/cmd"]

    def prepare(self, hosts: str) -> None:
        for name in ("checker", "command", "statusdata"):
            (self.etc / f"features-enabled/{name}.conf").symlink_to(f"../features-available/{name}.conf")
        (self.etc / "conf.d/hosts.conf").unlink()
        shutil.copy(CHECKS / "kvsnmp-icinga2.conf", self.etc / "conf.d")
        limits = '  vars.kvsnmp_warning = [ "temperature=50", "voltage=-9:9" ]\n'
        (self.etc / "conf.d/devices.conf").write_text(hosts or "".join(
            f'object Host "{name}" {{\n  import "generic-host"\n  address = "{address}"\n  vars.kvsnmp = true\n'
            f'  vars.kvsnmp_port = {PORT}\n  vars.kvsnmp_credentials = "/etc/icinga2/kvsnmp.snmp"\n'
            f"{limits if name == 'warm' else ''}}}\n" for name, address in HOSTS.items()))


@pytest.fixture(scope="module")
def broken() -> Iterator[WalkAgent]:
    broken = WalkAgent("6420", "broken")
    agents = Agents({(HOSTS["healthy"], PORT): WalkAgent("6420", "healthy").answer,
                     (HOSTS["broken"], PORT): broken.answer})
    agents.start()
    yield broken
    agents.stop()


@pytest.fixture(scope="module", params=[Nagios4, Icinga2])
def monitor(request, broken, tmp_path_factory) -> Iterator[Monitor]:
    monitor = request.param(tmp_path_factory.mktemp("monitor"))
    with open(monitor.folder / "log", "wb") as log:
        process = subprocess.Popen(monitor.inside(*monitor.program), stdin=subprocess.DEVNULL, stdout=log, stderr=log)
    yield monitor
    process.terminate()
    process.wait(20)


def test_the_configuration_is_accepted(monitor):
    if isinstance(monitor, Nagios4):
        said = monitor.run("-v", *monitor.program[1:])
        warnings = re.findall("^Warning: .*", said, re.MULTILINE)
        assert "Checked 4 services.\n" in said and "Total Errors:   0\n" in said, said
        assert [line for line in warnings if "has no default contacts" not in line] == []
    else:
        said = monitor.run(*monitor.program[1:], "-C")
        assert "Instantiated 4 Hosts." in said and "Finished validating the configuration" in said, said
        # Debian's rules for hosts that are not here have warnings.
        assert [line for line in said.splitlines() if "kvsnmp" in line] == []


def test_each_device_has_its_state(broken, monitor):
    """The warm one's limits are given as the first lines of our files show, its community in a file."""
    for host, state, said, measured in [
            ("healthy", OK, r"KVSNMP OK - 6420 Orvane Mervio Amplifier VQ9D: 60 values in order",
             "Internal_voltage_3.3V=3.312V;3.135:3.465;2.97:3.63 "),
            ("warm", WARNING, r".*: Temperatures: Channel 1 52\.4 C, Temperatures: Channel 2 51\.7 C",
             "Internal_voltage_3.3V=3.312V;3.003:3.597;2.97:3.63 "),
            ("silent", CRITICAL, rf"KVSNMP CRITICAL - Timeout: No Response from udp:127\.0\.60\.3:{PORT}", "")]:
        found = monitor.checked(host, state)
        assert re.fullmatch(said, found["plugin_output"]) and measured in found["performance_data"].replace("'", "")
        assert host != "healthy" or "\\nLoudspeaker lines: 2 ok\\n" in found["long_plugin_output"]
    repairs = broken.change(FAULTS)
    found = monitor.checked("broken", CRITICAL)
    assert found["plugin_output"] == ("KVSNMP CRITICAL - 6420 Orvane Mervio Amplifier VQ9D: Voltages: Internal voltage 3.3V 3.7 V "
                                      "(+12.1 %), Loudspeaker lines: Channel 1 open, Temperatures: Channel 1 70.1 C")
    assert found["long_plugin_output"].split("\\n")[1:3] == [
        "CRITICAL - Loudspeaker lines: Channel 1: open", "WARNING - Temperatures: Channel 1: 70.1 C, outside 0.1:70"]
    broken.change(repairs)
    monitor.checked("broken", OK)


def test_icinga_parses_each_measurement(monitor):
    if not isinstance(monitor, Icinga2):
        pytest.skip("Nagios does not parse measurements")
    metrics = shlex.split(monitor.checked("healthy", OK)["performance_data"])
    assert len(metrics) == 5 + 2 + 13  # temperatures, fans, voltages
    calls = ", ".join(f'parse_performance_data("{metric}")' for metric in metrics)
    parsed = json.loads(monitor.run("console", "--eval", f"[ {calls} ]"))
    assert [metric["unit"] for metric in parsed] == ["degrees-celsius"] * 5 + [""] * 2 + ["volts"] * 13
    assert {metric["label"]: metric["value"] for metric in parsed}["Internal_voltage_3.3V"] == 3.312


# Hosts that kvsnmp-discover writes, whose names are an attack


@pytest.fixture(params=["community", "file"])
def made(request, outputs, tmp_path) -> dict[str, str]:  # noqa: F811
    """Of both formats; with a file of credentials all hosts are found, too."""
    if request.param == "community":
        return outputs
    file = tmp_path / 'kvsnmp "$1$"; !.snmp'
    file.write_text("defCommunity public\n")
    words = ["--credentials", str(file), "--retries", "0", "--timeout", "2", "127.0.10.0/26"]
    return {name: discover("--format", name, *words).stdout for name in ("nagios", "icinga2")}


def addresses(text: str) -> set[str]:
    return set(re.findall(r'^(?:    address +|  address = ")([\d.]+)', text, re.MULTILINE))


def test_nagios_loads_the_found_hosts(made, tmp_path):
    said = Nagios4(tmp_path / "nagios", made["nagios"]).run("-vp", *Nagios4.program[1:])
    assert "Total Errors:   0" in said, said
    precached = (tmp_path / "nagios/var/lib/nagios4/objects.precache").read_text()
    hosts = [dict(re.findall(r"^\s*(\S+)\t(.*)$", block, re.MULTILINE))
             for block in re.findall(r"^define host \{\n(.*?)^\s*\}", precached, re.M | re.S)]
    assert {host["address"] for host in hosts} == addresses(made["nagios"]) and len(hosts) >= 19
    assert all(host["host_name"] == host["address"] and host["_SNMP_PORT"] == str(PORT) for host in hosts)
    if made.get("table"):
        assert all(host["_SNMP_COMMUNITY"] == "public" for host in hosts)


def test_icinga_loads_the_found_hosts(made, tmp_path):
    icinga, as_root = Icinga2(tmp_path / "icinga", made["icinga2"]), Icinga2.program[2:]
    said = icinga.run(*icinga.program[1:], "-C")
    hosts = addresses(made["icinga2"])
    assert f"Instantiated {len(hosts)} Hosts." in said and "Finished validating the configuration" in said, said
    listed = icinga.run("object", "list", *as_root, "--type", "Host")
    assert set(re.findall(r"^Object '(.*)' of type 'Host'", listed, re.MULTILINE)) == hosts and len(hosts) >= 19
    assert len(re.findall(r"^    \* kvsnmp_port = (\d+)$", listed, re.MULTILINE)) == len(hosts)
    secret = '    * kvsnmp_community = "public"' if made.get("table") else "    * kvsnmp_credentials = "
    assert listed.count(secret) == len(hosts)
