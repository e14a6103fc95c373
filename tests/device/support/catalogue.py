"""What every model serves under E.3, written down once more beside the code: columns, rows, words and their codes.

Nothing here is read from the program or from its MIB. The golden walks, the MIB and the daemon are each held to it.
"""
from __future__ import annotations

from typing import NamedTuple

from .snmp import TABLES

Rows = list[tuple[int, str]]  # index, description

MODELS = [6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914]
STATIONS = [6211, 6214, 6259, 6891]
COMPACT = "Orvane Brisel Compact - IP-QRM-B"
EXTENDED = "Orvane Brisel Extended - IP-QRM-B"


class Scalar(NamedTuple):
    name: str
    arc: str  # below E.3, without the instance
    type: str

    @property
    def oid(self) -> str:
        return f"{TABLES}.{self.arc}.0"


class Table(NamedTuple):
    name: str
    arc: str
    columns: list[tuple[str, str]]  # name, type; column n is columns[n - 1]

    def oid(self, column: str) -> str:
        return f"{TABLES}.{self.arc}.1.{[name for name, _ in self.columns].index(column) + 1}"


INTEGER, GAUGE, TEXT = "INTEGER", "Gauge32", "STRING"


def _let_columns(channel: int) -> list[tuple[str, str]]:
    return [(f"letChannel{channel}{name}", kind) for name, kind in [
        ("Index", INTEGER), ("Description", TEXT), ("Status", INTEGER), ("SoftwareVersion", TEXT),
        ("HardwareVersion", TEXT), ("Voltage", GAUGE)]]


# In the order of a walk.
OBJECTS: list[Scalar | Table] = [
    Scalar("infoPackageVersion", "1.1", TEXT),
    Scalar("infoModelType", "1.2", TEXT),
    Scalar("infoModelNumber", "1.3", INTEGER),
    Scalar("infoAmplifierType", "1.4", TEXT),
    Scalar("infoKernelVersion", "1.5", TEXT),
    Scalar("infoDeviceTreeVersion", "1.6", TEXT),
    Scalar("infoDisablement", "1.7", INTEGER),
    Scalar("tempTableCount", "2.1", INTEGER),
    Table("tempTable", "2.2", [
        ("tempIndex", INTEGER), ("tempDescription", TEXT), ("tempCurrentLabel", TEXT), ("tempCurrent", GAUGE),
        ("tempPeakLabel", TEXT), ("tempPeak", GAUGE), ("tempAverageLabel", TEXT), ("tempAverage", GAUGE)]),
    Scalar("fanTableCount", "3.1", INTEGER),
    Table("fanTable", "3.2", [("fanIndex", INTEGER), ("fanDescription", TEXT), ("fanSpeed", GAUGE)]),
    Scalar("voltageTableCount", "4.1", INTEGER),
    Table("voltageTable", "4.2", [("voltageIndex", INTEGER), ("voltageDescription", TEXT), ("voltageValue", GAUGE)]),
    Table("powerTable", "5.1", [
        ("powerIndex", INTEGER), ("powerKind", INTEGER), ("powerDescription", TEXT), ("powerLive", INTEGER),
        ("powerMonitored", INTEGER)]),
    Table("lineInTable", "6.1", [
        ("lineInIndex", INTEGER), ("lineInStatus", INTEGER), ("lineInMicStatus", INTEGER), ("lineInDescription", TEXT),
        ("lineInMonitoring", INTEGER)]),
    Scalar("ampChannelCount", "7.1", INTEGER),
    Scalar("ampType", "7.2", INTEGER),
    Table("ampChannelTable", "7.3", [
        ("ampChannelIndex", INTEGER), ("ampChannelDescription", TEXT), ("ampChannelStatus", INTEGER),
        ("ampChannelLineState", INTEGER)]),
    Scalar("letChannel1Count", "8.1.1", INTEGER),
    Table("letChannel1Table", "8.1.2", _let_columns(1)),
    Scalar("letChannel2Count", "8.2.1", INTEGER),
    Table("letChannel2Table", "8.2.2", _let_columns(2)),
    Scalar("controlInputCount", "9.1", INTEGER),
    Table("controlInputTable", "9.2", [
        ("controlInputIndex", INTEGER), ("controlInputDescription", TEXT), ("controlInputStatus", INTEGER),
        ("controlInputMonitored", INTEGER)]),
    Scalar("controlOutputCount", "10.1", INTEGER),
    Table("controlOutputTable", "10.2", [
        ("controlOutputIndex", INTEGER), ("controlOutputDescription", TEXT), ("controlOutputState", INTEGER)]),
    Table("ethMonitoringTable", "11.1", [
        ("ethMonitoringIndex", INTEGER), ("ethMonitoringDescription", TEXT), ("ethMonitoringMonitored", INTEGER)]),
    Table("relayTable", "12.1", [
        ("relayIndex", INTEGER), ("relayDescription", TEXT), ("relayStatus", INTEGER), ("relayIdleMode", INTEGER),
        ("relayDelay", INTEGER)]),
]
TABLE_NAMES = [item.name for item in OBJECTS if isinstance(item, Table)]
COLUMN_OIDS = {column: table.oid(column) for table in OBJECTS if isinstance(table, Table)
               for column, _ in table.columns}
