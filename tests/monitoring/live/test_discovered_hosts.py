"""The hosts that kvsnmp-discover writes, loaded by Debian's Nagios 4 and Icinga 2. Run by scripts/test-monitoring."""
from __future__ import annotations

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import pytest

sys.path.insert(0, str(Path(__file__).resolve().parents[1]))

from prometheus_files import CHECKOUT, UNPACKED  # noqa: E402  (the path has to be set first)
from test_discover import PORT, discover, expected, outputs  # noqa: E402, F401  (fixtures)

CHECKS = CHECKOUT / "monitoring/checks"
LIBRARIES = f"{UNPACKED}/usr/lib/x86_64-linux-gnu"

def sandbox(folder: Path, *command: str) -> str:
    """Output of a command that has the packages' files where Debian installs them."""
    binds = [word for name in ("etc", "var", "run") for word in ("--bind", str(folder / name), f"/{name}")]
    done = subprocess.run(
        ["bwrap", "--unshare-pid", "--die-with-parent", "--clearenv", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin",
         "--setenv", "LD_LIBRARY_PATH", LIBRARIES, "--ro-bind", "/usr", "/usr", "--tmpfs", "/usr/share", "--tmpfs", "/tmp",
         "--ro-bind", f"{UNPACKED}/usr/share/icinga2", "/usr/share/icinga2", "--ro-bind", str(UNPACKED), str(UNPACKED),
         *[word for name in ("bin", "sbin", "lib", "lib64") for word in ("--symlink", f"usr/{name}", f"/{name}")],
         "--dev", "/dev", "--proc", "/proc", *binds, *command],
        capture_output=True, text=True, timeout=120, check=False, stdin=subprocess.DEVNULL)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture
def folder(tmp_path) -> Path:
    for name in ("etc", "run", *(f"var/{name}/icinga2" for name in ("lib", "cache", "log", "spool")),
                 "var/lib/nagios4/rw", "var/lib/nagios4/spool/checkresults", "var/log/nagios4/archives"):
        (tmp_path / name).mkdir(parents=True)
    (tmp_path / "var/run").symlink_to("/run")
    (tmp_path / "run/nagios4").mkdir()
    for name in ("passwd", "group"):
        shutil.copy(f"/etc/{name}", tmp_path / "etc")
    for name in ("nagios4", "icinga2"):
        shutil.copytree(UNPACKED / f"etc/{name}", tmp_path / "etc" / name)
    shutil.copytree("/etc/nagios-plugins", tmp_path / "etc/nagios-plugins")
    return tmp_path


@pytest.fixture(params=["community", "file"])
def made(request, outputs, tmp_path_factory) -> dict[str, str]:  # noqa: F811
    """Of both formats; with a file of credentials all hosts are found, too."""
    if request.param == "community":
        return outputs
    file = tmp_path_factory.mktemp("credentials") / 'kvsnmp "$1$"; !.snmp'
    file.write_text("defCommunity public\n")
    words = ["--credentials", str(file), "--retries", "0", "--timeout", "0.5", "127.0.10.0/26"]
    return {name: discover("--format", name, *words).stdout for name in ("nagios", "icinga2")}


def addresses(text: str) -> set[str]:
    return set(re.findall(r'^(?:    address +|  address = ")([\d.]+)', text, re.MULTILINE))


def test_nagios_loads_the_hosts(made, folder):
    etc = folder / "etc/nagios4"
    text = (etc / "nagios.cfg").read_text().replace("cfg_file=/etc/nagios4/objects/localhost.cfg\n", "")
    user = "root" if os.geteuid() == 0 else str(os.geteuid())
    for name, value in {"nagios_user": user, "nagios_group": user, "use_syslog": "0"}.items():
        text = re.sub(rf"^{name}=.*$", f"{name}={value}", text, flags=re.MULTILINE)
    (etc / "nagios.cfg").write_text(text)
    for name in ("kvsnmp-commands.cfg", "kvsnmp-device.cfg"):
        shutil.copy(CHECKS / name, etc / "conf.d")
    (etc / "conf.d/devices.cfg").write_text(made["nagios"])
    said = sandbox(folder, f"{UNPACKED}/usr/sbin/nagios4", "-vp", "/etc/nagios4/nagios.cfg")
    assert "Total Errors:   0" in said, said
    blocks = re.findall(r"^define host \{\n(.*?)^\s*\}", (folder / "var/lib/nagios4/objects.precache").read_text(), re.M | re.S)
    hosts = [dict(re.findall(r"^\s*(\S+)\t(.*)$", block, re.MULTILINE)) for block in blocks]
    assert {host["address"] for host in hosts} == addresses(made["nagios"]) and len(hosts) >= 19
    assert all(host["host_name"] == host["address"] and host["_SNMP_PORT"] == str(PORT) for host in hosts)
    if made.get("table"):
        assert all(host["_SNMP_COMMUNITY"] == "public" for host in hosts)


def test_icinga_loads_the_hosts(made, folder):
    etc = folder / "etc/icinga2"
    (etc / "conf.d/hosts.conf").unlink()
    shutil.copy(CHECKS / "kvsnmp-icinga2.conf", etc / "conf.d")
    (etc / "conf.d/devices.conf").write_text(made["icinga2"])
    program = f"{LIBRARIES}/icinga2/sbin/icinga2"
    as_user = ["-DRunAsUser=root", "-DRunAsGroup=root"]
    said = sandbox(folder, program, "daemon", *as_user, "-C")
    hosts = addresses(made["icinga2"])
    assert f"Instantiated {len(hosts)} Hosts." in said and "Finished validating the configuration" in said, said
    listed = sandbox(folder, program, "object", "list", *as_user, "--type", "Host")
    assert set(re.findall(r"^Object '(.*)' of type 'Host'", listed, re.MULTILINE)) == hosts and len(hosts) >= 19
    assert len(re.findall(r"^    \* kvsnmp_port = (\d+)$", listed, re.MULTILINE)) == len(hosts)
    secret = '    * kvsnmp_community = "public"' if made.get("table") else "    * kvsnmp_credentials = "
    assert listed.count(secret) == len(hosts)
