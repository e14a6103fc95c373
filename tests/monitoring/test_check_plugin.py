"""monitoring/checks/check_kvsnmp: ranges, the judgement of each model, its output, and its handling of snmpbulkwalk."""
from __future__ import annotations

import json
import os
import re
import stat
import subprocess
from collections.abc import Iterator
from pathlib import Path

import pytest
import yaml
from prometheus_files import CHECKOUT, alerts, loaded, walks
from mib import Mib  # the path is set by the one above
from support.walkagent import Agents, WalkAgent

PLUGIN = CHECKOUT / "monitoring/checks/check_kvsnmp"
plugin = loaded(PLUGIN)
OK, WARNING, CRITICAL, UNKNOWN = range(4)
PORT = 31162
FACTS = json.loads(PLUGIN.with_name("check_kvsnmp.json").read_text())
RULES = {rule["name"]: rule for rule in FACTS["rules"]}
LIMITS = {rule["measurement"]: [plugin.Range(rule["warning"]), plugin.Range(rule["critical"])]
          for rule in FACTS["rules"] if "measurement" in rule}


def healthy(name: str) -> dict[str, str]:
    return {variable.oid: variable.text for variable in WalkAgent(name, "").variables}


def changed(name: str, *rows: tuple[str, int, object]) -> dict[str, str]:
    """The same with other values in some checks' rows."""
    return healthy(name) | {f"{RULES[check]['column']}{row}": str(value) for check, row, value in rows}


def report(values: dict[str, str], ignored: str = "", limits=None) -> tuple[int, str]:
    return plugin.report("device", plugin.judge(values, FACTS, limits or LIMITS, ignored))


@pytest.mark.parametrize("text, good, bad", [
    ("10", [0, 10, 5.5], [-0.1, 10.1]), ("10:", [10, 1e9], [9.9, -1]), (":10", [0, 10], [-1, 11]), ("~:10", [-1e9, 10], [10.1]),
    ("10:20", [10, 20], [9.9, 20.1]), ("@10:20", [9.9, 20.1], [10, 20, 15]), ("@10", [-1, 11], [0, 10]),
    ("-5:5", [-5, 5], [-5.1, 5.1]), ("0.1:70", [0.1, 70], [0, 70.1])])
def test_range(text, good, bad):
    assert [value for value in good if plugin.Range(text).alerts(value)] == []
    assert [value for value in bad if not plugin.Range(text).alerts(value)] == []


def test_ranges_that_are_none_and_ranges_of_per_cent_around_a_voltage():
    for text in ["", "@", ":", "@:", "a", "5:1", "1:2:3", "1 :2", "1,5", "10:~", "5%", "nan", "1e3"]:
        with pytest.raises(ValueError):
            plugin.Range(text)
    for text, around in ("-5:5", "11.4:12.6"), ("@-10:10", "@10.8:13.2"), ("~:5", "~:12.6"), ("-5:", "11.4:"):
        assert plugin.Range(text).around(12.0) == around


# The judgement


@pytest.mark.parametrize("name", walks.NAMES)
def test_a_healthy_device_is_ok_and_a_missing_row_is_not(name):
    values, measured = healthy(name), 0
    status, text = report(values)
    assert status == OK and text.startswith("KVSNMP OK - device: "), text
    first, _, others = text.partition("\n")
    assert not re.search(r"CRITICAL|WARNING|UNKNOWN -", others)
    for rule in FACTS["rules"]:
        measured += rule["rows"].get(name[:4], 0) if "measurement" in rule else 0
        rows = [oid for oid in values if oid.startswith(rule["column"])]
        if name.replace("-compact", "-extended") in rule["rows"]:
            status, text = report({oid: value for oid, value in values.items() if oid != rows[-1]})
            assert status == UNKNOWN and f"{len(rows) - 1} of {len(rows)} rows" in text, rule["name"]
    labels = re.findall(r"('[^']+')=", first)
    assert len(set(labels)) == len(labels) == measured


