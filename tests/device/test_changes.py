"""Managers that walk while every value changes."""
from __future__ import annotations

import json
import threading
from collections import defaultdict
from collections.abc import Iterator
from contextlib import closing

import pytest
from support import ber, steps
from support.catalogue import PARSERS, WORDS, Feed, feeds
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
    device, manager = reported.device, reported.manager
    had: dict[ber.Oid, Values] = defaultdict(set)
    for oid, value in reported.walk:
        had[oid].add(value)
    failures: list[Exception] = []
    walks: list[list[ber.Binding]] = []

    def report() -> None:
        try:
            for turn in range(1, TURNS + 1):
                for feed, _, value in reports(turn):
                    oid = ber.numbers(feed.oid)
                    had[oid].add((next(iter(had[oid]))[0], value))
                device.talctl_batch([json.dumps(command) for command in change(turn)])
                device.shift_clock(steps.CACHE_SECONDS)
                enough = len(walks) + 6  # the first began before the change, the last ends after the next one began
                wait_until(lambda: len(walks) >= enough, 60, what="further walks")
        except Exception as failure:  # the test itself reports it
            failures.append(failure)

    changer = threading.Thread(target=report)
    changer.start()
    try:
        while changer.is_alive():
            walks.append(manager.walk(repetitions=(0, 10, 50)[len(walks) % 3]))
    finally:
        changer.join()
        steps.apply(device, change(0), dbus=False)
    assert not failures
    seen: dict[ber.Oid, Values] = defaultdict(set)
    for walk in walks:
        assert [binding.oid for binding in walk] == reported.oids()
        for oid, value in walk:
            seen[oid].add(value)
    assert {ber.dotted(oid): values - had[oid] for oid, values in seen.items() if values - had[oid]} == {}
    changing = [oid for oid, values in had.items() if len(values) > 1]
    unmoved = [ber.dotted(oid) for oid in changing if len(seen[oid]) == 1]
    print(f"{len(walks)} walks over {TURNS} changes of {len(changing)} values")
    assert len(changing) > 100 and unmoved == []
