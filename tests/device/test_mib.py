"""mibs/KVSNMP-MIB.txt, held to other people's compilers, to the golden walks, the catalogue and the trap table."""
from __future__ import annotations

import os
import re
import subprocess
from pathlib import Path

import pytest
from support import catalogue
from support.catalogue import CODES, COLUMN_OIDS, OBJECTS, TABLE_NAMES, Table
from support.device import CHECKOUT
from support.mib import BASE_MODULES, MIB_ENVIRONMENT, MIB_FILE, MODULE, SERVED_TYPE, compile_mib, mib
from support.snmp import PRIVATE_MIB, Variable, parse

GOLDEN = sorted((Path(__file__).parent / "golden").glob("*.walk"))
each_golden_walk = pytest.mark.parametrize("file", GOLDEN, ids=[file.stem for file in GOLDEN])

NOTIFICATIONS = 20
NOTIFICATION_OBJECTS = ["trapProduct", "trapHostName", "trapLevel", "trapTime", "trapDescription"]
NOTIFICATION_ARC = f"{PRIVATE_MIB}.2.8"  # no 0 in between


def smi(*command: str) -> str:
    environment = os.environ | {"SMIPATH": f"{BASE_MODULES}:{MIB_FILE.parent}"}
    done = subprocess.run(command, capture_output=True, text=True, timeout=60, check=True, env=environment)
    return done.stdout + done.stderr


def net_snmp(*command: str) -> str:
    return subprocess.run(command, capture_output=True, text=True, timeout=60, check=True,
                          env=os.environ | MIB_ENVIRONMENT).stdout


def text_of(name: str) -> str:
    """A DESCRIPTION as one line."""
    return " ".join(mib().nodes[name]["description"].split())


def readable() -> dict[str, str]:
    """Name to OID of everything that can be read."""
    return {item.name: f".{item.oid}" for item in mib().readable}


# Other people's compilers


def test_smilint_says_nothing_but_what_the_served_layout_forces():
    classes: dict[str, set[str]] = {}
    for line in smi("smilint", "-l", "6", "-s", "-m", str(MIB_FILE)).splitlines():
        match = re.search(r"\{([\w-]+)\} \w+: (?:index element `\w+' of row|notification) `(\w+)'", line)
        assert match, line
        assert match[2] not in classes.setdefault(match[1], set()), line
        classes[match[1]].add(match[2])
    rows = {name for name, node in mib().nodes.items() if node.get("nodetype") == "row"}
    assert classes == {"index-element-accessible": rows, "notification-not-reversible": set(mib().notifications)}
    assert len(rows) == len(TABLE_NAMES) and len(mib().notifications) == NOTIFICATIONS


def test_pysmi_compiles_it(tmp_path):
    said = compile_mib(tmp_path)
    assert "Created/updated MIBs: KVSNMP-MIB" in said
    assert re.search(r"^Missing source MIBs: *$", said, re.MULTILINE), said
    assert re.search(r"^Failed MIBs: *$", said, re.MULTILINE), said


def test_net_snmp_reads_it_without_a_word():
    done = subprocess.run(["snmptranslate", "-Td", f"{MODULE}::relayTable"], capture_output=True, text=True, check=True,
                          timeout=60, env=os.environ | MIB_ENVIRONMENT)
    assert done.stderr == ""
    assert f"FROM\t{MODULE}" in done.stdout


def test_the_newest_revision_is_the_last_update():
    module = mib().nodes["kvsnmpMIB"]
    revisions = [revision["revision"] for revision in module["revisions"]]
    assert revisions == sorted(revisions, reverse=True)
    assert module["lastupdated"].startswith(re.sub(r"\D", "", revisions[0])[:8])


def test_it_imports_from_three_modules_only():
    imports = re.search(r"\bIMPORTS\b(.*?);", MIB_FILE.read_text(), re.DOTALL)[1]
    assert re.findall(r"\bFROM\s+(\S+)", imports) == ["SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF"]


# The walks


@each_golden_walk
def test_everything_served_is_in_the_mib_with_its_type_and_values(file):
    complaints = [mib().complaint(variable) for variable in parse(file.read_text())]
    assert not any(complaints), [complaint for complaint in complaints if complaint]


