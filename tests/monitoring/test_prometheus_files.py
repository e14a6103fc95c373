"""The files of monitoring/prometheus: their structure, and names that one of them uses and another defines."""
from __future__ import annotations

import json
import os
import re
import subprocess

import yaml
from prometheus_files import (ALERTMANAGER, ALERTS_MD, BEFORE, CHECKOUT, DEVICES, FOLDER, RULES, SINCE, alerts, amtool,
                              groups, modules, names_in, program, rules, run, states)
from mib import BASE_MODULES, MIB_FILE, Mib  # the path is set by the one above
from runbook import SECTIONS

MODULE_KEYS = {"walk", "get", "metrics", "max_repetitions", "retries", "timeout"}


# The exporter's modules


def test_both_flavours_have_the_same_module_and_access_where_the_version_looks_for_it():
    before, since = yaml.safe_load(BEFORE.read_text()), yaml.safe_load(SINCE.read_text())
    assert list(before) == list(since["modules"]) == ["kvsnmp"] and set(since["modules"]["kvsnmp"]) == MODULE_KEYS
    assert before["kvsnmp"] == since["modules"]["kvsnmp"] | {"version": 2, "auth": {"community": "public"}}
    assert {name: value for name, value in since.items() if name != "modules"} == {
        "auths": {"kvsnmp_v2": {"community": "public", "version": 2}}}


def test_the_exporter_accepts_the_module():
    """It refuses unknown keys."""
    run("prometheus-snmp-exporter", "--dry-run", f"--config.file={BEFORE}")
    metrics = modules()[BEFORE.name]["metrics"]
    for key in ("name", "oid"):
        assert len({metric[key] for metric in metrics}) == len(metrics), f"two metrics of one {key}"
    for metric in metrics:
        assert re.fullmatch(r"[a-z][a-z0-9_]*", metric["name"]) and metric["help"], metric
        assert metric.get("indexes", [])[:1] in ([], [{"labelname": "index", "type": "gauge"}]), metric
        assert ("enum_values" in metric) == metric["type"].startswith("EnumAs"), metric


def test_scaling():
    """In the exporter the first matching expression makes the number."""
    for metric, text, number in [
            ("kvsnmp_voltage_value", "24100", 24.1), ("kvsnmp_voltage_value", "0", 0), ("kvsnmp_voltage_value", "7", 0.007),
            ("kvsnmp_voltage_value", "42", 0.042), ("kvsnmp_voltage_value", "999", 0.999),
            ("kvsnmp_voltage_value", "4294967295", 4294967.295), ("kvsnmp_temp_current", "524", 52.4),
            ("kvsnmp_temp_current", "0", 0), ("kvsnmp_temp_current", "9", 0.9)]:
        (extracts,) = next(item for item in modules()[BEFORE.name]["metrics"] if item["name"] == metric)["regex_extracts"].values()
        match, value = next((found, extract["value"]) for extract in extracts if (found := re.search(extract["regex"], text)))
        assert float(match.expand(re.sub(r"\$(\d)", r"\\g<\1>", value))) == number, (metric, text)


# The input of the exporter's generator


def test_generator_makes_the_same_module(tmp_path):
    """With the names of the MIB instead of ours, and the device's texts as metrics instead of labels."""
    made_file = tmp_path / "snmp.yml"
    done = subprocess.run([program("prometheus-snmp-generator"), "generate", f"--output-path={made_file}"],
                          cwd=FOLDER, capture_output=True, text=True, timeout=60, check=False,
                          env=os.environ | {"MIBDIRS": f"{MIB_FILE.parent}:{BASE_MODULES}", "MIBS": "KVSNMP-MIB:SNMPv2-MIB"})
    assert done.returncode == 0, done.stderr
    run("prometheus-snmp-exporter", "--dry-run", f"--config.file={made_file}")
    made, ready = yaml.safe_load(made_file.read_text())["kvsnmp"], modules()[BEFORE.name]
    assert {key: made[key] for key in MODULE_KEYS - {"metrics"}} == {key: ready[key] for key in MODULE_KEYS - {"metrics"}}

    def facts(item: dict) -> tuple:
        for rule in (rule for extracts in item.get("regex_extracts", {}).values() for rule in extracts):
            rule["regex"] = re.sub(r"^\^\(\?:(.*)\)\$$", r"\1", rule["regex"])  # the generator anchors it again
        columns = [lookup["oid"] for lookup in item.get("lookups", []) if "oid" in lookup]
        return item["type"], item.get("regex_extracts"), item.get("enum_values"), columns[:1] if "indexes" in item else []

    found = {item["oid"]: facts(item) for item in made["metrics"]}
    expected = {item["oid"]: facts(item) for item in ready["metrics"]}
    number = next(item.oid for item in Mib.read().readable if item.name == "infoModelNumber")
    texts = {lookup["oid"] for item in ready["metrics"] if item["oid"] == number for lookup in item["lookups"] if "oid" in lookup}
    expected[number] = ("gauge", None, None, [])  # the texts are its labels in our module
    assert found == expected | {oid: ("DisplayString", None, None, []) for oid in texts}


# Rules


