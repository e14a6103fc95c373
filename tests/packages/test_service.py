"""kvsnmp.service on a device: started by systemd, hung, killed, reconfigured."""
from __future__ import annotations

import errno
import os
import re
import stat
import struct
import subprocess
import time
from collections.abc import Callable
from pathlib import Path

import guide
from debianroot import Booted, wait_until
from guide import type_in
from service import (GOLDEN_WALK, add_drop_in, answers, main_pid, restart, shown, snmpd_pids, wait_answering, wait_golden_walk,
                     wait_new_snmpd, wait_next_tick, walk, write_shown_file)

CHECKOUT = Path(__file__).resolve().parents[2]
# chown, dac_override, kill, setgid, setuid, net_bind_service
CAPABILITIES = f"{1 << 0 | 1 << 1 | 1 << 5 | 1 << 6 | 1 << 7 | 1 << 10:016x}"
IDENTITY = {"xr-modelnumber": "6420\n", "xr-amptype": "VQ9D\n", "xr-model": "Orvane Mervio Amplifier VQ9D\n",
            "xr-pkgver": "4.12.3\n", "xr-kernelver": "5.15.71\n", "xr-oftreever": "6420-2.1\n"}
# The one value in which the walk differs from the simulator's data.
FAILED_TONE = ("/state/lines/line[kid='ln1']/pilot_tone_state", "failed")
TALSERVICE = """\
[Service]
Type=exec
ExecStart=/usr/bin/talservice --model 6420 --bus system --gpio-root /run/gpio
"""


def test_on_a_machine_that_is_no_device_the_unit_is_skipped(booted: Booted) -> None:
    booted.run("systemctl", "start", "kvsnmp.service")
    assert shown(booted, "ConditionResult") == "no"
    assert booted.output("pgrep", "-x", "kvsnmp") == ""


def status_field(booted: Booted, pid: object, name: str) -> str:
    text = booted.output("cat", f"/proc/{pid}/status")
    return re.search(rf"^{name}:\s*(.*)$", text, flags=re.MULTILINE)[1]


def test_it_serves_under_systemd_with_all_restrictions(booted: Booted) -> None:
    for name, text in IDENTITY.items():
        booted.root.path(f"/etc/{name}").write_text(text)
    booted.root.path("/etc/systemd/system/talservice.service").write_text(TALSERVICE)
    write_shown_file(booted, "/etc/dbus-1/system.d/com.orvane.pamon.conf")
    booted.run("systemctl", "daemon-reload")
    booted.run("systemctl", "reload-or-restart", "dbus.service")
    booted.run("systemctl", "start", "talservice.service")
    booted.run("systemctl", "unmask", "snmpd.service")
    booted.run("systemctl", "start", "snmpd.service")
    booted.run("systemctl", "start", "kvsnmp.service")
    assert booted.output("systemctl", "is-active", "snmpd.service") in ("inactive", "failed"), "the units conflict"
    wait_answering(booted)

    pid, [snmpd] = main_pid(booted), snmpd_pids(booted)
    assert booted.output("cat", "/run/kvsnmp.pid") == str(pid)
    assert booted.output("cat", f"/proc/{pid}/comm") == "kvsnmp"
    assert "kvsnmp.service" in booted.output("cat", f"/proc/{snmpd}/cgroup")
    config = booted.root.path("/etc/snmp/snmpd.conf")
    assert config.read_text().startswith("master agentx\n") and stat.S_IMODE(config.stat().st_mode) == 0o600
    wait_until(lambda: booted.output("cat", "/tmp/kvsnmp.watchdogtest") == "update", 10, what="the watchdog file")
    for process in (pid, snmpd):
        assert [status_field(booted, process, name) for name in ("CapBnd", "NoNewPrivs", "Seccomp")] == [CAPABILITIES, "1", "2"]
    assert int(status_field(booted, snmpd, "VmRSS").split()[0]) < 10240
    assert "Starting snmpd (snmpd.conf from TAL)" in type_in(booted, "journalctl -t kv-snmp")


def mount_options(mountinfo: str, folder: str) -> str:
    """ro or rw, as the topmost mount of the folder has it."""
    return [fields[5] for line in mountinfo.splitlines() if (fields := line.split())[4] == folder][-1].split(",")[0]