@pytest.mark.parametrize("rule", [rule for rule in FACTS["rules"] if "words" in rule], ids=lambda rule: rule["name"])
def test_each_word_has_its_status(rule):
    """On the first row of a model that has the check; test_alerts_and_checks_have_the_same_states has the words."""
    values = healthy(list(rule["rows"])[-1])
    row = next(oid for oid in values if oid.startswith(rule["column"]))
    for code, word in (rule["words"] | {"99": "state 99"}).items():
        expected = (CRITICAL if word in rule["critical"] else WARNING if word in rule["warning"] else UNKNOWN if code == "99"
                    else OK)
        status, text = report(values | {row: code})
        assert (status, text.partition(" - ")[0]) == (expected, f"KVSNMP {plugin.STATUS[expected]}"), word
        line = rf"{plugin.STATUS[expected]} - {rule['name']}: .+: {word}"
        assert re.fullmatch(line, text.splitlines()[1]) if expected else f" - {rule['name']}" not in text, word


FAULTS = [  # walk, check, row, served value, status, and what stands in the line
    ("6420", "Temperatures", 1, 700, OK, ""),
    ("6420", "Temperatures", 1, 701, WARNING, "Channel 1: 70.1 C, outside 0.1:70"),
    ("6420", "Temperatures", 1, 850, WARNING, "Channel 1: 85 C"),
    ("6420", "Temperatures", 1, 851, CRITICAL, "Channel 1: 85.1 C, outside 0:85"),
    ("6420", "Temperatures", 1, 0, WARNING, "Channel 1: 0 C, outside 0.1:70; 0 also means no value"),
    ("6420", "Fans", 1, 500, OK, ""),
    ("6420", "Fans", 1, 499, WARNING, "Left Fan: 499 rpm, outside 500:"),
    ("6420", "Fans", 1, 0, CRITICAL, "Left Fan: 0 rpm, outside 1:; 0 also means no value"),
    ("6420", "Voltages", 3, 3465, OK, ""),
    ("6420", "Voltages", 3, 3135, OK, ""),
    ("6420", "Voltages", 3, 3466, WARNING, "Internal voltage 3.3V: 3.466 V (+5.0 %), outside -5:5 %"),
    ("6420", "Voltages", 3, 3630, WARNING, "Internal voltage 3.3V: 3.63 V (+10.0 %)"),
    ("6420", "Voltages", 3, 3631, CRITICAL, "Internal voltage 3.3V: 3.631 V (+10.0 %), outside -10:10 %"),
    ("6420", "Voltages", 3, 2969, CRITICAL, "Internal voltage 3.3V: 2.969 V (-10.0 %)"),
    ("6420", "Voltages", 3, 0, CRITICAL, "Internal voltage 3.3V: 0 V (-100.0 %), outside -10:10 %; 0 also means no value"),
    ("6425", "Voltages", 16, 21500, CRITICAL, "Internal voltage -24.0V: 21.5 V (-10.4 %)"),
    ("6420", "Line inputs", 1, 3, CRITICAL, "Line In 1: failed"),
    ("6420", "Line inputs", 2, 3, OK, ""),  # not monitored
    ("6601", "Microphones", 4, 7, CRITICAL, "Microphone Intern: shorted"),
    ("6764", "Transponders of channel 2", 10, 4, CRITICAL, "LET 10 Channel 2: missing"),
    ("6211-extended", "Control inputs", 14, 5, CRITICAL, "External Control Input 8: unconnected"),
    ("6259-extended", "Relays", 12, 1, CRITICAL, "External Relay 8: unknown"),
]


@pytest.mark.parametrize("name, check, row, served, expected, said", FAULTS,
                         ids=[f"{name} {check} {row} {served}" for name, check, row, served, *_ in FAULTS])
def test_one_value(name, check, row, served, expected, said):
    status, text = report(changed(name, (check, row, served)))
    assert status == expected
    assert text.startswith(f"KVSNMP {plugin.STATUS[expected]} - ")
    if said:
        assert text.splitlines()[1].startswith(f"{plugin.STATUS[expected]} - {check}: {said}")


