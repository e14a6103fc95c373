"""The SNMP settings as a data service sends them, and the lines of snmpd.conf that follow."""
from __future__ import annotations

import dataclasses
from xml.sax.saxutils import escape

from .dataservice import SETTINGS, DataService


@dataclasses.dataclass(frozen=True)
class SnmpSettings:
    sys_name: str = "amp-1"
    sys_location: str = "rack 7"
    sys_contact: str = "ops"
    community: str = "public"
    access: str = "Read"
    nms_ip: str = "127.0.0.1"
    nms_ipv6: str = "::1"
    snmp_port: str = "161"
    trap_address: str = ""
    inform_address: str = ""
    version_1: str = "true"
    version_2c: str = "true"
    version_3: str = "false"
    custom_config: str = "false"

    def nodes(self) -> dict[str, tuple[str, str]]:
        """Reference to the last step of the path and the node's XML."""
        def node(name: str, **leaves: str) -> tuple[str, str]:
            inner = "".join(f"<{leaf}>{escape(text)}</{leaf}>" for leaf, text in leaves.items())
            return name, f"<{name}>{inner}</{name}>"

        return {
            "mib2_settings": node("mib_2_settings", sys_name=self.sys_name, sys_location=self.sys_location,
                                  sys_contact=self.sys_contact),
            "access_control": node("access_control", community=self.community, access=self.access, nms_ip=self.nms_ip,
                                   nms_ipv6=self.nms_ipv6, snmp_port=self.snmp_port),
            "trap_settings": node("trap_settings", trap_address=self.trap_address, inform_address=self.inform_address),
            "version_control": node("version_control", version_1=self.version_1, version_2c=self.version_2c,
                                    version_3=self.version_3),
            "custom_config": ("custom_config", f"<custom_config>{self.custom_config}</custom_config>"),
        }

    def send_all(self, service: DataService, op: str = "create") -> None:
        for ref, (step, node) in self.nodes().items():
            service.notify(ref, op, f"{SETTINGS}/{step}", node)

    def send_changes(self, service: DataService, before: SnmpSettings) -> None:
        """One "replace" for each subtree that differs."""
        old = before.nodes()
        for ref, (step, node) in self.nodes().items():
            if old[ref][1] != node:
                service.notify(ref, "replace", f"{SETTINGS}/{step}", node)


HEAD = "master agentx\n"
NAMES = "sysName amp-1\nsysContact ops\nsysLocation rack 7\n"
READ = """\
com2sec mynetwork 127.0.0.1 public
com2sec6 mynetwork ::1 public
group MyROGroup v1         mynetwork
group MyROGroup v2c         mynetwork
view all    included .1
access MyROGroup ""      any       noauth    prefix  all    none   none
agentAddress udp6:161,udp:161
"""
DISABLED = """\
#com2sec
#com2sec6
#group MyROGroup v1         mynetwork
#group MyROGroup v2c         mynetwork
#view all    included .1
#access MyROGroup ""      any       noauth    prefix  all    none   none
#agentAddress udp6:161,udp:161
"""
