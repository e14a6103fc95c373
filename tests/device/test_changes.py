"""Managers that walk while every value changes."""
from __future__ import annotations

import itertools
import json
import threading
import time
from collections import defaultdict
from collections.abc import Iterator
from contextlib import closing

import pytest
from support import ber, catalogue, steps
from support.catalogue import COLUMN_OIDS
from support.device import Device
from support.rawmanager import RawManager
from support.target import Target, intact

INTEGER = "INTEGER"
Values = set[tuple[str, str]]


def chosen(words: dict[str, int], turn: int) -> tuple[str, int]:
    return sorted(words.items())[turn % len(words)]


def cells(turn: int) -> Iterator[tuple[str, str, str, object]]:
    """For every value of the data service on the model: path, new text, cell, what is served for it."""
    for place, (index, _, key) in enumerate(catalogue.VOLTAGES[6420], 20):
        path = f"power_lines/power_line[kid='{key}']/voltage"
        yield path, f"{place + turn / 1000:.3f}", f"voltageValue.{index}", 1000 * place + turn
    for place, (index, _, key) in enumerate(catalogue.TEMPERATURES[6420]):
        for kind in ("Current", "Peak", "Average"):
            path = f"temp_sensors/temp_sensor[kid='{key}']/temp_{kind.lower()}"
            yield path, f"{20 + place + turn / 10:.1f}", f"temp{kind}.{index}", 10 * (20 + place) + turn
    for index, _, key in catalogue.FANS[6420]:
        yield f"fans/fan[kid='{key}']/speed_sensor_rpm", str(1000 + turn), f"fanSpeed.{index}", 1000 + turn
    truth = "true" if turn % 2 else "false"
    for channel in (1, 2):
        line = f"lines/line[kid='ch{channel}']"
        yield f"{line}/characteristics/line_state", *alike(f"ampChannelLineState.{channel}", catalogue.LINE_STATES, turn)
        for let in range(1, 11):
            path, name = f"{line}/lets/let[kid='{let}']", f"letChannel{channel}"
            yield f"{path}/let_vcc", f"{let + turn / 1000:.3f}", f"{name}Voltage.{let}", 1000 * let + turn
            yield f"{path}/sw_version", f"1.{turn}", f"{name}SoftwareVersion.{let}", f"1.{turn}"
            yield f"{path}/hw_version", "A" * (1 + turn % 20), f"{name}HardwareVersion.{let}", ("A" * (1 + turn % 20))[:19]
        line = f"lines/line[kid='ln{channel}']"  # the two alike: a row may show the other's
        yield f"{line}/pilot_tone_state", *alike(f"lineInStatus.{channel}", catalogue.PILOT_TONES, turn)
        yield (f"config/{line}/pilot_tone_sensing_enable", truth, f"lineInMonitoring.{channel}",
               catalogue.LINE_IN_MONITORING[truth])
        source = f"power_sources/power_source[kid='{catalogue.POWER_KEYS[channel]}']"
        yield f"{source}/live", truth, f"powerLive.{channel}", catalogue.POWER_LIVE[truth]
        yield f"config/{source}/monitored", truth, f"powerMonitored.{channel}", catalogue.POWER_MONITORED[truth]
        yield (f"config/os_ip/eth_switch/port[port_id='Eth{channel}']/monitored", truth, f"ethMonitoringMonitored.{channel}",
               catalogue.ETH_MONITORED[truth])
    for index in range(1, 7):
        yield (f"config/gpis/gpi[kid='gpi{index}']/monitored", truth, f"controlInputMonitored.{index}",
               catalogue.INPUT_MONITORED[truth])


def alike(cell: str, words: dict[str, int], turn: int) -> tuple[str, str, int]:
    word, code = chosen(words, turn)
    return word, cell, code


