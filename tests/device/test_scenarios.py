"""The scenarios of the simulator: what a manager reads at each of their stages and after them, and which traps it
receives. The unit tests check the files for all their models."""
from __future__ import annotations

from collections.abc import Callable
from itertools import cycle
from typing import NamedTuple

import pytest
from support import catalogue, steps
from support.catalogue import COLUMN_OIDS, SEVERITIES, TRAP_OF, TRAPS
from support.device import CHECKOUT, Device
from support.traps import LEVEL, E, Faults, TrapReceiver

FILES = {file.stem: file for file in (CHECKOUT / "simulator/scenarios").glob("*.tal")}
NAME_OF = {f"{E}.2.8.{trap.arc}": trap.name for trap in TRAPS}
# What a scenario announces first anyway, so that it ends as it began.
ANNOUNCED = [["monitor", "gpi", n, "ok_open"] for n in "01"] + [["monitor", "gpo", n, "ok_cleared"] for n in "01"]
LETS = [["monitor", "let", channel, let, "2"] for channel in "01" for let in "1234"]
FLOOD = [f"{TRAP_OF[identifier].name}({SEVERITIES[level]})" for identifier, level in
         zip((name for row in catalogue.read("traps") for name in row["identifiers"].split()),
             cycle(["emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"]))]


class Row(NamedTuple):
    name: str
    model: int
    traps: str  # with their levels, in order
    stages: list[tuple[int, str]]  # seconds, and cells with their values then; the last is the end


ROWS = [
    Row("healthy-day", 6420, "", [
        (69, "tempCurrent.1=524 controlInputStatus.1=2 controlOutputState.1=2 letChannel1Status.1=3"
             " letChannel2Status.4=3 letChannel2Status.5=2"),
        (109, "tempCurrent.1=581 fanSpeed.2=2100 voltageValue.9=49520 controlInputStatus.1=3 controlOutputState.1=3"),
        (239, "tempCurrent.1=380 fanSpeed.2=1100 voltageValue.9=50250 controlInputStatus.1=2 controlOutputState.1=2"),
        (240, "tempCurrent.1=524 fanSpeed.2=1600 voltageValue.9=50100")]),
    Row("healthy-day", 6410, "", [(109, "tempCurrent.1=451 fanSpeed.1=1500 voltageValue.9=31820"),
                                  (240, "tempCurrent.1=412 fanSpeed.1=1200 voltageValue.9=32050")]),
    Row("healthy-day", 6764, "", [(109, "tempCurrent.1=546 fanSpeed.2=1700 voltageValue.9=49660"),
                                  (240, "tempCurrent.1=487 fanSpeed.2=1290 voltageValue.9=50200")]),
    Row("mains-lost", 6420, "acPowerFault(2) psuVoltageFault(4)", [
        (0, "powerLive.1=2 powerLive.2=3 voltageValue.10=0 voltageValue.11=49900"),
        (60, "voltageValue.11=46600"), (90, "powerLive.1=3 voltageValue.10=50300 voltageValue.11=46600"),
        (150, "powerLive.1=3 voltageValue.11=49900")]),
    Row("mains-lost", 6410, "acPowerFault(2) psuVoltageFault(4)", [
        (0, "powerLive.1=2 powerLive.2=3 voltageValue.10=0"), (60, "voltageValue.11=22400"),
        (150, "powerLive.1=3 voltageValue.10=24200 voltageValue.11=24050")]),
    Row("fan-fails", 6420, "coolingFanFault(4) coolingFanFault(1) overtemperature(4) overtemperature(2)"
                           " overtemperature(1)", [
        (0, "fanSpeed.1=620 fanSpeed.2=1600 tempCurrent.4=462"), (40, "fanSpeed.1=0 tempCurrent.4=645 tempPeak.4=645"),
        (100, "tempCurrent.4=880 tempPeak.4=880"), (120, "fanSpeed.1=1450 tempCurrent.4=880"),
        (180, "fanSpeed.1=1450 tempCurrent.4=462 tempPeak.4=880")]),
    Row("fan-fails", 6764, "coolingFanFault(4) coolingFanFault(1) overtemperature(4) overtemperature(2)"
                           " overtemperature(1)", [
        (0, "fanSpeed.1=620"), (100, "fanSpeed.1=0 fanSpeed.2=1290 tempCurrent.1=880 tempPeak.1=880"),
        (180, "fanSpeed.1=1320 tempCurrent.1=487")]),
    Row("line-shorted", 6420, "speakerLineMonitoringFault(2)", [
        (0, "ampChannelLineState.1=3 ampChannelLineState.2=2"), (30, "ampChannelLineState.1=4"),
        (60, "ampChannelLineState.1=7"), (70, "ampChannelLineState.1=2")]),
    Row("let-lost", 6420, "letFault(2)", [
        (0, "letChannel1Status.3=3 letChannel1Voltage.3=23700"),
        (20, "letChannel1Status.3=4 letChannel1Voltage.3=0 letChannel1Status.2=3 letChannel2Status.3=3"),
        (90, "letChannel1Status.3=3 letChannel1Voltage.3=23700")]),
    Row("output-stage-shutdown", 6420, "amplifierShutdown(1) amplifierShutdown(1)", [
        (0, "ampChannelStatus.1=5 ampChannelStatus.2=3 ampChannelLineState.1=8 ampChannelLineState.2=2"),
        (30, "ampChannelStatus.1=4 ampChannelStatus.2=4 ampChannelLineState.1=8 ampChannelLineState.2=8"),
        (70, "ampChannelStatus.1=3 ampChannelStatus.2=3 ampChannelLineState.1=7 ampChannelLineState.2=7"),
        (90, "ampChannelStatus.1=3 ampChannelStatus.2=3 ampChannelLineState.1=2 ampChannelLineState.2=2")]),
    Row("network-port-lost", 6420, "ethPortDisconnected(2)", [(0, "ethMonitoringMonitored.1=3"),
                                                              (40, "ethMonitoringMonitored.1=3")]),
    Row("fault-flood", 6420, " ".join(FLOOD), [(2, "tempCurrent.1=524"), (30, "tempCurrent.1=524")]),
]


