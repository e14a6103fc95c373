"""The subjects: sub-agents of snmpd, and, as the floor, objects of snmpd itself; each in a separate device."""
from __future__ import annotations

import signal
import subprocess
from collections.abc import Sequence
from typing import NamedTuple

from support.device import CHECKOUT, Device
from support.polling import wait_until

E = ".1.3.6.1.4.1.52717"
VRRP = ".1.3.6.1.4.1.9586.100.5.2"
LLDP = ".1.0.8802.1.1.2"
SYSTEM = ".1.3.6.1.2.1.1"
ROWS_AT_LEAST = 8


class Subject(NamedTuple):
    name: str  # begins with the program's
    scalar: str
    column: str  # of the table
    table: str
    root: str  # of everything that is walked

    @property
    def program(self) -> str:
        return self.name.partition(",")[0]


KVSNMP = Subject("kvsnmp", f"{E}.3.1.3.0", f"{E}.3.4.2.1.3", f"{E}.3.4.2", E)  # infoModelNumber, voltageValue
FLOOR = Subject("snmpd", f"{SYSTEM}.3.0", f"{SYSTEM}.9.1.3", f"{SYSTEM}.9", SYSTEM)  # sysUpTime, sysORDescr
LLDPD = Subject("lldpd", f"{LLDP}.1.1.1.0", f"{LLDP}.1.3.7.1.4", f"{LLDP}.1.3.7", LLDP)  # TxInterval, LocPortDesc
KEEPALIVED = Subject("keepalived", ".1.3.6.1.4.1.9586.100.5.1.4.0", f"{VRRP}.3.1.8", f"{VRRP}.3",
                     ".1.3.6.1.4.1.9586.100.5")  # trapEnable, vrrpInstanceEffectivePriority
PEERS = [LLDPD, KEEPALIVED]
SUBJECTS = [KVSNMP, FLOOR, *PEERS]

# About 300 objects each, like the measured device: eight ports that hear each other, eight virtual routers.
PORTS = "ip link set lo up\n" + "".join(
    f"ip link add p{pair}a type veth peer name p{pair}b && ip link set p{pair}a up && ip link set p{pair}b up\n"
    for pair in range(ROWS_AT_LEAST // 2)) + "ip address add 10.99.0.1/24 dev p0a\n"
ROUTERS = "global_defs {\n  router_id bench\n  enable_snmp_vrrp\n}\n" + "".join(
    f"vrrp_instance router{number} {{\n  interface p0a\n  state BACKUP\n  virtual_router_id {number}\n  priority 100\n"
    f"  advert_int 1\n  virtual_ipaddress {{\n    10.99.0.{100 + number}/32\n  }}\n}}\n"
    for number in range(1, ROWS_AT_LEAST + 1))
SNMPD = ["snmpd", "-p", "/var/run/snmpd.pid"]  # like the daemon's
COMMANDS = {
    FLOOR: SNMPD,
    LLDPD: ["lldpd", "-d", "-x", "-I", "p*"],
    KEEPALIVED: ["keepalived", "--dont-fork", "--log-console", "--vrrp", "--snmp", "--use-file", "/etc/keepalived.conf"],
}
OBJECTS_AT_LEAST = {FLOOR: 30, LLDPD: 250, KEEPALIVED: 250}


def new_device(standard_tables: bool = True) -> Device:
    """A device in which kvsnmp does not run yet."""
    device = Device(6420, "--no-kvsnmp", "--no-traps").wait_ready()
    if not standard_tables:
        config = device.path("/etc/snmp/kvagent.conf")
        config.write_text(config.read_text().replace("kvStandardSensors yes", "kvStandardSensors no"))
    return device


def rows(device: Device, subject: Subject) -> list[str]:
    """The table's cells of the subject's column."""
    found = [cell.oid for cell in device.snmp.walk(subject.column)]
    if len(found) < ROWS_AT_LEAST:
        raise AssertionError(f"{len(found)} rows of {subject.name}")
    return found


class Peer:
    """The floor or a peer, with an snmpd like the measured device's; call stop() at the end. `snmpd_conf` is the text of
    the measured device's file."""

    def __init__(self, subject: Subject, snmpd_conf: str, wrapper: Sequence[str] = ()) -> None:
        self.device = Device(6420, "--no-kvsnmp", "--no-simulator", "--no-dbus", "--no-traps")
        try:
            self._start(subject, snmpd_conf, list(wrapper))
        except BaseException:
            self.stop()
            raise

    def _start(self, subject: Subject, snmpd_conf: str, wrapper: list[str]) -> None:
        device = self.device.wait_ready()
        device.run(["sh", "-ec", PORTS])
        device.path("/etc/snmp/snmpd.conf").write_text(snmpd_conf)
        device.path("/etc/keepalived.conf").write_text(ROUTERS)
        device.path("/run/lldpd").mkdir()
        if subject != FLOOR:
            device.run(SNMPD)
        with open(device.path(f"/var/log/{subject.name}.log"), "wb") as log:
            # In a separate session, like snmpd and the measured daemon: the kernel divides processors by session, so
            # a sub-agent in the load generator's session would be scheduled differently.
            device.popen(["setsid", "--wait", *wrapper, *COMMANDS[subject]], stdout=log, stderr=log)
        wait_until(lambda: device.snmp.tool("snmpwalk", [subject.root], check=False).stdout.count("\n") >=
                   OBJECTS_AT_LEAST[subject], 90, interval=0.5,
                   what=f"objects of {subject.name}\n" + device.read(f"/var/log/{subject.name}.log"))

    def restart_snmpd(self) -> None:
        """Stops snmpd and starts it half a second later, like the daemon."""
        old = self.device.wait_snmpd()
        self.device.kill(old, signal.SIGTERM)
        self.device.run(["sleep", "0.5"])
        self.device.run(SNMPD)
        self.device.wait_snmpd(other_than=[old])

    def stop(self) -> None:
        self.device.stop()


def versions() -> dict[str, str]:
    """Of the subjects, by name: the project's version, and Debian's of the others."""
    project = (CHECKOUT / "CMakeLists.txt").read_text().partition("project(")[2].partition("VERSION")[2].split()[0]
    others = [subject.name for subject in (FLOOR, *PEERS)]
    query = ["dpkg-query", "-W", "-f", "${Package} ${Version}\n", *others]
    lines = subprocess.run(query, stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines()
    return {KVSNMP.name: project} | dict(line.split() for line in lines)
