"""kvsnmp-check: no finding on healthy devices, and the cause on each broken one."""
from __future__ import annotations

import os
import re
import signal
import time
from collections.abc import Callable
from contextlib import AbstractContextManager, contextmanager

import pytest
from support.dataservice import SETTINGS
from support.device import CHECKOUT, Device
from support.polling import wait_until
from support.selfcheck import SelfCheck, assert_cause, assert_healthy, assert_reports
from support.traps import Faults

CONF = "/etc/snmp/snmpd.conf"
ACCESS, TRAPS = f"{SETTINGS}/access_control", f"{SETTINGS}/trap_settings"
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


# Healthy devices


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


# Broken and mended again: the amplifier


@contextmanager
def stopped(device: Device, program: str):
    pid = device.pids(program)[0]
    device.kill(pid, signal.SIGSTOP)
    yield
    device.kill(pid, signal.SIGCONT)


def restart_snmpd(device: Device) -> None:
    pids = device.pids("snmpd")
    device.stir_snmpd_folder()
    device.wait_snmpd(other_than=pids)
    device.wait_answering()


@contextmanager
def access(device: Device, **values: str):
    """Other access settings; snmpd runs with them when the block begins, and with the old ones at its end."""
    def change(new: dict[str, str]) -> None:
        pids = device.pids("snmpd")
        device.talctl_batch([f"set {ACCESS}/{leaf} '{value}'" for leaf, value in new.items()])
        device.wait_snmpd(other_than=pids)
        wait_until(device.path("/var/agentx/master").exists, what="AgentX socket")

    before = {leaf: device.talctl("get", f"{ACCESS}/{leaf}").strip() for leaf in values}
    change(values)
    yield
    change(before)
    device.wait_answering()


@contextmanager
def edited(device: Device, path: str, edit: Callable[[str], str]):
    """Rewritten in place, which nobody notices until the next restart."""
    file = device.path(path)
    kept = file.read_text()
    file.write_text(edit(kept))
    yield
    file.write_text(kept)
    if path == CONF:
        restart_snmpd(device)  # else it stays older than its file


@contextmanager
def moved_away(device: Device, path: str, *instead: str):
    """The file, with what a command makes in its place."""
    file = device.path(path)
    away = file.rename(file.with_name(f"{file.name}-away"))
    if instead:
        device.run(instead)
    yield
    away.replace(file)


@contextmanager
def beside(device: Device, program: str, *command: str):
    before = device.pids(program)
    second = device.popen(command)
    wait_until(lambda: len(device.pids(program)) == 2, what=f"two {program}")
    yield
    (other,) = set(device.pids(program)) - set(before)
    device.kill(other, signal.SIGKILL)
    second.wait()


@contextmanager
def setting(device: Device, path: str, value: str):
    before = device.talctl("get", path).strip()
    device.talctl("set", path, value)
    yield
    device.talctl("set", path, before)


@contextmanager
def newer_conf(device: Device):
    """Mounted over the file, which the daemon does not notice."""
    started = device.path("/run/snmpd.pid").stat().st_mtime
    wait_until(lambda: time.time() > started + 8, what="some seconds of life")
    device.path("/etc/newer.conf").write_text(device.read(CONF))
    os.utime(device.path("/etc/newer.conf"), (started + 4.5, started + 4.5))
    device.run(["mount", "--bind", "/etc/newer.conf", CONF])
    yield
    device.run(["umount", CONF])


@contextmanager
def no_traps(device: Device, *but: str):
    names = [line.split("\t")[0] for line in device.talctl("trap", "list").splitlines()]
    assert len(names) == 20
    device.talctl_batch([f"trap disable '{name}'" for name in names] + [f"trap enable '{name}'" for name in but])
    yield
    device.talctl_batch([f"trap enable '{name}'" for name in names])


FAKE = "import ctypes, time; ctypes.CDLL(None).prctl(15, b'kvsnmp'); time.sleep(60)"
DEAD_SOCKET = "import socket; socket.socket(socket.AF_UNIX).bind('/run/tal.sock')"
SECOND_SNMPD = ["snmpd", "-f", "-C", "-Ln", "-x", "/tmp/second", "udp:127.0.0.1:1999"]

