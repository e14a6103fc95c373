"""Every word of the data service and of the amplifier monitor on its way to the code that a manager reads."""
from __future__ import annotations

from collections.abc import Callable
from typing import NamedTuple

import pytest
from support import catalogue, steps
from support.catalogue import COLUMN_OIDS, EXTENDED
from support.device import Device
from support.mib import mib
from support.polling import wait_until
from support.snmp import Variable
from support.steps import Command, put, write

# Every device begins with words that no parser knows, so that what they give before any known one is seen.
UNKNOWN = "somehow"

LINE = "/state/lines/line[kid='{}']"
LINE_CONFIG = "/state/config/lines/line[kid='{}']"
PORT = "/state/config/os_ip/eth_switch/port[port_id='{}']/monitored"
POWER = "/state/power_sources/power_source[kid='{}']/live"
POWER_CONFIG = "/state/config/power_sources/power_source[kid='{}']/monitored"
INPUT = "/state/config/gpis/gpi[kid='gpi{}']/monitored"
RELAY = "/state/config/gpos/gpo[kid='{}']/{}"
GPIO = "/state/config/gpios/gpio[kid='gpio{}']/gpio_type"
CLASS_D = "/state/class_d_amp_status/status"


class Cell(NamedTuple):
    """One source and the rows that show it."""
    source: str
    indices: list[int]


def cells(path: str, keys: dict) -> list[Cell]:
    return [Cell(path.format(key), indices if isinstance(indices, list) else [indices])
            for key, indices in keys.items()]


UNCHANGED, LAST = "unchanged", "last"  # the row stays; the row takes what its parser produced last


class Words(NamedTuple):
    name: str
    device: str
    column: str
    cells: list[Cell]
    codes: dict[str, int]
    on_delete: int | str
    on_other: int | str
    first: int | None  # what a row shows whose first word is not known

    def oids(self) -> list[str]:
        return [f"{COLUMN_OIDS[self.column]}.{index}" for cell in self.cells for index in cell.indices]


RELAY_ROWS = {"relay1": 1, "relay2": 2, "e_relay1": [3, 5], "e_relay2": [4, 6]} | {
    f"e_relay{number}": 4 + number for number in range(3, 9)}  # the first two feed a row of the station, too
SIX_INPUTS = {number: number for number in range(1, 7)}

# Decimal unsigned integers; what does not fit or is none gives 0. Above 2147483647 the sign bit is served.
DELAYS = {"0": 0, "75": 75, "2147483647": 2147483647, "2147483648": -2147483648, "4294967295": -1, "4294967296": 0,
          "-5": 0, "1.5": 0, "soon": 0, "": 0}

