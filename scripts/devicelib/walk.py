"""How the values of a fleet change: a slow random walk within their normal ranges, and faults that come and go."""
from __future__ import annotations

import heapq
import random
import xml.etree.ElementTree as ElementTree
from typing import NamedTuple

# Largest distance from the value of the simulator's tree, as a part of it; all are well within the checks' limits.
SPANS = {"voltage": 0.02, "temp_current": 0.07, "temp_average": 0.03, "speed_sensor_rpm": 0.06}
STEP = 0.15  # the largest step, as a part of the span
VALUES_AT_ONCE = 3
FAULT_SECONDS = (60.0, 300.0)

# For devices with this element: reporter, identifier, level, text.
FAULTS = [
    ("fans/fan/kid", "amp", "fan_not_running", "crit", "Fan {} stands still"),
    ("power_lines/power_line/kid", "amp", "voltage_limit_low_warning", "warning", "Supply {} is low"),
    ("temp_sensors/temp_sensor/kid", "amp", "temp_warn_on", "warning", "Sensor {} is warm"),
    ("config/lines/line/lets/../kid", "line", "let_fail", "err", "A transponder of line {} does not answer"),
    ("config/os_ip/eth_switch/port/port_id", "device", "switch_port_down", "err", "Port {} has lost its link"),
    ("version/software/kid", "device", "custom_msg", "notice", "The {} reports a test"),
]


class Value(NamedTuple):
    path: str
    start: str  # also sets the number of decimals

    def at(self, position: float) -> str:
        """The text at a position from -1 to 1 within the range."""
        span = SPANS[self.path.rpartition("/")[2]]
        decimals = len(self.start.partition(".")[2])
        return f"{float(self.start) * (1 + span * position):.{decimals}f}"


def values_of(state: ElementTree.Element) -> list[Value]:
    return [Value(f"/state/{group.tag}/{item.tag}[kid='{item.findtext('kid')}']/{leaf.tag}", leaf.text or "0")
            for group in state for item in group for leaf in item if leaf.tag in SPANS]


def faults_of(state: ElementTree.Element) -> list[tuple[str, str, str, str, str]]:
    """Reporter, reference, identifier, level, text of each possible fault."""
    return [(reporter, f"{identifier} {found.text}", identifier, level, text.format(found.text))
            for element, reporter, identifier, level, text in FAULTS for found in state.findall(element)]


class Walk:
    """The commands of talctl for each turn. The same seed and devices give the same commands."""

    def __init__(self, states: list[str], seed: int, turn_seconds: float, faults_per_hour: float) -> None:
        trees = [ElementTree.fromstring(state) for state in states]
        self._values = [values_of(tree) for tree in trees]
        self._positions = [[0.0] * len(values) for values in self._values]
        self._faults = [faults_of(tree) for tree in trees]
        self._random = random.Random(seed)
        self._turn, self._turn_seconds = 0, turn_seconds
        self._rate = faults_per_hour / 3600
        self._next_fault = self._random.expovariate(self._rate) if self._rate else float("inf")
        self._active: list[tuple[float, int, str, str]] = []  # end, device, reporter, reference

    def next_turn(self) -> list[tuple[int, list[str]]]:
        """The devices take turns; a fault comes and goes at any device."""
        device = self._turn % len(self._values)
        commands = [(device, command) for command in self._steps(device, self._turn // len(self._values))]
        now = self._turn * self._turn_seconds
        self._turn += 1
        while self._active and self._active[0][0] <= now:
            _, device, reporter, reference = heapq.heappop(self._active)
            commands.append((device, ["fault", "clear", reporter, reference]))
        while self._next_fault <= now:
            self._next_fault += self._random.expovariate(self._rate)
            device = self._random.randrange(len(self._faults))
            if fault := self._new_fault(device):
                heapq.heappush(self._active, (now + self._random.uniform(*FAULT_SECONDS), device, *fault[:2]))
                commands.append((device, ["fault", "raise", *fault]))
        return commands

    def _steps(self, device: int, round_number: int) -> list[list[str]]:
        values, positions = self._values[device], self._positions[device]
        commands = []
        for count in range(min(VALUES_AT_ONCE, len(values))):
            place = (round_number * VALUES_AT_ONCE + count) % len(values)
            position = positions[place] + self._random.uniform(-STEP, STEP)
            positions[place] = min(1.0, max(-1.0, position))
            commands.append(["set", values[place].path, values[place].at(positions[place])])
        return commands

    def _new_fault(self, device: int) -> tuple[str, ...] | None:
        taken = {entry[1:] for entry in self._active}
        possible = [fault for fault in self._faults[device] if (device, *fault[:2]) not in taken]
        return self._random.choice(possible) if possible else None