# What is broken, how, and what the check reports (support/selfcheck.py)
BROKEN: list[tuple[str, Callable[[Device], AbstractContextManager], str]] = [
    ("data service hangs", lambda device: stopped(device, "talservice"), """
        cause snmp-settings: takes the connection, but delivers nothing within 1 s
        ok data-service model-number-served"""),
    ("socket left by a data service that ended",
     lambda device: moved_away(device, "/run/tal.sock", "python3", "-c", DEAD_SOCKET), """
        cause data-service: Connection refused"""),
    ("SNMP disabled in the settings", lambda device: access(device, access="Disabled"), """
        cause snmp-access: SNMP access is "Disabled"
        ok snmpd-process
        because snmpd-answer"""),
    ("change of the IPv6 manager alone, which is not written",
     lambda device: setting(device, f"{ACCESS}/nms_ipv6", "fd00::1"), """
        warning snmpd-conf-settings: com2sec6 alone"""),
    ("kvsnmp stopped", lambda device: stopped(device, "kvsnmp"), """
        cause kvsnmp-process: process {kvsnmp} is stopped
        because model-number-served"""),
    ("two kvsnmp", lambda device: beside(device, "kvsnmp", "python3", "-c", FAKE), """
        cause kvsnmp-process: 2 of them run"""),
    ("system bus hangs", lambda device: stopped(device, "dbus-daemon"), """
        cause system-bus: is connected, but does not answer"""),
    ("snmpd stopped", lambda device: stopped(device, "snmpd"), """
        cause snmpd-process: process {snmpd} is stopped
        text agentx-socket: takes the connection, but does not answer within 1 s"""),
    ("two snmpd", lambda device: beside(device, "snmpd", *SECOND_SNMPD), """
        cause snmpd-process: 2 of them run"""),
    ("stale pid file of snmpd", lambda device: edited(device, "/run/snmpd.pid", lambda _: "99999\n"), """
        cause snmpd-pid-file: names process 99999, not {snmpd}"""),
    ("configuration damaged by hand",
     lambda device: edited(
         device, CONF, lambda text: text.replace("view all", "veiw all").replace(" public\n", "\n", 1)), """
        cause snmpd-conf-settings: differs from the settings in: com2sec, veiw, view
        text snmpd-conf-accepted: snmpd refuses line {com2sec}, "com2sec mynetwork 127.0.0.1\""""),
    ("community changed by hand",
     lambda device: edited(device, CONF, lambda text: text.replace(" public\n", " other\n")), """
        cause snmpd-conf-settings: com2sec
        because snmpd-answer"""),
    ("configuration newer than the snmpd that should have read it", newer_conf, """
        warning snmpd-process: is older than snmpd.conf"""),
    ("ps without the health probe's words", lambda device: moved_away(device, "/run/device/bin/ps"), """
        warning health-probe: does not report snmpd's memory"""),
    ("snmpd at its memory limit", lambda device: edited(device, "/run/device/snmpd-rss", lambda _: "10240\n"), """
        warning health-probe: 10240 kB"""),
    ("identity file changed under a running daemon",
     lambda device: edited(device, "/etc/xr-modelnumber", lambda _: "6425\n"), """
        cause model-number-served: 6420 is served, the identity file says 6425
        hint model-number-served: restart kvsnmp"""),
    ("no trap enabled", no_traps, """
        warning traps-enabled: none of the 20 traps is enabled"""),
    ("one trap enabled", lambda device: no_traps(device, "LET Fault"), """
        ok traps-enabled
        text traps-enabled: 1 of 20, on: LET Fault"""),
]


@pytest.mark.parametrize("way, report", [pytest.param(way, report, id=name) for name, way, report in BROKEN])
def test_report_of_a_device_that_is_broken_and_mended(amplifier, way, report):
    facts = {name: amplifier.pids(name)[0] for name in ("kvsnmp", "snmpd")}
    facts["com2sec"] = amplifier.read(CONF).splitlines().index("com2sec mynetwork 127.0.0.1 public") + 1
    with way(amplifier):
        check = SelfCheck(amplifier, timeout="1")
    assert_reports(check, report.format(**facts))
    wait_until(lambda: SelfCheck(amplifier).status == 0, what="mended")
    assert_healthy(SelfCheck(amplifier))


def test_access_list_without_this_device(amplifier):
    with access(amplifier, nms_ipv6="fd00::9", nms_ip="10.9.9.9"):
        check = wait_until(lambda: (c := SelfCheck(amplifier)).status == 0 and c, what="sub-agent connected")
    assert_reports(check, "warning snmpd-answer: gives access to no address of this device")
    assert check.text("sub-agent").startswith("1 connected")
    assert check.ids("skipped") == ["model-number-served"]


# Broken from the start


def wait_ended(device: Device) -> None:
    assert device.kvsnmp_status() == 255


def wait_attempt(device: Device) -> None:
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="attempt")


def wait_given_up(device: Device) -> None:
    wait_attempt(device)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd given up")


def wait_empty_conf(device: Device) -> None:
    wait_until(lambda: "FINISH kaAgentStart()\n" in device.kvsnmp_out(), what="agent started")
    device.wait_snmpd()
    assert device.read(CONF) == ""


def start_without_snmpd(device: Device) -> None:
    device.start_kvsnmp("-d", env={"PATH": "/run/device/bin:/usr/bin:/bin"})
    wait_attempt(device)


