"""What is served before the data service has sent anything, and operations that no parser knows.

The data service is played by the test; it sends the SNMP settings, which start snmpd, and then only what a test says.
"""
from __future__ import annotations

from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, EXTENDED, SCALAR_OIDS
from support.dataservice import DataService
from support.device import Device
from support.mib import mib
from support.polling import wait_until
from support.settingsfile import SnmpSettings

TEXTS = {6214: EXTENDED}
MODELS = [6214, 6420, 6425, 6720]


class Silent(NamedTuple):
    device: Device
    service: DataService
    first: dict[str, list[str]]  # the column's or scalar's name to what it reads at first, in the order of the rows


@pytest.fixture(scope="module")
def silent(start_shared_device):
    """Read before any test has sent anything."""
    devices = {}
    for model in MODELS:
        options = ["--model-text", TEXTS[model]] if model in TEXTS else []
        devices[model] = start_shared_device(model, "--clock-shift", "--no-simulator", "--no-dbus", "--no-traps",
                                             *options, wait=False)
    services = {model: DataService(device.wait_ready().path("/run/tal.sock")) for model, device in devices.items()}
    for service in services.values():
        wait_until(lambda service=service: service.has("custom_config"), 30, what="settings subscribed")
        SnmpSettings().send_all(service)
    for device in devices.values():
        device.wait_answering(60).wait_subscribed(60)
        device.shift_clock(steps.CACHE_SECONDS)
    yield {model: Silent(devices[model], services[model], first_values(devices[model])) for model in MODELS}
    for service in services.values():
        service.close()


def first_values(device: Device) -> dict[str, list[str]]:
    values: dict[str, list[str]] = {}
    for variable in device.snmp.walk():
        assert not mib().complaint(variable)
        values.setdefault(mib().resolve(variable.oid)[0].name, []).append(variable.text)
    return values


# Columns without a row are not named here.
NO_CHANNEL_DATA = {"ampChannelStatus": "1", "ampChannelLineState": "1"}
CHANNELS = {"ampChannelStatus": "1 1", "ampChannelLineState": "0 0"}
LETS = {f"letChannel{channel}{name}": " ".join([text] * 10) for channel in (1, 2) for name, text in
        [("Status", "1"), ("SoftwareVersion", "Unknown"), ("HardwareVersion", "Unknown"), ("Voltage", "0")]}
LINE_INPUTS = {"lineInStatus": "1 1", "lineInMicStatus": "0 0", "lineInMonitoring": "1 1"}
PORTS = {"ethMonitoringMonitored": "1 1"}
SIX = "1 1 1 1 1 1"
IN_AND_OUT = {"controlInputStatus": SIX, "controlInputMonitored": SIX, "controlOutputState": SIX}
FOURTEEN = {"controlInputStatus": f"{SIX} {SIX} 1 1", "controlInputMonitored": f"{SIX} {SIX} 1 1"}


def zeros(temperatures: int, fans: int, voltages: int) -> dict[str, str]:
    sensors = dict.fromkeys(["tempCurrent", "tempPeak", "tempAverage"], " ".join("0" * temperatures))
    return sensors | ({"fanSpeed": " ".join("0" * fans)} if fans else {}) | {"voltageValue": " ".join("0" * voltages)}


FIRST = {
    # nothing watches an input of type 0, the relays are read all the same; the second microphone begins unmonitored
    6214: NO_CHANNEL_DATA | PORTS | IN_AND_OUT | FOURTEEN | {
        "lineInStatus": "0 0", "lineInMicStatus": "4 4", "lineInMonitoring": "1 2",
        "relayIdleMode": f"{SIX} {SIX}", "relayDelay": " ".join("0" * 12)},
    6420: zeros(5, 2, 13) | {"powerLive": "1 1", "powerMonitored": "1 1"} | LINE_INPUTS | CHANNELS | LETS | IN_AND_OUT
    | PORTS,
    6425: zeros(4, 0, 7) | {"powerLive": "1", "powerMonitored": "1"} | LINE_INPUTS | CHANNELS | IN_AND_OUT | PORTS,
    6720: zeros(2, 1, 8) | {"powerLive": "1", "powerMonitored": "1"} | CHANNELS | LETS | IN_AND_OUT | PORTS,
}
FIXED = ("Index", "Description", "Label", "powerKind", "relayStatus")


