"""Managers that walk while every value changes."""
from __future__ import annotations

import json
import threading
from collections import defaultdict
from collections.abc import Iterator
from contextlib import closing

import pytest
from support import ber, steps
from support.catalogue import CODES, COLUMN_OIDS, PARSERS, WORDS, Feed, feeds
from support.device import Device
from support.polling import wait_until
from support.rawmanager import RawManager
from support.target import Target, intact

Values = set[tuple[str, str]]

# All the hurry of the clock stays below the 600 s of snmpd's health probe. A hurry while its program runs would be taken
# for one that hangs, and snmpd would be restarted.
TURNS = 6


def reports(turn: int) -> Iterator[tuple[Feed, str, str]]:
    """For every value of the data service on the model: its cell, a new text, what is served for it."""
    for place, feed in enumerate(feeds(6420), 20):
        if words := sorted(WORDS[feed.parser].items()):
            word, code = words[turn % len(words)]  # all keys alike: a line input may show the other's pilot tone
            yield feed, word, str(code)
            continue
        kind, size = PARSERS[feed.parser]["other"], turn % 30
        yield feed, *{"x1000": (f"{place + turn / 1000:.3f}", str(1000 * place + turn)),
                      "x10": (f"{place + turn / 10:.1f}", str(10 * place + turn)),
                      "x1": (str(1000 + turn), str(1000 + turn)), "text": ("A" * size, "A" * min(size, 19))}[kind]


def changes(turn: int) -> list[steps.Command]:
    """A new text for everything that has one on the model."""
    step = turn % 5  # of the channels: in operation, a fault, disabled, no class-D amplifier, in operation
    new = [(feed.path, text) for feed, text, _ in reports(turn)]
    new.append(("/state/class_d_amp_status/status", "failed" if step == 3 else "ok"))
    new += [(f"/state/config/lines/line[kid='{line}']/enable", "false" if step == 2 else "true")
            for line in ("ch1", "ch2")]
    commands = [["monitor", "amp", channel, "1" if step == 1 else "2"] for channel in "01"]
    for parser, kind in (("input_state", "gpi"), ("output_state", "gpo")):
        words = sorted(WORDS[parser])
        commands += [["monitor", kind, str(place), words[turn % len(words)]] for place in range(6)]
    return [*(steps.put(path, text) for path, text in new), *commands, *let_changes(turn)]


def let_changes(turn: int) -> list[steps.Command]:
    """Announces each transponder, whose status follows from the channel's present one."""
    return [["monitor", "let", channel, str(let), str(1 + turn // 5 % 2)] for channel in "01" for let in range(1, 11)]


# Columns that the data service and the amplifier monitor change together: their number of rows. Either may be the
# faster, so their rows may serve every code that `changes` can cause.
TOGETHER = {"ampChannelStatus": 2, "letChannel1Status": 10, "letChannel2Status": 10, "controlInputStatus": 6,
            "controlOutputState": 6}
NEVER = {("ampChannelStatus", 1), ("letChannel1Status", 2), ("letChannel2Status", 2), ("controlInputStatus", 1),
         ("controlOutputState", 1)}


def begin_again(device: Device) -> None:
    """The state of turn 0, whatever was before."""
    enabled = [steps.put(f"/state/config/lines/line[kid='{line}']/lets/let[kid='{let}']/enabled", "true")
               for line in ("ch1", "ch2") for let in range(1, 11)]
    device.carry_out([*enabled, *changes(0)])
    steps.apply(device, let_changes(0))


@pytest.fixture
def announced(start_device):
    """An amplifier whose monitor has announced everything."""
    device = start_device(6420, "--no-traps", "--clock-shift").wait_answering().wait_subscribed()
    begin_again(device)
    with closing(RawManager.of(device)) as manager:
        yield from intact(Target(device, manager, manager.walk()))


def test_walks_while_every_value_changes(announced):
    """Each walk is complete and in order, and each of its values is one that the device had."""
    device, manager = announced.device, announced.manager
    had: dict[ber.Oid, Values] = defaultdict(set)
    for oid, value in announced.walk:
        had[oid].add(value)
    for column, rows in TOGETHER.items():
        for index in range(1, rows + 1):
            had[ber.numbers(f"{COLUMN_OIDS[column]}.{index}")] |= {
                ("INTEGER", str(code)) for code in CODES[column] if (column, code) not in NEVER}
    failures: list[Exception] = []
    walks: list[list[ber.Binding]] = []

    def change() -> None:
        try:
            for turn in range(1, TURNS + 1):
                for feed, _, value in reports(turn):
                    oid = ber.numbers(feed.oid)
                    had[oid].add((next(iter(had[oid]))[0], value))
                device.talctl_batch([json.dumps(command) for command in changes(turn)])
                device.shift_clock(steps.CACHE_SECONDS)
                enough = len(walks) + 6  # the first began before the change, the last ends after the next one began
                wait_until(lambda: len(walks) >= enough, 60, what="further walks")
        except Exception as failure:  # the test itself reports it
            failures.append(failure)

    changer = threading.Thread(target=change)
    changer.start()
    try:
        while changer.is_alive():
            walks.append(manager.walk(repetitions=(0, 10, 50)[len(walks) % 3]))
    finally:
        changer.join()
        begin_again(device)
    assert not failures
    seen: dict[ber.Oid, Values] = defaultdict(set)
    for walk in walks:
        assert [binding.oid for binding in walk] == announced.oids()
        for oid, value in walk:
            seen[oid].add(value)
    assert {ber.dotted(oid): values - had[oid] for oid, values in seen.items() if values - had[oid]} == {}
    changing = [oid for oid, values in had.items() if len(values) > 1]
    unmoved = [ber.dotted(oid) for oid in changing if len(seen[oid]) == 1]
    print(f"{len(walks)} walks over {TURNS} changes of {len(changing)} values")
    assert len(changing) > 140 and unmoved == []