def test_the_file_system_is_read_only_but_for_what_is_written(booted: Booted) -> None:
    """The unit's two lines for GPIO are tried on another folder of /sys: this machine need not have GPIO lines."""
    def touch(path: str) -> bool:
        return booted.run("nsenter", "-t", str(main_pid(booted)), "-m", "touch", path, check=False).returncode == 0

    snmpd = snmpd_pids(booted)
    for path in ("/etc/snmp/x", "/run/x", "/tmp/x", "/var/agentx/x", "/var/lib/snmp/x"):
        assert touch(path), path
        booted.run("rm", path)
    for path in ("/etc/x", "/usr/x", "/var/x", "/var/log/x", "/root/x"):
        assert not touch(path), path
    assert mount_options(booted.output("cat", f"/proc/{main_pid(booted)}/mountinfo"), "/sys") == "ro"
    folder = "/sys/class/net"
    mounts = booted.output("systemd-run", "--quiet", "--wait", "--pipe", "-p", "ProtectSystem=strict", "-p",
                           "ProtectKernelTunables=yes", "-p", f"ReadWritePaths=-{folder}", "cat", "/proc/self/mountinfo")
    assert mount_options(mounts, "/sys") == "ro" and mount_options(mounts, folder) == "rw", mounts
    wait_new_snmpd(booted, snmpd, "a snmpd after the change of /etc/snmp")


def type_recipe(booted: Booted, after: str, commands: int) -> None:
    """The next commands of docs/traps.md after a text, as root in a folder with "monitoring"."""
    section = (guide.GUIDE.parent / "traps.md").read_text().split(after)[1]
    recipe = re.findall(r"^    (.*)$", section, re.MULTILINE)[:commands]
    assert recipe[-1].startswith("systemctl restart ")
    for line in recipe:
        booted.run("/bin/sh", "-c", f"cd /root/recipe && {line}")
    wait_until(lambda: booted.output("pgrep", "-u", "Debian-snmp", "-x", "snmptrapd"), 20, what="snmptrapd as Debian-snmp")


def wait_for_a_trap(booted: Booted, arrived: Callable[[], bool]) -> None:
    wait_answering(booted)
    booted.run("talctl", "trap", "enable", "Cooling Fan Fault")
    booted.run("talctl", "fault", "raise", "amp", "1", "fan_not_running", "crit", "Fan 1 stands still")
    wait_until(arrived, 30, what="the trap's line")
    booted.run("talctl", "fault", "clear", "amp", "1")


def test_snmptrapd_and_snmptt_as_the_recipes_set_them_up_log_a_trap(booted: Booted) -> None:
    """Debian's snmptrapd, then its SNMPTT behind it, each with its unit and its user."""
    booted.run("apt-get", "install", "--no-install-recommends", "snmptrapd")
    booted.root.path("/root/recipe").mkdir()
    booted.root.path("/root/recipe/monitoring").symlink_to("/usr/share/kvsnmp-monitoring")
    config = booted.root.path("/etc/snmp/snmptrapd.conf")
    former = config.read_text()
    type_recipe(booted, "\n## Readable log lines on the manager\n", 3)

    wait_for_a_trap(booted, lambda: "coolingFanFault critical" in booted.output("journalctl", "-t", "kvsnmp-trap"))
    assert booted.output("stat", "-c", "%a %U %G", "/etc/snmp/snmptrapd.conf") == "640 root Debian-snmp"
    assert config.with_name("snmptrapd.conf.~1~").read_text() == former

    type_recipe(booted, "After the commands above, on Debian 12:\n", 7)
    log = booted.root.path("/var/log/snmptt/snmptt.log")
    wait_for_a_trap(booted, lambda: log.exists() and "coolingFanFault: pa-device" in log.read_text())
    assert ' Critical "kvsnmp" ' in log.read_text()


def test_the_file_of_a_zabbix_server_gets_a_trap(booted: Booted) -> None:
    """As the recipe sets it up, with Debian's snmptrapd; the server, another user, can read it."""
    recipe = (guide.GUIDE.parents[1] / "monitoring/zabbix/README.md").read_text().split("\n## Traps\n")[1]
    installed, handler = re.findall(r"^    (install .* -o .*|traphandle .*)$", recipe, re.MULTILINE)
    booted.run("/bin/sh", "-c", installed)
    config = booted.root.path("/etc/snmp/snmptrapd.conf")
    *others, last = config.read_text().splitlines()
    assert last.startswith("traphandle ")
    config.write_text("\n".join([*others, handler, ""]))
    booted.run("systemctl", "restart", "snmptrapd")

    wait_for_a_trap(booted, lambda: "ZBXTRAP 127.0.0.1" in booted.output(
        "runuser", "-u", "nobody", "--", "cat", "/var/log/kvsnmp-traps.log"))
    booted.run("systemctl", "stop", "snmptt", "snmptrapd.service", "snmptrapd.socket")


