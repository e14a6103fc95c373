"""mibs/KVSNMP-MIB.txt, checked with compilers, and against the golden walks and the catalogue."""
from __future__ import annotations

import os
import re
import subprocess

import pytest
from support import catalogue
from support.catalogue import CODES, OBJECTS, SEVERITIES, STATIONS, TABLES, TRAPS, WORDS, Scalar
from support.mib import BASE_MODULES, MIB_ENVIRONMENT, MIB_FILE, MODULE, SERVED_TYPE, compile_mib, mib
from support.snmp import PRIVATE_MIB
from support.walks import WALKS

NOTIFICATION_OBJECTS = ["trapProduct", "trapHostName", "trapLevel", "trapTime", "trapDescription"]
STATE = re.compile(r"\b([a-z]\w*)\((\d+)\)")  # as descriptions name one: ok(2)


def run(*command: str, **environment: str) -> str:
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=True, env=os.environ | environment)
    return done.stdout + done.stderr


def text_of(name: str) -> str:
    """A DESCRIPTION as one line."""
    return " ".join(mib().nodes[name].get("description", "").split())


def readable() -> dict[str, str]:
    """Name to OID of everything that can be read."""
    return {item.name: f".{item.oid}" for item in mib().readable}


# Compilers


def test_smilint_reports_only_what_the_served_layout_forces():
    classes: dict[str, set[str]] = {}
    said = run("smilint", "-l", "6", "-s", "-m", str(MIB_FILE), SMIPATH=f"{BASE_MODULES}:{MIB_FILE.parent}")
    for line in said.splitlines():
        match = re.search(r"\{([\w-]+)\} \w+: (?:index element `\w+' of row|notification) `(\w+)'", line)
        assert match, line
        classes.setdefault(match[1], set()).add(match[2])
    rows = {name for name, node in mib().nodes.items() if node.get("nodetype") == "row"}
    assert classes == {"index-element-accessible": rows, "notification-not-reversible": set(mib().notifications)}


def test_pysmi_and_net_snmp_read_it_without_a_complaint(tmp_path):
    said = compile_mib(tmp_path)
    assert "Created/updated MIBs: KVSNMP-MIB" in said
    assert re.search(r"^Missing source MIBs: *$", said, re.MULTILINE) and re.search(r"^Failed MIBs: *$", said, re.MULTILINE), said
    assert run("snmptranslate", "-Td", f"{MODULE}::relayTable", **MIB_ENVIRONMENT).startswith(f"{MODULE}::relayTable\n")


# The walks


def test_everything_served_is_in_the_mib_by_name_with_its_type_and_values():
    served = set()
    for walk in WALKS:
        assert [complaint for variable in walk.golden if (complaint := mib().complaint(variable))] == [], walk.name
        names = []
        for variable in walk.golden:
            item, instance = mib().resolve(variable.oid)
            names.append(f"{MODULE}::{item.name}.{'.'.join(map(str, instance))}")
            served.add(item.name)
        said = run("snmptranslate", *(variable.oid for variable in walk.golden), **MIB_ENVIRONMENT)
        assert [line for line in said.splitlines() if line] == names, walk.name
    assert served == set(readable())


def test_every_index_and_integer_has_a_range():
    """The indices of all models together, from the lowest to the highest."""
    assert [name for name in readable() if mib().objects[name].base == "Integer32" and not mib().objects[name].ranges] == []
    indices: dict[str, set[int]] = {}
    for item, instance in (mib().resolve(variable.oid) for walk in WALKS for variable in walk.golden):
        if item.table:
            indices.setdefault(item.index, set()).add(instance[0])
    assert {name: mib().objects[name].ranges for name in indices} == {
        name: [(min(used), max(used))] for name, used in indices.items()}


# The catalogue, column by column


def test_objects_and_tables_are_the_catalogues():
    expected = {item.name: (item.oid.removesuffix(".0"), item.type) for item in OBJECTS if isinstance(item, Scalar)}
    for table in TABLES.values():
        expected |= {column: (table.oid(column), kind) for column, kind in table.columns}
        assert {mib().objects[column].index for column, _ in table.columns} == {table.columns[0][0]}
    assert {name: (oid, SERVED_TYPE[mib().objects[name].base]) for name, oid in readable().items()} == expected
    assert {name: f".{node['oid']}" for name, node in mib().nodes.items() if node.get("nodetype") == "table"} == {
        table.name: table.oid(table.columns[0][0]).removesuffix(".1.1") for table in TABLES.values()}


def test_enumerations_name_every_code_that_can_be_served_and_no_other():
    assert {name: set(mib().objects[name].enumeration) for name in readable() if mib().objects[name].enumeration} == CODES


@pytest.mark.parametrize("column, parser, prefix", [
    ("ampChannelLineState", "line_state", ""), ("lineInStatus", "pilot_tone", ""),
    ("lineInMicStatus", "mic_status", ""), ("controlInputStatus", "input_state", "ok_|fail_"),
    ("controlOutputState", "output_state", "ok_")])
