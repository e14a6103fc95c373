"""kvsnmp-check on broken devices: it names the cause, and what follows from it."""
from __future__ import annotations

from collections.abc import Callable
from contextlib import AbstractContextManager

import pytest
from support.breakages import CONF, access, beside, edited, moved_away, newer_conf, restart_snmpd, snmpd_killed, stopped
from support.dataservice import SETTINGS
from support.device import Device
from support.polling import wait_until
from support.selfcheck import SelfCheck, assert_healthy, assert_reports
from support.traps import Faults

TRAPS = f"{SETTINGS}/trap_settings"


@pytest.fixture(scope="module")
def amplifier(start_shared_device):
    """Healthy; a test that breaks it repairs it."""
    return start_shared_device(6420, "--no-traps").wait_answering()


# Broken and repaired again


FAKE = "import ctypes, time; ctypes.CDLL(None).prctl(15, b'kvsnmp'); time.sleep(60)"
DEAD_SOCKET = "import socket; socket.socket(socket.AF_UNIX).bind('/run/tal.sock')"

# What is broken, how, and what the check reports (support/selfcheck.py)
BROKEN: list[tuple[str, Callable[[Device], AbstractContextManager], str]] = [
    ("data service hangs", lambda device: stopped(device, "talservice"), """
        cause snmp-settings: takes the connection, but delivers nothing within 1 s
        ok data-service model-number-served"""),
    ("socket left by a data service that ended",
     lambda device: moved_away(device, "/run/tal.sock", "python3", "-c", DEAD_SOCKET),
     "cause data-service: Connection refused"),
    ("change of the IPv6 manager alone, which is not written",
     lambda device: access(device, restarts=False, nms_ipv6="fd00::1"), "warning snmpd-conf-settings: com2sec6 alone"),
    ("kvsnmp stopped", lambda device: stopped(device, "kvsnmp"), """
        cause kvsnmp-process: process {kvsnmp} is stopped
        because model-number-served"""),
    ("two kvsnmp", lambda device: beside(device, "kvsnmp", "python3", "-c", FAKE),
     "cause kvsnmp-process: 2 of them run"),
    ("system bus hangs", lambda device: stopped(device, "dbus-daemon"),
     "cause system-bus: is connected, but does not answer"),
    ("snmpd stopped", lambda device: stopped(device, "snmpd"), """
        cause snmpd-process: process {snmpd} is stopped
        text agentx-socket: takes the connection, but does not answer within 1 s"""),
    ("ps without the health probe's words", lambda device: moved_away(device, "/run/device/bin/ps"),
     "warning health-probe: does not report snmpd's memory"),
    ("snmpd at its memory limit", lambda device: edited(device, "/run/device/snmpd-rss", lambda _: "10240\n"),
     "warning health-probe: 10240 kB"),
    ("identity file changed under a running daemon",
     lambda device: edited(device, "/etc/xr-modelnumber", lambda _: "6425\n"), """
        cause model-number-served: 6420 is served, the identity file says 6425
        hint model-number-served: restart kvsnmp"""),
    # These wait until snmpd is some seconds old, or restart it.
    ("configuration newer than the snmpd that should have read it", newer_conf,
     "warning snmpd-process: is older than snmpd.conf"),
    ("stale pid file of snmpd", lambda device: edited(device, "/run/snmpd.pid", lambda _: "99999\n"),
     "cause snmpd-pid-file: names process 99999, not {snmpd}"),
    ("configuration damaged by hand",
     lambda device: edited(
         device, CONF, lambda text: text.replace("view all", "veiw all").replace(" public\n", "\n", 1)), """
        cause snmpd-conf-settings: differs from the settings in: com2sec, veiw, view
        text snmpd-conf-accepted: snmpd refuses line {com2sec}, "com2sec mynetwork 127.0.0.1\""""),
    ("community changed by hand",
     lambda device: edited(device, CONF, lambda text: text.replace(" public\n", " other\n")), """
        cause snmpd-conf-settings: com2sec
        because snmpd-answer"""),
    ("SNMP disabled in the settings", lambda device: access(device, access="Disabled"), """
        cause snmp-access: SNMP access is "Disabled"
        ok snmpd-process
        because snmpd-answer"""),
    ("snmpd killed", snmpd_killed, """
        cause snmpd-process: does not run
        text snmpd-process: left its pid file behind
        text agentx-socket: Connection refused"""),
]


@pytest.mark.parametrize("way, report", [pytest.param(way, report, id=name) for name, way, report in BROKEN])
def test_report_of_a_device_that_is_broken_and_repaired(amplifier, way, report):
    facts = {name: amplifier.pids(name)[0] for name in ("kvsnmp", "snmpd")}
    facts["com2sec"] = amplifier.read(CONF).splitlines().index("com2sec mynetwork 127.0.0.1 public") + 1
    with way(amplifier):
        check = SelfCheck(amplifier, timeout="1")
    assert_reports(check, report.format(**facts))
    wait_until(lambda: SelfCheck(amplifier).ids("warning", "failed", "skipped") == [], what="repaired")


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
    wait_attempt(device)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd given up")


def remove_agentx_socket(device: Device) -> None:
    """The connection of the sub-agent lives on; a restart of kvsnmp would show the loss."""
    device.wait_answering().path("/var/agentx/master").unlink()