def test_it_starts_where_the_folders_of_snmpd_are_missing(booted: Booted) -> None:
    """As on a host on which neither tmpfiles.d nor the package of snmpd made them."""
    booted.run("systemctl", "stop", "kvsnmp.service")
    before = snmpd_pids(booted)
    booted.run("rm", "-r", "/var/agentx")
    booted.run("mv", "/var/lib/snmp", "/var/lib/snmp.away")
    booted.run("systemctl", "start", "kvsnmp.service", check=False)
    wait_new_snmpd(booted, before, "a snmpd that answers for the daemon")
    assert booted.output("stat", "-c", "%a %U", "/var/agentx") == "700 root"
    booted.run("mv", "/var/lib/snmp.away", "/var/lib/snmp")
    restart(booted)


def test_snmpd_outlives_a_stop_and_is_taken_over(booted: Booted) -> None:
    before = snmpd_pids(booted)
    drop_in = add_drop_in(booted, "end", """ExecStopPost=/bin/sh -c 'echo $SERVICE_RESULT $EXIT_CODE $EXIT_STATUS > /run/end'""")
    booted.run("systemctl", "stop", "kvsnmp.service")
    assert booted.output("cat", "/run/end") == "success exited 0"
    drop_in.unlink()
    assert booted.output("pgrep", "-x", "kvsnmp") == ""
    assert booted.run("test", "-e", "/run/kvsnmp.pid", check=False).returncode == 1
    assert snmpd_pids(booted) == before
    booted.run("systemctl", "start", "kvsnmp.service")
    wait_new_snmpd(booted, before, "a new snmpd")
    assert len(snmpd_pids(booted)) == 1


def test_it_is_active_once_its_event_loop_runs(booted: Booted) -> None:
    """Delayed by an identity file whose open() waits for a writer."""
    booted.run("systemctl", "stop", "kvsnmp.service")
    file = booted.root.path("/etc/xr-pkgver")
    file.unlink()
    booted.run("mkfifo", "/etc/xr-pkgver")
    booted.run("systemctl", "start", "--no-block", "kvsnmp.service")
    states: list[str] = []

    def let_it_go_on() -> bool:
        states.append(shown(booted, "ActiveState"))
        try:
            os.close(os.open(file, os.O_WRONLY | os.O_NONBLOCK))
            return True
        except OSError as error:
            assert error.errno == errno.ENXIO  # not opened yet
            return False

    wait_until(let_it_go_on, 10, what="the daemon at the file")
    assert states[-1] == "activating" and "active" not in states
    wait_until(lambda: shown(booted, "ActiveState") == "active", 10, what="the unit's start")
    file.unlink()
    file.write_text(IDENTITY["xr-pkgver"])
    restart(booted)


def test_a_hung_and_a_killed_daemon_are_restarted(booted: Booted) -> None:
    assert [shown(booted, name) for name in ("Type", "WatchdogUSec", "Restart")] == ["notify", "2min", "on-failure"]
    drop_in = add_drop_in(booted, "watchdog", "WatchdogSec=15")
    booted.run("systemctl", "restart", "kvsnmp.service")
    booted.run("talctl", "set", *FAILED_TONE)
    wait_golden_walk(booted)
    hung, snmpd = main_pid(booted), snmpd_pids(booted)
    booted.run("kill", "-STOP", str(hung))
    begin = time.monotonic()
    assert walk(booted) != GOLDEN_WALK
    wait_until(lambda: shown(booted, "Result") == "watchdog", 30, what="the watchdog's notice")
    print(f"a stopped daemon was noticed after {time.monotonic() - begin:.1f} s")
    wait_until(lambda: main_pid(booted) != hung, 10, what="the end of the stopped kvsnmp")
    assert snmpd_pids(booted) == snmpd
    wait_until(lambda: main_pid(booted) not in (0, hung), 10, what="a new kvsnmp")
    wait_golden_walk(booted)
    print(f"the golden walk answered again after {time.monotonic() - begin:.1f} s")
    drop_in.unlink()
    before = main_pid(booted)
    booted.run("kill", "-KILL", str(before))
    wait_until(lambda: main_pid(booted) not in (0, before), 20, what="a new kvsnmp")
    wait_answering(booted)


