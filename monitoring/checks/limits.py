"""The states and ranges that are not in order, for each object: one table for the services of check_snmp and for
check_kvsnmp."""
from __future__ import annotations

from typing import NamedTuple


class Check(NamedTuple):
    name: str  # of the service
    column: str
    warning: str  # words of a state, or the range of a measurement that is in order
    critical: str
    models: list[int] = []  # empty: all with rows
    measurement: str = ""  # its name in the options -w and -c of check_kvsnmp
    served_unit: str = ""  # as check_snmp shows it
    unit: str = ""  # as check_kvsnmp shows it
    unless: str = ""  # object, of the same row or with its index, and the words with which check_kvsnmp ignores the row


AMPLIFIERS = [6420, 6425, 6720, 6764]
OUT_OF_OPERATION = "unknown disabled classDFault monitorFault"  # the state of a transponder may be out of date

CHECKS = [
    Check("Temperatures", "tempCurrent", "0.1:70", "0:85", measurement="temperature", served_unit="x0.1C", unit="C"),
    Check("Fans", "fanSpeed", "500:", "1:", measurement="fan", served_unit="rpm"),
    # In per cent of the nominal voltage.
    Check("Voltages", "voltageValue", "-5:5", "-10:10", measurement="voltage", served_unit="mV", unit="V"),
    Check("Power sources", "powerLive", "notReported unknown", "notLive", [6410, 6420],
          unless="powerMonitored notMonitored"),
    Check("Line inputs", "lineInStatus", "notReported unknown", "failed", [6410, 6420, 6425],
          unless="lineInMonitoring notMonitored"),
    Check("Microphones", "lineInMicStatus", "notReported unknown", "disconnected shorted", [6214, 6259, 6601, 6602],
          unless="lineInMonitoring notMonitored"),
    Check("Amplifier channels", "ampChannelStatus", "unknown disabled", "classDFault monitorFault", AMPLIFIERS),
    Check("Loudspeaker lines", "ampChannelLineState",
          "notReported unknown indecisive failedTimeout failedReceiveMonitorValues",
          "shorted open loadChange groundFault shutdown voltageLow interrupted lineFault", AMPLIFIERS),
    Check("Transponders of channel 1", "letChannel1Status", "", "missing", unless=f"ampChannelStatus.1 {OUT_OF_OPERATION}"),
    Check("Transponders of channel 2", "letChannel2Status", "", "missing", unless=f"ampChannelStatus.2 {OUT_OF_OPERATION}"),
    Check("Control inputs", "controlInputStatus", "", "shorted unconnected"),
    Check("Control outputs", "controlOutputState", "", "failCleared failSet"),
    Check("Ethernet supervision", "ethMonitoringMonitored", "notReported unknown notMonitored", ""),
    Check("Relays", "relayStatus", "", "unknown failed"),
]
SETTINGS = ["Ethernet supervision"]  # a port without supervision is no fault: check_kvsnmp ignores it
NOMINAL = r"([\d.]+)V$"  # at the end of the description; a minus is not served
EXPANDERS = "IP-QRM-B"  # the end of infoModelType of a station with expanders
