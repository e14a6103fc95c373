"""snmpd kept running: custom configuration, killed, missing or swollen snmpd, stale pid file."""
from __future__ import annotations

import signal

import pytest
from support.dataservice import SETTINGS
from support.polling import stays, wait_until
from support.settingsfile import READ

CONF = "/etc/snmp/snmpd.conf"
PID_FILE = "/run/snmpd.pid"
PROBES = "/run/device/probes"
HEALTH_PERIOD = 601
RESTART = "SnmpdConfHandler onRestartSnmpdTimeout Restarting snmpd\n"


@pytest.fixture(scope="module")
def supervised(start_shared_device):
    device = start_shared_device(6420, "--no-traps", "--clock-shift")
    device.wait_answering()
    return device


def probe(device) -> None:
    """Lets the ten minutes pass and waits until the health probe has asked."""
    count = device.read(PROBES).count("\n")
    device.shift_clock(HEALTH_PERIOD)
    wait_until(lambda: device.read(PROBES).count("\n") > count, 5, what="health probe")


def test_health_probe_leaves_a_healthy_snmpd_alone(supervised):
    pid = supervised.wait_snmpd()
    restarts = supervised.kvsnmp_err().count(RESTART)
    probe(supervised)
    assert supervised.read(PROBES).splitlines()[-1] == "--noheaders -C snmpd -o rss"
    stays(lambda: supervised.pids("snmpd") == [pid], 1.5, what="the same snmpd")
    assert supervised.kvsnmp_err().count(RESTART) == restarts


def test_snmpd_at_the_memory_limit_is_restarted_and_one_below_is_not(supervised):
    pid = supervised.wait_snmpd()
    rss = supervised.path("/run/device/snmpd-rss")
    rss.write_text("10239\n")
    probe(supervised)
    stays(lambda: supervised.pids("snmpd") == [pid], 1.5, what="the same snmpd at 10239 kB")
    rss.write_text("10240\n")
    probe(supervised)
    rss.write_text("8192\n")
    supervised.wait_snmpd(other_than=[pid])
    assert "err: Snmpd health check: memory usage too high: 10240 kB" in supervised.syslog_texts()
    assert ("SnmpdConfHandler watchdogSnmpd watchdog restarting snmpd, memory usage too high: 10240\n"
            in supervised.kvsnmp_err())
    supervised.wait_answering()


def test_snmpd_killed_is_found_by_the_probe_and_started_anew(supervised):
    pid = supervised.wait_snmpd()
    supervised.kill(pid, signal.SIGKILL)
    wait_until(lambda: not supervised.pids("snmpd"), what="snmpd gone")
    assert supervised.read(PID_FILE).strip() == str(pid)  # left behind
    probe(supervised)
    supervised.wait_snmpd(other_than=[pid])
    texts = supervised.syslog_texts()
    assert "err: Snmpd health check: snmpd is not running" in texts
    assert "err: Snmpd was not properly closed last time" in texts
    assert "SnmpdConfHandler watchdogSnmpd watchdog restarting snmpd, snmpd not running\n" in supervised.kvsnmp_err()
    supervised.wait_answering()


def test_stale_pid_file_is_removed_and_its_process_killed(supervised):
    """A process that the pid file names, here no snmpd at all, is killed with signal 9."""
    pid = supervised.wait_snmpd()
    victim = supervised.popen(["sh", "-c", "echo $$ > /tmp/victim; exec sleep 1000"])
    victim_pid = int(wait_until(lambda: supervised.read("/tmp/victim"), what="victim running"))
    supervised.kill(pid, signal.SIGKILL)
    wait_until(lambda: not supervised.pids("snmpd"), what="snmpd gone")
    supervised.path(PID_FILE).write_text(f"{victim_pid}\nsecond line\n")
    probe(supervised)
    assert victim.wait(10) in (-signal.SIGKILL, 128 + signal.SIGKILL)
    supervised.wait_snmpd(other_than=[pid])
    supervised.wait_answering()


