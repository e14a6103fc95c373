"""Values from the data service and the amplifier monitor to the cells that a manager reads, cell by cell from the
catalogue. The unit tests of the parsers and tables test each conversion; here the whole way is tested."""
from __future__ import annotations

import pytest
from support import catalogue, steps
from support.catalogue import COLUMN_OIDS, EXTENDED, PARSERS, WORDS, feeds
from support.device import Device
from support.mib import mib
from support.played import Played
from support.snmp import Variable
from support.steps import Command, put, write

LINE_CONFIG = "/state/config/lines/line[kid='{}']"
CLASS_D = "/state/class_d_amp_status/status"
VOLTAGE, VOLTAGE_PATH = f"{COLUMN_OIDS['voltageValue']}.3", "/state/power_lines/power_line[kid='3v3']/voltage"
UNKNOWN_WORD = "somehow"

# Text, and what is served for it as thousandths, as tenths, as digits, and as an INTEGER (above 2147483647 with the
# sign bit). Texts are read digit by digit: a sign is ignored, and too many decimals give 0.
NUMBERS = {text: dict(zip(("x1000", "x10", "x1", "whole"), map(str, values))) for text, values in {
    "41.2": (41200, 412, 0, 0), "48": (48000, 480, 48, 48), "-5.0": (5000, 50, 0, 0), "-30": (30000, 300, 30, 0),
    "41.25": (41250, 0, 0, 0), "1.2345": (0, 0, 0, 0), "0": (0, 0, 0, 0), "warm 3.5 V": (3500, 35, 0, 0),
    "none": (0, 0, 0, 0), "": (0, 0, 0, 0), "1200.5": (1200500, 12005, 0, 0), "4294967.295": (4294967295, 0, 0, 0),
    "2147483647": (4294966296, 4294967286, 2147483647, 2147483647), "2147483648": (0, 0, 2147483648, -2147483648),
    "4294967295": (4294966296, 4294967286, 4294967295, -1), "4294967296": (0, 0, 0, 0)}.items()}
# As snmpget prints them: at most 19 characters, in ISO 8859-1.
TEXTS = {"2.4.1": "2.4.1", "longer than the place for it": "longer than the pla",
         "\N{LATIN SMALL LETTER U WITH DIAERESIS}": "FC ", "": ""}


def words_of(parser: str) -> dict[str, str]:
    """Text to the value that is served for it."""
    if WORDS[parser]:
        return {word: str(code) for word, code in WORDS[parser].items()}
    kind = PARSERS[parser]["other"]
    return TEXTS if kind == "text" else {text: values[kind] for text, values in NUMBERS.items()}


class Subject:
    def __init__(self, device: Device, expanders: bool) -> None:
        self.device = device
        # A line state also copies the last pilot tone to the input beside it, so the tones are sent after it.
        self.feeds = sorted(feeds(device.model, expanders), key=lambda feed: feed.parser == "pilot_tone")
        self.paths = {feed.path: feed.parser for feed in self.feeds}

    def assert_served(self, expected: dict[str, str]) -> None:
        """The value of each path, in all its cells; each has to be one that the MIB allows."""
        answers = self.device.snmp.get(*(feed.oid for feed in self.feeds))
        served = {feed: text for feed, (_, text) in zip(self.feeds, answers)}
        assert served == {feed: expected[feed.path] for feed in self.feeds}
        assert [said for feed, (kind, text) in zip(self.feeds, answers)
                if kind != "Hex-STRING" and (said := mib().complaint(Variable(feed.oid, kind, text)))] == []

    def send(self, texts: dict[str, str]) -> None:
        steps.apply(self.device, [command for path, text in texts.items() for command in write(path, text)])


MODELS = [6410, 6420, 6425, 6601, 6720, 6764, 6214, 6891]
WITH_EXPANDERS = [6410, 6214]  # a controller with that model text serves fourteen inputs, and has no GPIO lines