def test_what_is_not_monitored_or_not_in_operation_has_no_fault():
    for check, row, state, monitoring in (("Power sources", 2, "2", ".1.3.6.1.4.1.52717.3.5.1.1.5.2"),
                                          ("Line inputs", 1, "3", ".1.3.6.1.4.1.52717.3.6.1.1.5.1")):
        values = changed("6420", (check, row, state))
        assert report(values)[0] == CRITICAL
        assert report(values | {monitoring: "2"})[0] == OK
    missing = ("Transponders of channel 2", 3, 4)
    assert report(changed("6420", missing))[0] == CRITICAL
    status, text = report(changed("6420", missing, ("Amplifier channels", 2, 2)))
    assert (status, text.count("missing"), "disabled" in text) == (WARNING, 1, True)
    assert report(changed("6420", missing, ("Amplifier channels", 1, 2)))[0] == CRITICAL


def test_voltages_that_are_all_0_are_one_fault():
    values = healthy("6420")
    for check in ("Voltages", "Temperatures", "Fans"):
        values |= {oid: "0" for oid in values if oid.startswith(RULES[check]["column"])}
    status, text = report(values)
    assert status == CRITICAL and text.count("CRITICAL - ") == 2 and "WARNING" not in text
    assert "CRITICAL - Voltages: Nothing is measured: all voltages are 0" in text
    assert report(values | {f"{RULES['Fans']['column']}2": "499"})[1].count("Right Fan: 499 rpm") == 1


def test_other_devices():
    for values, status, said in (({}, CRITICAL, "kvsnmp does not"),
                                 (healthy("6420") | {FACTS["model"]: "7000"}, UNKNOWN, "model 7000")):
        with pytest.raises(plugin.Failure, match=said) as failure:
            report(values)
        assert failure.value.status == status


def test_the_most_urgent_is_first():
    status, text = report(changed("6420", ("Fans", 1, 499), ("Relays", 1, "x"), ("Voltages", 1, "x"), ("Control outputs", 6, 5),
                                  ("Amplifier channels", 1, 2)))
    first, *others = text.splitlines()
    assert status == CRITICAL
    assert first.startswith("KVSNMP CRITICAL - device: Control outputs: Control Output 6 failSet, Fans: Left Fan 499 rpm, "
                            "Amplifier channels: Channel 1 disabled, 1 more | ")
    assert [line.partition(" - ")[0] for line in others[:4]] == ["CRITICAL", "WARNING", "WARNING", "UNKNOWN"]
    assert others[4].startswith("Temperatures: ")


def test_rows_can_be_ignored():
    values = changed("6420", ("Fans", 2, 0), ("Control inputs", 5, 4))
    assert report(values, "Right Fan")[0] == CRITICAL
    assert report(values, r"Right Fan|^Control inputs: .* [56]$")[0] == OK
    assert "Right_Fan" not in report(values, "Right Fan")[1]


def test_text_of_the_device_ends_no_field_of_the_output():
    values = changed("6420", ("Fans", 1, 0)) | {f"{RULES['Fans']['description']}1": "a|b\n'c'=1 \x1b[2J\\n\x85d\xff"}
    usual = report(healthy("6420"))[1]
    text = report(values)[1]
    assert len(text.split("\n")) == len(usual.split("\n")) + 1
    assert text.count("|") == 1 and not re.search(r"[\x00-\x09\x0b-\x1f\x7f-\x9f\\]", text)
    assert "Fans: a?b?'c'=1 ?[2J?n?d\xff 0 rpm" in text
    assert "'a_b_c_1_2J_n_d_'=0;500:;1:" in text
    assert plugin.clean("a\nb|c\\d\x7fe\x9ff") == "a?b?c?d?e?f"


def test_limits_of_the_command_line():
    def limits(*words: str):
        return plugin.limits_of(plugin.options_of(["-H", "x", *words], FACTS), FACTS)

    hot = healthy("6420")  # 52.4 degrees
    assert report(hot, limits=limits("-w", "temperature=50"))[0] == WARNING
    assert report(hot, limits=limits("-w", "temperature=50", "-c", "temperature=52"))[0] == CRITICAL
    assert report(hot, limits=limits("-c", "voltage=-0.3:5"))[0] == CRITICAL
    assert report(hot, limits=limits("-w", "fan=@1400:1500"))[1].splitlines()[1].endswith("1450 rpm, inside 1400:1500")
    for wrong in (["-w", "50"], ["-w", "heat=50"], ["-c", "fan="], ["-c", "fan=x|y"]):
        with pytest.raises(plugin.Failure) as failure:
            limits(*wrong)
        assert failure.value.status == UNKNOWN and "|" not in str(failure.value)