def test_neither_an_idle_nor_a_polled_device_writes_to_the_journal(booted: Booted) -> None:
    booted.run("systemctl", "daemon-reload")
    booted.run("systemctl", "restart", "kvsnmp.service")
    wait_golden_walk(booted)
    lines = booted.output("journalctl", "-q", "-t", "kvsnmp", f"_PID={main_pid(booted)}").splitlines()
    print(*lines, sep="\n")
    assert "AgentX subagent connected" in lines[-1]
    # Before snmpd runs; the one before may still accept an attempt while it ends.
    assert all("Failed to connect to the agentx master" in line or "AgentX master disconnected us" in line
               for line in lines[:-1])
    cursor = booted.output("journalctl", "-n", "0", "--show-cursor").removeprefix("-- cursor: ")

    for poll in (True, True, False, False):
        wait_next_tick(booted, poll)
    assert booted.output("journalctl", "-q", f"--after-cursor={cursor}", "-u", "kvsnmp.service") == ""


def test_a_wrong_model_number_causes_no_restart(booted: Booted) -> None:
    booted.run("systemctl", "stop", "kvsnmp.service")
    model = booted.root.path("/etc/xr-modelnumber")
    model.write_text("9999\n")
    booted.run("systemctl", "start", "kvsnmp.service", check=False)
    wait_until(lambda: booted.output("systemctl", "is-active", "kvsnmp.service") == "failed", 20, what="the unit's failure")
    model.write_text(IDENTITY["xr-modelnumber"])
    booted.run("systemctl", "reset-failed", "kvsnmp.service")
    booted.run("systemctl", "start", "kvsnmp.service")
    wait_answering(booted)


def test_the_guide_s_first_two_commands_make_it_start_at_each_boot(booted: Booted) -> None:
    type_in(booted, "systemctl mask --now snmpd.service")
    type_in(booted, "systemctl enable --now kvsnmp.service")
    assert booted.output("systemctl", "is-enabled", "kvsnmp.service") == "enabled"
    assert booted.run("systemctl", "start", "snmpd.service", check=False).returncode != 0
    assert answers(booted)


def test_options_come_from_etc_default(booted: Booted) -> None:
    options = booted.root.path("/etc/default/kvsnmp")
    options.write_text("TAL_SOCKET=/run/tal.sock\nKVSNMP_OPTIONS=-z\n")
    restart(booted)
    assert booted.output("cat", f"/proc/{main_pid(booted)}/cmdline") == "/usr/sbin/kvsnmp\0-d\0-z\0"
    assert "TAL_SOCKET=/run/tal.sock\0" in booted.output("cat", f"/proc/{main_pid(booted)}/environ")
    options.unlink()


def test_the_drop_in_writes_debug_lines_to_the_journal_and_that_for_the_library_is_accepted(booted: Booted) -> None:
    drop_in = "/etc/systemd/system/kvsnmp.service.d/debug.conf"
    assert "readModelNumber" not in booted.output("journalctl", "-u", "kvsnmp.service")
    write_shown_file(booted, drop_in)
    type_in(booted, "systemctl daemon-reload")
    type_in(booted, "systemctl restart kvsnmp.service")
    wait_answering(booted)
    lines = type_in(booted, "journalctl -u kvsnmp.service")
    assert "kvsnmp: forking as application.." in lines and "readModelNumber modelNumber: 6420 len: 4" in lines

    assert booted.output("talctl", "monitor", "status") == "up", "the guide's policy allows it its name"
    booted.run("talctl", "monitor", "amp", "1", "5")
    wait_until(lambda: "dbusDoAmpChannelStatusUpdateSlot Amp: 1 Status: 5" in
               booted.output("journalctl", "-u", "kvsnmp.service"), 5, what="the monitor's announcement")
    booted.root.path(drop_in).unlink()

    drop_in = "/etc/systemd/system/kvsnmp.service.d/library.conf"
    write_shown_file(booted, drop_in)
    restart(booted)
    assert shown(booted, "PrivateDevices") == "no" and "/sys" in shown(booted, "ReadWritePaths").split()
    booted.root.path(drop_in).unlink()