WORDS = [
    Words("line state", "6420", "ampChannelLineState",
          cells(LINE + "/characteristics/line_state", {"ch1": 1, "ch2": 2}), catalogue.LINE_STATES, UNCHANGED, 1, 1),
    Words("pilot tone", "6410", "lineInStatus", cells(LINE + "/pilot_tone_state", {"ln1": 1, "ln2": 2}),
          catalogue.PILOT_TONES, 1, LAST, 0),
    Words("microphone", "6214", "lineInMicStatus",
          cells("/state/lines/{}", {"mic_status_extern": 3, "mic_status_intern": 4}), catalogue.MIC_STATES, 4, LAST, 0),
    Words("pilot tone monitoring", "6420", "lineInMonitoring",
          cells(LINE_CONFIG + "/pilot_tone_sensing_enable", {"ln1": 1, "ln2": 2}), catalogue.LINE_IN_MONITORING,
          2, LAST, 0),
    Words("microphone monitoring", "6214", "lineInMonitoring",
          cells(LINE_CONFIG + "/mic_monitor_enable", {"mic": 3, "ln_in": 4}), catalogue.LINE_IN_MONITORING, 2, LAST, 0),
    Words("Ethernet monitored", "6420", "ethMonitoringMonitored", cells(PORT, {"Eth1": 1, "Eth2": 2}),
          catalogue.ETH_MONITORED, 2, LAST, 0),
    Words("power live", "6420", "powerLive", cells(POWER, {"ac_power": 1, "dc_power": 2}), catalogue.POWER_LIVE,
          1, LAST, 0),
    Words("power live on a controller", "6410", "powerLive", cells(POWER, {"ac_power": 1, "dc_power": 2}),
          catalogue.POWER_LIVE, 1, LAST, 0),
    Words("power monitored", "6420", "powerMonitored", cells(POWER_CONFIG, {"ac_power": 1, "dc_power": 2}),
          catalogue.POWER_MONITORED, 1, LAST, 0),
    Words("input monitored", "6420", "controlInputMonitored", cells(INPUT, SIX_INPUTS), catalogue.INPUT_MONITORED,
          1, 1, 1),
    Words("input monitored, two inputs", "6720", "controlInputMonitored", cells(INPUT, {1: 1, 2: 2}),
          catalogue.INPUT_MONITORED, 1, 1, 1),
    Words("relay idle mode", "6214", "relayIdleMode", cells(RELAY.replace("/{}", "/idle_mode"), RELAY_ROWS),
          catalogue.IDLE_MODES, 1, LAST, 0),
    Words("relay delay", "6214", "relayDelay", cells(RELAY.replace("/{}", "/delay"), RELAY_ROWS), DELAYS, 0, 0, 0),
]
each_word_table = pytest.mark.parametrize("words", WORDS, ids=[words.name for words in WORDS])

TEXTS = {"6410": EXTENDED, "6214": EXTENDED}  # a controller of that name has the fourteen inputs, and no GPIO lines
DEVICES = ["6410", "6420", "6425", "6720", "6214", "6891"]


@pytest.fixture(scope="module")
def devices(start_shared_device) -> dict[str, Device]:
    devices = {}
    for name in DEVICES:
        options = ["--clock-shift", "--no-traps"]
        if name in TEXTS:
            options += ["--model-text", TEXTS[name]]
        for words in WORDS:
            if words.device == name:
                options += [part for cell in words.cells for part in ("--set", f"{cell.source}={UNKNOWN}")]
        devices[name] = start_shared_device(int(name), *options, wait=False)
    for device in devices.values():
        device.wait_ready()
    for device in devices.values():
        device.wait_answering(60).wait_subscribed(60)
        steps.apply(device)
    return devices


@pytest.fixture(scope="module")
def first_values(devices) -> dict[str, dict[str, Variable]]:
    """What each device serves before a test has told it anything."""
    return {name: {variable.oid: variable for variable in device.snmp.walk()} for name, device in devices.items()}


@pytest.fixture(autouse=True)
def first(first_values) -> None:
    """All first values are read before the first test begins."""


def column(device: Device, name: str, indices: list[int]) -> list[int]:
    """Values of one column in one request; each has to be one that the MIB allows."""
    oids = [f"{COLUMN_OIDS[name]}.{index}" for index in indices]
    answers = device.snmp.get(*oids)
    complaints = [mib().complaint(Variable(oid, *answer)) for oid, answer in zip(oids, answers)]
    assert not any(complaints), complaints
    return [int(text) for _, text in answers]


def shown(device: Device, words: Words) -> list[list[int]]:
    """What the rows of each cell show."""
    values = iter(column(device, words.column, [index for cell in words.cells for index in cell.indices]))
    return [[next(values) for _ in cell.indices] for cell in words.cells]


def expanded(words: Words, codes: list[int]) -> list[list[int]]:
    return [[code] * len(cell.indices) for cell, code in zip(words.cells, codes)]


# One table of words after the other


@each_word_table
def test_unknown_text_before_any_known_one(first_values, words):
    """Where a parser keeps what it produced last, that is 0 then."""
    values = first_values[words.device]
    assert [int(values[oid].text) for oid in words.oids()] == [words.first] * len(words.oids())
    assert not any(mib().complaint(values[oid]) for oid in words.oids())


