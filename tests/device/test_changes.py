"""Managers that walk while every value changes."""
from __future__ import annotations

import itertools
import json
import threading
import time
import xml.etree.ElementTree as ElementTree
from collections import defaultdict
from contextlib import closing

import pytest
from support import ber, catalogue, steps
from support.catalogue import COLUMN_OIDS
from support.device import Device
from support.rawmanager import RawManager
from support.target import Target, intact
from support.walks import Expected, Walk


def changes(turn: int) -> list[steps.Command]:
    """A new text for everything that has one on the model, as told by the catalogue."""
    def word(words) -> str:
        texts = sorted(words)
        return texts[turn % len(texts)]

    truth = "true" if turn % 2 else "false"
    new = {f"power_lines/power_line[kid='{key}']/voltage": f"{20 + place + turn / 1000:.3f}"
           for place, (_, _, key) in enumerate(catalogue.VOLTAGES[6420])}
    new |= {f"temp_sensors/temp_sensor[kid='{key}']/temp_{kind}": f"{20 + place + turn / 10:.1f}"
            for place, (_, _, key) in enumerate(catalogue.TEMPERATURES[6420])
            for kind in ("current", "peak", "average")}
    new |= {f"fans/fan[kid='{key}']/speed_sensor_rpm": str(1000 + turn) for _, _, key in catalogue.FANS[6420]}
    for line in ("ch1", "ch2"):
        new[f"lines/line[kid='{line}']/characteristics/line_state"] = word(catalogue.LINE_STATES)
        for let in range(1, 11):
            path = f"lines/line[kid='{line}']/lets/let[kid='{let}']"
            new |= {f"{path}/let_vcc": f"{let + turn / 1000:.3f}", f"{path}/sw_version": f"1.{turn}",
                    f"{path}/hw_version": "A" * (1 + turn % 20)}
    for line in ("ln1", "ln2"):  # the two alike: a row may show the other's
        new[f"lines/line[kid='{line}']/pilot_tone_state"] = word(catalogue.PILOT_TONES)
        new[f"config/lines/line[kid='{line}']/pilot_tone_sensing_enable"] = truth
    for source in ("ac_power", "dc_power"):
        new[f"power_sources/power_source[kid='{source}']/live"] = truth
        new[f"config/power_sources/power_source[kid='{source}']/monitored"] = truth
    new |= {f"config/gpis/gpi[kid='gpi{index}']/monitored": truth for index in range(1, 7)}
    new |= {f"config/os_ip/eth_switch/port[port_id='Eth{index}']/monitored": truth for index in (1, 2)}
    step = turn % 5  # of the channels: in operation, a fault, disabled, no class-D amplifier, in operation
    new["class_d_amp_status/status"] = "failed" if step == 3 else "ok"
    commands = []
    for channel, line in enumerate(("ch1", "ch2")):
        new[f"config/lines/line[kid='{line}']/enable"] = "false" if step == 2 else "true"
        commands.append(["monitor", "amp", str(channel), "1" if step == 1 else "2"])
    for words, kind in ((catalogue.INPUT_STATES, "gpi"), (catalogue.OUTPUT_STATES, "gpo")):
        commands += [["monitor", kind, str(place), word(words)] for place in range(6)]
    return [*(steps.put(f"/state/{path}", text) for path, text in new.items()), *commands, *let_changes(turn)]


def let_changes(turn: int) -> list[steps.Command]:
    """Of the transponders' states, which are worked out when one is announced, for the channel as it is then."""
    return [["monitor", "let", channel, str(let), str(1 + turn // 5 % 2)] for channel in "01" for let in range(1, 11)]


def codes(*values: int) -> set[tuple[str, str]]:
    return {("INTEGER", str(value)) for value in values}


# What comes of both the data service and the amplifier monitor, whichever is the faster: rows, and the states that
# `changes` can lead to. The data service's tree alone does not tell them.
ANNOUNCED = {
    "ampChannelStatus": (2, codes(2, 3, 4, 5)),
    "letChannel1Status": (10, codes(1, 3, 4)),
    "letChannel2Status": (10, codes(1, 3, 4)),
    "controlInputStatus": (6, codes(*catalogue.INPUT_STATES.values())),
    "controlOutputState": (6, codes(*catalogue.OUTPUT_STATES.values())),
}


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
    model = Walk(device.model)
    had: dict[ber.Oid, set[tuple[str, str]]] = defaultdict(set)
    turns = itertools.count(1)
    failures: list[Exception] = []
    done = threading.Event()

    def note(tree: str) -> None:
        for variable in Expected(model, ElementTree.fromstring(tree)).variables():
            had[ber.numbers(variable.oid)].add(variable.value)

    def change() -> None:
        try:
            while not done.is_set():
                device.talctl_batch([json.dumps(command) for command in changes(next(turns))])
                note(device.talctl("get", "/state"))
                device.shift_clock(steps.CACHE_SECONDS)
        except Exception as failure:  # reported by the test itself
            failures.append(failure)

    note(device.talctl("get", "/state"))
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
    for column, (rows, states) in ANNOUNCED.items():
        had |= {ber.numbers(f"{COLUMN_OIDS[column]}.{index}"): states for index in range(1, rows + 1)}
    seen: dict[ber.Oid, set[tuple[str, str]]] = defaultdict(set)
    for walk in walks:
        assert [binding.oid for binding in walk] == announced.oids()
        for oid, value in walk:
            seen[oid].add(value)
    strangers = {ber.dotted(oid): values - had[oid] for oid, values in seen.items() if values - had[oid]}
    assert strangers == {}
    changing = [oid for oid, values in had.items() if len(values) > 1]
    unmoved = [ber.dotted(oid) for oid in changing if len(seen[oid]) == 1]
    print(f"{len(walks)} walks over {next(turns) - 1} changes of {len(changing)} values")
    assert len(changing) > 140 and unmoved == []