SCALAR_OIDS = {scalar.name: scalar.oid for scalar in OBJECTS if isinstance(scalar, Scalar)}

# Rows by model. The third is the data service's key.

VOLTAGES = {
    6410: [(1, "Internal voltage 1.2V", "1v2"), (2, "Internal voltage 1.8V", "1v8"), (3, "Internal voltage 3.3V", "3v3"),
           (4, "Internal voltage 5.0V", "5v0"), (5, "Internal voltage 12.7V", "12v7"),
           (6, "Internal voltage 15.0V", "15v0"), (7, "Internal voltage 24.0V", "24v0"),
           (8, "Front Board 24.0V", "24v0FB"), (9, "Internal voltage 32.0V", "32v0"),
           (10, "Internal AC Power 24.0V", "24v0AC"), (11, "Internal DC Power 24.0V", "24v0DC")],
    6420: [(1, "Network Switch 1.8V", "1v8SW"), (2, "Internal voltage 1.8V", "1v8"), (3, "Internal voltage 3.3V", "3v3"),
           (4, "Internal voltage 5.0V", "5v0"), (5, "Internal voltage 12.7V", "12v7"),
           (6, "Internal voltage 15.0V", "15v0"), (7, "Internal voltage 24.0V", "24v0"),
           (8, "Front Board 24.0V", "24v0FB"), (9, "Internal voltage 50.0V", "50v0"),
           (10, "Internal AC Power 50.0V", "50v0AC"), (11, "Internal DC Power 50.0V", "50v0DC"),
           (12, "Amplifier Supply 15.0V", "15v0CDA"), (13, "Phantom Microphone 12.0V", "12v0PM")],
    6425: [(1, "Network Switch 1.8V", "1v8SW"), (2, "Internal voltage 1.8V", "1v8"), (3, "Internal voltage 3.3V", "3v3"),
           (4, "Internal voltage 5.0V", "5v0"), (6, "Internal voltage 15.0V", "15v0"),
           (15, "Internal voltage 24.0V", "24v0Plus"), (16, "Internal voltage -24.0V", "24v0Minus")],
    6720: [(1, "Network Switch 1.8V", "1v8SW"), (3, "Internal voltage 3.3V", "3v3"), (4, "Internal voltage 5.0V", "5v0"),
           (5, "Internal voltage 12.7V", "12v7"), (7, "Internal voltage 24.0V", "24v0"),
           (9, "Internal voltage 50.0V", "MainPower"), (12, "Amplifier Supply 15.0V", "15v_amp"),
           (14, "Low Noise 12.7V", "12v7_LN")],
    6764: [(1, "Network Switch 1.8V", "1v8_sw"), (3, "Internal voltage 3.3V", "3v3"), (4, "Internal voltage 5.0V", "5v0"),
           (5, "Internal voltage 12.7V", "12v7"), (7, "Internal voltage 24.0V", "24v0"),
           (9, "Internal voltage 50.0V", "50v0"), (12, "Amplifier Supply 15.0V", "15v0_amp"),
           (14, "Low Noise 12.7V", "12v_ln")],
}
TEMPERATURES = {
    6410: [(1, "Main Board 1", "cntlr_main_board_1"), (2, "Main Board 2", "cntlr_main_board_2"),
           (3, "AC Power", "cntlr_ac_power"), (4, "DC Power", "cntlr_dc_power")],
    6420: [(1, "Channel 1", "amp_class_d_amp_1"), (2, "Channel 2", "amp_class_d_amp_2"),
           (3, "Main Board", "amp_main_board"), (4, "AC Power", "amp_ac_power"), (5, "DC Power", "amp_dc_power")],
    6425: [(1, "Channel 1", "channel_1"), (2, "Channel 2", "channel_2"), (3, "Main Board", "main_board"),
           (5, "DC Power", "power")],
    6720: [(1, "Channel 1", "class_d"), (3, "Main Board", "main_board")],
    6764: [(1, "Channel 1", "class_d"), (3, "Main Board", "mainboard"), (4, "AC Power", "dcdc_conv")],
}
FANS = {
    6410: [(1, "Left Fan", "cntlr_power")],
    6420: [(1, "Left Fan", "amp_power"), (2, "Right Fan", "amp_class_d")],
    6720: [(1, "Left Fan", "amp_class_d")],
    6764: [(1, "Left Fan", "fan2"), (2, "Right Fan", "fan1")],
}
POWERS = {6410: [1, 2], 6420: [1, 2], 6425: [2], 6720: [1], 6764: [1]}
POWER_KEYS = {1: "ac_power", 2: "dc_power"}
LINE_INPUTS = {model: [(1, "Line In 1", "ln1"), (2, "Line In 2", "ln2")] for model in (6410, 6420, 6425)}
MICROPHONES = {model: [(3, "Microphone Extern", "mic"), (4, "Microphone Intern", "ln_in")]
               for model in (6214, 6259, 6601, 6602)}
