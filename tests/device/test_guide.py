"""docs/mib.md and docs/operators.md: each of their commands prints the output that the document shows.

KVSNMP_WRITE_GOLDEN=1 in the environment writes the outputs again.
"""
from __future__ import annotations

import os
import re
import shlex
from pathlib import Path
from typing import NamedTuple

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, EXTENDED, MODELS, TABLES, Table
from support.device import CHECKOUT, Device
from support.mib import mib
from support.polling import wait_until
from support.walks import WALKS

GUIDE = CHECKOUT / "docs/mib.md"
FIRST_STEPS = CHECKOUT / "docs/operators.md"
PORTS = {"1161": "6420", "1171": "6214"}  # the devices of the guides, and their names


class Example(NamedTuple):
    command: str
    output: list[str]
    guide: Path


def examples(guide: Path) -> list[Example]:
    """Indented lines that begin with a dollar sign, and the indented lines after them."""
    found = re.findall(r"^    \$ (.*)\n((?:(?:    (?!\$ ).*)?\n)*)", guide.read_text() + "\n", re.MULTILINE)
    return [Example(command, re.sub("^    ", "", output, flags=re.MULTILINE).rstrip("\n").splitlines(), guide)
            for command, output in found]


EXAMPLES = examples(GUIDE) + examples(FIRST_STEPS)
EXPORTS = {example.command for example in EXAMPLES if example.command.startswith("export ")}
ORDERS = [example for example in EXAMPLES if example.command.startswith("scripts/device exec ")]
QUESTIONS = [example for example in EXAMPLES if re.match(r"snmp\w+ ", example.command)]


@pytest.fixture(scope="module")
def devices(start_shared_device) -> dict[str, Device]:
    devices = {"6420": start_shared_device(6420, "--clock-shift", "--no-traps", wait=False),
               "6214": start_shared_device(6214, "--clock-shift", "--no-traps", "--model-text", EXTENDED, wait=False)}
    for device in devices.values():
        device.wait_ready().wait_answering(60).wait_subscribed(60)
        steps.apply(device)
    for order in ORDERS:
        words = shlex.split(order.command)
        assert words[:3] == ["scripts/device", "exec", "--name"] and words[4] == "--", order.command
        assert devices[words[3]].run(words[5:]).stdout.splitlines() == order.output
    steps.apply(devices["6420"])
    relays = next(question for question in QUESTIONS if question.command.endswith(" relayTable"))
    wait_until(lambda: "low" in ask(devices, relays)[-1], 60, what="last relay read")
    return devices


def ask(devices: dict[str, Device], question: Example) -> list[str]:
    """Runs the command inside its device instead of at port 1161 or 1171 of the host."""
    match = re.search(r"127\.0\.0\.1:(\d+)", question.command)
    device = devices[PORTS[match[1]]]
    device.shift_clock(steps.CACHE_SECONDS)
    script = "\n".join([f"cd {shlex.quote(str(CHECKOUT))}", *EXPORTS, question.command.replace(match[0], "127.0.0.1")])
    return [line.rstrip() for line in device.run(["sh", "-e", "-c", script]).stdout.rstrip("\n").split("\n")]


@pytest.mark.parametrize("question", QUESTIONS, ids=[asked.command.partition(" 127")[2] for asked in QUESTIONS])
def test_command_prints_what_the_guide_says(devices, question):
    answer = ask(devices, question)
    if not os.environ.get("KVSNMP_WRITE_GOLDEN"):
        assert answer == question.output
        return
    lines = question.guide.read_text().splitlines()
    at = lines.index("    $ " + question.command)
    lines[at + 1:at + 1 + len(question.output)] = [f"    {line}".rstrip() for line in answer]
    question.guide.write_text("\n".join(lines) + "\n")


def test_every_table_has_an_example_and_every_example_is_run():
    assert {question.command.split()[-1] for question in QUESTIONS} >= set(TABLES)
    assert len(EXPORTS) == 1 and {example.guide for example in QUESTIONS} == {GUIDE, FIRST_STEPS}
    assert {example.command for example in EXAMPLES} == EXPORTS | {example.command for example in ORDERS + QUESTIONS}


# What the guide says besides


def test_numbers_of_rows_are_those_of_the_golden_walks():
    table = [[cell.strip() for cell in line.strip("|").split("|")] for line in
             re.search(r"^\| table \|.*?\n\n", GUIDE.read_text(), re.MULTILINE | re.DOTALL)[0].strip().splitlines()]
    assert table[0] == ["table", *map(str, MODELS)]
    described = {name: row[1:] for row in table[2:] for name in re.findall(r"`(\w+)`", row[0])}
    assert described == {name: [number_of_rows(table, model) for model in MODELS] for name, table in TABLES.items()}


def number_of_rows(table: Table, model: int) -> str:
    index = table.oid(table.columns[0][0]) + "."
    ordinary, *expanders = [sum(variable.oid.startswith(index) for variable in walk.golden)
                            for walk in WALKS if walk.model == model]
    assert len(set(expanders)) <= 1, "the two model texts differ"
    return f"{ordinary}, {expanders[0]}" if expanders and expanders[0] != ordinary else str(ordinary or "-")


def prose() -> list[str]:
    """Sections without their examples."""
    text = "\n".join(line for line in GUIDE.read_text().splitlines() if not line.startswith("    "))
    return text.replace("letChannelN", "letChannel1").split("\n## ")


def test_names_and_states_in_the_guide_are_the_mibs():
    named = {name for section in prose() for name in re.findall(r"`([a-z]\w*[A-Z]\w*)`", section)}
    assert named - set(mib().nodes) == set()
    assert {re.sub("Channel[12]", "Channel1", column) for column in COLUMN_OIDS
            if not column.endswith(("Index", "Description", "Label"))} - named == set()
    wrong = []
    for section in prose():
        described = {(state, int(code)) for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", section)}
        columns = [mib().objects[name] for name in re.findall(r"`(\w+)`", section) if name in mib().objects]
        enumerations = [column.enumeration for column in columns or mib().objects.values()]
        wrong += [f"{state}({code})" for state, code in described
                  if not any(enumeration.get(code) == state for enumeration in enumerations)]
        for name in re.findall(r"^\| `(\w+)` \|", section, re.MULTILINE):
            if name in COLUMN_OIDS:  # a line of a list of values: every state but "not reported" is described
                wrong += [f"{name}: {state}({code}) is not described" for code, state in mib().objects[name].enumeration.items()
                          if code != 0 and (state, code) not in described]
    assert wrong == []
