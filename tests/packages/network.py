"""The network of a booted Debian with forty devices: 10.1.0.11 to 10.1.0.50, port 161, community public, with the objects
of the golden walks. Started as a program, answers for all of them."""
from __future__ import annotations

import itertools
import os
import subprocess
import sys
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(CHECKOUT / "monitoring"), str(CHECKOUT / "tests/device")]

from debianroot import Booted, wait_until  # noqa: E402  (the path has to be set first)
from support.snmp import TABLES  # noqa: E402
from support.walkagent import Agents, WalkAgent, trap_command  # noqa: E402

NETWORK, MANAGER = "10.1.0.0/22", "10.1.0.2"  # the network is that of docs/operators.md
AMPLIFIERS = ["6420", "6410", "6720", "6764", "6425"]
OTHERS = ["6214-extended", "6259", "6211", "6891", "6601", "6602", "6913", "6914"]
ROOMS = ["platform", "hall", "foyer", "stairs", "tunnel", "kitchen", "gate", "office"]
MODELS = {f"10.1.0.{number}": model for number, model in zip(
    range(11, 51), [*(AMPLIFIERS * 4), *itertools.islice(itertools.cycle(OTHERS), 20)])}
NAMES = dict(zip(MODELS, (f"{room}-{floor}" for floor in itertools.count(1) for room in ROOMS)))
FAULTS = {"10.1.0.16": {"ampChannelLineState.1": "3"}, "10.1.0.23": {"fanSpeed.1": "0"}, "10.1.0.29": {"voltageValue.3": "2810"}}


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
            self.entering("/usr/bin/python3", __file__), stdin=subprocess.DEVNULL)
        wait_until(self._answers, 60, what="an answer of the last device")

    def _answers(self) -> bool:
        address, model = list(MODELS.items())[-1]
        return self.enter("snmpget", "-v2c", "-c", "public", "-Oqv", "-r0", "-t2", address, f"{TABLES}.1.3.0",
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


if __name__ == "__main__":
    Agents({(address, 161): WalkAgent(model, NAMES[address], FAULTS.get(address)).answer
            for address, model in MODELS.items()}).run()
