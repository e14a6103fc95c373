"""The walks of all models: which there are, their golden record, and what they hold by the catalogue."""
from __future__ import annotations

import fnmatch
import xml.etree.ElementTree as ElementTree
from decimal import Decimal
from typing import NamedTuple

from . import catalogue, steps
from .catalogue import COLUMN_OIDS, COMPACT, EXTENDED, OBJECTS, STATIONS, Table
from .device import Device
from .mib import walks as golden
from .polling import wait_until
from .snmp import TABLES, Variable


class Walk(NamedTuple):
    model: int
    text: str | None = None  # the model text, when it is not the model's ordinary one

    @property
    def name(self) -> str:
        return f"{self.model}" + {None: "", COMPACT: "-compact", EXTENDED: "-extended"}[self.text]

    @property
    def expanders(self) -> bool:
        return self.text is not None

    @property
    def golden(self) -> list[Variable]:
        return [Variable(f".{oid}", kind, text) for oid, kind, text in golden.read(self.name)]

    @property
    def golden_text(self) -> str:
        return golden.text_of(self.name)


WALKS = [Walk(model) for model in catalogue.MODELS] + [Walk(model, text) for model in STATIONS
                                                       for text in (COMPACT, EXTENDED)]

# One line input has no pilot tone, so that the walks show what the line states do to lineInStatus (expected_line_in).
FAILED_TONE = "/state/lines/line[kid='ln1']/pilot_tone_state=failed"


GOLDEN_HEAD = """\
# What each model serves on a device with the simulator's data. Below "== NAME ARC TYPES" a line is one row of a table:
# the walks that have it, its index, its cells. ARC is below the private MIB's .3, and cell n stands at ARC.n.index;
# scalars have the index 0. KVSNMP_WRITE_GOLDEN=1 writes this file anew (test_walks.py): read every difference.
"""


def write_golden(served: dict[str, list[Variable]]) -> None:
    sections: dict[str, dict[str, dict[tuple[Variable, ...], set[str]]]] = {}  # arc, index, cells, walks
    names: dict[str, str] = {}
    for walk, variables in served.items():
        rows: dict[tuple[str, str], list[Variable]] = {}
        for variable in variables:
            arc, _, index = variable.oid.removeprefix(f"{TABLES}.").rpartition(".")
            rows.setdefault((arc.rpartition(".")[0], index), []).append(variable)
        for (arc, index), cells in rows.items():
            sections.setdefault(arc, {}).setdefault(index, {}).setdefault(tuple(cells), set()).add(walk)
    for item in OBJECTS:
        arc = f"{item.arc}.1" if isinstance(item, Table) else item.arc.rpartition(".")[0]
        names[arc] = item.name if arc not in names else names[arc]
    lines = ["walks " + " ".join(served)]
    for arc in sorted(sections, key=lambda text: [int(part) for part in text.split(".")]):
        first = next(iter(next(iter(sections[arc].values()))))
        lines.append(f"\n== {names[arc]} {arc} {' '.join(cell.type for cell in first)}")
        for index, rows in sections[arc].items():
            for cells, having in rows.items():
                texts = " ".join(golden.Variable(*cell).cell for cell in cells)
                lines.append(f"{patterns(having, list(served))} | {index} | {texts}")
    text = GOLDEN_HEAD + "\n".join(lines) + "\n"
    golden.FILE.write_text(text)
    golden.WALKS.update(golden.read_all(text))


def patterns(having: set[str], names: list[str]) -> str:
    """As few words as name these walks and no other."""
    words, left = [], set(having)
    for pattern in ["*", *(f"{model}*" for model in STATIONS), "*-compact", "*-extended", *names]:
        matched = set(fnmatch.filter(names, pattern))
        if matched & left and matched <= having:
            words.append(pattern)
            left -= matched
    return " ".join(words)


def wait_for_lines(device: Device, walk: Walk) -> None:
    """Until each GPIO line that has a meaning has been read; the stations read one line a second."""
    if walk.model not in STATIONS:
        return
    lines = [f"{COLUMN_OIDS['controlInputStatus']}.{index}" for index in (1, 2, 3)]
    lines += [f"{COLUMN_OIDS['controlInputStatus']}.{index}" for index in range(7, 15) if walk.expanders]
    lines += [f"{COLUMN_OIDS['controlOutputState']}.{index}" for index in (4, 5)]
    lines += [f"{COLUMN_OIDS['relayStatus']}.{row[0]}" for row in catalogue.relays(walk.model, walk.expanders)]

    def all_read() -> bool:
        device.shift_clock(steps.CACHE_SECONDS)
        return 1 not in steps.integers(device, lines)

    wait_until(all_read, 60, what="all GPIO lines read")