@each_golden_walk
def test_snmptranslate_names_everything_served(file):
    variables = parse(file.read_text())
    names = [line for line in net_snmp("snmptranslate", *(variable.oid for variable in variables)).splitlines() if line]
    expected = []
    for variable in variables:
        item, instance = mib().resolve(variable.oid)
        expected.append(f"{MODULE}::{item.name}.{'.'.join(map(str, instance))}")
    assert names == expected


def test_everything_readable_is_served_by_a_model():
    served = {mib().resolve(variable.oid)[0].name for file in GOLDEN for variable in parse(file.read_text())}
    assert served == set(readable())


@pytest.mark.parametrize("variable, complaint", [
    (Variable(f"{COLUMN_OIDS['powerLive']}.1", "INTEGER", "4"), "powerLive: 4 is not in its enumeration"),
    (Variable(f"{COLUMN_OIDS['powerLive']}.3", "INTEGER", "3"), "powerLive: [3] is no index in [(1, 2)]"),
    (Variable(f"{COLUMN_OIDS['powerLive']}.1", "Gauge32", "3"), "powerLive: served as Gauge32, the MIB says INTEGER"),
    (Variable(f"{COLUMN_OIDS['letChannel1SoftwareVersion']}.1", "STRING", "x" * 21),
     "letChannel1SoftwareVersion: size 21 is not in [(0, 20)]"),
])
def test_the_check_of_served_values_finds_what_is_wrong(variable, complaint):
    assert mib().complaint(variable) == complaint


# The catalogue, column by column


def test_objects_are_the_catalogues():
    expected: dict[str, tuple[str, str]] = {}
    for item in OBJECTS:
        if isinstance(item, Table):
            expected |= {column: (item.oid(column), kind) for column, kind in item.columns}
        else:
            expected[item.name] = (item.oid.removesuffix(".0"), item.type)
    assert {name: (oid, SERVED_TYPE[mib().objects[name].base]) for name, oid in readable().items()} == expected


def test_tables_are_the_catalogues():
    tables = {name: f".{node['oid']}" for name, node in mib().nodes.items() if node.get("nodetype") == "table"}
    assert tables == {item.name: item.oid(item.columns[0][0]).removesuffix(".1.1")
                      for item in OBJECTS if isinstance(item, Table)}
    for item in OBJECTS:
        if isinstance(item, Table):
            assert {mib().objects[column].index for column, _ in item.columns} == {item.columns[0][0]}


def test_enumerations_name_every_code_that_can_be_served_and_no_other():
    named = {name: set(mib().objects[name].enumeration) for name in readable() if mib().objects[name].enumeration}
    assert named == CODES


@pytest.mark.parametrize("column, codes, prefix", [
    ("ampChannelLineState", catalogue.LINE_STATES, ""),
    ("lineInStatus", catalogue.PILOT_TONES, ""),
    ("lineInMicStatus", catalogue.MIC_STATES, ""),
    ("controlInputStatus", catalogue.INPUT_STATES, "ok_|fail_"),
    ("controlOutputState", catalogue.OUTPUT_STATES, "ok_"),
])
def test_states_have_the_names_of_the_words_behind_them(column, codes, prefix):
    """ok_closed is closed, ground_fault is groundFault."""
    words = {code: re.sub(f"^({prefix})", "", word).replace("_", "") for word, code in codes.items()}
    enumeration = mib().objects[column].enumeration
    assert {code: enumeration[code].lower() for code in words} == words


def test_every_index_and_integer_has_a_range():
    integers = [mib().objects[name] for name in readable() if mib().objects[name].base == "Integer32"]
    assert integers and [item.name for item in integers if not item.ranges] == []
    # The indices of all models together, from the lowest to the highest.
    indices: dict[str, set[int]] = {}
    for file in GOLDEN:
        for variable in parse(file.read_text()):
            item, instance = mib().resolve(variable.oid)
            if item.table:
                indices.setdefault(item.index, set()).add(instance[0])
    assert {name: mib().objects[name].ranges for name in indices} == {
        name: [(min(used), max(used))] for name, used in indices.items()}