def test_every_state_is_recorded_before_it_is_used():
    """A group evaluates its rules in order; groups run in no order."""
    found = set()
    for group in groups():
        objects = set()
        for rule in group["rules"]:
            if rule.get("record") == "kvsnmp:state":
                objects.add(rule["labels"]["object"])
                found |= names_in(rule["expr"])
                continue
            for pattern in re.findall(r'object=~?"([^"]*)"', rule["expr"]):
                assert any(re.fullmatch(pattern, name) for name in objects), (group["name"], pattern)
    assert found == set(states())


def test_every_alert_says_what_and_what_to_do():
    for name, rule in alerts().items():
        assert re.fullmatch(r"Kvsnmp[A-Za-z]+", name)
        assert rule["labels"]["severity"] in ("critical", "warning", "info")
        assert set(rule["annotations"]) == {"summary", "description", "runbook"}
        assert "$labels.instance" in rule["annotations"]["summary"]
        # Installed there by the package, and linked by a name that a reader of Markdown makes of the heading.
        file, anchor = rule["annotations"]["runbook"].removeprefix("/usr/share/doc/kvsnmp-monitoring/").split("#")
        assert (CHECKOUT / file, anchor) == (ALERTS_MD, name.lower())
    installed = re.search(r"install\(FILES ([^)]*)DESTINATION \S*/doc/kvsnmp-monitoring/docs",
                          (CHECKOUT / "docs/CMakeLists.txt").read_text())
    assert "alerts.md" in installed[1].split()


# docs/alerts.md, which is made of the rules and the sections of runbook.py


def test_the_end_shows_in_an_object_that_the_alert_watches():
    mib = Mib.read()
    recorded = {rule["record"]: rule["expr"] for rule in rules() if "record" in rule and rule["record"] != "kvsnmp:state"}
    assert set(SECTIONS) == set(alerts())
    for name, section in SECTIONS.items():
        if section.ends == ["sysUpTime"]:
            continue
        query = alerts()[name]["expr"]
        for record, expression in reversed(list(recorded.items())):
            query = query.replace(record, expression)
        patterns = re.findall(r'object=~?"([^"]+)"', query)
        for end in section.ends:
            snake = re.sub(r"(?<=[a-z0-9])(?=[A-Z])", "_", end).lower()
            assert f"kvsnmp_{snake}" in query or any(re.fullmatch(pattern, end) for pattern in patterns), (name, end)
            assert mib.objects[end].enumeration or "(" not in section.end, (name, end)
        for word, code in re.findall(r"(\w+)\((\d+)\)", f"{section.fires} {section.look} {section.end}"):
            assert word in [mib.objects[end].enumeration.get(int(code)) for end in section.ends], (name, word)


def test_traps_of_the_alerts():
    """A trap's end shows in an object of its alerts, as docs/traps.md says; without an alert no object shows it."""
    rows = re.findall(r"^\| \d+ \| `(\w+)` \|[^|]+\|[^|]+\| ([^|]+) \|", (CHECKOUT / "docs/traps.md").read_text(),
                      re.MULTILINE)
    ends = {trap: set(re.findall(r"`([a-z]\w*)", cell.replace("ChannelN", "Channel1"))) for trap, cell in rows}
    assert ends.keys() == Mib.read().notifications.keys()
    for name, section in SECTIONS.items():
        for trap in section.traps:
            assert ends[trap] & set(section.ends), (name, trap)
    assert not any(ends[trap] for trap in ends.keys() - {trap for section in SECTIONS.values() for trap in section.traps})


# Prometheus' own file


def test_scrape_configuration():
    config = yaml.safe_load((FOLDER / "prometheus.yml").read_text())
    (job,) = config["scrape_configs"]
    assert job["job_name"] == "kvsnmp" and job["params"]["module"] == ["kvsnmp"], "the rules ask for up{job=\"kvsnmp\"}"
    assert job["scrape_interval"] == "60s", "a device caches its values for 60 s"
    timeout = int(modules()[BEFORE.name]["timeout"].rstrip("s"))
    assert timeout * (modules()[BEFORE.name]["retries"] + 1) <= int(job["scrape_timeout"].rstrip("s")) <= 60
    assert config["rule_files"] == [f"/etc/prometheus/{RULES.name}"]
    assert job["file_sd_configs"] == [{"files": [f"/etc/prometheus/{DEVICES.name}"]}]
    assert [set(group) for group in json.loads(DEVICES.read_text())] == [{"targets"}]


# Alertmanager's


def test_alertmanager_configuration():
    """Each severity has a separate receiver, and each alert that mutes others exists."""
    amtool("check-config", str(ALERTMANAGER))
    config = yaml.safe_load(ALERTMANAGER.read_text())
    receivers = {receiver["name"] for receiver in config["receivers"]}
    severities = {rule["labels"]["severity"] for rule in alerts().values()}
    routed = {severity: amtool("config", "routes", "test", f"--config.file={ALERTMANAGER}", f"severity={severity}").strip()
              for severity in severities}
    assert routed == {severity: f"kvsnmp-{severity}" for severity in severities} and set(routed.values()) == receivers
    for rule in config["inhibit_rules"]:
        assert rule["equal"] == ["job", "instance"]
        assert re.findall(r'^alertname="(\w+)"$', rule["source_matchers"][0])[0] in alerts()
        for matcher in rule["target_matchers"]:
            pattern = re.fullmatch(r'alertname(?:=~|!=|!~)"(.+)"', matcher)[1]
            assert any(re.fullmatch(pattern, name) for name in alerts()), matcher
