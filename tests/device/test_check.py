"""kvsnmp-check: nothing to say about healthy devices, and of each broken one the cause."""
from __future__ import annotations

import os
import re
import signal
import time
from contextlib import contextmanager
from pathlib import Path

import pytest
from support.dataservice import SETTINGS
from support.polling import wait_until
from support.selfcheck import SelfCheck, assert_cause, assert_healthy, assert_only_warnings

CONF = "/etc/snmp/snmpd.conf"
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
    """A healthy amplifier; a test that breaks it mends it again."""
    return start_shared_device(6420, "--no-traps").wait_answering()


@contextmanager
def stopped(device, program: str):
    pid = device.pids(program)[0]
    device.kill(pid, signal.SIGSTOP)
    try:
        yield pid
    finally:
        device.kill(pid, signal.SIGCONT)


@contextmanager
def settings(device, values: dict[str, str]):
    """Other values of some settings; snmpd runs with them when the block begins, and with the old ones at its end."""
    before = {path: device.talctl("get", f"{SETTINGS}/{path}").strip() for path in values}
    change(device, values)
    try:
        yield
    finally:
        change(device, before)
        device.wait_answering()


def change(device, values: dict[str, str]) -> None:
    pids = device.pids("snmpd")
    device.talctl_batch([f"set {SETTINGS}/{path} '{value}'" for path, value in values.items()])
    device.wait_snmpd(other_than=pids)
    wait_until(device.path("/var/agentx/master").exists, what="AgentX socket")


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


def test_the_json_has_the_documented_keys(amplifier):
    report = SelfCheck(amplifier).report
    assert set(report) == {"format", "version", "model", "failed", "causes", "counts", "checks"}
    assert report["format"] == 1 and report["failed"] is False and report["causes"] == []
    assert re.fullmatch(r"\d+\.\d+\.\d+", report["version"])
    assert set(report["counts"]) == {"ok", "warning", "failed", "skipped", "not-applicable"}
    assert sum(report["counts"].values()) == len(report["checks"]) == len(CHECKS)
    for check in report["checks"]:
        assert set(check) == {"id", "title", "status", "text", "hint", "because"}
        assert all(isinstance(value, str) for value in check.values())
        assert check["status"] in report["counts"] and check["title"] and check["text"]
        assert "\n" not in check["text"]


def test_the_text_has_one_line_for_each_check(amplifier):
    done = amplifier.run(["kvsnmp-check"])
    *lines, counts = done.stdout.splitlines()
    assert [line.split()[1] for line in lines] == CHECKS
    assert counts == "28 ok, 1 not-applicable"


def test_every_check_is_in_the_manual_page():
    page = (Path(__file__).resolve().parents[2] / "docs/man/kvsnmp-check.8").read_text().replace("\\-", "-")
    assert re.findall(r"^\.TP\n\.B ([a-z-]+)$", page.partition(".SH CHECKS")[2].partition(".SH ")[0], re.M) == CHECKS


@pytest.mark.parametrize("arguments, status", [(["--help"], 0), (["-V"], 0), (["--wrong"], 2), (["word"], 2),
                                               (["--timeout", "x"], 2), (["--timeout", "61"], 2), (["-t"], 2)])
def test_options(amplifier, arguments, status):
    done = amplifier.run(["kvsnmp-check", *arguments], check=False)
    assert done.returncode == status
    assert bool(done.stdout) == (status == 0) and bool(done.stderr) == (status != 0)


def test_nothing_is_changed_started_or_ended(amplifier):
    def files() -> dict[str, tuple[int, int]]:
        found = {}
        for folder in ("etc", "run", "tmp", "var"):
            for path in (amplifier.root / folder).rglob("*"):
                name = "/" + str(path.relative_to(amplifier.root))
                # The device's own ps and daemons keep logs.
                if not name.startswith(("/var/log/", "/run/device/probes", "/tmp/kvsnmp.watchdogtest")):
                    info = path.lstat()
                    found[name] = (info.st_size, info.st_mtime_ns)
        return found

    def processes() -> list[list[int]]:
        return [amplifier.pids(name) for name in ("kvsnmp", "snmpd", "talservice", "dbus-daemon")]

    wait_until(lambda: "requestStateDataSubscribeSysMessages" in amplifier.kvsnmp_err(), what="everything at rest")
    before = files(), processes()
    assert_healthy(SelfCheck(amplifier))
    assert (files(), processes()) == before


def test_only_root_can_look(amplifier):
    done = amplifier.run(["setpriv", "--reuid=65534", "--clear-groups", "kvsnmp-check"], check=False)
    assert (done.returncode, done.stdout) == (2, "")
    assert "has to be run by root" in done.stderr