class Expected:
    """What is served, from the catalogue and the data service's tree.

    Each table gives its rows as dictionaries, column to value; the index and the description go without saying."""

    def __init__(self, walk: Walk, tree: ElementTree.Element) -> None:
        self.model, self.expanders, self.text = walk.model, walk.expanders, walk.text
        self.tree = tree

    def variables(self) -> list[Variable]:
        tables = {item.name: getattr(self, item.name)() for item in OBJECTS if isinstance(item, Table)}
        scalars = self.scalars() | {
            "tempTableCount": len(tables["tempTable"]), "fanTableCount": len(tables["fanTable"]),
            "voltageTableCount": len(tables["voltageTable"]), "ampChannelCount": len(tables["ampChannelTable"]),
            "letChannel1Count": len(tables["letChannel1Table"]), "letChannel2Count": len(tables["letChannel2Table"]),
            "controlInputCount": len(tables["controlInputTable"]),
            "controlOutputCount": len(tables["controlOutputTable"])}
        variables = []
        for item in OBJECTS:
            if not isinstance(item, Table):
                variables.append(Variable(item.oid, item.type, str(scalars[item.name])))
                continue
            for column, kind in item.columns:
                for row in tables[item.name]:
                    index = row[item.columns[0][0]]
                    variables.append(Variable(f"{item.oid(column)}.{index}", kind, str(row[column])))
        return variables

    def word(self, path: str) -> str:
        found = self.tree.findall(path)
        assert len(found) == 1, f"{len(found)} nodes at {path}"
        return found[0].text or ""

    def scaled(self, path: str, scale: int) -> int:
        return int(Decimal(self.word(path)) * scale)

    def scalars(self) -> dict[str, object]:
        texts = {6211: "Orvane Brisel Compact - IP-QRM", 6214: "Orvane Brisel Extended - IP-QRM",
                 6259: "Orvane Brisel Station - IP-QRM-V", 6410: "Orvane Mervio Controller",
                 6420: "Orvane Mervio Amplifier VQ9D", 6425: "Orvane Mervio Amplifier VQ9C-RX",
                 6601: "Orvane Brisel Desk - IP-QDM", 6602: "Orvane Brisel Desk - IP-QDM-V",
                 6720: "Orvane Mervio Amplifier VQ9",  # not what its file says: the type VQ9B has one name
                 6764: "Orvane Mervio Amplifier VQ9D-P2", 6891: "Orvane Brisel Outdoor - IP-QRM-W",
                 6913: "Orvane Mervio Switch 8", 6914: "Orvane Mervio Switch 16"}
        labels = {6420: "VQ9D", 6425: "VQ9C", 6720: "VQ9B", 6764: "VQ9D-P2"}
        return {"infoPackageVersion": "4.12.3", "infoModelType": self.text or texts[self.model],
                "infoModelNumber": self.model, "infoAmplifierType": labels.get(self.model, ""),
                "infoKernelVersion": "5.15.71", "infoDeviceTreeVersion": f"{self.model}-2.1", "infoDisablement": 2,
                "ampType": catalogue.AMP_TYPES.get(self.model, 1)}

    def tempTable(self) -> list[dict]:
        sensor = "temp_sensors/temp_sensor[kid='{}']/temp_{}"
        return [{"tempIndex": index, "tempDescription": f"Temperature Sensor: {text}",
                 "tempCurrentLabel": "Current Temperature", "tempPeakLabel": "Peak Temperature",
                 "tempAverageLabel": "Average Temperature",
                 "tempCurrent": self.scaled(sensor.format(key, "current"), 10),
                 "tempPeak": self.scaled(sensor.format(key, "peak"), 10),
                 "tempAverage": self.scaled(sensor.format(key, "average"), 10)}
                for index, text, key in catalogue.TEMPERATURES.get(self.model, [])]

    def fanTable(self) -> list[dict]:
        return [{"fanIndex": index, "fanDescription": text,
                 "fanSpeed": self.scaled(f"fans/fan[kid='{key}']/speed_sensor_rpm", 1)}
                for index, text, key in catalogue.FANS.get(self.model, [])]

    def voltageTable(self) -> list[dict]:
        return [{"voltageIndex": index, "voltageDescription": text,
                 "voltageValue": self.scaled(f"power_lines/power_line[kid='{key}']/voltage", 1000)}
                for index, text, key in catalogue.VOLTAGES.get(self.model, [])]

    def powerTable(self) -> list[dict]:
        rows = []
        for index in catalogue.POWERS.get(self.model, []):
            key, live, monitored = catalogue.POWER_KEYS[index], 1, 1
            if self.model in (6410, 6420):  # the others take no notice of theirs
                live = catalogue.POWER_LIVE[self.word(f"power_sources/power_source[kid='{key}']/live")]
                monitored = catalogue.POWER_MONITORED[
                    self.word(f"config/power_sources/power_source[kid='{key}']/monitored")]
            rows.append({"powerIndex": index, "powerKind": index, "powerDescription": key, "powerLive": live,
                         "powerMonitored": monitored})
        return rows

    def lineInTable(self) -> list[dict]:
        rows = []
        for index, text, key in catalogue.LINE_INPUTS.get(self.model, []):
            # Where line states are reported, each copies the pilot tone reported last, that of ln2.
            source = "ln2" if self.model in (6420, 6425) else key
            tone = self.word(f"lines/line[kid='{source}']/pilot_tone_state")
            monitored = self.word(f"config/lines/line[kid='{key}']/pilot_tone_sensing_enable")
            rows.append({"lineInIndex": index, "lineInStatus": catalogue.PILOT_TONES[tone], "lineInMicStatus": 0,
                         "lineInDescription": text, "lineInMonitoring": catalogue.LINE_IN_MONITORING[monitored]})
        for index, text, key in catalogue.MICROPHONES.get(self.model, []):
            state = self.word({3: "lines/mic_status_extern", 4: "lines/mic_status_intern"}[index])
            monitored = self.word(f"config/lines/line[kid='{key}']/mic_monitor_enable")
            rows.append({"lineInIndex": index, "lineInStatus": 0, "lineInMicStatus": catalogue.MIC_STATES[state],
                         "lineInDescription": text, "lineInMonitoring": catalogue.LINE_IN_MONITORING[monitored]})
        return rows

    def ampChannelTable(self) -> list[dict]:
        if self.model in catalogue.ONE_OUTPUT:
            return [{"ampChannelIndex": 1, "ampChannelDescription": "Brisel output", "ampChannelStatus": 1,
                     "ampChannelLineState": 1}]
        # No amplifier monitor has announced anything: the status is unknown(1).
        return [{"ampChannelIndex": channel, "ampChannelDescription": f"Channel {channel}", "ampChannelStatus": 1,
                 "ampChannelLineState": catalogue.LINE_STATES[
                     self.word(f"lines/line[kid='ch{channel}']/characteristics/line_state")]}
                for channel in (1, 2) if self.model in catalogue.TWO_CHANNELS]

    def _lets(self, channel: int) -> list[dict]:
        if self.model not in catalogue.LETS:
            return []
        let = f"lines/line[kid='ch{channel}']/lets/let[kid='{{}}']/{{}}"
        name = f"letChannel{channel}"
        return [{f"{name}Index": index, f"{name}Description": f"LET {index} Channel {channel}", f"{name}Status": 1,
                 f"{name}SoftwareVersion": self.word(let.format(index, "sw_version")),
                 f"{name}HardwareVersion": self.word(let.format(index, "hw_version")),
                 f"{name}Voltage": self.scaled(let.format(index, "let_vcc"), 1000)} for index in range(1, 11)]

    def letChannel1Table(self) -> list[dict]:
        return self._lets(1)

    def letChannel2Table(self) -> list[dict]:
        return self._lets(2)

    def _gpio_type(self, index: int) -> str:
        """The word for a general-purpose pin; "" on models without."""
        return self.word(f"config/gpios/gpio[kid='gpio{index}']/gpio_type") if self.model in STATIONS else ""

    def controlInputTable(self) -> list[dict]:
        rows = []
        monitored = 6 if self.model in (6410, 6420) else 2 if self.model in (6425, 6720, 6764) else 0
        for index, text in catalogue.control_inputs(self.expanders):
            word = self.word(f"config/gpis/gpi[kid='gpi{index}']/monitored") if index <= monitored else "false"
            rows.append({"controlInputIndex": index, "controlInputDescription": text,
                         "controlInputStatus": 2 if self._gpio_type(index) == "gpi" else 1,  # all lines read 0
                         "controlInputMonitored": catalogue.INPUT_MONITORED[word]})
        return rows

    def controlOutputTable(self) -> list[dict]:
        return [{"controlOutputIndex": index, "controlOutputDescription": text,
                 "controlOutputState": 2 if self._gpio_type(index) == "gpo" else 1}
                for index, text in catalogue.control_outputs()]

    def ethMonitoringTable(self) -> list[dict]:
        if self.model in catalogue.WITHOUT_PORTS:
            return []
        port = "config/os_ip/eth_switch/port[port_id='Eth{}']/monitored"
        return [{"ethMonitoringIndex": index, "ethMonitoringDescription": f"Eth {index}",
                 "ethMonitoringMonitored": catalogue.ETH_MONITORED[self.word(port.format(index))]} for index in (1, 2)]

    def relayTable(self) -> list[dict]:
        relay = "config/gpos/gpo[kid='{}']/{}"
        return [{"relayIndex": index, "relayDescription": text, "relayStatus": 2,
                 "relayIdleMode": catalogue.IDLE_MODES[self.word(relay.format(key, "idle_mode"))],
                 "relayDelay": int(self.word(relay.format(key, "delay")))}
                for index, text, key in catalogue.relays(self.model, self.expanders)]