def changes(turn: int) -> list[steps.Command]:
    """A new text for everything that has one on the model."""
    step = turn % 5  # of the channels: in operation, a fault, disabled, no class-D amplifier, in operation
    new = [(path, text) for path, text, _, _ in cells(turn)]
    new.append(("class_d_amp_status/status", "failed" if step == 3 else "ok"))
    new += [(f"config/lines/line[kid='{line}']/enable", "false" if step == 2 else "true") for line in ("ch1", "ch2")]
    commands = [["monitor", "amp", channel, "1" if step == 1 else "2"] for channel in "01"]
    for words, kind in ((catalogue.INPUT_STATES, "gpi"), (catalogue.OUTPUT_STATES, "gpo")):
        commands += [["monitor", kind, str(place), chosen(words, turn)[0]] for place in range(6)]
    return [*(steps.put(f"/state/{path}", text) for path, text in new), *commands, *let_changes(turn)]


def let_changes(turn: int) -> list[steps.Command]:
    """Of the transponders' states, which are worked out when one is announced, for the channel as it is then."""
    return [["monitor", "let", channel, str(let), str(1 + turn // 5 % 2)] for channel in "01" for let in range(1, 11)]


# What comes of both the data service and the amplifier monitor, whichever is the faster: rows, and the codes that
# `changes` can lead to.
ANNOUNCED = {"ampChannelStatus": (2, {2, 3, 4, 5}), "letChannel1Status": (10, {1, 3, 4}), "letChannel2Status": (10, {1, 3, 4}),
             "controlInputStatus": (6, {*catalogue.INPUT_STATES.values()}),
             "controlOutputState": (6, {*catalogue.OUTPUT_STATES.values()})}


def begin_anew(device: Device) -> None:
    """The state of turn 0, whatever was before."""
    enabled = [steps.put(f"/state/config/lines/line[kid='{line}']/lets/let[kid='{let}']/enabled", "true")
               for line in ("ch1", "ch2") for let in range(1, 11)]
    steps.apply(device, [*enabled, *changes(0)])
    steps.apply(device, let_changes(0))


@pytest.fixture
def announced(start_device):
    """An amplifier whose monitor has announced all that it can."""
    device = start_device(6420, "--no-traps", "--clock-shift").wait_answering().wait_subscribed()
    begin_anew(device)
    with closing(RawManager.of(device)) as manager:
        yield from intact(Target(device, manager, manager.walk()))


def test_walks_while_every_value_changes(announced):
    """Each walk is whole and in order, and each value in it one that the device had (`ANNOUNCED`: can have had)."""
    device, manager = announced.device, announced.manager
    had: dict[ber.Oid, Values] = defaultdict(set)
    for oid, value in announced.walk:
        had[oid].add(value)
    for column, (rows, codes) in ANNOUNCED.items():
        for index in range(1, rows + 1):
            had[ber.numbers(f"{COLUMN_OIDS[column]}.{index}")] |= {(INTEGER, str(code)) for code in codes}
    turns = itertools.count(1)
    failures: list[Exception] = []
    done = threading.Event()

    def change() -> None:
        try:
            while not done.is_set():
                turn = next(turns)
                for _, _, cell, value in cells(turn):
                    column, _, index = cell.partition(".")
                    oid = ber.numbers(f"{COLUMN_OIDS[column]}.{index}")
                    had[oid].add((next(iter(had[oid]))[0], str(value)))
                device.talctl_batch([json.dumps(command) for command in changes(turn)])
                device.shift_clock(steps.CACHE_SECONDS)
        except Exception as failure:  # reported by the test itself
            failures.append(failure)

    changer = threading.Thread(target=change)
    changer.start()
    walks = []
    try:
        until = time.monotonic() + 10
        while time.monotonic() < until or len(walks) < 10:
            walks.append(manager.walk(repetitions=(0, 10, 50)[len(walks) % 3]))
    finally:
        done.set()
        changer.join()
        begin_anew(device)
    assert not failures
    seen: dict[ber.Oid, Values] = defaultdict(set)
    for walk in walks:
        assert [binding.oid for binding in walk] == announced.oids()
        for oid, value in walk:
            seen[oid].add(value)
    assert {ber.dotted(oid): values - had[oid] for oid, values in seen.items() if values - had[oid]} == {}
    changing = [oid for oid, values in had.items() if len(values) > 1]
    unmoved = [ber.dotted(oid) for oid in changing if len(seen[oid]) == 1]
    print(f"{len(walks)} walks over {next(turns) - 1} changes of {len(changing)} values")
    assert len(changing) > 140 and unmoved == []