@each_word_table
def test_every_text_is_served_as_its_code(devices, words):
    """On every row: in each round the texts move on by one row."""
    device, texts = devices[words.device], list(words.codes)
    for turn in range(len(texts)):
        chosen = [texts[(turn + place) % len(texts)] for place in range(len(words.cells))]
        steps.apply(device, [command for cell, text in zip(words.cells, chosen)
                             for command in write(cell.source, text)])
        assert shown(device, words) == expanded(words, [words.codes[text] for text in chosen]), chosen


@each_word_table
def test_delete(devices, words):
    device = devices[words.device]
    text, code = list(words.codes.items())[-1] if words.column != "relayDelay" else ("75", 75)
    steps.apply(device, [command for cell in words.cells for command in write(cell.source, text)])
    assert shown(device, words) == expanded(words, [code] * len(words.cells))
    steps.apply(device, [["delete", cell.source] for cell in words.cells])
    after = code if words.on_delete == UNCHANGED else words.on_delete
    assert shown(device, words) == expanded(words, [after] * len(words.cells))
    steps.apply(device, [put(cell.source, text) for cell in words.cells])  # made anew: a "create"
    assert shown(device, words) == expanded(words, [code] * len(words.cells))


@pytest.mark.parametrize("words", [words for words in WORDS if words.on_other == LAST],
                         ids=[words.name for words in WORDS if words.on_other == LAST])
def test_unknown_text_is_handled_and_leaves_the_scratch_value_unchanged(devices, words):
    """The row takes what the parser produced last, for whichever key."""
    device, (one, other, *_) = devices[words.device], words.cells
    for text, code in words.codes.items():
        different = next(word for word in words.codes if word != text)
        steps.apply(device, [*write(other.source, different), *write(one.source, text), put(other.source, UNKNOWN)])
        values = shown(device, words)
        assert values[:2] == expanded(words, [code, code])[:2], text
    steps.apply(device, [["delete", one.source], put(other.source, UNKNOWN + " else"), put(one.source, text)])
    assert shown(device, words)[1] == [words.on_delete] * len(other.indices), "delete, too, is what was produced last"


@pytest.mark.parametrize("words", [words for words in WORDS if isinstance(words.on_other, int)],
                         ids=[words.name for words in WORDS if isinstance(words.on_other, int)])
@pytest.mark.parametrize("other", [UNKNOWN, "", "OK", "TRUE"])
def test_other_text(devices, words, other):
    device = devices[words.device]
    text, code = list(words.codes.items())[1]
    steps.apply(device, [command for cell in words.cells for command in write(cell.source, text)])
    assert shown(device, words) == expanded(words, [code] * len(words.cells))
    steps.apply(device, [put(cell.source, other) for cell in words.cells])
    assert shown(device, words) == expanded(words, [words.on_other] * len(words.cells))


def test_line_state_copies_the_last_pilot_tone(devices):
    """Each report of a line, "delete" included, puts the pilot tone produced last into the line input beside it."""
    device = devices["6420"]
    tone, state = LINE + "/pilot_tone_state", LINE + "/characteristics/line_state"
    steps.apply(device, [*write(tone.format("ln2"), "ok"), *write(tone.format("ln1"), "failed")])
    assert column(device, "lineInStatus", [1, 2]) == [3, 2]
    steps.apply(device, write(state.format("ch2"), "line_fault"))
    assert column(device, "lineInStatus", [1, 2]) == [3, 3]
    steps.apply(device, [*write(tone.format("ln2"), "ok"), ["delete", state.format("ch1")]])
    assert column(device, "lineInStatus", [1, 2]) == [2, 2]
    steps.apply(device, [put(state.format("ch1"), "ok")])