def start_without_killall(device: Device) -> None:
    device.run(["sh", "-c", "mkdir /tmp/programs && cd /tmp/programs && ln -sf /usr/bin/* /usr/sbin/* . && rm killall"])
    device.start_kvsnmp("-d", env={"PATH": "/run/device/bin:/tmp/programs"})
    device.wait_answering()


PORT_HOLDER = ("import socket, time; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(('', 161)); "
               "print('ready', flush=True); time.sleep(60)")


def start_with_port_taken(device: Device) -> None:
    holder = device.popen(["python3", "-c", PORT_HOLDER], stdout=-1, text=True)
    holder.stdout.readline()
    device.start_kvsnmp("-d")
    wait_given_up(device)


def remove_agentx_socket(device: Device) -> None:
    """The connection of the sub-agent lives on; a restart of kvsnmp would show the loss."""
    device.wait_answering().path("/var/agentx/master").unlink()


STARTS: list[tuple[str, list[str], Callable[[Device], object], str]] = [
    ("model number missing", ["--no-etc", "xr-modelnumber"], wait_ended, """
        cause model-number: /etc/xr-modelnumber is not there
        ok data-service snmp-settings
        because kvsnmp-process"""),
    ("model unknown", ["--etc", "xr-modelnumber=9999"], wait_ended, """
        cause model-number: "9999"
        text model-number: no known model"""),
    ("access that is no word of the settings", ["--set", f"{ACCESS}/access=Write"], wait_empty_conf, """
        cause snmp-access: "Write"
        text snmp-access: left empty
        because snmpd-conf"""),
    ("port that is none", ["--set", f"{ACCESS}/snmp_port=snmp"], wait_given_up, """
        cause snmp-access: the port is "snmp"
        because snmpd-process agentx-socket"""),
    ("kvsnmp never started", ["--no-kvsnmp"], lambda device: None, """
        cause kvsnmp-process: does not run
        because snmpd-conf snmpd-process"""),
    ("system bus absent", ["--no-dbus"], Device.wait_answering, """
        cause system-bus: No such file
        ok model-number-served
        because only amplifier-monitor"""),
    ("killall not in the PATH of kvsnmp", ["--no-kvsnmp"], start_without_killall, """
        cause commands: not in kvsnmp's PATH: killall
        ok snmpd-process model-number-served"""),
    ("snmpd not in the PATH of kvsnmp", ["--no-kvsnmp"], start_without_snmpd, """
        cause snmpd-program: not in kvsnmp's PATH, /run/device/bin:/usr/bin:/bin
        because snmpd-process agentx-socket snmpd-answer"""),
    ("port of snmpd taken", ["--no-kvsnmp"], start_with_port_taken, """
        cause snmpd-process: another program has its UDP port 161"""),
    ("AgentX socket gone", [], remove_agentx_socket, """
        cause agentx-socket: /var/agentx/master is not there
        because only"""),
    ("identity files and receivers, without which it answers",
     ["--etc", "xr-amptype=vq9d", "--etc", "xr-model=", "--no-etc", "xr-pkgver", "--set", f"{TRAPS}/trap_address="],
     Device.wait_answering, """
        warning model-text amplifier-type package-version trap-receivers: /etc/xr-model is empty
        text amplifier-type: "vq9d"
        text amplifier-type: "Unknown" is served
        text trap-receivers: none: traps and informs go nowhere"""),
    ("receivers out of reach",
     ["--set", f"{TRAPS}/trap_address=nms.invalid", "--set", f"{TRAPS}/inform_address=192.0.2.7:1162"],
     Device.wait_answering, """
        text trap-receivers: trap2sink nms.invalid is no address and no name that this device can resolve
        text trap-receivers: informsink 192.0.2.7:1162 cannot be reached: Network is unreachable"""),
]


@pytest.mark.parametrize("options, prepare, report", [pytest.param(*start, id=name) for name, *start in STARTS])
def test_report_of_a_device_that_starts_broken(start_device, options, prepare, report):
    device = start_device(6420, "--no-traps", *options)
    prepare(device)
    check = SelfCheck(device)
    assert_reports(check, report)
    assert check.report["model"] == (None if check.causes == ["model-number"] else 6420)


def test_data_service_does_not_run(start_device):
    device = start_device(6420, "--no-traps", "--no-simulator")
    device.wait_running()
    check = SelfCheck(device, timeout="1")
    # The monitor is part of the same simulator, and of another program on a device.
    assert check.causes == ["data-service", "amplifier-monitor"]
    assert "/run/tal.sock is not there" in check.text("data-service")
    assert "nobody has the name com.orvane.pamon" in check.text("amplifier-monitor")
    assert {check.checks[name]["because"] for name in ("snmpd-conf", "snmpd-process", "snmpd-answer", "sub-agent",
                                                       "model-number-served")} == {"data-service"}