# Identity


def test_model_number_missing(start_device):
    device = start_device(6420, "--no-traps", "--no-etc", "xr-modelnumber")
    assert device.kvsnmp_status() == 255
    check = SelfCheck(device)
    assert_cause(check, "model-number", "/etc/xr-modelnumber is not there")
    assert check.checks["kvsnmp-process"]["because"] == "model-number"
    assert check.report["model"] is None
    assert {"data-service", "snmp-settings"} <= set(check.ids("ok"))  # the settings are asked for on any model


def test_model_unknown(start_device):
    device = start_device(6420, "--no-traps", "--etc", "xr-modelnumber=9999")
    assert device.kvsnmp_status() == 255
    assert_cause(SelfCheck(device), "model-number", '"9999"', "no known model")


def test_what_does_not_keep_a_device_from_answering_gives_warnings(start_device):
    device = start_device(6420, "--no-traps", "--etc", "xr-amptype=vq9d", "--etc", "xr-model=", "--no-etc", "xr-pkgver",
                          "--set", f"{SETTINGS}/trap_settings/trap_address=")
    device.wait_answering()
    check = SelfCheck(device)
    assert_only_warnings(check, "model-text", "amplifier-type", "package-version", "trap-receivers")
    assert '"vq9d"' in check.text("amplifier-type") and '"Unknown" is served' in check.text("amplifier-type")
    assert "/etc/xr-model is empty" in check.text("model-text")
    assert check.text("trap-receivers") == "none: traps and informs go nowhere"


# Data service


def test_data_service_does_not_run(start_device):
    device = start_device(6420, "--no-traps", "--no-simulator")
    device.wait_running()
    check = SelfCheck(device, timeout="1")
    # The monitor is part of the same simulator, and of another program on a device.
    assert check.causes == ["data-service", "amplifier-monitor"]
    assert "/run/tal.sock is not there" in check.text("data-service")
    assert {check.checks[name]["because"] for name in ("snmpd-conf", "snmpd-process", "snmpd-answer", "sub-agent",
                                                       "model-number-served")} == {"data-service"}


def test_data_service_hangs(amplifier):
    with stopped(amplifier, "talservice"):
        check = SelfCheck(amplifier, timeout="1")
    assert_cause(check, "snmp-settings", "takes the connection, but delivers nothing within 1 s")
    assert "data-service" in check.ids("ok") and "model-number-served" in check.ids("ok")


def test_socket_left_by_a_data_service_that_ended(amplifier):
    pid = amplifier.pids("talservice")[0]
    amplifier.path("/run/tal.sock").rename(amplifier.path("/run/tal.sock.away"))
    try:
        amplifier.run(["python3", "-c", "import socket; socket.socket(socket.AF_UNIX).bind('/run/tal.sock')"])
        check = SelfCheck(amplifier, timeout="1")
    finally:
        amplifier.path("/run/tal.sock.away").replace(amplifier.path("/run/tal.sock"))
    assert amplifier.pids("talservice") == [pid]
    assert_cause(check, "data-service", "Connection refused")
    assert_healthy(SelfCheck(amplifier))


# Settings


def test_snmp_disabled_in_the_settings(amplifier):
    with settings(amplifier, {"access_control/access": "Disabled"}):
        check = SelfCheck(amplifier)
    assert_cause(check, "snmp-access", 'SNMP access is "Disabled"')
    assert "snmpd-process" in check.ids("ok") and check.checks["snmpd-answer"]["because"] == "snmp-access"


def test_access_that_is_no_word_of_the_settings(start_device):
    device = start_device(6420, "--no-traps", "--set", f"{SETTINGS}/access_control/access=Write")
    wait_until(lambda: "FINISH kaAgentStart()\n" in device.kvsnmp_out(), what="agent started")
    device.wait_snmpd()
    assert device.read(CONF) == ""
    check = SelfCheck(device)
    assert_cause(check, "snmp-access", '"Write"', "left empty")
    assert check.checks["snmpd-conf"]["because"] == "snmp-access"


def test_port_that_is_none(start_device):
    device = start_device(6420, "--no-traps", "--set", f"{SETTINGS}/access_control/snmp_port=snmp")
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), what="snmpd started")
    wait_until(lambda: not device.pids("snmpd"), what="snmpd given up")
    check = SelfCheck(device)
    assert_cause(check, "snmp-access", 'the port is "snmp"')
    assert {"snmpd-process", "agentx-socket"} <= set(check.consequences())


