"""The whole private MIB of every model, read with GETNEXT and GETBULK, equals its golden walk. The standard sensor
tables show the same values, and random requests get the answers of the walk. The unit test of the tables has the
catalogue's rows.

KVSNMP_WRITE_GOLDEN=1 in the environment writes the golden walks again. KVSNMP_PDUS is the number of random requests to
each device, KVSNMP_SEED selects others.
"""
from __future__ import annotations

import os
from concurrent.futures import ThreadPoolExecutor
from typing import NamedTuple

import pytest
from support import ber, catalogue, standard, steps
from support.device import Device
from support.randomrequests import ask_at_random
from support.snmp import COMMUNITY, NO_SUCH_OBJECT, NUMERIC, TABLES, Variable, parse
from support.walks import FAILED_TONE, WALKS, Walk, golden, wait_for_lines, write_golden

REPETITIONS = [10, 50]
AT_A_TIME = 7  # devices that run at once


class Answers(NamedTuple):
    getnext: str
    getbulk: list[str]
    standard: list[Variable]
    failures: list[str]


def read(walk: Walk) -> Answers:
    options = ["--clock-shift", "--no-traps", *walk.options]
    if (1, "Line In 1") in catalogue.rows("lineInTable", walk.model):
        options += ["--set", FAILED_TONE]
    device = Device(walk.model, *options)
    try:
        device.wait_ready().wait_answering(60).wait_subscribed(60)
        steps.apply(device)
        wait_for_lines(device, walk)
        device.shift_clock(steps.CACHE_SECONDS)
        getnext = device.run(["snmpwalk", *NUMERIC, *COMMUNITY, "127.0.0.1", TABLES]).stdout
        getbulk = [device.run(["snmpbulkwalk", *NUMERIC, *COMMUNITY, f"-Cr{number}", "127.0.0.1", TABLES]).stdout
                   for number in REPETITIONS]
        standard_tables = [variable for root in standard.ROOTS for variable in parse(
            device.run(["snmpbulkwalk", *NUMERIC, *COMMUNITY, "127.0.0.1", ber.dotted(root)]).stdout)]
        failures = ask_at_random(device, walk.name)
    except Exception as error:
        raise AssertionError(f"device {walk.name}: {error}\n{device.logs()}") from error
    finally:
        complaints = device.stop()  # a daemon that hangs does not end
    return Answers(getnext, getbulk, standard_tables, failures + complaints)


@pytest.fixture(scope="module")
def answers() -> dict[str, Answers]:
    with ThreadPoolExecutor(AT_A_TIME) as pool:
        found = dict(zip([walk.name for walk in WALKS], pool.map(read, WALKS)))
    if os.environ.get("KVSNMP_WRITE_GOLDEN"):
        write_golden({name: parse(answers.getnext) for name, answers in found.items()})
    return found


@pytest.mark.parametrize("walk", WALKS, ids=[walk.name for walk in WALKS])
def test_walk_is_the_golden_one_as_the_standard_tables_and_random_requests_show(answers, walk):
    found = answers[walk.name]
    assert found.getnext == walk.golden_text
    assert found.getbulk == [walk.golden_text] * len(REPETITIONS), "the same in the same order"
    served = [variable for variable in found.standard if variable.value != NO_SUCH_OBJECT]
    changes = [variable for variable in served if variable.oid == f"{ber.dotted(standard.LAST_CHANGE)}.0"]
    assert [change.type for change in changes] == ["Timeticks"]
    served.remove(changes[0])
    assert served == standard.expected({variable.oid: variable.value for variable in walk.golden})
    assert found.failures == []


def test_there_is_a_golden_walk_of_each_device_and_no_other():
    assert golden.NAMES == sorted(walk.name for walk in WALKS)


@pytest.mark.parametrize("table, count", [("tempTable", 5), ("voltageTable", 16)])
def test_one_index_means_the_same_among_the_amplifiers(table, count):
    amplifiers = [model for model in catalogue.MODELS if (1, "Channel 1") in catalogue.rows("ampChannelTable", model)]
    meanings = {row for model in amplifiers for row in catalogue.rows(table, model)}
    assert len(meanings) == len(dict(meanings)) == count
