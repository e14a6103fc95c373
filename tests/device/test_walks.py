"""The private MIB of every model, whole: read with GETNEXT and GETBULK, equal to its golden file byte for byte, and the
golden file equal to what the catalogue says for the simulator's data.

KVSNMP_WRITE_GOLDEN=1 in the environment writes the golden files anew; all other checks hold then, too.
"""
from __future__ import annotations

import os
import xml.etree.ElementTree as ElementTree
from collections.abc import Iterator
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

import pytest
from support import catalogue, steps
from support.catalogue import COLUMN_OIDS
from support.device import Device
from support.snmp import COMMUNITY, NUMERIC, TABLES, parse
from support.walks import FAILED_TONE, GOLDEN, WALKS, Expected, Walk, wait_for_lines

REPETITIONS = [10, 50]
AT_A_TIME = 7  # devices that run side by side


class Answers(NamedTuple):
    getnext: str
    getbulk: dict[int, str]
    tree: ElementTree.Element  # the data service's, as it was then
    complaints: list[str]


def read(walk: Walk) -> Answers:
    """Starts a device, waits until it has all its values, reads it three times and ends it."""
    options = ["--clock-shift", "--no-dbus", "--no-traps"]
    if walk.text:
        options += ["--model-text", walk.text]
    if walk.model in catalogue.LINE_INPUTS:
        options += ["--set", FAILED_TONE]
    device = Device(walk.model, *options)
    try:
        device.wait_ready().wait_answering(60).wait_subscribed(60)
        steps.apply(device, dbus=False)
        wait_for_lines(device, walk)
        device.shift_clock(steps.CACHE_SECONDS)
        getnext = device.run(["snmpwalk", *NUMERIC, *COMMUNITY, "127.0.0.1", TABLES]).stdout
        getbulk = {repetitions: device.run(["snmpbulkwalk", *NUMERIC, *COMMUNITY, f"-Cr{repetitions}", "127.0.0.1",
                                            TABLES]).stdout for repetitions in REPETITIONS}
        tree = ElementTree.fromstring(device.talctl("get", "/state"))
    except Exception as error:
        raise AssertionError(f"device {walk.name}: {error}\n{device.logs()}") from error
    finally:
        complaints = device.stop()
    return Answers(getnext, getbulk, tree, complaints)


@pytest.fixture(scope="module")
def answers() -> Iterator[dict[str, Answers]]:
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        yield dict(zip([walk.name for walk in WALKS], pool.map(read, WALKS)))


each_walk = pytest.mark.parametrize("walk", WALKS, ids=[walk.name for walk in WALKS])


@each_walk
def test_walk_is_the_golden_file(answers, walk):
    if os.environ.get("KVSNMP_WRITE_GOLDEN"):
        walk.file.parent.mkdir(exist_ok=True)
        walk.file.write_text(answers[walk.name].getnext)
    assert answers[walk.name].getnext == walk.file.read_text()
    assert answers[walk.name].complaints == []


@each_walk
@pytest.mark.parametrize("repetitions", REPETITIONS)
def test_getbulk_gives_the_same_in_the_same_order(answers, walk, repetitions):
    assert answers[walk.name].getbulk[repetitions] == walk.file.read_text()


@each_walk
def test_golden_file_is_what_the_catalogue_says(answers, walk):
    expected = Expected(walk, answers[walk.name].tree).variables()
    assert parse(walk.file.read_text()) == expected


def test_there_is_a_golden_file_for_each_walk_and_no_other():
    assert sorted(file.name for file in GOLDEN.iterdir()) == sorted(walk.file.name for walk in WALKS)


def test_one_index_means_the_same_among_the_amplifiers():
    meanings: dict[tuple[str, str], set[str]] = {}
    for model in (6420, 6425, 6720, 6764):
        for variable in parse(Walk(model).file.read_text()):
            for column in ("tempDescription", "voltageDescription"):
                if variable.oid.startswith(COLUMN_OIDS[column] + "."):
                    meanings.setdefault((column, variable.oid), set()).add(variable.text)
    assert len(meanings) == 5 + 16
    assert all(len(texts) == 1 for texts in meanings.values()), meanings