def test_access_list_without_this_device(amplifier):
    with settings(amplifier, {"access_control/nms_ipv6": "fd00::9", "access_control/nms_ip": "10.9.9.9"}):
        check = wait_until(lambda: (c := SelfCheck(amplifier)).status == 0 and c, what="sub-agent connected")
    assert_only_warnings(check, "snmpd-answer")
    assert "gives access to no address of this device" in check.text("snmpd-answer")
    assert check.text("sub-agent").startswith("1 connected")
    assert check.ids("skipped") == ["model-number-served"]


def test_a_change_of_the_ipv6_manager_alone_is_not_written(amplifier):
    path = f"{SETTINGS}/access_control/nms_ipv6"
    amplifier.talctl("set", path, "fd00::1")
    try:
        check = SelfCheck(amplifier)
    finally:
        amplifier.talctl("set", path, "::1")
    assert_only_warnings(check, "snmpd-conf-settings")
    assert "com2sec6 alone" in check.text("snmpd-conf-settings")


# kvsnmp


def test_kvsnmp_never_started(start_device):
    device = start_device(6420, "--no-traps", "--no-kvsnmp")
    check = SelfCheck(device)
    assert_cause(check, "kvsnmp-process", "does not run")
    assert {"snmpd-conf", "snmpd-process"} <= set(check.consequences())


def test_kvsnmp_killed(start_device):
    device = start_device(6420, "--no-traps", "--daemon").wait_answering()
    device.kill_and_wait(device.kvsnmp_pid())
    check = SelfCheck(device)
    assert_cause(check, "kvsnmp-process", "does not run", "a pid file of an earlier one is left")
    assert set(check.consequences()) == {"kvsnmp-pid-file", "sub-agent", "model-number-served"}

    # Started again in the place of another process, which has got the number of the old one.
    device.path("/run/kvsnmp.pid").write_text(f"{device.pids('talservice')[0]}\n")
    check = SelfCheck(device)
    assert_cause(check, "kvsnmp-process", "which is talservice")
    assert "Already running" in check.checks["kvsnmp-process"]["hint"]
    assert "Already running" in device.run_kvsnmp().stderr


def test_kvsnmp_stopped(amplifier):
    with stopped(amplifier, "kvsnmp") as pid:
        check = SelfCheck(amplifier)
    assert_cause(check, "kvsnmp-process", f"process {pid} is stopped")
    assert "model-number-served" in check.consequences()
    amplifier.wait_answering()


def test_two_kvsnmp(amplifier):
    second = amplifier.popen(["python3", "-c", "import ctypes, time; ctypes.CDLL(None).prctl(15, b'kvsnmp'); "
                              "print('ready', flush=True); time.sleep(60)"], stdout=-1, text=True)
    second.stdout.readline()
    check = SelfCheck(amplifier)
    assert_cause(check, "kvsnmp-process", "2 of them run")
    amplifier.kill(amplifier.pids("kvsnmp")[1], signal.SIGKILL)
    second.wait()


# System bus and GPIO


def test_system_bus_absent(start_device):
    device = start_device(6420, "--no-traps", "--no-dbus").wait_answering()
    check = SelfCheck(device)
    assert_cause(check, "system-bus", "No such file")
    assert check.consequences() == ["amplifier-monitor"]
    assert "model-number-served" in check.ids("ok")


def test_system_bus_hangs(amplifier):
    with stopped(amplifier, "dbus-daemon"):
        check = SelfCheck(amplifier, timeout="1")
    assert_cause(check, "system-bus", "is connected, but does not answer")


def test_amplifier_monitor_not_on_the_bus(start_device):
    device = start_device(6420, "--no-traps", "--no-simulator", "--no-kvsnmp")
    check = SelfCheck(device, timeout="0.5")
    assert "amplifier-monitor" in check.causes and "nobody has the name com.orvane.pamon" in check.text("amplifier-monitor")


def test_gpio_lines_missing(start_device):
    device = start_device(6211, "--no-traps").wait_answering()
    device.talctl("gpio", "168", "unreadable")
    assert_cause(SelfCheck(device), "gpio-tree", "1 of 7 lines cannot be read: 168")
    device.talctl("gpio", "168", "0")
    assert_healthy(SelfCheck(device))

    # The model text alone says that a station has expanders; the simulator is not told.
    for label in device.path("/run/gpio").glob("gpiochip*/label"):
        if label.read_text().strip().endswith("-0021"):
            label.write_text("other\n")
    device.path("/etc/xr-model").write_text("Orvane Brisel Compact - IP-QRM-B\n")
    assert_cause(SelfCheck(device), "gpio-tree", "label ends in -0021")

    device.talctl("gpio", "remove")
    assert SelfCheck(device).causes == ["gpio-tree"]


