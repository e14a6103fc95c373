"""docs/alerts.md: a section for each alert of the rules, with the texts below."""
from __future__ import annotations

import textwrap
from pathlib import Path
from typing import Any, NamedTuple

import yaml
from mib import Mib

FOLDER = Path(__file__).resolve().parent
RULES = FOLDER / "kvsnmp.rules.yml"
FILE = "../../docs/alerts.md"


class Section(NamedTuple):
    fires: str  # when
    look: str  # on the device
    ends: list[str]  # objects that show the end
    end: str  # their values then
    traps: list[str]  # notifications that come with it
    no_trap: str = "no fault with a trap reports this"


AIR_PATH = "The air path, the fans (`fanSpeed`) and the surroundings."
SUPPLY = "The supply, its load and its fuse; `powerLive` on models 6410 and 6420."
LINE = "The line and its loudspeakers; recalibrate the line after a change."

SECTIONS = {
    "KvsnmpDeviceUnreachable": Section(
        "the exporter gets no answer. If all devices fail at once, the exporter is the cause",
        "Power and network; then as root `kvsnmp-check`, which names the cause: access, community, the manager's address, "
        "`snmpd`.", ["sysUpTime"], "answers", [], "the next start of `snmpd` sends its `coldStart`"),
    "KvsnmpSubagentGone": Section(
        "`snmpd` answers, and nothing of the private MIB does: kvsnmp has ended or cannot reach `snmpd`",
        "`kvsnmp-check` as root; the service `kvsnmp` and its messages in the system log.",
        ["infoModelNumber"], "answers", [], "kvsnmp sends them. After its restart it sends all present faults again"),
    "KvsnmpNothingMeasured": Section(
        "all supply voltages read 0, their starting value: the data service does not report to kvsnmp",
        "The data service and its connection to kvsnmp: `kvsnmp-check` as root.",
        ["voltageValue"], "above 0 in at least one row", [], "without the data service kvsnmp learns of no fault"),
    "KvsnmpTempHigh": Section(
        "a temperature is above 70 °C, up to 85 °C", AIR_PATH, ["tempCurrent"], "at most 70 °C", ["overtemperature"]),
    "KvsnmpTempCritical": Section(
        "a temperature is above 85 °C: the device is about to reduce its power or to switch off", AIR_PATH,
        ["tempCurrent"], "at most 85 °C", ["overtemperature"]),
    "KvsnmpTempRise": Section(
        "a temperature is more than 20 °C above its average", AIR_PATH + " Look for what has changed.",
        ["tempCurrent", "tempAverage"], "at most 20 °C apart", []),
    "KvsnmpTempSensorSilent": Section(
        "a sensor has never been read: it and its peak are 0 while the voltages are reported", "The sensor and its connection.",
        ["tempCurrent", "tempPeak"], "above 0", []),
    "KvsnmpFanStopped": Section(
        "a fan reads 0 rpm, or was never measured", "The fan and its air path; replace a stopped fan.",
        ["fanSpeed"], "above 0 rpm", ["coolingFanFault"]),
    "KvsnmpVoltageDrift": Section(
        "a voltage is 5 % to 10 % off the nominal value in its description", SUPPLY,
        ["voltageValue"], "at most 5 % off", ["psuVoltageFault"]),
    "KvsnmpVoltageOutOfWindow": Section(
        "a voltage is more than 10 % off its nominal value, and not 0", SUPPLY,
        ["voltageValue"], "at most 10 % off", ["psuVoltageFault"]),
    "KvsnmpVoltageZero": Section(
        "a voltage reads 0 while others do not; so does a line that was never measured",
        "A blown fuse; then the supply and its load.", ["voltageValue"], "above 0", ["psuVoltageFault", "fuseBroken"]),
    "KvsnmpPowerSourceDown": Section(
        "a supervised source does not deliver (models 6410 and 6420)",
        "The mains (row 1) or the DC supply (row 2); disable the supervision of a source that does not exist.",
        ["powerLive", "powerMonitored"], "live(3), or notMonitored(2)", ["acPowerFault", "dcPowerFault"]),
    "KvsnmpLineInFailed": Section(
        "a monitored line input has lost its pilot tone. On models 6420 and 6425 a report of a loudspeaker line can copy the "
        "state of the other input here", "The cable and the source of the input.",
        ["lineInStatus", "lineInMonitoring"], "ok(2), or notMonitored(2)", ["lineInFault"]),
    "KvsnmpMicrophoneFault": Section(
        "a monitored microphone is disconnected or shorted", "The microphone and its cable.",
        ["lineInMicStatus", "lineInMonitoring"], "connected(5), or notMonitored(2)", ["microphoneError"]),
    "KvsnmpAmpChannelFault": Section(
        "a channel does not play: classDFault or monitorFault",
        "A short circuit or an overload of its line (`ampChannelLineState`), before you switch on again.",
        ["ampChannelStatus"], "ok(3)", ["amplifierShutdown", "missingAmplifierModule"]),
    "KvsnmpAmpChannelDisabled": Section(
        "a channel is disabled in the configuration", "The configuration of the channel.",
        ["ampChannelStatus"], "not disabled(2)", ["amplifierDisabled"]),
    "KvsnmpAmpChannelUnknown": Section(
        "the amplifier monitor or the class-D amplifier has not reported since kvsnmp was started",
        "The amplifier module: fitted, seated, powered. A single output is always unknown and does not fire.",
        ["ampChannelStatus"], "not unknown(1)", ["missingAmplifierModule"]),
    "KvsnmpSpeakerLineFault": Section(
        "a loudspeaker line has a fault", LINE, ["ampChannelLineState"], "ok(2)", ["speakerLineMonitoringFault"]),
    "KvsnmpSpeakerLineNotFed": Section(
        "the supply of a loudspeaker line has shut down or is too low",
        "The channel (`ampChannelStatus`), the voltages, the line voltage that is selected in the configuration.",
        ["ampChannelLineState"], "ok(2)", ["selectedLineVoltageFault"]),
    "KvsnmpSpeakerLineUnclear": Section(
        "the monitoring of a loudspeaker line has no result", "The monitoring and its calibration.",
        ["ampChannelLineState"], "ok(2)", ["speakerLineMonitoringFault"]),
    "KvsnmpLetMissing": Section(
        "a line end transponder is missing while its channel is ok", "The wiring of the transponder and the end of the line.",
        ["letChannel1Status", "letChannel2Status"], "present(3)", ["letFault"]),
    "KvsnmpControlInputFault": Section(
        "a control input is shorted or unconnected", "The wiring and the end resistors of the input.",
        ["controlInputStatus"], "open(2) or closed(3)", ["rciFault"]),
    "KvsnmpControlOutputFault": Section(
        "a control output does not follow its command", "The wiring of the output.",
        ["controlOutputState"], "cleared(2) or set(3)", ["rcoFault"]),
    "KvsnmpEthSupervisionOff": Section(
        "the supervision of a port was switched off within a day. A lost link then sends no trap, and no object shows the link",
        "The configuration of the port; switch the supervision on again if this was not intended.",
        ["ethMonitoringMonitored"], "monitored(3)", []),
    "KvsnmpRelayFault": Section(
        "a relay is failed, or unknown: its line cannot be read",
        "The relay; if all external ones are unknown, the expansion module.",
        ["relayStatus"], "not failed and not unknown(1)", ["missingEmbdrModule"]),
}