@pytest.fixture(scope="module")
def subjects(start_shared_device) -> dict[int, Subject]:
    started = {model: start_shared_device(model, "--clock-shift", "--no-traps",
                                          *(["--model-text", EXTENDED] if model in WITH_EXPANDERS else []), wait=False)
               for model in MODELS}
    for device in started.values():
        device.wait_ready()
    for device in started.values():
        device.wait_answering(60).wait_subscribed(60)
    return {model: Subject(device, model in WITH_EXPANDERS) for model, device in started.items()}


each_model = pytest.mark.parametrize("model", MODELS)


@each_model
def test_every_text_reaches_its_cells(subjects, model):
    """In each round the texts of a parser move on to its next key."""
    subject = subjects[model]
    for turn in range(max(len(words_of(parser)) for parser in subject.paths.values())):
        chosen = {}
        for place, (path, parser) in enumerate(subject.paths.items()):
            words = list(words_of(parser))
            chosen[path] = words[(turn + place) % len(words)]
        subject.send(chosen)
        subject.assert_served({path: words_of(subject.paths[path])[text] for path, text in chosen.items()})


@each_model
def test_delete_and_create(subjects, model):
    subject = subjects[model]
    good = {path: next(iter(words_of(parser).items())) for path, parser in subject.paths.items()}
    created = {path: value for path, (_, value) in good.items()}
    subject.send({path: text for path, (text, _) in good.items()})
    subject.assert_served(created)
    steps.apply(subject.device, [["delete", path] for path in subject.paths])
    deleted = {path: PARSERS[parser]["delete"] for path, parser in subject.paths.items()}
    subject.assert_served({path: value if value.isdigit() else created[path] for path, value in deleted.items()})
    steps.apply(subject.device, [put(path, text) for path, (text, _) in good.items()])
    subject.assert_served(created)


@each_model
def test_unknown_word(subjects, model):
    """Some parsers then serve what they stored last, for any key."""
    subject = subjects[model]
    path_of = {parser: path for path, parser in subject.paths.items() if WORDS[parser]}  # the last key of each parser
    for turn in (0, 1):
        known = {path: list(words_of(parser).items())[turn] for path, parser in subject.paths.items()}
        subject.send({path: text for path, (text, _) in known.items()})
        steps.apply(subject.device, [put(path, UNKNOWN_WORD) for path in path_of.values()])
        expected = {path: value for path, (_, value) in known.items()}
        for parser, path in path_of.items():
            if (other := PARSERS[parser]["other"]) != "last":
                expected[path] = other
        subject.assert_served(expected)


def test_a_table_keeps_its_values_for_60_seconds(subjects):
    device = subjects[6420].device
    steps.apply(device, [put(VOLTAGE_PATH, "1.5")])
    assert steps.integers(device, [VOLTAGE]) == [1500]
    device.carry_out([put(VOLTAGE_PATH, "2.5")])
    device.shift_clock(50)
    assert steps.integers(device, [VOLTAGE]) == [1500]
    device.shift_clock(11)
    assert steps.integers(device, [VOLTAGE]) == [2500]


def test_keys_of_other_models_are_ignored(subjects):
    """What 6425 and 6720 report about their power sources, a third input of 6720, an expander of a station without
    one."""
    power, gpi = "/state/config/power_sources/power_source[kid='{}']/monitored", "/state/config/gpis/gpi[kid='gpi3']"
    relay = "/state/config/gpos/gpo[kid='{}']/delay"
    for model, cell, value, commands in [
            (6425, "powerMonitored.2", 1, write(power.format("dc_power"), "true")),
            (6720, "powerMonitored.1", 1, write(power.format("ac_power"), "true")),
            (6720, "controlInputMonitored.3", 1, [["create", gpi, "<gpi><monitored>true</monitored></gpi>"]]),
            (6891, "relayDelay.1", 40, write(relay.format("relay1"), "40") + write(relay.format("e_relay1"), "50"))]:
        steps.apply(subjects[model].device, commands)
        name, _, index = cell.partition(".")
        assert steps.integers(subjects[model].device, [f"{COLUMN_OIDS[name]}.{index}"]) == [value], cell


# The amplifier monitor


@pytest.mark.parametrize("kind, model, column, count", [("gpo", 6420, "controlOutputState", 6),
                                                        ("gpi", 6410, "controlInputStatus", 14)])