# Commands of the supervision


def test_killall_not_in_the_path_of_kvsnmp(start_device):
    device = start_device(6420, "--no-traps", "--no-kvsnmp")
    device.run(["sh", "-c", "mkdir /tmp/programs && cd /tmp/programs && ln -sf /usr/bin/* /usr/sbin/* . && rm killall"])
    device.start_kvsnmp("-d", env={"PATH": "/run/device/bin:/tmp/programs"})
    device.wait_answering()
    check = SelfCheck(device)
    assert_cause(check, "commands", "not in kvsnmp's PATH: killall")
    assert {"snmpd-process", "model-number-served"} <= set(check.ids("ok"))


# snmpd


def test_snmpd_not_in_the_path_of_kvsnmp(start_device):
    device = start_device(6420, "--no-traps", "--no-kvsnmp")
    device.start_kvsnmp("-d", env={"PATH": "/run/device/bin:/usr/bin:/bin"})
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="attempt")
    check = SelfCheck(device)
    assert_cause(check, "snmpd-program", "not in kvsnmp's PATH, /run/device/bin:/usr/bin:/bin")
    assert {"snmpd-process", "agentx-socket", "snmpd-answer"} <= set(check.consequences())


def test_snmpd_killed(start_device):
    device = start_device(6420, "--no-traps").wait_answering()
    device.kill(device.wait_snmpd(), signal.SIGKILL)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd gone")
    check = SelfCheck(device)
    assert_cause(check, "snmpd-process", "does not run", "left its pid file behind")
    assert "Connection refused" in check.text("agentx-socket")

    # As the hint says.
    device.stir_snmpd_folder()
    device.wait_answering()
    assert_healthy(SelfCheck(device))


def test_snmpd_stopped(amplifier):
    with stopped(amplifier, "snmpd") as pid:
        check = SelfCheck(amplifier, timeout="1")
    assert_cause(check, "snmpd-process", f"process {pid} is stopped")
    assert check.text("agentx-socket").endswith("takes the connection, but does not answer within 1 s")
    amplifier.wait_answering()


def test_two_snmpd(amplifier):
    second = amplifier.popen(["snmpd", "-f", "-C", "-Ln", "-x", "/tmp/second", "udp:127.0.0.1:1999"])
    wait_until(lambda: len(amplifier.pids("snmpd")) == 2, what="two snmpd")
    check = SelfCheck(amplifier)
    assert_cause(check, "snmpd-process", "2 of them run")
    amplifier.kill(max(set(amplifier.pids("snmpd")) - {int(amplifier.read("/run/snmpd.pid"))}), signal.SIGKILL)
    second.wait()


def test_stale_pid_file_of_snmpd(amplifier):
    file = amplifier.path("/run/snmpd.pid")
    kept = file.read_text()
    file.write_text("99999\n")
    check = SelfCheck(amplifier)
    file.write_text(kept)
    assert_cause(check, "snmpd-pid-file", "names process 99999, not " + kept.strip())


def test_port_of_snmpd_taken(start_device):
    device = start_device(6420, "--no-traps", "--no-kvsnmp")
    holder = device.popen(["python3", "-c", "import socket, time; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); "
                           "s.bind(('', 161)); print('ready', flush=True); time.sleep(60)"], stdout=-1, text=True)
    holder.stdout.readline()
    device.start_kvsnmp("-d")
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="attempt")
    wait_until(lambda: not device.pids("snmpd"), what="snmpd given up")
    assert_cause(SelfCheck(device), "snmpd-process", "another program has its UDP port 161")


def test_configuration_damaged_by_hand(amplifier):
    """Rewritten in place, which nobody notices until the next restart."""
    file = amplifier.path(CONF)
    kept = file.read_text()
    file.write_text(kept.replace("view all", "veiw all").replace(" public\n", "\n", 1))
    check = SelfCheck(amplifier)
    file.write_text(kept)
    assert_cause(check, "snmpd-conf-settings", "differs from the settings in: com2sec, veiw, view")
    number = kept.splitlines().index("com2sec mynetwork 127.0.0.1 public") + 1
    assert f'snmpd refuses line {number}, "com2sec mynetwork 127.0.0.1"' in check.text("snmpd-conf-accepted")
    assert_healthy(SelfCheck(amplifier))