@pytest.mark.parametrize("model", MODELS)
def test_starting_values(silent, model):
    first = {name: " ".join(texts) for name, texts in silent[model].first.items()
             if name not in SCALAR_OIDS and not name.endswith(FIXED)}
    assert first == FIRST[model]


def test_channel_status_is_unknown_until_the_class_d_status_has_come(silent):
    """Then any word but "ok" counts as a fault, whatever the channel is set to."""
    device, service, _ = silent[6720]
    status = [f"{COLUMN_OIDS['ampChannelStatus']}.{index}" for index in (1, 2)]

    def after(ref: str, path: str, text: str) -> list[int]:
        tell(device, service, ref, "create", path, text)
        return steps.integers(device, status)

    first, second = (f"/state/config/lines/line[kid='ch{channel}']/enable" for channel in (1, 2))
    assert after("kvsnmp_amp_enable", first, "true") == [1, 1]
    assert after("kvsnmp_amp_enable", second, "false") == [1, 1]
    assert after("kvsnmp_class_d_status", "/state/class_d_amp_status/status", "hot") == [4, 4]
    assert after("kvsnmp_class_d_status", "/state/class_d_amp_status/status", "ok") == [1, 2]


class Case(NamedTuple):
    model: int
    ref: str
    path: str
    known: str  # a text, sent as "create"
    other: str  # another one, sent as "merge"
    cell: str  # column and index
    shown: int  # for the first of them
    parser: str  # as its debug line names it
    keys: str  # what the debug line ends in


LINE, LINE_CONFIG = "/state/lines/line[kid='{}']", "/state/config/lines/line[kid='{}']"
CASES = [
    Case(6420, "kvsnmp_voltage", "/state/power_lines/power_line[kid='3v3']/voltage", "3.3", "4", "voltageValue.3", 3300,
         "getVoltage", ""),
    Case(6420, "kvsnmp_temp", "/state/temp_sensors/temp_sensor[kid='amp_main_board']/temp_peak", "41.2", "50",
         "tempPeak.3", 412, "getTemp", ""),
    Case(6420, "kvsnmp_fan", "/state/fans/fan[kid='amp_power']/speed_sensor_rpm", "900", "800", "fanSpeed.1", 900,
         "getFan", ""),
    Case(6420, "kvsnmp_class_d_status", "/state/class_d_amp_status/status", "hot", "ok", "ampChannelStatus.2", 4,
         "stateClassDStatusUpdate", ""),
    Case(6420, "kvsnmp_power_status", "/state/power_sources/power_source[kid='ac_power']/live", "true", "false",
         "powerLive.1", 3, "getPowerStatus", " kid: ac_power"),
    Case(6420, "kvsnmp_power_monitoring", "/state/config/power_sources/power_source[kid='dc_power']/monitored", "true",
         "false", "powerMonitored.2", 3, "getPowerMonitoring", " kid: dc_power"),
    Case(6420, "kvsnmp_control_input_monitored", "/state/config/gpis/gpi[kid='gpi6']/monitored", "true", "false",
         "controlInputMonitored.6", 2, "getControlInputMonitored", " kid: "),
    Case(6420, "kvsnmp_line_channel_state", LINE.format("ch2") + "/characteristics/line_state", "line_fault", "ok",
         "ampChannelLineState.2", 15, "getLineChannelState", " kid: ch2"),
    Case(6420, "kvsnmp_lineIn_status", LINE.format("ln2") + "/pilot_tone_state", "failed", "ok", "lineInStatus.2", 3,
         "", " kid: ln2"),
    Case(6420, "kvsnmp_lineIn_monitoring", LINE_CONFIG.format("ln1") + "/pilot_tone_sensing_enable", "true", "false",
         "lineInMonitoring.1", 3, "", " kid: ln1"),
    Case(6420, "kvsnmp_eth_monitoring", "/state/config/os_ip/eth_switch/port[port_id='Eth2']/monitored", "true",
         "false", "ethMonitoringMonitored.2", 3, "", " kid: Eth2"),
    Case(6420, "kvsnmp_let_voltage", LINE.format("ch2") + "/lets/let[kid='10']/let_vcc", "23.9", "1",
         "letChannel2Voltage.10", 23900, "", " kid: ch2 10"),
    Case(6425, "kvsnmp_amp_enable", LINE_CONFIG.format("ch1") + "/enable", "false", "true", "ampChannelStatus.1", 2,
         "", " kid: ch1"),
    Case(6214, "kvsnmp_lineIn_status", "/state/lines/mic_status_intern", "shorted", "connected", "lineInMicStatus.4", 7,
         "", " kid: mic_status_intern"),
    Case(6214, "kvsnmp_relay_delay", "/state/config/gpos/gpo[kid='e_relay8']/delay", "30", "40", "relayDelay.12", 30,
         "getRelayDelay", " kid: e_relay8"),
    Case(6214, "kvsnmp_relay_idle_mode", "/state/config/gpos/gpo[kid='relay2']/idle_mode", "normal_open",
         "normal_closed", "relayIdleMode.2", 3, "getRelayIdleMode", " kid: relay2"),
]


