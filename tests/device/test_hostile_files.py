"""Disks full and read-only, identity files of every wrong kind, other things at the watchdog file's path, streams."""
from __future__ import annotations

import os
import random
import signal
import stat
import subprocess

import pytest
from support.dataservice import DataService
from support.device import MODEL_NUMBER, Device
from support.disk import SmallDisk
from support.polling import stays, wait_until
from support.process import lean_environment, memory_kb, run_measured
from support.settingsfile import HEAD, NAMES, READ, SnmpSettings
from support.snmp import TABLES

ANSWER = ("INTEGER", "6420")
WATCHDOG_FILE = "/tmp/kvsnmp.watchdogtest"
REFUSED = f"Couldn't open file: {WATCHDOG_FILE}\n"
CANCELLED = "SnmpdConfHandler onRestartSnmpdTimeout Cancel restart snmp, no config file\n"
WHOLE = HEAD + NAMES + READ
LONG = "c" * 6000  # a file with it needs two pages
BARE = ["--no-simulator", "--no-dbus", "--no-traps", "--no-kvsnmp"]


# The folder of snmpd.conf


class Configured:
    """A device with a small disk under /etc/snmp and a data service of the test's own."""

    def __init__(self, start_device) -> None:
        self.device = start_device(6420, *BARE)
        self.disk = SmallDisk(self.device, "/etc/snmp")
        self.service = DataService(self.device.path("/run/tal.sock"))

    def start(self) -> None:
        self.device.start_kvsnmp("-d")
        wait_until(lambda: self.service.has("custom_config"), 10, what="settings subscribed")
        SnmpSettings().send_all(self.service)

    def conf(self) -> str | None:
        return self.disk.read("snmpd.conf")

    def write_errors(self) -> int:
        return self.device.syslog_texts().count("err: snmpd.conf could not be written: No space left on device")

    def generated(self) -> int:
        return self.device.kvsnmp_err().count("Generating new snmpd.conf based on TAL values\n")

    def assert_next_change_is_written_whole(self, before: SnmpSettings = SnmpSettings()) -> None:
        running = self.device.pids("snmpd")
        SnmpSettings(sys_contact="after").send_changes(self.service, before)
        wait_until(lambda: self.conf() == WHOLE.replace("sysContact ops", "sysContact after"), 5, what="whole file")
        self.device.wait_snmpd(other_than=running)
        self.device.wait_answering()
        assert self.device.snmp.get(".1.3.6.1.2.1.1.4.0") == [("STRING", "after")]


@pytest.fixture
def configured(start_device):
    made = Configured(start_device)
    yield made
    made.service.close()


def test_disk_full_from_the_start_leaves_no_settings_file(configured):
    """Then snmpd is not started either, until a change of the settings can be written."""
    configured.disk.fill()
    configured.start()
    wait_until(lambda: configured.write_errors() == 1, 5, what="error in the system log")
    wait_until(lambda: CANCELLED in configured.device.kvsnmp_err(), 5, what="start of snmpd cancelled")
    assert configured.conf() is None
    assert not configured.device.pids("snmpd")
    configured.disk.free()
    configured.assert_next_change_is_written_whole()


def test_half_written_settings_file_is_not_kept(configured):
    """The disk takes one page of two. snmpd goes on with what it has read before."""
    configured.start()
    configured.device.wait_answering()
    snmpd = configured.device.wait_snmpd()
    assert configured.conf() == WHOLE
    configured.disk.fill()
    too_long = SnmpSettings(sys_contact=LONG)
    too_long.send_changes(configured.service, SnmpSettings())
    wait_until(lambda: configured.write_errors() == 1, 5, what="error in the system log")
    wait_until(lambda: CANCELLED in configured.device.kvsnmp_err(), 5, what="restart cancelled")
    assert configured.conf() is None
    stays(lambda: configured.device.pids("snmpd") == [snmpd], 1.0, what="the same snmpd")
    assert configured.device.snmp.try_get(MODEL_NUMBER) == ANSWER
    configured.disk.free()
    configured.assert_next_change_is_written_whole(too_long)


