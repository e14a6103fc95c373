"""The network of a booted Debian, with the forty devices on it."""
from __future__ import annotations

import os
import subprocess
import sys
from pathlib import Path

from debianroot import Booted, wait_until
from forty import MODELS, NAMES  # it also sets the path for the next
from support.walkagent import trap_command

NETWORK, MANAGER = "10.1.0.0/22", "10.1.0.2"  # the network is that of docs/operators.md
BASE = ".1.3.6.1.4.1.52717"


class Network:
    def __init__(self, system: Booted) -> None:
        self.system = system
        # A network card with an address, as Alertmanager needs it; every other address leads here, too.
        self.enter("ip", "link", "add", "manager0", "type", "veth", "peer", "name", "devices0")
        self.enter("ip", "address", "add", f"{MANAGER}/22", "dev", "manager0")
        for card in ("lo", "manager0", "devices0"):
            self.enter("ip", "link", "set", card, "up")
        self.enter("ip", "route", "add", "local", NETWORK, "dev", "lo", "table", "local")
        self.devices = subprocess.Popen(
            self.entering("/usr/bin/python3", str(Path(__file__).with_name("forty.py"))), stdin=subprocess.DEVNULL)
        wait_until(self._answers, 60, what="an answer of the last device")

    def _answers(self) -> bool:
        address, model = list(MODELS.items())[-1]
        return self.enter("snmpget", "-v2c", "-c", "public", "-Oqv", "-r0", "-t2", address, f"{BASE}.3.1.3.0",
                          check=False) == model

    def entering(self, *command: str) -> list[str]:
        """A program of this machine, on this network."""
        return ["nsenter", f"--net=/proc/{self.system.first}/ns/net", "--", *command]

    def enter(self, *command: str, check: bool = True) -> str:
        return subprocess.run(self.entering(*command), capture_output=True, text=True, check=check, stdin=subprocess.DEVNULL,
                              env=os.environ | {"MIBS": ""}).stdout.strip()

    def page(self, url: str, data: str = "") -> str:
        script = ("import sys, urllib.request as u; print(u.urlopen(u.Request(sys.argv[1], sys.argv[2].encode() or None, "
                  "{'Content-Type': 'application/json-rpc'}), timeout=120).read().decode())")
        return self.enter(sys.executable, "-c", script, url, data)

    def send_trap(self, address: str) -> None:
        self.enter(*trap_command(address, MANAGER, 1, name=NAMES[address], level=1, text="Fan 1 stands still"))

    def stop(self) -> None:
        self.devices.terminate()
        self.devices.wait(20)
