"""Values from the data service and the amplifier monitor to the cells that a manager reads, cell by cell from the
catalogue. The unit tests of the parsers and tables have every model, word and number; here the whole way is tested."""
from __future__ import annotations

import pytest
from support import steps
from support.catalogue import COLUMN_OIDS, EXTENDED, PARSERS, WORDS, feeds
from support.device import Device
from support.mib import mib
from support.snmp import Variable
from support.steps import put, write

VOLTAGE, VOLTAGE_PATH = f"{COLUMN_OIDS['voltageValue']}.3", "/state/power_lines/power_line[kid='3v3']/voltage"

# Text, and what is served for it as thousandths, as tenths, as digits, and as an INTEGER (above 2147483647 with the
# sign bit). Texts are read digit by digit: a sign is ignored, and too many decimals give 0.
NUMBERS = {text: dict(zip(("x1000", "x10", "x1", "whole"), map(str, values))) for text, values in {
    "41.2": (41200, 412, 0, 0), "48": (48000, 480, 48, 48), "-5.0": (5000, 50, 0, 0), "1.2345": (0, 0, 0, 0),
    "none": (0, 0, 0, 0), "4294967295": (4294966296, 4294967286, 4294967295, -1)}.items()}
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


@pytest.fixture(scope="module")
def subjects(start_shared_device) -> dict[int, Subject]:
    """An amplifier, and a station with expanders."""
    started = {model: start_shared_device(model, "--clock-shift", "--no-traps", *options, wait=False)
               for model, options in ((6420, []), (6214, ["--model-text", EXTENDED]))}
    for device in started.values():
        device.wait_ready().wait_answering(60).wait_subscribed(60)
    return {model: Subject(device, model == 6214) for model, device in started.items()}


@pytest.mark.parametrize("model", [6420, 6214])
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


def test_a_table_keeps_its_values_for_60_seconds(subjects):
    device = subjects[6420].device
    steps.apply(device, [put(VOLTAGE_PATH, "1.5")])
    assert steps.integers(device, [VOLTAGE]) == [1500]
    device.carry_out([put(VOLTAGE_PATH, "2.5")])
    device.shift_clock(50)
    assert steps.integers(device, [VOLTAGE]) == [1500]
    device.shift_clock(11)
    assert steps.integers(device, [VOLTAGE]) == [2500]


@pytest.mark.parametrize("kind, column", [("gpo", "controlOutputState"), ("gpi", "controlInputStatus")])
def test_inputs_and_outputs_of_the_amplifier_monitor(subjects, kind, column):
    device, oids = subjects[6420].device, [f"{COLUMN_OIDS[column]}.{index}" for index in range(1, 7)]
    states = WORDS["output_state" if kind == "gpo" else "input_state"] | {"somehow": 1, "": 1}
    for turn in range(len(states)):
        chosen = [list(states)[(turn + place) % len(states)] for place in range(6)]
        steps.apply(device, [["monitor", kind, str(place), text] for place, text in enumerate(chosen)])
        assert steps.integers(device, oids) == [states[text] for text in chosen]


def test_statuses_of_channels_and_transponders(subjects):
    """From the data service and the amplifier monitor."""
    device = subjects[6420].device
    commands = write("/state/class_d_amp_status/status", "ok")
    for channel in (0, 1):
        line = f"/state/config/lines/line[kid='ch{channel + 1}']"
        commands += [*write(f"{line}/enable", "true"), ["monitor", "amp", str(channel), "2"]]
        for let, enabled, presence in [(3, "false", 1), (4, "true", 1), (5, "true", 2)]:
            commands += [*write(f"{line}/lets/let[kid='{let}']/enabled", enabled),
                         ["monitor", "let", str(channel), str(let), str(presence)]]
    steps.apply(device, [*commands, ["monitor", "amp", "0", "2"], ["monitor", "amp", "1", "2"]])
    for channel in (1, 2):
        lets = [f"{COLUMN_OIDS[f'letChannel{channel}Status']}.{let}" for let in (3, 4, 5)]
        assert steps.integers(device, [f"{COLUMN_OIDS['ampChannelStatus']}.{channel}", *lets]) == [3, 2, 4, 3]
    steps.apply(device, [["monitor", "amp", "0", "1"], *write("/state/config/lines/line[kid='ch2']/enable", "false")])
    assert steps.integers(device, [f"{COLUMN_OIDS['ampChannelStatus']}.{channel}" for channel in (1, 2)]) == [5, 2]


def test_other_managers(subjects):
    """Over IPv6, and with a wrong community."""
    snmp = subjects[6420].device.snmp
    assert snmp.get(VOLTAGE, address="udp6:[::1]")[0][0] == "Gauge32"
    done = snmp.tool("snmpget", [VOLTAGE], check=False, access=["-v2c", "-c", "guess", "-r", "0", "-t", "0.5"])
    assert done.returncode != 0 and "Timeout" in done.stderr
