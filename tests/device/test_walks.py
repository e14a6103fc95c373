"""The private MIB of every model, whole: read with GETNEXT and GETBULK, equal to its golden walk byte for byte, and the
rows of the golden walk those of the catalogue.

KVSNMP_WRITE_GOLDEN=1 in the environment writes the golden walks anew; all other checks hold then, too.
"""
from __future__ import annotations

import os
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

import pytest
from support import catalogue, steps
from support.catalogue import COLUMN_OIDS, OBJECTS, SCALAR_OIDS, Table
from support.device import Device
from support.snmp import COMMUNITY, NUMERIC, TABLES, parse
from support.walks import FAILED_TONE, WALKS, Walk, catalogue_rows, golden, wait_for_lines, write_golden

REPETITIONS = [10, 50]
AT_A_TIME = 7  # devices that run side by side


class Answers(NamedTuple):
    getnext: str
    getbulk: list[str]
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
        getbulk = [device.run(["snmpbulkwalk", *NUMERIC, *COMMUNITY, f"-Cr{number}", "127.0.0.1", TABLES]).stdout
                   for number in REPETITIONS]
    except Exception as error:
        raise AssertionError(f"device {walk.name}: {error}\n{device.logs()}") from error
    finally:
        complaints = device.stop()
    return Answers(getnext, getbulk, complaints)


@pytest.fixture(scope="module")
def answers() -> dict[str, Answers]:
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        found = dict(zip([walk.name for walk in WALKS], pool.map(read, WALKS)))
    if os.environ.get("KVSNMP_WRITE_GOLDEN"):
        write_golden({name: parse(answers.getnext) for name, answers in found.items()})
    return found


@pytest.mark.parametrize("walk", WALKS, ids=[walk.name for walk in WALKS])
def test_walk_is_the_golden_one(answers, walk):
    found = answers[walk.name]
    assert found.getnext == walk.golden_text
    assert found.getbulk == [walk.golden_text] * len(REPETITIONS), "the same in the same order"
    assert found.complaints == []


@pytest.mark.parametrize("walk", WALKS, ids=[walk.name for walk in WALKS])
def test_golden_walk_has_the_objects_and_rows_of_the_catalogue(walk):
    rows, served = catalogue_rows(walk), {variable.oid: variable for variable in walk.golden}
    expected = []
    for item in OBJECTS:
        if isinstance(item, Table):
            expected += [(f"{item.oid(column)}.{index}", kind) for column, kind in item.columns
                         for index, _ in rows[item.name]]
            number, description = (item.oid(next(column for column, _ in item.columns if column.endswith(name)))
                                   for name in ("Index", "Description"))
            assert [(int(served[f"{number}.{index}"].text), served[f"{description}.{index}"].text)
                    for index, _ in rows[item.name]] == rows[item.name]
        else:
            expected.append((item.oid, item.type))
            if item.name.endswith("Count"):
                table = item.name.removesuffix("Count").removesuffix("Table") + "Table"
                assert int(served[item.oid].text) == len(rows[table]), item.name
    assert [(variable.oid, variable.type) for variable in walk.golden] == expected
    assert served[SCALAR_OIDS["ampType"]].text == str(catalogue.AMP_TYPES.get(walk.model, 1))


def test_there_is_a_golden_walk_of_each_device_and_no_other():
    assert golden.NAMES == sorted(walk.name for walk in WALKS)


def test_one_index_means_the_same_among_the_amplifiers():
    meanings: dict[str, set[str]] = {}
    for model in (6420, 6425, 6720, 6764):
        for variable in Walk(model).golden:
            if variable.oid.startswith((COLUMN_OIDS["tempDescription"] + ".", COLUMN_OIDS["voltageDescription"] + ".")):
                meanings.setdefault(variable.oid, set()).add(variable.text)
    assert len(meanings) == 5 + 16
    assert all(len(texts) == 1 for texts in meanings.values()), meanings
