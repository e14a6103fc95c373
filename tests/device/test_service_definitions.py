"""monitoring/checks: every service definition, run with check_snmp on a device of each kind."""
from __future__ import annotations

import re
import shlex
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import EXTENDED, MODELS
from support.device import CHECKOUT, Device
from support.polling import wait_until
from support.snmp import TABLES
from support.walks import Walk, wait_for_lines

FOLDER = CHECKOUT / "monitoring/checks"
PLUGINS = "/usr/lib/nagios/plugins"
OK, WARNING, CRITICAL, UNKNOWN = 0, 1, 2, 3
WORDS = {OK: "OK", WARNING: "WARNING", CRITICAL: "CRITICAL", UNKNOWN: "UNKNOWN"}


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

# Models with the same services; the first of each has a device here.
KINDS = [[6211, 6891], [6214, 6259], [6410], [6420], [6425], [6601, 6602], [6720], [6764], [6913, 6914]]


def services_of(group: str) -> dict[str, Service]:
    return {service.name: service for service in SERVICES if service.group == group}


def command_line(service: Service, host: dict[str, str]) -> str:
    """With the macros replaced; the host inherits the variables of its templates, the first of which wins."""
    inherited = [TEMPLATES.get(name.strip(), {}) for name in host["use"].split(",")]
    variables = {name: text for block in [*reversed(inherited), host] for name, text in block.items() if name[0] == "_"}
    macros = {"USER1": PLUGINS, "HOSTADDRESS": "127.0.0.1"}
    macros |= {f"_HOST{name[1:]}": text for name, text in variables.items()}
    macros |= {f"ARG{number}": text for number, text in enumerate(service.arguments, 1)}
    line = COMMANDS[service.command]
    for name, text in macros.items():
        line = line.replace(f"${name}$", text)
    assert "$" not in line, line
    return line


def check(device: Device, service: Service, oid: str = "") -> tuple[int, str]:
    """Runs it as the monitoring system would on the example's host; `oid` replaces its first object."""
    if oid:
        objects, *others = service.arguments
        service = service._replace(arguments=[",".join([oid, *objects.split(",")[1:]]), *others])
    done = device.run(shlex.split(command_line(service, EXAMPLE)), check=False)
    return done.returncode, done.stdout + done.stderr


def healthy(kind: list[int]) -> Device:
    """A device fresh from the simulator, whose relays were read."""
    model = kind[0]
    walk = Walk(model, EXTENDED if model == 6214 else None)
    options = ["--model-text", walk.text] if walk.text else []
    device = Device(model, "--clock-shift", "--no-traps", *options)
    try:
        device.wait_ready().wait_answering(60).wait_subscribed(60)
        steps.apply(device)
        wait_for_lines(device, walk)
    except Exception as failure:
        logs = device.logs()
        device.stop()
        raise AssertionError(f"model {model}: {failure}\n{logs}") from failure
    return device


@pytest.fixture(scope="module")
def devices() -> Iterator[dict[int, Device]]:
    with ThreadPoolExecutor(5) as pool:
        started = list(pool.map(healthy, KINDS))
    yield {device.model: device for device in started}
    complaints = [complaint for device in started for complaint in device.stop()]
    assert complaints == []


def test_models_of_a_kind_have_the_same_services():
    assert sorted(model for kind in KINDS for model in kind) == MODELS
    for first, *others in KINDS:
        for other in others:
            assert [(service.name, service.command, [argument.replace(str(other), str(first))
                                                     for argument in service.arguments])
                    for service in services_of(f"kvsnmp-{other}").values()] == [
                (service.name, service.command, service.arguments)
                for service in services_of(f"kvsnmp-{first}").values()]


@pytest.mark.parametrize("command", COMMANDS)
def test_a_host_needs_no_port(command):
    service = next(service for service in SERVICES if service.command == command)
    assert "_SNMP_PORT" not in EXAMPLE and " -p 161 " in command_line(service, EXAMPLE)
    assert " -p 1161 " in command_line(service, EXAMPLE | {"_SNMP_PORT": "1161"})


@pytest.mark.parametrize("model", [kind[0] for kind in KINDS])
def test_a_healthy_device_is_ok(devices, model):
    device = devices[model]
    services = list(services_of(f"kvsnmp-{model}").values())
    if model == 6214:
        services += services_of("kvsnmp-expanders").values()
    device.shift_clock(steps.CACHE_SECONDS)
    for service in services:
        status, said = check(device, service)
        assert status == OK and said.startswith("SNMP OK"), f"{service.id}: {said}"


@pytest.mark.parametrize("model", [6420, 6214])
def test_a_missing_object_is_not_ok(devices, model):
    """Whether it is the only one or not. Without thresholds it would be."""
    device = devices[model]
    for service in services_of(f"kvsnmp-{model}").values():
        missing = service.arguments[0].split(",")[0].rpartition(".")[0] + ".99"
        status, said = check(device, service, missing)
        assert status == (CRITICAL if service.command == "check_kvsnmp_word" else UNKNOWN), f"{service.id}: {said}"
        assert "No Such Instance" in said
    bare = device.run([f"{PLUGINS}/check_snmp", "-H", "127.0.0.1", "-P", "2c", "-C", "public",
                       "-o", f"{TABLES}.4.2.1.3.99"], check=False)
    assert bare.returncode == OK  # so every service has thresholds