# The same facts everywhere


def test_alerts_and_triggers_have_the_same_limits():
    expressions = {name: " ".join(rule["expr"].split()) for name, rule in alerts().items()}
    temperature, voltage = ([limit.high for limit in LIMITS[kind]] for kind in ("temperature", "voltage"))
    assert re.findall(r"[<>]=? ([\d.]+)", expressions["KvsnmpTempHigh"]) == [f"{end:g}" for end in temperature]
    assert re.findall(r"[<>]=? ([\d.]+)", expressions["KvsnmpVoltageDrift"]) == [f"{end / 100:g}" for end in voltage]
    template = yaml.safe_load((CHECKOUT / "monitoring/zabbix/kvsnmp-template.yaml").read_text())
    macros = {macro["macro"]: macro["value"] for macro in template["zabbix_export"]["templates"][0]["macros"]}
    assert [macros[f"{{$KV.TEMP.{level}}}"] for level in ("WARN", "CRIT")] == [f"{end:g}" for end in temperature]
    assert [macros[f"{{$KV.VOLTAGE.{level}}}"] for level in ("WARN", "CRIT")] == [f"{end:g}" for end in voltage]


def test_alerts_and_checks_have_the_same_states():
    """There is no alert for what has not been reported, except of channels and relays."""
    alerted = {name: {("notReported", "warning"), ("unknown", "warning")}
               for name in ("powerLive", "lineInStatus", "lineInMicStatus", "ampChannelLineState")}
    for rule in alerts().values():
        for name, words in re.findall(r'object=~?"([^"]+)", state=~?"([^"]+)"', rule["expr"])[:1]:
            alerted.setdefault(name, set()).update((word, rule["labels"]["severity"]) for word in words.split("|"))
    for channel in "12":
        alerted[f"letChannel{channel}Status"] = alerted["letChannel[12]Status"]
    names = {f".{item.oid}.": item.name for item in Mib.read().readable}
    listed = {names[rule["column"]]: {(word, level) for level in ("warning", "critical") for word in rule[level]}
              for rule in FACTS["rules"] if "words" in rule}
    for alone in ("ethMonitoringMonitored", "letChannel[12]Status"):
        del alerted[alone]
    assert alerted == listed


# The program; the device tests have its answers of real devices


@pytest.fixture(scope="module")
def device() -> Iterator[WalkAgent]:
    device = WalkAgent("6420", "hall")
    agents = Agents({("127.0.70.1", PORT): device.answer})
    agents.start()
    yield device
    agents.stop()


@pytest.fixture
def tools(tmp_path) -> Path:
    """A folder with a snmpbulkwalk that keeps its arguments and its configuration, and hangs if there is a file "pid"."""
    folder = tmp_path / "tools"
    folder.mkdir()
    (folder / "snmpbulkwalk").write_text(
        '#!/bin/sh\ncd "${0%/*}"\necho "$*" > arguments\ncat "$SNMPCONFPATH/snmp.conf" > conf\necho "$SNMPCONFPATH" > place\n'
        'stat -Lc %a "$SNMPCONFPATH" "$SNMPCONFPATH/snmp.conf" > modes\n'
        '[ ! -e pid ] || { echo $$ > pid; exec sleep 60; }\nexec /usr/bin/snmpbulkwalk "$@"\n')
    (folder / "snmpbulkwalk").chmod(0o755)
    return folder


def run(tools: Path, *arguments: str, program: Path = PLUGIN, path: str = ":/usr/bin:/bin") -> tuple[int, str]:
    done = subprocess.run([program, *arguments], capture_output=True, text=True, timeout=60, check=False,
                          env={"PATH": f"{tools}{path}", "LC_ALL": "C"})
    assert done.stderr == ""
    return done.returncode, done.stdout


ADDRESS = ("-H", "127.0.70.1", "-p", str(PORT))


