"""The settings of one device, for both sides of the sandbox."""
from __future__ import annotations

import dataclasses
import json
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
INSTALLED = not (CHECKOUT / "CMakeLists.txt").exists()  # from a package, without a checkout
COMMAND = "kvsnmp-device" if INSTALLED else "scripts/device"
FLEET_COMMAND = "kvsnmp-fleet" if INSTALLED else "scripts/fleet"

# Inside the device.
BIN_FOLDER = "/run/device/bin"
STATE_FOLDER = "/run/device"
TAL_SOCKET = "/run/tal.sock"
TAL_CONTROL = "/run/talcontrol.sock"
TRAP_LOG = "/var/log/traps"
GPIO_ROOT = "/run/gpio"
CLOCK_FILE = "/run/device/clockshift"
SNMPD_RSS_FILE = "/run/device/snmpd-rss"
PROBE_LOG = "/run/device/probes"
SANITIZER_LOG = "/var/log/sanitizer"  # followed by the process number


@dataclasses.dataclass
class Settings:
    model: int
    name: str
    bin_dir: str
    port: int = 0  # 0: a separate network, port 161
    address: str = "127.0.0.1"  # a fleet's device listens and sends on it alone
    hostname: str = "device"
    is_in_fleet: bool = False
    trap_target: str = ""  # HOST:PORT instead of the device's snmptrapd
    trap_port: int = 162
    kvsnmp: str = "foreground"  # "foreground", "daemon" or "none"
    kvsnmp_args: list[str] = dataclasses.field(default_factory=list)
    wrapper: list[str] = dataclasses.field(default_factory=list)
    clock_shift: bool = False
    simulator: bool = True
    simulator_args: list[str] = dataclasses.field(default_factory=list)
    dbus: bool = True
    traps: bool = True
    numeric_traps: bool = False
    writable: list[str] = dataclasses.field(default_factory=list)  # folders of the host

    def to_json(self) -> str:
        return json.dumps(dataclasses.asdict(self), indent=1)

    @staticmethod
    def from_json(text: str) -> Settings:
        return Settings(**json.loads(text))

    @property
    def snmp_port(self) -> int:
        return self.port or 161

    @property
    def port_setting(self) -> str:
        """The device's setting, which snmpd.conf has twice: "agentAddress udp6:%1,udp:%1". snmpd ignores what follows
        "none"."""
        return f"[::1]:0,udp:{self.address}:{self.port},none" if self.is_in_fleet else str(self.port)

    @property
    def trap_receiver(self) -> str:
        if self.trap_target:
            return self.trap_target
        return "127.0.0.1" if self.trap_port == 162 else f"127.0.0.1:{self.trap_port}"

    @property
    def sends_from_address(self) -> bool:
        """So that its traps are attributable; an address of the loopback reaches nothing else."""
        def is_loopback(host: str) -> bool:
            return host.startswith("127.")
        return self.is_in_fleet and (not is_loopback(self.address) or is_loopback(self.trap_target))

    def program(self, name: str) -> str:
        """kvsnmp is installed in a folder "sbin", the others in "bin" beside it."""
        folder = Path(self.bin_dir)
        beside = folder.with_name("bin")
        return str((folder if (folder / name).exists() or not (beside / name).exists() else beside) / name)

    def clock_library(self) -> str:
        return str(Path(self.bin_dir).parent / "lib" / "libclockshift.so")


def environment() -> dict[str, str]:
    """The environment of all programs inside a device."""
    return {
        "PATH": f"{BIN_FOLDER}:/usr/sbin:/usr/bin:/sbin:/bin",
        "HOME": "/root",
        "LANG": "C.UTF-8",
        "TAL_SOCKET": TAL_SOCKET,
        "TAL_CONTROL": TAL_CONTROL,
        "XR_GPIO_ROOT": GPIO_ROOT,
        "MIBS": "",  # the base modules are not installed: otherwise each tool prints 500 lines of errors
        "QT_FORCE_STDERR_LOGGING": "1",
    }


def kvsnmp_environment(clock_shift: bool, library: str) -> dict[str, str]:
    """Additions for the daemon only: sanitizer settings, and the clock that a test can move."""
    extra = {
        "ASAN_OPTIONS": f"verify_asan_link_order=0:detect_leaks=1:exitcode=99:log_path={SANITIZER_LOG}",
        "LSAN_OPTIONS": "exitcode=0",  # some leaks are in the agent library; the tests distinguish them
        "UBSAN_OPTIONS": f"print_stacktrace=1:log_path={SANITIZER_LOG}",
    }
    if clock_shift:
        extra |= {"LD_PRELOAD": library, "KVSNMP_CLOCK_FILE": CLOCK_FILE}
    return extra