def test_indices_whose_meaning_differs_among_models_are_named():
    def others(rows: dict[int, list[tuple[int, str, str]]], model: int) -> set[int]:
        """Indices that stand for something else on another model."""
        return {index for index, text, _ in rows[model] for other in rows if other != model
                for place, name, _ in rows[other] if place == index and name != text}

    amplifiers = {model: rows for model, rows in catalogue.VOLTAGES.items() if model != 6410}
    assert not any(others(amplifiers, model) for model in amplifiers)
    named = re.search(r"On 6410 the indices ([\d, and]+) are other lines", text_of("voltageIndex"))[1]
    assert set(map(int, re.findall(r"\d+", named))) == others(catalogue.VOLTAGES, 6410)
    assert others(catalogue.TEMPERATURES, 6410) == {1, 2, 3, 4}
    assert "6410 numbers other sensors" in text_of("tempIndex")
    assert "DC converter on 6764" in text_of("tempIndex")
    assert "keeps its meaning" not in text_of("kvsnmpMIB")


def test_stations_with_expanders_are_named():
    assert catalogue.COMPACT in text_of("infoModelType") and catalogue.EXTENDED in text_of("infoModelType")
    for name, node in mib().nodes.items():
        if "expanders" in (text := " ".join(node.get("description", "").split())):
            assert "infoModelType" in text or name == "infoModelType", name


def test_zero_is_explained_wherever_it_is_no_measurement():
    for name in ("KvMillivolts", "KvTenthsOfDegree", "fanSpeed"):
        text = text_of(name)
        assert all(word in text for word in ("measured", "deleted", "unreadable")), name


def test_conventions_of_measured_values():
    hints = {"KvMillivolts": ("d-3", "volts"), "KvTenthsOfDegree": ("d-1", "degrees Celsius")}
    measured = {name: node for name, node in mib().nodes.items() if node.get("syntax", {}).get("type") in hints}
    assert sorted(measured) == ["letChannel1Voltage", "letChannel2Voltage", "tempAverage", "tempCurrent", "tempPeak",
                                "voltageValue"]
    for node in measured.values():
        convention = node["syntax"]["type"]
        assert (mib().nodes[convention]["displayhint"], node["units"]) == hints[convention]


def test_columns_of_labels_are_named_so():
    labels = {variable.oid.rpartition(".")[0] for file in GOLDEN for variable in parse(file.read_text())
              if variable.text.endswith(" Temperature")}
    assert labels == {oid for column, oid in COLUMN_OIDS.items() if column.endswith("Label")}


def test_everything_is_described_and_in_one_group():
    described = [name for name, node in mib().nodes.items() if "status" in node]
    assert [name for name in described if len(mib().nodes[name].get("description", "")) < 8] == []
    groups = {name: [member["object"] for member in node["objects"]] for name, node in mib().nodes.items()
              if node.get("class") in ("objectgroup", "notificationgroup")}
    members = sorted(member for group in groups.values() for member in group)
    assert members == sorted([*readable(), *NOTIFICATION_OBJECTS, *mib().notifications])
    compliance, = (node for node in mib().nodes.values() if node.get("class") == "modulecompliance")
    assert sorted(group["object"] for group in compliance["modulecompliance"]) == sorted(groups)


# The notifications


def trap_table() -> dict[int, tuple[str, list[str]]]:
    """Arc to name and message identifiers, from the daemon's own table."""
    header = (CHECKOUT / "device/trapcatalogue.h").read_text()
    messages = {name: re.findall(r'"([^"]+)"', texts) for name, texts in
                re.findall(r"constexpr std::string_view (\w+)\[\]\s*= \{([^}]*)\}", header)}
    rows = re.findall(r'^\s*\{\s*\d+,\s*(\d+),\s*"([^"]+)",\s*trapmessages::(\w+)\},', header, re.MULTILINE)
    return {int(arc): (name, messages[identifiers]) for arc, name, identifiers in rows}


def notification_name(trap: str) -> str:
    """"LET Fault" as letFault."""
    words = [word.lower() for word in trap.split()]
    return words[0] + "".join(word.capitalize() for word in words[1:])


def test_notifications_are_those_of_the_trap_table():
    traps = trap_table()
    assert len(traps) == NOTIFICATIONS and sum(len(identifiers) for _, identifiers in traps.values()) == 38
    expected = {notification_name(name): f"{NOTIFICATION_ARC}.{arc}" for arc, (name, _) in traps.items()}
    assert {item.name: f".{item.oid}" for item in mib().notifications.values()} == expected