def test_inputs_beyond_those_of_the_model_are_not_looked_at(devices):
    device = devices["6720"]
    steps.apply(device, [["create", "/state/config/gpis/gpi[kid='gpi3']", "<gpi><monitored>true</monitored></gpi>"],
                         *write(INPUT.format(1), "true"), *write(INPUT.format(2), "true")])
    assert column(device, "controlInputMonitored", list(range(1, 7))) == [2, 2, 1, 1, 1, 1]


@pytest.mark.parametrize("name, index, key", [("6425", 2, "dc_power"), ("6720", 1, "ac_power")])
def test_power_monitored_of_three_models_is_subscribed_and_ignored(devices, name, index, key):
    device = devices[name]
    assert "kvsnmp_power_monitoring" in device.talctl("subscriptions")
    for text in ("false", "true"):
        steps.apply(device, write(POWER_CONFIG.format(key), text))
        assert column(device, "powerMonitored", [index]) + column(device, "powerLive", [index]) == [1, 1]


def test_relay1_alone_is_read_on_a_station_without_expanders(devices):
    device = devices["6891"]
    assert len(device.snmp.walk(COLUMN_OIDS["relayIndex"])) == 1
    steps.apply(device, [*write(RELAY.format("relay1", "delay"), "40"), *write(RELAY.format("e_relay1", "delay"), "50"),
                         *write(RELAY.format("relay1", "idle_mode"), "normal_closed")])
    assert column(device, "relayDelay", [1]) + column(device, "relayIdleMode", [1]) == [40, 2]


# Measured values


MEASURED = {  # text to value in tenths of a degree, and in thousandths of a volt
    "41.2": (412, 41200), "48": (480, 48000), "-5.0": (50, 5000), "41.25": (0, 41250), "1.2345": (0, 0), "0": (0, 0),
    "warm 3.5 V": (35, 3500), "none": (0, 0), "": (0, 0), "4294967.295": (0, 4294967295),
}


def test_texts_of_temperatures_and_voltages(devices):
    """Read digit by digit: no sign, 0 with more decimals than are kept."""
    device = devices["6420"]
    sensors = ["amp_class_d_amp_1", "amp_class_d_amp_2", "amp_main_board", "amp_ac_power", "amp_dc_power"]
    fields = {"current": "tempCurrent", "peak": "tempPeak", "average": "tempAverage"}
    texts = list(MEASURED)
    for turn in range(2):
        chosen = [texts[(5 * turn + place) % len(texts)] for place in range(5)]
        commands: list[Command] = []
        for sensor, text in zip(sensors, chosen):
            for field in fields:
                commands += write(f"/state/temp_sensors/temp_sensor[kid='{sensor}']/temp_{field}", text)
        for key, text in zip(["1v8SW", "1v8", "3v3", "5v0", "12v7"], chosen):
            commands += write(f"/state/power_lines/power_line[kid='{key}']/voltage", text)
        for let, text in zip(range(1, 6), chosen):
            commands += write(f"{LINE.format('ch1')}/lets/let[kid='{let}']/let_vcc", text)
            commands += write(f"{LINE.format('ch2')}/lets/let[kid='{11 - let}']/let_vcc", text)
        steps.apply(device, commands)
        for name in fields.values():
            assert column(device, name, [1, 2, 3, 4, 5]) == [MEASURED[text][0] for text in chosen]
        millivolts = [MEASURED[text][1] for text in chosen]
        assert column(device, "voltageValue", [1, 2, 3, 4, 5]) == millivolts
        assert column(device, "letChannel1Voltage", [1, 2, 3, 4, 5]) == millivolts
        assert column(device, "letChannel2Voltage", [10, 9, 8, 7, 6]) == millivolts


@pytest.mark.parametrize("text, speed", [
    ("1200", 1200), ("1200.5", 0), ("-30", 30), ("fast", 0), ("4294967295", 4294967295)])
