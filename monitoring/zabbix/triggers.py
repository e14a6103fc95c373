"""The readable part of the template: macros, triggers of each table, and the texts for the inventory.

An expression names columns of the MIB and its words: "last(powerLive)=notLive" becomes the item's key and the number.
"""
from __future__ import annotations

from typing import NamedTuple


class Trigger(NamedTuple):
    name: str
    problem: str
    priority: str
    hint: str
    recovery: str = ""  # empty: ends when the problem's expression is no longer true
    unless: str = ""  # name of the trigger that covers this one


# Macro, value, meaning. Those of a measurement can be overridden for one row, with its description as the context.
MACROS = [
    ("{$KV.INTERVAL}", "1m", "Interval of values. A device caches values for 60 seconds."),
    ("{$KV.INTERVAL.TEXT}", "15m", "Interval of versions and other texts."),
    ("{$KV.INTERVAL.DISCOVERY}", "15m", "Interval of the discovery of rows. They only change when a device is replaced."),
    ("{$KV.NODATA}", "5m", "Longest silence of a device."),
    ("{$KV.RESTART}", "10m", "Uptime below which a device has restarted."),
    ("{$KV.HOLD}", "3m", "Time for which a measurement has to be out of its range."),
    ("{$KV.TEMP.WARN}", "70", "Degrees Celsius above which a temperature is high."),
    ("{$KV.TEMP.CRIT}", "85", "Degrees Celsius above which a temperature is critical."),
    ("{$KV.TEMP.RISE}", "20", "Largest rise of a temperature above its average, in degrees Celsius."),
    ("{$KV.VOLTAGE.WARN}", "5", "Largest deviation of a voltage from its nominal value, in per cent."),
    ("{$KV.VOLTAGE.CRIT}", "10", "Deviation above which a voltage is out of order, in per cent."),
    ("{$KV.TRAP.HOLD}", "1h", "Time for which the problem of a trap stays. No trap reports the end of a fault."),
]

INVENTORY = {
    "infoPackageVersion": "SOFTWARE", "infoModelType": "MODEL", "infoModelNumber": "TYPE",
    "infoAmplifierType": "TYPE_FULL", "infoKernelVersion": "OS", "infoDeviceTreeVersion": "HARDWARE",
}

TEMP_WARN, TEMP_CRIT, TEMP_RISE, VOLTAGE_WARN, VOLTAGE_CRIT = (
    f'{{$KV.{name}:"{{#DESCRIPTION}}"}}' for name in ("TEMP.WARN", "TEMP.CRIT", "TEMP.RISE", "VOLTAGE.WARN",
                                                      "VOLTAGE.CRIT"))
HOLD = "{$KV.HOLD}"


def beyond(per_cent: str) -> str:
    return (f"{{#NOMINAL}}>0 and (min(voltageValue,{HOLD})>{{#NOMINAL}}*(1+{per_cent}/100)"
            f" or max(voltageValue,{HOLD})<{{#NOMINAL}}*(1-{per_cent}/100))")


def within(per_cent: str) -> str:
    return (f"last(voltageValue)<={{#NOMINAL}}*(1+{per_cent}/100)"
            f" and last(voltageValue)>={{#NOMINAL}}*(1-{per_cent}/100)")


def let_missing(channel: int) -> list[Trigger]:
    return [Trigger("{#DESCRIPTION} is missing", f"last(letChannel{channel}Status)=missing", "WARNING",
                    "The transponder is enabled and does not answer. Check its wiring and the end of the line. While its "
                    "channel is not in operation, this state may be out of date.")]