@pytest.mark.parametrize("arc, name, identifiers", [(arc, *row) for arc, row in sorted(trap_table().items())])
def test_notification_says_what_raises_it_and_what_shows_its_end(arc, name, identifiers):
    notification = mib().notifications[notification_name(name)]
    assert [item["object"] for item in mib().nodes[notification.name]["objects"]] == NOTIFICATION_OBJECTS
    assert (notification.title, notification.messages) == (name, identifiers)
    text = notification.description
    columns = [mib().objects[word] for word in re.findall(r"\w+", text) if word in readable()]
    assert columns or "no object of this module shows" in text.lower()
    for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", text):
        assert any(column.enumeration.get(int(code)) == state for column in columns), f"{state}({code})"
    assert "sysName (1.3.6.1.2.1.1.5, without an instance) stands between trapHostName and trapLevel" in text


ENDS_SHOWN_ON = {
    "missingAmplifierModule": catalogue.TWO_CHANNELS,
    "amplifierShutdown": catalogue.TWO_CHANNELS,
    "amplifierDisabled": catalogue.TWO_CHANNELS,
    "lineInFault": list(catalogue.LINE_INPUTS),
    "dcPowerFault": [6410, 6420],
    "acPowerFault": [6410, 6420],
    "microphoneError": list(catalogue.MICROPHONES),
    "missingEmbdrModule": catalogue.STATIONS,  # those with expanders
}


@pytest.mark.parametrize("name", ENDS_SHOWN_ON)
def test_notification_says_on_which_models_its_end_shows(name):
    text = text_of(name)
    assert [int(number) for number in re.findall(r"\b\d{4}\b", text)] == ENDS_SHOWN_ON[name]
    assert re.search(r"no object of this module shows (it|its end) on other (models|devices)", text)


def test_an_end_shows_where_the_column_is_reported():
    """The models of the two columns that have rows on others as well, from what is served there."""
    for name, column, unknown in (("lineInFault", "lineInStatus", "0"), ("microphoneError", "lineInMicStatus", "0")):
        reported = {int(file.stem.partition("-")[0]) for file in GOLDEN for variable in parse(file.read_text())
                    if mib().resolve(variable.oid)[0].name == column and variable.text != unknown}
        assert sorted(reported) == ENDS_SHOWN_ON[name]


def test_objects_of_notifications_cannot_be_read():
    objects = {name: item for name, item in mib().objects.items() if name not in readable()}
    assert {name: (f".{item.oid}", item.access, SERVED_TYPE[item.base]) for name, item in objects.items()} == {
        name: (f"{PRIVATE_MIB}.2.4.{arc}", "accessible-for-notify", "INTEGER" if name == "trapLevel" else "STRING")
        for arc, name in enumerate(NOTIFICATION_OBJECTS, 1)}
    severities = re.findall(r'\{"\w+",\s*(\d)\}', (CHECKOUT / "faults/faulthandler.cpp").read_text())
    assert set(objects["trapLevel"].enumeration) == {*map(int, severities), 3}


def test_states_that_descriptions_name_are_those_of_the_enumerations():
    """A text that says ok(3) where the enumeration has ok(2) sends an operator the wrong way."""
    everywhere = {(name, code) for item in mib().objects.values() for code, name in item.enumeration.items()}
    described = [node.get("description", "") for node in mib().nodes.values()]
    named = {(name, int(code)) for text in described for name, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", text)}
    assert len(named) > 30
    assert named <= everywhere
    conventions = {name: node for name, node in mib().nodes.items() if node.get("class") == "textualconvention"}
    for name, node in conventions.items():
        own = node["type"].get("constraints", {}).get("enumeration", {})
        for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", node["description"]):
            assert own.get(state) == int(code), f"{name}: {state}({code})"


def test_column_descriptions_name_states_of_their_own_column():
    for name in readable():
        item = mib().objects[name]
        for state, code in re.findall(r"\b([a-z]\w*)\((\d+)\)", mib().nodes[name]["description"]):
            assert item.enumeration.get(int(code)) == state, f"{name}: {state}({code})"


def test_models_that_descriptions_name_exist():
    for name, node in mib().nodes.items():
        for number in re.findall(r"(?<!ISO )\b\d{4}\b", node.get("description", "")):
            assert int(number) in catalogue.MODELS, f"{name}: {number}"
