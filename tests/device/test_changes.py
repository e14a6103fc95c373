"""Managers that walk while every value changes."""
from __future__ import annotations

import json
from collections.abc import Iterator
from contextlib import closing

import pytest
from support import ber, steps
from support.catalogue import PARSERS, WORDS, Feed, feeds
from support.press import Press
from support.rawmanager import RawManager
from support.target import Target, intact

# The clock is moved by less than the 600 s of snmpd's health probe in total: the daemon would take a leap while the
# probe's program runs for a hang, and restart snmpd.
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


def change(turn: int) -> list[steps.Command]:
    return [steps.put(feed.path, text) for feed, text, _ in reports(turn)]


@pytest.fixture
def reported(start_device):
    """An amplifier whose data service has reported everything."""
    device = start_device(6420, "--no-traps", "--no-dbus", "--clock-shift").wait_answering().wait_subscribed()
    steps.apply(device, change(0), dbus=False)
    with closing(RawManager.of(device)) as manager:
        yield from intact(Target(device, manager, manager.walk()))


def test_walks_while_every_value_changes(reported):
    """Each walk is complete and in order, and each of its values is one that the device had."""
    device = reported.device
    changed = {ber.Binding(ber.numbers(feed.oid), (reported.value_of(ber.numbers(feed.oid))[0], value))
               for turn in range(1, TURNS + 1) for feed, _, value in reports(turn)}
    had, seen = changed | set(reported.walk), set()
    with Press(device, list(had)) as press:
        for turn in range(1, TURNS + 1):
            device.talctl_batch([json.dumps(command) for command in change(turn)])
            device.shift_clock(steps.CACHE_SECONDS)
            for repetitions in (0, 10, 50, 0, 10, 50):  # the first may begin before the daemon has received everything
                walk = reported.manager.walk(repetitions=repetitions)
                assert [binding.oid for binding in walk] == reported.oids()
                seen |= set(walk)
        press.check()
    steps.apply(device, change(0), dbus=False)
    assert seen - had == set()
    moved = {binding.oid for binding in seen & changed - set(reported.walk)}
    print(f"{press.answered} GETBULKs answered meanwhile, {len(moved)} values changed")
    assert len(moved) > 100 and moved == {binding.oid for binding in changed - set(reported.walk)}
