"""kvsnmp-check on healthy devices: no finding, its forms, options and exit statuses."""
from __future__ import annotations

import re

import pytest
from support.breakages import no_traps, stopped
from support.device import CHECKOUT, Device
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


@pytest.mark.parametrize("model, options", [(6420, ["--daemon"]), (6211, []), (6764, []), (6914, [])],
                         ids=["amplifier as daemon", "station", "power type", "switch"])
def test_a_healthy_device_gives_no_finding(start_device, model, options):
    device = start_device(model, "--no-traps", *options).wait_answering()
    check = SelfCheck(device)
    assert_healthy(check)
    assert check.report["model"] == model
    assert list(check.checks) == CHECKS
    assert ("gpio-tree" in check.ids("ok")) == (model == 6211)
    assert ("amplifier-monitor" in check.ids("ok")) == (model in (6420, 6764))
    assert check.text("kvsnmp-pid-file").startswith("names process" if options else "none")


def test_the_json_and_the_text_have_their_documented_form(amplifier):
    report = SelfCheck(amplifier).report
    assert set(report) == {"format", "version", "model", "failed", "causes", "counts", "checks"}
    assert sum(report["counts"].values()) == len(report["checks"]) == len(CHECKS)
    assert all(check["title"] and check["text"] and "\n" not in check["text"] for check in report["checks"])
    *lines, counts = amplifier.run(["kvsnmp-check"]).stdout.splitlines()
    assert [line.split()[1] for line in lines] == CHECKS
    assert counts == "28 ok, 1 not-applicable"
    page = (CHECKOUT / "docs/man/kvsnmp-check.8").read_text().replace("\\-", "-")
    assert re.findall(r"^\.TP\n\.B ([a-z-]+)$", page.partition(".SH CHECKS")[2].partition(".SH ")[0], re.M) == CHECKS


@pytest.mark.parametrize("arguments, status", [(["--help"], 0), (["-V"], 0), (["--wrong"], 2), (["word"], 2),
                                               (["--timeout", "x"], 2), (["--timeout", "61"], 2), (["-t"], 2)])
def test_options(amplifier, arguments, status):
    done = amplifier.run(["kvsnmp-check", *arguments], check=False)
    assert done.returncode == status
    assert bool(done.stdout) == (status == 0) and bool(done.stderr) == (status != 0)


def test_colours_on_a_terminal_alone(amplifier):
    for command, variables, colours in [(["script", "-qec", "kvsnmp-check", "/dev/null"], {}, True),
                                        (["script", "-qec", "kvsnmp-check", "/dev/null"], {"NO_COLOR": "1"}, False),
                                        (["kvsnmp-check"], {}, False)]:
        shown = amplifier.run(command, env={"TERM": "xterm"} | variables).stdout
        assert "ok" in shown and ("\x1b[32mok " in shown, "\x1b" in shown) == (colours, colours)


def nagios(device: Device, *command: str) -> tuple[int, str]:
    done = device.run([*command, "kvsnmp-check", "--nagios", "--timeout", "2"], check=False)
    assert re.fullmatch(r"KVSNMP [A-Z]+ - [^|\n]+( \|( [a-z-]+=\d+){5})?\n", done.stdout), done.stdout
    return done.returncode, done.stdout


def test_nagios_states(amplifier):
    status, line = nagios(amplifier)
    assert (status, line) == (0, "KVSNMP OK - 28 checks | ok=28 warning=0 failed=0 skipped=0 not-applicable=1\n")
    with stopped(amplifier, "snmpd"):
        status, line = nagios(amplifier)
    assert status == 2 and line.startswith("KVSNMP CRITICAL - snmpd-process: process ")
    amplifier.wait_answering()
    with no_traps(amplifier):
        status, line = nagios(amplifier)
    assert status == 1 and line.startswith("KVSNMP WARNING - traps-enabled: none of the 20 traps is enabled"), line
    status, line = nagios(amplifier, "setpriv", "--reuid=65534", "--clear-groups")
    assert status == 3 and line.startswith("KVSNMP UNKNOWN - has to be run by root")
    for wrong in (["--wrong", "--nagios"], ["--nagios", "--json"], ["-n", "word"]):
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


def test_only_root_can_look(amplifier):
    done = amplifier.run(["setpriv", "--reuid=65534", "--clear-groups", "kvsnmp-check"], check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert "has to be run by root" in done.stderr