def test_the_health_probe_leaves_a_healthy_snmpd_alone_and_replaces_a_killed_one(booted: Booted) -> None:
    """With Debian's ps, after eleven minutes each of a hurried clock."""
    folder = booted.root.path("/opt")
    subprocess.run(["cc", "-shared", "-fPIC", "-D_GNU_SOURCE", str(CHECKOUT / "tests/device/clockshift/clockshift.c"),
                    "-o", str(folder / "clockshift.so")], check=True)
    (folder / "clock").write_bytes(bytes(16))
    drop_in = add_drop_in(booted, "clock", "Environment=LD_PRELOAD=/opt/clockshift.so KVSNMP_CLOCK_FILE=/opt/clock")
    restart(booted)
    snmpd = snmpd_pids(booted)

    def probe(minute: int) -> int:
        """How often a probe has complained by then."""
        with (folder / "clock").open("r+b") as file:
            file.write(struct.pack("qq", minute * 60 * 10**9, 0))
        for _ in range(2):
            wait_next_tick(booted)
        return booted.output("journalctl", "-t", "kv-snmp").count("health check")

    assert (probe(11), probe(22), snmpd_pids(booted)) == (0, 0, snmpd)
    booted.run("kill", "-KILL", *snmpd)
    assert probe(33) == 1
    wait_new_snmpd(booted, snmpd, "a snmpd in place of the killed one")
    assert booted.output("/usr/libexec/kvsnmp/ps", "-o", "comm=", "-p", "1") == "systemd", "other words are left alone"
    drop_in.unlink()
    restart(booted)
    done = booted.run("kvsnmp-check", check=False)
    print(done.stdout)
    assert done.returncode in (0, 1) and re.search(r"^ok +health-probe", done.stdout, re.MULTILINE), done.stdout
    guide.typed.add("kvsnmp-check")


def test_further_directives_stand_in_snmpd_local_conf(booted: Booted) -> None:
    """Here another user for snmpd, which needs the capabilities of the unit."""
    local = booted.root.path("/etc/snmp/snmpd.local.conf")
    for change, is_root in ((lambda: local.write_text("agentUser Debian-snmp\n"), False), (local.unlink, True)):
        before = snmpd_pids(booted)
        change()
        wait_new_snmpd(booted, before, "a snmpd after the change of the folder")
        [snmpd] = snmpd_pids(booted)
        assert (status_field(booted, snmpd, "Uid").split()[1] == "0") == is_root


def test_another_folder_in_place_of_etc_snmp_is_followed_and_writable_after_a_restart(booted: Booted) -> None:
    config = booted.root.path("/etc/snmp/snmpd.conf")
    before = snmpd_pids(booted)
    type_in(booted, "mv /etc/snmp /etc/snmp.old")
    type_in(booted, "cp -a /etc/snmp.old /etc/snmp")
    wait_new_snmpd(booted, before, "a snmpd with the new folder")
    settled = booted.output("journalctl", "-t", "kv-snmp").count("settled")
    booted.run("talctl", "set", "/state/config/snmp_settings/mib_2_settings/sys_contact", "replaced")
    wait_until(lambda: booted.output("journalctl", "-t", "kv-snmp").count("settled") > settled, 10, what="settings received")
    assert "replaced" not in config.read_text(), "the unit has it read-only"
    type_in(booted, "systemctl restart kvsnmp.service")
    wait_until(lambda: "sysContact replaced\n" in config.read_text(), 20, what="the settings in the new folder")
    wait_answering(booted)
    booted.run("rm", "-r", "/etc/snmp.old")


def test_an_upgrade_of_snmpd_keeps_what_the_daemon_wrote(booted: Booted) -> None:
    config = booted.root.path("/etc/snmp/snmpd.conf")
    before = config.read_text()
    type_in(booted, "apt-get -o Dpkg::Options::=--force-confold install --reinstall snmpd")
    assert config.read_text() == before
    assert booted.output("systemctl", "is-active", "snmpd.service") in ("inactive", "failed")
    wait_answering(booted)  # dpkg created and removed files in the folder
    type_in(booted, "systemctl restart kvsnmp.service")
    wait_answering(booted)
