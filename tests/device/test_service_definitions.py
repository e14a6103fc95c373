"""monitoring/checks: every service definition, run with check_snmp against an agent with each model's golden walk."""
from __future__ import annotations

import re
import shlex
import subprocess
from collections.abc import Iterator
from typing import NamedTuple

import pytest
from support.catalogue import MODELS
from support.device import CHECKOUT
from support.mib import mib
from support.snmp import TABLES
from support.walkagent import Agents, WalkAgent

FOLDER = CHECKOUT / "monitoring/checks"
PLUGINS = "/usr/lib/nagios/plugins"
OK, WARNING, CRITICAL, UNKNOWN = 0, 1, 2, 3


class Service(NamedTuple):
    group: str
    name: str
    command: str
    arguments: list[str]

    @property
    def id(self) -> str:
        return f"{self.group}: {self.name}"


def blocks(file: str, kind: str) -> list[dict[str, str]]:
    text = "".join(line for line in (FOLDER / file).read_text().splitlines(keepends=True) if not line.startswith("#"))
    return [dict(re.findall(r"^\s+(\S+) +(\S.*)$", block, re.MULTILINE))
            for block in re.findall(rf"^define {kind} {{\n(.*?)^}}", text, re.MULTILINE | re.DOTALL)]


COMMANDS = {block["command_name"]: block["command_line"] for block in blocks("kvsnmp-commands.cfg", "command")}
SERVICES = []
for block in blocks("kvsnmp-services.cfg", "service"):
    command, *arguments = block["check_command"].split("!")
    SERVICES.append(Service(block["hostgroup_name"], block["service_description"], command, arguments))

TEMPLATES = {block["name"]: block for block in blocks("kvsnmp-commands.cfg", "host")}
EXAMPLE = dict(re.findall(r"^#       (\S+) +(\S.*)$", (FOLDER / "kvsnmp-commands.cfg").read_text(), re.MULTILINE))


def services_of(group: str) -> dict[str, Service]:
    return {service.name: service for service in SERVICES if service.group == group}


ADDRESSES = {model: f"127.0.61.{place}" for place, model in enumerate(MODELS, 1)}
PORT = 31261


def command_line(service: Service, host: dict[str, str], address: str = "127.0.0.1") -> str:
    """With the macros replaced; the host inherits the variables of its templates, the first of which wins."""
    inherited = [TEMPLATES.get(name.strip(), {}) for name in host["use"].split(",")]
    variables = {name: text for block in [*reversed(inherited), host] for name, text in block.items() if name[0] == "_"}
    macros = {"USER1": PLUGINS, "HOSTADDRESS": address}
    macros |= {f"_HOST{name[1:]}": text for name, text in variables.items()}
    macros |= {f"ARG{number}": text for number, text in enumerate(service.arguments, 1)}
    line = COMMANDS[service.command]
    for name, text in macros.items():
        line = line.replace(f"${name}$", text)
    assert "$" not in line, line
    return line


def run(command: list[str]) -> tuple[int, str]:
    done = subprocess.run(command, capture_output=True, text=True, check=False, timeout=30)
    return done.returncode, done.stdout + done.stderr


def check(model: int, service: Service, oid: str = "") -> tuple[int, str]:
    """Runs it as the monitoring system would on the example's host; `oid` replaces its first object."""
    if oid:
        objects, *others = service.arguments
        service = service._replace(arguments=[",".join([oid, *objects.split(",")[1:]]), *others])
    return run(shlex.split(command_line(service, EXAMPLE | {"_SNMP_PORT": str(PORT)}, ADDRESSES[model])))


@pytest.fixture(scope="module")
def agents() -> Iterator[dict[int, WalkAgent]]:
    """Devices in order; a station has expanders."""
    made = {model: WalkAgent("6214-extended" if model == 6214 else str(model), "host") for model in ADDRESSES}
    serving = Agents({(ADDRESSES[model], PORT): agent.answer for model, agent in made.items()})
    serving.start()
    yield made
    serving.stop()


@pytest.mark.parametrize("command", COMMANDS)
def test_a_host_needs_no_port(command):
    service = next(service for service in SERVICES if service.command == command)
    assert "_SNMP_PORT" not in EXAMPLE and " -p 161 " in command_line(service, EXAMPLE)
    assert " -p 1161 " in command_line(service, EXAMPLE | {"_SNMP_PORT": "1161"})