def test_inputs_and_outputs_of_the_amplifier_monitor(subjects, kind, model, column, count):
    device, oids = subjects[model].device, [f"{COLUMN_OIDS[column]}.{index}" for index in range(1, count + 1)]
    states = WORDS["output_state" if kind == "gpo" else "input_state"] | {UNKNOWN_WORD: 1, "": 1}
    for turn in range(len(states)):
        chosen = [list(states)[(turn + place) % len(states)] for place in range(count)]
        steps.apply(device, [["monitor", kind, str(place), text] for place, text in enumerate(chosen)])
        assert steps.integers(device, oids) == [states[text] for text in chosen]
    before = steps.integers(device, oids)
    steps.apply(device, [["monitor", kind, number, "fail_set"] for number in (str(count), "4294967295")])
    assert steps.integers(device, oids) == before


def column(device: Device, name: str, indices: range) -> list[int]:
    return steps.integers(device, [f"{COLUMN_OIDS[name]}.{index}" for index in indices])


LET_PLACES = range(1, 11)


def let_commands() -> list[Command]:
    """LETs 1 to 3 are switched off; odd ones are present. On channel 2 they are counted from 10 downwards."""
    commands = []
    for channel in (0, 1):
        for place in LET_PLACES:
            let = place if channel == 0 else 11 - place
            enabled = f"{LINE_CONFIG.format(f'ch{channel + 1}')}/lets/let[kid='{let}']/enabled"
            commands += [*write(enabled, "true" if place > 3 else "false"),
                         ["monitor", "let", str(channel), str(let), str(1 + place % 2)]]
    return commands


@pytest.mark.parametrize("model, class_d, enabled, monitor, status", [
    (6420, "ok", "true true", "2 1", [3, 5]), (6420, "ok", "true true", "1 2", [5, 3]),
    (6420, "ok", "false true", "2 2", [2, 3]), (6420, "ok", "true false", "1 1", [5, 2]),
    (6420, "failed", "true true", "2 1", [4, 4]), (6420, "", "false true", "2 2", [4, 4]),
    (6425, None, "true true", "1 2", [5, 3]), (6425, None, "false true", "2 1", [2, 5])])
def test_channel_and_let_statuses(subjects, model, class_d, enabled, monitor, status):
    """6425 has no class-D status, and no LETs."""
    device = subjects[model].device
    commands = write(CLASS_D, class_d) if class_d is not None else []
    for channel, (switch, code) in enumerate(zip(enabled.split(), monitor.split())):
        commands += write(f"{LINE_CONFIG.format(f'ch{channel + 1}')}/enable", switch)
        commands.append(["monitor", "amp", str(channel), code])
    steps.apply(device, commands)
    assert column(device, "ampChannelStatus", range(1, 3)) == status
    if model == 6425:
        return
    steps.apply(device, let_commands())
    in_operation = [2, 2, 2, 4, 3, 4, 3, 4, 3, 4]
    for place, numbers in enumerate((LET_PLACES, LET_PLACES[::-1])):
        expected = in_operation if status[place] == 3 else [1] * 10
        assert column(device, f"letChannel{place + 1}Status", numbers) == expected


def test_a_let_keeps_its_status_until_it_is_reported_again(subjects):
    device = subjects[6420].device
    enable = [command for key in ("ch1", "ch2") for command in write(f"{LINE_CONFIG.format(key)}/enable", "true")]
    announced = [["monitor", "amp", channel, "2"] for channel in "01"]
    steps.apply(device, [*write(CLASS_D, "ok"), *enable, *announced])
    steps.apply(device, let_commands())
    before = column(device, "letChannel1Status", LET_PLACES)
    steps.apply(device, write(CLASS_D, "failed"))
    assert column(device, "letChannel1Status", LET_PLACES) == before
    steps.apply(device, [["monitor", "let", "0", "5", "2"]])
    assert column(device, "letChannel1Status", LET_PLACES) == [*before[:4], 1, *before[5:]]


