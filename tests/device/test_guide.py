"""docs/mib.md and docs/operators.md: each of their commands, typed at a device, prints what stands below it.

KVSNMP_WRITE_GOLDEN=1 in the environment writes the outputs anew.
"""
from __future__ import annotations

import os
import re
import shlex
from pathlib import Path
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, COMPACT, EXTENDED, MODELS, OBJECTS, TABLE_NAMES, Table
from support.device import CHECKOUT, Device
from support.mib import mib
from support.polling import wait_until
from support.snmp import parse

GUIDE = CHECKOUT / "docs/mib.md"
FIRST_STEPS = CHECKOUT / "docs/operators.md"
PORTS = {1161: "6420", 1171: "6214"}  # the devices of the guides, and their names


class Example(NamedTuple):
    command: str
    output: list[str]
    guide: Path


def examples(guide: Path) -> list[Example]:
    """Indented blocks whose lines begin with a dollar sign, and what is indented below them."""
    found: list[Example] = []
    current = None
    for line in guide.read_text().splitlines():
        if line.startswith("    $ "):
            current = Example(line[6:], [], guide)
            found.append(current)
        elif current and (line.startswith("    ") or not line):
            current.output.append(line[4:])
        else:
            current = None
    for example in found:
        while example.output and not example.output[-1]:
            example.output.pop()
    return found


def is_question(example: Example) -> bool:
    return re.match(r"snmp\w+ ", example.command) is not None


EXAMPLES = examples(GUIDE)
EXPORTS = [example.command for example in EXAMPLES if example.command.startswith("export ")]
ORDERS = [example for example in EXAMPLES if example.command.startswith("scripts/device exec ")]
QUESTIONS = [example for example in EXAMPLES if is_question(example)]
FIRST_EXAMPLES = examples(FIRST_STEPS)
FIRST_QUESTIONS = [example for example in FIRST_EXAMPLES if is_question(example)]
ALL_QUESTIONS = QUESTIONS + FIRST_QUESTIONS


@pytest.fixture(scope="module")
def devices(start_shared_device) -> dict[str, Device]:
    devices = {"6420": start_shared_device(6420, "--clock-shift", "--no-traps", wait=False),
               "6214": start_shared_device(6214, "--clock-shift", "--no-traps", "--model-text", EXTENDED, wait=False)}
    for device in devices.values():
        device.wait_ready()
    for device in devices.values():
        device.wait_answering(60).wait_subscribed(60)
        steps.apply(device)
    for order in ORDERS:
        words = shlex.split(order.command)
        assert words[:3] == ["scripts/device", "exec", "--name"] and words[4] == "--", order.command
        assert devices[words[3]].run(words[5:]).stdout.splitlines() == order.output
    steps.apply(devices["6420"])
    wait_until(lambda: "low" in ask(devices, QUESTIONS[-1])[-1], 60, what="last relay read")
    return devices


def ask(devices: dict[str, Device], question: Example) -> list[str]:
    """Runs the command beside its device, as the guide has it done beside port 1161 or 1171 of the host."""
    match = re.search(r"127\.0\.0\.1:(\d+)", question.command)
    device = devices[PORTS[int(match[1])]]
    device.shift_clock(steps.CACHE_SECONDS)
    command = question.command.replace(match[0], "127.0.0.1")
    script = "\n".join([f"cd {shlex.quote(str(CHECKOUT))}", *EXPORTS, command])
    return [line.rstrip() for line in device.run(["sh", "-e", "-c", script]).stdout.rstrip("\n").split("\n")]


@pytest.mark.parametrize("question", ALL_QUESTIONS, ids=[asked.command.partition(" 127")[2] for asked in ALL_QUESTIONS])
def test_command_prints_what_the_guide_says(devices, question):
    answer = ask(devices, question)
    if os.environ.get("KVSNMP_WRITE_GOLDEN"):
        write_anew(question, answer)
        return
    assert answer == question.output


def write_anew(question: Example, answer: list[str]) -> None:
    lines = question.guide.read_text().splitlines()
    at = lines.index("    $ " + question.command)
    del lines[at + 1:at + 1 + len(question.output)]
    lines[at + 1:at + 1] = [f"    {line}".rstrip() for line in answer]
    question.guide.write_text("\n".join(lines) + "\n")


def test_first_steps_are_commands_of_the_guide_and_questions():
    others = [example.command for example in FIRST_EXAMPLES if not is_question(example)]
    assert others == EXPORTS and len(FIRST_QUESTIONS) >= 3