TWO_CHANNELS = [6420, 6425, 6720, 6764]
ONE_OUTPUT = [6211, 6214, 6259, 6601, 6602, 6891]
LETS = [6420, 6720, 6764]
WITHOUT_PORTS = [6211, 6891]
AMP_TYPES = {6420: 4, 6425: 3, 6720: 6, 6764: 8} | {model: 2 for model in ONE_OUTPUT}  # 1 on every other model


def relays(model: int, expanders: bool) -> list[tuple[int, str, str]]:
    """Index, description, key. On the models with four relays the expander's first two keys feed two rows each."""
    if model not in STATIONS:
        return []
    rows = [(1, "Internal Relay 1", "relay1")]
    if model in (6214, 6259):
        rows += [(2, "Internal Relay 2", "relay2"), (3, "Extension Relay 1", "e_relay1"),
                 (4, "Extension Relay 2", "e_relay2")]
    if expanders:
        rows += [(4 + number, f"External Relay {number}", f"e_relay{number}") for number in range(1, 9)]
    return rows


def control_inputs(expanders: bool) -> Rows:
    rows = [(number, f"Control Input {number}") for number in range(1, 7)]
    if expanders:
        rows += [(6 + number, f"External Control Input {number}") for number in range(1, 9)]
    return rows


def control_outputs() -> Rows:
    return [(number, f"Control Output {number}") for number in range(1, 7)]


# Words of the data service and of the amplifier monitor, and the codes that are served for them.

LINE_STATES = {
    "unknown": 1, "ok": 2, "shorted": 3, "open": 4, "loadchange": 5, "ground_fault": 6, "refreshing": 7, "shutdown": 8,
    "voltage_low": 9, "indecisive": 10, "interrupted": 11, "failed_timeout": 12, "failed_receive_monitor_values": 13,
    "suspend_monitoring": 14, "line_fault": 15,
}
PILOT_TONES = {"ok": 2, "failed": 3}
MIC_STATES = {"connected": 5, "disconnected": 6, "shorted": 7}
LINE_IN_MONITORING = {"true": 3, "false": 2}
ETH_MONITORED = {"true": 3, "false": 2}
POWER_LIVE = {"true": 3, "false": 2}
POWER_MONITORED = {"true": 3, "false": 2}
INPUT_MONITORED = {"true": 2, "false": 1}
IDLE_MODES = {"normal_closed": 2, "normal_open": 3}
OUTPUT_STATES = {"ok_cleared": 2, "ok_set": 3, "fail_cleared": 4, "fail_set": 5}
INPUT_STATES = {"ok_open": 2, "ok_closed": 3, "fail_shorted": 4, "fail_unconnected": 5}

# Every code that a column can serve: the words', that of "delete" or of other words, the starting value, and 0 where
# a word that is not known may come before any that is.
_LET_STATUS = {1, 2, 3, 4}
CODES = {
    "infoDisablement": {0, 2},  # 0 until the agent has copied the device's information
    "ampType": {1, 2, 3, 4, 5, 6, 7, 8},
    "powerKind": {1, 2},
    "powerLive": {0, 1, *POWER_LIVE.values()},
    "powerMonitored": {0, 1, *POWER_MONITORED.values()},
    "lineInStatus": {0, 1, *PILOT_TONES.values()},
    "lineInMicStatus": {0, 4, *MIC_STATES.values()},
    "lineInMonitoring": {0, 1, *LINE_IN_MONITORING.values()},
    "ampChannelStatus": {1, 2, 3, 4, 5},
    "ampChannelLineState": {0, *LINE_STATES.values()},
    "letChannel1Status": _LET_STATUS,
    "letChannel2Status": _LET_STATUS,
    "controlInputStatus": {1, *INPUT_STATES.values()},
    "controlInputMonitored": {1, *INPUT_MONITORED.values()},
    "controlOutputState": {1, *OUTPUT_STATES.values()},
    "ethMonitoringMonitored": {0, 1, *ETH_MONITORED.values()},
    "relayStatus": {1, 2, 3, 4},
    "relayIdleMode": {0, 1, *IDLE_MODES.values()},
}