def test_community_changed_by_hand(amplifier):
    file = amplifier.path(CONF)
    kept = file.read_text()
    file.write_text(kept.replace(" public\n", " other\n"))
    check = SelfCheck(amplifier, timeout="1")
    file.write_text(kept)
    assert_cause(check, "snmpd-conf-settings", "com2sec")
    assert check.checks["snmpd-answer"]["because"] == "snmpd-conf-settings"


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

    # Another community than the one that snmpd has read.
    file.write_text(text.replace("secret", "hidden"))
    assert_cause(SelfCheck(device, timeout="1"), "snmpd-answer", "no answer at udp:127.0.0.1:161")
    # A directive that snmpd does not know, then a file that is no master's.
    file.write_text(text + "acces all\n")
    assert_cause(SelfCheck(device), "snmpd-conf-accepted", 'refuses line 5, "acces all"', "Unknown token")
    file.write_text(text.replace("master agentx\n", ""))
    assert_cause(SelfCheck(device), "snmpd-conf", 'no line "master agentx"')
    file.write_text(text.replace("udp:161", "udp:161x"))
    assert_cause(SelfCheck(device), "snmpd-conf-accepted", "agentAddress udp:161x has no port")


def test_configuration_older_than_what_snmpd_should_have_read(amplifier):
    started = float(os.stat(amplifier.path("/run/snmpd.pid")).st_mtime)
    wait_until(lambda: time.time() > started + 8, what="some seconds of life")
    link = amplifier.path("/etc/link")  # outside the folder that kvsnmp watches, which would restart snmpd
    link.hardlink_to(amplifier.path(CONF))
    info = link.stat()
    os.utime(link, (info.st_atime, started + 4.5))
    check = SelfCheck(amplifier)
    os.utime(link, (info.st_atime, info.st_mtime))
    link.unlink()
    assert_only_warnings(check, "snmpd-process")
    assert "is older than snmpd.conf" in check.text("snmpd-process")


def test_agentx_socket_gone(start_device):
    """The connection of the sub-agent lives on; a restart of kvsnmp would show the loss."""
    device = start_device(6420, "--no-traps").wait_answering()
    device.path("/var/agentx/master").unlink()
    check = SelfCheck(device)
    assert_cause(check, "agentx-socket", "/var/agentx/master is not there")
    assert check.consequences() == []


def test_health_probe_refused_by_ps(amplifier):
    shim = amplifier.path("/run/device/bin/ps")
    shim.rename(shim.with_name("ps-away"))
    check = SelfCheck(amplifier)
    shim.with_name("ps-away").rename(shim)
    assert_only_warnings(check, "health-probe")
    assert "does not tell snmpd's memory" in check.text("health-probe")

    amplifier.path("/run/device/snmpd-rss").write_text("10240\n")
    check = SelfCheck(amplifier)
    amplifier.path("/run/device/snmpd-rss").write_text("8192\n")
    assert_only_warnings(check, "health-probe")
    assert "10240 kB" in check.text("health-probe")


def test_identity_file_changed_under_a_running_daemon(amplifier):
    file = amplifier.path("/etc/xr-modelnumber")
    kept = file.read_text()
    file.write_text("6425\n")
    check = SelfCheck(amplifier)
    file.write_text(kept)
    assert_cause(check, "model-number-served", "6420 is served, the identity file says 6425")
    assert "restart kvsnmp" in check.checks["model-number-served"]["hint"]
    assert_healthy(SelfCheck(amplifier))


# Traps


def test_traps_disabled(amplifier):
    names = [line.split("\t")[0] for line in amplifier.talctl("trap", "list").splitlines()]
    assert len(names) == 20
    try:
        amplifier.talctl_batch([f"trap disable '{name}'" for name in names])
        none = SelfCheck(amplifier)
        amplifier.talctl("trap", "enable", "LET Fault")
        one = SelfCheck(amplifier)
    finally:
        amplifier.talctl_batch([f"trap enable '{name}'" for name in names])
    assert_only_warnings(none, "traps-enabled")
    assert "none of the 20 traps is enabled" in none.text("traps-enabled")
    assert_healthy(one)
    assert one.text("traps-enabled") == "1 of 20, on: LET Fault"


def test_trap_receivers_out_of_reach(start_device):
    device = start_device(6420, "--no-traps", "--set", f"{SETTINGS}/trap_settings/trap_address=nms.invalid",
                          "--set", f"{SETTINGS}/trap_settings/inform_address=192.0.2.7:1162")
    device.wait_answering()
    text = SelfCheck(device).text("trap-receivers")
    assert "trap2sink nms.invalid is no address and no name that this device can resolve" in text
    assert "informsink 192.0.2.7:1162 cannot be reached: Network is unreachable" in text