TRIGGERS = {
    "tempTable": [
        Trigger("{#DESCRIPTION}: critical", f"min(tempCurrent,{HOLD})>{TEMP_CRIT}", "HIGH",
                "The device is about to reduce its power or to switch off.", f"last(tempCurrent)<{TEMP_CRIT}-3"),
        Trigger("{#DESCRIPTION}: high", f"min(tempCurrent,{HOLD})>{TEMP_WARN}", "WARNING",
                "Check the air path, the fans and the surroundings.", f"last(tempCurrent)<{TEMP_WARN}-3",
                "{#DESCRIPTION}: critical"),
        Trigger("{#DESCRIPTION}: far above its average",
                f"min(tempCurrent,{HOLD})-last(tempAverage)>{TEMP_RISE}", "WARNING",
                "A fan, a filter or the load has changed.",
                f"last(tempCurrent)-last(tempAverage)<{TEMP_RISE}-3", "{#DESCRIPTION}: high"),
    ],
    "fanTable": [
        Trigger("{#DESCRIPTION} stands still", f"max(fanSpeed,{HOLD})=0", "HIGH",
                "The fan reads 0 revolutions per minute, or has never been measured. Check the fan and its air path.",
                "last(fanSpeed)>0"),
    ],
    "voltageTable": [
        Trigger("{#DESCRIPTION} is out of order", beyond(VOLTAGE_CRIT), "HIGH",
                "Far off its nominal voltage, or 0: dead or never measured. Check the supply, its load and its fuse.",
                within(VOLTAGE_CRIT)),
        Trigger("{#DESCRIPTION} drifts", beyond(VOLTAGE_WARN), "WARNING",
                "Off its nominal voltage. Check the supply and its load.", within(VOLTAGE_WARN),
                "{#DESCRIPTION} is out of order"),
    ],
    "powerTable": [
        Trigger("{#DESCRIPTION} does not deliver", "last(powerLive)=notLive and last(powerMonitored)=monitored", "HIGH",
                "The source is supervised and not live. Reported by models 6410 and 6420 only."),
    ],
    "lineInTable": [
        Trigger("{#DESCRIPTION} has lost its pilot tone",
                "last(lineInStatus)=failed and last(lineInMonitoring)<>notMonitored", "WARNING",
                "Check the cable and the source. On models 6420 and 6425 a report of a loudspeaker line can copy the "
                "state of the other input here."),
        Trigger("{#DESCRIPTION} is disconnected or shorted",
                "(last(lineInMicStatus)=disconnected or last(lineInMicStatus)=shorted)"
                " and last(lineInMonitoring)<>notMonitored", "WARNING", "Check the microphone and its cable."),
    ],
    "ampChannelTable": [
        Trigger("{#DESCRIPTION} is out of order",
                "last(ampChannelStatus)=classDFault or last(ampChannelStatus)=monitorFault", "HIGH",
                "The channel does not play. Look for a short circuit or an overload before you switch it on again."),
        Trigger("{#DESCRIPTION} is switched off", "last(ampChannelStatus)=disabled", "INFO",
                "The channel is disabled in the configuration."),
        Trigger("{#DESCRIPTION}: loudspeaker line faulty",
                " or ".join(f"last(ampChannelLineState)={word}" for word in (
                    "shorted", "open", "loadChange", "groundFault", "interrupted", "lineFault")), "HIGH",
                "Check the line and its loudspeakers; recalibrate it after a change."),
        Trigger("{#DESCRIPTION}: loudspeaker line not fed",
                "last(ampChannelLineState)=shutdown or last(ampChannelLineState)=voltageLow", "HIGH",
                "The supply of the line has shut down or is too low. Check the channel and the voltages."),
        Trigger("{#DESCRIPTION}: line monitoring without result",
                " or ".join(f"last(ampChannelLineState)={word}" for word in (
                    "indecisive", "failedTimeout", "failedReceiveMonitorValues")), "WARNING",
                "The state of the loudspeaker line is unknown. If this persists, check the monitoring and its calibration."),
    ],
    "letChannel1Table": let_missing(1),
    "letChannel2Table": let_missing(2),
    "controlInputTable": [
        Trigger("{#DESCRIPTION} is shorted or unconnected",
                "last(controlInputStatus)=shorted or last(controlInputStatus)=unconnected", "WARNING",
                "The supervised wiring has a fault. Check the wiring and the end resistors of the input."),
    ],
    "controlOutputTable": [
        Trigger("{#DESCRIPTION} does not follow its command",
                "last(controlOutputState)=failCleared or last(controlOutputState)=failSet", "WARNING",
                "Check the wiring of the output."),
    ],
    "ethMonitoringTable": [
        Trigger("{#DESCRIPTION} is no longer supervised",
                "last(ethMonitoringMonitored)=notMonitored and max(ethMonitoringMonitored,1d)=monitored", "INFO",
                "A lost link sends no trap now. The MIB does not show the link itself."),
    ],
    "relayTable": [
        Trigger("{#DESCRIPTION} has failed or cannot be read",
                f"last(relayStatus)=failed or max(relayStatus,{HOLD})=unknown", "HIGH",
                "If all external relays fail, the expansion module is missing."),
    ],
}

# By the level in the trap.
TRAP_PRIORITIES = {"critical": "HIGH", "error": "AVERAGE", "unclassified": "WARNING", "warning": "WARNING",
                   "notice": "INFO"}