def test_every_table_has_an_example():
    assert {question.command.split()[-1] for question in QUESTIONS} >= set(TABLE_NAMES)
    assert len(EXPORTS) == 1 and len(ORDERS) + len(QUESTIONS) + 1 == len(EXAMPLES)
    if os.environ.get("KVSNMP_WRITE_GOLDEN"):
        return  # what was read from the guide at the start is not what it says now
    headed = [question for question in QUESTIONS if question.command.startswith("snmptable")]
    assert all(question.output[0] == f"SNMP table: KVSNMP-MIB::{question.command.split()[-1]}" for question in headed)


@pytest.mark.parametrize("table", [item for item in OBJECTS if isinstance(item, Table)], ids=TABLE_NAMES)
def test_snmptable_names_columns_and_states(devices, table):
    device = devices["6214" if table.name == "relayTable" else "6420"]
    script = "\n".join([f"cd {shlex.quote(str(CHECKOUT))}", *EXPORTS,
                        f"snmptable -v2c -c public -Cf ';' 127.0.0.1 {table.name}"])
    lines = [line for line in device.run(["sh", "-e", "-c", script]).stdout.splitlines() if line]
    assert lines[0] == f"SNMP table: KVSNMP-MIB::{table.name}"
    headings, *rows = [line.split(";") for line in lines[1:]]
    assert headings == [column for column, _ in table.columns]
    assert rows
    for row in rows:
        for column, cell in zip(headings, row, strict=True):
            enumeration = mib().objects[column].enumeration
            assert not enumeration or cell in enumeration.values(), f"{column}: {cell}"


# What the guide says besides


def test_numbers_of_rows_are_those_of_the_golden_walks():
    text = GUIDE.read_text()
    table = [[cell.strip() for cell in line.strip("|").split("|")]
             for line in re.search(r"^\| table \|.*?\n\n", text, re.MULTILINE | re.DOTALL)[0].strip().splitlines()]
    assert table[0] == ["table", *map(str, MODELS)]
    told = {name: row[1:] for row in table[2:] for name in re.findall(r"`(\w+)`", row[0])}
    tables = [item for item in OBJECTS if isinstance(item, Table)]
    assert told == {table.name: [number_of_rows(table, model) for model in MODELS] for table in tables}


def number_of_rows(table: Table, model: int) -> str:
    index = table.oid(table.columns[0][0]) + "."
    golden = CHECKOUT / "tests/device/golden"
    counts = {name: sum(variable.oid.startswith(index) for variable in parse((golden / f"{name}.walk").read_text()))
              for name in (f"{model}", f"{model}-compact", f"{model}-extended") if (golden / f"{name}.walk").exists()}
    ordinary, *expanders = counts.values()
    assert len(set(expanders)) <= 1, f"{COMPACT} and {EXTENDED} differ"
    return f"{ordinary}, {expanders[0]}" if expanders and expanders[0] != ordinary else str(ordinary or "-")


def prose() -> list[str]:
    """Sections without their examples."""
    text = "\n".join(line for line in GUIDE.read_text().splitlines() if not line.startswith("    "))
    return text.split("\n## ")


def test_names_in_the_guide_are_the_mibs():
    unknown = set()
    for section in prose():
        for name in re.findall(r"`([a-z]\w*[A-Z]\w*)`", section):
            names = [name.replace("N", "1", 1), name.replace("N", "2", 1)] if "letChannelN" in name else [name]
            unknown |= {one for one in names if one not in mib().nodes}
    assert unknown == set()


def test_every_column_has_its_word_in_the_guide():
    text = "".join(prose())
    missing = [column for column in COLUMN_OIDS
               if not column.endswith(("Index", "Description", "Label")) and f"`{column}`" not in text
               and f"`{re.sub('Channel[12]', 'ChannelN', column)}`" not in text]
    assert missing == []


def test_states_in_the_guide_are_those_of_the_columns_that_it_speaks_of():
    wrong = []
    for section in prose():
        names = re.findall(r"`(\w+)`", section.replace("letChannelN", "letChannel1"))
        columns = [mib().objects[name] for name in names if name in mib().objects]
        enumerations = [column.enumeration for column in columns or mib().objects.values()]
        wrong += [f"{state}({code})" for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", section)
                  if not any(enumeration.get(int(code)) == state for enumeration in enumerations)]
        told = {(state, int(code)) for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", section)}
        for name in re.findall(r"^\| `(\w+)` \|", section.replace("letChannelN", "letChannel1"), re.MULTILINE):
            if name in COLUMN_OIDS:  # a line of a list of values: every state but "not reported" is told
                enumeration = mib().objects[name].enumeration
                wrong += [f"{name}: {state}({code}) is not told" for code, state in enumeration.items()
                          if code != 0 and (state, code) not in told]
    assert wrong == []
