"""What is served before the data service has sent anything.

The data service is played by the test; it sends the SNMP settings, which start snmpd, and then only what a test says.
"""
from __future__ import annotations

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, EXTENDED, SCALAR_OIDS
from support.device import Device
from support.mib import mib
from support.played import Played

OPTIONS = ["--clock-shift", "--no-simulator", "--no-dbus", "--no-traps"]
MODELS = [6214, 6420, 6425, 6720]


class Silent(Played):
    first: dict[str, list[str]]  # the column's or scalar's name to what it reads at first, in the order of the rows

    def report(self, ref: str, op: str, path: str, text: str) -> list[str]:
        """Sends one notification; when the daemon has taken it, lets its tables expire. Returns what it said about it."""
        leaf, before = path.rpartition("/")[2], len(self.device.kvsnmp_err())
        self.service.notify(ref, op, path, f"<{leaf}>{text}</{leaf}>")
        self.wait_taken()
        self.device.shift_clock(steps.CACHE_SECONDS)
        return [line for line in self.device.kvsnmp_err()[before:].splitlines() if f"op: {op} " in line]


@pytest.fixture(scope="module")
def silent(start_shared_device):
    """Read before any test has sent anything."""
    devices = [start_shared_device(model, *OPTIONS, *(["--model-text", EXTENDED] if model == 6214 else []), wait=False)
               for model in MODELS]
    made = {device.model: Silent(device.wait_ready()) for device in devices}
    for one in made.values():
        one.send()
    for one in made.values():
        one.device.wait_answering(60).wait_subscribed(60).shift_clock(steps.CACHE_SECONDS)
        one.first = first_values(one.device)
    yield made
    for one in made.values():
        one.service.close()


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
    played = silent[6720]
    status = [f"{COLUMN_OIDS['ampChannelStatus']}.{index}" for index in (1, 2)]
    for ref, path, text, expected in [
            ("kvsnmp_amp_enable", "/state/config/lines/line[kid='ch1']/enable", "true", [1, 1]),
            ("kvsnmp_amp_enable", "/state/config/lines/line[kid='ch2']/enable", "false", [1, 1]),
            ("kvsnmp_class_d_status", "/state/class_d_amp_status/status", "hot", [4, 4]),
            ("kvsnmp_class_d_status", "/state/class_d_amp_status/status", "ok", [1, 2])]:
        played.report(ref, "create", path, text)
        assert steps.integers(played.device, status) == expected, text


def test_unexpected_operation_is_logged_and_changes_nothing(silent):
    """The units of the parsers hold the others to it."""
    played = silent[6420]
    oid, path = f"{COLUMN_OIDS['tempPeak']}.3", "/state/temp_sensors/temp_sensor[kid='amp_main_board']/temp_peak"
    played.report("kvsnmp_temp", "create", path, "41.2")
    complaint, = played.report("kvsnmp_temp", "merge", path, "50")
    assert complaint.startswith("getTemp ") and f"op: merge rPath: {path} sPath: {path}" in complaint
    assert steps.integers(played.device, [oid]) == [412]
    played.report("kvsnmp_temp", "replace", path, "50")
    assert steps.integers(played.device, [oid]) == [500]