def test_texts_of_fan_speeds(devices, text, speed):
    device = devices["6420"]
    fans = [f"/state/fans/fan[kid='{key}']/speed_sensor_rpm" for key in ("amp_power", "amp_class_d")]
    steps.apply(device, [*write(fans[0], text), *write(fans[1], "900")])
    assert column(device, "fanSpeed", [1, 2]) == [speed, 900]


def test_deleted_measurements_read_0(devices):
    device = devices["6420"]
    paths = {"/state/power_lines/power_line[kid='24v0FB']/voltage": ("voltageValue", 8),
             "/state/temp_sensors/temp_sensor[kid='amp_main_board']/temp_peak": ("tempPeak", 3),
             "/state/fans/fan[kid='amp_class_d']/speed_sensor_rpm": ("fanSpeed", 2),
             f"{LINE.format('ch2')}/lets/let[kid='7']/let_vcc": ("letChannel2Voltage", 7)}
    steps.apply(device, [command for path in paths for command in write(path, "7")])
    assert [column(device, name, [index]) for name, index in paths.values()] == [[7000], [70], [7], [7000]]
    steps.apply(device, [["delete", path] for path in paths])
    assert [column(device, name, [index]) for name, index in paths.values()] == [[0]] * 4
    steps.apply(device, [put(path, "8") for path in paths])
    assert [column(device, name, [index]) for name, index in paths.values()] == [[8000], [80], [8], [8000]]


# Control inputs and outputs, announced by the amplifier monitor


def test_output_states_of_the_amplifier_monitor(devices):
    device, states = devices["6420"], catalogue.OUTPUT_STATES | {UNKNOWN: 1, "": 1}
    for turn in range(len(states)):
        chosen = [list(states)[(turn + place) % len(states)] for place in range(6)]
        # the system's own state, the second text, does not matter
        steps.apply(device, [["monitor", "gpo", str(place), text, "ok_set"] for place, text in enumerate(chosen)])
        assert column(device, "controlOutputState", list(range(1, 7))) == [states[text] for text in chosen]
    before = column(device, "controlOutputState", list(range(1, 7)))
    steps.apply(device, [["monitor", "gpo", "6", "fail_set"], ["monitor", "gpo", "4294967295", "fail_set"]])
    assert column(device, "controlOutputState", list(range(1, 7))) == before


def test_input_states_of_the_amplifier_monitor(devices):
    """Ids 0 to 13; this device shows all fourteen."""
    device, states, indices = devices["6410"], catalogue.INPUT_STATES | {UNKNOWN: 1, "": 1}, list(range(1, 15))
    for turn in range(len(states)):
        chosen = [list(states)[(turn + place) % len(states)] for place in range(14)]
        steps.apply(device, [["monitor", "gpi", str(place), text] for place, text in enumerate(chosen)])
        assert column(device, "controlInputStatus", indices) == [states[text] for text in chosen]
    before = column(device, "controlInputStatus", indices)
    steps.apply(device, [["monitor", "gpi", "14", "fail_shorted"], ["monitor", "gpi", "4294967295", "fail_shorted"]])
    assert column(device, "controlInputStatus", indices) == before


# Amplifier channels


@pytest.mark.parametrize("class_d", ["ok", "failed", ""])
@pytest.mark.parametrize("enabled, monitor, status", [
    (["true", "true"], [2, 1], [3, 5]),
    (["true", "true"], [1, 2], [5, 3]),
    (["false", "true"], [2, 2], [2, 3]),
    (["true", "false"], [1, 1], [5, 2]),
], ids=["first ok", "second ok", "first off", "second off"])
def test_amplifier_channel_status(devices, class_d, enabled, monitor, status):
    device = devices["6420"]
    set_amplifier(device, class_d, enabled, monitor)
    assert column(device, "ampChannelStatus", [1, 2]) == (status if class_d == "ok" else [4, 4])


def set_amplifier(device: Device, class_d: str, enabled: list[str], monitor: list[int]) -> None:
    commands = write(CLASS_D, class_d) if class_d is not None else []
    for channel in (0, 1):
        commands += write(f"{LINE_CONFIG.format(f'ch{channel + 1}')}/enable", enabled[channel])
        commands.append(["monitor", "amp", str(channel), str(monitor[channel])])
    steps.apply(device, commands)