@pytest.mark.parametrize("case", CASES, ids=[f"{case.model} {case.ref}" for case in CASES])
def test_unexpected_operation_is_logged_and_changes_nothing(silent, case):
    device, service, _ = silent[case.model]
    column, _, index = case.cell.partition(".")
    oid = f"{COLUMN_OIDS[column]}.{index}"
    tell(device, service, case.ref, "create", case.path, case.known)
    assert steps.integers(device, [oid]) == [case.shown]
    complaint = tell(device, service, case.ref, "merge", case.path, case.other)
    assert steps.integers(device, [oid]) == [case.shown]
    assert len(complaint) == 1
    assert complaint[0].startswith(f"{case.parser} " if case.parser else "get")
    assert f"op: merge rPath: {case.path} sPath: {case.path}{case.keys}" in complaint[0]
    tell(device, service, case.ref, "replace", case.path, case.other)
    assert steps.integers(device, [oid]) != [case.shown]


@pytest.mark.parametrize("ref, path, column", [
    ("kvsnmp_let_sw_version", f"{LINE}/lets/let[kid='2']/sw_version", "letChannel1SoftwareVersion"),
    ("kvsnmp_let_hw_version", f"{LINE}/lets/let[kid='2']/hw_version", "letChannel1HardwareVersion"),
    ("kvsnmp_let_description", f"{LINE_CONFIG}/lets/let[kid='2']/let_description", None),
    ("kvsnmp_let_enable", f"{LINE_CONFIG}/lets/let[kid='2']/enabled", None),
])
def test_unexpected_operation_on_a_let(silent, ref, path, column):
    device, service, _ = silent[6420]
    path = path.format("ch1")
    tell(device, service, ref, "create", path, "1.0")
    complaint = tell(device, service, ref, "merge", path, "2.0")
    assert len(complaint) == 1
    assert complaint[0].endswith(f" op: merge rPath: {path} sPath: {path} kid: ch1 2")
    if column:
        assert device.snmp.get(f"{COLUMN_OIDS[column]}.2") == [("STRING", "1.0")]


def test_unexpected_operation_on_a_gpio_type_leaves_even_the_pins_of_the_expander(silent):
    device, service, _ = silent[6214]
    path = "/state/config/gpios/gpio[kid='gpio8']/gpio_type"
    complaint = tell(device, service, "kvsnmp_gpio_type", "merge", path, "gpi")
    assert complaint == [f"getGpioType op: merge rPath: {path} sPath: {path} gpio: 8"]
    status = [f"{COLUMN_OIDS['controlInputStatus']}.{index}" for index in range(7, 15)]
    assert steps.integers(device, status) == [1] * 8


_told = iter(range(1, 1000000))


def tell(device: Device, service: DataService, ref: str, op: str, path: str, text: str) -> list[str]:
    """Sends one notification; when the daemon has taken it, lets its tables expire. Returns what it said about it."""
    leaf = path.rpartition("/")[2]
    before = len(device.kvsnmp_err())
    service.notify(ref, op, path, f"<{leaf}>{text}</{leaf}>")
    mark = f"mark{next(_told)}"
    service.notify("kvsnmp_sys_messages", "create",
                   f"/state/sys_messages/sys_message[reporter='silence'][rep_ref='{mark}']",
                   f"<sys_message><reporter>silence</reporter><rep_ref>{mark}</rep_ref></sys_message>",
                   "/state/sys_messages/sys_message")
    wait_until(lambda: f"New Fault: [silence] [{mark}]" in device.kvsnmp_err(), 30, what=f"{mark} taken")
    device.shift_clock(steps.CACHE_SECONDS)
    said = device.kvsnmp_err()[before:].splitlines()
    return [line for line in said if f"op: {op} " in line]