INTRODUCTION = """\
The alerts of [`monitoring/prometheus`](../monitoring/prometheus/README.md). The annotation
`runbook` of each alert points to its section;
[operators.md](operators.md#who-is-notified-prometheus-and-alertmanager) says how to make it a web
address.

- **The severity** is that of `check_kvsnmp` for the same state or limit. A setting that is no fault
  has the severity info.
- **An alert about a value ends 5 minutes after the value is in order.** If the device vanishes
  instead, `KvsnmpDeviceUnreachable` or `KvsnmpSubagentGone` fires within these 5 minutes, and
  Alertmanager mutes the rest, also its end.
- **A trap** is sent once, if it is enabled in the settings of the device; its end sends none. Its
  level, not the alert, is the device's own severity: see [traps.md](traps.md).
- **The limits of temperatures and voltages are starting points**: normal values depend on the
  place and on the supply. A DC supply with batteries can vary by more than 10 %; raise the limit
  for its row.
- Temporary states (refreshing and suspendMonitoring of a loudspeaker line) raise no alert. Neither
  do unknown and notReported where unused things have the same state: control inputs and outputs,
  line inputs, transponders, loudspeaker lines.
- A value by hand, for all rows: `snmptable -v2c -c public ADDRESS fanTable`. The tables and their
  values are in [mib.md](mib.md).
"""


def anchor(name: str) -> str:
    return name.lower()


def alerts() -> dict[str, dict[str, Any]]:
    return {rule["alert"]: rule for group in yaml.safe_load(RULES.read_text())["groups"] for rule in group["rules"]
            if "alert" in rule}


def minutes(rule: dict[str, Any]) -> str:
    return rule["for"].replace("m", " min")


def quoted(names: list[str]) -> str:
    return ", ".join(f"`{name}`" for name in names)


def wrapped(paragraph: str) -> str:
    indent = "  " if paragraph.startswith("- ") else ""
    return textwrap.fill(paragraph, 99, subsequent_indent=indent, break_long_words=False, break_on_hyphens=False)


def section(name: str, rule: dict[str, Any], mib: Mib) -> str:
    text = SECTIONS[name]
    traps = "; ".join(f"`{trap}` ({mib.notifications[trap].title})" for trap in text.traps) or f"none; {text.no_trap}"
    return "\n".join([
        f"## {name}", "", wrapped(f"**{rule['labels']['severity'].capitalize()}**, after {minutes(rule)}: {text.fires}."), "",
        wrapped(f"- **On the device**: {text.look}"), wrapped(f"- **Its end shows in** {quoted(text.ends)}: {text.end}."),
        wrapped(f"- **Trap**: {traps}."), ""])


def text(made_by: str, mib: Mib) -> str:
    rules = alerts()
    lines = [f"<!-- {made_by} -->", "# Alerts, for operators", "", INTRODUCTION,
             "| alert | severity | after |", "|---|---|---|"]
    lines += [f"| [`{name}`](#{anchor(name)}) | {rule['labels']['severity']} | {minutes(rule)} |" for name, rule in rules.items()]
    silent = [trap for trap in mib.notifications if not any(trap in found.traps for found in SECTIONS.values())]
    lines += ["", wrapped(f"**No alert comes with** the traps {quoted(silent)}: no object of the MIB shows what they report."), ""]
    return "\n".join(lines) + "\n" + "\n".join(section(name, rule, mib) for name, rule in rules.items())