def test_amplifier_status_takes_no_notice_of_what_it_does_not_know(devices):
    device = devices["6420"]
    set_amplifier(device, "ok", ["true", "false"], [2, 2])
    assert column(device, "ampChannelStatus", [1, 2]) == [3, 2]
    enable = [f"{LINE_CONFIG.format(key)}/enable" for key in ("ch1", "ch2")]
    steps.apply(device, [*(put(path, UNKNOWN) for path in enable), *(["delete", path] for path in enable),
                         ["monitor", "amp", "2", "1"], ["monitor", "amp", "0", "0"], ["monitor", "amp", "0", "3"],
                         ["monitor", "power", "100", "200"]])
    assert column(device, "ampChannelStatus", [1, 2]) == [3, 2]
    steps.apply(device, [["delete", CLASS_D]])
    assert column(device, "ampChannelStatus", [1, 2]) == [3, 2]
    steps.apply(device, [put(CLASS_D, "ok"), *(put(path, "true") for path in enable)])
    assert column(device, "ampChannelStatus", [1, 2]) == [3, 3]


def test_channel_that_the_amplifier_monitor_has_not_announced(devices, first_values):
    device = devices["6720"]
    statuses = [f"{COLUMN_OIDS['ampChannelStatus']}.{index}" for index in (1, 2)]
    assert [first_values["6720"][oid].text for oid in statuses] == ["1", "1"]
    enable = f"{LINE_CONFIG.format('ch1')}/enable"
    for commands, status in [([put(enable, "false")], [2, 1]), ([put(enable, "true")], [1, 1]),
                             ([put(CLASS_D, "failed")], [4, 4]), ([put(CLASS_D, "ok")], [1, 1])]:
        steps.apply(device, commands)
        assert column(device, "ampChannelStatus", [1, 2]) == status


def test_model_without_class_d_status_counts_as_one_that_is_ok(devices):
    device = devices["6425"]
    set_amplifier(device, None, ["true", "true"], [1, 2])
    assert column(device, "ampChannelStatus", [1, 2]) == [5, 3]
    set_amplifier(device, None, ["false", "true"], [2, 1])
    assert column(device, "ampChannelStatus", [1, 2]) == [2, 5]


def test_single_outputs_keep_1(devices):
    for name in ("6214", "6891"):
        steps.apply(devices[name], [["monitor", "amp", "0", "2"]])
        for kept in ("ampChannelStatus", "ampChannelLineState"):
            assert column(devices[name], kept, [1]) == [1]


# Line end transponders

LET_CONFIG = LINE_CONFIG + "/lets/let[kid='{}']/{}"
LET_STATE = LINE + "/lets/let[kid='{}']/{}"
ALL_LETS = list(range(1, 11))


def let_commands(enabled: Callable[[int], str], presence: Callable[[int], int]) -> list[Command]:
    """For every LET; the two channels count in opposite directions."""
    commands = []
    for channel in (0, 1):
        for let in ALL_LETS:
            place = let if channel == 0 else 11 - let
            commands += write(LET_CONFIG.format(f"ch{channel + 1}", let, "enabled"), enabled(place))
            commands.append(["monitor", "let", str(channel), str(let), str(presence(place))])
    return commands


def let_status(device: Device) -> list[int]:
    """Of both channels, the second counted backwards."""
    return column(device, "letChannel1Status", ALL_LETS) + column(device, "letChannel2Status", ALL_LETS[::-1])


@pytest.mark.parametrize("class_d, enabled, monitor, channel_status", [
    ("ok", "true", 2, 3), ("ok", "true", 1, 5), ("ok", "false", 2, 2), ("failed", "true", 2, 4)])