@pytest.mark.parametrize("model", ADDRESSES)
def test_a_healthy_device_is_ok(agents, model):
    services = list(services_of(f"kvsnmp-{model}").values())
    assert services
    if model == 6214:
        services += services_of("kvsnmp-expanders").values()
    for service in services:
        status, said = check(model, service)
        assert status == OK and said.startswith("SNMP OK"), f"{service.id}: {said}"


@pytest.mark.parametrize("model", [6420, 6214])
def test_a_missing_object_is_not_ok(agents, model):
    """Whether it is the only one or not. Without thresholds it would be."""
    for service in services_of(f"kvsnmp-{model}").values():
        missing = service.arguments[0].split(",")[0].rpartition(".")[0] + ".99"
        status, said = check(model, service, missing)
        assert status == (CRITICAL if service.command == "check_kvsnmp_word" else UNKNOWN), f"{service.id}: {said}"
        assert "No Such" in said
    status, _ = run([f"{PLUGINS}/check_snmp", "-H", ADDRESSES[model], "-p", str(PORT), "-P", "2c", "-C", "public",
                     "-o", f"{TABLES}.4.2.1.3.99"])
    assert status == OK  # so every service has thresholds


def test_a_device_of_another_model_is_critical(agents):
    status, said = check(6420, services_of("kvsnmp-6425")["Device"])
    assert status == CRITICAL, said


FAULTS = [  # model, service, its status, object, value or state
    (6420, "Temperatures", WARNING, "tempCurrent.1", "701"),
    (6420, "Temperatures", WARNING, "tempCurrent.1", "0"),
    (6420, "Temperatures", CRITICAL, "tempCurrent.1", "851"),
    (6420, "Fans", WARNING, "fanSpeed.1", "499"),
    (6420, "Fans", CRITICAL, "fanSpeed.1", "0"),
    (6420, "Voltages", WARNING, "voltageValue.3", "3100"),
    (6420, "Voltages", CRITICAL, "voltageValue.3", "3700"),
    (6420, "Voltages", CRITICAL, "voltageValue.3", "0"),
    (6420, "Power sources", CRITICAL, "powerLive.2", "notLive"),
    (6410, "Line inputs", CRITICAL, "lineInStatus.1", "failed"),
    (6214, "Microphones", CRITICAL, "lineInMicStatus.3", "disconnected"),
    (6420, "Amplifier channels", WARNING, "ampChannelStatus.2", "disabled"),
    (6420, "Amplifier channels", CRITICAL, "ampChannelStatus.1", "monitorFault"),
    (6420, "Loudspeaker line 1", CRITICAL, "ampChannelLineState.1", "open"),
    (6420, "Loudspeaker line 1", OK, "ampChannelLineState.1", "suspendMonitoring"),
    (6420, "Loudspeaker line 1", CRITICAL, "ampChannelLineState.1", "lineFault"),
    (6420, "Loudspeaker line 1", CRITICAL, "ampChannelLineState.1", "unknown"),
    (6420, "Transponders of channel 1", CRITICAL, "letChannel1Status.1", "missing"),
    (6420, "Transponders of channel 2", CRITICAL, "letChannel2Status.2", "missing"),
    (6420, "Control inputs", CRITICAL, "controlInputStatus.6", "unconnected"),
    (6420, "Control outputs", CRITICAL, "controlOutputState.4", "failCleared"),
    (6420, "Ethernet supervision", WARNING, "ethMonitoringMonitored.1", "2"),
    (6214, "External relays", CRITICAL, "relayStatus.7", "unknown"),
]


@pytest.mark.parametrize("model, name, expected, item, value", FAULTS)
def test_a_fault_is_reported(agents, model, name, expected, item, value):
    service = services_of("kvsnmp-expanders" if name.startswith("External") else f"kvsnmp-{model}")[name]
    codes = {state: str(code) for code, state in mib().objects[item.partition(".")[0]].enumeration.items()}
    before = agents[model].change({item: codes.get(value, value)})
    status, said = check(model, service)
    agents[model].change(before)
    assert status == expected, said
    assert check(model, service)[0] == OK


def test_every_kind_of_service_has_a_fault_here_and_a_line_in_the_manual():
    tested = {name for _, name, *_ in FAULTS} | {"Device", "Loudspeaker line 2", "External control inputs", "Relays"}
    assert {service.name for service in SERVICES} == tested
    manual = (FOLDER / "README.md").read_text()
    names = {re.sub(r"(Loudspeaker line|Transponders of channel) [12]", r"\1 1, 2", service.name) for service in SERVICES}
    assert set(re.findall(r"^\| ([A-Z][\w ,]+?) +\|", manual, re.MULTILINE)) - {"service"} == names