def test_walk_and_exit_status_also_through_a_link(tools, tmp_path, device):
    status, text = run(tools, *ADDRESS)
    assert status == OK and text.startswith("KVSNMP OK - 6420 Orvane Mervio Amplifier VQ9D: 60 values in order | 'Channel_1'=")
    assert text == report(healthy("6420"))[1].replace("device", "6420 Orvane Mervio Amplifier VQ9D", 1) + "\n"
    assert (tools / "arguments").read_text().split()[-2:] == [f"udp:127.0.70.1:{PORT}", ".1.3.6.1.4.1.52717.3"]
    for speed, status in (("499", WARNING), ("0", CRITICAL), ("1450", OK)):
        device.change({"fanSpeed.1": speed})
        assert run(tools, *ADDRESS)[0] == status
    (tmp_path / "check_kvsnmp").symlink_to(PLUGIN)
    assert run(tools, *ADDRESS, program=tmp_path / "check_kvsnmp")[0] == OK
    assert PLUGIN.stat().st_mode & stat.S_IXOTH and os.access(PLUGIN.with_name("check_kvsnmp.json"), os.R_OK)
    assert run(tools, "-H", "2001:db8::1", "-t", "0.5")[0] == CRITICAL
    assert (tools / "arguments").read_text().split()[-2] == "udp6:[2001:db8::1]:161"


def test_without_the_tool(tools):
    (tools / "snmpbulkwalk").unlink()
    (tools / "python3").symlink_to("/usr/bin/python3")
    status, text = run(tools, "-H", "x", path="")
    assert status == UNKNOWN and text.startswith("KVSNMP UNKNOWN - cannot run snmpbulkwalk"), text


def test_the_timeout_bounds_everything_and_leaves_nothing(tools):
    (tools / "pid").write_text("")
    assert run(tools, "-H", "192.0.2.1", "-t", "0.5") == (CRITICAL, "KVSNMP CRITICAL - no result within 0.5 s\n")
    assert not Path((tools / "place").read_text().strip()).exists()
    assert not Path("/proc", (tools / "pid").read_text().strip()).exists()


def test_credentials_are_not_in_the_list_of_processes(tools, tmp_path):
    file = tmp_path / "a file"
    file.write_text("defVersion 2c\ndefCommunity secret\n")
    assert run(tools, *ADDRESS, "-t", "0.5", "--credentials", str(file))[0] == CRITICAL
    assert (tools / "conf").read_text() == file.read_text()
    run(tools, *ADDRESS, "-t", "0.5", "-P", "3", "-U", "me", "-L", "authPriv", "-a", "SHA", "-A", r'a"b\c', "-x", "AES",
        "-X", "priv secret")
    assert (tools / "conf").read_text().splitlines() == [
        "defVersion 3", "defSecurityLevel authPriv", "defAuthType SHA", "defPrivType AES", 'defCommunity "public"',
        'defSecurityName "me"', r'defAuthPassphrase "a\"b\\c"', 'defPrivPassphrase "priv secret"']
    assert not re.search("secret|authPriv|me", (tools / "arguments").read_text().replace("udp:", ""))
    assert (tools / "modes").read_text().split()[0] == "700"
    assert not Path((tools / "place").read_text().strip()).exists()
    assert run(tools, "-H", "x", "-C", "a\nb") == (UNKNOWN, "KVSNMP UNKNOWN - a control character in the credentials\n")
    assert run(tools, "-H", "x", "--credentials", "/no") == (UNKNOWN, "KVSNMP UNKNOWN - cannot read /no\n")


WRONG = "KVSNMP UNKNOWN - "


@pytest.mark.parametrize("words, said", [
    *[(words, WRONG) for words in ("", "-H", "-H x -w 50", "-H x -t 0", "-H x -i (", "-H x --no-such", "-H x -P 4", "-H x -p snmp")],
    ("--help", r"(?s)usage: .*default -w 0.1:70 -c 0:85.*default -w -5:5 -c -10:10"),
    ("-V", r"check_kvsnmp for KVSNMP-MIB \d{12}Z\n$")])
def test_a_wrong_command_line_is_unknown(tools, words, said):
    """Help and the version, too."""
    status, text = run(tools, *words.split())
    assert status == UNKNOWN and re.match(said, text) and (said != WRONG or text.count("\n") == 1)
    assert not (tools / "arguments").exists()