def test_let_status_on_both_channels(devices, class_d, enabled, monitor, channel_status):
    device = devices["6420"]
    set_amplifier(device, class_d, [enabled] * 2, [monitor] * 2)
    assert column(device, "ampChannelStatus", [1, 2]) == [channel_status] * 2
    steps.apply(device, let_commands(lambda place: "true" if place > 3 else "false", lambda place: 1 + place % 2))
    in_operation = [2, 2, 2, 4, 3, 4, 3, 4, 3, 4]  # 2: off; 4: reported with 1; 3: reported with 2
    assert let_status(device) == (in_operation if channel_status == 3 else [1] * 10) * 2


def test_let_status_is_not_worked_out_anew_when_the_channel_alone_changes(devices):
    device = devices["6420"]
    set_amplifier(device, "ok", ["true"] * 2, [2] * 2)
    steps.apply(device, let_commands(lambda _: "true", lambda _: 2))
    assert let_status(device) == [3] * 20
    set_amplifier(device, "failed", ["true"] * 2, [2] * 2)
    assert let_status(device) == [3] * 20
    steps.apply(device, [["monitor", "let", "0", "4", "2"]])
    assert let_status(device) == [3, 3, 3, 1] + [3] * 16


def test_let_takes_no_notice_of_what_it_does_not_know(devices):
    device = devices["6420"]
    set_amplifier(device, "ok", ["true"] * 2, [2] * 2)
    steps.apply(device, let_commands(lambda _: "true", lambda _: 2))
    path = LET_CONFIG.format("ch1", 1, "enabled")
    steps.apply(device, [["monitor", "let", *numbers.split()] for numbers in
                         ("2 1 1", "4294967295 1 1", "0 0 1", "0 11 1", "0 1 0", "0 1 3", "1 11 1")]
                + [put(path, UNKNOWN), ["delete", path]])
    assert let_status(device) == [3] * 20
    steps.apply(device, [put(path, "false")])
    assert let_status(device) == [2] + [3] * 19
    steps.apply(device, [["monitor", "let", "0", "1", "1"]])
    assert let_status(device) == [2] + [3] * 19, "a transponder that is off is not missed"


@pytest.mark.parametrize("leaf, name", [("sw_version", "SoftwareVersion"), ("hw_version", "HardwareVersion")])
def test_let_versions(devices, leaf, name):
    device = devices["6420"]

    def versions(let: int) -> list[tuple[str, str]]:
        return device.snmp.get(*(f"{COLUMN_OIDS[f'letChannel{channel}{name}']}.{let}" for channel in (1, 2)))

    def both(text: str) -> list[Command]:
        return [command for channel in ("ch1", "ch2")
                for command in write(LET_STATE.format(channel, 9, leaf), text + channel)]

    for text, served in [("2.4.1 ", "2.4.1 ch1"), ("sixteen letters ", "sixteen letters ch1"),
                         ("longer than the place for it ", "longer than the pla")]:
        steps.apply(device, both(text))
        assert versions(9) == [("STRING", served), ("STRING", served.replace("ch1", "ch2"))]
    steps.apply(device, both("\N{LATIN SMALL LETTER U WITH DIAERESIS}"))
    assert versions(9) == [("Hex-STRING", "FC 63 68 31 "), ("Hex-STRING", "FC 63 68 32 ")]  # ISO 8859-1
    steps.apply(device, both("kept ") + [["delete", LET_STATE.format(channel, 9, leaf)] for channel in ("ch1", "ch2")])
    assert versions(9) == [("STRING", "kept ch1"), ("STRING", "kept ch2")]
    steps.apply(device, [put(LET_STATE.format(channel, 9, leaf), "") for channel in ("ch1", "ch2")])
    assert versions(9) == [("STRING", "")] * 2


def test_let_description_stays_the_fixed_text(devices):
    device = devices["6420"]
    steps.apply(device, write(LET_CONFIG.format("ch2", 3, "let_description"), "Foyer"))
    assert device.snmp.get(f"{COLUMN_OIDS['letChannel2Description']}.3") == [("STRING", "LET 3 Channel 2")]