def test_read_only_disk_keeps_the_settings_file_and_snmpd_as_they_are(configured):
    configured.start()
    configured.device.wait_answering()
    snmpd = configured.device.wait_snmpd()
    configured.disk.protect()
    changed = SnmpSettings(sys_contact="cannot be written")
    settled = configured.device.syslog_texts().count("info: Tal System Config settled")
    changed.send_changes(configured.service, SnmpSettings())
    wait_until(lambda: configured.device.syslog_texts().count("info: Tal System Config settled") > settled, 5,
               what="settings taken")
    stays(lambda: configured.conf() == WHOLE and configured.device.pids("snmpd") == [snmpd], 1.5, what="all as before")
    assert configured.generated() == 1  # silence about the second
    configured.disk.protect(False)
    configured.assert_next_change_is_written_whole(changed)


def test_read_only_disk_from_the_start_serves_with_the_file_of_before(configured):
    (configured.disk.folder / "snmpd.conf").write_text(WHOLE.replace("sysContact ops", "sysContact before"))
    configured.disk.protect()
    configured.start()
    configured.device.wait_answering()
    assert configured.device.snmp.get(".1.3.6.1.2.1.1.4.0") == [("STRING", "before")]
    assert configured.generated() == 0


# /tmp


def test_full_and_read_only_tmp_cost_the_watchdog_file_only(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    disk = SmallDisk(device, "/tmp")
    disk.fill()
    device.start_kvsnmp("-d", clock_shift=True)
    device.wait_answering()
    name = WATCHDOG_FILE.rpartition("/")[2]

    def next_tick(done, what: str) -> None:
        device.shift_clock(5)
        wait_until(done, 8, what=what)

    next_tick(lambda: disk.read(name) == "", "file made, and empty")
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    disk.free()
    next_tick(lambda: disk.read(name) == "update\n", "file written")
    disk.protect()
    assert device.kvsnmp_out().count(REFUSED) == 0
    next_tick(lambda: REFUSED in device.kvsnmp_out(), "refusal told")
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    disk.protect(False)
    (disk.folder / name).unlink()
    next_tick(lambda: disk.read(name) == "update\n", "file written again")


# /var/run


def run_disk(start_device) -> tuple[Device, SmallDisk]:
    """/var/run on a small disk, apart from /run with the device's own sockets."""
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    link = device.root / "var/run"
    link.unlink()
    link.mkdir()
    return device, SmallDisk(device, "/var/run")


def test_full_var_run_ends_a_daemon_before_it_begins(start_device):
    device, disk = run_disk(start_device)
    disk.fill()
    assert device.run_kvsnmp().returncode == 0  # it finds out in the background
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    assert disk.read("kvsnmp.pid") == ""
    disk.free()
    assert device.run_kvsnmp().returncode == 0  # the empty file does not stop it
    device.wait_answering()
    assert disk.read("kvsnmp.pid") == f"{device.kvsnmp_pid()}\n"


def test_read_only_var_run_ends_a_daemon_and_not_a_foreground_run(start_device):
    device, disk = run_disk(start_device)
    disk.protect()
    assert device.run_kvsnmp().returncode == 0
    wait_until(lambda: not device.pids("kvsnmp"), what="daemon ended")
    kvsnmp = device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="start of snmpd")
    disk.protect(False)
    if not device.pids("snmpd"):  # it ends when it cannot write its pid file; the health probe finds it missing
        device.shift_clock(601)
    device.wait_answering()
    device.kill(device.kvsnmp_pid(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0


def test_snmpd_that_cannot_write_its_pid_file_is_started_again_by_the_probe(start_device):
    device, disk = run_disk(start_device)
    disk.fill()
    device.start_kvsnmp("-d", clock_shift=True)
    wait_until(lambda: "info: Starting snmpd (snmpd.conf from TAL)" in device.syslog_texts(), 10, what="start of snmpd")
    device.wait_answering()
    disk.free()
    snmpd, = device.pids("snmpd")
    device.kill(snmpd, signal.SIGKILL)
    wait_until(lambda: not device.pids("snmpd"), what="snmpd gone")
    device.shift_clock(601)
    wait_until(lambda: device.pids("snmpd") not in ([], [snmpd]), 10, what="another snmpd")
    device.wait_answering()


# The identity files


NO_DAC = ["setpriv", "--bounding-set", "-dac_override,-dac_read_search"]  # so that root, too, is refused
BINARY = bytes(byte for byte in random.Random(3).randbytes(1000) if byte not in b"\0\r\n")[:100]
GIBIBYTE = 1 << 30


def replace_by(kind: str, file) -> None:
    file.unlink(missing_ok=True)
    if kind == "folder":
        file.mkdir()
    elif kind == "dangling link":
        file.symlink_to("nowhere")
    elif kind == "link to itself":
        file.symlink_to(file.name)
    elif kind == "unreadable":
        file.write_text("6420\n")
        file.chmod(0)
    elif kind == "binary":
        file.write_bytes(BINARY)
    elif kind == "NUL bytes":
        file.write_bytes(b"\0" * 5000)
    elif kind == "a number after NUL bytes":
        file.write_bytes(b"\0\x006420\n")
    elif kind == "huge, without a line end":
        file.touch()
        os.truncate(file, GIBIBYTE)
    elif kind == "huge, of digits":
        file.write_bytes(b"6" * (64 << 20))
    else:
        assert kind == "missing"


@pytest.fixture(scope="module")
def idle_device(start_shared_device):
    """For daemons that end by themselves."""
    return start_shared_device(6420, *BARE)


@pytest.fixture
def clean_device(idle_device):
    """The idle device with its own identity files, before the test and after it."""
    folder = idle_device.path("/etc")
    kept = {file: file.read_bytes() for file in folder.glob("xr-*")}
    for log in ("/var/log/kvsnmp.err", "/var/log/kvsnmp.out"):
        idle_device.path(log).unlink(missing_ok=True)
    yield idle_device
    for file in folder.glob("xr-*"):
        if file.is_dir() and not file.is_symlink():
            file.rmdir()
        else:
            file.unlink()
    for file, content in kept.items():
        file.write_bytes(content)


NO_FILE = ["missing", "folder", "dangling link", "link to itself", "unreadable"]
NO_NUMBER = ["binary", "NUL bytes", "a number after NUL bytes", "huge, without a line end", "huge, of digits"]
LITTLE_MEMORY_KB = 160 * 1024  # the sanitizer's own share included


@pytest.mark.parametrize("kind", NO_FILE + NO_NUMBER)
def test_model_number_file_of_a_wrong_kind_ends_the_daemon(clean_device, kind):
    replace_by(kind, clean_device.path("/etc/xr-modelnumber"))
    done = run_measured(clean_device, [*NO_DAC, "kvsnmp", "-d"])
    said = ("readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue\n" if kind in NO_FILE
            else "readModelNumber Invalid numeric modelNumber: ")
    assert said in done.err
    assert "KvSnmp Failed to read modelNumber, cannot continue\n" in done.err
    assert done.status == 255
    assert len(done.err) < 20000
    assert done.memory_kb < LITTLE_MEMORY_KB


TEXT_FILES = {"xr-pkgver": "readPackageVersion", "xr-model": "readModelType", "xr-kernelver": "readKernelVersion",
              "xr-oftreever": "readDeviceTreeVersion"}


@pytest.mark.parametrize("kind", NO_FILE)
def test_text_file_that_cannot_be_read_is_unknown(clean_device, kind):
    for name in [*TEXT_FILES, "xr-amptype"]:
        replace_by(kind, clean_device.path(f"/etc/{name}"))
    kvsnmp = clean_device.start_kvsnmp("-d", wrapper=NO_DAC)
    clean_device.kill(clean_device.wait_running(), signal.SIGTERM)
    assert kvsnmp.wait(10) == 0
    said = clean_device.kvsnmp_err()
    for name, function in TEXT_FILES.items():
        assert f"{function} /etc/{name} EMPTY !\n" in said
    assert "readAmpType amplfierTypeString: Unknown len: 7\n" in said
    assert "readFile /etc/xr-amptype" not in said  # a file that cannot be opened is passed over in silence


def test_binary_and_huge_text_files_are_served_as_their_first_127_characters(start_device):
    device = start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")
    replace_by("binary", device.path("/etc/xr-pkgver"))
    replace_by("huge, without a line end", device.path("/etc/xr-model"))
    replace_by("huge, of digits", device.path("/etc/xr-kernelver"))
    replace_by("NUL bytes", device.path("/etc/xr-oftreever"))
    replace_by("huge, of digits", device.path("/etc/xr-amptype"))
    device.start_kvsnmp("-d", env=lean_environment())
    device.wait_answering()
    texts = [f"{TABLES}.1.{number}.0" for number in (1, 2, 4, 5, 6)]
    package, model, amplifier, kernel, tree = device.snmp.get(*texts, access=["-v2c", "-c", "public", "-Ox"])
    assert package[0] == "Hex-STRING" and b"?" in bytes.fromhex(package[1])
    assert bytes.fromhex(package[1]).replace(b"?", b"") == BINARY.decode(errors="ignore").replace("?", "").encode("latin-1")
    assert model == tree == ("STRING", "")  # a C string ends at its first NUL
    assert bytes.fromhex(amplifier[1]) == b"Unknown"
    assert bytes.fromhex(kernel[1]) == b"6" * 127
    assert memory_kb(device, device.kvsnmp_pid()) < LITTLE_MEMORY_KB
    assert len(device.kvsnmp_err()) < 100000


# The watchdog file's path


@pytest.fixture(scope="module")
def serving(start_shared_device):
    device = start_shared_device(6420, "--no-dbus", "--no-traps", "--clock-shift")
    return device.wait_answering()


# Shell commands that put something to $1, in its folder; "other" is a file beside it. Typed by another user, or by root.
THINGS = {
    "pipe": "mkfifo $1",
    "dangling link": "ln -s nothing $1",
    "link to itself": "ln -s $1 $1",
    "link to a folder": "ln -s /etc/snmp $1",
    "link to the settings": "ln -s /etc/snmp/snmpd.conf $1",
    "link to a device": "ln -s /dev/tty $1",
    "hard link": "ln other $1",
    "socket": "python3 -c 'import socket, sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])' $1",
    "file": "echo mine > $1 && chmod 666 $1",
}
ROOTS_OWN = {"device": "mknod $1 c 1 3", "hard link of root's": "echo precious > roots && ln roots $1"}
# Outside a sandbox made by root there is one user only.
ANOTHER_USER = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
PLANTED = [pytest.param(ANOTHER_USER, script, id=name) for name, script in THINGS.items() if ANOTHER_USER or name != "file"]
PLANTED += [pytest.param([], script, id=name) for name, script in ROOTS_OWN.items() if ANOTHER_USER or name != "device"]


@pytest.fixture
def watched(serving):
    """The device with its watchdog file, in a folder that is open to all as /tmp is, with another user's file in it."""
    folder = serving.path("/tmp")
    folder.chmod(0o1777)
    serving.run([*ANOTHER_USER, "sh", "-c", "echo precious > /tmp/other"])
    serving.shift_clock(5)
    wait_until(lambda: serving.read(WATCHDOG_FILE) == "update\n", 8, what="watchdog file")
    yield serving
    for name in (WATCHDOG_FILE.rpartition("/")[2], "other", "roots"):
        subprocess.run(["rm", "-rf", str(folder / name)], check=True)


def plant(device: Device, user: list[str], script: str) -> tuple[int, int]:
    """Puts something in the file's place, before the daemon does, and returns device and inode of it."""
    path = device.path(WATCHDOG_FILE)

    def planted() -> bool:
        path.unlink(missing_ok=True)
        done = device.run([*user, "sh", "-c", f"cd /tmp && {script}", "sh", WATCHDOG_FILE], check=False)
        assert done.returncode == 0 or path.exists(), done.stderr
        return done.returncode == 0

    wait_until(planted, what="something else in the file's place")
    return path.lstat().st_dev, path.lstat().st_ino


@pytest.mark.parametrize("user, script", PLANTED)
def test_anything_else_at_the_watchdog_files_path_is_replaced_at_the_next_tick(watched, user, script):
    device, path = watched, watched.path(WATCHDOG_FILE)
    conf = device.read("/etc/snmp/snmpd.conf")
    refusals = device.kvsnmp_out().count(REFUSED)
    planted = plant(device, user, script)
    device.shift_clock(5)
    wait_until(lambda: path.exists() and (path.lstat().st_dev, path.lstat().st_ino) != planted, 8, what="another file")
    made = path.lstat()
    assert stat.S_ISREG(made.st_mode) and stat.S_IMODE(made.st_mode) == 0o644
    assert (made.st_nlink, made.st_uid) == (1, os.geteuid())
    assert path.read_text() == "update\n"
    assert device.kvsnmp_out().count(REFUSED) == refusals
    assert device.snmp.get(MODEL_NUMBER) == [ANSWER]
    beside = [device.path("/tmp/other"), device.path("/tmp/roots")]
    assert {file.read_text() for file in beside if file.exists()} == {"precious\n"}
    assert not device.path("/tmp/nothing").exists()
    assert device.read("/etc/snmp/snmpd.conf") == conf
    assert [file.name for file in path.parent.glob(f"{path.name}?*")] == []


def test_folder_at_the_watchdog_files_path_is_told_at_every_tick_and_left_alone(watched):
    path = watched.path(WATCHDOG_FILE)
    refusals = watched.kvsnmp_out().count(REFUSED)
    plant(watched, ANOTHER_USER, "mkdir $1")
    for _ in range(2):
        watched.shift_clock(5)
        refusals += 1
        wait_until(lambda told=refusals: watched.kvsnmp_out().count(REFUSED) >= told, 8, what="refusal told")
    assert watched.snmp.get(MODEL_NUMBER) == [ANSWER]
    assert [file.name for file in path.parent.glob(f"{path.name}*")] == [path.name]
    path.rmdir()
    watched.shift_clock(5)
    wait_until(lambda: watched.read(WATCHDOG_FILE) == "update\n", 8, what="watchdog file again")


def test_pipe_that_somebody_reads_at_the_watchdog_files_path_gets_nothing(watched):
    plant(watched, ANOTHER_USER, "mkfifo -m 666 $1")
    reader = os.open(watched.path(WATCHDOG_FILE), os.O_RDONLY | os.O_NONBLOCK)
    try:
        watched.shift_clock(5)
        wait_until(lambda: watched.path(WATCHDOG_FILE).is_file(), 8, what="a file in its place")
        assert os.read(reader, 100) == b""
    finally:
        os.close(reader)


# Standard output and standard error, besides what the tests of the start show


@pytest.fixture
def silent_device(start_device):
    return start_device(6420, "--no-dbus", "--no-traps", "--no-kvsnmp")


def test_streams_that_are_full_before_the_start(silent_device):
    read, write = os.pipe()
    os.set_blocking(write, False)
    try:
        while True:
            os.write(write, b"x" * 4096)
    except BlockingIOError:
        pass
    os.set_blocking(write, True)
    silent_device.popen(["kvsnmp", "-d"], stdout=write, stderr=write)
    os.close(write)
    silent_device.wait_answering()
    assert len(silent_device.snmp.walk()) > 50
    os.close(read)


def test_streams_onto_a_full_disk(silent_device):
    silent_device.popen(["sh", "-c", "exec kvsnmp -d > /dev/full 2>&1"])
    silent_device.wait_answering()
    assert len(silent_device.snmp.walk()) > 50


@pytest.mark.parametrize("redirection", ["<&- >&-", "<&- 2>&-", "<&- >&- 2>&-"])
def test_daemon_started_with_closed_streams(silent_device, redirection):
    silent_device.run(["sh", "-c", f"exec kvsnmp {redirection}"])
    silent_device.wait_answering()
    pid = silent_device.kvsnmp_pid()
    links = silent_device.run(["readlink", *(f"/proc/{pid}/fd/{number}" for number in range(3))]).stdout.split()
    assert links == ["/dev/null"] * 3


def test_reader_that_takes_the_first_line_and_leaves(silent_device):
    """As in `kvsnmp -d | head -1`."""
    silent_device.popen(["sh", "-c", "kvsnmp -d 2>&1 | head -n 1 > /tmp/first"])
    silent_device.wait_answering()
    assert silent_device.read("/tmp/first") == "kvsnmp main()\n"
    assert len(silent_device.snmp.walk()) > 50