def test_kvsnmp_killed(start_device):
    device = start_device(6420, "--no-traps", "--daemon").wait_answering()
    device.kill_and_wait(device.kvsnmp_pid())
    check = SelfCheck(device)
    assert_cause(check, "kvsnmp-process", "does not run", "a pid file of an earlier one is left")
    assert set(check.consequences()) == {"kvsnmp-pid-file", "sub-agent", "model-number-served"}

    # The pid file names another process, which has the number of the old one.
    device.path("/run/kvsnmp.pid").write_text(f"{device.pids('talservice')[0]}\n")
    check = SelfCheck(device)
    assert_cause(check, "kvsnmp-process", "which is talservice")
    assert "Already running" in check.checks["kvsnmp-process"]["hint"]
    assert "Already running" in device.run_kvsnmp().stderr


def test_snmpd_killed_and_started_as_the_hint_says(start_device):
    device = start_device(6420, "--no-traps").wait_answering()
    device.kill(device.wait_snmpd(), signal.SIGKILL)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd gone")
    check = SelfCheck(device)
    assert_cause(check, "snmpd-process", "does not run", "left its pid file behind")
    assert "Connection refused" in check.text("agentx-socket")
    restart_snmpd(device)
    assert_healthy(SelfCheck(device))


def test_gpio_lines_missing(start_device):
    device = start_device(6211, "--no-traps").wait_answering()
    device.talctl("gpio", "168", "unreadable")
    assert_cause(SelfCheck(device), "gpio-tree", "1 of 7 lines cannot be read: 168")
    device.talctl("gpio", "168", "0")
    assert_healthy(SelfCheck(device))

    # Only the model text says that the station has expanders.
    for label in device.path("/run/gpio").glob("gpiochip*/label"):
        if label.read_text().strip().endswith("-0021"):
            label.write_text("other\n")
    device.path("/etc/xr-model").write_text("Orvane Brisel Compact - IP-QRM-B\n")
    assert_cause(SelfCheck(device), "gpio-tree", "label ends in -0021")
    device.talctl("gpio", "remove")
    assert SelfCheck(device).causes == ["gpio-tree"]


def test_configuration_made_by_hand(start_device):
    text = "master agentx\nrocommunity secret 127.0.0.1\nagentAddress udp:161\ntrap2sink 127.0.0.1 secret\n"
    device = start_device(6420, "--no-traps", "--no-kvsnmp", "--set", f"{SETTINGS}/custom_config=true")
    file = device.path(CONF)
    file.write_text(text)
    device.start_kvsnmp("-d")
    wait_until(lambda: "FINISH kaAgentStart()\n" in device.kvsnmp_out(), what="agent started")
    device.wait_snmpd()
    check = wait_until(lambda: (c := SelfCheck(device)).status == 0 and c, what="sub-agent connected")
    assert_healthy(check)
    assert {"snmp-access", "snmpd-conf-settings"} <= set(check.ids("not-applicable"))
    assert check.text("trap-receivers") == "trap2sink 127.0.0.1"
    for edited_text, cause, said in [
            (text.replace("secret", "hidden"), "snmpd-answer", ["no answer at udp:127.0.0.1:161"]),
            (text + "acces all\n", "snmpd-conf-accepted", ['refuses line 5, "acces all"', "Unknown token"]),
            (text.replace("master agentx\n", ""), "snmpd-conf", ['no line "master agentx"']),
            (text.replace("udp:161", "udp:161x"), "snmpd-conf-accepted", ["agentAddress udp:161x has no port"])]:
        file.write_text(edited_text)
        assert_cause(SelfCheck(device, timeout="1"), cause, *said)


def test_a_local_trap_receiver_needs_the_name_localhost(start_device):
    device = start_device(6410, "--no-dbus").wait_answering().wait_subscribed()
    hosts = device.path("/etc/hosts")
    with_name = hosts.read_text()
    faults = Faults(device)

    hosts.write_text("127.0.0.1 device\n")
    restart_snmpd(device)
    check = SelfCheck(device)
    assert check.text("trap-receivers") == ("trap2sink 127.0.0.1 gets nothing: this device cannot resolve the name "
                                            "localhost, see /etc/hosts")
    assert "trap-receivers" in check.ids("warning")
    faults.raise_one("fan_not_running", "without the name")
    hosts.write_text(with_name)
    restart_snmpd(device)
    faults.raise_one("fan_not_running", "with the name")
    wait_until(lambda: "with the name" in device.read("/var/log/traps"), 20, what="the trap")
    assert "without the name" not in device.read("/var/log/traps"), "snmpd sends nothing, and the warning is right"
    assert "trap-receivers" in SelfCheck(device).ids("ok")