def test_states_have_the_names_of_the_words_behind_them(column, parser, prefix):
    """ok_closed is closed, ground_fault is groundFault."""
    words = {code: re.sub(f"^({prefix})", "", word).replace("_", "") for word, code in WORDS[parser].items()}
    enumeration = mib().objects[column].enumeration
    assert {code: enumeration[code].lower() for code in words} == words


def test_measured_values_have_their_convention():
    hints = {"KvMillivolts": ("d-3", "volts"), "KvTenthsOfDegree": ("d-1", "degrees Celsius")}
    measured = {name: node for name, node in mib().nodes.items() if node.get("syntax", {}).get("type") in hints}
    assert sorted(measured) == ["letChannel1Voltage", "letChannel2Voltage", "tempAverage", "tempCurrent", "tempPeak",
                                "voltageValue"]
    for node in measured.values():
        convention = node["syntax"]["type"]
        assert (mib().nodes[convention]["displayhint"], node["units"]) == hints[convention]


def test_states_and_models_that_descriptions_name_exist():
    everywhere = {(name, code) for item in mib().objects.values() for code, name in item.enumeration.items()}
    for name, node in mib().nodes.items():
        own = node["type"].get("constraints", {}).get("enumeration", {}) if node.get("class") == "textualconvention" else None
        for state, code in STATE.findall(text_of(name)):
            assert (state, int(code)) in everywhere, f"{name}: {state}({code})"
            assert name not in readable() or mib().objects[name].enumeration.get(int(code)) == state, f"{name}: {state}({code})"
            assert own is None or own.get(state) == int(code), f"{name}: {state}({code})"
        for number in re.findall(r"(?<!ISO )\b\d{4}\b", text_of(name)):
            assert int(number) in catalogue.MODELS, f"{name}: {number}"


def test_indices_whose_meaning_differs_among_models_are_named():
    def different(table: str) -> set[int]:
        """Indices of 6410 that mean something else on another model."""
        others = set(catalogue.MODELS) - {6410}
        elsewhere = {row for model in others for row in catalogue.rows(table, model)}
        return {index for index, text in catalogue.rows(table, 6410)
                if any(index == other and text != name for other, name in elsewhere)}

    named = re.search(r"On 6410 the indices ([\d, and]+) are other lines", text_of("voltageIndex"))[1]
    assert set(map(int, re.findall(r"\d+", named))) == different("voltageTable")
    assert different("tempTable") == {1, 2, 3, 4} and "6410 numbers other sensors" in text_of("tempIndex")


# The notifications


def test_notifications_are_those_of_the_trap_table():
    assert {item.name: (f".{item.oid}", item.title, tuple(item.messages)) for item in mib().notifications.values()} == {
        trap.name: (f"{PRIVATE_MIB}.2.8.{trap.arc}", trap.switch, trap.identifiers) for trap in TRAPS}  # no 0 in between


def test_notifications_say_what_shows_their_end():
    for name, item in mib().notifications.items():
        assert [shown["object"] for shown in mib().nodes[name]["objects"]] == NOTIFICATION_OBJECTS
        columns = [mib().objects[word] for word in re.findall(r"\w+", item.description) if word in readable()]
        assert columns or "no object of this module shows" in item.description.lower(), name
        for state, code in STATE.findall(item.description):
            assert any(column.enumeration.get(int(code)) == state for column in columns), f"{name}: {state}({code})"
        assert ("sysName (1.3.6.1.2.1.1.5, without an instance) stands between trapHostName and trapLevel"
                in item.description)


def test_notifications_say_on_which_models_their_end_shows():
    def models_with(table: str, description: str) -> list[int]:
        return [model for model in catalogue.MODELS if description in dict(catalogue.rows(table, model)).values()]

    amplifiers = models_with("ampChannelTable", "Channel 1")
    for name, models in {"missingAmplifierModule": amplifiers, "amplifierShutdown": amplifiers,
                         "amplifierDisabled": amplifiers, "lineInFault": models_with("lineInTable", "Line In 1"),
                         "dcPowerFault": [6410, 6420], "acPowerFault": [6410, 6420],
                         "microphoneError": models_with("lineInTable", "Microphone Extern"),
                         "missingEmbdrModule": STATIONS}.items():
        assert [int(number) for number in re.findall(r"\b\d{4}\b", text_of(name))] == models, name
        assert re.search(r"no object of this module shows (it|its end) on other (models|devices)", text_of(name)), name


def test_objects_of_notifications_cannot_be_read():
    objects = {name: item for name, item in mib().objects.items() if name not in readable()}
    assert {name: (f".{item.oid}", item.access, SERVED_TYPE[item.base]) for name, item in objects.items()} == {
        name: (f"{PRIVATE_MIB}.2.4.{arc}", "accessible-for-notify", "INTEGER" if name == "trapLevel" else "STRING")
        for arc, name in enumerate(NOTIFICATION_OBJECTS, 1)}
    assert set(objects["trapLevel"].enumeration) == {*SEVERITIES.values(), 3}
