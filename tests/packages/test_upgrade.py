"""The packages on a device: upgraded, removed, purged."""
from __future__ import annotations

import re
import shutil
import subprocess
import tempfile
from pathlib import Path

import guide
from debianroot import DEBS, PACKAGES, Booted, files_of, wait_until
from guide import type_in
from service import main_pid, snmpd_pids, wait_answering

LOCAL_LINE = "# changed on this device\n"
# Commands of the guide that other tests run.
TYPED_ELSEWHERE = {
    *(f"/etc/init.d/kvsnmp {word}" for word in ("start", "status", "restart", "stop")),  # tests/device/test_init.py
    "cmake --preset release -B build/maker -DKVSNMP_XRCOMMON_ROOT=/opt/xrcommon",  # test_maker_library.py, with less to build
    "scripts/cross arm64", "scripts/cross armhf", "scripts/test-cross arm64",  # on the host, in separate roots
}


def with_higher_version(debs: Path, folder: Path) -> None:
    """The packages again with a higher version, and another kvagent.conf as the maintainer might ship it."""
    for package in PACKAGES:
        tree = folder / package
        subprocess.run(["dpkg-deb", "--raw-extract", str(next(debs.glob(f"{package}_*.deb"))), str(tree)], check=True)
        control = tree / "DEBIAN/control"
        old = re.search(r"^Version: (.*)$", control.read_text(), flags=re.MULTILINE)[1]
        control.write_text(control.read_text().replace(old, "9.0"))
        if (conf := tree / "etc/snmp/kvagent.conf").exists():
            conf.write_text(conf.read_text() + "# shipped by version 9.0\n")
        subprocess.run(["dpkg-deb", "--root-owner-group", "--build", str(tree), str(folder)], check=True,
                       stdout=subprocess.DEVNULL)
        shutil.rmtree(tree)


def test_an_upgrade_restarts_the_daemon_and_keeps_a_changed_kvagent_conf(booted: Booted, debs: Path) -> None:
    conf = booted.root.path("/etc/snmp/kvagent.conf")
    conf.write_text(conf.read_text() + LOCAL_LINE)
    before = main_pid(booted)
    with tempfile.TemporaryDirectory(dir=debs) as folder:
        with_higher_version(debs, Path(folder))
        booted.run("/bin/sh", "-c", f"apt-get -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold "
                                    f"install {DEBS}/{Path(folder).name}/*.deb")
    assert booted.output("dpkg-query", "-W", "-f", "${Version}", "kvsnmp") == "9.0"
    assert conf.read_text().endswith(LOCAL_LINE)
    assert "9.0" in booted.root.path("/etc/snmp/kvagent.conf.dpkg-dist").read_text()
    assert main_pid(booted) not in (0, before)
    assert booted.output("systemctl", "is-enabled", "kvsnmp.service") == "enabled"
    wait_answering(booted)


def test_the_guide_s_commands_end_both_processes(booted: Booted) -> None:
    type_in(booted, "systemctl disable --now kvsnmp.service")
    type_in(booted, "start-stop-daemon --stop --pidfile /run/snmpd.pid --exec /usr/sbin/snmpd")
    wait_until(lambda: not snmpd_pids(booted), 10, what="the end of snmpd")


def test_removing_leaves_the_settings(booted: Booted) -> None:
    booted.run("systemctl", "enable", "--now", "kvsnmp.service")
    wait_answering(booted)
    booted.run("apt-get", "remove", *PACKAGES)
    assert booted.output("pgrep", "-x", "kvsnmp") == ""
    assert not booted.root.path("/usr/sbin/kvsnmp").exists()
    assert booted.root.path("/etc/snmp/kvagent.conf").read_text().endswith(LOCAL_LINE)
    assert booted.root.path("/etc/snmp/snmpd.conf").exists()


def test_purging_leaves_nothing_of_the_packages(booted: Booted, debs: Path) -> None:
    booted.run("start-stop-daemon", "--stop", "--retry", "10", "--pidfile", "/run/snmpd.pid", "--exec", "/usr/sbin/snmpd")
    booted.run("apt-get", "purge", "kvsnmp")  # the others had no conffiles and are gone already
    assert booted.output("dpkg-query", "-W", "-f", "${db:Status-Abbrev}", *PACKAGES) == ""
    for path in ("/etc/systemd/system/kvsnmp.service.d", "/etc/default/kvsnmp"):
        shutil.rmtree(booted.root.path(path), ignore_errors=True)  # of this test
    for path in ("/usr/local/bin/kvsnmp-trap-line", "/etc/snmp/snmptt.conf.kvsnmp", "/var/log/kvsnmp-traps.log"):
        booted.root.path(path).unlink(missing_ok=True)  # of the recipes
    ours = set().union(*(files_of(package, debs) for package in PACKAGES))
    left = {path for path in ours if not path.endswith("/") and booted.root.path(path).exists()}
    assert left == set()
    found = booted.output("find", "/", "-xdev", "(", "-path", "/proc", "-o", "-path", DEBS, "-o", "-path", "/var/log/journal",
                          ")", "-prune", "-o", "(", "-iname", "*kvsnmp*", "-o", "-iname", "kvagent*", "-o", "-iname",
                          "tal[cs]*", "-o", "-iname", "agentx", ")", "-print")
    # The administrator's, here the test's.
    ignored = {"/etc/systemd/system/talservice.service", "/run/tal.sock", "/run/talctl.sock"}
    assert set(found.splitlines()) - ignored == set()


def test_debian_s_own_snmpd_conf_comes_back(booted: Booted) -> None:
    type_in(booted, "rm /etc/snmp/snmpd.conf")
    type_in(booted, "apt-get -o Dpkg::Options::=--force-confmiss install --reinstall snmpd")
    assert "agentaddress" in booted.root.path("/etc/snmp/snmpd.conf").read_text()
    booted.run("systemctl", "unmask", "snmpd.service")
    booted.run("systemctl", "start", "snmpd.service")
    assert booted.output("systemctl", "is-active", "snmpd.service") == "active"


def test_every_command_of_the_guide_was_typed() -> None:
    assert guide.commands() - guide.typed - TYPED_ELSEWHERE == set()
