"""kvsnmp-check on healthy devices: no finding, its forms, options and exit statuses."""
from __future__ import annotations

import re

import pytest
from support.breakages import stopped
from support.device import CHECKOUT
from support.selfcheck import SelfCheck, assert_healthy

CHECKS = [
    "model-number", "model-text", "amplifier-type", "package-version", "kernel-version", "device-tree-version",
    "data-service", "snmp-settings", "snmp-access", "device-values",
    "kvsnmp-process", "kvsnmp-pid-file", "system-bus", "amplifier-monitor", "gpio-tree", "commands",
    "snmpd-program", "snmpd-conf", "snmpd-conf-settings", "snmpd-conf-accepted", "snmpd-process", "snmpd-pid-file",
    "health-probe",
    "snmpd-answer", "agentx-socket", "sub-agent", "model-number-served",
    "traps-enabled", "trap-receivers",
]


@pytest.fixture(scope="module")
def amplifier(start_shared_device):
    """A healthy amplifier; a test that breaks it repairs it."""
    return start_shared_device(6420, "--no-traps").wait_answering()


def test_a_healthy_device_gives_no_finding(amplifier, start_device):
    for device, pid_file in ((amplifier, "none"), (start_device(6211, "--no-traps", "--daemon"), "names process")):
        check = SelfCheck(device.wait_answering())
        assert_healthy(check)
        assert check.report["model"] == device.model
        assert list(check.checks) == CHECKS
        assert ("gpio-tree" in check.ids("ok")) == (device.model == 6211)
        assert ("amplifier-monitor" in check.ids("ok")) == (device.model == 6420)
        assert check.text("kvsnmp-pid-file").startswith(pid_file)


def test_the_text_has_the_documented_checks(amplifier):
    *lines, counts = amplifier.run(["kvsnmp-check"]).stdout.splitlines()
    assert [line.split()[1] for line in lines] == CHECKS
    assert counts == "28 ok, 1 not-applicable"
    page = (CHECKOUT / "docs/man/kvsnmp-check.8").read_text().replace("\\-", "-")
    assert re.findall(r"^\.TP\n\.B ([a-z-]+)$", page.partition(".SH CHECKS")[2].partition(".SH ")[0], re.M) == CHECKS


@pytest.mark.parametrize("arguments, status", [(["--help"], 0), (["-V"], 0), (["--wrong"], 2), (["word"], 2),
                                               (["--timeout", "61"], 2), (["-t"], 2)])
def test_options(amplifier, arguments, status):
    done = amplifier.run(["kvsnmp-check", *arguments], check=False)
    assert done.returncode == status
    assert bool(done.stdout) == (status == 0) and bool(done.stderr) == (status != 0)


def test_nagios_states(amplifier):
    def nagios(*command: str) -> tuple[int, str]:
        done = amplifier.run([*command, "kvsnmp-check", "--nagios", "--timeout", "2"], check=False)
        return done.returncode, done.stdout

    assert nagios() == (0, "KVSNMP OK - 28 checks | ok=28 warning=0 failed=0 skipped=0 not-applicable=1\n")
    with stopped(amplifier, "snmpd"):
        status, line = nagios()
    assert status == 2 and re.fullmatch(r"KVSNMP CRITICAL - snmpd-process: process [^|\n]+ \|( [a-z-]+=\d+){5}\n", line)
    amplifier.wait_answering()
    status, line = nagios("setpriv", "--reuid=65534", "--clear-groups")
    assert status == 3 and line.startswith("KVSNMP UNKNOWN - has to be run by root")
    done = amplifier.run(["setpriv", "--reuid=65534", "--clear-groups", "kvsnmp-check"], check=False)
    assert (done.returncode, done.stdout) == (2, "")
    for wrong in (["--wrong", "--nagios"], ["--nagios", "--json"]):
        assert amplifier.run(["kvsnmp-check", *wrong], check=False).returncode == 3


def test_nothing_is_changed_started_or_ended(amplifier):
    def files() -> dict[str, tuple[int, int]]:
        found = {}
        for folder in ("etc", "run", "tmp", "var"):
            for path in (amplifier.root / folder).rglob("*"):
                name = "/" + str(path.relative_to(amplifier.root))
                # The device's ps and daemons write these.
                if not name.startswith(("/var/log/", "/run/device/probes", "/tmp/kvsnmp.watchdogtest")):
                    info = path.lstat()
                    found[name] = (info.st_size, info.st_mtime_ns)
        return found

    def processes() -> list[list[int]]:
        return [amplifier.pids(name) for name in ("kvsnmp", "snmpd", "talservice", "dbus-daemon")]

    amplifier.wait_subscribed()
    before = files(), processes()
    assert_healthy(SelfCheck(amplifier))
    assert (files(), processes()) == before