class Bench:
    def __init__(self, device: Device) -> None:
        self.device, self.traps, self.faults = device, TrapReceiver(device), Faults(device)

    def play(self, row: Row, after: int, until: int) -> None:
        """The lines of a stage without their pauses."""
        lines = FILES[row.name].read_text().splitlines()
        stage = [line for line in lines if line[:1].isdigit() and after < float(line.split()[0]) <= until]
        self.device.run(["talctl", "replay", "-", "--speed", "1e6"], input="\n".join(stage))
        steps.apply(self.device)

    def check(self, row: Row, action: Callable[[], object]) -> None:
        """That an action raises the traps of a scenario, and that everything is as before at its end."""
        def cells() -> dict[str, str]:
            return {variable.oid: variable.text for variable in self.device.snmp.walk()
                    if not variable.oid.startswith(COLUMN_OIDS["tempPeak"] + ".")}

        healthy, known = cells(), len(self.traps.received)
        action()
        self.faults.mark(self.traps)
        received = [f"{NAME_OF[trap.oid]}({trap.value(LEVEL)})" for trap in self.traps.received[known:-1]]
        assert received == row.traps.split()
        steps.apply(self.device)
        assert cells() == healthy
        assert self.device.talctl("fault", "list") == ""


@pytest.fixture(scope="module")
def benches(start_shared_device) -> dict[int, Bench]:
    devices = [start_shared_device(model, "--clock-shift", "--no-traps", wait=False)
               for model in sorted({row.model for row in ROWS})]
    found = {device.model: Bench(device.wait_ready()) for device in devices}
    for device in devices:
        device.wait_answering(60).wait_subscribed(60)
        steps.apply(device, ANNOUNCED + (LETS if catalogue.rows("letChannel1Table", device.model) else []))
    return found


def test_each_scenario_has_a_row():
    assert {row.name for row in ROWS} == set(FILES)


@pytest.mark.parametrize("row", ROWS, ids=lambda row: f"{row.name} {row.model}")
def test_stage_by_stage_and_by_name_after_the_first_stage(benches, row):
    """Faults that are raised already send no further trap."""
    bench = benches[row.model]

    def stages() -> None:
        reached = -1
        for seconds, cells in row.stages:
            bench.play(row, reached, seconds)
            reached = seconds
            expected = {name: int(value) for name, _, value in (cell.partition("=") for cell in cells.split())}
            oids = [f"{COLUMN_OIDS[name]}.{index}" for name, _, index in (cell.partition(".") for cell in expected)]
            assert dict(zip(expected, steps.integers(bench.device, oids))) == expected, f"at {seconds} s"

    def twice() -> None:
        bench.play(row, -1, row.stages[0][0])
        bench.device.talctl("scenario", row.name, "--speed", "1000")

    bench.check(row, stages)
    bench.check(row, twice)
