"""Two sub-agents of Debian, each with an snmpd like the measured device's in a separate throw-away device."""
from __future__ import annotations

import signal

from support.device import Device
from support.polling import wait_until

from .subjects import KEEPALIVED, LLDPD, Subject

EMPTY = ["--no-kvsnmp", "--no-simulator", "--no-dbus", "--no-traps"]
SYS_UP_TIME = ".1.3.6.1.2.1.1.3.0"

# About 300 objects each, like the measured device: eight ports that hear each other, eight virtual routers.
PORT_PAIRS = 4
PORTS = "".join(f"ip link add p{pair}a type veth peer name p{pair}b && ip link set p{pair}a up && ip link set p{pair}b up\n"
                for pair in range(PORT_PAIRS)) + "ip address add 10.99.0.1/24 dev p0a\n"
ROUTERS = "global_defs {\n  router_id bench\n  enable_snmp_vrrp\n}\n" + "".join(
    f"vrrp_instance router{number} {{\n  interface p0a\n  state BACKUP\n  virtual_router_id {number}\n  priority 100\n"
    f"  advert_int 1\n  virtual_ipaddress {{\n    10.99.0.{100 + number}/32\n  }}\n}}\n" for number in range(1, 9))
COMMANDS = {
    LLDPD: ["lldpd", "-d", "-x", "-I", "p*"],
    KEEPALIVED: ["keepalived", "--dont-fork", "--log-console", "--vrrp", "--snmp", "--use-file", "/etc/keepalived.conf"],
}
OBJECTS_AT_LEAST = 250


class Peer:
    """Call stop() at the end. `snmpd_conf` is the text of the measured device's snmpd.conf."""

    def __init__(self, subject: Subject, snmpd_conf: str) -> None:
        self.subject = subject
        self.device = Device(6420, *EMPTY)
        try:
            self._start(snmpd_conf)
        except BaseException:
            self.device.stop()
            raise

    def _start(self, snmpd_conf: str) -> None:
        device = self.device.wait_ready()
        device.run(["sh", "-ec", "ip link set lo up\n" + PORTS])
        device.path("/etc/snmp/snmpd.conf").write_text(snmpd_conf)
        device.path("/etc/keepalived.conf").write_text(ROUTERS)
        device.path("/run/lldpd").mkdir()
        self._start_snmpd()
        with open(device.path(f"/var/log/{self.subject.name}.log"), "wb") as log:
            # In a separate session, like snmpd and the measured daemon: the kernel divides processors by session, so
            # a sub-agent in the load generator's session would be scheduled differently.
            device.popen(["setsid", "--wait", *COMMANDS[self.subject]], stdout=log, stderr=log)
        wait_until(lambda: len(device.snmp.walk(self.subject.root)) >= OBJECTS_AT_LEAST, 60, interval=0.5,
                   what=f"objects of {self.subject.name}\n" + device.read(f"/var/log/{self.subject.name}.log"))

    def _start_snmpd(self) -> None:
        self.device.run(["snmpd", "-p", "/var/run/snmpd.pid"])  # like the daemon's

    def restart_snmpd(self) -> None:
        """Stops snmpd and starts it half a second later, like the daemon."""
        old = self.device.wait_snmpd()
        self.device.kill(old, signal.SIGTERM)
        self.device.run(["sleep", "0.5"])
        self._start_snmpd()
        self.device.wait_snmpd(other_than=[old])

    def stop(self) -> None:
        self.device.stop()
