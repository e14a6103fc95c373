"""A device whose data service the test plays."""
from __future__ import annotations

import itertools

from .dataservice import DataService
from .device import Device
from .polling import wait_until
from .settingsfile import SnmpSettings

MESSAGES = "/state/sys_messages/sys_message"
_marks = itertools.count(1)


class Played:
    def __init__(self, device: Device, settings: SnmpSettings = SnmpSettings()) -> None:
        self.device = device
        self.service = DataService(device.path("/run/tal.sock"))
        self.sent = settings

    def start(self, **environment) -> None:
        """Starts the daemon and sends the settings, which start snmpd."""
        self.device.start_kvsnmp("-d", clock_shift=True, **environment)
        self.send()

    def send(self) -> None:
        """Sends all settings once the daemon has subscribed to them."""
        wait_until(lambda: self.service.has("custom_config"), 30, what="settings subscribed")
        self.sent.send_all(self.service)

    def change(self, settings: SnmpSettings) -> None:
        settings.send_changes(self.service, self.sent)
        self.sent = settings

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
