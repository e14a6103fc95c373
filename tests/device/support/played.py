"""A device whose data service the test plays."""
from __future__ import annotations

import itertools

from xml.sax.saxutils import escape

from .dataservice import SETTINGS, DataService
from .device import Device
from .polling import wait_until

MESSAGES = "/state/sys_messages/sys_message"
_marks = itertools.count(1)

SUBTREES = {  # by reference: the last step of the path, and its text or its leaves
    "mib2_settings": ("mib_2_settings", {"sys_name": "amp-1", "sys_location": "rack 7", "sys_contact": "ops"}),
    "access_control": ("access_control", {"community": "public", "access": "Read", "nms_ip": "127.0.0.1",
                                          "nms_ipv6": "::1", "snmp_port": "161"}),
    "trap_settings": ("trap_settings", {"trap_address": "", "inform_address": ""}),
    "version_control": ("version_control", {"version_1": "true", "version_2c": "true", "version_3": "false"}),
    "custom_config": ("custom_config", "false"),
}


class Played:
    def __init__(self, device: Device) -> None:
        self.device = device
        self.service = DataService(device.path("/run/tal.sock"))
        self.sent: dict[str, str] = {}  # by reference

    def start(self, env: dict[str, str] | None = None, **leaves: str) -> None:
        """Starts the daemon and sends the settings, which start snmpd."""
        self.device.start_kvsnmp("-d", clock_shift=True, env=env)
        self.send(**leaves)

    def send(self, **leaves: str) -> None:
        """Sends the settings above with other values of these leaves; later only the subtrees that differ."""
        wait_until(lambda: self.service.has("custom_config"), 30, what="settings subscribed")
        for ref, (step, usual) in SUBTREES.items():
            content = usual if isinstance(usual, str) else "".join(
                f"<{leaf}>{escape(leaves.get(leaf, text))}</{leaf}>" for leaf, text in usual.items())
            if self.sent.get(ref) != content:
                self.service.notify(ref, "replace" if ref in self.sent else "create", f"{SETTINGS}/{step}",
                                    f"<{step}>{content}</{step}>")
                self.sent[ref] = content

    def wait_subscribed(self) -> None:
        wait_until(lambda: self.service.has("kvsnmp_sys_messages"), 30, what="everything subscribed")

    def wait_received(self, timeout: float = 60.0) -> None:
        """Until the daemon has received a good message that comes after all others."""
        mark = f"mark{next(_marks)}"
        node = f"<sys_message><reporter>played</reporter><rep_ref>{mark}</rep_ref></sys_message>"
        self.service.notify("kvsnmp_sys_messages", "create", f"{MESSAGES}[reporter='played'][rep_ref='{mark}']", node,
                            MESSAGES)
        logged = f"New Fault: [played] [{mark}]"
        wait_until(lambda: logged in self.device.kvsnmp_err(), timeout, what=logged)