def test_change_of_the_folder_restarts_snmpd(supervised):
    pid = supervised.wait_snmpd()
    supervised.path("/etc/snmp/another.file").write_text("")
    pid = supervised.wait_snmpd(other_than=[pid])
    supervised.path("/etc/snmp/another.file").unlink()
    supervised.wait_snmpd(other_than=[pid])
    supervised.wait_answering()


def test_configuration_deleted_by_hand_cancels_the_restart(supervised):
    pid = supervised.wait_snmpd()
    kept = supervised.read(CONF)
    supervised.path(CONF).unlink()
    wait_until(lambda: "SnmpdConfHandler onRestartSnmpdTimeout Cancel restart snmp, no config file\n"
               in supervised.kvsnmp_err(), 5, what="restart cancelled")
    stays(lambda: supervised.pids("snmpd") == [pid], 1.0, what="snmpd runs on")
    supervised.path(CONF).write_text(kept)
    supervised.wait_snmpd(other_than=[pid])
    supervised.wait_answering()


def test_custom_configuration_is_left_alone_and_snmpd_started_with_it(start_device):
    custom = "# made by hand\nmaster agentx\nsysLocation by hand\n" + READ
    device = start_device(6420, "--no-traps", "--no-kvsnmp", "--set", f"{SETTINGS}/custom_config=true")
    device.path(CONF).write_text(custom)
    device.start_kvsnmp("-d")
    device.wait_answering()
    assert device.read(CONF) == custom
    assert device.snmp.get(".1.3.6.1.2.1.1.6.0") == [("STRING", "by hand")]
    assert "SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device has custom snmpd.conf\n" in device.kvsnmp_err()
    assert "info: Starting snmpd (custom snmpd.conf)" in device.syslog_texts()

    # A change of a setting writes nothing and does not restart; one of the folder restarts with the same file.
    pid = device.wait_snmpd()
    device.talctl("set", f"{SETTINGS}/mib_2_settings/sys_contact", "nobody")
    stays(lambda: device.pids("snmpd") == [pid], 1.5, what="the same snmpd")
    device.path(CONF).write_text(custom.replace("by hand\n" + READ, "changed by hand\n" + READ))
    device.stir_snmpd_folder()
    pid = device.wait_snmpd(other_than=[pid])
    device.wait_answering()
    assert device.snmp.get(".1.3.6.1.2.1.1.6.0") == [("STRING", "changed by hand")]

    # Back to the generated file.
    device.talctl("set", f"{SETTINGS}/custom_config", "false")
    device.wait_snmpd(other_than=[pid])
    assert "by hand" not in device.read(CONF) and "sysContact nobody\n" in device.read(CONF)
    assert "SnmpdConfHandler slotSnmpdConfUseCustomConfFile Device uses our generated snmpd.conf\n" in device.kvsnmp_err()
    device.wait_answering()


def test_custom_configuration_whose_file_is_gone_is_replaced(start_device):
    device = start_device(6420, "--no-traps", "--set", f"{SETTINGS}/custom_config=true").wait_answering()
    assert device.read(CONF).startswith("master agentx\n")


def test_snmpd_that_cannot_be_started_is_tried_again_by_the_probe(start_device):
    """snmpd missing from the search path; the daemon goes on and finds it when it is there again."""
    device = start_device(6420, "--no-traps", "--no-kvsnmp")
    device.start_kvsnmp("-d", clock_shift=True, env={"PATH": "/run/device/bin:/usr/bin:/bin"})
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="attempt")
    wait_until(lambda: "FINISH kaAgentStart()\n" in device.kvsnmp_out(), 5, what="agent started")
    probe(device)
    wait_until(lambda: "err: Snmpd health check: snmpd is not running" in device.syslog_texts(), 5, what="finding")
    assert not device.pids("snmpd")
    device.path("/run/device/bin/snmpd").symlink_to("/usr/sbin/snmpd")
    probe(device)
    device.wait_snmpd()
    device.wait_answering()