# General-purpose pins and relays of the stations, read line by line, one a second


def wait_for_cycle(device: Device, last_relay: int, line: str) -> None:
    """Until every line has been read after now: the relay that is read last has shown both its levels."""
    for level in (1, 0):
        device.talctl("gpio", line, str(level))

        def seen() -> bool:
            device.shift_clock(steps.CACHE_SECONDS)
            return column(device, "relayStatus", [last_relay]) == [2 + level]

        wait_until(seen, 60, what=f"{line} read as {level}")


def pins(device: Device, numbers: list[int]) -> tuple[list[int], list[int]]:
    return (column(device, "controlInputStatus", numbers),
            column(device, "controlOutputState", [number for number in numbers if number <= 6]))


@pytest.mark.parametrize("kind, inputs, outputs", [
    ("gpi", [2, 3, 1, 2, 3, 1], [1] * 6),
    ("gpo", [1] * 6, [2, 3, 1, 2, 3, 1]),
    ("none", [1] * 6, [1] * 6),
    ("", [1] * 6, [1] * 6),
    ("delete", [1] * 6, [1] * 6),
], ids=["input", "output", "other text", "empty text", "delete"])
def test_gpio_type_decides_who_shows_the_line(devices, kind, inputs, outputs):
    device = devices["6891"]
    levels = ["0", "1", "unreadable"] * 2
    commands = [["gpio", f"gpio{number}", level] for number, level in enumerate(levels, 1)]
    for number in range(1, 7):
        path = GPIO.format(number)
        commands += write(path, "gpi") + [["delete", path]] if kind == "delete" else write(path, kind)
    steps.apply(device, commands)
    wait_for_cycle(device, 1, "relay1")
    assert pins(device, list(range(1, 7))) == (inputs, outputs)
    assert column(device, "controlInputMonitored", list(range(1, 7))) == [1] * 6


def test_gpio_type_sets_the_statuses_back(devices):
    device = devices["6891"]
    steps.apply(device, [*write(GPIO.format(1), "gpo"), ["gpio", "gpio1", "1"]])
    wait_for_cycle(device, 1, "relay1")
    assert pins(device, [1]) == ([1], [3])
    steps.apply(device, [*write(GPIO.format(1), "gpi"), ["gpio", "gpio1", "1"]])
    wait_for_cycle(device, 1, "relay1")
    assert pins(device, [1]) == ([3], [1]), "the output is 1 again, and nobody sets it"


def test_pins_of_the_expander_are_inputs_whatever_their_type(devices):
    device, numbers = devices["6214"], list(range(7, 15))
    kinds = ["gpi", "gpo", "none", "", "gpo", "gpo", "gpi", "gpo"]
    commands = [["gpio", f"gpio{number}", str(number % 2)] for number in numbers]
    commands += [command for number, kind in zip(numbers, kinds) for command in write(GPIO.format(number), kind)]
    steps.apply(device, [*commands, ["delete", GPIO.format(9)]])
    wait_for_cycle(device, 12, "e_relay8")
    assert column(device, "controlInputStatus", numbers) == [2 + number % 2 for number in numbers]
    assert column(device, "controlInputMonitored", numbers) == [1] * 8


def test_relay_lines(devices):
    device, lines = devices["6214"], ["relay1", "relay2", "relay3", "relay4"] + [f"e_relay{n}" for n in range(1, 9)]
    levels = ["0", "1", "unreadable", "1"] * 3
    statuses = {"0": 2, "1": 3, "unreadable": 1}
    steps.apply(device, [["gpio", line, level] for line, level in zip(lines, levels)])

    def all_read() -> bool:
        device.shift_clock(steps.CACHE_SECONDS)
        return column(device, "relayStatus", list(range(1, 13))) == [statuses[level] for level in levels]

    wait_until(all_read, 60, what="all relays read")