def test_what_no_value_changes(subjects):
    """The fixed texts of the LETs, and the single outputs of the stations."""
    steps.apply(subjects[6420].device, write(f"{LINE_CONFIG.format('ch2')}/lets/let[kid='3']/let_description", "Foyer"))
    description = f"{COLUMN_OIDS['letChannel2Description']}.3"
    assert subjects[6420].device.snmp.get(description) == [("STRING", "LET 3 Channel 2")]
    for model in (6214, 6891):
        steps.apply(subjects[model].device, [["monitor", "amp", "0", "2", "--any"]])
        assert column(subjects[model].device, "ampChannelStatus", range(1, 2)) == [1]


# A data service that the test plays: it sends the SNMP settings, which start snmpd, and nothing else by itself


@pytest.fixture(scope="module")
def silent(start_shared_device):
    devices = [start_shared_device(model, "--clock-shift", "--no-simulator", "--no-dbus", "--no-traps",
                                   *(["--model-text", EXTENDED] if model == 6214 else []), wait=False)
               for model in (6214, 6420, 6425, 6601, 6720)]
    played = {device.model: Played(device.wait_ready()) for device in devices}
    for one in played.values():
        one.send()
    for one in played.values():
        one.device.wait_answering(60).wait_subscribed(60).shift_clock(steps.CACHE_SECONDS)
    yield played
    for one in played.values():
        one.service.close()


def report(played: Played, ref: str, op: str, path: str, text: str) -> str:
    """Sends one notification, and lets the tables expire. Returns what the daemon has logged meanwhile."""
    leaf, before = path.rpartition("/")[2], len(played.device.kvsnmp_err())
    played.service.notify(ref, op, path, f"<{leaf}>{text}</{leaf}>")
    played.wait_received()
    played.device.shift_clock(steps.CACHE_SECONDS)
    return played.device.kvsnmp_err()[before:]


@pytest.mark.parametrize("model", [6214, 6420, 6425, 6601, 6720])
def test_starting_values(silent, model):
    """Runs before the tests that send reports."""
    found: dict[str, list[str]] = {}
    expected = catalogue.first_values(model, model == 6214)
    for variable in silent[model].device.snmp.walk():
        assert not mib().complaint(variable)
        name = mib().resolve(variable.oid)[0].name
        if name in expected and name != "relayStatus":  # the relays are read without a report
            found.setdefault(name, []).append(variable.text)
    assert found == {name: values for name, values in expected.items() if name != "relayStatus"}


def test_channel_status_is_unknown_until_the_class_d_status_is_reported(silent):
    """Then any word but "ok" is a fault, also of a disabled channel."""
    enable, class_d = "kvsnmp_amp_enable", "kvsnmp_class_d_status"
    for ref, path, text, expected in [
            (enable, f"{LINE_CONFIG.format('ch1')}/enable", "true", [1, 1]),
            (enable, f"{LINE_CONFIG.format('ch2')}/enable", "false", [1, 1]),
            (class_d, CLASS_D, "hot", [4, 4]), (class_d, CLASS_D, "ok", [1, 2])]:
        report(silent[6720], ref, "create", path, text)
        assert column(silent[6720].device, "ampChannelStatus", range(1, 3)) == expected, text


def test_unexpected_operation_is_logged_and_changes_nothing(silent):
    for op, text, volts in [("create", "41.2", 41200), ("merge", "50", 41200), ("replace", "50", 50000)]:
        said = report(silent[6420], "kvsnmp_voltage", op, VOLTAGE_PATH, text)
        assert (f"getVoltage op: merge rPath: {VOLTAGE_PATH} sPath: {VOLTAGE_PATH}" in said) == (op == "merge")
        assert steps.integers(silent[6420].device, [VOLTAGE]) == [volts], op


# Managers that other tests do not use


def test_ipv6_managers_are_answered(subjects):
    assert subjects[6420].device.snmp.get(VOLTAGE, address="udp6:[::1]")[0][0] == "Gauge32"


def test_other_communities_are_not_answered(subjects):
    done = subjects[6420].device.snmp.tool("snmpget", [VOLTAGE], check=False,
                                           access=["-v2c", "-c", "guess", "-r", "0", "-t", "0.5"])
    assert done.returncode != 0 and "Timeout" in done.stderr