def kill_kvsnmp(device: Device) -> None:
    device.wait_answering().kill_and_wait(device.kvsnmp_pid())


def give_pid_away(device: Device) -> None:
    kill_kvsnmp(device)
    device.path("/run/kvsnmp.pid").write_text(f"{device.pids('talservice')[0]}\n")


STARTS: list[tuple[str, list[str], Callable[[Device], object], str]] = [
    ("model number missing", ["--no-etc", "xr-modelnumber"], wait_ended, """
        cause model-number: /etc/xr-modelnumber is not there
        ok data-service snmp-settings
        because kvsnmp-process"""),
    ("model unknown", ["--etc", "xr-modelnumber=9999"], wait_ended, """
        cause model-number: "9999"
        text model-number: no known model"""),
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
    ("port of snmpd taken", ["--no-kvsnmp"], start_with_port_taken,
     "cause snmpd-process: another program has its UDP port 161"),
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
    ("data service does not run", ["--no-simulator"], Device.wait_running, """
        cause data-service amplifier-monitor: /run/tal.sock is not there
        text amplifier-monitor: nobody has the name com.orvane.pamon
        because snmpd-conf snmpd-process snmpd-answer sub-agent model-number-served"""),
    ("kvsnmp killed", ["--daemon"], kill_kvsnmp, """
        cause kvsnmp-process: does not run
        text kvsnmp-process: a pid file of an earlier one is left
        because only kvsnmp-pid-file sub-agent model-number-served"""),
    ("pid file names another process, with the number of the old kvsnmp", ["--daemon"], give_pid_away, """
        cause kvsnmp-process: which is talservice
        hint kvsnmp-process: Already running"""),
    ("receivers out of reach",
     ["--set", f"{TRAPS}/trap_address=nms.invalid", "--set", f"{TRAPS}/inform_address=192.0.2.7:1162"],
     Device.wait_answering, """
        text trap-receivers: trap2sink nms.invalid is no address and no name that this device can resolve
        text trap-receivers: informsink 192.0.2.7:1162 cannot be reached: Network is unreachable"""),
]


@pytest.fixture(scope="module")
def starting(start_shared_device) -> dict[str, Device]:
    """All at once: they mostly wait."""
    return {name: start_shared_device(6420, "--no-traps", *options, wait=False) for name, options, *_ in STARTS}


@pytest.mark.parametrize("name, prepare, report", [pytest.param(name, *way, id=name) for name, _, *way in STARTS])
def test_report_of_a_device_that_starts_broken(starting, name, prepare, report):
    device = starting[name].wait_ready()
    prepare(device)
    check = SelfCheck(device)
    assert_reports(check, report)
    assert check.report["model"] == (None if check.causes == ["model-number"] else 6420)


def test_gpio_lines_missing(start_device):
    device = start_device(6211, "--no-traps").wait_answering()
    device.talctl("gpio", "168", "unreadable")
    assert_reports(SelfCheck(device), "cause gpio-tree: 1 of 7 lines cannot be read: 168")
    device.talctl("gpio", "168", "0")

    # Only the model text says that the station has expanders.
    for label in device.path("/run/gpio").glob("gpiochip*/label"):
        if label.read_text().strip().endswith("-0021"):
            label.write_text("other\n")
    device.path("/etc/xr-model").write_text("Orvane Brisel Compact - IP-QRM-B\n")
    assert_reports(SelfCheck(device), "cause gpio-tree: label ends in -0021")
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
    for old, new, report in [
            ("secret", "hidden", "cause snmpd-answer: no answer at udp:127.0.0.1:161"),
            ("trap2sink", "acces all\ntrap2sink", '''
                cause snmpd-conf-accepted: refuses line 4, "acces all"
                text snmpd-conf-accepted: Unknown token'''),
            ("master agentx\n", "", 'cause snmpd-conf: no line "master agentx"'),
            ("udp:161", "udp:161x", "cause snmpd-conf-accepted: agentAddress udp:161x has no port")]:
        file.write_text(text.replace(old, new))
        assert_reports(SelfCheck(device, timeout="1"), report)


def test_a_local_trap_receiver_needs_the_name_localhost(start_device):
    device = start_device(6410, "--no-dbus").wait_answering().wait_subscribed()
    hosts = device.path("/etc/hosts")
    with_name = hosts.read_text()
    faults = Faults(device)

    hosts.write_text("127.0.0.1 device\n")
    restart_snmpd(device)
    check = SelfCheck(device)
    assert "trap-receivers" in check.ids("warning") and check.text("trap-receivers") == (
        "trap2sink 127.0.0.1 gets nothing: this device cannot resolve the name localhost, see /etc/hosts")
    faults.raise_one("fan_not_running", "without the name")
    hosts.write_text(with_name)
    restart_snmpd(device)
    faults.raise_one("fan_not_running", "with the name")
    wait_until(lambda: "with the name" in device.read("/var/log/traps"), 20, what="the trap")
    assert "without the name" not in device.read("/var/log/traps"), "snmpd sends nothing, and the warning is right"
    assert "trap-receivers" in SelfCheck(device).ids("ok")