def test_a_device_of_another_model_is_critical(devices):
    status, said = check(devices[6420], services_of("kvsnmp-6425")["Device"])
    assert status == CRITICAL, said


def setting(path: str, bad: str, good: str) -> tuple[list[str], list[str]]:
    return ["set", path, bad], ["set", path, good]


TEMPERATURE = "/state/temp_sensors/temp_sensor[kid='amp_class_d_amp_1']/temp_current"
FAN = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm"
VOLTAGE = "/state/power_lines/power_line[kid='3v3']/voltage"
POWER = "/state/power_sources/power_source[kid='dc_power']/live"
TONE = "/state/lines/line[kid='ln1']/pilot_tone_state"
LINE = "/state/lines/line[kid='ch1']/characteristics/line_state"
ETH = "/state/config/os_ip/eth_switch/port[port_id='Eth1']/monitored"

FAULTS = [  # model, service, its status, command, command that ends the fault
    (6420, "Temperatures", WARNING, *setting(TEMPERATURE, "70.1", "52.4")),
    (6420, "Temperatures", WARNING, *setting(TEMPERATURE, "0", "52.4")),
    (6420, "Temperatures", CRITICAL, *setting(TEMPERATURE, "85.1", "52.4")),
    (6420, "Fans", WARNING, *setting(FAN, "499", "1450")),
    (6420, "Fans", CRITICAL, *setting(FAN, "0", "1450")),
    (6420, "Voltages", WARNING, *setting(VOLTAGE, "3.1", "3.312")),
    (6420, "Voltages", CRITICAL, *setting(VOLTAGE, "3.7", "3.312")),
    (6420, "Voltages", CRITICAL, *setting(VOLTAGE, "0", "3.312")),
    (6420, "Power sources", CRITICAL, *setting(POWER, "false", "true")),
    (6410, "Line inputs", CRITICAL, *setting(TONE, "failed", "ok")),
    (6214, "Microphones", CRITICAL, *setting("/state/lines/mic_status_extern", "disconnected", "connected")),
    (6420, "Amplifier channels", WARNING, *setting("/state/config/lines/line[kid='ch2']/enable", "false", "true")),
    (6420, "Amplifier channels", CRITICAL, ["monitor", "amp", "0", "1"], ["monitor", "amp", "0", "2"]),
    (6420, "Loudspeaker line 1", CRITICAL, *setting(LINE, "open", "ok")),
    (6420, "Loudspeaker line 1", OK, *setting(LINE, "suspend_monitoring", "ok")),
    (6420, "Loudspeaker line 1", CRITICAL, *setting(LINE, "line_fault", "ok")),
    (6420, "Loudspeaker line 1", CRITICAL, *setting(LINE, "unknown", "ok")),
    (6420, "Transponders of channel 1", CRITICAL, ["monitor", "let", "0", "1", "1"], ["monitor", "let", "0", "1", "2"]),
    (6420, "Transponders of channel 2", CRITICAL, ["monitor", "let", "1", "2", "1"], ["monitor", "let", "1", "2", "2"]),
    (6420, "Control inputs", CRITICAL, ["monitor", "gpi", "5", "fail_unconnected"], ["monitor", "gpi", "5", "ok_open"]),
    (6420, "Control outputs", CRITICAL, ["monitor", "gpo", "3", "fail_cleared"], ["monitor", "gpo", "3", "ok_cleared"]),
    (6420, "Ethernet supervision", WARNING, *setting(ETH, "false", "true")),
    (6214, "External relays", CRITICAL, ["gpio", "e_relay3", "unreadable"], ["gpio", "e_relay3", "0"]),
]


@pytest.mark.parametrize("model, name, expected, order, end", FAULTS,
                         ids=[f"{model} {name} {WORDS[status]} {order[-1]}" for model, name, status, order, _ in FAULTS])
def test_a_fault_is_reported(devices, model, name, expected, order, end):
    device = devices[model]
    service = services_of("kvsnmp-expanders" if name.startswith("External") else f"kvsnmp-{model}")[name]

    def status() -> int:
        device.shift_clock(steps.CACHE_SECONDS)
        return check(device, service)[0]

    assert status() == OK
    device.talctl(*order)
    if expected == OK:
        steps.apply(device)
    wait_until(lambda: status() == expected, 40, 0.2, what=f"{service.id}: {WORDS[expected]}; {check(device, service)}")
    device.talctl(*end)
    wait_until(lambda: status() == OK, 40, 0.2, what=f"{service.id}: OK again; {check(device, service)}")


def test_every_kind_of_service_has_a_fault_here_and_a_line_in_the_manual():
    tested = {name for _, name, *_ in FAULTS} | {"Device", "Loudspeaker line 2", "External control inputs", "Relays"}
    assert {service.name for service in SERVICES} == tested
    manual = (FOLDER / "README.md").read_text()
    names = {re.sub(r"(Loudspeaker line|Transponders of channel) [12]", r"\1 1, 2", service.name) for service in SERVICES}
    assert set(re.findall(r"^\| ([A-Z][\w ,]+?) +\|", manual, re.MULTILINE)) - {"service"} == names
